// What clients are told about jobs, in the form of astrometry.net's interface.
#pragma once

#include <nlohmann/json.hpp>
#include <vector>

#include "server/jobQueue.h"

namespace vestrel {

using NovaJson = nlohmann::ordered_json;

/// "success", "failure", or "solving" for a job that is not at its end.
const char* StateText(JobState state);

NovaJson CalibrationJson(const JobCalibration& calibration);

/// A job as a submission, which clients ask for until it names the job.
NovaJson SubmissionJson(const JobReport& job);

NovaJson InfoJson(const JobReport& job);

/// The jobs for the page in the browser.
NovaJson QueueJson(const std::vector<JobReport>& jobs);

}  // namespace vestrel
