// What the program needs of a telescope mount, and how one is had on this system.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace vestrel {

/// A telescope did not do what it was asked for; the text says why, for the user.
class TelescopeError : public std::runtime_error {
 public:
    enum class Kind {
        Refused,  ///< the next call may succeed
        Lost      ///< the connection is of no more use
    };
    explicit TelescopeError(const std::string& text, Kind kind = Kind::Refused)
        : std::runtime_error(text), kind_(kind) {}
    bool IsLost() const { return kind_ == Kind::Lost; }

 private:
    Kind kind_;
};

/// How long the program waits for a telescope. A driver that can tell what it waits for should give
/// up by itself `Margin` earlier, as its text says more than that the time is over.
struct TelescopeLimits {
    std::chrono::milliseconds Connect{30000};  ///< to create the driver and connect
    std::chrono::milliseconds Call{3000};      ///< everything else
    static constexpr std::chrono::milliseconds Margin{300};
};

/// One mount, by the members that the drivers of telescopes have in common. Positions are of the
/// current date (mean equator and equinox), as mounts count them.
///
/// Every member may take its time and throws `TelescopeError` when it fails. A driver is created,
/// used and destroyed on one thread, which is not the window's.
class TelescopeDriver {
 public:
    virtual ~TelescopeDriver() = default;
    virtual void SetConnected(bool connected) = 0;
    virtual double RightAscension() = 0;  ///< hours
    virtual double Declination() = 0;     ///< degrees
    virtual void SyncToCoordinates(double hours, double degrees) = 0;
    /// What else could be connected where this telescope is looked for: mounts first. It needs no
    /// connection. Empty where there is nothing to choose from.
    virtual std::vector<std::string> Devices() { return {}; }
};

using TelescopeFactory = std::function<std::unique_ptr<TelescopeDriver>()>;

/// The driver of the telescope that is set up on this system, not connected yet. Elsewhere than on
/// Windows `$VESTREL_TELESCOPE` says which. Nothing when none is set up; throws `TelescopeError`
/// when what is set up cannot be used.
std::unique_ptr<TelescopeDriver> CreateTelescopeDriver();

/// The driver of a telescope at an address, in the form of `$VESTREL_TELESCOPE`; where telescopes
/// have none, as on Windows, the one that is set up. One without a device can only tell the
/// devices.
std::unique_ptr<TelescopeDriver> CreateTelescopeDriverAt(const std::string& address);

}  // namespace vestrel
