// The logic of the parameters dialog: converts parameters to texts and back, and has its help text.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>

#include "program/mGeneral.h"

namespace vestrel {

/// One text box of the dialog.
struct ParameterBox {
    const char* Name;     ///< of the control
    const char* Caption;  ///< with a mnemonic
    const char* Unit;
};
inline constexpr std::array<ParameterBox, 7> ParameterBoxes{{
    {"txtMaxStarSize", "Ma&x Star Size", "standard deviations"},
    {"txtMinStarSize", "Mi&n Star Size", "pixels"},
    {"txtThreshold", "Detection &Threshold", "standard deviations"},
    {"txtMaxGeoError", "Maximum &Geometric Error", "normalized"},
    {"txtEdgeExclude", "&Edge Exclusion", "normalized"},
    {"txtMaxStars", "Max &Stars", "number"},
    {"txtMaxError", "Maximum E&rror", "pixels"},
}};

/// The texts of the boxes, in their order.
using ParameterTexts = std::array<std::string, ParameterBoxes.size()>;

ParameterTexts TextsOfParameters(const SolveParameters& parameters);
ParameterTexts DefaultParameterTexts();

/// Converts and stores the texts in their order. The first one that is not a number of its
/// parameter's type ends this with a message; the ones before it stay stored.
/// @return the index of that text; nothing when all are stored
std::optional<std::size_t> StoreParameterTexts(ProgramState& state, Port& port,
                                               const ParameterTexts& texts);

/// The text of the help window: an introduction, then one line a parameter.
std::string ParameterHelpText();

/// The line of the help text on the parameter in a box; empty when no box has this name.
std::string ParameterHelpOn(const std::string& boxName);

}  // namespace vestrel
