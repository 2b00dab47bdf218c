#include "program/mSolveWindow.h"

#include <cmath>

#include "astro/libConversions.h"
#include "astro/libMath.h"
#include "astro/libStrings.h"
#include "program/mImageData.h"
#include "program/mMORA.h"
#include "program/mPictureHints.h"
#include "program/mPlateMatch.h"
#include "program/mRecentImages.h"
#include "program/mSolveReport.h"
#include "program/mSolvedImage.h"
#include "program/mStarExtraction.h"

namespace vestrel {

namespace {

/// A number that can be computed with.
std::optional<double> FiniteNumber(const std::string& text) {
    const auto value = ParseNumber(text);
    return value && std::isfinite(*value) ? value : std::nullopt;
}

/// A side of the image on the sky, radians.
std::optional<double> ReadSize(const SolveInputs& inputs, const std::string& text) {
    const auto value = FiniteNumber(text);
    if (!value) return std::nullopt;
    const double radians = *value / 60 * Pi / 180;
    return inputs.Units == "degrees" ? radians * 60 : radians;
}

std::string DetailsOf(const ProgramState& state, SolveCode code) {
    return code == SolveCode::Solved ? SolutionText(state) : FailureText(state, code, WindowWords);
}

/// What every search from the inputs begins with. Nothing when there is nothing to search with.
std::optional<UnattendedRequest> BeginSearch(ProgramState& state, Port& port) {
    if (!state.ImageLoaded) {
        port.ShowMessage("No Image Loaded", ErrorTitle);
        return std::nullopt;
    }
    const StatusLine statusBefore = state.Display.Status;
    state.Display.BusyIndicator = true;
    ShowStatus(state, port, "Working...");
    port.ImageChanged();
    auto request = ReadSolveInputs(state, port);
    if (!request) {
        state.Display.Status = statusBefore;
        return std::nullopt;
    }
    ShowStartingValues(state, port, *request, " x ");
    state.Display.Details.clear();
    return request;
}

}  // namespace

Operation::Operation(ProgramState& state, Port& port, Activity activity)
    : state_(state), port_(port), started_(state.Running == Activity::None) {
    if (!started_) return;
    state_.Running = activity;
    port_.DisplayChanged();
}

Operation::~Operation() {
    if (!started_) return;
    state_.Running = Activity::None;
    state_.Display.BusyIndicator = false;
    port_.DisplayChanged();
}

AvailableCommands CommandsFor(const ProgramState& state) {
    const bool idle = state.Running == Activity::None;
    const bool image = idle && state.ImageLoaded;
    const bool lasting = state.Running == Activity::Solving || state.Running == Activity::Telescope;
    return {idle, lasting, image, image && state.Image.Header.PlateMatched, idle && state.Solution};
}

std::optional<UnattendedRequest> ReadSolveInputs(const ProgramState& state, Port& port) {
    const auto refuse = [&port](const char* text) {
        port.ShowMessage(text, ErrorTitle);
        return std::nullopt;
    };
    const SolveInputs& inputs = state.Inputs;
    UnattendedRequest request;
    request.Ra = ParseRA(inputs.Ra);
    if (request.Ra < 0) return refuse("Please enter a valid RA value");
    request.Dec = ParseDec(inputs.Dec);
    if (request.Dec < -Pi / 2) return refuse("Please enter a valid Declination value");
    const auto width = ReadSize(inputs, inputs.SizeX);
    if (!width) return refuse("Please enter a valid Image Size");
    const auto height = ReadSize(inputs, inputs.SizeY);
    if (!height) return refuse("Please enter a valid Image Size");
    const auto regions = FiniteNumber(inputs.Regions);
    if (!regions || !RoundToInt32(*regions, request.RegionLimit)) {
        return refuse("Please enter a valid number of Regions to Search");
    }
    request.Width = *width;
    request.Height = *height;
    return request;
}

void PlateMatchCommand(ProgramState& state, Port& port) {
    const Operation operation(state, port, Activity::Solving);
    if (!operation) return;
    const auto request = BeginSearch(state, port);
    if (!request) return;
    const SolveCode code = SolvePlate(state, port, SearchFor(*request, state.Parameters));
    state.Display.Details = DetailsOf(state, code);
    if (code == SolveCode::Solved) port.ImageChanged();
}

void MoraCommand(ProgramState& state, Port& port) {
    const Operation operation(state, port, Activity::Solving);
    if (!operation) return;
    const auto request = BeginSearch(state, port);
    if (!request) return;
    const SolveCode code = WithinMemory(state, port, [&] {
        LoadQuadTables(state, request->Width, request->Height);
        return MatchByQuads(state, port, request->Width, request->Height,
                            state.Parameters.MaxError);
    });
    const bool matched = code == SolveCode::Solved;
    state.Display.Details = matched ? QuadMatchText(state) : FailureText(state, code, WindowWords);
    if (matched && IsSure(state.QuadMatch)) {
        const SkyPosition& centre = state.QuadMatch.Centre;
        state.Inputs.Ra = FormatRA(centre.Ra, false, 2);
        state.Inputs.Dec = FormatDec(centre.Dec, false, 1);
    }
    // What lay over the image was the solution before.
    port.ImageChanged();
}

std::optional<UnattendedOutcome> UnattendedCommand(ProgramState& state, Port& port,
                                                   const std::string& parameters) {
    const Operation operation(state, port, Activity::Solving);
    if (!operation) return std::nullopt;
    UnattendedOutcome outcome = RunUnattended(state, port, parameters);
    if (outcome.End == UnattendedEnd::Finished) {
        state.Display.Details = DetailsOf(state, outcome.Result.Code);
    }
    return outcome;
}

void StopSearch(ProgramState& state) {
    state.StopRequested = true;
}

void SwitchUnits(ProgramState& state) {
    state.Inputs.Units = state.Inputs.Units == "arcminutes" ? "degrees" : "arcminutes";
}

void OpenImageCommand(ProgramState& state, Port& port) {
    const Operation operation(state, port, Activity::Opening);
    if (!operation) return;
    if (!OpenImageDialog(state, port)) return;
    AddRecentImage(state, state.Image.FileName);
    FillInputsFromHints(state, port);
}

void OpenImageCommand(ProgramState& state, Port& port, const std::string& path) {
    const Operation operation(state, port, Activity::Opening);
    if (!operation) return;
    if (!OpenChosenImage(state, port, path)) return;
    AddRecentImage(state, state.Image.FileName);
    FillInputsFromHints(state, port);
}

void SaveImageCommand(ProgramState& state, Port& port) {
    const Operation operation(state, port, Activity::Saving);
    if (operation) SaveImageDialog(state, port);
}

void ExportImageCommand(ProgramState& state, Port& port) {
    const Operation operation(state, port, Activity::Saving);
    if (!operation) return;
    const auto path = port.AskForFile({"Export Image",
                                       "FITS Files (*.fits)|*.fits;*.fit;*.fts|All Files (*.*)|*.*",
                                       1, state.Parameters.LastSaveFolder + "\\*.*", true});
    if (!path) return;
    state.Parameters.LastSaveFolder = FolderOfPath(*path);
    if (ExportImage(state, port, *path))
        ShowStatus(state, port, "Exported " + ShortenedPath(*path));
}

void WorldCoordinatesCommand(ProgramState& state, Port& port) {
    const Operation operation(state, port, Activity::Saving);
    if (!operation || !WriteWorldCoordinates(state, port)) return;
    ShowStatus(state, port, "Wrote " + ShortenedPath(WorldCoordinatePath(state.Image.FileName)));
}

std::string ImageNameText(const ProgramState& state) {
    if (state.ImageLoaded) return ShortenedPath(state.Image.FileName);
    return state.Running == Activity::None ? "Please Load an Image" : state.Display.ImageName;
}

std::string ImageFolderText(const ProgramState& state) {
    return state.ImageLoaded ? FolderOfPath(state.Image.FileName) : std::string();
}

bool RequestClose(ProgramState& state) {
    state.CloseRequested = true;
    if (state.Running == Activity::None) return true;
    state.StopRequested = true;
    return false;
}

bool CountdownTick(ProgramState& state) {
    if (!state.Inputs.KeepOpen && state.Running == Activity::None) --state.SecondsLeft;
    state.Display.Countdown = std::to_string(state.SecondsLeft);
    return state.SecondsLeft < 1;
}

}  // namespace vestrel
