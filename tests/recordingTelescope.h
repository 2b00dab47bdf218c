// A telescope without a mount, which does as it is told and remembers what was asked of it.
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/libTelescopeDriver.h"

namespace vestrel {

/// Shared by a test and the threads of its drivers.
class TelescopeScript {
 public:
    std::vector<std::string> Calls() {
        const std::lock_guard lock(lock_);
        return calls_;
    }
    /// What happens from now on: the calls that fail and hang, and where it points.
    void Set(std::string fails, std::string hangs, double hours = 1, double degrees = 2) {
        const std::lock_guard lock(lock_);
        calls_.clear();
        fails_ = std::move(fails);
        hangs_ = std::move(hangs);
        Hours = hours;
        Degrees = degrees;
        changed_.notify_all();  // those that hung go on
    }
    /// Waits for the number of drivers that have not been destroyed.
    bool WaitForDrivers(int count) {
        std::unique_lock lock(lock_);
        return changed_.wait_for(lock, std::chrono::seconds(10), [&] { return living_ == count; });
    }
    double Enter(const std::string& call, double value = 0) {
        std::unique_lock lock(lock_);
        calls_.push_back(call);
        if (call == fails_) throw TelescopeError("the cat is on the \x1bmount");
        changed_.wait(lock, [&] { return call != hangs_; });
        return value;
    }
    void Count(int change) {
        const std::lock_guard lock(lock_);
        living_ += change;
        changed_.notify_all();
    }
    double Hours = 1;
    double Degrees = 2;
    double SentHours = 0;
    double SentDegrees = 0;

 private:
    std::mutex lock_;
    std::condition_variable changed_;
    std::vector<std::string> calls_;
    std::string fails_;
    std::string hangs_;
    int living_ = 0;
};

class RecordingTelescope : public TelescopeDriver {
 public:
    explicit RecordingTelescope(std::shared_ptr<TelescopeScript> script)
        : script_(std::move(script)) {
        script_->Enter("create");
        script_->Count(1);
    }
    ~RecordingTelescope() override { script_->Count(-1); }
    RecordingTelescope(const RecordingTelescope&) = delete;
    RecordingTelescope& operator=(const RecordingTelescope&) = delete;
    void SetConnected(bool on) override { script_->Enter(on ? "connect" : "disconnect"); }
    double RightAscension() override { return script_->Enter("ra", script_->Hours); }
    double Declination() override { return script_->Enter("dec", script_->Degrees); }
    void SyncToCoordinates(double hours, double degrees) override {
        script_->SentHours = hours;
        script_->SentDegrees = degrees;
        script_->Enter("sync");
    }

 private:
    std::shared_ptr<TelescopeScript> script_;
};

inline TelescopeFactory FactoryOf(std::shared_ptr<TelescopeScript> script) {
    return [script = std::move(script)] { return std::make_unique<RecordingTelescope>(script); };
}

}  // namespace vestrel
