// Turns what is known about a picture, from the user and from its header, into the request of a
// search.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "image/libHints.h"
#include "program/mGeneral.h"
#include "program/mSearchPlan.h"

namespace vestrel {

/// A place to search around, from the user or the picture.
struct KnownPlace {
    SkyPosition Centre;                   ///< J2000, radians
    std::int32_t Regions = UsualRegions;  ///< largest number of regions
    std::optional<double> Radius = {};    ///< when given, the largest distance from the centre,
                                          ///< radians
    bool Briefly = false;                 ///< only the plain search, with the likeliest size
    std::string Source = {};              ///< the cards it comes from; empty: the user gave it
};

/// A likely size of the field.
struct KnownSize {
    double Width = 0;  ///< radians
    double Height = 0;
    std::string Source = {};
    bool Remembered = false;  ///< from the last session: neither the user nor the picture gave it
};

/// What is known about a picture before it is solved. Values from the user always take precedence.
struct KnownOfPicture {
    std::vector<KnownPlace> Places;  ///< the likeliest first
    std::vector<KnownSize> Sizes;    ///< the likeliest first
    /// Whether the picture's header supplies values that were not given.
    bool PlacesFromPicture = true;
    bool SizesFromPicture = true;
    std::int32_t Regions = UsualRegions;  ///< around the picture's places
    std::vector<KnownSize> LastSizes;     ///< tried after all others, unless sizes were given
    bool Everywhere = false;              ///< search the whole sky too
    double TimeLimit = UsualTimeLimit;    ///< seconds
};

/// The request for a plan, and for each of its places the cards that it comes from.
struct PlannedSearch {
    SearchRequest Search;
    std::vector<std::string> Sources;
};

/// The request with which all programs solve a picture. It combines each place with each size, best
/// first, at most four pairs; places to be searched briefly come before them.
PlannedSearch PlanFor(const KnownOfPicture& known, const PlateImage& image);

/// The size of the field from the last session, stored in the settings.
KnownSize RememberedFieldSize(const SolveParameters& parameters);

/// The hints as lines of text.
std::vector<std::string> HintLines(const PictureHints& hints);

/// Fills the inputs of the solve window with the best hints of the image that was just opened, and
/// names their source in `Display.Details`. Inputs that the user has typed, or for which there is
/// no hint, stay as they are.
void FillInputsFromHints(ProgramState& state, Port& port);

}  // namespace vestrel
