#include "catalogtool/libCatalogCoverage.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "astro/libMath.h"
#include "catalog/libCatalogRegion.h"
#include "catalog/libCellGrid.h"

namespace vestrel {

namespace {

/// The numbers of the cells around one, each once.
std::vector<std::size_t> Neighbours(std::size_t number) {
    const CellPosition& cell = AllCells()[number];
    const double height = 2.5 * RadiansPerDegree;
    const double width = SliceWidth(cell.Zone) * RadiansPerDegree;
    const double ra = (static_cast<double>(cell.Slice) + 0.5) * width;
    const double dec = (cell.South ? -1 : 1) * (cell.Zone + 0.5) * height;
    const bool isCap = cell.Zone == ZonesPerHemisphere - 1;
    std::vector<std::size_t> around;
    // Twelve steps along each side find all of the narrower cells above and below.
    for (int step = 0; step < 12; ++step) {
        const double share = (step + 0.5) / 12 - 0.5;
        const double along = std::fmod(ra + share * width + 2 * TwoPi, TwoPi);
        const double inward = dec - std::copysign(height, dec);
        std::vector<SkyPosition> places = {{along, inward}};
        if (!isCap) {
            places.push_back({along, dec + std::copysign(height, dec)});
            places.push_back({std::fmod(ra + width + TwoPi, TwoPi), dec + share * height * 0.99});
            places.push_back({std::fmod(ra - width + TwoPi, TwoPi), dec + share * height * 0.99});
        }
        for (const SkyPosition& place : places) around.push_back(CellNumber(CellOf(place)));
    }
    std::sort(around.begin(), around.end());
    around.erase(std::unique(around.begin(), around.end()), around.end());
    std::erase(around, number);
    return around;
}

}  // namespace

double SmallestField(std::span<const std::int16_t> magnitudes, double area) {
    constexpr double smallest = 0.05;
    constexpr double largest = 30;
    constexpr double step = 1.02;
    double diagonal = smallest;
    while (diagonal < largest) {
        const double limit = MagnitudeLimitFor(diagonal / 2 * RadiansPerDegree) * 100;
        const auto end = std::lower_bound(
            magnitudes.begin(), magnitudes.end(), limit,
            [](std::int16_t magnitude, double bound) { return magnitude < bound; });
        const auto stars = static_cast<double>(end - magnitudes.begin());
        // A frame of 4 : 3 covers 0.48 of the square of its diagonal.
        if (stars / area * 0.48 * diagonal * diagonal >= StarsToSolveWith) return diagonal;
        diagonal *= step;
    }
    return std::numeric_limits<double>::infinity();
}

std::vector<CatalogHole> FindHoles(const std::vector<std::uint64_t>& stars) {
    std::vector<CatalogHole> holes;
    for (std::size_t cell = 0; cell < stars.size(); ++cell) {
        std::vector<double> densities;
        for (const std::size_t other : Neighbours(cell)) {
            densities.push_back(static_cast<double>(stars[other]) /
                                CellAreaFraction(AllCells()[other]));
        }
        // At the edge of a catalog of a part of the sky, up to half of the neighbours are empty.
        const auto quarter = densities.begin() + static_cast<std::ptrdiff_t>(densities.size() / 4);
        std::nth_element(densities.begin(), quarter, densities.end());
        const double expected = *quarter * CellAreaFraction(AllCells()[cell]);
        if (expected >= 50 && static_cast<double>(stars[cell]) < expected / 10) {
            holes.push_back({cell, stars[cell], expected});
        }
    }
    return holes;
}

}  // namespace vestrel
