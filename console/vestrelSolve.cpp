// The console program: solves one image and reports the outcome.

#include <cmath>
#include <cstdio>
#include <exception>
#include <memory>

#include "astro/libConversions.h"
#include "astro/libStrings.h"
#include "console/consoleOptions.h"
#include "console/consolePort.h"
#include "console/exitCodes.h"
#include "console/jsonReport.h"
#include "console/solveRun.h"
#include "image/libHeaderText.h"
#include "platform/libConsole.h"
#include "platform/libPlatform.h"
#include "program/mImageData.h"
#include "program/mPictureHints.h"
#include "program/mSettings.h"
#include "program/mSolveReport.h"
#include "program/mStopwatch.h"

namespace vestrel {
namespace {

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

std::string Milliseconds(double seconds) {
    return std::to_string(static_cast<long>(std::lround(seconds * 1000))) + " ms";
}

void PrintTimes(std::FILE* out, const ProgramState& state, const RunOutcome& outcome) {
    std::fputs("  Time              ", out);
    for (const auto& [stage, seconds] : StageTable(state.Report.Times)) {
        std::fprintf(out, "%s %s, ", stage.c_str(), Milliseconds(seconds).c_str());
    }
    std::fprintf(out, "total %s\n", Milliseconds(outcome.Seconds).c_str());
}

void PrintForPeople(const ProgramState& state, const RunOutcome& outcome, bool quiet) {
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
    RunOutcome outcome;
    ConsoleOptions options;
    // The settings are loaded first, because the options change them.
    {
        ConsolePort port(*state, true);
        InitSettings(*state, port, SettingsNotUsed);
    }
    const ParsedOptions parsed = ParseConsoleOptions(argc, argv, options, state->Parameters);
    if (parsed.EndWith) {
        std::fputs(WithoutControls(parsed.Output, "\n").c_str(),
                   *parsed.EndWith == ExitCode::Solved ? stdout : stderr);
        const bool printed = std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
        return printed ? *parsed.EndWith : ExitCode::NotWritten;
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
