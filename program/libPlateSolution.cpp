#include "program/libPlateSolution.h"

#include <algorithm>
#include <cmath>

#include "astro/libConversions.h"
#include "astro/libMath.h"
#include "astro/libStrings.h"

namespace vestrel {

namespace {

/// The sky position of the middle of the image.
SkyPosition CentreOf(const RegionMatch& region, std::int32_t width, std::int32_t height) {
    double xi = 0;
    double eta = 0;
    InvertPlateFit(region.Found.Constants, (width - 1) / 2.0, (height - 1) / 2.0, xi, eta);
    Projection plane;
    plane.SetProjectionCentre(region.Centre, SolveArcsecondsPerRadian);
    const SkyPosition centre = plane.PlaneToSky(xi, eta);
    return centre;
}

/// Mean of instrumental − catalog magnitude over the pairs in use.
double ZeroPointOf(const PlateSolution& solution) {
    double instrumental = 0;
    double catalog = 0;
    std::int32_t n = 0;
    for (const MatchedStar& star : MatchedStars(solution)) {
        instrumental += -2.5 * std::log10(double{star.Plate->Flux});
        catalog += double{star.Catalog->Flux};
        ++n;
    }
    return (instrumental - catalog) / n;
}

}  // namespace

bool PlateSolution::IsWide() const {
    constexpr double widest = 20 * 60;  // arcminutes
    return std::hypot(WidthArcmin, HeightArcmin) > widest;
}

PlateSolution SolutionOf(const RegionMatch& region, const PlateStarList& plateStars,
                         std::int32_t width, std::int32_t height) {
    PlateSolution solution;
    solution.Pairs = region.Found.Matches;
    solution.CatalogStars = region.CatalogStars;
    solution.PlateStars = plateStars;
    // The centre comes from the match, not from the last fit, as it always has.
    const SkyPosition centre = CentreOf(region, width, height);
    solution.CentreRA = centre.Ra;
    solution.CentreDec = centre.Dec;
    solution.TangentRA = region.Centre.Ra;
    solution.TangentDec = region.Centre.Dec;
    FitSolution(solution, width, height);
    solution.MagnitudeZeroPoint = ZeroPointOf(solution);
    return solution;
}

void FitSolution(PlateSolution& solution, std::int32_t width, std::int32_t height) {
    NumberedList<double> residuals;
    solution.Rms = FitPlate(solution.CatalogStars, solution.PlateStars, solution.Pairs,
                            solution.Transform, residuals);
    const FitGeometry geometry = PlateGeometry(solution.Transform);
    solution.Scale = geometry.Scale;
    solution.Stretch = geometry.Stretch;
    solution.Skew = geometry.Skew;
    solution.Angle = geometry.Angle;
    solution.MatchedCount =
        static_cast<std::int32_t>(std::count_if(solution.Pairs.begin(), solution.Pairs.end(),
                                                [](const StarMatch& pair) { return pair.InUse; }));
    solution.WidthArcmin = width / solution.Scale / 60;
    solution.HeightArcmin = height / solution.Scale / 60;
}

std::vector<MatchedStar> MatchedStars(const PlateSolution& solution) {
    std::vector<MatchedStar> stars;
    for (const StarMatch& pair : solution.Pairs) {
        if (!pair.InUse) continue;
        stars.push_back({&solution.CatalogStars[pair.Star1], &solution.PlateStars[pair.Star2]});
    }
    return stars;
}

double PositionAngleDegrees(double angle) {
    double degrees = angle * 57.29577950560105;
    if (degrees < 0) degrees += 360;
    if (degrees > 360) degrees -= 360;
    return degrees;
}

std::string FieldSizeText(std::int32_t width, std::int32_t height, double scale) {
    double x = width / scale;
    double y = height / scale;
    const char* unit = "\"";
    for (const char* larger : {"'", DegreeSign}) {
        if (std::min(x, y) < 60) break;
        x /= 60;
        y /= 60;
        unit = larger;
    }
    return RoundedText(x, 2) + unit + " X " + RoundedText(y, 2) + unit;
}

std::string ResidualText(double rms, double scale) {
    return RoundedText(rms / scale, 3) + "\"";
}

}  // namespace vestrel
