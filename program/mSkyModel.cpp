#include "program/mSkyModel.h"

#include <algorithm>
#include <cmath>

#include "astro/libMath.h"
#include "catalog/libCatalogRegion.h"
#include "matching/libCameraPlane.h"
#include "matching/libMatchedPlate.h"

namespace vestrel {

namespace {

/// The circle around the image.
struct Surroundings {
    SkyPosition Centre;
    double Radius = 0;  ///< radians
};

/// The catalog stars that the whole image may show, brightest first.
/// @param compared magnitude down to which the solve compares
PlateStarList CatalogOfImage(const ProgramState& state, const Surroundings& image,
                             double compared) {
    // The solve reads only the stars that it needs; the image shows fainter ones.
    constexpr double deeper = 1.5;
    constexpr std::int32_t enough = 2000;
    constexpr int mostReadings = 4;
    const double radius = 1.02 * image.Radius;
    // A cache of its own leaves that of the solve unchanged.
    CatalogCache cache;
    cache.Folder = state.Catalog.Folder;
    PlateStarList stars;
    double limit = compared + deeper;
    for (int reading = 0; reading < mostReadings; ++reading) {
        stars = WholeRegionStars(cache, image.Centre, radius, limit);
        // A list that reached its limit holds stars of some cells only.
        if (stars.Count() <= enough) break;
        limit -= 1;
    }
    return stars;
}

/// The pairs of a match on the camera's plane; none when the stars do not bear it.
StarMatchList PairsOf(const CameraMatch& camera, const PlateStarList& catalog,
                      const ImageStars& image) {
    constexpr double closest = 3;  // pixels
    constexpr double farthest = 2.5;
    MatchedPlate match;
    match.Plate = camera.Plate;
    const double tolerance = std::max(closest, farthest * camera.Rms);
    return RefinePlate(catalog, image, tolerance, match) ? match.Pairs : StarMatchList();
}

std::optional<SkySolution> SolutionOfAllStars(const ProgramState& state,
                                              const PlateStarList& regionStars) {
    const PlateSolution& solution = *state.Solution;
    const PlateImage& image = state.Image;
    std::vector<SkyPosition> catalog;
    std::vector<PixelPoint> stars;
    std::vector<SkyPair> start;
    for (const PlateStar& star : regionStars) catalog.push_back({star.Ra, star.Dec});
    for (const PlateStar& star : solution.PlateStars) stars.push_back({star.X, star.Y});
    // Finds the first match's stars in the list that was read again.
    const auto startFrom = [&](const StarMatchList& pairs, const PlateStarList& matched) {
        for (const StarMatch& pair : pairs) {
            if (!pair.InUse) continue;
            const PlateStar& wanted = matched[pair.Star1];
            const auto found =
                std::find_if(catalog.begin(), catalog.end(), [&](const SkyPosition& position) {
                    return position.Ra == wanted.Ra && position.Dec == wanted.Dec;
                });
            const auto plateStar = static_cast<std::size_t>(pair.Star2) - 1;
            if (found != catalog.end()) {
                start.push_back({static_cast<std::size_t>(found - catalog.begin()), plateStar});
            }
        }
    };
    const bool wide = solution.IsWide();
    if (wide && solution.Camera) {
        constexpr std::int32_t most = 600;  // as many as a match compares
        PlateStarList brightest = OnCameraPlane(regionStars, solution.Camera->Tangent);
        brightest.Resize(std::min(brightest.Count(), most));
        const ImageStars places(solution.PlateStars, image.Width, image.Height);
        startFrom(PairsOf(*solution.Camera, brightest, places), brightest);
    } else {
        startFrom(solution.Pairs, solution.CatalogStars);
    }
    const auto known = static_cast<std::size_t>(std::max(solution.Confidence.Matched, 0));
    auto fit = MatchSky(catalog, stars, image.Width, image.Height, start, known);
    // A few stars of a wide field fit anything.
    if (fit && wide && 2 * fit->Pairs.size() < known) return std::nullopt;
    return fit;
}

}  // namespace

std::optional<ImageSkyModel> SkyModelOfImage(const ProgramState& state) {
    const PlateImage& image = state.Image;
    const ImageHeader& header = image.Header;
    if (state.Sky.Made) return state.Sky.Model;
    if (!state.ImageLoaded || !header.PlateMatched) return std::nullopt;
    const double diagonal = std::hypot(image.Width, image.Height);
    ImageSkyModel result;
    Surroundings around;
    const bool wide = state.Solution && state.Solution->IsWide();
    if (wide) {
        const double perRadian = state.Solution->Scale * SolveArcsecondsPerRadian;
        around = {state.Solution->Centre(), std::atan(diagonal / 2 / perRadian)};
    } else {
        const auto& map = header.PlateTransform;
        const PlateConstants constants{map[0][0], map[0][1], map[0][2],
                                       map[1][0], map[1][1], map[1][2]};
        const auto plate = SkyModelOfPlate(constants, {header.RaRef, header.DecRef},
                                           header.PlateScale, image.Width, image.Height);
        if (!plate) return std::nullopt;
        result.Model = *plate;
        around = {plate->Tangent, std::atan(plate->Scale() * diagonal / 2)};
    }
    if (!state.Solution) return result;
    // A search over the whole sky by quads has no magnitude limit.
    const double compared = state.Report.MagnitudeLimit;
    result.MagnitudeLimit = compared > 0 ? compared : MagnitudeLimitFor(around.Radius);
    result.CatalogStars = CatalogOfImage(state, around, result.MagnitudeLimit);
    result.Solution = SolutionOfAllStars(state, result.CatalogStars);
    if (result.Solution) result.Model = result.Solution->Fit.Model;
    if (wide && !result.Solution) return std::nullopt;
    return result;
}

const std::optional<ImageSkyModel>& KeptSkyModel(ProgramState& state) {
    if (!state.Sky.Made) state.Sky = {true, SkyModelOfImage(state)};
    return state.Sky.Model;
}

bool IsTooWide(const ProgramState& state) {
    return state.Solution && state.Solution->IsWide() && !SkyModelOfImage(state);
}

std::optional<SkyMap> SkyMapOf(ProgramState& state) {
    // A model without a fit of its own is just the plate.
    if (state.Solution) {
        const auto& sky = KeptSkyModel(state);
        if (sky && sky->Solution) return SkyMap::Of(sky->Model);
    }
    return SkyMap::Of(state.Image.Header);
}

}  // namespace vestrel
