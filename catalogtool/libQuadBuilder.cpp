#include "catalogtool/libQuadBuilder.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>
#include <tuple>

#include "astro/libParallel.h"

namespace vestrel {

namespace {

using std::numbers::pi;
using Direction = QuadSky::Direction;

constexpr double radiansPerDegree = pi / 180;
/// How far the stars of a quad may lie from its central one, on the plane of a frame.
constexpr double neighbourRadius = 1.5 * radiansPerDegree;

double Dot(const Direction& a, const Direction& b) {
    return a.X * b.X + a.Y * b.Y + a.Z * b.Z;
}

Direction DirectionOf(double ra, double dec) {
    return {std::cos(dec) * std::cos(ra), std::cos(dec) * std::sin(ra), std::sin(dec)};
}

/// The sky in cells, each with its brightest stars only, so that a frame's brightest are found
/// quickly.
class SkyCells {
 public:
    SkyCells(const QuadSky& sky, double cellSize, std::size_t starsPerCell) {
        zones_ = std::max(1, static_cast<int>(std::ceil(pi / cellSize)));
        height_ = pi / zones_;
        int cells = 0;
        for (int z = 0; z < zones_; ++z) {
            const double middle = (z + 0.5) * height_ - pi / 2;
            first_.push_back(cells);
            count_.push_back(std::max(1, static_cast<int>(2 * pi * std::cos(middle) / height_)));
            cells += count_.back();
        }
        stars_.resize(static_cast<std::size_t>(cells));
        for (std::size_t i = 0; i < sky.Stars.size(); ++i) {
            const std::size_t z = ZoneOf(static_cast<double>(sky.Stars[i].Dec));
            const int slice =
                static_cast<int>(static_cast<double>(sky.Stars[i].Ra) / (2 * pi) * count_[z]);
            auto& cell = stars_[Place(z, std::clamp(slice, 0, count_[z] - 1))];
            if (cell.size() < starsPerCell) cell.push_back(static_cast<std::int32_t>(i));
        }
    }

    /// Calls `visit` with the stars of every cell that a circle touches.
    template <typename Visit>
    void Around(double ra, double dec, double radius, Visit visit) const {
        const bool pole = std::fabs(dec) + radius >= pi / 2;
        const double reach = pole ? pi : std::asin(std::min(1.0, std::sin(radius) / std::cos(dec)));
        for (std::size_t z = ZoneOf(dec - radius); z <= ZoneOf(dec + radius); ++z) {
            const int n = count_[z];
            const auto low = static_cast<int>(std::floor((ra - reach) / (2 * pi) * n));
            const auto high = static_cast<int>(std::floor((ra + reach) / (2 * pi) * n));
            const int slices = std::min(high - low + 1, n);
            for (int s = low; s < low + slices; ++s) visit(stars_[Place(z, (s % n + n) % n)]);
        }
    }

 private:
    std::size_t ZoneOf(double dec) const {
        return static_cast<std::size_t>(
            std::clamp(static_cast<int>((dec + pi / 2) / height_), 0, zones_ - 1));
    }
    std::size_t Place(std::size_t zone, int slice) const {
        return static_cast<std::size_t>(first_[zone] + slice);
    }

    int zones_ = 0;
    double height_ = 0;
    std::vector<int> first_;
    std::vector<int> count_;
    std::vector<std::vector<std::int32_t>> stars_;
};

struct FrameStar {
    std::int32_t Star = 0;  ///< place in the sky: the fainter, the larger
    double X = 0;           ///< radians on the gnomonic plane
    double Y = 0;
};

double Distance(const FrameStar& a, const FrameStar& b) {
    return std::hypot(a.X - b.X, a.Y - b.Y);
}

/// Places of four stars in the sky, brightest first.
using StarQuad = std::array<std::int32_t, 4>;

StarQuad Sorted(StarQuad quad) {
    std::sort(quad.begin(), quad.end());
    return quad;
}

/// The frames that a plan lays on the sky, by number.
class FrameSet {
 public:
    FrameSet(const QuadSky& sky, const QuadPlan& plan)
        : sky_(sky),
          plan_(plan),
          cells_(sky, MiddleDiagonal() / 2.2, static_cast<std::size_t>(plan.StarsPerFrame)) {
        // A frame of 4 : 3 covers 0.48 of the square of its diagonal.
        const double area = MiddleDiagonal() * MiddleDiagonal() * 0.48;
        count_ = static_cast<std::int64_t>(4 * pi / area * plan.FramesPerField);
    }

    std::int64_t Count() const { return count_; }

