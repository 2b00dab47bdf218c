// From what is known of a picture, by the user and by its own header, to what is searched for.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "image/libHints.h"
#include "program/mGeneral.h"
#include "program/mSearchPlan.h"

namespace vestrel {

/// A place to search around, of the user's or the picture's.
struct KnownPlace {
    SkyPosition Centre;                 ///< J2000, radians
    std::int32_t Regions = 25;          ///< at most so many
    std::optional<double> Radius = {};  ///< and, when given, no farther than this, radians
    bool Briefly = false;               ///< only the plain search, with the likeliest size
    std::string Source = {};  ///< the cards that it was taken from; empty: the user gave it
};

/// A likely size of the field.
struct KnownSize {
    double Width = 0;  ///< radians
    double Height = 0;
    std::string Source = {};
};

/// What is known of a picture before it is solved. What the user gives always wins.
struct KnownOfPicture {
    std::vector<KnownPlace> Places;  ///< the likeliest first
    std::vector<KnownSize> Sizes;    ///< the likeliest first
    /// What the picture's header says takes the place of what was not given.
    bool PlacesFromPicture = true;
    bool SizesFromPicture = true;
    std::int32_t Regions = 25;         ///< around the picture's places
    std::vector<KnownSize> LastSizes;  ///< tried after all others, unless sizes were given
    bool Everywhere = false;           ///< the whole sky too
    double TimeLimit = 20;             ///< seconds
};

/// What a plan is asked for, and for each of its places the cards that gave it.
struct PlannedSearch {
    SearchRequest Search;
    std::vector<std::string> Sources;
};

/// The request that all programs solve a picture by: each place goes with each size, at most four
/// pairs, the best first; those to be searched briefly come before them.
PlannedSearch PlanFor(const KnownOfPicture& known, const PlateImage& image);

/// The size of the field that the settings remember.
KnownSize RememberedFieldSize(const SolveParameters& parameters);

/// The hints in lines for people.
std::vector<std::string> HintLines(const PictureHints& hints);

/// Puts the best hints of the image that was just opened into the inputs of the solve window, and
/// says in `Display.Details` where they are from. What the user has typed stays, and what the
/// picture does not say.
void FillInputsFromHints(ProgramState& state, Port& port);

}  // namespace vestrel
