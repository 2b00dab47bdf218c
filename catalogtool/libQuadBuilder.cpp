#include "catalogtool/libQuadBuilder.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <limits>
#include <numbers>
#include <numeric>
#include <tuple>
#include <unordered_map>
#include <utility>

#include "astro/libMath.h"
#include "astro/libParallel.h"

namespace vestrel {

namespace {

using std::numbers::pi;

/// How far the stars of a quad may lie from its central one, on the plane of a frame.
constexpr double neighbourRadius = 1.5 * RadiansPerDegree;

double MiddleDiagonal(const QuadPlan& plan) {
    return std::sqrt(plan.SmallestDiagonal * plan.LargestDiagonal) * RadiansPerDegree;
}

/// The cells in which the brightest stars of a plan's frames are searched.
SkyCells CellsFor(const QuadPlan& plan) {
    return SkyCells(MiddleDiagonal(plan) / 2.2);
}

/// The sky in cells with only the brightest stars of each, to find a frame's brightest stars
/// quickly.
class BrightCells {
 public:
    struct Star {
        std::int32_t Place = 0;  ///< in the sky: the fainter, the larger
        Direction At{};
    };

    BrightCells(const std::vector<CatalogStar>& sky, const QuadPlan& plan)
        : cells_(CellsFor(plan)) {
        const auto most = static_cast<std::uint32_t>(plan.StarsPerFrame);
        const auto cellOf = [&](const CatalogStar& star) {
            return cells_.CellOf(PositionOf(star));
        };
        std::vector<std::uint32_t> counts(cells_.Count());
        for (const CatalogStar& star : sky) {
            std::uint32_t& count = counts[cellOf(star)];
            count = std::min(count + 1, most);
        }
        starts_.push_back(0);
        for (const std::uint32_t count : counts) starts_.push_back(starts_.back() + count);
        stars_.resize(starts_.back());
        std::fill(counts.begin(), counts.end(), 0);
        for (std::size_t i = 0; i < sky.size(); ++i) {
            const std::uint32_t cell = cellOf(sky[i]);
            if (counts[cell] == most) continue;
            stars_[starts_[cell] + counts[cell]++] = {static_cast<std::int32_t>(i),
                                                      DirectionOf(PositionOf(sky[i]))};
        }
    }

    /// Calls `visit` with every star of the cells that a circle touches.
    template <typename Visit>
    void Around(SkyPosition centre, double radius, Visit visit) const {
        cells_.Around(centre, radius, [&](std::uint32_t first, std::uint32_t count) {
            for (std::uint32_t i = starts_[first]; i < starts_[first + count]; ++i)
                visit(stars_[i]);
        });
    }

 private:
    SkyCells cells_;
    std::vector<std::uint32_t> starts_;  ///< of each cell in `stars_`
    std::vector<Star> stars_;
};

struct FrameStar {
    std::int32_t Star = 0;  ///< index in the sky's list; fainter stars have larger ones
    double X = 0;           ///< radians on the gnomonic plane
    double Y = 0;
};

double SquaredDistance(const FrameStar& a, const FrameStar& b) {
    return (a.X - b.X) * (a.X - b.X) + (a.Y - b.Y) * (a.Y - b.Y);
}

/// The indices of four stars in the sky's list, brightest first.
using StarQuad = std::array<std::int32_t, 4>;

StarQuad Sorted(StarQuad quad) {
    std::sort(quad.begin(), quad.end());
    return quad;
}

/// The frames that a plan lays on the sky, by number.
class FrameSet {
 public:
    FrameSet(const QuadSky& sky, const QuadPlan& plan) : plan_(plan), cells_(sky.Stars(), plan) {
        // A frame of 4 : 3 covers 0.48 of the square of its diagonal.
        const double area = MiddleDiagonal(plan) * MiddleDiagonal(plan) * 0.48;
        count_ = static_cast<std::int64_t>(4 * pi / area * plan.FramesPerField);
    }

