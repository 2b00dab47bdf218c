#include "matching/libTriangleGrid.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>

#include "astro/libProcessor.h"

namespace vestrel {

namespace {

constexpr std::size_t atOnce = 8;
using Floats [[gnu::vector_size(32)]] = float;
using Keys [[gnu::vector_size(32)]] = std::int32_t;

// The corner of the plane where the grid begins, and its size. No triangle lies outside, and there
// is a border of one cell on all sides.
constexpr auto largest = static_cast<float>(RatioBounds::LargestRatio);
constexpr auto leastShort =
    static_cast<float>(RatioBounds::LeastSum - RatioBounds::LargestRatio - 0.01);
constexpr auto leastMid =
    static_cast<float>((RatioBounds::LeastSum + RatioBounds::LeastDifference) / 2 - 0.005);

// In single precision, like the ratios that are compared, so that nothing need be converted. Cells
// are up to 2e-4 of their side away from where they should be.
VESTREL_KERNEL std::int32_t ColumnOf(float shortRatio, float cellsPerUnit) {
    return 1 + static_cast<std::int32_t>((shortRatio - leastShort) * cellsPerUnit);
}
VESTREL_KERNEL std::int32_t RowOf(float midRatio, float cellsPerUnit) {
    return 1 + static_cast<std::int32_t>((midRatio - leastMid) * cellsPerUnit);
}

// A key is a squared distance, of which the last bits give way to where the triangle is: which row
// of three cells, and its place in it. Distances are not negative, so that their bits are in the
// same order as they are.
constexpr int placeBits = 8;
constexpr std::int32_t placesInRow = 1 << placeBits;
constexpr std::int32_t tagMask = 4 * placesInRow - 1;
constexpr float beyondAll = 1e9F;

// By how much the squared distance in a key may differ from the true one: a part of it (2^-13 by
// the missing bits) and a constant. Rounded ratios are at most 3e-8 off, those of both triangles
// together 6e-8, which changes the square of a distance d by at most 1.7e-7 d < d² / 4096 + 3e-11.
constexpr double roundingPart = 1.0 / 1024;
constexpr double rounding = 5e-10;
double RoundingOf(double squared) {
    return roundingPart * squared + rounding;
}

/// The two least keys of each lane.
struct LeastKeys {
    Keys First;
    Keys Second;

    VESTREL_KERNEL void Take(const Keys& key) {
        const Keys greater = First < key ? key : First;
        First = First < key ? First : key;
        Second = Second < greater ? Second : greater;
    }
    /// Takes over the keys of other lanes: lane i those of lane i + offset.
    template <int Offset>
    VESTREL_KERNEL void Fold() {
        const Keys first = __builtin_shufflevector(
            First, First, Offset, (1 + Offset) % 8, (2 + Offset) % 8, (3 + Offset) % 8,
            (4 + Offset) % 8, (5 + Offset) % 8, (6 + Offset) % 8, (7 + Offset) % 8);
        const Keys second = __builtin_shufflevector(
            Second, Second, Offset, (1 + Offset) % 8, (2 + Offset) % 8, (3 + Offset) % 8,
            (4 + Offset) % 8, (5 + Offset) % 8, (6 + Offset) % 8, (7 + Offset) % 8);
        Take(first);
        Second = Second < second ? Second : second;
    }
};

}  // namespace

void TriangleGrid::Build(const PlateStarList& list, std::int32_t n) {
    BuildTriangleColumns(list, n, triangles_);
    // Triangles fill about half of the plane. Cells larger than the usual tolerance gain nothing.
    constexpr double smallestSide = 0.001;
    constexpr double largestSide = 0.0101;
    constexpr double trianglesPerCell = 1.5;
    const auto area = static_cast<double>((largest - leastShort) * (largest - leastMid) / 2);
    cellSide_ = std::clamp(std::sqrt(area * trianglesPerCell / std::max(Count(), 1)), smallestSide,
                           largestSide);
    const auto cellsPerUnit = static_cast<float>(1 / cellSide_);
    columns_ = ColumnOf(largest, cellsPerUnit) + 2;
    rows_ = RowOf(largest, cellsPerUnit) + 2;

    // A counting sort.
    const auto count = static_cast<std::size_t>(Count());
    cells_.resize(count);
    starts_.assign(static_cast<std::size_t>(columns_ * rows_) + 2, 0);
    for (std::size_t i = 0; i < count; ++i) {
        cells_[i] = RowOf(static_cast<float>(triangles_.Mid[i]), cellsPerUnit) * columns_ +
                    ColumnOf(static_cast<float>(triangles_.Short[i]), cellsPerUnit);
        ++starts_[static_cast<std::size_t>(cells_[i]) + 2];
    }
    for (std::size_t cell = 2; cell < starts_.size(); ++cell) starts_[cell] += starts_[cell - 1];

    constexpr float nowhere = -1000;
    order_.resize(count);
    corners_.resize(count);
    short_.resize(count + atOnce);
    mid_.resize(count + atOnce);
    std::fill_n(&short_[count], atOnce, nowhere);
    std::fill_n(&mid_[count], atOnce, nowhere);
    for (std::size_t i = 0; i < count; ++i) {
        // The start of the next cell moves on until it is where it belongs.
        const auto place =
            static_cast<std::size_t>(starts_[static_cast<std::size_t>(cells_[i]) + 1]++);
        order_[place] = static_cast<std::int32_t>(i);
        corners_[place] = triangles_.Corners[i];
        short_[place] = static_cast<float>(triangles_.Short[i]);
        mid_[place] = static_cast<float>(triangles_.Mid[i]);
    }
    std::int32_t most = 0;
    for (std::size_t cell = 3; cell < starts_.size(); ++cell) {
        most = std::max(most, starts_[cell] - starts_[cell - 3]);
    }
    isCrowded_ = most > placesInRow;
}

/// The votes of all outer triangles.
class GridVoter {
 public:
    /// @param limit of the squared distance
    GridVoter(VoteTable& votes, const TriangleGrid& outer, const TriangleGrid& inner,
              bool outerIsFirst, double limit)
        : votes_(votes),
          outer_(outer),
          inner_(inner),
          outerIsFirst_(outerIsFirst),
          limit_(limit),
          cellsPerUnit_(static_cast<float>(1 / inner.cellSide_)) {
        const double side = std::min(inner.cellSide_, VoteWindow - 1e-4);
        const double nearEnough = std::min(side * side, limit);
        clear_ = static_cast<float>(nearEnough - RoundingOf(nearEnough));
        // Otherwise a triangle beyond the 3 × 3 cells may be within the limit.
        if (limit < side * side) beyond_ = static_cast<float>(limit + RoundingOf(limit));
        if (inner.isCrowded_) {
            clear_ = -1;
            beyond_ = 2 * beyondAll;
        }
    }

