// What the image window shows of the program state: the display levels and the overlays.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "display/libSkyGrid.h"
#include "display/libViewGeometry.h"
#include "program/mGeneral.h"

namespace vestrel {

/// Whether display levels were chosen for the present counts of the image.
bool HasLevels(const PlateImage& image);
/// Chooses levels for an image that has none.
void ChooseFirstLevels(ProgramState& state);
/// The same with the histogram of the image at hand.
void ChooseFirstLevels(ProgramState& state, const ImageHistogram& histogram);
/// Sets the levels, rounded to whole counts; white stays above black.
void SetLevels(ProgramState& state, const CountLevels& levels);
/// The conversion of stored values to grey with the present levels.
GreyLookup LookupOf(const ProgramState& state, bool inverted);

/// A star to be marked.
struct OverlayStar {
    PixelPoint Place;
    std::string Magnitude;  ///< empty when unknown
};
/// A pair of the solution. The distance of its two places is the residual.
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
/// Everything that is drawn over the image. With a sky model these are the catalog stars of the
/// whole frame, down to the magnitude that the solve compared; without one, the catalog stars of
/// the solve at their places by the plate. Only stars of the present solution are included.
Overlays OverlaysOf(ProgramState& state);

/// The grid of right ascension and declination over the visible part of the image.
SkyGrid GridOver(const std::optional<SkyMap>& map, const PixelRectangle& visible);

}  // namespace vestrel
