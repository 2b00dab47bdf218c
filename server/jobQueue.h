// The one queue of pictures to solve, and what came of them.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <stop_token>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "server/novaRequest.h"

namespace vestrel {

enum class JobState { Waiting, Solving, Solved, Failed };

/// What a client asks for most often.
struct JobCalibration {
    double Ra = 0;  ///< of the centre, degrees
    double Dec = 0;
    double Width = 0;        ///< arcseconds
    double Height = 0;       ///< arcseconds
    double Radius = 0;       ///< half of the diagonal, degrees
    double Scale = 0;        ///< arcseconds per pixel
    double Orientation = 0;  ///< degrees east of north
    double Parity = 1;       ///< +1 or −1, the sign of the determinant
};

/// A job as it is at a moment.
struct JobReport {
    int Id = 0;
    std::string Name;  ///< of the picture, as the client has it
    JobState State = JobState::Waiting;
    std::chrono::system_clock::time_point Submitted;
    std::optional<std::chrono::system_clock::time_point> Started;
    std::optional<std::chrono::system_clock::time_point> Finished;
    std::string Log;  ///< text for people
    std::optional<JobCalibration> Calibration;
    std::string Wcs;                ///< a FITS header in blocks; empty unless solved
    std::filesystem::path NewFits;  ///< empty: there is none, or no longer
};

struct QueueSettings {
    std::filesystem::path Folder;  ///< of the queue's own, there already
    std::string CatalogFolder;     ///< empty: the usual one
    std::size_t MostWaiting = 500;
    std::uint64_t MostBytes = std::uint64_t{4} << 30;  ///< of all files in the folder
    double TimeLimit = 120;                            ///< seconds for one picture
};

/// A picture that is not taken, and the HTTP status that says so.
class JobRefused : public std::runtime_error {
 public:
    JobRefused(int status, const std::string& text) : std::runtime_error(text), Status(status) {}
    int Status;
};

/// Solves one picture after the other on a thread of its own. All procedures may be called from any
/// thread. The last 2000 jobs are remembered.
class JobQueue {
 public:
    explicit JobQueue(const QueueSettings& settings);
    ~JobQueue();
    JobQueue(const JobQueue&) = delete;
    JobQueue& operator=(const JobQueue&) = delete;

    /// Puts a picture, or the list of stars of the request, at the end of the queue.
    /// @return the number of the job, from 1 on. @throws JobRefused
    int Submit(const NovaRequest& request, const std::string& name, std::string_view picture);

    /// Leaves what waits unsolved, and ends the solve that runs. Nothing is solved afterwards.
    void Stop();

    std::optional<JobReport> Find(int id) const;
    /// The last ones, the newest first.
    std::vector<JobReport> Latest(std::size_t most) const;

 private:
    struct Job {
        JobReport Report;
        NovaRequest Request;
        std::filesystem::path Picture;
        std::uint64_t Bytes = 0;  ///< of its files
    };
    void Work(const std::stop_token& stop);
    void Solve(Job& job, Solver& solver, const std::stop_token& stop) const;
    void Finish(Job job);
    void MakeRoom();

    QueueSettings settings_;
    mutable std::mutex mutex_;
    std::condition_variable_any wakes_;
    std::map<int, Job> jobs_;  ///< by number
    std::size_t waiting_ = 0;
    std::uint64_t bytes_ = 0;
    int last_ = 0;
    std::jthread worker_;
};

}  // namespace vestrel
