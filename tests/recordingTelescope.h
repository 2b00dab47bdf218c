// A telescope driver without a mount: it follows a script and records its calls.
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "telescope/libTelescopeDriver.h"

namespace vestrel {

/// Shared by a test and the threads of its drivers.
struct TelescopeScript {
    double Hours = 1;
    double Degrees = 2;
    std::vector<std::string> Offered;
    double SentHours = 0;
    double SentDegrees = 0;
    std::string Complaint = "the cat is on the \x1bmount";  ///< the error text of calls that fail

    std::vector<std::string> Calls() {
        const std::lock_guard lock(Lock);
        return Made;
    }
    /// Sets which call fails and which hangs from now on, and where the mount points (hours,
    /// degrees).
    void Set(std::string fails, std::string hangs, double hours = 1, double degrees = 2) {
        const std::lock_guard lock(Lock);
        Made.clear();
        Fails = std::move(fails);
        Hangs = std::move(hangs);
        Hours = hours;
        Degrees = degrees;
        Changed.notify_all();  // calls that hung continue
    }
    /// Waits up to 10 s until all drivers have been destroyed, also those that were still being
    /// created. @return whether they have been
    bool WaitForTheLast() {
        std::unique_lock lock(Lock);
        return Changed.wait_for(lock, std::chrono::seconds(10), [&] { return Living == 0; });
    }
    void Enter(const std::string& call) {
        std::unique_lock lock(Lock);
        Made.push_back(call);
        if (call == Fails) throw TelescopeError(Complaint);
        if (call == "create") ++Living;
        Changed.wait(lock, [&] { return call != Hangs; });
    }
    void Leave() {
        const std::lock_guard lock(Lock);
        --Living;
        Changed.notify_all();
    }

    std::mutex Lock;
    std::condition_variable Changed;
    std::vector<std::string> Made;
    std::string Fails;
    std::string Hangs;
    int Living = 0;
};

class RecordingTelescope : public TelescopeDriver {
 public:
    explicit RecordingTelescope(std::shared_ptr<TelescopeScript> script) : s_(std::move(script)) {
        s_->Enter("create");
    }
    ~RecordingTelescope() override { s_->Leave(); }
    RecordingTelescope(const RecordingTelescope&) = delete;
    RecordingTelescope& operator=(const RecordingTelescope&) = delete;
    void SetConnected(bool on) override { s_->Enter(on ? "connect" : "disconnect"); }
    double RightAscension() override {
        s_->Enter("ra");
        return s_->Hours;
    }
    double Declination() override {
        s_->Enter("dec");
        return s_->Degrees;
    }
    std::vector<std::string> Devices() override {
        s_->Enter("devices");
        return s_->Offered;
    }
    void SyncToCoordinates(double hours, double degrees) override {
        s_->SentHours = hours;
        s_->SentDegrees = degrees;
        s_->Enter("sync");
    }

 private:
    std::shared_ptr<TelescopeScript> s_;
};

inline TelescopeFactory FactoryOf(std::shared_ptr<TelescopeScript> script) {
    return [script = std::move(script)] { return std::make_unique<RecordingTelescope>(script); };
}

}  // namespace vestrel
