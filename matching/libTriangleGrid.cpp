#include "matching/libTriangleGrid.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "astro/libProcessor.h"

namespace vestrel {

namespace {

constexpr std::size_t atOnce = 4;
using Doubles [[gnu::vector_size(32)]] = double;
using Numbers [[gnu::vector_size(32)]] = std::int64_t;

// The corner of the plane where the grid begins, and its size. No triangle lies outside, and there
// is a border of one cell on all sides.
constexpr double leastShort = RatioBounds::LeastSum - RatioBounds::LargestRatio - 0.01;
constexpr double leastMid = (RatioBounds::LeastSum + RatioBounds::LeastDifference) / 2 - 0.005;
constexpr double shortRange = RatioBounds::LargestRatio - leastShort;
constexpr double midRange = RatioBounds::LargestRatio - leastMid;

VESTREL_KERNEL void Load(Doubles& numbers, const double* from) {
    std::memcpy(&numbers, from, sizeof numbers);
}

}  // namespace

/// Searches a grid.
class GridSearch {
 public:
    struct Nearest {
        std::int32_t Index = 0;
        double Squared = 0;    ///< squared distance, computed as in `VoteTriangles`
        bool Unclear = false;  ///< another triangle is equally near
    };

    explicit GridSearch(const TriangleGrid& grid)
        : grid_(grid),
          cellsPerUnit_(1 / grid.cellSide_),
          trusted_(grid.cellSide_ * grid.cellSide_ * (1 - 1e-6)) {}

    static std::int32_t ColumnOf(double shortRatio, double cellsPerUnit) {
        return 1 + static_cast<std::int32_t>((shortRatio - leastShort) * cellsPerUnit);
    }
    static std::int32_t RowOf(double midRatio, double cellsPerUnit) {
        return 1 + static_cast<std::int32_t>((midRatio - leastMid) * cellsPerUnit);
    }

    TriangleCorners CornersOf(std::int32_t triangle) const {
        return grid_.triangles_.Corners[static_cast<std::size_t>(triangle)];
    }
    double ShortRatioOf(std::int32_t triangle) const {
        return grid_.triangles_.Short[static_cast<std::size_t>(triangle)];
    }

    /// The triangle nearest to a place; when none is nearer than the square root of `limit`, some
    /// result that is not either.
    VESTREL_KERNEL Nearest Find(double shortRatio, double midRatio, double limit) const {
        constexpr double far = 1e9;
        const Doubles wantedShort = {shortRatio, shortRatio, shortRatio, shortRatio};
        const Doubles wantedMid = {midRatio, midRatio, midRatio, midRatio};
        Doubles least = {far, far, far, far};
        Numbers places{};
        Numbers equal{};
        const double* const shorts = grid_.triangles_.Short.data();
        const double* const mids = grid_.triangles_.Mid.data();
        const std::int32_t* start = grid_.starts_.data() +
                                    (RowOf(midRatio, cellsPerUnit_) - 1) * grid_.columns_ +
                                    ColumnOf(shortRatio, cellsPerUnit_) - 1;
        for (int row = 0; row < 3; ++row, start += grid_.columns_) {
            const std::int64_t end = start[3];
            std::int64_t i = start[0];
            Numbers indices = {i, i + 1, i + 2, i + 3};
            for (; i < end; i += atOnce, indices += std::int64_t{atOnce}) {
                Doubles ds;
                Doubles dm;
                Load(ds, shorts + i);
                Load(dm, mids + i);
                ds = wantedShort - ds;
                dm = wantedMid - dm;
                const Doubles squared = ds * ds + dm * dm;
                const Numbers nearer = squared < least;
                equal |= squared == least;
                least = nearer ? squared : least;
                places = nearer ? indices : places;
            }
        }
        Nearest best{static_cast<std::int32_t>(places[0]), least[0], false};
        bool unclear = (equal[0] | equal[1] | equal[2] | equal[3]) != 0;
        for (std::size_t lane = 1; lane < atOnce; ++lane) {
            unclear |= least[lane] == best.Squared && best.Squared < far;
            best.Index =
                least[lane] < best.Squared ? static_cast<std::int32_t>(places[lane]) : best.Index;
            best.Squared = std::min(least[lane], best.Squared);
        }
        const double bound = std::min(best.Squared, limit);
        if (bound < trusted_ && !unclear) [[likely]]
            return best;
        return FindCarefully(shortRatio, midRatio, bound);
    }

 private:
    /// As above, when only triangles within the square root of `bound` count.
    Nearest FindCarefully(double shortRatio, double midRatio, double bound) const {
        const std::int32_t reach = static_cast<std::int32_t>(std::sqrt(bound) * cellsPerUnit_) + 2;
        const std::int32_t column = ColumnOf(shortRatio, cellsPerUnit_);
        const std::int32_t row = RowOf(midRatio, cellsPerUnit_);
        const std::int32_t left = std::max(column - reach, 0);
        const std::int32_t right = std::min(column + reach, grid_.columns_ - 1);
        Nearest best{0, std::numeric_limits<double>::infinity(), false};
        for (std::int32_t y = std::max(row - reach, 0); y <= std::min(row + reach, grid_.rows_ - 1);
             ++y) {
            const std::int32_t* starts = grid_.starts_.data() + y * grid_.columns_;
            for (std::int32_t i = starts[left]; i < starts[right + 1]; ++i) {
                const double ds = shortRatio - grid_.triangles_.Short[static_cast<std::size_t>(i)];
                const double dm = midRatio - grid_.triangles_.Mid[static_cast<std::size_t>(i)];
                const double squared = ds * ds + dm * dm;
                if (squared == best.Squared) best.Unclear = true;
                if (squared < best.Squared) best = {i, squared, false};
            }
        }
        return best;
    }

