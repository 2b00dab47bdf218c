#include "program/mSkyModel.h"

#include <algorithm>
#include <cmath>

#include "astro/libMath.h"
#include "catalog/libCatalogRegion.h"

namespace vestrel {

namespace {

/// The catalog stars of the whole image that it may show, brightest first.
PlateStarList CatalogOfImage(const ProgramState& state, const SkyModel& plate) {
    // The solve reads as many stars as it needs; an image shows fainter ones.
    constexpr double deeper = 1.5;
    constexpr std::int32_t enough = 2000;
    constexpr int mostReadings = 4;
    const double radius =
        1.02 * std::atan(plate.Scale() * std::hypot(plate.Width, plate.Height) / 2);
    Projection plane;
    plane.SetProjectionCentre(plate.Tangent.Ra, plate.Tangent.Dec, SolveArcsecondsPerRadian);
    // The solve's own cache stays as it left it.
    CatalogCache cache;
    cache.Folder = state.Catalog.Folder;
    PlateStarList stars;
    std::int32_t count = 0;
    double limit = state.Report.MagnitudeLimit + deeper;
    for (int reading = 0; reading < mostReadings; ++reading) {
        RegionStars(cache, plane, plate.Tangent.Ra, plate.Tangent.Dec, radius, limit, stars, count);
        // A list that is full is full of some cells only.
        if (count <= enough) break;
        limit -= 1;
    }
    return stars;
}

/// Whether the solution of this run is the one that the header holds.
bool IsSolutionOfHeader(const PlateSolution& solution, const ImageHeader& header) {
    const PlateConstants& t = solution.Transform;
    const auto& map = header.PlateTransform;
    return header.PlateMatched && solution.TangentRA == header.RaRef &&
           solution.TangentDec == header.DecRef && t.a == map[0][0] && t.b == map[0][1] &&
           t.c == map[0][2] && t.d == map[1][0] && t.e == map[1][1] && t.f == map[1][2];
}

std::optional<SkySolution> SolutionOfAllStars(const ProgramState& state, const SkyModel& plate) {
    const PlateSolution& solution = state.Solution;
    const PlateStarList regionStars = CatalogOfImage(state, plate);
    std::vector<SkyPosition> catalog;
    std::vector<PixelPoint> stars;
    std::vector<SkyPair> start;
    for (std::size_t i = 1; i < regionStars.size(); ++i) {
        catalog.push_back({regionStars[i].Ra, regionStars[i].Dec});
    }
    const auto imageStars = static_cast<std::size_t>(std::max(state.PlateStarCount, 0));
    for (std::size_t i = 1; i <= imageStars && i < state.PlateStars.size(); ++i) {
        const PlateStar& star = state.PlateStars[i];
        stars.push_back({static_cast<double>(star.X), static_cast<double>(star.Y)});
    }
    // The same stars in the list that was read again.
    for (std::size_t k = 1; k < solution.Pairs.size(); ++k) {
        const StarMatch& pair = solution.Pairs[k];
        if (!pair.InUse) continue;
        const PlateStar& wanted = state.CatalogStars[static_cast<std::size_t>(pair.Star1)];
        const auto found =
            std::find_if(catalog.begin(), catalog.end(), [&](const SkyPosition& position) {
                return position.Ra == wanted.Ra && position.Dec == wanted.Dec;
            });
        const auto plateStar = static_cast<std::size_t>(pair.Star2) - 1;
        if (found != catalog.end() && plateStar < stars.size()) {
            start.push_back({static_cast<std::size_t>(found - catalog.begin()), plateStar});
        }
    }
    return MatchSky(catalog, stars, state.Image.Width, state.Image.Height, start);
}

}  // namespace

std::optional<ImageSkyModel> SkyModelOfImage(const ProgramState& state) {
    const ImageHeader& header = state.Image.Header;
    if (!state.ImageLoaded || !header.PlateMatched) return std::nullopt;
    const auto& map = header.PlateTransform;
    const PlateConstants constants{map[0][0], map[0][1], map[0][2],
                                   map[1][0], map[1][1], map[1][2]};
    auto plate = SkyModelOfPlate(constants, {header.RaRef, header.DecRef}, header.PlateScale,
                                 state.Image.Width, state.Image.Height);
    if (!plate) return std::nullopt;
    ImageSkyModel result{std::move(*plate), std::nullopt};
    if (IsSolutionOfHeader(state.Solution, header)) {
        result.Solution = SolutionOfAllStars(state, result.Model);
        if (result.Solution) result.Model = result.Solution->Fit.Model;
    }
    return result;
}

}  // namespace vestrel
