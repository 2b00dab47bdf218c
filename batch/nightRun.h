// The pictures of a night solved one after the other, several at once.
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
    int Workers = 1;                   ///< pictures that are solved at once
    double TimeLimit = 20;             ///< seconds for one picture
    std::optional<SolverRange> Scale;  ///< arcseconds per pixel
    bool Coordinates = false;          ///< a .wcs file for each solved picture
    bool Copy = false;                 ///< a copy as standard FITS
    bool Result = false;               ///< a .kel file for each picture
    std::filesystem::path To;          ///< folder of these files; empty: beside the pictures
};

/// Which picture each written file belongs to, so that none writes over another's.
class OutputNames {
 public:
    /// A file that belongs to a picture already.
    void Take(const std::filesystem::path& file, const std::string& picture);
    /// The file of a picture: its name with another ending; with the picture's own ending kept
    /// before it when that is another picture's already, and then with a number.
    std::filesystem::path For(const std::filesystem::path& picture,
                              const std::filesystem::path& folder, const std::string& ending);

 private:
    std::mutex lock_;
    std::unordered_map<std::string, std::string> owners_;
};

/// Workers with a Solver each, whose catalogs stay in memory from picture to picture.
class NightRun {
 public:
    /// Takes the line of a picture that is done. Called by one worker at a time; what it throws
    /// ends the run.
    using TakeLine =
        std::function<void(const std::string& picture, const nlohmann::ordered_json& line)>;

    NightRun(const NightOptions& options, OutputNames& names, TakeLine take);
    /// Stops what is underway.
    ~NightRun();
    NightRun(const NightRun&) = delete;
    NightRun& operator=(const NightRun&) = delete;

    void Add(const std::filesystem::path& picture);
    /// Pictures that wait or are being solved.
    std::size_t Left();
    /// Waits until none is left, the run has failed, or so long. @return whether none is left
    /// @throws what `TakeLine` threw
    bool Wait(std::chrono::milliseconds longest);
    /// Leaves what waits, and ends what is underway without a line.
    void Stop();

 private:
    /// Where a camera looked when it was solved last.
    struct LastLook {
        SolverPosition Centre;
        double Scale = 0;  ///< arcseconds per pixel
        double Side = 0;   ///< the shorter one of the field, degrees
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