    /// The brightest stars of a frame, brightest first.
    void StarsOf(std::int64_t number, std::vector<FrameStar>& stars) const {
        const auto i = static_cast<double>(number);
        // Multiples of irrational numbers spread evenly over everything that a frame can differ in:
        // a spiral with the golden angle for the centres, two more for rotation and size.
        const double dec = std::asin(1 - (2 * i + 1) / static_cast<double>(count_));
        const double ra = std::fmod(i * 2.399963229728653, 2 * pi);
        const double turn = std::fmod(i * 0.5698402909980532, 1.0) * pi;
        const double diagonal = plan_.SmallestDiagonal * radiansPerDegree *
                                std::pow(plan_.LargestDiagonal / plan_.SmallestDiagonal,
                                         std::fmod(i * 0.7548776662466927, 1.0));
        constexpr std::array<double, 3> aspects = {1, 4 / 3.0, 1.5};
        const double aspect = aspects[static_cast<std::size_t>(number % 3)];
        const double width = diagonal * aspect / std::hypot(aspect, 1.0);

        const Direction centre = DirectionOf(ra, dec);
        const Direction east{-std::sin(ra), std::cos(ra), 0};
        const Direction north{-std::sin(dec) * std::cos(ra), -std::sin(dec) * std::sin(ra),
                              std::cos(dec)};
        const double halfWidth = std::tan(width / 2);
        const double halfHeight = std::tan(width / aspect / 2);
        stars.clear();
        cells_.Around(ra, dec, diagonal / 2 * 1.1, [&](const std::vector<std::int32_t>& cell) {
            for (const std::int32_t star : cell) {
                const Direction& d = sky_.Directions[static_cast<std::size_t>(star)];
                const double z = Dot(d, centre);
                if (z <= 0) continue;
                const double e = Dot(d, east) / z;
                const double n = Dot(d, north) / z;
                const double x = e * std::cos(turn) + n * std::sin(turn);
                const double y = n * std::cos(turn) - e * std::sin(turn);
                if (std::fabs(x) <= halfWidth && std::fabs(y) <= halfHeight) {
                    stars.push_back({star, x, y});
                }
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
    double MiddleDiagonal() const {
        return std::sqrt(plan_.SmallestDiagonal * plan_.LargestDiagonal) * radiansPerDegree;
    }

    const QuadSky& sky_;
    const QuadPlan& plan_;
    SkyCells cells_;
    std::int64_t count_ = 0;
};

/// The brightest star after the triple's last one that lies in the circle over the longest side of
/// the triple: wherever the triple is seen, so is that star. Nothing when the triple is too wide.
const FrameStar* StarBetween(const std::vector<FrameStar>& stars, std::size_t r1, std::size_t r2,
                             std::size_t r3) {
    const auto length = [&stars](std::size_t a, std::size_t b) {
        return Distance(stars[a], stars[b]);
    };
    const auto [longest, from, to] =
        std::max({std::make_tuple(length(r1, r2), r1, r2), std::make_tuple(length(r1, r3), r1, r3),
                  std::make_tuple(length(r2, r3), r2, r3)});
    if (longest > neighbourRadius) return nullptr;
    const FrameStar middle{0, (stars[from].X + stars[to].X) / 2, (stars[from].Y + stars[to].Y) / 2};
    for (std::size_t i = r3 + 1; i < stars.size(); ++i) {
        if (Distance(stars[i], middle) <= longest / 2) return &stars[i];
    }
    return nullptr;
}

void AddNarrowQuads(const std::vector<FrameStar>& stars, const QuadPlan& plan,
                    std::vector<StarQuad>& quads) {
    for (int lost = 0; lost <= plan.BrightestLost; ++lost) {
        for (int gaps = 0; gaps <= plan.Gaps; ++gaps) {
            for (int early = 0; early <= gaps; ++early) {
                const auto r1 = static_cast<std::size_t>(lost);
                const auto r2 = static_cast<std::size_t>(lost + 1 + early);
                const auto r3 = static_cast<std::size_t>(lost + 2 + gaps);
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
            if (j != s && Distance(stars[j], stars[s]) < neighbourRadius) {
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

/// The chord between two stars: at a few degrees as good as any other distance.
double Chord(const Direction& a, const Direction& b) {
    return std::sqrt((a.X - b.X) * (a.X - b.X) + (a.Y - b.Y) * (a.Y - b.Y) +
                     (a.Z - b.Z) * (a.Z - b.Z));
}

/// The table's record of a quad; the table's stars are given by their places in the sky.
Quad QuadRecord(const QuadSky& sky, const StarQuad& quad, const std::vector<std::int32_t>& stars) {
    const auto direction = [&](std::size_t k) -> const Direction& {
        return sky.Directions[static_cast<std::size_t>(quad[k])];
    };
    Quad record =
        QuadFromDistances(Chord(direction(0), direction(1)), Chord(direction(0), direction(2)),
                          Chord(direction(0), direction(3)), Chord(direction(1), direction(2)),
                          Chord(direction(1), direction(3)), Chord(direction(2), direction(3)));
    const auto place = [&](std::size_t k) {
        return static_cast<std::int32_t>(std::lower_bound(stars.begin(), stars.end(), quad[k]) -
                                         stars.begin()) +
               1;
    };
    record.Star1 = place(0);
    record.Star2 = place(1);
    record.Star3 = place(2);
    record.Star4 = place(3);
    return record;
}

/// What a run of consecutive frames gives.
struct FrameRun {
    std::vector<StarQuad> Quads;
    std::vector<std::int32_t> Stars;
};

FrameRun GatherRun(const FrameSet& frames, const QuadPlan& plan, std::int64_t begin,
                   std::int64_t end) {
    FrameRun run;
    std::vector<FrameStar> stars;
    for (std::int64_t i = begin; i < end; ++i) {
        frames.StarsOf(i, stars);
        for (const FrameStar& star : stars) run.Stars.push_back(star.Star);
        (plan.SharedBrightest ? AddNarrowQuads : AddWideQuads)(stars, plan, run.Quads);
    }
    // Neighbouring frames share most of what they have: this keeps memory small.
    KeepUnique(run.Quads);
    KeepUnique(run.Stars);
    return run;
}

}  // namespace

const std::vector<QuadPlan>& QuadPlans() {
    static const std::vector<QuadPlan> plans = {
        {0.9, 1.25, 9, 25, true, 4, 1, 0, 0},  {1.25, 1.75, 16, 25, true, 4, 1, 0, 0},
        {1.75, 2.5, 16, 25, true, 4, 1, 0, 0}, {2.5, 3.5, 16, 25, true, 4, 1, 0, 0},
        {3.5, 5, 16, 25, false, 0, 0, 8, 4},   {5, 7.1, 16, 25, false, 0, 0, 16, 4},
        {7.1, 10, 16, 40, false, 0, 0, 32, 4}, {10, 18, 16, 60, false, 0, 0, 50, 4},
    };
    return plans;
}

QuadSky MakeQuadSky(std::vector<CatalogStar> stars) {
    QuadSky sky;
    sky.Stars = std::move(stars);
    // By position where the magnitudes are equal: the order of reading must not matter.
    std::sort(sky.Stars.begin(), sky.Stars.end(), [](const CatalogStar& a, const CatalogStar& b) {
        return std::tie(a.Mag, a.Dec, a.Ra) < std::tie(b.Mag, b.Dec, b.Ra);
    });
    sky.Directions.reserve(sky.Stars.size());
    for (const CatalogStar& star : sky.Stars) {
        sky.Directions.push_back(
            DirectionOf(static_cast<double>(star.Ra), static_cast<double>(star.Dec)));
    }
    return sky;
}

QuadTables BuildQuadTables(const QuadSky& sky, const QuadPlan& plan,
                           const std::function<void(int done, int total)>& progress) {
    const FrameSet frames(sky, plan);
    constexpr int runCount = 256;
    std::vector<FrameRun> runs(runCount);
    ParallelFor(
        runCount,
        [&](int r) {
            runs[static_cast<std::size_t>(r)] = GatherRun(
                frames, plan, frames.Count() * r / runCount, frames.Count() * (r + 1) / runCount);
        },
        progress);
    std::vector<StarQuad> quads;
    std::vector<std::int32_t> stars;
    for (FrameRun& run : runs) {
        quads.insert(quads.end(), run.Quads.begin(), run.Quads.end());
        stars.insert(stars.end(), run.Stars.begin(), run.Stars.end());
        run = {};
    }
    KeepUnique(quads);
    KeepUnique(stars);

    QuadTables tables;
    tables.Stars.resize(1);
    tables.Stars.reserve(stars.size() + 1);
    for (const std::int32_t star : stars) {
        tables.Stars.push_back(sky.Stars[static_cast<std::size_t>(star)]);
    }
    tables.StarCount = static_cast<std::int32_t>(stars.size());
    tables.Quads.resize(1);
    tables.Quads.reserve(quads.size() + 1);
    for (const StarQuad& quad : quads) {
        const Quad record = QuadRecord(sky, quad, stars);
        // Stars at the same place have no shape.
        if (record.QuadKey >= 0) tables.Quads.push_back(record);
    }
    tables.QuadCount = static_cast<std::int32_t>(tables.Quads.size()) - 1;
    std::sort(tables.Quads.begin() + 1, tables.Quads.end(), [](const Quad& a, const Quad& b) {
        return std::tie(a.QuadKey, a.Star1, a.Star2, a.Star3, a.Star4) <
               std::tie(b.QuadKey, b.Star1, b.Star2, b.Star3, b.Star4);
    });
    return tables;
}

}  // namespace vestrel
