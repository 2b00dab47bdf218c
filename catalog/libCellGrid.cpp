#include "catalog/libCellGrid.h"

#include <array>
#include <cmath>
#include <numbers>

#include "astro/libMath.h"

namespace vestrel {

namespace {

// Rounded to 32 bits both lie just above the true value.
constexpr float wholeCircle = static_cast<float>(2 * std::numbers::pi);
constexpr float rightAngle = static_cast<float>(std::numbers::pi / 2);

/// Per zone, the number of cells of the hemisphere before it; the last entry counts the whole
/// hemisphere.
std::array<std::size_t, ZonesPerHemisphere + 1> ZoneStarts() {
    std::array<std::size_t, ZonesPerHemisphere + 1> starts{};
    for (int zone = 0; zone < ZonesPerHemisphere; ++zone) {
        starts[zone + 1] = starts[zone] + static_cast<std::size_t>(SlicesInZone(zone));
    }
    return starts;
}

}  // namespace

const std::vector<CellPosition>& AllCells() {
    static const std::vector<CellPosition> cells = [] {
        std::vector<CellPosition> all;
        for (const bool south : {false, true}) {
            for (int zone = 0; zone < ZonesPerHemisphere; ++zone) {
                for (int slice = 0; slice < SlicesInZone(zone); ++slice) {
                    all.push_back({south, zone, slice});
                }
            }
        }
        return all;
    }();
    return cells;
}

std::size_t CellNumber(const CellPosition& cell) {
    static const auto starts = ZoneStarts();
    return (cell.South ? starts.back() : 0) + starts[cell.Zone] +
           static_cast<std::size_t>(cell.Slice);
}

bool CellTouches(const CellPosition& cell, SkyPosition centre, double radius) {
    constexpr double zoneHeight = 2.5 * RadiansPerDegree;
    const double sign = cell.South ? -1 : 1;
    const double nearEquator = cell.Zone * zoneHeight * sign;
    const double nearPole = nearEquator + zoneHeight * sign;
    // The cap around a pole is one cell. All others are much narrower than half a circle, so their
    // corners are their farthest points.
    const bool cap = SlicesInZone(cell.Zone) == 1;
    const double width = SliceWidth(cell.Zone) * RadiansPerDegree;
    const SkyPosition middle{(static_cast<double>(cell.Slice) + 0.5) * width,
                             cap ? nearPole : (nearEquator + nearPole) / 2};
    const double corner = middle.Ra + width / 2;
    const double reach = std::max(SkyDistance(middle, {corner, nearEquator}),
                                  SkyDistance(middle, {corner, nearPole}));
    constexpr double rounding = 1e-5;
    return SkyDistance(middle, centre) <= radius + reach + rounding;
}

double CellAreaFraction(const CellPosition& cell) {
    const double lower = 2.5 * cell.Zone;
    const double height =
        std::sin((lower + 2.5) * RadiansPerDegree) - std::sin(lower * RadiansPerDegree);
    return height / 2 / SlicesInZone(cell.Zone);
}

bool IsStoredPosition(float ra, float dec) {
    return ra >= 0 && ra < wholeCircle && dec >= -rightAngle && dec <= rightAngle;
}

std::optional<CatalogStar> StoredStar(const SkyStar& star) {
    CatalogStar stored;
    // Adding 0 turns −0 into 0, so that equal stars have equal bytes.
    stored.Ra = static_cast<float>(star.Ra) + 0.0F;
    stored.Dec = static_cast<float>(star.Dec) + 0.0F;
    // A right ascension of 24 h, exact or rounded, would give a slice beyond the last.
    if (stored.Ra == wholeCircle) stored.Ra = 0;
    if (!IsStoredPosition(stored.Ra, stored.Dec)) return std::nullopt;
    if (!(star.Mag >= BrightestMagnitude && star.Mag <= FaintestMagnitude)) return std::nullopt;
    if (!RoundToInt16(star.Mag * 100, stored.Mag)) return std::nullopt;
    return stored;
}

}  // namespace vestrel
