#include "catalogtool/libQuadBuilder.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <limits>
#include <mutex>
#include <numbers>
#include <numeric>
#include <span>
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

/// The stars among which the brightest of any frame are: the brightest of each cell of the size of
/// half a frame. They are found by smaller cells.
class BrightStars {
 public:
    BrightStars(const std::vector<CatalogStar>& sky, const QuadPlan& plan)
        : sky_(sky), cells_(MiddleDiagonal(plan) / 6) {
        constexpr auto none = std::numeric_limits<std::uint32_t>::max();
        const SkyCells halves = CellsFor(plan);
        std::vector<int> counts(halves.Count());
        std::vector<std::uint32_t> cellOf(sky.size(), none);
        starts_.assign(std::size_t{cells_.Count()} + 1, 0);
        for (std::size_t i = 0; i < sky.size(); ++i) {
            const SkyPosition position = PositionOf(sky[i]);
            if (++counts[halves.CellOf(position)] > plan.StarsPerFrame) continue;
            cellOf[i] = cells_.CellOf(position);
            ++starts_[cellOf[i] + 1];
        }
        std::partial_sum(starts_.begin(), starts_.end(), starts_.begin());
        stars_.resize(starts_.back());
        std::vector<std::uint32_t> next(starts_.begin(), starts_.end() - 1);
        for (std::size_t i = 0; i < sky.size(); ++i) {
            if (cellOf[i] != none) stars_[next[cellOf[i]]++] = static_cast<std::uint32_t>(i);
        }
    }

    /// The stars of all cells between two declinations, with their directions.
    class Belt {
     public:
        Belt(const BrightStars& all, double south, double north)
            : all_(all),
              begin_(all.starts_[all.cells_.CellOf({0, south})]),
              count_(all.starts_[all.cells_.CellOf({2 * pi, north}) + 1] - begin_) {
            for (auto& axis : axes_) axis.reserve(count_);
            for (std::uint32_t i = 0; i < count_; ++i) {
                const Direction at = DirectionOf(PositionOf(all.sky_[StarAt(i)]));
                for (std::size_t k = 0; k < at.size(); ++k) axes_[k].push_back(at[k]);
            }
        }

        /// The index of a star of the belt in the sky's list.
        std::uint32_t StarAt(std::uint32_t i) const { return all_.stars_[begin_ + i]; }
        Direction DirectionAt(std::uint32_t i) const {
            return {axes_[0][i], axes_[1][i], axes_[2][i]};
        }

        /// Calls `visit(i, product)` with the stars whose directions have a dot product of at least
        /// `least` with a centre; a circle of `radius` (radians) contains them and lies in the
        /// belt.
        template <typename Visit>
        void Around(SkyPosition centre, double radius, double least, Visit visit) const {
            const Direction middle = DirectionOf(centre);
            std::array<double, 64> products{};
            all_.cells_.Around(centre, radius, [&](std::uint32_t first, std::uint32_t count) {
                const std::uint32_t end = all_.starts_[first + count] - begin_;
                // The products come before the choice, so that several are computed at once.
                for (std::uint32_t begin = all_.starts_[first] - begin_; begin < end;) {
                    const std::uint32_t piece =
                        std::min(static_cast<std::uint32_t>(products.size()), end - begin);
                    const double* x = axes_[0].data() + begin;
                    const double* y = axes_[1].data() + begin;
                    const double* z = axes_[2].data() + begin;
                    for (std::uint32_t i = 0; i < piece; ++i) {
                        products[i] = x[i] * middle[0] + y[i] * middle[1] + z[i] * middle[2];
                    }
                    for (std::uint32_t i = 0; i < piece; ++i) {
                        if (products[i] >= least) visit(begin + i, products[i]);
                    }
                    begin += piece;
                }
            });
        }

     private:
        const BrightStars& all_;
        std::uint32_t begin_;
        std::uint32_t count_;
        std::array<std::vector<double>, 3> axes_;  ///< of the directions
    };

