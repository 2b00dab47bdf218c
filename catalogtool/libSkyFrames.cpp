#include "catalogtool/libSkyFrames.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numbers>
#include <numeric>
#include <utility>

#include "astro/libMath.h"

namespace vestrel {

namespace {

using std::numbers::pi;

/// How far stars are looked for from a frame's centre, in diagonals.
constexpr double reachOfDiagonal = 0.55;

}  // namespace

SkyCells HalfFrames(const QuadPlan& plan) {
    return SkyCells(MiddleDiagonal(plan) / 2.2);
}

/// The stars among which the brightest of any frame are: the brightest of each cell of the size of
/// half a frame. They are found by smaller cells.
class SkyFrames::BrightStars {
 public:
    BrightStars(const std::vector<CatalogStar>& sky, const QuadPlan& plan)
        : sky_(sky), cells_(MiddleDiagonal(plan) / 6) {
        constexpr auto none = std::numeric_limits<std::uint32_t>::max();
        const SkyCells halves = HalfFrames(plan);
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

 private:
    friend class SkyFrames::Belt;

    const std::vector<CatalogStar>& sky_;
    SkyCells cells_;
    std::vector<std::uint32_t> starts_;  ///< of each cell in `stars_`
    std::vector<std::uint32_t> stars_;
};

/// The stars of all cells between two declinations, with their directions.
class SkyFrames::Belt {
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
    Direction DirectionAt(std::uint32_t i) const { return {axes_[0][i], axes_[1][i], axes_[2][i]}; }

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

/// Memory that is used again for each frame.
struct SkyFrames::Room {
    struct Star {
        std::uint32_t InBelt = 0;
        double X = 0;
        double Y = 0;
    };
    std::vector<Star> Inside;
    std::vector<std::uint64_t> Order;  ///< star, place in `Inside`
    std::vector<StarInFrame> Brightest;
};

SkyFrames::SkyFrames(const std::vector<CatalogStar>& sky, const QuadPlan& plan)
    : plan_(plan), stars_(std::make_unique<const BrightStars>(sky, plan)) {
    // A frame of 4 : 3 covers 0.48 of the square of its diagonal.
    const double area = MiddleDiagonal(plan) * MiddleDiagonal(plan) * 0.48;
    count_ = static_cast<std::int64_t>(4 * pi / area * plan.FramesPerField);
}

SkyFrames::~SkyFrames() = default;

double SkyFrames::RaOf(std::int64_t number) {
    return std::fmod(static_cast<double>(number) * 2.399963229728653, 2 * pi);
}

double SkyFrames::DecOf(std::int64_t number) const {
    return std::asin(1 - (2 * static_cast<double>(number) + 1) / static_cast<double>(count_));
}

std::vector<std::int64_t> SkyFrames::AlongTheSky(std::int64_t begin, std::int64_t end) {
    std::vector<std::pair<double, std::int64_t>> places;
    places.reserve(static_cast<std::size_t>(end - begin));
    for (std::int64_t frame = begin; frame < end; ++frame) places.emplace_back(RaOf(frame), frame);
    std::sort(places.begin(), places.end());
    std::vector<std::int64_t> frames(places.size());
    std::transform(places.begin(), places.end(), frames.begin(),
                   [](const auto& place) { return place.second; });
    return frames;
}

/// Finds the brightest stars of a frame.
void SkyFrames::StarsOf(std::int64_t number, const Belt& belt, Room& room) const {
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
                    inside.push_back({star, x, y});
                });
    const auto most = static_cast<std::size_t>(plan_.StarsPerFrame);
    if (order.size() > most) {
        std::nth_element(order.begin(), order.begin() + plan_.StarsPerFrame, order.end());
        order.resize(most);
    }
    std::sort(order.begin(), order.end());
    room.Brightest.clear();
    for (const std::uint64_t entry : order) {
        const Room::Star& star = inside[entry & 0xFFFFFFFFU];
        room.Brightest.push_back({static_cast<std::uint32_t>(entry >> 32),
                                  belt.DirectionAt(star.InBelt), star.X, star.Y});
    }
}

void SkyFrames::ForEach(std::int64_t begin, std::int64_t end,
                        const std::function<void(const std::vector<StarInFrame>&)>& visit) const {
    const double reach = plan_.LargestDiagonal * RadiansPerDegree * reachOfDiagonal * 1.001;
    const Belt belt(*stars_, DecOf(std::max(begin, end - 1)) - reach, DecOf(begin) + reach);
    Room room;
    for (const std::int64_t frame : AlongTheSky(begin, end)) {
        StarsOf(frame, belt, room);
        visit(room.Brightest);
    }
}

}  // namespace vestrel
