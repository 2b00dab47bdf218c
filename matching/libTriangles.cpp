#include "matching/libTriangles.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "astro/libMath.h"
#include "astro/libSphericalMath.h"

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

/// A list of triangles reduced to what the search reads.
struct RatioColumns {
    std::vector<double> Short;
    std::vector<double> Mid;

    RatioColumns(const StarTriangleList& triangles, std::int32_t count) {
        Short.reserve(static_cast<std::size_t>(count) + 1);
        Mid.reserve(static_cast<std::size_t>(count) + 1);
        for (std::size_t k = 0; k <= static_cast<std::size_t>(count); ++k) {
            Short.push_back(triangles[k].ShortRatio);
            Mid.push_back(triangles[k].MidRatio);
        }
    }
};

struct Nearest {
    std::size_t Index;
    double Squared;
};

/// The entry of low..high that is nearest to (shortRatio, midRatio), the first one on ties; any
/// or none when all are `limit` (squared) or more away.
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

std::int32_t BuildTriangles(const PlateStarList& list, std::int32_t n,
                            StarTriangleList& triangles) {
    const DistanceTable distance(list, n);
    triangles.assign(1, StarTriangle());
    // About half of all triples pass.
    const double room = RoundHalfEven(static_cast<double>(n) * (n - 1) * (n - 2) / 12) + 2;
    triangles.reserve(static_cast<std::size_t>(std::max(room, 1.0)));
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
                const bool distinct = midRatio < 0.95 && shortRatio < 0.95 &&
                                      midRatio + shortRatio > 1.3 &&
                                      std::fabs(midRatio - shortRatio) > 0.05;
                if (!distinct) continue;
                triangles.push_back({longest, midRatio, shortRatio,
                                     static_cast<std::int16_t>(facesShortest),
                                     static_cast<std::int16_t>(facesMiddle),
                                     static_cast<std::int16_t>(facesLongest)});
            }
        }
    }
    const auto count = static_cast<std::int32_t>(triangles.size()) - 1;
    SortTriangles(triangles, count);
    return count;
}

void SortTriangles(StarTriangleList& triangles, std::int32_t count) {
    const std::vector<std::int32_t> order = CombSortedOrder(
        count, [&](std::int32_t i) { return triangles[static_cast<std::size_t>(i)].ShortRatio; });
    StarTriangleList sorted;
    sorted.reserve(order.size());
    for (const std::int32_t place : order) {
        sorted.push_back(triangles[static_cast<std::size_t>(place)]);
    }
    triangles.swap(sorted);
}

std::int32_t VoteTriangles(VoteTable& votes, const StarTriangleList& triangles1,
                           std::int32_t triangleCount1, const StarTriangleList& triangles2,
                           std::int32_t triangleCount2, double tolerance,
                           const Progress& progress) {
    if (triangleCount1 == 0 || triangleCount2 == 0) return 0;
    constexpr double window = 0.01;
    const double limit = std::min(tolerance * tolerance, 1e20);
    const bool outerIsFirst = triangleCount1 <= triangleCount2;
    const StarTriangleList& outer = outerIsFirst ? triangles1 : triangles2;
    const StarTriangleList& inner = outerIsFirst ? triangles2 : triangles1;
    const std::int32_t outerCount = outerIsFirst ? triangleCount1 : triangleCount2;
    const auto last = static_cast<std::size_t>(outerIsFirst ? triangleCount2 : triangleCount1);
    const RatioColumns columns(inner, static_cast<std::int32_t>(last));

    std::int32_t voted = 0;
    std::size_t low = 1;
    std::size_t high = 1;
    for (std::int32_t k = 1; k <= outerCount; ++k) {
        const StarTriangle& triangle = outer[static_cast<std::size_t>(k)];
        const double wanted = triangle.ShortRatio;
        while (low < last && columns.Short[low] < wanted - window) ++low;
        while (high < last && columns.Short[high] < wanted + window) ++high;
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
        if (k % 100 == 0 && progress) progress(k, outerCount);
    }
    if (progress) progress(0, outerCount);
    return voted;
}

std::int32_t SelectMatches(VoteTable& votes, std::int32_t count1, std::int32_t count2,
                           double matchDivisor, StarMatchList& matches) {
    const double smaller = std::min(count1, count2);
    const std::int32_t threshold =
        RoundToNearestInt32(std::max((smaller - 2) * (smaller - 1) / matchDivisor, 4.0));
    matches.assign(1, StarMatch());
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
        matches.push_back({static_cast<std::int16_t>(i), static_cast<std::int16_t>(star2),
                           static_cast<std::int16_t>(held), false});
        for (std::int32_t j = 1; j <= count2; ++j) votes(i, j) = 0;
        for (std::int32_t row = 1; row <= count1; ++row) votes(row, star2) = 0;
    }
    const auto count = static_cast<std::int32_t>(matches.size()) - 1;
    SortMatches(matches, count);
    for (std::size_t k = 1; k < matches.size(); ++k) matches[k].InUse = true;
    return count;
}

void SortMatches(StarMatchList& matches, std::int32_t count) {
    // Ascending, then turned around: the order of equal votes is the one that this gives.
    CombSort(matches, count, [](const StarMatch& earlier, const StarMatch& later) {
        return later.Votes < earlier.Votes;
    });
    ReverseList(matches, count);
}

}  // namespace vestrel
