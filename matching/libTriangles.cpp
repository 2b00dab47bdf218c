#include "matching/libTriangles.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "astro/libMath.h"
#include "astro/libSphericalMath.h"
#include "matching/libTriangleColumns.h"

namespace vestrel {

namespace {

/// The distances of all pairs of stars 1..n.
class DistanceTable {
 public:
    DistanceTable(const PlateStarList& list, std::int32_t n)
        : width_(static_cast<std::size_t>(n) + 1), distances_(width_ * width_) {
        for (std::size_t i = 1; i < width_; ++i) {
            for (std::size_t j = 1; j < width_; ++j) {
                distances_[i * width_ + j] = PixelDistance(list[i], list[j]);
            }
        }
    }
    double operator()(std::int32_t i, std::int32_t j) const {
        return distances_[static_cast<std::size_t>(i) * width_ + static_cast<std::size_t>(j)];
    }

 private:
    std::size_t width_;
    std::vector<double> distances_;
};

/// The ratios of a list of triangles, which are all that the search reads; entry 0 is unused.
struct RatioColumns {
    std::vector<double> Short;
    std::vector<double> Mid;

    explicit RatioColumns(const StarTriangleList& triangles) : Short(1), Mid(1) {
        for (const StarTriangle& triangle : triangles) {
            Short.push_back(triangle.ShortRatio);
            Mid.push_back(triangle.MidRatio);
        }
    }
};

struct Nearest {
    std::size_t Index;
    double Squared;
};

/// The entry of low..high that is nearest to (shortRatio, midRatio), the first one on ties. Any
/// entry or none when all are at a squared distance of `limit` or more.
///
/// The entries are sorted on the short ratio, so the search goes outward from the wanted value and
/// ends where that ratio alone is farther away than the best entry.
Nearest FindNearest(const RatioColumns& columns, std::size_t low, std::size_t high,
                    double shortRatio, double midRatio, double limit) {
    const auto* const shorts = columns.Short.data();
    const auto* const start = std::lower_bound(shorts + low, shorts + high + 1, shortRatio);
    Nearest best{low, limit};
    for (auto k = static_cast<std::size_t>(start - shorts); k-- > low;) {
        const double ds = shortRatio - columns.Short[k];
        if (ds * ds > best.Squared) break;
        const double dm = midRatio - columns.Mid[k];
        const double squared = ds * ds + dm * dm;
        if (squared <= best.Squared) best = {k, squared};
    }
    for (auto k = static_cast<std::size_t>(start - shorts); k <= high; ++k) {
        const double ds = shortRatio - columns.Short[k];
        if (ds * ds > best.Squared) break;
        const double dm = midRatio - columns.Mid[k];
        const double squared = ds * ds + dm * dm;
        if (squared < best.Squared) best = {k, squared};
    }
    return best;
}

}  // namespace

StarTriangleList BuildTriangles(const PlateStarList& list, std::int32_t n) {
    const DistanceTable distance(list, n);
    StarTriangleList triangles;
    // About half of all triples pass.
    triangles.Reserve(RoundToNearestInt32(static_cast<double>(n) * (n - 1) * (n - 2) / 12));
    for (std::int32_t i = 1; i <= n; ++i) {
        for (std::int32_t j = i + 1; j <= n; ++j) {
            for (std::int32_t k = j + 1; k <= n; ++k) {
                double longest = distance(i, j);
                double middle = distance(i, k);
                double shortest = distance(j, k);
                // Each corner lies between two sides and faces the third.
                std::int32_t facesShortest = i;
                std::int32_t facesMiddle = j;
                std::int32_t facesLongest = k;
                const auto orderFirstTwo = [&] {
                    if (longest < middle) {
                        std::swap(longest, middle);
                        std::swap(facesMiddle, facesLongest);
                    }
                };
                orderFirstTwo();
                if (middle < shortest) {
                    std::swap(middle, shortest);
                    std::swap(facesShortest, facesMiddle);
                }
                orderFirstTwo();
                if (!(longest > 0)) continue;
                const double midRatio = middle / longest;
                const double shortRatio = shortest / longest;
                const bool distinct =
                    midRatio < RatioBounds::LargestRatio &&
                    shortRatio < RatioBounds::LargestRatio &&
                    midRatio + shortRatio > RatioBounds::LeastSum &&
                    std::fabs(midRatio - shortRatio) > RatioBounds::LeastDifference;
                if (!distinct) continue;
                triangles.Add({longest, midRatio, shortRatio,
                               static_cast<std::int16_t>(facesShortest),
                               static_cast<std::int16_t>(facesMiddle),
                               static_cast<std::int16_t>(facesLongest)});
            }
        }
    }
    SortTriangles(triangles);
    return triangles;
}

void SortTriangles(StarTriangleList& triangles) {
    const std::vector<std::int32_t> order =
        CombSortedOrder(triangles.Count(), [&](std::int32_t i) { return triangles[i].ShortRatio; });
    StarTriangleList sorted;
    sorted.Reserve(triangles.Count());
    for (std::size_t i = 1; i < order.size(); ++i) sorted.Add(triangles[order[i]]);
    triangles = std::move(sorted);
}

std::int32_t VoteTriangles(VoteTable& votes, const StarTriangleList& triangles1,
                           const StarTriangleList& triangles2, double tolerance,
                           const Progress& progress) {
    if (triangles1.Empty() || triangles2.Empty()) return 0;
    const double limit = std::min(tolerance * tolerance, 1e20);
    const bool outerIsFirst = triangles1.Count() <= triangles2.Count();
    const StarTriangleList& outer = outerIsFirst ? triangles1 : triangles2;
    const StarTriangleList& inner = outerIsFirst ? triangles2 : triangles1;
    const auto last = static_cast<std::size_t>(inner.Count());
    const RatioColumns columns(inner);

    std::int32_t voted = 0;
    std::size_t low = 1;
    std::size_t high = 1;
    for (std::int32_t k = 1; k <= outer.Count(); ++k) {
        const StarTriangle& triangle = outer[k];
        const double wanted = triangle.ShortRatio;
        while (low < last && columns.Short[low] < wanted - VoteWindow) ++low;
        while (high < last && columns.Short[high] < wanted + VoteWindow) ++high;
        const Nearest nearest = FindNearest(columns, low, high, wanted, triangle.MidRatio, limit);
        if (nearest.Squared < limit) {
            const StarTriangle& other = inner[nearest.Index];
            const StarTriangle& of1 = outerIsFirst ? triangle : other;
            const StarTriangle& of2 = outerIsFirst ? other : triangle;
            ++votes(of1.Corner1, of2.Corner1);
            ++votes(of1.Corner2, of2.Corner2);
            ++votes(of1.Corner3, of2.Corner3);
            ++voted;
        }
        if (k % 100 == 0 && progress) progress(k, outer.Count());
    }
    if (progress) progress(0, outer.Count());
    return voted;
}

StarMatchList SelectMatches(VoteTable& votes, std::int32_t count1, std::int32_t count2,
                            double matchDivisor) {
    const double smaller = std::min(count1, count2);
    const std::int32_t threshold =
        RoundToNearestInt32(std::max((smaller - 2) * (smaller - 1) / matchDivisor, 4.0));
    StarMatchList matches;
    for (std::int32_t i = 1; i <= count1; ++i) {
        std::int32_t most = 0;
        std::int32_t star2 = 0;
        for (std::int32_t j = 1; j <= count2; ++j) {
            if (votes(i, j) > most) {
                most = votes(i, j);
                star2 = j;
            }
        }
        if (star2 == 0 || most < threshold) continue;
        const std::int32_t held =
            std::min<std::int32_t>(most, std::numeric_limits<std::int16_t>::max());
        matches.Add({static_cast<std::int16_t>(i), static_cast<std::int16_t>(star2),
                     static_cast<std::int16_t>(held), false});
        for (std::int32_t j = 1; j <= count2; ++j) votes(i, j) = 0;
        for (std::int32_t row = 1; row <= count1; ++row) votes(row, star2) = 0;
    }
    SortMatches(matches);
    for (StarMatch& match : matches) match.InUse = true;
    return matches;
}

void SortMatches(StarMatchList& matches) {
    // Sorted ascending and then reversed, because results depend on the order of equal votes that
    // this gives.
    CombSort(matches, matches.Count(), [](const StarMatch& earlier, const StarMatch& later) {
        return later.Votes < earlier.Votes;
    });
    std::reverse(matches.begin(), matches.end());
}

}  // namespace vestrel
