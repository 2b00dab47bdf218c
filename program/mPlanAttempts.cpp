#include "program/mPlanAttempts.h"

#include <algorithm>
#include <cmath>

#include "astro/libMath.h"
#include "catalog/libCatalogRegion.h"
#include "matching/libCameraPlane.h"
#include "program/mMORA.h"
#include "program/mSkyModel.h"
#include "program/mStopwatch.h"

namespace vestrel {

namespace {

/// The largest area of a circle of seeds, in areas of the field; that of the circle about 16 : 9.
constexpr double mostArea = 1.84;

double AreaOfCircleAbout(double width, double height) {
    return Pi / 4 * (width * width + height * height) / (width * height);
}

}  // namespace

double RoughTolerance(const PlateImage& image) {
    return std::max(3.0, 0.005 * std::max(image.Width, image.Height));
}

SeedSettings SettingsOf(const SeedAttempt& attempt, const PlateImage& image, double width,
                        double height) {
    const double scale =
        std::hypot(width, height) * ArcsecondsPerRadian / std::hypot(image.Width, image.Height);
    SeedSettings settings;
    settings.SmallestScale = scale / (1 + attempt.SizeError);
    settings.LargestScale = scale * (1 + attempt.SizeError);
    if (attempt.Tried > 0) {
        settings.TriedSmallest = scale / (1 + attempt.Tried);
        settings.TriedLargest = scale * (1 + attempt.Tried);
    }
    settings.Tolerance = RoughTolerance(image);
    if (attempt.AlongStrip) {
        // As many in the strip as in other fields, unless it is so narrow that their pairs, whose
        // number grows with the square, would take all the time.
        constexpr double most = 8;
        settings.CatalogSeeds = static_cast<std::int32_t>(
            settings.CatalogSeeds * std::min(AreaOfCircleAbout(width, height) / mostArea, most));
    }
    return settings;
}

double InnerSide(double width, double height) {
    constexpr double part = 0.78;
    constexpr double stripPart = 0.585;  // gives the same for sides of 16 : 9
    return std::max(part * std::min(width, height), stripPart * std::sqrt(width * height));
}

bool IsStrip(double width, double height) {
    return AreaOfCircleAbout(width, height) > mostArea;
}

double SeedRadius(const SeedAttempt& attempt, double width, double height) {
    if (attempt.AlongStrip || !IsStrip(width, height)) return std::hypot(width, height) / 2;
    return std::sqrt(mostArea * width * height / Pi);
}

PlateStarList CatalogAbout(ProgramState& state, SkyPosition centre, double radius) {
    const StageTimer timer(state.Report.Times.Catalog);
    constexpr double deeper = 1.5;  // magnitudes deeper than the plain search
    constexpr double widest = 1.2;  // radians
    constexpr std::int32_t most = 600;
    PlateStarList stars =
        WholeRegionStars(state.Catalog, centre, std::sin(std::min(radius, widest)),
                         MagnitudeLimitFor(radius) + deeper);
    stars.Resize(std::min(stars.Count(), most));
    return stars;
}

std::optional<PlateSolution> SolutionOfPlate(ProgramState& state, const MatchedPlate& match,
                                             SkyPosition about, const ImageStars& places) {
    const PlateImage& image = state.Image;
    const auto middle =
        PlateAboutMiddle(match.Plate, about, PlaneKind::Camera, image.Width, image.Height);
    if (!middle) return std::nullopt;
    const double radius = std::hypot(image.Width, image.Height) / 2 /
                          PlateGeometry(middle->Plate).Scale / SolveArcsecondsPerRadian;
    RegionMatch region{middle->Centre, CatalogAbout(state, middle->Centre, radius), {}};
    MatchedPlate flat;
    flat.Plate = middle->Plate;
    if (!RefinePlate(region.CatalogStars, places, std::max(3.0, 2.5 * match.Rms), flat)) {
        return std::nullopt;
    }
    region.Found.Matches = flat.Pairs;
    region.Found.Constants = flat.Plate;
    PlateSolution solution = SolutionOf(region, places.Stars(), image.Width, image.Height);
    // Other lists have stars that the plain extraction did not take for any.
    solution.ExtractedCount = std::max(state.Extraction.StarsFound, places.Stars().Count());
    solution.Camera = {about, match.Plate, match.Rms};
    if (!std::isfinite(solution.Rms)) return std::nullopt;
    return solution;
}

std::optional<PlateSolution> SolutionOfModel(ProgramState& state, const ImageStars& places) {
    const double tolerated = state.Parameters.MaxError;
    const std::optional<ImageSkyModel> sky = SkyModelOfImage(state);
    if (!sky || !sky->Solution || sky->Model.Distorted() || sky->Solution->Rms > tolerated) {
        return std::nullopt;
    }
    // The camera's plane has arcseconds to the west and to the north.
    constexpr double arcsecond = 1 / SolveArcsecondsPerRadian;
    const PixelPoint middle = sky->Model.Centre();
    const PixelPoint west = sky->Model.PixelOf(PlanePoint{-arcsecond, 0});
    const PixelPoint north = sky->Model.PixelOf(PlanePoint{0, arcsecond});
    MatchedPlate match;
    match.Plate = {west.X - middle.X, north.X - middle.X, middle.X,
                   west.Y - middle.Y, north.Y - middle.Y, middle.Y};
    match.Rms = sky->Solution->Rms;
    std::optional<PlateSolution> solution =
        SolutionOfPlate(state, match, sky->Model.Tangent, places);
    return solution && solution->Rms <= tolerated ? solution : std::nullopt;
}

void KeepLikelier(std::optional<PlateSolution>& kept, const PlateSolution& match) {
    const double log = match.Confidence.Log10FalseAlarm;
    if (!kept || log < kept->Confidence.Log10FalseAlarm) kept = match;
}

RankedBands LikelyBands(ProgramState& state, const std::vector<double>& diagonals) {
    std::vector<QuadBand> bands = QuadBandsOf(state);
    std::reverse(bands.begin(), bands.end());
    RankedBands ranked;
    for (const QuadBand& band : bands) {
        const bool isOfSize = std::any_of(diagonals.begin(), diagonals.end(), [&](double diagonal) {
            constexpr double error = 1.3;  // tolerated error factor of a given size
            return diagonal * error > band.SmallestDiagonal &&
                   diagonal / error < band.LargestDiagonal;
        });
        (isOfSize ? ranked.OfSize : ranked.Others).push_back(band);
    }
    if (ranked.OfSize.empty()) ranked.OfSize.swap(ranked.Others);
    return ranked;
}

}  // namespace vestrel
