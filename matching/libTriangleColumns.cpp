#include "matching/libTriangleColumns.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "astro/libProcessor.h"
#include "astro/libSphericalMath.h"

namespace vestrel {

namespace {

constexpr std::size_t atOnce = 4;
using Doubles [[gnu::vector_size(32)]] = double;
using Numbers [[gnu::vector_size(32)]] = std::int64_t;

/// The distances of all pairs of stars 1..n, with zeros after each row: a triangle with a side of
/// length 0 does not pass, so loops may run past the end of a row. NaN becomes 0 too.
class PaddedDistances {
 public:
    PaddedDistances(const PlateStarList& list, std::size_t n)
        : rowLength_(n + 1 + atOnce), distances_((n + 1) * rowLength_) {
        for (std::size_t i = 1; i <= n; ++i) {
            for (std::size_t j = i + 1; j <= n; ++j) {
                const double distance = PixelDistance(list[i], list[j]);
                if (distance > 0) distances_[i * rowLength_ + j] = distance;
            }
        }
    }
    /// The distances of star i from those after it, by number.
    const double* Row(std::size_t i) const { return distances_.data() + i * rowLength_; }

 private:
    std::size_t rowLength_;
    std::vector<double> distances_;
};

VESTREL_KERNEL void Load(Doubles& numbers, const double* from) {
    std::memcpy(&numbers, from, sizeof numbers);
}

class Builder {
 public:
    Builder(const PlateStarList& list, std::size_t n, TriangleColumns& triangles)
        : n_(n), distance_(list, n), triangles_(triangles) {
        Reserve(n * n * n / 12 + n);  // about half of all triples pass
    }

    VESTREL_KERNEL void Run() {
        for (std::size_t i = 1; i <= n_; ++i) {
            for (std::size_t j = i + 1; j < n_; ++j) {
                Reserve(n_ + atOnce);
                TakeThirdStars(i, j);
            }
        }
        triangles_.Count = static_cast<std::int32_t>(count_);
    }

 private:
    /// Makes room for more triangles.
    void Reserve(std::size_t more) {
        if (count_ + more <= triangles_.Corners.size()) return;
        const std::size_t size = count_ + std::max(more, count_ / 2);
        triangles_.Short.resize(size);
        triangles_.Mid.resize(size);
        triangles_.Corners.resize(size);
    }

    /// The triangles of stars i < j and all after them.
    VESTREL_KERNEL void TakeThirdStars(std::size_t i, std::size_t j) {
        const double side = distance_.Row(i)[j];
        const Doubles ij = {side, side, side, side};
        const double* const iRow = distance_.Row(i);
        const double* const jRow = distance_.Row(j);
        const auto iStar = static_cast<std::int64_t>(i);
        const auto jStar = static_cast<std::int64_t>(j);
        const auto first = jStar + 1;
        const Numbers facesJk = {iStar, iStar, iStar, iStar};
        const Numbers facesIk = {jStar, jStar, jStar, jStar};
        Numbers facesIj = {first, first + 1, first + 2, first + 3};
        double* const shorts = triangles_.Short.data();
        double* const mids = triangles_.Mid.data();
        TriangleCorners* const corners = triangles_.Corners.data();
        std::size_t count = count_;
        for (std::size_t k = j + 1; k <= n_; k += atOnce, facesIj += std::int64_t{atOnce}) {
            Doubles ik;
            Doubles jk;
            Load(ik, iRow + k);
            Load(jk, jRow + k);
            const Doubles larger = ij < ik ? ik : ij;
            const Doubles smaller = ij < ik ? ij : ik;
            const Doubles rest = larger < jk ? larger : jk;
            const Doubles longest = larger < jk ? jk : larger;
            const Doubles middle = rest < smaller ? smaller : rest;
            const Doubles shortest = rest < smaller ? rest : smaller;
            const Doubles midRatio = middle / longest;
            const Doubles shortRatio = shortest / longest;
            // Sides of length 0 give ratios of 0 or NaN, and neither passes.
            const Numbers passed = (midRatio < RatioBounds::LargestRatio) &
                                   (midRatio + shortRatio > RatioBounds::LeastSum) &
                                   (midRatio - shortRatio > RatioBounds::LeastDifference);
            const Numbers facesLongest =
                longest == ij ? facesIj : (longest == ik ? facesIk : facesJk);
            const Numbers facesShortest =
                shortest == ij ? facesIj : (shortest == ik ? facesIk : facesJk);
            const Numbers facesMiddle = facesIj + facesIk + facesJk - facesLongest - facesShortest;
            const Numbers facing = facesShortest | facesMiddle << 16 | facesLongest << 32;
            for (std::size_t lane = 0; lane < atOnce; ++lane) {
                shorts[count] = shortRatio[lane];
                mids[count] = midRatio[lane];
                corners[count] = static_cast<TriangleCorners>(facing[lane]);
                count -= static_cast<std::size_t>(passed[lane]);  // true is −1
            }
        }
        count_ = count;
    }

    std::size_t n_;
    PaddedDistances distance_;
    TriangleColumns& triangles_;
    std::size_t count_ = 0;
};

VESTREL_FOR_AVX2 void RunForAvx2(Builder& builder) {
    builder.Run();
}
void RunPlainly(Builder& builder) {
    builder.Run();
}

}  // namespace

void BuildTriangleColumns(const PlateStarList& list, std::int32_t n, TriangleColumns& triangles) {
    triangles.Count = 0;
    if (n < 3) return;
    Builder builder(list, static_cast<std::size_t>(n), triangles);
    (HasAvx2() ? RunForAvx2 : RunPlainly)(builder);
}

}  // namespace vestrel
