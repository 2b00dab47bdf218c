#include "program/mTelescope.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

#include "astro/libConversions.h"
#include "astro/libMath.h"
#include "astro/libStrings.h"
#include "astro/libTime.h"
#include "platform/libConsole.h"
#include "program/mPreferences.h"
#include "program/mSolveWindow.h"
#include "program/mStarExtraction.h"
#include "program/mTrust.h"

namespace vestrel {

namespace {

using std::chrono::milliseconds;

/// Shows a message about the telescope; the text may come from its driver.
void Tell(ProgramState& state, Port& port, const std::string& text, StatusColour colour) {
    state.Display.Status1 = {"", StatusColour::Black, false};  // it belongs to the solve
    ShowStatus(state, port, WithoutControls("Telescope: " + text), colour);
}

/// Asks the driver and keeps the window alive meanwhile.
double Ask(ProgramState& state, Port& port, milliseconds limit, TelescopeLink::Call call) {
    return state.Telescope->Run(std::move(call), limit, [&] {
        port.Yield();
        return !state.StopRequested;
    });
}

void Connect(ProgramState& state, Port& port) {
    if (state.TelescopeConnected) return;
    Tell(state, port, "connecting...", StatusColour::Black);
    state.Telescope = std::make_unique<TelescopeLink>(state.CreateTelescope);
    Ask(state, port, state.TelescopePatience.Connect, [](TelescopeDriver& driver) {
        driver.SetConnected(true);
        return 0.0;
    });
    state.TelescopeConnected = true;
}

/// Runs a command on a connected telescope and shows its failures. The connection is dropped only
/// when it is lost.
template <typename Work>
void WithTelescope(ProgramState& state, Port& port, Work work) {
    const Operation operation(state, port, Activity::Telescope);
    if (!operation) return;
    state.StopRequested = false;
    state.Display.BusyIndicator = true;
    try {
        Connect(state, port);
        work();
    } catch (const TelescopeError& error) {
        const bool wasConnected = state.TelescopeConnected;
        if (!wasConnected || error.IsLost()) {
            state.TelescopeConnected = false;
            state.Telescope.reset();
        }
        state.Display.BusyIndicator = false;
        Tell(state, port, error.what(), StatusColour::Red);
        if (!wasConnected && !state.StopRequested) {
            port.ShowMessage("Can't connect to SiTech", ErrorTitle);
        }
    }
}

/// Checks a position from a driver. Values up to an arcsecond beyond their range are rounding
/// errors and count as its ends.
std::optional<SkyPosition> PositionFrom(double hours, double degrees) {
    constexpr double slack = 1.0 / 3600;
    const auto within = [](double value, double low, double high) {
        return value >= low && value <= high;  // false for NaN
    };
    if (!within(hours, -slack / 15, 24 + slack / 15) || !within(std::abs(degrees), 0, 90 + slack)) {
        return std::nullopt;
    }
    return SkyPosition{std::fmod(hours + 24, 24) * Pi / 12,
                       std::clamp(degrees, -90.0, 90.0) * Pi / 180};
}

/// Seconds as time of day: "07:05:09".
std::string DayTimeText(double seconds) {
    constexpr double rounding = 1e-3;  // a Julian date holds 0.04 ms
    const int whole = static_cast<int>(std::fmod(std::floor(seconds + rounding), 86400));
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "%02d:%02d:%02d", whole / 3600, whole / 60 % 60,
                  whole % 60);
    return text.data();
}

}  // namespace

const char* FaultOfLongitude(const std::string& text) {
    return text.empty() || ParseLongitude(text)
               ? nullptr
               : "Please enter a valid Longitude, -360 to 360 degrees";
}

void UpdateClock(ProgramState& state) {
    const LocalTime time = LocalTimeAt(std::chrono::system_clock::now());
    state.JulianDate = JulianDate(time);
    // A constant number of digits keeps the text from moving.
    const auto fraction = static_cast<int>(std::fmod(state.JulianDate, 1) * 100000);
    const double sidereal = LocalSiderealTime(
        state.JulianDate,
        ParseLongitude(PreferenceOf(state, "longitude")).value_or(ObserverLongitude(time)));
    // A Julian date counts from noon.
    state.Display.Clock = "UT " + DayTimeText((state.JulianDate + 0.5) * 86400) + "   JD " +
                          NumberText(std::floor(state.JulianDate)) + "." +
                          std::to_string(100000 + fraction).substr(1) + "   LST " +
                          DayTimeText(sidereal * 3600);
}

