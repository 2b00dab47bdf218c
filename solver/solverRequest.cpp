#include "solver/solverRequest.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <stdexcept>

#include "astro/libMath.h"
#include "image/libHints.h"

namespace vestrel {

namespace {

constexpr double degree = Pi / 180;
constexpr std::size_t mostPlaces = 4;

void Require(bool good, const char* what) {
    if (!good) throw std::invalid_argument(what);
}

bool IsPositive(double value) {
    return std::isfinite(value) && value > 0;
}

/// The sizes to try for a range of scales, the middle one first. A search finds what is 30 % off.
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

struct Size {
    double ArcsecondsPerPixel = 0;
    std::string Source;
};
struct Place {
    SkyPosition Centre;
    double Radius = 0;  ///< radians
    bool Briefly = false;
    std::string Source;
};

std::vector<Size> GivenSizes(const SolverHints& hints, const PlateImage& image) {
    constexpr double arcseconds = 3600;  // of a degree
    std::vector<Size> sizes;
    double factor = 1;
    std::optional<SolverRange> range = hints.Scale;
    if (!range && hints.FieldWidth) {
        range = hints.FieldWidth;
        factor = arcseconds / image.Width;
    } else if (!range && hints.FieldHeight) {
        range = hints.FieldHeight;
        factor = arcseconds / image.Height;
    }
    if (!range) return sizes;
    for (const double scale : ScalesIn({range->Low * factor, range->High * factor})) {
        sizes.push_back({scale, {}});
    }
    return sizes;
}

/// The regions that reach so far from a centre.
std::int32_t RegionsWithin(double radius, double width, double height, std::int32_t most) {
    const double step = std::min(width, height) / 2.5;
    const double rings = std::ceil(std::min(radius / step, 200.0));
    return std::clamp(static_cast<std::int32_t>((2 * rings + 1) * (2 * rings + 1)), 1, most);
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

HintedRequest RequestFor(const SolverHints& hints, const PlateImage& image) {
    const PictureHints header = hints.FromPicture ? HintsOf(image) : PictureHints();
    std::vector<Size> sizes = GivenSizes(hints, image);
    if (sizes.empty()) {
        for (const ScaleHint& hint : header.Scales) {
            sizes.push_back({hint.ArcsecondsPerPixel, hint.Source});
        }
    }
    HintedRequest request;
    request.Search.Everywhere = hints.WholeSky;
    request.Search.TimeLimit = hints.TimeLimit;
    for (const Size& size : sizes) {
        const auto [width, height] = FieldOfScale(image, size.ArcsecondsPerPixel);
        request.Search.Diagonals.push_back(std::hypot(width, height));
    }
    if (sizes.empty() && !hints.WholeSky) {
        // Something has to be tried.
        const double pixels = std::hypot(image.Width, image.Height);
        for (const double diagonal : {1.5, 3.0, 0.75, 6.0}) {
            sizes.push_back({diagonal * 3600 / pixels, {}});
        }
    }

    std::vector<Place> brief;
    std::vector<Place> places;
    for (const SolverCentre& centre : hints.Centres) {
        constexpr std::size_t most = 8;
        if (brief.size() + places.size() == most) break;
        (centre.Briefly ? brief : places)
            .push_back({{centre.Ra * degree, centre.Dec * degree},
                        centre.Radius * degree,
                        centre.Briefly,
                        {}});
    }
    if (places.empty()) {
        for (const CentreHint& hint : header.Centres) {
            places.push_back({hint.Centre, Pi, false, hint.Source});
        }
    }
    const auto add = [&](const Place& place, const Size& size) {
        const auto [width, height] = FieldOfScale(image, size.ArcsecondsPerPixel);
        request.Search.Around.push_back(
            {place.Centre, width, height,
             RegionsWithin(place.Radius, width, height, hints.MostRegions), place.Briefly});
        request.Sources.push_back(place.Source);
        if (!size.Source.empty()) {
            std::string& text = request.Sources.back();
            text.append(text.empty() ? "" : "; ").append(size.Source);
        }
    };
    if (!sizes.empty()) {
        for (const Place& place : brief) add(place, sizes.front());
    }
    // The best of both first, then the pairs in which one of them is the next best.
    const std::size_t room = request.Search.Around.size() + mostPlaces;
    for (std::size_t rank = 0; rank < places.size() + sizes.size(); ++rank) {
        for (std::size_t i = 0; i <= rank && i < places.size(); ++i) {
            if (rank - i >= sizes.size() || request.Search.Around.size() == room) continue;
            add(places[i], sizes[rank - i]);
        }
    }
    return request;
}

}  // namespace vestrel
