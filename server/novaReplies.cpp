#include "server/novaReplies.h"

#include <array>
#include <ctime>
#include <string>

namespace vestrel {

namespace {

/// "2026-11-22 01:02:03" in universal time; "None" when there is no moment.
std::string TimeText(const std::optional<std::chrono::system_clock::time_point>& moment) {
    if (!moment) return "None";
    const std::time_t seconds = std::chrono::system_clock::to_time_t(*moment);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    std::array<char, 40> text{};
    return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts)};
}

}  // namespace

const char* StateText(JobState state) {
    switch (state) {
        case JobState::Solved:
            return "success";
        case JobState::Failed:
            return "failure";
        default:
            return "solving";
    }
}

NovaJson CalibrationJson(const JobCalibration& calibration) {
    return {{"ra", calibration.Ra},
            {"dec", calibration.Dec},
            {"width_arcsec", calibration.Width},
            {"height_arcsec", calibration.Height},
            {"radius", calibration.Radius},
            {"pixscale", calibration.Scale},
            {"orientation", calibration.Orientation},
            {"parity", calibration.Parity}};
}

NovaJson SubmissionJson(const JobReport& job) {
    const bool begun = job.State != JobState::Waiting;
    NovaJson json = {{"user", 1},
                     {"processing_started", TimeText(job.Started)},
                     {"processing_finished", TimeText(job.Finished)},
                     {"user_images", NovaJson::array()},
                     {"images", NovaJson::array()},
                     {"jobs", NovaJson::array()},
                     {"job_calibrations", NovaJson::array()}};
    if (begun) {
        json["user_images"] = {job.Id};
        json["jobs"] = {job.Id};
    }
    if (job.Calibration) json["job_calibrations"].push_back({job.Id, job.Id});
    return json;
}

NovaJson InfoJson(const JobReport& job) {
    NovaJson json = {{"status", StateText(job.State)},
                     {"objects_in_field", NovaJson::array()},
                     {"machine_tags", NovaJson::array()},
                     {"tags", NovaJson::array()},
                     {"original_filename", job.Name}};
    if (job.Calibration) json["calibration"] = CalibrationJson(*job.Calibration);
    return json;
}

NovaJson QueueJson(const std::vector<JobReport>& jobs) {
    NovaJson list = NovaJson::array();
    for (const JobReport& job : jobs) {
        NovaJson entry = {
            {"id", job.Id},
            {"name", job.Name},
            {"state", job.State == JobState::Waiting ? "waiting" : StateText(job.State)},
            {"submitted", TimeText(job.Submitted)},
            {"log", job.Log},
            {"new_fits", !job.NewFits.empty()}};
        if (job.Calibration) entry["calibration"] = CalibrationJson(*job.Calibration);
        list.push_back(std::move(entry));
    }
    return list;
}

}  // namespace vestrel
