#include "program/mPlanAttempts.h"

#include <algorithm>
#include <cmath>

#include "astro/libMath.h"
#include "catalog/libCatalogRegion.h"
#include "program/mMORA.h"
#include "program/mStopwatch.h"

namespace vestrel {

double RoughTolerance(const PlateImage& image) {
    return std::max(3.0, 0.005 * std::max(image.Width, image.Height));
}

PlateStarList CatalogAbout(ProgramState& state, SkyPosition centre, double radius) {
    const StageTimer timer(state.Report.Times.Catalog);
    constexpr double deeper = 1.5;  // magnitudes deeper than the plain search
    constexpr double widest = 1.2;  // radians
    constexpr std::int32_t most = 600;
    Projection plane;
    plane.SetProjectionCentre(centre, SolveArcsecondsPerRadian);
    PlateStarList stars =
        RegionStars(state.Catalog, plane, centre, std::sin(std::min(radius, widest)),
                    MagnitudeLimitFor(radius) + deeper);
    stars.Resize(std::min(stars.Count(), most));
    return stars;
}

std::vector<QuadBand> LikelyBands(ProgramState& state, const std::vector<double>& diagonals) {
    std::vector<QuadBand> bands = QuadBandsOf(state);
    std::reverse(bands.begin(), bands.end());
    std::stable_partition(bands.begin(), bands.end(), [&](const QuadBand& band) {
        constexpr double error = 1.3;  // tolerated error factor of a given size
        return std::any_of(diagonals.begin(), diagonals.end(), [&](double d) {
            return d * error > band.SmallestDiagonal && d / error < band.LargestDiagonal;
        });
    });
    return bands;
}

}  // namespace vestrel
