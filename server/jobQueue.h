// The queue of pictures to solve, and their results.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <stdexcept>
#include <stop_token>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "server/novaRequest.h"

namespace vestrel {

enum class JobState { Waiting, Solving, Solved, Failed };

/// The calibration of a picture, which clients ask for most often.
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

/// The state of a job at one moment.
struct JobReport {
    int Id = 0;
    std::string Name;  ///< name of the picture, given by the client
    JobState State = JobState::Waiting;
    std::chrono::system_clock::time_point Submitted;
    std::optional<std::chrono::system_clock::time_point> Started;
    std::optional<std::chrono::system_clock::time_point> Finished;
    std::string Log;  ///< readable text
    std::optional<JobCalibration> Calibration;
    std::string Wcs;                ///< FITS header in blocks of 2880 bytes; empty unless solved
    std::filesystem::path NewFits;  ///< empty when there is none (any more)
};

struct QueueSettings {
    std::filesystem::path Folder;  ///< for the queue alone; made when it is missing
    std::string CatalogFolder;     ///< empty: the usual one
    std::size_t MostWaiting = 500;
    std::uint64_t MostBytes = std::uint64_t{4} << 30;  ///< limit for all files in the folder
    double TimeLimit = 120;                            ///< seconds for one picture
};

/// Thrown when a picture is refused, with the HTTP status for the client.
class JobRefused : public std::runtime_error {
 public:
    JobRefused(int status, const std::string& text) : std::runtime_error(text), Status(status) {}
    int Status;
};

/// Solves one picture after the other on its own thread. All procedures may be called from any
/// thread. The last 2000 jobs are remembered.
class JobQueue {
 public:
    explicit JobQueue(const QueueSettings& settings);
    ~JobQueue();
    JobQueue(const JobQueue&) = delete;
    JobQueue& operator=(const JobQueue&) = delete;

    /// Appends a picture, or the star list of the request, to the queue.
    /// @return the number of the job, from 1 on. @throws JobRefused
    int Submit(const NovaRequest& request, const std::string& name, std::string_view picture);

    /// Drops the waiting pictures and ends the running solve. Nothing is solved afterwards, nor
    /// stored in the folder: pictures are refused.
    void Stop();

    std::optional<JobReport> Find(int id) const;
    /// The latest jobs, newest first.
    std::vector<JobReport> Latest(std::size_t most) const;

 private:
    struct Job {
        JobReport Report;
        NovaRequest Request;
        std::filesystem::path Picture;
        std::uint64_t Bytes = 0;  ///< of its files
    };
    void Store(const std::filesystem::path& path, std::string_view picture) const;
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
    std::shared_mutex storing_;  ///< shared by all who store a picture
    std::jthread worker_;
};

}  // namespace vestrel
