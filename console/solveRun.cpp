#include "console/solveRun.h"

#include <algorithm>
#include <stdexcept>

#include "platform/libPlatform.h"
#include "program/mImageData.h"
#include "program/mPictureHints.h"
#include "program/mPlateMatch.h"
#include "program/mSkyModel.h"
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
    if (outcome.Attempted && (options.Json || !options.Quiet)) {
        SearchRequest search;
        search.Around = {
            {run.Request.Start, run.Request.Width, run.Request.Height, run.Request.RegionLimit}};
        // The caller waits: no search of the whole sky.
        search.TimeLimit = 0;
        InputWords words = ConsoleWords;
        words.SearchWholeSky = "name the image alone, which searches the whole sky";
        outcome.Cause = CauseOfFailure(state, port, run.Result.Code, search, words);
    }
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
    // A slower machine makes the same attempts but needs more time. What a bundle says is no reason
    // to be busy for days.
    constexpr double slower = 20;
    constexpr double mostSeconds = 600;
    if (bundle.Outcome().Code == SolveCode::Solved) request.TimeLimit *= slower;
    request.TimeLimit = std::min(request.TimeLimit, mostSeconds);
    if (options.TimeLimitGiven) request.TimeLimit = options.TimeLimit;
    const SolveCode code = SolveByPlan(state, port, request, outcome.Plan);
    outcome.SameOutcome = OutcomeOf(state, code, outcome.Plan) == bundle.Outcome();
    outcome.Result = {code, ResultMessage(code)};
    outcome.Exit = code == SolveCode::NoMatch && outcome.Plan.Candidate ? ExitCode::NotSure
                                                                        : ExitCodeOf(code, state);
    outcome.Attempted = true;
    return outcome;
}

std::string CoincidingFiles(const ConsoleOptions& options) {
    struct RunFile {
        std::string What;
        std::string Path;
        bool Chosen;  ///< by its own name
    };
    std::string image = options.Image;
    std::vector<RunFile> outputs;
    if (options.ParameterString) {
        const auto request = ParseParameterString(*options.ParameterString);
        if (!request) return {};
        image = request->Path;
        const std::string result = TextFromPath(ResultFilePath(image));
        // An image of that name is refused by its name.
        if (result != image) outputs.push_back({"the result file", result, false});
    }
    if (options.WorldCoordinates) {
        outputs.push_back({"the .wcs file", WorldCoordinatePath(image), false});
    }
    for (const std::string& output : {options.ExportFile, options.SaveFile, options.BundleFile}) {
        if (!output.empty()) outputs.push_back({"the exported file", output, true});
    }
    std::vector<RunFile> files = {{"the image itself", image, true}};
    for (RunFile& output : outputs) {
        for (const RunFile& file : files) {
            std::error_code ignored;
            const std::filesystem::path one = AbsolutePath(PathFromText(output.Path));
            const std::filesystem::path other = AbsolutePath(PathFromText(file.Path));
            if (std::filesystem::equivalent(one, other, ignored) ||
                FollowLinks(one, ignored) == FollowLinks(other, ignored)) {
                return output.Path + " is " + file.What +
                       (output.Chosen ? ": name another file."
                                      : " and would become " + output.What + ": rename it.");
            }
        }
        files.push_back(std::move(output));
    }
    return {};
}

bool WriteOutputs(ProgramState& state, Port& port, const ConsoleOptions& options) {
    bool good = true;
    // Made once for all of them.
    if (options.Json || options.WorldCoordinates || !options.ExportFile.empty())
        KeptSkyModel(state);
    if (!options.ExportFile.empty()) good = ExportImage(state, port, options.ExportFile);
    if (options.WorldCoordinates) good = WriteWorldCoordinates(state, port) && good;
    if (!options.SaveFile.empty()) good = SaveImage(state, port, options.SaveFile) && good;
    return good;
}

}  // namespace vestrel