    const TriangleGrid& grid_;
    double cellsPerUnit_;
    double trusted_;  ///< the square of a distance for which 3 × 3 cells are enough
};

TriangleGrid::TriangleGrid(const TriangleColumns& triangles) : count_(triangles.Count()) {
    // Triangles fill about half of the plane. Cells larger than the usual tolerance gain nothing.
    constexpr double smallestSide = 0.001;
    constexpr double largestSide = 0.0101;
    constexpr double trianglesPerCell = 2;
    const double area = shortRange * midRange / 2;
    cellSide_ = std::clamp(std::sqrt(area * trianglesPerCell / std::max(count_, 1)), smallestSide,
                           largestSide);
    const double cellsPerUnit = 1 / cellSide_;
    columns_ = GridSearch::ColumnOf(RatioBounds::LargestRatio, cellsPerUnit) + 2;
    rows_ = GridSearch::RowOf(RatioBounds::LargestRatio, cellsPerUnit) + 2;

    // A counting sort.
    const auto count = static_cast<std::size_t>(count_);
    std::vector<std::int32_t> cells(count);
    starts_.resize(static_cast<std::size_t>(columns_ * rows_) + 2);
    for (std::size_t i = 0; i < count; ++i) {
        cells[i] = GridSearch::RowOf(triangles.Mid[i], cellsPerUnit) * columns_ +
                   GridSearch::ColumnOf(triangles.Short[i], cellsPerUnit);
        ++starts_[static_cast<std::size_t>(cells[i]) + 2];
    }
    for (std::size_t cell = 2; cell < starts_.size(); ++cell) starts_[cell] += starts_[cell - 1];

    constexpr double nowhere = -1000;
    triangles_.Short.resize(count + atOnce, nowhere);
    triangles_.Mid.resize(count + atOnce, nowhere);
    triangles_.Corners.resize(count);
    for (std::size_t i = 0; i < count; ++i) {
        // The start of the next cell moves on until it is where it belongs.
        const auto place =
            static_cast<std::size_t>(starts_[static_cast<std::size_t>(cells[i]) + 1]++);
        triangles_.Short[place] = triangles.Short[i];
        triangles_.Mid[place] = triangles.Mid[i];
        triangles_.Corners[place] = triangles.Corners[i];
    }
}

namespace {

/// The votes of a range of the outer triangles.
class GridVoter {
 public:
    GridVoter(VoteTable& votes, const TriangleColumns& outer, const TriangleGrid& inner,
              bool outerIsFirst, double limit)
        : votes_(votes),
          outer_(outer),
          search_(inner),
          outerIsFirst_(outerIsFirst),
          limit_(limit) {}

    /// Returns false when the nearest triangle is unclear.
    VESTREL_KERNEL bool Vote(std::size_t first, std::size_t end) {
        for (std::size_t i = first; i < end; ++i) {
            const double shortRatio = outer_.Short[i];
            const GridSearch::Nearest nearest = search_.Find(shortRatio, outer_.Mid[i], limit_);
            if (!(nearest.Squared < limit_)) continue;
            const double ds = shortRatio - search_.ShortRatioOf(nearest.Index);
            if (nearest.Unclear || !(std::fabs(ds) < clearOfEdge)) return false;
            const TriangleCorners mine = outer_.Corners[i];
            const TriangleCorners others = search_.CornersOf(nearest.Index);
            const TriangleCorners of1 = outerIsFirst_ ? mine : others;
            const TriangleCorners of2 = outerIsFirst_ ? others : mine;
            for (int corner = 0; corner < 3; ++corner) {
                ++votes_(StarAtCorner(of1, corner), StarAtCorner(of2, corner));
            }
            ++voted_;
        }
        return true;
    }
    std::int32_t Voted() const { return voted_; }

 private:
    static constexpr double clearOfEdge = VoteWindow - 1e-9;

    VoteTable& votes_;
    const TriangleColumns& outer_;
    GridSearch search_;
    bool outerIsFirst_;
    double limit_;
    std::int32_t voted_ = 0;
};

VESTREL_FOR_AVX2 bool VoteForAvx2(GridVoter& voter, std::size_t first, std::size_t end) {
    return voter.Vote(first, end);
}
bool VotePlainly(GridVoter& voter, std::size_t first, std::size_t end) {
    return voter.Vote(first, end);
}

}  // namespace

std::optional<std::int32_t> VoteByGrid(VoteTable& votes, const TriangleColumns& outer,
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
