#include "program/mSolutionTable.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <set>
#include <system_error>
#include <utility>

#include "astro/libConversions.h"
#include "astro/libMath.h"
#include "astro/libStrings.h"
#include "display/libReadout.h"
#include "image/libFormats.h"
#include "platform/libFiles.h"
#include "platform/libPlatform.h"
#include "program/mImageData.h"
#include "program/mJustSolve.h"
#include "program/mPlateMatch.h"
#include "program/mSolveReport.h"
#include "program/mSolveWindow.h"

namespace vestrel {

namespace {

/// Shows nothing, keeps the last message, and passes on the request to stop.
class SilentWorker : public Port {
 public:
    SilentWorker(ProgramState& state, const std::atomic<bool>& stopped)
        : state_(state), stopped_(stopped) {}
    void ShowMessage(const std::string& text, const std::string& /*title*/) override {
        Message = text;
    }
    std::optional<std::string> AskForFile(const FileDialog& /*dialog*/) override {
        return std::nullopt;
    }
    void DisplayChanged() override {}
    void ImageChanged() override {}
    void ShowProgress(int /*percent*/) override {}
    void Yield() override {
        if (stopped_) state_.StopRequested = true;
    }
    void ShowBusyPointer(bool /*busy*/) override {}

    std::string Message;

