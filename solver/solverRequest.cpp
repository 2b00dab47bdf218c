#include "solver/solverRequest.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <stdexcept>

#include "astro/libMath.h"
#include "image/libHints.h"

namespace vestrel {

namespace {

void Require(bool good, const char* what) {
    if (!good) throw std::invalid_argument(what);
}

bool IsPositive(double value) {
    return std::isfinite(value) && value > 0;
}

/// The scales to try for a range, the middle one first. A search tolerates an error of 30 %.
std::vector<double> ScalesIn(const SolverRange& range) {
    constexpr double reach = 1.35;
    constexpr int mostSteps = 4;
    const double middle = std::sqrt(range.Low * range.High);
    std::vector<double> scales = {middle};
    for (int step = 1; step <= mostSteps; ++step) {
        const double factor = std::pow(reach, 2 * step);
        if (middle * factor / reach > range.High) break;
        scales.push_back(std::min(middle * factor, range.High));
        scales.push_back(std::max(middle / factor, range.Low));
    }
    return scales;
}

/// In arcseconds per pixel.
std::vector<double> GivenScales(const SolverHints& hints, const PlateImage& image) {
    constexpr double arcseconds = 3600;  // of a degree
    if (hints.Scale) return ScalesIn(*hints.Scale);
    const auto ofSide = [](const SolverRange& range, std::int32_t pixels) {
        const double factor = arcseconds / pixels;
        return ScalesIn({range.Low * factor, range.High * factor});
    };
    if (hints.FieldWidth) return ofSide(*hints.FieldWidth, image.Width);
    if (hints.FieldHeight) return ofSide(*hints.FieldHeight, image.Height);
    return {};
}

}  // namespace

void RequireValid(const SolverSettings& settings) {
    constexpr int mostThreads = 256;
    constexpr int mostPixels = 32767;
    Require(settings.Threads >= 0 && settings.Threads <= mostThreads, "Threads: 0 to 256");
    Require(IsPositive(settings.DetectionThreshold), "DetectionThreshold: above 0");
    Require(settings.EdgeExclusion >= 0 && settings.EdgeExclusion < 0.5, "EdgeExclusion: 0 to 0.5");
    Require(settings.MinStarSize >= 1 && settings.MinStarSize <= mostPixels,
            "MinStarSize: 1 to 32767");
    Require(IsPositive(settings.MaxStarSize), "MaxStarSize: above 0");
    Require(settings.MaxStars >= 6 && settings.MaxStars <= 1000, "MaxStars: 6 to 1000");
    Require(IsPositive(settings.MaxError), "MaxError: above 0");
    Require(IsPositive(settings.MaxGeometricError), "MaxGeometricError: above 0");
    Require(IsPositive(settings.MatchTolerance), "MatchTolerance: above 0");
    Require(IsPositive(settings.MatchDivisor), "MatchDivisor: above 0");
}

void RequireValid(const SolverHints& hints) {
    for (const SolverCentre& centre : hints.Centres) {
        Require(std::isfinite(centre.Ra) && std::fabs(centre.Dec) <= 90, "Centre: not on the sky");
        Require(centre.Radius >= 0 && centre.Radius <= 180, "Radius: 0 to 180 degrees");
    }
    for (const auto& range : {hints.Scale, hints.FieldWidth, hints.FieldHeight}) {
        Require(!range || (IsPositive(range->Low) && std::isfinite(range->High) &&
                           range->High >= range->Low),
                "A range: above 0, the high end not below the low one");
    }
    Require(hints.MostRegions >= 1 && hints.MostRegions <= 10000, "MostRegions: 1 to 10000");
    Require(hints.TimeLimit >= 0, "TimeLimit: from 0");
    Require(hints.EndAfter >= 0, "EndAfter: from 0");
}

void TakeSettings(const SolverSettings& settings, SolveParameters& parameters) {
    parameters.DetectionThreshold = settings.DetectionThreshold;
    parameters.EdgeExclusion = settings.EdgeExclusion;
    parameters.MinStarSize = static_cast<std::int16_t>(settings.MinStarSize);
    parameters.MaxStarSize = settings.MaxStarSize;
    parameters.MaxStars = static_cast<std::int16_t>(settings.MaxStars);
    parameters.MaxError = settings.MaxError;
    parameters.MaxGeometricError = settings.MaxGeometricError;
    parameters.MatchTolerance = settings.MatchTolerance;
    parameters.MatchDivisor = settings.MatchDivisor;
}

SolverSettings SettingsOf(const SolveParameters& parameters) {
    SolverSettings settings;
    settings.DetectionThreshold = parameters.DetectionThreshold;
    settings.EdgeExclusion = parameters.EdgeExclusion;
    settings.MinStarSize = parameters.MinStarSize;
    settings.MaxStarSize = parameters.MaxStarSize;
    settings.MaxStars = parameters.MaxStars;
    settings.MaxError = parameters.MaxError;
    settings.MaxGeometricError = parameters.MaxGeometricError;
    settings.MatchTolerance = parameters.MatchTolerance;
    settings.MatchDivisor = parameters.MatchDivisor;
    return settings;
}

KnownOfPicture KnownFrom(const SolverHints& hints, const PlateImage& image) {
    constexpr std::size_t mostPlaces = 8;
    KnownOfPicture known;
    known.PlacesFromPicture = known.SizesFromPicture = hints.FromPicture;
    known.Regions = hints.MostRegions;
    known.Everywhere = hints.WholeSky;
    known.TimeLimit = hints.TimeLimit;
    const auto add = [&image](std::vector<KnownSize>& sizes, double arcsecondsPerPixel) {
        const auto [width, height] = FieldOfScale(image, arcsecondsPerPixel);
        sizes.push_back({width, height, {}});
    };
    for (const double scale : GivenScales(hints, image)) add(known.Sizes, scale);
    if (!hints.WholeSky && (!hints.FromPicture || HintsOf(image).Scales.empty())) {
        // Without any size, some usual ones are tried.
        const double pixels = std::hypot(image.Width, image.Height);
        for (const double diagonal : {1.5, 3.0, 0.75, 6.0}) {
            add(known.LastSizes, diagonal * 3600 / pixels);
        }
    }
    for (const SolverCentre& centre : hints.Centres) {
        if (known.Places.size() == mostPlaces) break;
        known.Places.push_back({{centre.Ra * RadiansPerDegree, centre.Dec * RadiansPerDegree},
                                hints.MostRegions,
                                centre.Radius * RadiansPerDegree,
                                centre.Briefly,
                                {}});
    }
    return known;
}

}  // namespace vestrel
