#include "program/mSolveWindow.h"

#include <cmath>
#include <cstdio>

#include "astro/libConversions.h"
#include "astro/libMath.h"
#include "astro/libStrings.h"
#include "platform/libFiles.h"
#include "platform/libPlatform.h"
#include "program/mFailureCause.h"
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

/// The finite number in a text; nothing when there is none.
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

/// Reads the inputs in their order, up to the first invalid one.
std::optional<InputFault> ReadInputs(const SolveInputs& inputs, UnattendedRequest& request) {
    request.Start.Ra = ParseRA(inputs.Ra);
    if (request.Start.Ra < 0) return InputFault{&SolveInputs::Ra, "Please enter a valid RA value"};
    request.Start.Dec = ParseDec(inputs.Dec);
    if (request.Start.Dec < -Pi / 2) {
        return InputFault{&SolveInputs::Dec, "Please enter a valid Declination value"};
    }
    constexpr const char* badSize = "Please enter a valid Image Size";
    const auto width = ReadSize(inputs, inputs.SizeX);
    if (!width) return InputFault{&SolveInputs::SizeX, badSize};
    const auto height = ReadSize(inputs, inputs.SizeY);
    if (!height) return InputFault{&SolveInputs::SizeY, badSize};
    const auto regions = FiniteNumber(inputs.Regions);
    if (!regions || !RoundToInt32(*regions, request.RegionLimit)) {
        return InputFault{&SolveInputs::Regions,
                          "Please enter a valid number of Regions to Search"};
    }
    request.Width = *width;
    request.Height = *height;
    return std::nullopt;
}

std::string AsSentence(std::string text) {
    if (!text.empty() && text[0] >= 'a' && text[0] <= 'z') text[0] += 'A' - 'a';
    return text + ".";
}

/// Whether another program wrote the file of this name.
bool IsForeignFile(const std::string& path) {
    constexpr std::size_t head = 1 << 16;
    const FileHandle file = OpenFile(PathFromText(path), "rb");
    if (!file) return false;
    std::string bytes(head, ' ');
    bytes.resize(std::fread(bytes.data(), 1, bytes.size(), file.get()));
    return bytes.find("NH_SCALE") == std::string::npos;
}

