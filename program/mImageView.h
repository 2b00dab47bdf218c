// What the image window shows of the program state: the levels of the image and what lies over it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "display/libSkyGrid.h"
#include "display/libViewGeometry.h"
#include "program/mGeneral.h"

namespace vestrel {

/// Whether levels were chosen for the image as it is now.
bool HasLevels(const PlateImage& image);
/// Gives an image that has no levels its first ones.
void ChooseFirstLevels(ProgramState& state);
/// Takes levels as whole counts; white is kept above black.
void SetLevels(ProgramState& state, const CountLevels& levels);
/// From stored values to grey by the present levels.
GreyLookup LookupOf(const ProgramState& state, bool inverted);

/// A star to be marked.
struct OverlayStar {
    PixelPoint Place;
    std::string Magnitude;  ///< empty when it is not known
};
/// A pair of the solution: a mismatch shows as a distance.
struct OverlayPair {
    OverlayStar OnImage;
    PixelPoint InCatalog;
};
struct Overlays {
    std::vector<OverlayStar> Extracted;
    std::vector<OverlayStar> Catalog;
    std::vector<OverlayPair> Matched;
    std::optional<SkyMap> Map;
};
/// Everything that lies over the image. Catalog stars lie where the sky model puts them, over the
/// whole frame, down to the magnitude that the solve compared; without a model, those of the solve
/// where the plate puts them. Stars without a solution of this image, or pairs of a search that
/// failed since, are left out.
Overlays OverlaysOf(ProgramState& state);

/// The grid of right ascension and declination over the visible part of the image.
SkyGrid GridOver(const std::optional<SkyMap>& map, const PixelRectangle& visible);

}  // namespace vestrel
