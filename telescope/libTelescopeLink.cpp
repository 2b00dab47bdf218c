#include "telescope/libTelescopeLink.h"

#include <condition_variable>
#include <exception>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

namespace vestrel {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds askEvery{20};
constexpr milliseconds farewell{1000};

/// The outcome of a call.
struct Outcome {
    double Value = 0;
    std::optional<TelescopeError> Failure;
};

Outcome Perform(const TelescopeLink::Call& call, const TelescopeFactory& create,
                std::unique_ptr<TelescopeDriver>& driver) {
    try {
        if (!driver) driver = create ? create() : nullptr;
        if (!driver) return {0, TelescopeError("no telescope is set up")};
        return {call(*driver), std::nullopt};
    } catch (const TelescopeError& error) {
        return {0, error};
    } catch (const std::exception& error) {
        return {0, TelescopeError(error.what())};
    } catch (...) {
        return {0, TelescopeError("the driver failed")};
    }
}

}  // namespace

struct TelescopeLink::Shared {
    TelescopeFactory Create;
    std::mutex Lock;
    std::condition_variable Changed;
    Call Pending;                   ///< the call to be made next
    std::optional<Outcome> Result;  ///< of the last call
    bool Ending = false;            ///< no more calls will come
    bool Gone = false;              ///< the driver has been destroyed
};

TelescopeLink::TelescopeLink(TelescopeFactory create) : shared_(std::make_shared<Shared>()) {
    shared_->Create = std::move(create);
    try {
        std::thread([shared = shared_] { Serve(shared); }).detach();
    } catch (const std::system_error& error) {
        throw TelescopeError(error.what());
    }
}

TelescopeLink::~TelescopeLink() {
    const bool idle = usable_;
    Leave();
    if (!idle) return;
    std::unique_lock lock(shared_->Lock);
    shared_->Changed.wait_for(lock, farewell, [this] { return shared_->Gone; });
}

void TelescopeLink::Serve(const std::shared_ptr<Shared>& shared) {
    std::unique_ptr<TelescopeDriver> driver;
    std::unique_lock lock(shared->Lock);
    while (true) {
        shared->Changed.wait(lock, [&] { return shared->Ending || shared->Pending; });
        if (shared->Ending) break;
        const Call call = std::exchange(shared->Pending, nullptr);
        lock.unlock();
        Outcome outcome = Perform(call, shared->Create, driver);
        lock.lock();
        shared->Result = std::move(outcome);
        shared->Changed.notify_all();
    }
    lock.unlock();
    driver.reset();
    lock.lock();
    shared->Gone = true;
    shared->Changed.notify_all();
}

void TelescopeLink::Leave() {
    const std::lock_guard lock(shared_->Lock);
    shared_->Ending = true;
    shared_->Changed.notify_all();
}

double TelescopeLink::Run(Call call, milliseconds limit, const std::function<bool()>& goOn) {
    constexpr auto lost = TelescopeError::Kind::Lost;
    if (!usable_) throw TelescopeError("the link has been given up", lost);
    const auto end = steady_clock::now() + limit;
    usable_ = false;
    Outcome outcome;
    {
        std::unique_lock lock(shared_->Lock);
        shared_->Result.reset();
        shared_->Pending = std::move(call);
        shared_->Changed.notify_all();
        while (!shared_->Changed.wait_for(lock, askEvery,
                                          [this] { return shared_->Result.has_value(); })) {
            lock.unlock();
            const bool over = steady_clock::now() >= end;
            if (over || !goOn()) {
                Leave();
                throw TelescopeError(over ? "it does not answer" : "given up", lost);
            }
            lock.lock();
        }
        outcome = std::move(*shared_->Result);
    }
    usable_ = !outcome.Failure || !outcome.Failure->IsLost();
    if (!usable_) Leave();
    if (outcome.Failure) throw TelescopeError(*outcome.Failure);
    return outcome.Value;
}

}  // namespace vestrel
