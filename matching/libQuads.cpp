#include "matching/libQuads.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "astro/libMath.h"

namespace vestrel {

namespace {

constexpr int zoneCount = 360;  ///< of half a degree each

/// The zone of a declination (radians); anything outside the sphere counts to the zone at its end.
int ZoneOf(double dec) {
    const double zone = std::floor((dec * DegreesPerRadian + 90) * 2);
    return zone > 0 ? static_cast<int>(std::min(zone, zoneCount - 1.0)) : 0;
}

double Wide(float value) {
    return static_cast<double>(value);
}

/// Takes a star into a list when it is bright and near enough.
class NearbyStars {
 public:
    NearbyStars(Projection& projection, double radius, double magLimit, PlateStarList& list)
        : projection_(projection),
          limit_(radius * ArcsecondsPerRadian),
          magLimit_(magLimit),
          list_(list) {}

    void Consider(const CatalogStar& star) {
        const double magnitude = star.Mag / 100.0;
        if (!(magnitude <= magLimit_)) return;
        double xi = 0;
        double eta = 0;
        const double cosine = projection_.SkyToPlane(Wide(star.Ra), Wide(star.Dec), xi, eta);
        constexpr std::size_t mostStars = 1000;
        if (list_.size() <= mostStars && std::sqrt(xi * xi + eta * eta) <= limit_ && cosine >= 0) {
            list_.push_back({static_cast<float>(xi), static_cast<float>(eta),
                             static_cast<float>(magnitude), Wide(star.Ra), Wide(star.Dec)});
        }
    }

 private:
    Projection& projection_;
    double limit_;
    double magLimit_;
    PlateStarList& list_;
};

}  // namespace

Quad QuadFromDistances(double d12, double d13, double d14, double d23, double d24, double d34) {
    std::array<double, 7> distances = {0, d12, d13, d14, d23, d24, d34};
    CombSort(distances, 6, [](double earlier, double later) { return earlier > later; });
    ReverseList(distances, 6);
    const auto ratio = [&](std::size_t i) { return distances[i + 1] / distances[1]; };
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

double QuadDistance(const Quad& q1, const Quad& q2) {
    const double d1 = Wide(q1.Ratio1) - Wide(q2.Ratio1);
    const double d2 = Wide(q1.Ratio2) - Wide(q2.Ratio2);
    const double d3 = Wide(q1.Ratio3) - Wide(q2.Ratio3);
    const double d4 = Wide(q1.Ratio4) - Wide(q2.Ratio4);
    const double d5 = Wide(q1.Ratio5) - Wide(q2.Ratio5);
    return std::sqrt(d1 * d1 + d2 * d2 + d3 * d3 + d4 * d4 + d5 * d5);
}

void IndexTables(QuadTables& tables) {
    tables.RatioPairs.resize(tables.Quads.size());
    std::transform(tables.Quads.begin(), tables.Quads.end(), tables.RatioPairs.begin(),
                   [](const Quad& quad) {
                       return std::array{quad.Ratio2, quad.Ratio5};
                   });
    tables.ZoneStarts.assign(zoneCount + 1, 0);
    tables.ZoneStars.resize(static_cast<std::size_t>(tables.StarCount));
    tables.ZoneDirections.resize(tables.ZoneStars.size());
    const auto zone = [&](std::int32_t i) {
        return static_cast<std::size_t>(
            ZoneOf(Wide(tables.Stars[static_cast<std::size_t>(i)].Dec)));
    };
    for (std::int32_t i = 1; i <= tables.StarCount; ++i) ++tables.ZoneStarts[zone(i) + 1];
    for (std::size_t z = 0; z < zoneCount; ++z) tables.ZoneStarts[z + 1] += tables.ZoneStarts[z];
    std::vector<std::int32_t> next = tables.ZoneStarts;
    for (std::int32_t i = 1; i <= tables.StarCount; ++i) {
        const CatalogStar& star = tables.Stars[static_cast<std::size_t>(i)];
        const auto slot = static_cast<std::size_t>(next[zone(i)]++);
        tables.ZoneStars[slot] = i;
        tables.ZoneDirections[slot] = {std::cos(star.Dec) * std::cos(star.Ra),
                                       std::cos(star.Dec) * std::sin(star.Ra), std::sin(star.Dec)};
    }
}

std::int32_t FindFirstQuad(const QuadTables& tables, double target,
                           const std::function<void()>& yield) {
    const auto key = [&](std::int32_t place) {
        return Wide(tables.Quads[static_cast<std::size_t>(place)].QuadKey);
    };
    const std::int32_t n = tables.QuadCount;
    if (target <= key(1)) return 1;
    if (target > key(n)) return n;
    if (n < 3) return 1;
    std::int32_t low = 1;
    std::int32_t high = n;
    std::int32_t middle = 0;
    do {
        middle = low + (high - low) / 2;
        (target >= key(middle) ? low : high) = middle;
        if (yield) yield();
    } while (low + 1 < high);
    return std::max(middle, 1);
}

std::int32_t FindKeyLimit(const QuadTables& tables, std::int32_t from, double limit) {
    const auto first = tables.Quads.begin() + from;
    const auto last = tables.Quads.begin() + tables.QuadCount;
    return from +
           static_cast<std::int32_t>(
               std::partition_point(
                   first, last, [limit](const Quad& quad) { return Wide(quad.QuadKey) < limit; }) -
               first);
}

void NearbyCatalogStars(const QuadTables& tables, Projection& projection, double ra, double dec,
                        double radius, double magLimit, PlateStarList& list, std::int32_t& count) {
    projection.SetProjectionCentre(ra, dec, ArcsecondsPerRadian);
    list.assign(1, PlateStar());
    // The zones and directions only narrow the choice. On the orthographic plane a radius is the
    // sine of an angle; the margin outweighs the rounding of the declinations.
    const double reach = radius < 0.99 ? std::asin(std::max(radius, 0.0)) + 1e-4 : Pi;
    const auto firstZone = static_cast<std::size_t>(ZoneOf(dec - reach));
    const auto lastZone = static_cast<std::size_t>(ZoneOf(dec + reach));
    constexpr double rounding = 1e-6;  // of the directions' products
    const double cosineReach = std::cos(reach) - rounding;
    const double x = std::cos(dec) * std::cos(ra);
    const double y = std::cos(dec) * std::sin(ra);
    const double z = std::sin(dec);
    std::vector<std::int32_t> places;
    for (auto slot = static_cast<std::size_t>(tables.ZoneStarts[firstZone]);
         slot < static_cast<std::size_t>(tables.ZoneStarts[lastZone + 1]); ++slot) {
        const std::array<float, 3>& direction = tables.ZoneDirections[slot];
        const double cosine =
            x * Wide(direction[0]) + y * Wide(direction[1]) + z * Wide(direction[2]);
        if (cosine >= cosineReach) places.push_back(tables.ZoneStars[slot]);
    }
    // The cap counts in the order of the table.
    std::sort(places.begin(), places.end());
    NearbyStars nearby(projection, radius, magLimit, list);
    for (const std::int32_t place : places) {
        nearby.Consider(tables.Stars[static_cast<std::size_t>(place)]);
    }
    count = static_cast<std::int32_t>(list.size()) - 1;
    CombSort(list, count, [](const PlateStar& earlier, const PlateStar& later) {
        return earlier.Flux > later.Flux;
    });
}

}  // namespace vestrel