 private:
    const std::vector<CatalogStar>& sky_;
    SkyCells cells_;
    std::vector<std::uint32_t> starts_;  ///< of each cell in `stars_`
    std::vector<std::uint32_t> stars_;
};

struct FrameStar {
    std::uint32_t Star = 0;  ///< index in the sky's list; fainter stars have larger ones
    std::uint32_t InBelt = 0;
    double X = 0;  ///< radians on the gnomonic plane
    double Y = 0;
};

double SquaredDistance(const FrameStar& a, const FrameStar& b) {
    return (a.X - b.X) * (a.X - b.X) + (a.Y - b.Y) * (a.Y - b.Y);
}

/// The frames that a plan lays on the sky, by number from north to south.
class FrameSet {
 public:
    FrameSet(const QuadSky& sky, const QuadPlan& plan) : plan_(plan), stars_(sky.Stars(), plan) {
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

    /// The stars that the frames from `begin` to `end` need.
    BrightStars::Belt BeltOf(std::int64_t begin, std::int64_t end) const {
        const double reach = plan_.LargestDiagonal * RadiansPerDegree * reachOfDiagonal * 1.001;
        return {stars_, DecOf(std::max(begin, end - 1)) - reach, DecOf(begin) + reach};
    }

    /// Memory that is used again for each frame.
    struct Room {
        std::vector<FrameStar> Inside;
        std::vector<std::uint64_t> Order;  ///< star, place in `Inside`
    };

    /// The brightest stars of a frame, brightest first.
    void StarsOf(std::int64_t number, const BrightStars::Belt& belt, Room& room,
                 std::vector<FrameStar>& stars) const {
        const auto i = static_cast<double>(number);
        // Multiples of irrational numbers spread all properties of frames evenly: a spiral with the
        // golden angle for the centres, and two more for rotation and size.
        const double dec = DecOf(number);
        const double ra = RaOf(number);
        const double turn = std::fmod(i * 0.5698402909980532, 1.0) * pi;
        const double diagonal = plan_.SmallestDiagonal * RadiansPerDegree *
                                std::pow(plan_.LargestDiagonal / plan_.SmallestDiagonal,
                                         std::fmod(i * 0.7548776662466927, 1.0));
        constexpr std::array<double, 3> aspects = {1, 4 / 3.0, 1.5};
        const double aspect = aspects[static_cast<std::size_t>(number % 3)];
        const double width = diagonal * aspect / std::hypot(aspect, 1.0);

        const Direction east{-std::sin(ra), std::cos(ra), 0};
        const Direction north{-std::sin(dec) * std::cos(ra), -std::sin(dec) * std::sin(ra),
                              std::cos(dec)};
        const double halfWidth = std::tan(width / 2);
        const double halfHeight = std::tan(width / aspect / 2);
        const double cosTurn = std::cos(turn);
        const double sinTurn = std::sin(turn);
        // The cosine of the angle to a corner; the margin outweighs rounding.
        const double cosCorner =
            1 / std::sqrt(1 + halfWidth * halfWidth + halfHeight * halfHeight) - 1e-12;
        auto& inside = room.Inside;
        auto& order = room.Order;
        inside.clear();
        order.clear();
        belt.Around({ra, dec}, diagonal * reachOfDiagonal, cosCorner,
                    [&](std::uint32_t star, double z) {
                        const Direction at = belt.DirectionAt(star);
                        const double e = Dot(at, east) / z;
                        const double n = Dot(at, north) / z;
                        const double x = e * cosTurn + n * sinTurn;
                        const double y = n * cosTurn - e * sinTurn;
                        if (std::fabs(x) > halfWidth || std::fabs(y) > halfHeight) return;
                        order.push_back(std::uint64_t{belt.StarAt(star)} << 32 | inside.size());
                        inside.push_back({belt.StarAt(star), star, x, y});
                    });
        const auto most = static_cast<std::size_t>(plan_.StarsPerFrame);
        if (order.size() > most) {
            std::nth_element(order.begin(), order.begin() + plan_.StarsPerFrame, order.end());
            order.resize(most);
        }
        std::sort(order.begin(), order.end());
        stars.clear();
        for (const std::uint64_t entry : order) stars.push_back(inside[entry & 0xFFFFFFFFU]);
    }

 private:
    /// How far stars are looked for from a frame's centre, in diagonals.
    static constexpr double reachOfDiagonal = 0.55;

    static double RaOf(std::int64_t number) {
        return std::fmod(static_cast<double>(number) * 2.399963229728653, 2 * pi);
    }
    double DecOf(std::int64_t number) const {
        return std::asin(1 - (2 * static_cast<double>(number) + 1) / static_cast<double>(count_));
    }

    const QuadPlan& plan_;
    BrightStars stars_;
    std::int64_t count_ = 0;
};

/// The places of a quad's stars in the list of a frame, rising.
using FrameQuad = std::array<std::size_t, 4>;

/// The place of the brightest star after the last one of the triple that lies in the circle over
/// the triple's longest side: every frame that shows the triple shows that star too. Beyond the end
/// when there is none, or the triple is too wide.
std::size_t StarBetween(const std::vector<FrameStar>& stars, std::size_t r1, std::size_t r2,
                        std::size_t r3) {
    std::size_t from = r1;
    std::size_t to = r2;
    double longest = SquaredDistance(stars[r1], stars[r2]);
    const auto compare = [&](std::size_t a, std::size_t b) {
        const double length = SquaredDistance(stars[a], stars[b]);
        if (length < longest) return;
        longest = length;
        from = a;
        to = b;
    };
    compare(r1, r3);
    compare(r2, r3);
    if (longest > neighbourRadius * neighbourRadius) return stars.size();
    const FrameStar middle{0, 0, (stars[from].X + stars[to].X) / 2,
                           (stars[from].Y + stars[to].Y) / 2};
    std::size_t i = r3 + 1;
    while (i < stars.size() && !(SquaredDistance(stars[i], middle) <= longest / 4)) ++i;
    return i;
}

template <typename Take>
void TakeNarrowQuads(const std::vector<FrameStar>& stars, const QuadPlan& plan, Take take) {
    for (int lost = 0; lost <= plan.BrightestLost; ++lost) {
        for (int gaps = 0; gaps <= plan.Gaps; ++gaps) {
            for (int early = 0; early <= gaps; ++early) {
                const auto r1 = static_cast<std::size_t>(lost);
                const std::size_t r2 = r1 + 1 + static_cast<std::size_t>(early);
                const std::size_t r3 = r1 + 2 + static_cast<std::size_t>(gaps);
                if (r3 >= stars.size()) continue;
                const std::size_t between = StarBetween(stars, r1, r2, r3);
                if (between < stars.size()) take(FrameQuad{r1, r2, r3, between});
            }
        }
    }
}

template <typename Take>
void TakeWideQuads(const std::vector<FrameStar>& stars, const QuadPlan& plan, Take take) {
    const std::size_t central = std::min(stars.size(), static_cast<std::size_t>(plan.CentralStars));
    std::vector<std::size_t> near;
    for (std::size_t s = 0; s < central; ++s) {
        near.clear();
        for (std::size_t j = 0;
             j < stars.size() && near.size() < static_cast<std::size_t>(plan.Neighbours); ++j) {
            if (j != s && SquaredDistance(stars[j], stars[s]) < neighbourRadius * neighbourRadius) {
                near.push_back(j);
            }
        }
        for (std::size_t a = 0; a < near.size(); ++a) {
            for (std::size_t b = a + 1; b < near.size(); ++b) {
                for (std::size_t c = b + 1; c < near.size(); ++c) {
                    FrameQuad quad{s, near[a], near[b], near[c]};
                    std::sort(quad.begin(), quad.end());
                    take(quad);
                }
            }
        }
    }
}

/// Marks the stars that any frame contains; threads set the marks in any order.
using StarMarks = std::vector<std::atomic<bool>>;

/// Recognizes most of the quads that occurred shortly before.
class RecentQuads {
 public:
    bool IsNew(const std::array<std::uint32_t, 4>& stars) {
        const auto [first, second] = InTwo(stars);
        const std::uint64_t mixed = (first * 0x9E3779B97F4A7C15U ^ second) * 0xD1B54A32D192ED03U;
        auto& known = quads_[mixed >> (64 - sizeBits)];
        if (known[0] == first && known[1] == second) return false;
        known = {first, second};
        return true;
    }