    std::int64_t Count() const { return count_; }

    /// The frames from `begin` to `end` by right ascension. So neighbours on the sky, which share
    /// stars and most of their quads, follow each other closely.
    static std::vector<std::int64_t> AlongTheSky(std::int64_t begin, std::int64_t end) {
        std::vector<std::int64_t> frames(static_cast<std::size_t>(end - begin));
        std::iota(frames.begin(), frames.end(), begin);
        std::vector<std::pair<double, std::int64_t>> places;
        places.reserve(frames.size());
        for (const std::int64_t frame : frames) places.emplace_back(RaOf(frame), frame);
        std::sort(places.begin(), places.end());
        std::transform(places.begin(), places.end(), frames.begin(),
                       [](const auto& place) { return place.second; });
        return frames;
    }

    /// The brightest stars of a frame, brightest first.
    void StarsOf(std::int64_t number, std::vector<FrameStar>& stars) const {
        const auto i = static_cast<double>(number);
        // Multiples of irrational numbers spread all properties of frames evenly: a spiral with the
        // golden angle for the centres, and two more for rotation and size.
        const double dec = std::asin(1 - (2 * i + 1) / static_cast<double>(count_));
        const double ra = RaOf(number);
        const double turn = std::fmod(i * 0.5698402909980532, 1.0) * pi;
        const double diagonal = plan_.SmallestDiagonal * RadiansPerDegree *
                                std::pow(plan_.LargestDiagonal / plan_.SmallestDiagonal,
                                         std::fmod(i * 0.7548776662466927, 1.0));
        constexpr std::array<double, 3> aspects = {1, 4 / 3.0, 1.5};
        const double aspect = aspects[static_cast<std::size_t>(number % 3)];
        const double width = diagonal * aspect / std::hypot(aspect, 1.0);

        const Direction centre = DirectionOf({ra, dec});
        const Direction east{-std::sin(ra), std::cos(ra), 0};
        const Direction north{-std::sin(dec) * std::cos(ra), -std::sin(dec) * std::sin(ra),
                              std::cos(dec)};
        const double halfWidth = std::tan(width / 2);
        const double halfHeight = std::tan(width / aspect / 2);
        const double cosTurn = std::cos(turn);
        const double sinTurn = std::sin(turn);
        stars.clear();
        cells_.Around({ra, dec}, diagonal / 2 * 1.1, [&](const BrightCells::Star& star) {
            const double z = Dot(star.At, centre);
            if (z <= 0) return;
            const double e = Dot(star.At, east) / z;
            const double n = Dot(star.At, north) / z;
            const double x = e * cosTurn + n * sinTurn;
            const double y = n * cosTurn - e * sinTurn;
            if (std::fabs(x) <= halfWidth && std::fabs(y) <= halfHeight) {
                stars.push_back({star.Place, x, y});
            }
        });
        const auto brighter = [](const FrameStar& a, const FrameStar& b) {
            return a.Star < b.Star;
        };
        const auto most = static_cast<std::size_t>(plan_.StarsPerFrame);
        if (stars.size() > most) {
            std::nth_element(stars.begin(), stars.begin() + plan_.StarsPerFrame, stars.end(),
                             brighter);
            stars.resize(most);
        }
        std::sort(stars.begin(), stars.end(), brighter);
    }

 private:
    static double RaOf(std::int64_t number) {
        return std::fmod(static_cast<double>(number) * 2.399963229728653, 2 * pi);
    }

