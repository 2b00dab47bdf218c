// Solves the pictures of a night, several at the same time.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <stop_token>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include <nlohmann/json.hpp>

#include "solver/solver.h"

namespace vestrel {

struct NightOptions {
    SolverSettings Settings;
    int Workers = 1;                             ///< pictures solved at the same time
    double TimeLimit = SolverHints().TimeLimit;  ///< seconds for one picture
    std::optional<SolverRange> Scale;            ///< arcseconds per pixel
    bool Coordinates = false;  ///< whether to write a .wcs file for each solved picture
    bool Copy = false;         ///< whether to write a copy as standard FITS
    bool Result = false;       ///< whether to write a .kel file for each picture
    std::filesystem::path To;  ///< folder of these files; empty: beside the pictures
};

/// Remembers which picture each file belongs to, so that none overwrites another's or a picture.
class OutputNames {
 public:
    /// Registers a file that already belongs to a picture, or is the picture.
    void Take(const std::filesystem::path& file, const std::string& picture);
    /// The output file of a picture: its name with another ending. When that belongs to another
    /// picture already, the picture's own ending is kept before it, and then a number is added.
    std::filesystem::path For(const std::filesystem::path& picture,
                              const std::filesystem::path& folder, const std::string& ending);

 private:
    std::mutex lock_;
    std::unordered_map<std::string, std::string> owners_;  ///< pictures by the places of files
};

/// Workers with one Solver each, which keeps its catalog in memory from picture to picture.
class NightRun {
 public:
    /// Receives the line of a finished picture. Called by one worker at a time; an exception ends
    /// the run.
    using TakeLine =
        std::function<void(const std::string& picture, const nlohmann::ordered_json& line)>;

    /// Receives a picture that has no line, because it cannot be reached or there is no catalog,
    /// and why. It may be added again. Otherwise as `TakeLine`.
    using TakeUnreached = std::function<void(const std::string& picture, const std::string& why)>;

    NightRun(const NightOptions& options, OutputNames& names, TakeLine take,
             TakeUnreached takeUnreached);
    /// Stops the running solves.
    ~NightRun();
    NightRun(const NightRun&) = delete;
    NightRun& operator=(const NightRun&) = delete;

    void Add(const std::filesystem::path& picture);
    /// The number of pictures that are waiting or being solved.
    std::size_t Left();
    /// Waits until none is left or the run has failed, at most `longest`. @return whether none is
    /// left
    /// @throws what `TakeLine` threw
    bool Wait(std::chrono::milliseconds longest);
    /// Drops the waiting pictures, and ends the running solves without a line.
    void Stop();

 private:
    /// Where a camera pointed in its last solved picture.
    struct LastLook {
        SolverPosition Centre;
        double Scale = 0;  ///< arcseconds per pixel
        double Side = 0;   ///< the shorter side of the field, degrees
    };

    void Work(const std::stop_token& stop);
    std::optional<nlohmann::ordered_json> LineOf(Solver& solver, const std::string& picture,
                                                 const std::stop_token& stop);
    SolverOutcome SolveOpened(Solver& solver, const PictureFacts& facts,
                              const std::stop_token& stop);
    void WriteFiles(const Solver& solver, const std::string& picture, bool solved,
                    nlohmann::ordered_json& line);

    const NightOptions options_;
    OutputNames& names_;
    TakeLine take_;
    TakeUnreached takeUnreached_;
    std::mutex lock_;
    std::mutex lineLock_;
    std::condition_variable changed_;
    std::deque<std::string> waiting_;
    std::size_t underway_ = 0;
    std::exception_ptr failure_;
    std::map<std::string, LastLook> looks_;  ///< by camera
    std::stop_source stop_;
    std::vector<std::jthread> workers_;
};

}  // namespace vestrel
