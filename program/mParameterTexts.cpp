#include "program/mParameterTexts.h"

#include <cmath>
#include <string_view>

#include "astro/libMath.h"
#include "astro/libStrings.h"

namespace vestrel {

namespace {

constexpr const char* introduction =
    "Vestrel has been optimized to solve a large variety of images automatically, and it is "
    "generally not necessary to adjust the extraction and matching parameters.  Nonetheless, this "
    "option is provided for highly unusual images.  If Vestrel is having difficulty, before "
    "modifying these parameters it is wise to check the estimated FOV and starting coordinates of "
    "the search.";

constexpr const char* paragraphs[] = {
    "Max Star Size (standard deviations) -- The star extraction algorithm calculates the mean and "
    "the standard deviation of all star candidates.  It then rejects those candidates that are "
    "larger than the average star size plus 'Max Star Size' standard deviations.",
    "Min Star Size (pixels) -- The star extraction algorithm rejects candidates that have fewer "
    "pixels than this parameter.",
    "Max Stars (number) -- The maximum number of extracted and catalog stars used in the matching "
    "algorithm.",
    "Detection Threshold (standard deviations) -- The star extraction algorithm calculates the "
    "average background and the standard deviation of the background.  Pixels that have values "
    "greater than the average plus 'Detection Threshold' standard deviations are selected as star "
    "candidates.",
    "Maximum Geometric Error (normalized) -- During the plate matching process a geometric "
    "transformation between the image and the actual sky is calculated.  If the normalized stretch "
    "or skew given by this parameter is exceeded, the match is declared invalid.",
    "Edge Exclusion (normalized) -- A region around the entire image is excluded from the plate "
    "matching process.  This parameter defines the size of that region, as a fraction of the image "
    "dimensions.",
    // The text has always said "more that".
    "Maximum Error (pixels) -- The location of each matched star in the image is compared with its "
    "expected catalog position.  If the position difference is more that this parameter then the "
    "star is rejected from the match."};

/// Calls `visit` with each parameter of the dialog, in the order of the boxes, until it is false.
template <typename Parameters, typename Visit>
bool ForEachParameter(Parameters& p, Visit visit) {
    return visit(p.MaxStarSize) && visit(p.MinStarSize) && visit(p.DetectionThreshold) &&
           visit(p.MaxGeometricError) && visit(p.EdgeExclusion) && visit(p.MaxStars) &&
           visit(p.MaxError);
}

bool Store(double value, double& field) {
    field = value;
    return true;
}
bool Store(double value, std::int16_t& field) {
    return RoundToInt16(value, field);
}

std::string CaptionOf(const ParameterBox& box) {
    std::string caption = box.Caption;
    std::erase(caption, '&');
    return caption;
}

}  // namespace

ParameterTexts TextsOfParameters(const SolveParameters& parameters) {
    ParameterTexts texts;
    std::size_t box = 0;
    ForEachParameter(parameters, [&](auto value) {
        texts[box++] = NumberText(value);
        return true;
    });
    return texts;
}

ParameterTexts DefaultParameterTexts() {
    return TextsOfParameters(SolveParameters());
}

std::optional<std::size_t> StoreParameterTexts(ProgramState& state, Port& port,
                                               const ParameterTexts& texts) {
    std::size_t box = 0;
    const char* fault = nullptr;
    const bool all = ForEachParameter(state.Parameters, [&](auto& field) {
        const auto value = ParseNumber(texts[box]);
        if (!value) {
            fault = "is not a number";
        } else if (!std::isfinite(*value) || !Store(*value, field)) {
            fault = "is too large a number";
        }
        if (fault == nullptr) ++box;
        return fault == nullptr;
    });
    if (all) return std::nullopt;
    port.ShowMessage(CaptionOf(ParameterBoxes[box]) + ": \"" + texts[box] + "\" " + fault + ".",
                     ErrorTitle);
    return box;
}

std::string ParameterHelpOn(const std::string& boxName) {
    for (const ParameterBox& box : ParameterBoxes) {
        if (boxName != box.Name) continue;
        for (const std::string_view paragraph : paragraphs) {
            if (paragraph.starts_with(CaptionOf(box) + " (")) return std::string(paragraph);
        }
    }
    return {};
}

std::string ParameterHelpText() {
    std::string text = introduction;
    for (const char* paragraph : paragraphs) text += std::string("\n") + paragraph;
    return text;
}

}  // namespace vestrel