    const QuadPlan& plan_;
    BrightCells cells_;
    std::int64_t count_ = 0;
};

/// The brightest star after the last one of the triple that lies in the circle over the triple's
/// longest side: every frame that shows the triple shows that star too. Null when the triple is too
/// wide.
const FrameStar* StarBetween(const std::vector<FrameStar>& stars, std::size_t r1, std::size_t r2,
                             std::size_t r3) {
    const auto length = [&stars](std::size_t a, std::size_t b) {
        return SquaredDistance(stars[a], stars[b]);
    };
    const auto [longest, from, to] =
        std::max({std::make_tuple(length(r1, r2), r1, r2), std::make_tuple(length(r1, r3), r1, r3),
                  std::make_tuple(length(r2, r3), r2, r3)});
    if (longest > neighbourRadius * neighbourRadius) return nullptr;
    const FrameStar middle{0, (stars[from].X + stars[to].X) / 2, (stars[from].Y + stars[to].Y) / 2};
    for (std::size_t i = r3 + 1; i < stars.size(); ++i) {
        if (SquaredDistance(stars[i], middle) <= longest / 4) return &stars[i];
    }
    return nullptr;
}

void AddNarrowQuads(const std::vector<FrameStar>& stars, const QuadPlan& plan,
                    std::vector<StarQuad>& quads) {
    for (int lost = 0; lost <= plan.BrightestLost; ++lost) {
        for (int gaps = 0; gaps <= plan.Gaps; ++gaps) {
            for (int early = 0; early <= gaps; ++early) {
                const auto r1 = static_cast<std::size_t>(lost);
                const std::size_t r2 = r1 + 1 + static_cast<std::size_t>(early);
                const std::size_t r3 = r1 + 2 + static_cast<std::size_t>(gaps);
                if (r3 >= stars.size()) continue;
                const FrameStar* between = StarBetween(stars, r1, r2, r3);
                if (between == nullptr) continue;
                quads.push_back(
                    Sorted({stars[r1].Star, stars[r2].Star, stars[r3].Star, between->Star}));
            }
        }
    }
}

void AddWideQuads(const std::vector<FrameStar>& stars, const QuadPlan& plan,
                  std::vector<StarQuad>& quads) {
    const std::size_t central = std::min(stars.size(), static_cast<std::size_t>(plan.CentralStars));
    std::vector<std::int32_t> near;
    for (std::size_t s = 0; s < central; ++s) {
        near.clear();
        for (std::size_t j = 0;
             j < stars.size() && near.size() < static_cast<std::size_t>(plan.Neighbours); ++j) {
            if (j != s && SquaredDistance(stars[j], stars[s]) < neighbourRadius * neighbourRadius) {
                near.push_back(stars[j].Star);
            }
        }
        for (std::size_t a = 0; a < near.size(); ++a) {
            for (std::size_t b = a + 1; b < near.size(); ++b) {
                for (std::size_t c = b + 1; c < near.size(); ++c) {
                    quads.push_back(Sorted({stars[s].Star, near[a], near[b], near[c]}));
                }
            }
        }
    }
}

template <typename T>
void KeepUnique(std::vector<T>& list) {
    std::sort(list.begin(), list.end());
    list.erase(std::unique(list.begin(), list.end()), list.end());
}

/// Marks the stars that any frame contains; threads set the marks in any order.
using StarMarks = std::vector<std::atomic<bool>>;

/// Recognizes most of the quads that occurred shortly before.
class RecentQuads {
 public:
    bool IsNew(const StarQuad& quad) {
        std::uint64_t mixed = 0;
        for (const std::int32_t star : quad) {
            mixed = (mixed ^ static_cast<std::uint64_t>(star)) * 0x9E3779B97F4A7C15U;
        }
        StarQuad& known = quads_[mixed >> (64 - sizeBits)];
        if (known == quad) return false;
        known = quad;
        return true;
    }

