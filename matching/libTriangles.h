// Triangle voting: finds which star of one list is which star of another, whatever the shift,
// rotation and scale between them.
//
// Triangles are described by two side ratios and matched in that plane, after Groth 1986 (AJ 91,
// 1244) and Valdes et al. 1995 (PASP 107, 1119).
#pragma once

#include <cstdint>
#include <vector>

#include "astro/libParallel.h"
#include "astro/libPlateStar.h"
#include "matching/libPlateFit.h"

namespace vestrel {

/// Three stars of one list, distinguished by the sides that they face.
struct StarTriangle {
    double LongSide = 0;       ///< plane units of the list
    double MidRatio = 0;       ///< middle side / longest side
    double ShortRatio = 0;     ///< shortest side / longest side
    std::int16_t Corner1 = 0;  ///< the star opposite the shortest side
    std::int16_t Corner2 = 0;  ///< opposite the middle side
    std::int16_t Corner3 = 0;  ///< opposite the longest side
};
/// Sorted by rising `ShortRatio` after `SortTriangles`.
using StarTriangleList = NumberedList<StarTriangle>;

/// Votes for pairs, indexed by (list-1 star, list-2 star), both from 1.
struct VoteTable {
    std::int32_t Count2 = 0;
    std::vector<std::int32_t> Votes;

    VoteTable(std::int32_t count1, std::int32_t count2)
        : Count2(count2),
          Votes(static_cast<std::size_t>(count1 + 1) * static_cast<std::size_t>(count2 + 1)) {}
    std::int32_t& operator()(std::int32_t star1, std::int32_t star2) {
        return Votes[static_cast<std::size_t>(star1) * static_cast<std::size_t>(Count2 + 1) +
                     static_cast<std::size_t>(star2)];
    }
};

/// Builds those triangles of stars 1..n whose corners can be told apart reliably, in the order of
/// their stars: none that are nearly equilateral, nearly isosceles or flat.
StarTriangleList BuildTriangles(const PlateStarList& list, std::int32_t n);

/// Sorts triangles into rising order of `ShortRatio`.
void SortTriangles(StarTriangleList& triangles);

/// Triangles vote for each other when their short ratios differ by no more than this, but for the
/// first one beyond.
inline constexpr double VoteWindow = 0.01;

/// Lets each triangle of the shorter list vote, together with the nearest triangle of the other
/// list, for pairing their corners. They vote only when they are closer than `tolerance` in the
/// plane of the two ratios. The table must be zero before.
/// @return how many triangles voted
std::int32_t VoteTriangles(VoteTable& votes, const StarTriangleList& triangles1,
                           const StarTriangleList& triangles2, double tolerance,
                           const Progress& progress = {});

/// Picks for each star of list 1 the star of list 2 with the most votes, if they are enough: at
/// least (m − 2)(m − 1) / `matchDivisor`, where m is the count of the shorter list, and at least 4.
/// Each star is picked at most once; the votes of picked stars are cleared.
/// @return the pairs picked, most votes first, all in use
StarMatchList SelectMatches(VoteTable& votes, std::int32_t count1, std::int32_t count2,
                            double matchDivisor);

/// Sorts pairs into falling order of votes.
void SortMatches(StarMatchList& matches);

}  // namespace vestrel
