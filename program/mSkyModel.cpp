#include "program/mSkyModel.h"

#include <algorithm>
#include <cmath>

#include "astro/libMath.h"
#include "catalog/libCatalogRegion.h"

namespace vestrel {

namespace {

/// The radius of the circle around the image, radians.
double RadiusOf(const SkyModel& plate) {
    return std::atan(plate.Scale() * std::hypot(plate.Width, plate.Height) / 2);
}

/// The catalog stars that the whole image may show, brightest first.
/// @param compared magnitude down to which the solve compares
PlateStarList CatalogOfImage(const ProgramState& state, const SkyModel& plate, double compared) {
    // The solve reads only the stars that it needs; the image shows fainter ones.
    constexpr double deeper = 1.5;
    constexpr std::int32_t enough = 2000;
    constexpr int mostReadings = 4;
    const double radius = 1.02 * RadiusOf(plate);
    // A cache of its own leaves that of the solve unchanged.
    CatalogCache cache;
    cache.Folder = state.Catalog.Folder;
    PlateStarList stars;
    double limit = compared + deeper;
    for (int reading = 0; reading < mostReadings; ++reading) {
        stars = WholeRegionStars(cache, plate.Tangent, radius, limit);
        // A list that reached its limit holds stars of some cells only.
        if (stars.Count() <= enough) break;
        limit -= 1;
    }
    return stars;
}

std::optional<SkySolution> SolutionOfAllStars(const ProgramState& state,
                                              const PlateStarList& regionStars) {
    const PlateSolution& solution = *state.Solution;
    std::vector<SkyPosition> catalog;
    std::vector<PixelPoint> stars;
    std::vector<SkyPair> start;
    for (const PlateStar& star : regionStars) catalog.push_back({star.Ra, star.Dec});
    for (const PlateStar& star : solution.PlateStars) stars.push_back({star.X, star.Y});
    // Finds the solution's stars in the list that was read again.
    for (const StarMatch& pair : solution.Pairs) {
        if (!pair.InUse) continue;
        const PlateStar& wanted = solution.CatalogStars[pair.Star1];
        const auto found =
            std::find_if(catalog.begin(), catalog.end(), [&](const SkyPosition& position) {
                return position.Ra == wanted.Ra && position.Dec == wanted.Dec;
            });
        const auto plateStar = static_cast<std::size_t>(pair.Star2) - 1;
        if (found != catalog.end()) {
            start.push_back({static_cast<std::size_t>(found - catalog.begin()), plateStar});
        }
    }
    return MatchSky(catalog, stars, state.Image.Width, state.Image.Height, start);
}

}  // namespace

std::optional<ImageSkyModel> SkyModelOfImage(const ProgramState& state) {
    const ImageHeader& header = state.Image.Header;
    if (state.Sky.Made) return state.Sky.Model;
    if (!state.ImageLoaded || !header.PlateMatched) return std::nullopt;
    const auto& map = header.PlateTransform;
    const PlateConstants constants{map[0][0], map[0][1], map[0][2],
                                   map[1][0], map[1][1], map[1][2]};
    const auto modelWithin = [&](double pixels) {
        return SkyModelOfPlate(constants, {header.RaRef, header.DecRef}, header.PlateScale,
                               state.Image.Width, state.Image.Height, pixels);
    };
    auto plate = modelWithin(UsablePlateModel);
    const bool rough = !plate;
    // The plane of a plate suits the widest images too little to be followed to their corners, but
    // well enough to find the stars there.
    constexpr double roughly = 1e4;
    if (rough && state.Solution) plate = modelWithin(roughly);
    if (!plate) return std::nullopt;
    ImageSkyModel result{*plate, std::nullopt, 0, {}};
    if (state.Solution) {
        // A search over the whole sky by quads has no magnitude limit.
        const double compared = state.Report.MagnitudeLimit;
        result.MagnitudeLimit = compared > 0 ? compared : MagnitudeLimitFor(RadiusOf(result.Model));
        result.CatalogStars = CatalogOfImage(state, result.Model, result.MagnitudeLimit);
        result.Solution = SolutionOfAllStars(state, result.CatalogStars);
        if (result.Solution) result.Model = result.Solution->Fit.Model;
        if (rough && !result.Solution) return std::nullopt;
    }
    return result;
}

const std::optional<ImageSkyModel>& KeptSkyModel(ProgramState& state) {
    if (!state.Sky.Made) state.Sky = {true, SkyModelOfImage(state)};
    return state.Sky.Model;
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
