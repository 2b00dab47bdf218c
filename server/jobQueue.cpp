#include "server/jobQueue.h"

#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <exception>
#include <shared_mutex>
#include <span>
#include <system_error>

#include "astro/libStrings.h"
#include "compat/hostFiles.h"
#include "compat/libHeaderUpdate.h"
#include "compat/libNumberFormats.h"
#include "compat/libWcsInfo.h"
#include "image/libFitsCards.h"
#include "platform/libConsole.h"
#include "platform/libFiles.h"
#include "platform/libPlatform.h"

namespace vestrel {

namespace {

constexpr std::size_t mostRemembered = 2000;

/// The extension of a client's file name, if it is harmless; it determines the format when the
/// content does not.
std::string ExtensionFrom(const std::string& name) {
    constexpr std::size_t longest = 10;
    const std::size_t dot = name.rfind('.');
    if (dot == std::string::npos || name.size() - dot > longest) return {};
    const std::string extension = name.substr(dot);
    const bool harmless = std::all_of(extension.begin() + 1, extension.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    });
    return harmless ? extension : std::string();
}

std::uint64_t SizeOf(const std::filesystem::path& path) {
    std::error_code error;
    const auto size = std::filesystem::file_size(path, error);
    return error ? 0 : size;
}

JobCalibration CalibrationOf(const SolverCoordinates& coordinates, const std::string& header) {
    JobCalibration result;
    const auto wcs = ReadHeaderCoordinates(
        {reinterpret_cast<const unsigned char*>(header.data()), header.size()});
    if (!wcs) return result;
    constexpr double arcsecondsPerDegree = 3600;
    const auto [width, height] = FieldSizeOf(*wcs);
    const auto& cd = coordinates.Cd;
    result.Ra = coordinates.Crval[0];
    result.Dec = coordinates.Crval[1];
    result.Width = width;
    result.Height = height;
    result.Radius = std::hypot(width, height) / 2 / arcsecondsPerDegree;
    result.Scale = coordinates.Scale();
    result.Orientation = OrientationOf(cd);
    result.Parity = cd[0][0] * cd[1][1] - cd[0][1] * cd[1][0] >= 0 ? 1 : -1;
    return result;
}

}  // namespace

JobQueue::JobQueue(const QueueSettings& settings)
    : settings_(settings), worker_([this](const std::stop_token& stop) { Work(stop); }) {}

JobQueue::~JobQueue() {
    Stop();
}

void JobQueue::Stop() {
    worker_.request_stop();
    { const std::unique_lock untilAllIsStored(storing_); }
    if (worker_.joinable()) worker_.join();
}

int JobQueue::Submit(const NovaRequest& request, const std::string& name,
                     std::string_view picture) {
    constexpr int busy = 503;
    constexpr int noRoom = 507;
    const std::shared_lock storing(storing_);
    if (worker_.get_stop_token().stop_requested()) throw JobRefused(busy, "the server is ending");
    Job job;
    // What a client can make long is not kept: thousands of jobs are remembered.
    constexpr std::size_t longestName = 255;
    job.Request = {{}, {}, {}, request.Hints, request.MostSipOrder, request.Stars};
    job.Report.Name = name.substr(0, longestName);
    job.Report.Submitted = std::chrono::system_clock::now();
    {
        const std::lock_guard lock(mutex_);
        if (waiting_ >= settings_.MostWaiting) {
            throw JobRefused(busy, "the queue is full: try again later");
        }
        if (bytes_ + picture.size() > settings_.MostBytes) MakeRoom();
        if (bytes_ + picture.size() > settings_.MostBytes) {
            throw JobRefused(busy,
                             "the pictures that wait fill the server's room: try again later");
        }
        job.Report.Id = ++last_;
        job.Bytes = picture.size();
        bytes_ += job.Bytes;
        ++waiting_;
    }
    if (!request.Stars) {
        job.Picture =
            settings_.Folder / ("job-" + std::to_string(job.Report.Id) + ExtensionFrom(name));
        try {
            Store(job.Picture, picture);
        } catch (const std::system_error& error) {
            const std::lock_guard lock(mutex_);
            bytes_ -= job.Bytes;
            --waiting_;
            throw JobRefused(noRoom,
                             "the server cannot store the picture: " + error.code().message());
        }
    }
    const int id = job.Report.Id;
    {
        const std::lock_guard lock(mutex_);
        jobs_.emplace(id, std::move(job));
        MakeRoom();
    }
    wakes_.notify_one();
    return id;
}

/// Stores a picture in the folder, which a cleaner of temporary files may have removed.
/// @throws std::system_error with the system's reason
void JobQueue::Store(const std::filesystem::path& path, std::string_view picture) const {
    try {
        WriteWholeFile(path, picture);
    } catch (const std::system_error& error) {
        if (error.code() != std::errc::no_such_file_or_directory) throw;
        constexpr mode_t ownerOnly = 0700;
        (void)mkdir(settings_.Folder.c_str(), ownerOnly);
        WriteWholeFile(path, picture);
    }
}

std::optional<JobReport> JobQueue::Find(int id) const {
    const std::lock_guard lock(mutex_);
    const auto found = jobs_.find(id);
    if (found == jobs_.end()) return std::nullopt;
    return found->second.Report;
}