 private:
    static constexpr int sizeBits = 13;  // 128 KB
    std::vector<std::array<std::uint64_t, 2>> quads_ =
        std::vector<std::array<std::uint64_t, 2>>(std::size_t{1} << sizeBits);
};

/// Gathers the quads of a range of consecutive frames and hands them over in portions; a few come
/// several times.
void GatherRun(const FrameSet& frames, const QuadPlan& plan, std::int64_t begin, std::int64_t end,
               StarMarks& marks, const std::function<void(std::span<const QuadEntry>)>& handOver) {
    constexpr std::size_t portion = 1U << 14;
    const BrightStars::Belt belt = frames.BeltOf(begin, end);
    std::vector<QuadEntry> quads;
    std::vector<FrameStar> stars;
    FrameSet::Room room;
    RecentQuads recent;
    const auto take = [&](const FrameQuad& quad) {
        std::array<std::uint32_t, 4> numbers{};
        std::array<Direction, 4> directions{};
        for (std::size_t k = 0; k < quad.size(); ++k) numbers[k] = stars[quad[k]].Star;
        if (!recent.IsNew(numbers)) return;
        for (std::size_t k = 0; k < quad.size(); ++k)
            directions[k] = belt.DirectionAt(stars[quad[k]].InBelt);
        if (const auto entry = QuadEntryOf(numbers, directions)) quads.push_back(*entry);
    };
    for (const std::int64_t frame : FrameSet::AlongTheSky(begin, end)) {
        frames.StarsOf(frame, belt, room, stars);
        for (const FrameStar& star : stars) {
            std::atomic<bool>& mark = marks[star.Star];
            // Not written when unchanged, as threads would compete for the cache line.
            if (!mark.load(std::memory_order_relaxed)) mark.store(true, std::memory_order_relaxed);
        }
        if (plan.SharedBrightest) {
            TakeNarrowQuads(stars, plan, take);
        } else {
            TakeWideQuads(stars, plan, take);
        }
        if (quads.size() < portion) continue;
        handOver(quads);
        quads.clear();
    }
    handOver(quads);
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
    // The comparison also catches NaN.
    if (!(smallestDiagonal < largestDiagonal)) return chosen;
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
    // Cells that a build wrote are in order already.
    if (!std::is_sorted(cell.begin(), cell.end(), ComesBefore)) {
        std::sort(cell.begin(), cell.end(), ComesBefore);
    }
    std::unordered_map<std::uint32_t, std::size_t> counts;
    for (const CatalogStar& star : cell) {
        std::size_t& count = counts[cells_.CellOf(PositionOf(star))];
        if (++count <= mostInCell_) stars_.push_back(star);
    }
}

void QuadSky::Finish() {
    std::sort(stars_.begin(), stars_.end(), ComesBefore);
}

QuadDraft BuildQuads(const QuadSky& sky, const QuadPlan& plan,
                     const std::function<void(int done, int total)>& progress) {
    constexpr int runCount = 32;
    QuadDraft draft{sky.Stars(), {}, PackedQuads(static_cast<std::uint32_t>(sky.Stars().size()))};
    StarMarks marks(sky.Stars().size());
    const FrameSet frames(sky, plan);
    std::mutex oneAtATime;
    ParallelFor(
        runCount,
        [&](int run) {
            GatherRun(frames, plan, frames.Count() * run / runCount,
                      frames.Count() * (run + 1) / runCount, marks,
                      [&](std::span<const QuadEntry> quads) {
                          const std::lock_guard lock(oneAtATime);
                          draft.Quads.Add(quads);
                      });
        },
        progress);
    draft.InTable.assign(marks.begin(), marks.end());
    return draft;
}

}  // namespace vestrel