 private:
    ProgramState& state_;
    const std::atomic<bool>& stopped_;
};

/// The first line of a text, trimmed.
std::string FirstLine(const std::string& text) {
    return std::string(Trim(text.substr(0, text.find('\n'))));
}

SolvedPicture SolveFile(const SolveParameters& parameters, const std::filesystem::path& catalog,
                        const std::string& path, const std::atomic<bool>& stopped) {
    constexpr double patience = 40;  // seconds
    const auto state = std::make_unique<ProgramState>();
    state->Parameters = parameters;
    state->Catalog.Folder = catalog;
    SilentWorker port(*state, stopped);
    SolvedPicture picture{path, {}, {}, 0, false, {}, {}};
    if (!OpenImage(*state, port, path)) {
        picture.Failure = port.Message.empty() ? "Not an image" : FirstLine(port.Message);
        return picture;
    }
    PlanReport report;
    const SolveCode code = SolveWithAnything(*state, port, patience, report);
    picture = PictureOf(*state);
    if (code != SolveCode::Solved) {
        picture.Failure = stopped ? "Stopped" : state->Display.Status.Text;
        if (report.Candidate) picture.Failure = FirstLine(CandidateText(report));
    }
    return picture;
}

/// A field of a comma-separated line. Text that a spreadsheet would take for a formula stays text.
std::string CsvField(const std::string& text) {
    constexpr std::string_view formulas = "=+-@\t\r";
    std::string field = text;
    if (!field.empty() && formulas.find(field.front()) != std::string_view::npos) {
        field.insert(0, 1, '\'');
    }
    if (field.find_first_of(",\"\r\n") == std::string::npos) return field;
    std::string quoted = "\"";
    for (const char c : field) quoted.append(c == '"' ? 2 : 1, c);
    return quoted + "\"";
}

}  // namespace

std::array<std::string, SolutionColumns.size()> SolutionCells(const SolvedPicture& picture) {
    const std::string name = FileNameOfPath(picture.Path);
    if (!picture.Solution) return {name, "", "", "", "", "No solution", picture.Failure};
    const PlateSolution& solution = *picture.Solution;
    return {name,
            FormatRA(solution.CentreRA, true, 1),
            FormatDec(solution.CentreDec, true, 0),
            FixedText(1 / solution.Scale, 3) + "\"/px",
            FixedText(picture.UpPositionAngle, 1) + DegreeSign + (picture.Mirrored ? " m" : ""),
            WordOf(picture.Verdict.Level),
            picture.Verdict.Why};
}

std::string SolutionsCsv(const std::vector<SolvedPicture>& pictures) {
    std::string text =
        "picture,ra_deg,dec_deg,arcsec_per_pixel,up_deg_east_of_north,mirrored,matched_stars,"
        "rms_arcsec,certainty,remarks\n";
    for (const SolvedPicture& picture : pictures) {
        text += CsvField(picture.Path) + ",";
        if (picture.Solution) {
            const PlateSolution& solution = *picture.Solution;
            text += FixedText(solution.CentreRA * ExactDegreesPerRadian, 6) + "," +
                    FixedText(solution.CentreDec * ExactDegreesPerRadian, 6) + "," +
                    FixedText(1 / solution.Scale, 5) + "," + FixedText(picture.UpPositionAngle, 3) +
                    "," + (picture.Mirrored ? "yes" : "no") + "," +
                    std::to_string(solution.MatchedCount) + "," +
                    FixedText(solution.Rms / solution.Scale, 3) + "," +
                    WordOf(picture.Verdict.Level) + "," + CsvField(picture.Verdict.Why) + "\n";
        } else {
            text += ",,,,,,,," + CsvField(picture.Failure) + "\n";
        }
    }
    return text;
}

SolvedPicture PictureOf(const ProgramState& state) {
    SolvedPicture picture{state.Image.FileName, {}, {}, 0, false, {}, state.Image.Stamp};
    if (state.Solution) {
        picture.Verdict = TrustOf(state);
        picture.Solution = state.Solution;
        const ImageOrientation orientation = OrientationOf(*state.Solution, state.Image);
        picture.UpPositionAngle = orientation.UpPositionAngle;
        picture.Mirrored = orientation.Mirrored;
    } else {
        picture.Failure = state.Display.Status.Text;
    }
    return picture;
}

void RestoreSolution(ProgramState& state, Port& port, const SolvedPicture& picture) {
    OpenImageCommand(state, port, picture.Path);
    const Operation operation(state, port, Activity::Solving);
    if (!operation || !state.ImageLoaded || state.Image.FileName != picture.Path) return;
    if (!picture.Solution) return;
    if (state.Image.Stamp != picture.Stamp) {
        port.ShowMessage("This is not the picture that was solved: its file has changed.",
                         DefaultTitle);
        return;
    }
    state.PlateStars = picture.Solution->PlateStars;
    FinishPlateSolution(state, port, *picture.Solution);
    state.Display.Details = SolutionText(state);
    state.Display.Extracted = std::to_string(state.Solution->ExtractedCount);
    state.Display.FoundInCatalog = std::to_string(state.Solution->CatalogCount());
    port.ImageChanged();
}

void ExportSolutions(ProgramState& state, Port& port, const std::vector<SolvedPicture>& pictures) {
    const auto path =
        port.AskForFile({"Export Table", "CSV Files (*.csv)|*.csv|All Files (*.*)|*.*", 1,
                         state.Parameters.LastSaveFolder + "\\*.*", true, ".csv", "solutions.csv"});
    if (!path) return;
    state.Parameters.LastSaveFolder = FolderOfPath(*path);
    if (!ReplaceFile(PathFromText(*path), SolutionsCsv(pictures))) {
        port.ShowMessage("The table cannot be written to " + *path, DefaultTitle);
    }
}

std::vector<std::string> PicturesIn(const std::string& folder) {
    constexpr std::size_t most = 10000;
    std::vector<std::string> paths;
    std::error_code error;
    std::filesystem::directory_iterator entry(PathFromText(folder), error);
    for (; !error && entry != std::filesystem::directory_iterator() && paths.size() < most;
         entry.increment(error)) {
        std::error_code ignored;
        if (!entry->is_regular_file(ignored)) continue;
        std::string path = TextFromPath(entry->path());
        const bool readable =
            OwnFormatOfName(path) != nullptr || !FormatsOfFile(entry->path()).empty();
        if (readable) paths.push_back(std::move(path));
    }
    std::sort(paths.begin(), paths.end());
    // What was made of another picture of the folder is not one of its own.
    const std::array endings = {ViewEnding, AnnotatedEnding, SolvedEnding};
    std::set<std::string> names;
    for (const std::string& path : paths) names.insert(path.substr(0, path.rfind('.')));
    std::erase_if(paths, [&](const std::string& path) {
        return std::any_of(endings.begin(), endings.end(), [&](const std::string& ending) {
            return path.ends_with(ending) &&
                   names.contains(path.substr(0, path.size() - ending.size()));
        });
    });
    return paths;
}

BackgroundSolver::BackgroundSolver(const SolveParameters& parameters, std::filesystem::path catalog,
                                   std::vector<std::string> paths,
                                   std::function<void(const SolvedPicture&)> onSolved)
    : thread_([this, parameters, catalog = std::move(catalog), paths = std::move(paths),
               onSolved = std::move(onSolved)] {
          for (const std::string& path : paths) {
              if (stopped_) return;
              try {
                  onSolved(SolveFile(parameters, catalog, path, stopped_));
              } catch (const std::exception& error) {
                  SolvedPicture unsolved;
                  unsolved.Path = path;
                  unsolved.Failure = error.what();
                  onSolved(unsolved);
              }
          }
      }) {}

BackgroundSolver::~BackgroundSolver() {
    Stop();
    thread_.join();
}

}  // namespace vestrel
