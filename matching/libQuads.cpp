#include "matching/libQuads.h"

#include <cmath>
#include <tuple>

namespace vestrel {

namespace {

double Wide(float value) {
    return static_cast<double>(value);
}

/// The chord between two directions; at a few degrees it is as good as the angle.
double Chord(const Direction& a, const Direction& b) {
    return std::sqrt((a[0] - b[0]) * (a[0] - b[0]) + (a[1] - b[1]) * (a[1] - b[1]) +
                     (a[2] - b[2]) * (a[2] - b[2]));
}

}  // namespace

Quad QuadFromDistances(double d12, double d13, double d14, double d23, double d24, double d34) {
    std::array<double, 6> distances = {d12, d13, d14, d23, d24, d34};
    // A sorting network (Knuth, The Art of Computer Programming 3, 5.3.4): tables have millions of
    // quads, and a sort with branches mispredicts half of them.
    constexpr std::array<std::array<std::size_t, 2>, 12> exchanges = {{{0, 5},
                                                                       {1, 3},
                                                                       {2, 4},
                                                                       {1, 2},
                                                                       {3, 4},
                                                                       {0, 3},
                                                                       {2, 5},
                                                                       {0, 1},
                                                                       {2, 3},
                                                                       {4, 5},
                                                                       {1, 2},
                                                                       {3, 4}}};
    for (const auto& [longer, shorter] : exchanges) {
        const double a = distances[longer];
        const double b = distances[shorter];
        distances[longer] = a > b ? a : b;
        distances[shorter] = a > b ? b : a;
    }
    const auto ratio = [&](std::size_t i) { return distances[i] / distances[0]; };
    Quad quad;
    quad.Ratio1 = static_cast<float>(ratio(1));
    quad.Ratio2 = static_cast<float>(ratio(2));
    quad.Ratio3 = static_cast<float>(ratio(3));
    quad.Ratio4 = static_cast<float>(ratio(4));
    quad.Ratio5 = static_cast<float>(ratio(5));
    quad.QuadKey = static_cast<float>(Wide(quad.Ratio1) + Wide(quad.Ratio2) + Wide(quad.Ratio3) +
                                      Wide(quad.Ratio4) + Wide(quad.Ratio5));
    return quad;
}

Quad QuadDescriptor(const PlateStar& s1, const PlateStar& s2, const PlateStar& s3,
                    const PlateStar& s4) {
    return QuadFromDistances(PixelDistance(s1, s2), PixelDistance(s1, s3), PixelDistance(s1, s4),
                             PixelDistance(s2, s3), PixelDistance(s2, s4), PixelDistance(s3, s4));
}

Quad QuadOfDirections(const std::array<Direction, 4>& stars) {
    return QuadFromDistances(Chord(stars[0], stars[1]), Chord(stars[0], stars[2]),
                             Chord(stars[0], stars[3]), Chord(stars[1], stars[2]),
                             Chord(stars[1], stars[3]), Chord(stars[2], stars[3]));
}

Quad QuadOfStars(const std::array<CatalogStar, 4>& stars) {
    const auto direction = [&](std::size_t i) { return DirectionOf(PositionOf(stars[i])); };
    return QuadOfDirections({direction(0), direction(1), direction(2), direction(3)});
}

double QuadDistance(const Quad& q1, const Quad& q2) {
    const double d1 = Wide(q1.Ratio1) - Wide(q2.Ratio1);
    const double d2 = Wide(q1.Ratio2) - Wide(q2.Ratio2);
    const double d3 = Wide(q1.Ratio3) - Wide(q2.Ratio3);
    const double d4 = Wide(q1.Ratio4) - Wide(q2.Ratio4);
    const double d5 = Wide(q1.Ratio5) - Wide(q2.Ratio5);
    return std::sqrt(d1 * d1 + d2 * d2 + d3 * d3 + d4 * d4 + d5 * d5);
}

bool ComesBefore(const CatalogStar& a, const CatalogStar& b) {
    return std::tie(a.Mag, a.Dec, a.Ra) < std::tie(b.Mag, b.Dec, b.Ra);
}

}  // namespace vestrel