namespace {

/// The J2000 position of a connected telescope. An impossible one is shown as a failure.
std::optional<SkyPosition> AskForPosition(ProgramState& state, Port& port) {
    const milliseconds limit = state.TelescopePatience.Call;
    const double hours =
        Ask(state, port, limit, [](TelescopeDriver& driver) { return driver.RightAscension(); });
    const double degrees =
        Ask(state, port, limit, [](TelescopeDriver& driver) { return driver.Declination(); });
    const std::optional<SkyPosition> ofDate = PositionFrom(hours, degrees);
    if (!ofDate) {
        Tell(state, port,
             "no valid position: " + NumberText(hours) + " hours, " + NumberText(degrees) +
                 " degrees",
             StatusColour::Red);
        return std::nullopt;
    }
    UpdateClock(state);
    return Precess(*ofDate, state.JulianDate, J2000);
}

}  // namespace

void LoadTelescopeCommand(ProgramState& state, Port& port) {
    WithTelescope(state, port, [&] {
        const auto position = AskForPosition(state, port);
        if (!position) return;
        state.Inputs.Ra = FormatRA(position->Ra, false, 2);
        state.Inputs.Dec = FormatDec(position->Dec, false, 1);
        Tell(state, port, "position loaded", StatusColour::Green);
    });
}

void TestTelescopeCommand(ProgramState& state, Port& port) {
    WithTelescope(state, port, [&] {
        const auto position = AskForPosition(state, port);
        if (!position) return;
        Tell(state, port,
             "connected, it points to " + FormatRA(position->Ra, true, 0) + "  " +
                 FormatDec(position->Dec, true, 0) + " (J2000)",
             StatusColour::Green);
    });
}

std::vector<std::string> TelescopeDevicesCommand(ProgramState& state, Port& port) {
    const Operation operation(state, port, Activity::Telescope);
    if (!operation || !state.CreateTelescope) return {};
    state.StopRequested = false;
    state.Display.BusyIndicator = true;
    // Shared with the driver, which may still be at it when nobody waits any more.
    const auto devices = std::make_shared<std::vector<std::string>>();
    try {
        Tell(state, port, "looking for devices...", StatusColour::Black);
        TelescopeLink link(state.CreateTelescope);
        link.Run(
            [devices](TelescopeDriver& driver) {
                *devices = driver.Devices();
                return 0.0;
            },
            state.TelescopePatience.Connect,
            [&] {
                port.Yield();
                return !state.StopRequested;
            });
    } catch (const TelescopeError& error) {
        Tell(state, port, error.what(), StatusColour::Red);
        return {};
    }
    const std::size_t count = devices->size();
    Tell(state, port, std::to_string(count) + (count == 1 ? " device" : " devices"),
         count > 0 ? StatusColour::Green : StatusColour::Red);
    return *devices;
}

std::string AddressOfDevice(const std::string& address, const std::string& device) {
    constexpr std::string_view schemeEnd = "://";
    const std::size_t scheme = address.find(schemeEnd);
    const std::size_t host = scheme == std::string::npos ? 0 : scheme + schemeEnd.size();
    std::string text = address.substr(0, address.find('/', host)) + "/";
    for (const char letter : device)
        text += letter == '%' ? std::string("%25") : std::string(1, letter);
    return text;
}

void SyncTelescopeCommand(ProgramState& state, Port& port) {
    if (!state.Solution || state.Running != Activity::None || !MaySync(state, port)) return;
    const SkyPosition centre = state.Solution->Centre();
    WithTelescope(state, port, [&] {
        UpdateClock(state);
        const SkyPosition position = Precess(centre, J2000, state.JulianDate);
        Ask(state, port, state.TelescopePatience.Call,
            [hours = position.Ra * 12 / Pi,
             degrees = position.Dec * 180 / Pi](TelescopeDriver& driver) {
                driver.SyncToCoordinates(hours, degrees);
                return 0.0;
            });
        Tell(state, port, "synced to the image centre", StatusColour::Green);
    });
}

}  // namespace vestrel