    /// Returns false when the nearest triangle is unclear.
    VESTREL_KERNEL bool Vote(std::size_t first, std::size_t end) {
        std::int32_t* const votes = votes_.Votes.data();
        const auto perStar1 = static_cast<std::size_t>(votes_.Count2) + 1;
        const std::size_t perOuter = outerIsFirst_ ? perStar1 : 1;
        const std::size_t perInner = outerIsFirst_ ? 1 : perStar1;
        std::int32_t voted = 0;
        for (std::size_t place = first; place < end; ++place) {
            std::size_t nearest = 0;
            float squared = 0;
            const Outcome outcome =
                Find(outer_.short_[place], outer_.mid_[place], nearest, squared);
            if (outcome == Outcome::None) continue;
            if (outcome == Outcome::Doubtful) [[unlikely]] {
                const auto index = static_cast<std::size_t>(outer_.order_[place]);
                const Nearest found =
                    FindCarefully(outer_.triangles_.Short[index], outer_.triangles_.Mid[index],
                                  static_cast<double>(squared));
                if (!(found.Squared < limit_)) continue;
                if (found.Unclear || !(std::fabs(found.ShortDifference) < clearOfEdge))
                    return false;
                nearest = found.Place;
            }
            const TriangleCorners mine = outer_.corners_[place];
            const TriangleCorners others = inner_.corners_[nearest];
            for (int corner = 0; corner < 3; ++corner) {
                ++votes[StarAtCorner(mine, corner) * perOuter +
                        StarAtCorner(others, corner) * perInner];
            }
            ++voted;
        }
        voted_ += voted;
        return true;
    }
    std::int32_t Voted() const { return voted_; }

 private:
    enum class Outcome { None, Found, Doubtful };

    struct Nearest {
        std::size_t Place = 0;
        double Squared = 0;  ///< squared distance, computed as in `VoteTriangles`
        double ShortDifference = 0;
        bool Unclear = false;  ///< another triangle is equally near
    };

