// The ranges of field sizes for which there are quad tables, and how the table of each is made.
#pragma once

#include <vector>

namespace vestrel {

/// How the table for one range of field sizes is made.
struct QuadPlan {
    double SmallestDiagonal = 0;  ///< degrees
    double LargestDiagonal = 0;   ///< degrees
    double FramesPerField = 0;    ///< how many frames overlap at any point of the sky
    int StarsPerFrame = 0;        ///< how many of the brightest become stars of the table
    /// In narrow fields all quads of an image share its three brightest stars. Quads are then
    /// triples of nearly consecutive stars by brightness, with one fainter star that lies between
    /// them.
    bool SharedBrightest = false;
    int BrightestLost = 0;  ///< narrow: how many of the brightest stars an image may lack
    int Gaps = 0;           ///< narrow: stars that it may lack within the triple
    int CentralStars = 0;   ///< wide: how many of the brightest stars are centres of quads
    int Neighbours = 0;     ///< wide: how many brightest neighbours each of them has; quads take
                            ///< three of these
};

/// The plans of all ranges, found by experiment (docs/QUADS.md), smallest fields first. Each range
/// begins where the one before it ends.
const std::vector<QuadPlan>& QuadPlans();

/// The plans for fields whose diagonals lie in a range (degrees), which they cover exactly. Empty
/// when the range is empty or not a number, or when a part of it lies outside all plans: a table
/// for less than was asked for would be noticed only when a picture is not solved.
std::vector<QuadPlan> PlansFor(double smallestDiagonal, double largestDiagonal);

/// The diagonal of a frame of middle size, radians.
double MiddleDiagonal(const QuadPlan& plan);

}  // namespace vestrel
