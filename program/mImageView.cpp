#include "program/mImageView.h"

#include <algorithm>
#include <cmath>

#include "astro/libMath.h"
#include "display/libReadout.h"
#include "program/mSkyModel.h"

namespace vestrel {

namespace {

std::string MagnitudeText(double magnitude) {
    return std::isfinite(magnitude) ? FixedText(magnitude, 2) : std::string();
}

OverlayStar Extracted(const ProgramState& state, const PlateStar& star) {
    OverlayStar shown{{star.X, star.Y}, {}};
    if (state.Solution && star.Flux > 0) {
        shown.Magnitude = MagnitudeText(-2.5 * std::log10(double{star.Flux}) -
                                        state.Solution->MagnitudeZeroPoint);
    }
    return shown;
}

bool OnImage(const PlateImage& image, const PixelPoint& place) {
    return place.X >= -0.5 && place.Y >= -0.5 && place.X < image.Width - 0.5 &&
           place.Y < image.Height - 0.5;
}

}  // namespace

bool HasLevels(const PlateImage& image) {
    return image.DisplayWhite > image.DisplayBlack;
}

void ChooseFirstLevels(ProgramState& state) {
    if (!state.ImageLoaded || HasLevels(state.Image)) return;
    ChooseFirstLevels(state, MakeImageHistogram(state.Image));
}

void ChooseFirstLevels(ProgramState& state, const ImageHistogram& histogram) {
    if (!state.ImageLoaded || HasLevels(state.Image)) return;
    SetLevels(state, FirstLevels(state.Image.Header, histogram));
}

void SetLevels(ProgramState& state, const CountLevels& levels) {
    // Leaves room for white, which is at least one more.
    constexpr std::int32_t farthest = 2000000000;
    PlateImage& image = state.Image;
    image.DisplayBlack = std::clamp(RoundToNearestInt32(levels.Black), -farthest, farthest);
    image.DisplayWhite = std::max(
        std::clamp(RoundToNearestInt32(levels.White), -farthest, farthest), image.DisplayBlack + 1);
}

GreyLookup LookupOf(const ProgramState& state, bool inverted) {
    const PlateImage& image = state.Image;
    return {{double(image.DisplayBlack), double(image.DisplayWhite)},
            image.DataOffset,
            state.DisplayTransfer,
            inverted};
}

Overlays OverlaysOf(ProgramState& state) {
    Overlays overlays;
    if (!state.ImageLoaded) return overlays;
    for (const PlateStar& star : state.PlateStars) {
        overlays.Extracted.push_back(Extracted(state, star));
    }
    overlays.Map = SkyMapOf(state);
    if (!overlays.Map || !state.Solution) return overlays;
    const PlateSolution& solution = *state.Solution;
    const auto& sky = KeptSkyModel(state);
    const bool whole = sky && sky->Solution;
    for (const PlateStar& star : whole ? sky->CatalogStars : solution.CatalogStars) {
        if (whole && double{star.Flux} > sky->MagnitudeLimit) continue;
        const auto place = overlays.Map->PixelOf({star.Ra, star.Dec});
        if (place && OnImage(state.Image, *place)) {
            overlays.Catalog.push_back({*place, MagnitudeText(star.Flux)});
        }
    }
    const auto addPair = [&](const PlateStar& catalog, const PlateStar& plate) {
        if (const auto place = overlays.Map->PixelOf({catalog.Ra, catalog.Dec})) {
            overlays.Matched.push_back({{{plate.X, plate.Y}, MagnitudeText(catalog.Flux)}, *place});
        }
    };
    if (whole) {
        for (const SkyPair& pair : sky->Solution->Pairs) {
            addPair(sky->CatalogStars[static_cast<std::int32_t>(pair.CatalogStar) + 1],
                    solution.PlateStars[static_cast<std::int32_t>(pair.PlateStar) + 1]);
        }
    } else {
        for (const auto& [catalog, plate] : MatchedStars(solution)) addPair(*catalog, *plate);
    }
    return overlays;
}

SkyGrid GridOver(const std::optional<SkyMap>& map, const PixelRectangle& visible) {
    if (!map || visible.Width <= 0 || visible.Height <= 0) return {};
    // Makes the grid as if the visible part were the whole image.
    const double left = std::floor(visible.Left);
    const double first = std::floor(visible.First);
    SkyGrid grid = MakeSkyGrid(map->PartFrom({left, first}),
                               static_cast<std::int32_t>(std::ceil(visible.Width)) + 1,
                               static_cast<std::int32_t>(std::ceil(visible.Height)) + 1);
    const auto moveBack = [&](PixelPoint& point) {
        point.X += left;
        point.Y += first;
    };
    for (GridLine& line : grid.Lines) {
        moveBack(line.LabelPlace);
        for (auto& piece : line.Pieces) std::for_each(piece.begin(), piece.end(), moveBack);
    }
    return grid;
}

}  // namespace vestrel