std::vector<JobReport> JobQueue::Latest(std::size_t most) const {
    const std::lock_guard lock(mutex_);
    std::vector<JobReport> reports;
    for (auto job = jobs_.rbegin(); job != jobs_.rend() && reports.size() < most; ++job) {
        reports.push_back(job->second.Report);
    }
    return reports;
}

/// Forgets the oldest finished jobs when there are too many, and their files when these take too
/// much room. The mutex is held.
void JobQueue::MakeRoom() {
    std::size_t surplus = jobs_.size() - std::min(jobs_.size(), mostRemembered);
    for (auto at = jobs_.begin(); at != jobs_.end();) {
        Job& job = at->second;
        const bool finished =
            job.Report.State == JobState::Solved || job.Report.State == JobState::Failed;
        const bool tooMuch = bytes_ > settings_.MostBytes / 2;
        if (finished && (surplus > 0 || tooMuch) && !job.Report.NewFits.empty()) {
            std::error_code ignored;
            std::filesystem::remove(job.Report.NewFits, ignored);
            job.Report.NewFits.clear();
            bytes_ -= job.Bytes;
            job.Bytes = 0;
        }
        if (finished && surplus > 0) {
            --surplus;
            at = jobs_.erase(at);
        } else {
            ++at;
        }
    }
}

void JobQueue::Work(const std::stop_token& stop) {
    SolverSettings settings = SettingsOfUser();
    if (!settings_.CatalogFolder.empty()) settings.CatalogFolder = settings_.CatalogFolder;
    settings.DecodeApart = true;
    Solver solver(settings);
    const auto next = [this] {
        return std::find_if(jobs_.begin(), jobs_.end(), [](const auto& job) {
            return job.second.Report.State == JobState::Waiting;
        });
    };
    while (true) {
        Job job;
        {
            std::unique_lock lock(mutex_);
            if (!wakes_.wait(lock, stop, [&] { return next() != jobs_.end(); })) return;
            Job& waiting = next()->second;
            waiting.Report.State = JobState::Solving;
            waiting.Report.Started = std::chrono::system_clock::now();
            job = waiting;
        }
        try {
            Solve(job, solver, stop);
        } catch (const std::exception& error) {
            job.Report.State = JobState::Failed;
            job.Report.Log += std::string(error.what()) + "\n";
        }
        // A job that was cut short because the server ends has not failed.
        if (stop.stop_requested()) return;
        Finish(std::move(job));
    }
}

void JobQueue::Solve(Job& job, Solver& solver, const std::stop_token& stop) const {
    job.Report.State = JobState::Failed;
    SolverWatch watch;
    watch.Stop = stop;
    const PictureFacts picture = job.Request.Stars ? solver.Open(*job.Request.Stars, watch)
                                                   : solver.Open(TextFromPath(job.Picture), watch);
    if (!picture.Opened) {
        job.Report.Log = "The picture cannot be read. " + WithoutControls(picture.Fault) + "\n";
        return;
    }
    SolverHints hints = job.Request.Hints;
    hints.TimeLimit = hints.EndAfter = settings_.TimeLimit;
    const SolverOutcome outcome = solver.Solve(hints, watch);
    const auto coordinates = solver.Coordinates({job.Request.MostSipOrder, true});
    if (outcome.Solved() && !coordinates) {
        job.Report.Log = "The place is found, but the field is too wide for coordinates.\n";
        return;
    }
    if (!outcome.Solved()) {
        job.Report.Log = WithoutControls(outcome.Reason) + "\n";
        if (!outcome.Cause.empty()) {
            job.Report.Log += "Likely cause: " + WithoutControls(outcome.Cause) + "\n";
        }
        for (const std::string& advice : outcome.Advice) {
            job.Report.Log += WithoutControls(advice) + "\n";
        }
        return;
    }
    HeaderContents contents;
    contents.Coordinates = *coordinates;
    contents.Width = picture.Width;
    contents.Height = picture.Height;
    contents.Comments = {SolvedByVestrel + outcome.SolvedBy};
    job.Report.Wcs = FitsHeaderBlocks(HeaderCards(contents));
    job.Report.Calibration = CalibrationOf(*coordinates, job.Report.Wcs);
    job.Report.Log = "Solved in " + FixedText(outcome.Seconds, 2) + " s with " +
                     std::to_string(outcome.Field->Matches.size()) + " stars.\n";
    std::string fault;
    const std::filesystem::path file =
        settings_.Folder / ("job-" + std::to_string(job.Report.Id) + ".new");
    if (!job.Request.Stars && solver.Export(TextFromPath(file), fault)) {
        job.Report.NewFits = file;
    } else if (!job.Request.Stars) {
        job.Report.Log +=
            "The picture with its coordinates is not there. " + WithoutControls(fault) + "\n";
    }
    job.Report.State = JobState::Solved;
}

void JobQueue::Finish(Job job) {
    std::error_code ignored;
    if (!job.Picture.empty()) std::filesystem::remove(job.Picture, ignored);
    const std::uint64_t size = job.Report.NewFits.empty() ? 0 : SizeOf(job.Report.NewFits);
    job.Report.Finished = std::chrono::system_clock::now();
    job.Request.Stars.reset();
    job.Picture.clear();
    const std::lock_guard lock(mutex_);
    bytes_ = bytes_ - job.Bytes + size;
    job.Bytes = size;
    --waiting_;
    const int id = job.Report.Id;
    jobs_[id] = std::move(job);
    MakeRoom();
}

}  // namespace vestrel
