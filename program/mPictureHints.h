// Where a search may start when the user leaves something out: what the picture itself says.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "image/libHints.h"
#include "program/mGeneral.h"

namespace vestrel {

/// A place to start a search from.
struct SearchStart {
    SkyPosition Centre;  ///< J2000, radians
    double Width = 0;    ///< of the field, radians
    double Height = 0;
    std::string Sources;  ///< the cards that it was taken from; empty for what the user gave
};

/// What the user gave, which always wins.
struct GivenStart {
    std::optional<SkyPosition> Centre;
    std::optional<std::pair<double, double>> FieldSize;  ///< radians
};

/// The starts to try, the best first: what was given, filled up from the hints of the loaded image.
/// Each centre goes with each scale, at most eight pairs. A `remembered` size comes last. None when
/// there is no centre.
std::vector<SearchStart> SearchStarts(const PlateImage& image, const GivenStart& given,
                                      const std::pair<double, double>& remembered);

/// The size of the field to search with when only that matters: given, hinted, remembered.
std::pair<double, double> LikelyFieldSize(const PlateImage& image, const GivenStart& given,
                                          const std::pair<double, double>& remembered);

/// The hints in lines for people.
std::vector<std::string> HintLines(const PictureHints& hints);

/// Puts the best hints of the image that was just opened into the inputs of the solve window, and
/// says in `Display.Details` where they are from. What the user has typed stays, and what the
/// picture does not say.
void FillInputsFromHints(ProgramState& state, Port& port);

}  // namespace vestrel
