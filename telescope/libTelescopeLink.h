// A telescope driver that cannot hold the program up, whatever it does.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "telescope/libTelescopeDriver.h"

namespace vestrel {

/// Runs a driver on a thread of its own and waits for it no longer than is allowed. The thread
/// shares nothing with anybody but what it owns too: a driver that hangs is left to itself, and
/// goes away when it returns.
class TelescopeLink {
 public:
    using Call = std::function<double(TelescopeDriver&)>;

    /// The driver is created by the first call. Throws `TelescopeError` without a thread to be had.
    explicit TelescopeLink(TelescopeFactory create);
    /// Gives an idle driver a moment to take its leave.
    ~TelescopeLink();
    TelescopeLink(const TelescopeLink&) = delete;
    TelescopeLink& operator=(const TelescopeLink&) = delete;

    /// Runs `call` on the driver's thread and returns its result. Throws `TelescopeError` when the
    /// call failed, when it took longer than `limit`, or when `goOn`, asked every few milliseconds,
    /// returned false. In the last two cases the error says that the connection is lost: the link
    /// cannot be used any more, and the driver goes as soon as it returns.
    double Run(Call call, std::chrono::milliseconds limit, const std::function<bool()>& goOn);

 private:
    struct Shared;
    static void Serve(const std::shared_ptr<Shared>& shared);
    /// Lets the driver go as soon as it returns.
    void Leave();

    std::shared_ptr<Shared> shared_;
    bool usable_ = true;  ///< no call is under way, and the connection was not lost
};

}  // namespace vestrel