    /// Finds the inner triangle nearest to a place, or that none is within the limit, unless there
    /// is a doubt.
    /// @param squared is set to about the squared distance of the nearest one of 3 × 3 cells
    VESTREL_KERNEL Outcome Find(float shortRatio, float midRatio, std::size_t& place,
                                float& squared) const {
        const Floats wantedShort = shortRatio - Floats{};
        const Floats wantedMid = midRatio - Floats{};
        const Keys none = std::bit_cast<std::int32_t>(beyondAll) - Keys{};
        LeastKeys least{none, none};
        const float* const shorts = inner_.short_.data();
        const float* const mids = inner_.mid_.data();
        const std::int32_t* const starts = inner_.starts_.data() +
                                           (RowOf(midRatio, cellsPerUnit_) - 1) * inner_.columns_ +
                                           ColumnOf(shortRatio, cellsPerUnit_) - 1;
        Keys tags = {0, 1, 2, 3, 4, 5, 6, 7};
        const std::int32_t* start = starts;
        for (int row = 0; row < 3; ++row, start += inner_.columns_, tags += placesInRow) {
            const std::int64_t end = start[3];
            Keys tag = tags;
            for (std::int64_t i = start[0]; i < end; i += atOnce, tag += std::int32_t{atOnce}) {
                Floats ds;
                Floats dm;
                std::memcpy(&ds, shorts + i, sizeof ds);
                std::memcpy(&dm, mids + i, sizeof dm);
                ds -= wantedShort;
                dm -= wantedMid;
                const Floats distances = ds * ds + dm * dm;
                Keys key;
                std::memcpy(&key, &distances, sizeof key);
                least.Take((key & ~tagMask) | tag);
            }
        }
        least.Fold<4>();
        least.Fold<2>();
        least.Fold<1>();
        const std::int32_t nearest = least.First[0];
        squared = std::bit_cast<float>(nearest & ~tagMask);
        const auto second = std::bit_cast<float>(least.Second[0] & ~tagMask);
        if (squared > beyond_) return Outcome::None;
        constexpr auto ofBoth = static_cast<float>(2 * roundingPart);
        if (!(squared < clear_) ||
            !(second - squared > ofBoth * squared + static_cast<float>(2 * rounding))) {
            return Outcome::Doubtful;
        }
        const int row = (nearest & tagMask) >> placeBits;
        place = static_cast<std::size_t>(starts[row * inner_.columns_]) +
                static_cast<std::size_t>(nearest & (placesInRow - 1));
        return Outcome::Found;
    }

    /// The same in double precision. When no triangle is within the limit, some result that is not
    /// either.
    /// @param squared what `Find` has set
    Nearest FindCarefully(double shortRatio, double midRatio, double squared) const {
        constexpr double misplaced = 0.01;  // of a cell, more than rounding can
        const double bound = std::sqrt(std::min(squared + RoundingOf(squared), limit_));
        const auto reach = static_cast<std::int32_t>(bound / inner_.cellSide_ + misplaced) + 1;
        const std::int32_t column = ColumnOf(static_cast<float>(shortRatio), cellsPerUnit_);
        const std::int32_t row = RowOf(static_cast<float>(midRatio), cellsPerUnit_);
        const std::int32_t left = std::max(column - reach, 0);
        const std::int32_t right = std::min(column + reach, inner_.columns_ - 1);
        Nearest best{0, std::numeric_limits<double>::infinity(), 0, false};
        for (std::int32_t y = std::max(row - reach, 0);
             y <= std::min(row + reach, inner_.rows_ - 1); ++y) {
            const std::int32_t* starts = inner_.starts_.data() + y * inner_.columns_;
            const auto end = static_cast<std::size_t>(starts[right + 1]);
            for (auto place = static_cast<std::size_t>(starts[left]); place < end; ++place) {
                const auto index = static_cast<std::size_t>(inner_.order_[place]);
                const double ds = shortRatio - inner_.triangles_.Short[index];
                const double dm = midRatio - inner_.triangles_.Mid[index];
                const double distance = ds * ds + dm * dm;
                if (distance == best.Squared) best.Unclear = true;
                if (distance < best.Squared) best = {place, distance, ds, false};
            }
        }
        return best;
    }

    static constexpr double clearOfEdge = VoteWindow - 1e-9;

    VoteTable& votes_;
    const TriangleGrid& outer_;
    const TriangleGrid& inner_;
    bool outerIsFirst_;
    double limit_;
    float cellsPerUnit_;            ///< of the inner grid
    float clear_;                   ///< keys below are nearer than all limits
    float beyond_ = 2 * beyondAll;  ///< keys above are beyond the limit
    std::int32_t voted_ = 0;
};

namespace {

VESTREL_FOR_AVX2 bool VoteForAvx2(GridVoter& voter, std::size_t first, std::size_t end) {
    return voter.Vote(first, end);
}
bool VotePlainly(GridVoter& voter, std::size_t first, std::size_t end) {
    return voter.Vote(first, end);
}

}  // namespace

std::optional<std::int32_t> VoteByGrid(VoteTable& votes, const TriangleGrid& outer,
                                       const TriangleGrid& inner, bool outerIsFirst,
                                       double tolerance, const Progress& progress) {
    if (outer.Count() == 0 || inner.Count() == 0) return 0;
    const double limit = tolerance * tolerance;
    // Beyond the reach of the window, the nearest triangle depends on where the window ends.
    if (!(limit <= VoteWindow * VoteWindow)) return std::nullopt;
    constexpr std::size_t atATime = 1024;
    GridVoter voter(votes, outer, inner, outerIsFirst, limit);
    const auto vote = HasAvx2() ? VoteForAvx2 : VotePlainly;
    const auto count = static_cast<std::size_t>(outer.Count());
    for (std::size_t first = 0; first < count; first += atATime) {
        const std::size_t end = std::min(first + atATime, count);
        if (!vote(voter, first, end)) return std::nullopt;
        if (progress) progress(static_cast<int>(end), outer.Count());
    }
    if (progress) progress(0, outer.Count());
    return voter.Voted();
}

}  // namespace vestrel
