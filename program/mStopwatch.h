// Measures how long the stages of a solve take.
#pragma once

#include <chrono>

namespace vestrel {

/// Adds its own lifetime to a total (seconds).
class StageTimer {
 public:
    explicit StageTimer(double& total) : total_(total) {}
    ~StageTimer() {
        total_ += std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    }
    StageTimer(const StageTimer&) = delete;
    StageTimer& operator=(const StageTimer&) = delete;

 private:
    double& total_;
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

}  // namespace vestrel
