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

SeedSettings SettingsOf(const SeedAttempt& attempt, const PlateImage& image, double diagonal) {
    const double scale = diagonal * ArcsecondsPerRadian / std::hypot(image.Width, image.Height);
    SeedSettings settings;
    settings.SmallestScale = scale / (1 + attempt.SizeError);
    settings.LargestScale = scale * (1 + attempt.SizeError);
    if (attempt.Tried > 0) {
        settings.TriedSmallest = scale / (1 + attempt.Tried);
        settings.TriedLargest = scale * (1 + attempt.Tried);
    }
    settings.Tolerance = RoughTolerance(image);
    return settings;
}

double InnerSide(double width, double height) {
    constexpr double part = 0.78;
    constexpr double stripPart = 0.585;  // gives the same for sides of 16 : 9
    return std::max(part * std::min(width, height), stripPart * std::sqrt(width * height));
}

double SeedRadius(double width, double height) {
    constexpr double mostArea = 1.84;  // of the circle, in areas of the field; that of 16 : 9
    return std::min(std::hypot(width, height) / 2, std::sqrt(mostArea * width * height / Pi));
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