 private:
    static constexpr int sizeBits = 14;  // 256 KB
    std::vector<StarQuad> quads_ = std::vector<StarQuad>(std::size_t{1} << sizeBits, {-1, 0, 0, 0});
};

/// The quads of a range of consecutive frames, the greatest first.
std::vector<StarQuad> GatherRun(const FrameSet& frames, const QuadPlan& plan, std::int64_t begin,
                                std::int64_t end, StarMarks& marks) {
    std::vector<StarQuad> quads;
    std::vector<FrameStar> stars;
    RecentQuads recent;
    // Duplicates are removed from time to time.
    std::size_t enough = 1U << 17;
    for (const std::int64_t frame : FrameSet::AlongTheSky(begin, end)) {
        frames.StarsOf(frame, stars);
        for (const FrameStar& star : stars) {
            std::atomic<bool>& mark = marks[static_cast<std::size_t>(star.Star)];
            // Not written when unchanged, as threads would compete for the cache line.
            if (!mark.load(std::memory_order_relaxed)) mark.store(true, std::memory_order_relaxed);
        }
        const auto before = static_cast<std::ptrdiff_t>(quads.size());
        (plan.SharedBrightest ? AddNarrowQuads : AddWideQuads)(stars, plan, quads);
        quads.erase(std::remove_if(quads.begin() + before, quads.end(),
                                   [&](const StarQuad& quad) { return !recent.IsNew(quad); }),
                    quads.end());
        if (quads.size() > enough) {
            KeepUnique(quads);
            enough = 2 * quads.size() + (1U << 17);
        }
    }
    KeepUnique(quads);
    std::reverse(quads.begin(), quads.end());
    quads.shrink_to_fit();
    return quads;
}

/// The quads of all ranges, each once, in order. They are removed from the ranges step by step, so
/// that memory does not hold them twice.
std::vector<StarQuad> MergeQuads(std::vector<std::vector<StarQuad>>& runs) {
    // Slices by the first star, of about equal size in the longest run.
    const auto& longest = *std::max_element(
        runs.begin(), runs.end(), [](const auto& a, const auto& b) { return a.size() < b.size(); });
    constexpr std::size_t sliceCount = 64;
    constexpr std::size_t atOnce = 8;
    constexpr std::int32_t beyondAll = std::numeric_limits<std::int32_t>::max();
    std::vector<std::int32_t> bounds = {0};
    for (std::size_t i = 1; i < sliceCount; ++i) {
        const std::size_t place = longest.size() * (sliceCount - i) / sliceCount;
        bounds.push_back(longest.empty() ? 0 : longest[std::min(place, longest.size() - 1)][0]);
    }
    bounds.push_back(beyondAll);
    std::size_t most = 0;
    for (const auto& run : runs) most += run.size();
    std::vector<StarQuad> all;
    all.reserve(most);
    for (std::size_t begin = 0; begin < sliceCount; begin += atOnce) {
        std::vector<std::vector<StarQuad>> slices(atOnce);
        // The end of the quads of a range whose first star is `bound` or later.
        const auto place = [](const std::vector<StarQuad>& run, std::int32_t bound) {
            return std::partition_point(run.begin(), run.end(),
                                        [bound](const StarQuad& quad) { return quad[0] >= bound; });
        };
        ParallelFor(static_cast<int>(atOnce), [&](int number) {
            const std::size_t slice = begin + static_cast<std::size_t>(number);
            std::vector<StarQuad>& quads = slices[static_cast<std::size_t>(number)];
            for (const std::vector<StarQuad>& run : runs) {
                quads.insert(quads.end(), place(run, bounds[slice + 1]), place(run, bounds[slice]));
            }
            KeepUnique(quads);
        });
        for (std::vector<StarQuad>& run : runs) {
            run.erase(place(run, bounds[begin + atOnce]), run.end());
            run.shrink_to_fit();
        }
        for (const auto& slice : slices) all.insert(all.end(), slice.begin(), slice.end());
    }
    runs.clear();
    return all;
}

/// A plan for narrow fields.
constexpr QuadPlan Narrow(double from, double to, double framesPerField) {
    QuadPlan plan;
    plan.SmallestDiagonal = from;
    plan.LargestDiagonal = to;
    plan.FramesPerField = framesPerField;
    plan.StarsPerFrame = 25;
    plan.SharedBrightest = true;
    plan.BrightestLost = 4;
    plan.Gaps = 1;
    return plan;
}

/// A plan for wide fields.
constexpr QuadPlan Wide(double from, double to, int starsPerFrame, int centralStars) {
    QuadPlan plan;
    plan.SmallestDiagonal = from;
    plan.LargestDiagonal = to;
    plan.FramesPerField = 16;
    plan.StarsPerFrame = starsPerFrame;
    plan.CentralStars = centralStars;
    plan.Neighbours = 4;
    return plan;
}

}  // namespace

const std::vector<QuadPlan>& QuadPlans() {
    static const std::vector<QuadPlan> plans = {
        Narrow(0.2, 0.28, 9),  Narrow(0.28, 0.4, 9),   Narrow(0.4, 0.6, 9),   Narrow(0.6, 0.9, 9),
        Narrow(0.9, 1.25, 9),  Narrow(1.25, 1.75, 16), Narrow(1.75, 2.5, 16), Narrow(2.5, 3.5, 16),
        Wide(3.5, 5, 25, 8),   Wide(5, 7.1, 25, 16),   Wide(7.1, 10, 40, 32), Wide(10, 18, 60, 50),
        Wide(18, 30, 100, 90),
    };
    return plans;
}

std::vector<QuadPlan> PlansFor(double smallestDiagonal, double largestDiagonal) {
    std::vector<QuadPlan> chosen;
    for (QuadPlan plan : QuadPlans()) {
        plan.SmallestDiagonal = std::max(plan.SmallestDiagonal, smallestDiagonal);
        plan.LargestDiagonal = std::min(plan.LargestDiagonal, largestDiagonal);
        if (plan.SmallestDiagonal < plan.LargestDiagonal) chosen.push_back(plan);
    }
    return chosen;
}

QuadSky::QuadSky(const std::vector<QuadPlan>& plans) : cells_(CellsFor(plans.front())) {
    for (const QuadPlan& plan : plans) {
        mostInCell_ = std::max(mostInCell_, static_cast<std::size_t>(plan.StarsPerFrame));
    }
}

void QuadSky::Add(std::vector<CatalogStar> cell) {
    std::sort(cell.begin(), cell.end(), ComesBefore);
    std::unordered_map<std::uint32_t, std::size_t> counts;
    for (const CatalogStar& star : cell) {
        std::size_t& count = counts[cells_.CellOf(PositionOf(star))];
        if (++count <= mostInCell_) stars_.push_back(star);
    }
}

void QuadSky::Finish() {
    std::sort(stars_.begin(), stars_.end(), ComesBefore);
}

QuadList BuildQuadList(const QuadSky& sky, const QuadPlan& plan,
                       const std::function<void(int done, int total)>& progress) {
    constexpr int runCount = 32;
    std::vector<std::vector<StarQuad>> runs(runCount);
    StarMarks marks(sky.Stars().size());
    {
        const FrameSet frames(sky, plan);
        ParallelFor(
            runCount,
            [&](int r) {
                runs[static_cast<std::size_t>(r)] =
                    GatherRun(frames, plan, frames.Count() * r / runCount,
                              frames.Count() * (r + 1) / runCount, marks);
            },
            progress);
    }
    QuadList list;
    list.Quads = MergeQuads(runs);
    std::vector<std::int32_t> placeOf(marks.size());
    for (std::size_t star = 0; star < marks.size(); ++star) {
        if (!marks[star]) continue;
        placeOf[star] = static_cast<std::int32_t>(list.Stars.size());
        list.Stars.push_back(sky.Stars()[star]);
    }
    for (StarQuad& quad : list.Quads) {
        for (std::int32_t& star : quad) star = placeOf[static_cast<std::size_t>(star)];
    }
    return list;
}

}  // namespace vestrel