/// Begins every search from the inputs. Nothing when they are not valid or there is no image.
std::optional<UnattendedRequest> BeginSearch(ProgramState& state, Port& port) {
    const StatusLine statusBefore = state.Display.Status;
    if (!BeginAnySearch(state, port)) return std::nullopt;
    auto request = ReadSolveInputs(state, port);
    if (!request) {
        state.Display.Status = statusBefore;
        return std::nullopt;
    }
    ShowStartingValues(state, port, *request, " x ");
    state.Display.Details.clear();
    state.QuadMatch.Code = SolveCode::NoMatch;
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

bool BeginAnySearch(ProgramState& state, Port& port) {
    if (!state.ImageLoaded) {
        port.ShowMessage("No Image Loaded", ErrorTitle);
        return false;
    }
    state.Display.OffersJustSolve = false;
    state.Display.Cause.clear();
    state.Display.BusyIndicator = true;
    ShowStatus(state, port, "Working...");
    port.ImageChanged();
    return true;
}

void ExplainFailure(ProgramState& state, Port& port, SolveCode code, const SearchRequest& request) {
    SolveDisplay& display = state.Display;
    display.BusyIndicator = true;
    port.DisplayChanged();
    const auto cause = CauseOfFailure(state, port, code, request, WindowWords);
    CauseAndCure likeliest;
    if (cause) likeliest = {cause->Text, cause->Try};
    display.Details = FailureText(state, code, WindowWords, likeliest);
    if (!likeliest.Cause.empty()) {
        display.Cause = AsSentence(likeliest.Cause);
        if (!likeliest.Cure.empty()) display.Cause += "\nTry: " + AsSentence(likeliest.Cure);
    }
}

std::optional<std::pair<double, double>> FieldSizeOf(const SolveInputs& inputs) {
    const auto width = ReadSize(inputs, inputs.SizeX);
    const auto height = ReadSize(inputs, inputs.SizeY);
    if (!width || !height || !(*width > 0) || !(*height > 0)) return std::nullopt;
    return std::pair(*width, *height);
}

AvailableCommands CommandsFor(const ProgramState& state) {
    const bool idle = state.Running == Activity::None;
    const bool image = idle && state.ImageLoaded;
    const bool lasting = state.Running == Activity::Solving || state.Running == Activity::Telescope;
    return {idle, lasting, image, image && state.Image.Header.PlateMatched, idle && state.Solution};
}

std::optional<UnattendedRequest> ReadSolveInputs(const ProgramState& state, Port& port) {
    UnattendedRequest request;
    if (const auto fault = ReadInputs(state.Inputs, request)) {
        port.ShowMessage(fault->Text, ErrorTitle);
        return std::nullopt;
    }
    return request;
}

std::optional<InputFault> FaultOfInputs(const SolveInputs& inputs) {
    UnattendedRequest request;
    return ReadInputs(inputs, request);
}

void PlateMatchCommand(ProgramState& state, Port& port) {
    const Operation operation(state, port, Activity::Solving);
    if (!operation) return;
    const auto request = BeginSearch(state, port);
    if (!request) return;
    const PlateSearch search = SearchFor(*request, state.Parameters);
    const SolveCode code = SolvePlate(state, port, search);
    if (code == SolveCode::Solved) {
        state.Display.Details = SolutionText(state);
        port.ImageChanged();
        return;
    }
    state.Display.OffersJustSolve = code == SolveCode::NoMatch;
    SearchRequest around;
    around.Around = {{search.Start, search.Width, search.Height, search.RegionLimit}};
    // The whole sky is left to Just Solve, which the user is offered.
    around.TimeLimit = 0;
    ExplainFailure(state, port, code, around);
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
    CloseQuadTables(state);
    const bool matched = code == SolveCode::Solved;
    state.Display.OffersJustSolve = code == SolveCode::NoMatch;
    // A match that may be chance must not look like a success.
    if (matched && !IsSure(state.QuadMatch)) {
        state.Display.Status.Colour = state.Display.Status1.Colour = StatusColour::Black;
    }
    if (matched) {
        state.Display.Details = QuadMatchText(state);
    } else {
        SearchRequest everywhere;
        everywhere.Everywhere = true;
        ExplainFailure(state, port, code, everywhere);
    }
    if (matched && IsSure(state.QuadMatch)) {
        const SkyPosition& centre = state.QuadMatch.Centre;
        state.Inputs.Ra = FormatRA(centre.Ra, false, 2);
        state.Inputs.Dec = FormatDec(centre.Dec, false, 1);
    }
    // The overlays showed the previous solution.
    port.ImageChanged();
}

std::optional<UnattendedOutcome> UnattendedCommand(ProgramState& state, Port& port,
                                                   const std::string& parameters) {
    const Operation operation(state, port, Activity::Solving);
    if (!operation) return std::nullopt;
    UnattendedOutcome outcome = RunUnattended(state, port, parameters);
    if (outcome.End == UnattendedEnd::Finished) {
        const SolveCode code = outcome.Result.Code;
        state.Display.Details =
            code == SolveCode::Solved ? SolutionText(state) : FailureText(state, code, WindowWords);
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
                                       1, state.Parameters.LastSaveFolder + "\\*.*", true, ".fits",
                                       SuggestedName(state, SolvedEnding)});
    if (!path) return;
    state.Parameters.LastSaveFolder = FolderOfPath(*path);
    if (ExportImage(state, port, *path))
        ShowStatus(state, port, "Exported " + FileNameOfPath(*path));
}

void WorldCoordinatesCommand(ProgramState& state, Port& port) {
    const Operation operation(state, port, Activity::Saving);
    if (!operation) return;
    const std::string path = WorldCoordinatePath(state.Image.FileName);
    if (IsForeignFile(path) &&
        !port.Confirm(FileNameOfPath(path) + " is there and is not Vestrel's. Replace it?",
                      ProgramTitle)) {
        return;
    }
    if (!WriteWorldCoordinates(state, port)) return;
    ShowStatus(state, port, "Wrote " + FileNameOfPath(path));
}

std::string ImageNameText(const ProgramState& state) {
    if (state.ImageLoaded) {
        const std::string shortened = ShortenedPath(state.Image.FileName);
        return shortened.empty() ? ImageBaseName(state) : shortened;
    }
    // While an image is being read, its name is shown.
    const bool reads = state.Running == Activity::Opening || state.Running == Activity::Solving;
    return reads && !state.Display.ImageName.empty() ? state.Display.ImageName
                                                     : "Please Load an Image";
}

std::string ImageBaseName(const ProgramState& state) {
    return state.ImageLoaded ? FileNameOfPath(state.Image.FileName) : std::string();
}

std::string ImageFolderText(const ProgramState& state) {
    return state.ImageLoaded ? FolderOfPath(state.Image.FileName) : std::string();
}

std::string SuggestedName(const ProgramState& state, const std::string& ending) {
    const std::string name = ImageBaseName(state);
    return name.substr(0, name.rfind('.')) + ending;
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
