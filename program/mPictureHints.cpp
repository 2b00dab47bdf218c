#include "program/mPictureHints.h"

#include <algorithm>
#include <numbers>

#include "astro/libConversions.h"
#include "astro/libStrings.h"

namespace vestrel {

namespace {

constexpr double arcminutesPerRadian = 60 * 180 / std::numbers::pi;

struct SizeChoice {
    std::pair<double, double> Size;
    std::string Source;
};

std::vector<SizeChoice> SizeChoices(const PlateImage& image, const PictureHints& hints,
                                    const GivenStart& given,
                                    const std::pair<double, double>& remembered) {
    if (given.FieldSize) return {{*given.FieldSize, {}}};
    std::vector<SizeChoice> sizes;
    for (const ScaleHint& hint : hints.Scales) {
        sizes.push_back({FieldOfScale(image, hint.ArcsecondsPerPixel), hint.Source});
    }
    sizes.push_back({remembered, {}});
    return sizes;
}

}  // namespace

std::vector<SearchStart> SearchStarts(const PlateImage& image, const GivenStart& given,
                                      const std::pair<double, double>& remembered) {
    const bool asks = !given.Centre || !given.FieldSize;
    PictureHints hints = asks ? HintsOf(image) : PictureHints();
    if (given.Centre) hints.Centres = {{*given.Centre, {}}};
    const std::vector<SizeChoice> sizes = SizeChoices(image, hints, given, remembered);
    constexpr std::size_t most = 8;
    std::vector<SearchStart> starts;
    // The best of both first, then the pairs in which one of them is the next best.
    for (std::size_t rank = 0; rank < hints.Centres.size() + sizes.size(); ++rank) {
        for (std::size_t i = 0; i <= rank && i < hints.Centres.size(); ++i) {
            const std::size_t k = rank - i;
            if (k >= sizes.size() || starts.size() == most) continue;
            const CentreHint& centre = hints.Centres[i];
            const SizeChoice& size = sizes[k];
            std::string sources = centre.Source;
            if (!size.Source.empty()) {
                sources.append(sources.empty() ? "" : "; ").append(size.Source);
            }
            starts.push_back({centre.Centre, size.Size.first, size.Size.second, sources});
        }
    }
    return starts;
}

std::pair<double, double> LikelyFieldSize(const PlateImage& image, const GivenStart& given,
                                          const std::pair<double, double>& remembered) {
    const PictureHints hints = given.FieldSize ? PictureHints() : HintsOf(image);
    return SizeChoices(image, hints, given, remembered).front().Size;
}

std::vector<std::string> HintLines(const PictureHints& hints) {
    std::vector<std::string> lines;
    for (const CentreHint& hint : hints.Centres) {
        lines.push_back("Centre " + FormatRA(hint.Centre.Ra, true, 1) + " " +
                        FormatDec(hint.Centre.Dec, true, 0) + " from " + hint.Source);
    }
    for (const ScaleHint& hint : hints.Scales) {
        lines.push_back("Scale " + RoundedText(hint.ArcsecondsPerPixel, 4) +
                        " arcseconds per pixel from " + hint.Source);
    }
    return lines;
}

void FillInputsFromHints(ProgramState& state, Port& port) {
    if (!state.ImageLoaded) return;
    const PictureHints hints = HintsOf(state.Image);
    SolveInputs& inputs = state.Inputs;
    SolveInputs& filled = state.FilledInputs;
    const auto untouched = [](const std::string& text, const std::string& before) {
        return Trim(text).empty() || text == before;
    };
    std::string sources;
    if (!hints.Centres.empty() && untouched(inputs.Ra, filled.Ra) &&
        untouched(inputs.Dec, filled.Dec)) {
        const CentreHint& best = hints.Centres.front();
        filled.Ra = inputs.Ra = FormatRA(best.Centre.Ra, false, 2);
        filled.Dec = inputs.Dec = FormatDec(best.Centre.Dec, false, 1);
        sources = "Centre from " + best.Source + "\n";
    }
    // The size of the last session is nothing that was typed for this picture.
    const SolveParameters& kept = state.Parameters;
    const bool sizeUntouched = (untouched(inputs.SizeX, filled.SizeX) ||
                                ParseNumber(inputs.SizeX) == double{kept.FieldWidth}) &&
                               (untouched(inputs.SizeY, filled.SizeY) ||
                                ParseNumber(inputs.SizeY) == double{kept.FieldHeight});
    if (!hints.Scales.empty() && sizeUntouched) {
        const ScaleHint& best = hints.Scales.front();
        const auto [width, height] = FieldOfScale(state.Image, best.ArcsecondsPerPixel);
        const bool degrees = inputs.Units == "degrees";
        const double unit = arcminutesPerRadian / (degrees ? 60 : 1);
        filled.SizeX = inputs.SizeX = RoundedText(width * unit, degrees ? 4 : 2);
        filled.SizeY = inputs.SizeY = RoundedText(height * unit, degrees ? 4 : 2);
        sources += "Image size from " + best.Source + "\n";
    }
    if (!sources.empty()) state.Display.Details = sources;
    port.DisplayChanged();
}

}  // namespace vestrel
