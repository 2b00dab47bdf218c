// The table of what was solved in a session, by hand and in the background.
#pragma once

#include <array>
#include <atomic>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "program/mGeneral.h"
#include "program/mTrust.h"

namespace vestrel {

/// A picture and what came of it.
struct SolvedPicture {
    std::string Path;
    Trust Verdict;
    std::optional<PlateSolution> Solution;
    double UpPositionAngle = 0;  ///< degrees east of north
    bool Mirrored = false;
    std::string Failure;  ///< why there is no solution
};

inline constexpr std::array<const char*, 7> SolutionColumns{
    "Picture", "RA (J2000)", "Dec (J2000)", "Scale", "Up is", "Certainty", "Remarks"};

/// The texts of a row, as shown.
std::array<std::string, SolutionColumns.size()> SolutionCells(const SolvedPicture& picture);

/// The table as text with commas, angles as degrees: for spreadsheets.
std::string SolutionsCsv(const std::vector<SolvedPicture>& pictures);

/// The loaded image and its solution, or why it has none.
SolvedPicture PictureOf(const ProgramState& state);

/// Opens the picture of a row again and gives it its solution.
void RestoreSolution(ProgramState& state, Port& port, const SolvedPicture& picture);

/// Asks for a file and writes the table there.
void ExportSolutions(ProgramState& state, Port& port, const std::vector<SolvedPicture>& pictures);

/// The pictures of a folder that can be read, by name.
std::vector<std::string> PicturesIn(const std::string& folder);

/// Solves pictures one after the other on a thread of its own, each with all that is known of it
/// and the whole sky after that. The program's own image is left alone.
class BackgroundSolver {
 public:
    /// @param parameters, catalog what the solves take, copied
    /// @param onSolved called on the solver's thread after each picture
    BackgroundSolver(const SolveParameters& parameters, std::filesystem::path catalog,
                     std::vector<std::string> paths,
                     std::function<void(const SolvedPicture&)> onSolved);
    /// Stops at the next chance, and waits for it.
    ~BackgroundSolver();
    BackgroundSolver(const BackgroundSolver&) = delete;
    BackgroundSolver& operator=(const BackgroundSolver&) = delete;

    void Stop() { stopped_ = true; }

 private:
    std::atomic<bool> stopped_ = false;
    std::thread thread_;
};

}  // namespace vestrel
