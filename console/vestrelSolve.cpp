// The console program: solves one image and reports the outcome.

#include <cmath>
#include <cstdio>
#include <exception>
#include <memory>
#include <nlohmann/json.hpp>

#include "astro/libConversions.h"
#include "astro/libMath.h"
#include "astro/libStrings.h"
#include "console/consoleOptions.h"
#include "console/consolePort.h"
#include "console/exitCodes.h"
#include "image/libHeaderText.h"
#include "platform/libConsole.h"
#include "platform/libPlatform.h"
#include "program/mBundle.h"
#include "program/mCommandLine.h"
#include "program/mFailureCause.h"
#include "program/mImageData.h"
#include "program/mPictureHints.h"
#include "program/mPlateMatch.h"
#include "program/mSearchPlan.h"
#include "program/mSettings.h"
#include "program/mSkyModel.h"
#include "program/mSolveReport.h"
#include "program/mSolvedImage.h"
#include "program/mStopwatch.h"

namespace vestrel {
namespace {

/// How a run ended.
struct Outcome {
    PlanReport Plan;
    ExitCode Exit = ExitCode::Usage;
    SolveResult Result;
    bool Attempted = false;  ///< an image was read and a solve ran
    std::string Image;
    std::optional<FailureCause> Cause;  ///< of a failure
    std::shared_ptr<Bundle> Replayed;   ///< keeps the catalog cells that the state points to
    bool SameOutcome = false;           ///< whether the outcome equals that of the bundle
    bool BundleWritten = true;
    std::string StartedFrom;  ///< the cards that gave the start; empty when the user gave it
    double Seconds = 0;
};

Outcome SolveParameterString(ProgramState& state, Port& port, const ConsoleOptions& options) {
    const UnattendedOutcome run = RunUnattended(state, port, *options.ParameterString,
                                                options.TryHarder ? options.TimeLimit : 0);
    Outcome outcome;
    outcome.Result = run.Result;
    outcome.Image = run.Request.Path;
    outcome.Attempted = run.End == UnattendedEnd::Finished;
    outcome.Exit = ExitCodeOf(run, state, port);
    return outcome;
}

/// What is known of the picture: what was given; what it says itself fills that up.
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

Outcome SolveImage(ProgramState& state, Port& port, const ConsoleOptions& options) {
    Outcome outcome;
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
    outcome.Cause = CauseOfFailure(state, port, code, request);
    if (code == SolveCode::Solved && outcome.Plan.Start) {
        outcome.StartedFrom = plan.Sources[*outcome.Plan.Start];
    }
    outcome.Result = {code, ResultMessage(code)};
    outcome.Exit = code == SolveCode::NoMatch && outcome.Plan.Candidate ? ExitCode::NotSure
                                                                        : ExitCodeOf(code, state);
    outcome.Attempted = true;
    return outcome;
}

/// Repeats the solve in a bundle.
Outcome SolveBundle(ProgramState& state, Port& port, const ConsoleOptions& options) {
    Outcome outcome;
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

/// Describes two files of a run that are the same file; empty when there are none.
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

/// Writes the requested files. The export reads the image's file again.
bool WriteOutputs(const ProgramState& state, Port& port, const ConsoleOptions& options) {
    bool good = true;
    if (!options.ExportFile.empty()) good = ExportImage(state, port, options.ExportFile);
    if (options.WorldCoordinates) good = WriteWorldCoordinates(state, port) && good;
    if (!options.SaveFile.empty()) good = SaveImage(state, port, options.SaveFile) && good;
    return good;
}

ExitCode PrintHeader(ProgramState& state, Port& port, const std::string& path) {
    if (!OpenImage(state, port, path)) {
        std::fputs(state.Display.Details.c_str(), stderr);
        return ExitCode::NoImage;
    }
    for (const std::string& line : HeaderLines(state.Image)) {
        std::printf("%s\n", WithoutControls(line).c_str());
    }
    for (const std::string& line : HintLines(HintsOf(state.Image))) {
        std::printf("Hint: %s\n", WithoutControls(line).c_str());
    }
    if (HeaderLines(state.Image).empty()) std::fputs("A picture has no header.\n", stderr);
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return ExitCode::Solved;
    return ExitCode::NotWritten;
}

/// The matched pairs: the place of each star in the image and in the catalog.
nlohmann::ordered_json JsonMatches(const PlateSolution& solution) {
    nlohmann::ordered_json matches = nlohmann::ordered_json::array();
    for (const auto& [catalog, plate] : MatchedStars(solution)) {
        double x = 0;
        double y = 0;
        ApplyPlateFit(solution.Transform, double{catalog->X}, double{catalog->Y}, x, y);
        matches.push_back({{"x", plate->X},
                           {"y", plate->Y},
                           {"catalog_x", x},
                           {"catalog_y", y},
                           {"ra_deg", catalog->Ra * ExactDegreesPerRadian},
                           {"dec_deg", catalog->Dec * ExactDegreesPerRadian},
                           {"magnitude", RoundToDecimals(double{catalog->Flux}, 2)}});
    }
    return matches;
}

nlohmann::ordered_json JsonConfidence(const MatchConfidence& confidence) {
    return {{"stars_matched", confidence.Matched},
            {"stars_in_frame", confidence.Candidates},
            {"expected_by_chance", confidence.ExpectedByChance},
            {"log10_false_alarm", confidence.Log10FalseAlarm},
            {"log10_likelihood_ratio", confidence.Log10LikelihoodRatio},
            {"log10_trials", confidence.Log10Trials}};
}

/// Coefficients by their powers of X and Y, "2_0" and so on.
nlohmann::ordered_json JsonPolynomial(const Polynomial& polynomial, int least) {
    nlohmann::ordered_json json = nlohmann::ordered_json::object();
    for (int degree = least; degree <= polynomial.Order; ++degree) {
        for (int q = 0; q <= degree; ++q) {
            json[std::to_string(degree - q) + "_" + std::to_string(q)] =
                polynomial.At(degree - q, q);
        }
    }
    return json;
}

/// The gnomonic model of the whole image, in grid pixels: x and y count from 0.
nlohmann::ordered_json JsonSkyModel(const ImageSkyModel& image) {
    const SkyModel& model = image.Model;
    const auto degrees = [&](int row, int column) {
        return model.Cd[row][column] * ExactDegreesPerRadian;
    };
    nlohmann::ordered_json json = {
        {"ra_deg", model.Tangent.Ra * ExactDegreesPerRadian},
        {"dec_deg", model.Tangent.Dec * ExactDegreesPerRadian},
        {"x", model.Centre().X},
        {"y", model.Centre().Y},
        {"cd_deg", {{degrees(0, 0), degrees(0, 1)}, {degrees(1, 0), degrees(1, 1)}}},
        {"scale_arcsec_px", model.Scale() * ExactDegreesPerRadian * 3600},
        {"sip_order", model.Distortion[0].Order},
        {"fitted_to_all_stars", image.Solution.has_value()}};
    if (model.Distorted()) {
        json["sip_a"] = JsonPolynomial(model.Distortion[0], 2);
        json["sip_b"] = JsonPolynomial(model.Distortion[1], 2);
        json["sip_ap"] = JsonPolynomial(model.InverseDistortion[0], 0);
        json["sip_bp"] = JsonPolynomial(model.InverseDistortion[1], 0);
    }
    nlohmann::ordered_json corners = nlohmann::ordered_json::array();
    for (const double y : {0.0, model.Height - 1.0}) {
        for (const double x : {0.0, model.Width - 1.0}) {
            const SkyPosition sky = model.SkyOf({x, y});
            corners.push_back({{"x", x},
                               {"y", y},
                               {"ra_deg", sky.Ra * ExactDegreesPerRadian},
                               {"dec_deg", sky.Dec * ExactDegreesPerRadian}});
        }
    }
    json["corners"] = corners;
    if (!image.Solution) return json;
    const SkySolution& solution = *image.Solution;
    const SkyModelFit& fit = solution.Fit;
    json["stars"] = solution.Pairs.size();
    json["rms_px"] = solution.Rms;
    json["sigma"] = {
        {"star_px", fit.Sigma},
        {"centre_px", fit.CentreSigma},
        {"centre_arcsec", fit.CentreSigma * model.Scale() * ExactDegreesPerRadian * 3600},
        {"scale_relative", fit.ScaleSigma},
        {"rotation_deg", fit.RotationSigma * ExactDegreesPerRadian},
        {"edge_px", fit.EdgeSigma}};
    nlohmann::ordered_json rings = nlohmann::ordered_json::array();
    for (const SkyRing& ring : solution.Rings) {
        rings.push_back({{"outer", ring.Outer}, {"stars", ring.Stars}, {"rms_px", ring.Rms}});
    }
    json["rings"] = rings;
    return json;
}

/// The counts of the search in the quad tables.
nlohmann::ordered_json JsonQuads(const ProgramState& state) {
    const QuadSearch& search = state.QuadMatch;
    nlohmann::ordered_json json = {{"searched", search.Searched},
                                   {"candidates", search.Candidates},
                                   {"four_star_fits", search.FourStarFits},
                                   {"matched", !search.Pairs.Empty()},
                                   {"seconds", search.Seconds}};
    if (!search.Pairs.Empty()) json["confidence"] = JsonConfidence(search.Confidence);
    if (!state.Quads.Fault.empty()) json["fault"] = state.Quads.Fault;
    return json;
}

/// The likeliest cause of a failure, with all the evidence.
nlohmann::ordered_json JsonCause(const FailureCause& cause) {
    const FailureEvidence& evidence = cause.Evidence;
    const ImageHealth& health = evidence.Health;
    nlohmann::ordered_json json = {
        {"kind", NameOf(cause.Kind)}, {"text", cause.Text}, {"try", cause.Try}};
    nlohmann::ordered_json& found = json["evidence"];
    found = {{"sky_level", health.SkyLevel},
             {"sky_noise_px", health.SkyNoise},
             {"full_scale", evidence.FullScale},
             {"patches", health.Patches},
             {"hot_pixels", health.HotPixels},
             {"dark_patches", health.DarkPatches},
             {"covered_part", health.CoveredPart},
             {"width_px", health.Width},
             {"elongation", health.Elongation},
             {"trail_px", health.TrailLength},
             {"trail_spread", health.LengthSpread},
             {"trail_angle_deg", evidence.TrailAngle},
             {"angle_agreement", health.AngleAgreement},
             {"hollow_part", health.HollowPart},
             {"stars_extracted", evidence.StarsExtracted},
             {"catalog_stars", evidence.CatalogStars}};
    if (evidence.MagnitudeLimit > 0) found["magnitude_limit"] = evidence.MagnitudeLimit;
    if (evidence.CatalogEnd > 0) found["catalog_end"] = evidence.CatalogEnd;
    if (evidence.Elsewhere) {
        const PlateSolution& solution = *evidence.Elsewhere;
        found["elsewhere"] = {{"ra_deg", solution.CentreRA * ExactDegreesPerRadian},
                              {"dec_deg", solution.CentreDec * ExactDegreesPerRadian},
                              {"width_arcmin", solution.WidthArcmin},
                              {"height_arcmin", solution.HeightArcmin},
                              {"separation_deg", evidence.Separation * ExactDegreesPerRadian},
                              {"size_ratio", evidence.SizeRatio},
                              {"log10_false_alarm", solution.Confidence.Log10FalseAlarm}};
    }
    return json;
}

nlohmann::ordered_json JsonAttempts(const PlanReport& report) {
    nlohmann::ordered_json attempts = nlohmann::ordered_json::array();
    for (const PlanAttempt& attempt : report.Attempts) {
        attempts.push_back(
            {{"name", attempt.Name}, {"seconds", attempt.Seconds}, {"sure", attempt.Sure}});
    }
    return attempts;
}

/// The figures of a solution, or of a candidate that is not sure.
void AddSolution(nlohmann::ordered_json& json, const PlateSolution& solution,
                 const PlateImage& image) {
    const ImageOrientation orientation = OrientationOf(solution, image);
    json["ra_deg"] = solution.CentreRA * ExactDegreesPerRadian;
    json["dec_deg"] = solution.CentreDec * ExactDegreesPerRadian;
    json["ra"] = FormatRA(solution.CentreRA, true, 2);
    json["dec"] = FormatDec(solution.CentreDec, true, 1);
    json["width_arcmin"] = solution.WidthArcmin;
    json["height_arcmin"] = solution.HeightArcmin;
    json["scale_arcsec_px"] = 1 / solution.Scale;
    json["rotation_deg"] = PositionAngleDegrees(solution.Angle);
    json["up_position_angle_deg"] = orientation.UpPositionAngle;
    json["mirrored"] = orientation.Mirrored;
    json["stretch"] = solution.Stretch;
    json["skew"] = solution.Skew;
    json["rms_px"] = solution.Rms;
    json["rms_arcsec"] = solution.Rms / solution.Scale;
    json["stars_matched"] = solution.MatchedCount;
    json["regions_searched"] = solution.RegionsSearched;
    json["magnitude_zero_point"] = solution.MagnitudeZeroPoint;
    json["tangent_ra_deg"] = solution.TangentRA * ExactDegreesPerRadian;
    json["tangent_dec_deg"] = solution.TangentDec * ExactDegreesPerRadian;
    const PlateConstants& t = solution.Transform;
    json["transform"] = {t.a, t.b, t.c, t.d, t.e, t.f};
    json["confidence"] = JsonConfidence(solution.Confidence);
}

nlohmann::ordered_json JsonReport(const ProgramState& state, const Outcome& outcome) {
    const bool solved = outcome.Result.Code == SolveCode::Solved && outcome.Attempted;
    nlohmann::ordered_json json;
    json["solved"] = solved;
    // Code 0 means too few stars; an outcome without a code must not look like that.
    if (outcome.Result.Message.empty()) {
        json["code"] = nullptr;
    } else {
        json["code"] = NumberOf(outcome.Result.Code);
    }
    json["message"] = outcome.Result.Message;
    json["exit_code"] = NumberOf(outcome.Exit);
    json["image"] = outcome.Image;
    if (!outcome.Attempted) return json;
    if (outcome.Replayed) json["same_outcome_as_bundle"] = outcome.SameOutcome;
    if (solved) {
        AddSolution(json, *state.Solution, state.Image);
        json["cautions"] = Cautions(state);
        json["matches"] = JsonMatches(*state.Solution);
        if (const auto model = SkyModelOfImage(state)) json["sky_model"] = JsonSkyModel(*model);
    } else if (outcome.Plan.Candidate) {
        AddSolution(json["candidate"], *outcome.Plan.Candidate, state.Image);
    }
    const SolveReport& report = state.Report;
    if (state.Image.ImageType == ImageType::Decoded) {
        json["format"] = state.Image.Format;
        json["counts"] = {{"zero", state.Image.Counts.Zero}, {"factor", state.Image.Counts.Factor}};
        json["remarks"] = state.Image.Remarks;
    } else if (!state.Image.Remarks.empty()) {
        json["remarks"] = state.Image.Remarks;
    }
    if (!outcome.StartedFrom.empty()) json["started_from"] = outcome.StartedFrom;
    json["width_px"] = state.Image.Width;
    json["height_px"] = state.Image.Height;
    json["stars_extracted"] = state.Extraction.StarsFound;
    json["stars_in_catalog"] = solved ? state.Solution->CatalogCount() : report.CatalogStarsAtStart;
    json["sky_noise"] = state.Extraction.BackgroundSigma;
    json["smoothed"] = report.Smoothed;
    json["magnitude_limit"] = report.MagnitudeLimit;
    json["regions_tried"] = report.RegionsTried;
    if (report.Blind) json["quads"] = JsonQuads(state);
    if (!outcome.Plan.Attempts.empty()) json["attempts"] = JsonAttempts(outcome.Plan);
    if (!outcome.Plan.SolvedBy.empty()) json["solved_by"] = outcome.Plan.SolvedBy;
    if (outcome.Plan.TimeLimitReached) json["time_limit_reached"] = true;
    json["catalog_folder"] = TextFromPath(state.Catalog.Folder);
    if (!solved) {
        json["catalog_complaint"] = CatalogComplaint(state);
        json["best_attempt"] = {{"pairs_by_votes", report.BestAttempt.Selected},
                                {"pairs_left", report.BestAttempt.Kept},
                                {"ra_deg", report.BestAttemptCentre.Ra * ExactDegreesPerRadian},
                                {"dec_deg", report.BestAttemptCentre.Dec * ExactDegreesPerRadian}};
        json["advice"] = Advice(state, outcome.Result.Code);
        if (outcome.Cause) json["cause"] = JsonCause(*outcome.Cause);
    }
    for (const auto& [stage, seconds] : StageTable(report.Times)) json["seconds"][stage] = seconds;
    json["seconds"]["total"] = outcome.Seconds;
    json["peak_memory_bytes"] = PeakMemoryBytes();
    return json;
}

std::string Milliseconds(double seconds) {
    return std::to_string(static_cast<long>(std::lround(seconds * 1000))) + " ms";
}

void PrintTimes(std::FILE* out, const ProgramState& state, const Outcome& outcome) {
    std::fputs("  Time              ", out);
    for (const auto& [stage, seconds] : StageTable(state.Report.Times)) {
        std::fprintf(out, "%s %s, ", stage.c_str(), Milliseconds(seconds).c_str());
    }
    std::fprintf(out, "total %s\n", Milliseconds(outcome.Seconds).c_str());
}

void PrintForPeople(const ProgramState& state, const Outcome& outcome, bool quiet) {
    const bool solved = outcome.Result.Code == SolveCode::Solved && outcome.Attempted;
    const char* colour =
        MayUseColour(solved ? stdout : stderr) ? (solved ? "\033[32m" : "\033[31m") : "";
    const char* plain = *colour != 0 ? "\033[0m" : "";
    const std::string image = WithoutControls(outcome.Image);
    if (solved) {
        std::printf("%s%s%s: %s\n%s", colour, outcome.Result.Message.c_str(), plain, image.c_str(),
                    WithoutControls(SolutionText(state), "\n").c_str());
        PrintTimes(stdout, state, outcome);
        return;
    }
    if (quiet || !outcome.Attempted) return;
    std::string text = state.Display.Status.Text;
    if (state.Display.Status1.Visible && !state.Display.Status1.Text.empty()) {
        text = state.Display.Status1.Text;
    }
    if (outcome.Plan.Candidate) {
        const PlateSolution& candidate = *outcome.Plan.Candidate;
        std::fprintf(stderr, "Not sure: %s %s, %s\"/px; %s\n",
                     FormatRA(candidate.CentreRA, true, 2).c_str(),
                     FormatDec(candidate.CentreDec, true, 1).c_str(),
                     RoundedText(1 / candidate.Scale, 4).c_str(),
                     ConfidenceText(candidate.Confidence).c_str());
    }
    CauseAndCure likeliest;
    if (outcome.Cause) likeliest = {outcome.Cause->Text, outcome.Cause->Try};
    const std::string failure = FailureText(state, outcome.Result.Code, ConsoleWords, likeliest);
    std::fprintf(stderr, "%s%s%s: %s\n%s", colour, text.c_str(), plain, image.c_str(),
                 WithoutControls(failure, "\n").c_str());
    PrintTimes(stderr, state, outcome);
}

ExitCode Run(int argc, const char* const* argv) {
    const auto state = std::make_unique<ProgramState>();
    Outcome outcome;
    ConsoleOptions options;
    // The settings are loaded first, because the options change them.
    {
        ConsolePort port(*state, true);
        InitSettings(*state, port);
    }
    const ParsedOptions parsed = ParseConsoleOptions(argc, argv, options, state->Parameters);
    if (parsed.EndWith) {
        std::fputs(WithoutControls(parsed.Output, "\n").c_str(),
                   *parsed.EndWith == ExitCode::Solved ? stdout : stderr);
        return *parsed.EndWith;
    }
    state->Catalog.Folder =
        options.CatalogFolder.empty() ? DefaultCatalogFolder() : options.CatalogFolder;
    if (!options.InfoFile.empty()) {
        ConsolePort port(*state, options.Quiet);
        return PrintHeader(*state, port, options.InfoFile);
    }
    if (const std::string complaint = CoincidingFiles(options); !complaint.empty()) {
        std::fprintf(stderr, "%s\n", WithoutControls(complaint).c_str());
        return ExitCode::Usage;
    }
    double seconds = 0;
    {
        const StageTimer timer(seconds);
        ConsolePort port(*state, options.Quiet);
        outcome = !options.ReplayFile.empty() ? SolveBundle(*state, port, options)
                  : options.ParameterString   ? SolveParameterString(*state, port, options)
                                              : SolveImage(*state, port, options);
        if (outcome.Result.Code == SolveCode::Solved && outcome.Attempted &&
            !WriteOutputs(*state, port, options)) {
            outcome.Exit = ExitCode::NotWritten;
        }
        if (outcome.Exit == ExitCode::Solved && !outcome.BundleWritten) {
            outcome.Exit = ExitCode::NotWritten;
        }
    }
    if (outcome.Replayed && !options.Quiet) {
        std::fprintf(stderr, "The outcome is %s the bundle's.\n",
                     outcome.SameOutcome ? "just" : "NOT");
    }
    outcome.Seconds = seconds;
    if (!outcome.Attempted && !options.Quiet) std::fputs(state->Display.Details.c_str(), stderr);
    if (options.Json) {
        // Paths need not be UTF-8; JSON must be.
        const std::string json = JsonReport(*state, outcome)
                                     .dump(2, ' ', false, nlohmann::json::error_handler_t::replace);
        std::printf("%s\n", WithEscapedControls(json).c_str());
    } else {
        PrintForPeople(*state, outcome, options.Quiet);
    }
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        std::fputs("vestrel-solve: the result cannot be written to standard output\n", stderr);
        if (outcome.Exit == ExitCode::Solved) outcome.Exit = ExitCode::NotWritten;
    }
    return outcome.Exit;
}

}  // namespace
}  // namespace vestrel

int main(int argc, char** argv) {
    return vestrel::RunProgram(
        "vestrel-solve", argc, argv,
        [](int count, const char* const* values) { return NumberOf(vestrel::Run(count, values)); },
        [](const std::exception&) { return NumberOf(vestrel::ExitCode::Usage); });
}
