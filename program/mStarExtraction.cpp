#include "program/mStarExtraction.h"

#include "extraction/libBackground.h"
#include "extraction/libFilter.h"

namespace vestrel {

namespace {

/// Sets only the text; colour and visibility stay as the solve has set them.
void ShowCaption(ProgramState& state, Port& port, const char* caption) {
    state.Display.Status.Text = caption;
    port.DisplayChanged();
}

}  // namespace

Progress ShownProgress(Port& port) {
    return [&port](int done, int total) {
        port.ShowProgress(total > 0 ? static_cast<int>(std::int64_t{done} * 100 / total) : 0);
        port.Yield();
    };
}

Progress StoppableProgress(ProgramState& state, Port& port) {
    return [&state, show = ShownProgress(port)](int done, int total) {
        show(done, total);
        if (!state.StopRequested) return;
        const auto now = std::chrono::steady_clock::now();
        if (!state.StopSeen) state.StopSeen = now;
        if (now - *state.StopSeen > state.StopPatience) throw StopOverdue();
    };
}

void ShowStatus(ProgramState& state, Port& port, const std::string& text, StatusColour colour) {
    state.Display.Status.Text = text;
    state.Display.Status.Colour = colour;
    port.DisplayChanged();
}

void SubtractBackground(ProgramState& state, Port& port, std::int16_t halfSize, double percentile) {
    if (state.BackgroundRemoved) return;
    PlateImage& image = state.Image;
    ShowCaption(state, port, "Estimating Background");
    const BackgroundBlocks background =
        EstimateBackgroundBlocks(image.Pixels, image.DataOffset, image.Width, image.Height,
                                 halfSize, percentile, StoppableProgress(state, port));
    port.ShowProgress(0);
    ShowCaption(state, port, "Subtracting Background");
    SubtractBackgroundBlocks(image.Pixels, image.DataOffset, image.Width, image.Height, background,
                             ShownProgress(port));
    port.ShowProgress(0);
    state.BackgroundRemoved = true;
    CountsChanged(state);
}

void GaussianFilter(ProgramState& state, Port& port) {
    ShowCaption(state, port, "Gaussian Filter");
    GaussianFilter(state.Image.Pixels, state.Image.Width, state.Image.Height, ShownProgress(port));
    port.ShowProgress(0);
    port.Yield();
}

DetectionSettings DetectionSettingsOf(const SolveParameters& parameters) {
    return {parameters.DetectionThreshold, parameters.EdgeExclusion, parameters.MinStarSize,
            parameters.MaxStarSize};
}

PlateStarList ExtractStars(ProgramState& state, Port& port) {
    ShowCaption(state, port, "Extracting Stars");
    port.ShowBusyPointer(true);
    PlateStarList stars = ExtractStars(state.Image, DetectionSettingsOf(state.Parameters),
                                       state.Extraction, StoppableProgress(state, port));
    port.ShowProgress(0);
    port.Yield();
    port.ShowBusyPointer(false);
    return stars;
}

}  // namespace vestrel
