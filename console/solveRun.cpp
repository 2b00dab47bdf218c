#include "console/solveRun.h"

#include <stdexcept>

#include "platform/libPlatform.h"
#include "program/mImageData.h"
#include "program/mPictureHints.h"
#include "program/mPlateMatch.h"
#include "program/mSolvedImage.h"

namespace vestrel {

namespace {

/// What the options say about the picture. Its header supplies what they leave out.
KnownOfPicture KnownFrom(const ConsoleOptions& options, const SolveParameters& parameters) {
    KnownOfPicture known;
    known.Regions = options.Regions;
    known.Everywhere = options.Blind || !options.Centre;
    known.TimeLimit = options.TimeLimit;
    if (options.Centre) known.Places = {{*options.Centre, options.Regions}};
    if (options.FieldSize) {
        known.Sizes = {{options.FieldSize->first, options.FieldSize->second, {}}};
    }
    known.LastSizes = {RememberedFieldSize(parameters)};
    // A blind search that the user asked for ignores where the header says that the picture points.
    known.PlacesFromPicture = !options.Blind;
    return known;
}

}  // namespace

RunOutcome SolveParameterString(ProgramState& state, Port& port, const ConsoleOptions& options) {
    const UnattendedOutcome run = RunUnattended(state, port, *options.ParameterString,
                                                options.TryHarder ? options.TimeLimit : 0);
    RunOutcome outcome;
    outcome.Result = run.Result;
    outcome.Image = run.Request.Path;
    outcome.Attempted = run.End == UnattendedEnd::Finished;
    outcome.Exit = ExitCodeOf(run, state, port);
    return outcome;
}

RunOutcome SolveImage(ProgramState& state, Port& port, const ConsoleOptions& options) {
    RunOutcome outcome;
    outcome.Image = options.Image;
    if (!OpenImage(state, port, options.Image)) {
        outcome.Exit = ExitCode::NoImage;
        outcome.Result = {SolveCode::NoImage, ResultMessage(SolveCode::NoImage)};
        return outcome;
    }
    const PlannedSearch plan = PlanFor(KnownFrom(options, state.Parameters), state.Image);
    const SearchRequest& request = plan.Search;
    SearchRequest search = request;
    search.TimeLimit -= InquirySeconds(request);
    const SolveCode code = SolveByPlan(state, port, search, outcome.Plan);
    if (!options.BundleFile.empty()) {
        try {
            WriteBundle(PathFromText(options.BundleFile), state, search, outcome.Plan, code,
                        options.BundlePixels);
        } catch (const std::runtime_error& fault) {
            port.ShowMessage(fault.what(), DefaultTitle);
            outcome.BundleWritten = false;
        }
    }
    outcome.Cause = CauseOfFailure(state, port, code, request, ConsoleWords, outcome.Plan.Lists);
    if (code == SolveCode::Solved && outcome.Plan.Start) {
        outcome.StartedFrom = plan.Sources[*outcome.Plan.Start];
    }
    outcome.Result = {code, ResultMessage(code)};
    outcome.Exit = code == SolveCode::NoMatch && outcome.Plan.Candidate ? ExitCode::NotSure
                                                                        : ExitCodeOf(code, state);
    outcome.Attempted = true;
    return outcome;
}

RunOutcome SolveBundle(ProgramState& state, Port& port, const ConsoleOptions& options) {
    RunOutcome outcome;
    outcome.Image = options.ReplayFile;
    try {
        outcome.Replayed = std::make_shared<Bundle>(PathFromText(options.ReplayFile));
    } catch (const std::runtime_error& fault) {
        port.ShowMessage(fault.what(), DefaultTitle);
        outcome.Exit = ExitCode::NoImage;
        outcome.Result = {SolveCode::NoImage, ResultMessage(SolveCode::NoImage)};
        return outcome;
    }
    const Bundle& bundle = *outcome.Replayed;
    outcome.Image = bundle.Picture();
    SearchRequest request = bundle.Prepare(state);
    // A slower machine makes the same attempts but needs more time.
    constexpr double slower = 20;
    if (bundle.Outcome().Code == SolveCode::Solved) request.TimeLimit *= slower;
    const SolveCode code = SolveByPlan(state, port, request, outcome.Plan);
    outcome.SameOutcome = OutcomeOf(state, code, outcome.Plan) == bundle.Outcome();
    outcome.Result = {code, ResultMessage(code)};
    outcome.Exit = code == SolveCode::NoMatch && outcome.Plan.Candidate ? ExitCode::NotSure
                                                                        : ExitCodeOf(code, state);
    outcome.Attempted = true;
    return outcome;
}

std::string CoincidingFiles(const ConsoleOptions& options) {
    std::vector<std::pair<std::string, std::string>> files;
    std::string image = options.Image;
    if (options.ParameterString) {
        const auto request = ParseParameterString(*options.ParameterString);
        if (!request) return {};
        image = request->Path;
        files.emplace_back("the result file", TextFromPath(ResultFilePath(image)));
    }
    files.emplace_back("the image itself", image);
    if (options.WorldCoordinates) files.emplace_back("the .wcs file", WorldCoordinatePath(image));
    for (const std::string& output : {options.ExportFile, options.SaveFile, options.BundleFile}) {
        if (output.empty()) continue;
        for (const auto& [what, path] : files) {
            std::error_code ignored;
            const std::filesystem::path one = AbsolutePath(PathFromText(output));
            const std::filesystem::path other = AbsolutePath(PathFromText(path));
            if (std::filesystem::equivalent(one, other, ignored) ||
                FollowLinks(one, ignored) == FollowLinks(other, ignored)) {
                return std::string(output).append(" is ").append(what).append(
                    ": name another file.");
            }
        }
        files.emplace_back("the exported file", output);
    }
    return {};
}

bool WriteOutputs(const ProgramState& state, Port& port, const ConsoleOptions& options) {
    bool good = true;
    if (!options.ExportFile.empty()) good = ExportImage(state, port, options.ExportFile);
    if (options.WorldCoordinates) good = WriteWorldCoordinates(state, port) && good;
    if (!options.SaveFile.empty()) good = SaveImage(state, port, options.SaveFile) && good;
    return good;
}

}  // namespace vestrel
