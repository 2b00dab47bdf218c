// Runs a telescope driver so that it cannot block the program.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "telescope/libTelescopeDriver.h"

namespace vestrel {

/// Runs a driver on its own thread and waits for it for a limited time. The thread owns a share of
/// all that it uses, so a driver that hangs can be abandoned; it is destroyed when it returns.
class TelescopeLink {
 public:
    using Call = std::function<double(TelescopeDriver&)>;

    /// Starts the thread; the first call creates the driver. Throws `TelescopeError` when the
    /// system cannot start a thread.
    explicit TelescopeLink(TelescopeFactory create);
    /// Waits at most 1 s for an idle driver to be destroyed.
    ~TelescopeLink();
    TelescopeLink(const TelescopeLink&) = delete;
    TelescopeLink& operator=(const TelescopeLink&) = delete;

    /// Runs `call` on the driver's thread and returns its result. Throws `TelescopeError` when the
    /// call failed, when it took longer than `limit`, or when `goOn`, called every 20 ms, returned
    /// false. In the last two cases the error says that the connection is lost: the link cannot be
    /// used any more, and the driver is destroyed as soon as it returns.
    double Run(Call call, std::chrono::milliseconds limit, const std::function<bool()>& goOn);

 private:
    struct Shared;
    static void Serve(const std::shared_ptr<Shared>& shared);
    /// Abandons the driver, which is destroyed as soon as it returns.
    void Leave();

    std::shared_ptr<Shared> shared_;
    bool usable_ = true;  ///< no call is running, and the connection is not lost
};

}  // namespace vestrel
