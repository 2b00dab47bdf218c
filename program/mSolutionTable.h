// The table of the pictures of a session, solved by hand or in the background.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "program/mGeneral.h"
#include "program/mTrust.h"

namespace vestrel {

/// A picture and its outcome.
struct SolvedPicture {
    std::string Path;
    Trust Verdict;
    std::optional<PlateSolution> Solution;
    double UpPositionAngle = 0;  ///< degrees east of north
    bool Mirrored = false;
    std::string Failure;  ///< why there is no solution
    FileStamp Stamp;      ///< of its file
};

inline constexpr std::array<const char*, 7> SolutionColumns{
    "Picture", "RA (J2000)", "Dec (J2000)", "Scale", "Up is", "Certainty", "Remarks"};

/// The texts of a row, as shown.
std::array<std::string, SolutionColumns.size()> SolutionCells(const SolvedPicture& picture);

/// The table as comma-separated values for spreadsheets; angles are in degrees.
std::string SolutionsCsv(const std::vector<SolvedPicture>& pictures);

/// The loaded image and its solution, or why it has none.
SolvedPicture PictureOf(const ProgramState& state);

/// Opens the picture of a row again and restores its solution, unless its file now has another
/// size.
void RestoreSolution(ProgramState& state, Port& port, const SolvedPicture& picture);

/// Asks for a file and writes the table there as comma-separated values.
void ExportSolutions(ProgramState& state, Port& port, const std::vector<SolvedPicture>& pictures);

/// The paths of the readable pictures in a folder, sorted by name; at most 10,000. What was made of
/// another one there, by its suggested name, is left out.
std::vector<std::string> PicturesIn(const std::string& folder);

/// Solves pictures one after the other on its own thread by `SolveWithAnything`, each for at most
/// 40 s. The program's own image is not touched.
class BackgroundSolver {
 public:
    /// @param parameters, catalog settings and folder for the solves
    /// @param onSolved called on the solver's thread after each picture
    BackgroundSolver(const SolveParameters& parameters, std::filesystem::path catalog,
                     std::vector<std::string> paths,
                     std::function<void(const SolvedPicture&)> onSolved);
    /// Stops as soon as possible and waits for the thread.
    ~BackgroundSolver();
    BackgroundSolver(const BackgroundSolver&) = delete;
    BackgroundSolver& operator=(const BackgroundSolver&) = delete;

    void Stop() { stopped_ = true; }

 private:
    std::atomic<bool> stopped_ = false;
    std::thread thread_;
};

}  // namespace vestrel
