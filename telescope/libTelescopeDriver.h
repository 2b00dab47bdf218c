// What the program needs from a telescope mount, and how to get a driver on this system.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace vestrel {

/// A telescope did not do what was asked; the text tells the user why.
class TelescopeError : public std::runtime_error {
 public:
    enum class Kind {
        Refused,  ///< the next call may succeed
        Lost      ///< the connection cannot be used any more
    };
    explicit TelescopeError(const std::string& text, Kind kind = Kind::Refused)
        : std::runtime_error(text), kind_(kind) {}
    bool IsLost() const { return kind_ == Kind::Lost; }

 private:
    Kind kind_;
};

/// How long the program waits for a telescope. A driver that knows what it is waiting for should
/// give up `Margin` earlier, because its text says more than that the time is over.
struct TelescopeLimits {
    std::chrono::milliseconds Connect{30000};  ///< to create the driver and connect
    std::chrono::milliseconds Call{3000};      ///< everything else
    static constexpr std::chrono::milliseconds Margin{300};
};

/// A mount, with the members that telescope drivers have in common. Positions refer to the mean
/// equator and equinox of the current date, as in mounts.
///
/// Every member may take long and throws `TelescopeError` when it fails. A driver is created, used
/// and destroyed on one thread, which is not the window's.
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

/// The driver of the telescope that is set up on this system, not connected yet. Except on Windows,
/// `$VESTREL_TELESCOPE` names it. Null when none is set up; throws `TelescopeError` when the one
/// set up cannot be used.
std::unique_ptr<TelescopeDriver> CreateTelescopeDriver();

/// The driver of a telescope at an address in the form of `$VESTREL_TELESCOPE`. On Windows, where
/// telescopes have no address, the one that is set up. One without a device can only tell the
/// devices.
std::unique_ptr<TelescopeDriver> CreateTelescopeDriverAt(const std::string& address);

}  // namespace vestrel
