// Time, precession, and the telescope's commands with a driver that fails in every way.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iomanip>
#include <limits>

#include "astro/libConversions.h"
#include "astro/libMath.h"
#include "astro/libTime.h"
#include "program/mSolveWindow.h"
#include "program/mTelescope.h"
#include "tests/judge.h"
#include "tests/recordingTelescope.h"
#include "tests/testSupport.h"

namespace vestrel {

namespace {

using Texts = std::vector<std::string>;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr double arcsecond = Pi / 648000;
const std::string noConnection = "Vestrel 1.13 Error: Can't connect to SiTech";

double Separation(const SkyPosition& a, const SkyPosition& b) {
    const double east = std::remainder(a.Ra - b.Ra, TwoPi) * std::cos(a.Dec);
    return std::hypot(east, a.Dec - b.Dec) / arcsecond;
}

class Telescope : public testing::Test {
 protected:
    Telescope() {
        State.CreateTelescope = FactoryOf(Script);
        State.TelescopePatience = {milliseconds(5000), milliseconds(5000)};
        State.Inputs.Ra = "as typed";
        State.Inputs.Dec = "too";
    }
    /// Runs Load or Sync, whichever makes this call to the driver.
    void Give(const std::string& call) {
        if (!State.Solution) State.Solution.emplace();  // at the vernal equinox
        if (call == "sync") {
            SyncTelescopeCommand(State, Port);
        } else {
            LoadTelescopeCommand(State, Port);
        }
    }
    void ExpectInputsUntouched() const {
        EXPECT_EQ(State.Inputs.Ra, "as typed");
        EXPECT_EQ(State.Inputs.Dec, "too");
    }
    std::shared_ptr<TelescopeScript> Script = std::make_shared<TelescopeScript>();
    ProgramState State;
    MeddlingPort Port{State};
};

}  // namespace

TEST(Precession, IsThatOfErfaAndComesBack) {
    EXPECT_EQ(EpochJulianDate(2050), 2469807.5);
    const double now = EpochJulianDate(2026.5);
    const SkyPosition west = Precess({1e-3, 0.2}, now, J2000);
    EXPECT_GT(west.Ra, TwoPi - 0.01);
    EXPECT_LT(west.Ra, TwoPi);
    TemporaryFolder folder;
    std::ofstream rows(folder / "rows");
    rows << std::setprecision(17);
    Random random(7);
    for (int k = 0; k < 2000; ++k) {
        const SkyPosition start{random.Between(0, TwoPi), std::asin(random.Between(-1, 1))};
        const double from = EpochJulianDate(k % 2 == 0 ? 2000 : random.Between(1990, 2040));
        const double to = from + 365.25 * random.Between(-50, 50);
        const SkyPosition end = Precess(start, from, to);
        EXPECT_LT(Separation(start, Precess(end, to, from)), 0.01);
        EXPECT_EQ(Separation(start, Precess(start, from, from)), 0);
        rows << start.Ra << " " << start.Dec << " " << from << " " << to << " " << end.Ra << " "
             << end.Dec << " " << LocalSiderealTime(to, 90) - 6 << "\n";
    }
    rows.close();
    EXPECT_JUDGED("judgeTime.py", {(folder / "rows").string(), "0.0075"});
}

TEST(Clock, IsTheSameInEveryTimeZoneAndThroughSummerTime) {
#ifdef _WIN32
    // A program cannot choose its time zone here; Wine starts it in one.
    const char* zone = std::getenv("TZ");
    const bool newZealand = zone != nullptr && std::string(zone) == "Pacific/Auckland";
    for (const auto& [second, hours] : std::vector<std::pair<std::time_t, int>>{
             {1774746000, 13}, {1782900000, 12}, {1792890000, 13}, {1798761599, 13}}) {
        const LocalTime time =
            LocalTimeAt(std::chrono::system_clock::from_time_t(second) + milliseconds(250));
        const auto seconds = static_cast<double>(second);
        EXPECT_NEAR(JulianDate(time), 2440587.5 + (seconds + 0.25) / 86400, 1e-9);
        if (!newZealand) continue;
        EXPECT_EQ(time.BiasSeconds, -hours * 3600);
        EXPECT_EQ(ObserverLongitude(time), 180);
    }
    if (!newZealand) GTEST_SKIP() << "summer time was looked at in New Zealand only";
#else
    const auto set = [](const char* name, const char* value) {
        value == nullptr ? unsetenv(name) : setenv(name, value, 1);
        tzset();
    };
    const char* zoneBefore = std::getenv("TZ");
    const std::string zone = zoneBefore == nullptr ? "" : zoneBefore;
    // An hour around both changes of the clocks in Berlin, and New Year.
    for (const std::time_t second : {1774746000, 1774746001, 1792890000, 1792893599, 1798761599}) {
        const auto moment = std::chrono::system_clock::from_time_t(second) + milliseconds(250);
        const std::vector<std::pair<const char*, double>> zones = {
            {"UTC0", 0},
            {"CET-1CEST,M3.5.0,M10.5.0/3", 15},
            {"NZST-12NZDT,M9.5.0,M4.1.0/3", 180},
            {"NST3:30NDT,M3.2.0,M11.1.0", -52.5}};
        for (const auto& [name, longitude] : zones) {
            set("TZ", name);
            const LocalTime time = LocalTimeAt(moment);
            const auto seconds = static_cast<double>(second);
            EXPECT_NEAR(JulianDate(time), 2440587.5 + (seconds + 0.25) / 86400, 1e-9) << name;
            set("VESTREL_LONGITUDE", "nowhere");
            EXPECT_EQ(ObserverLongitude(time), longitude) << name;
            set("VESTREL_LONGITUDE", "-70.4");
            EXPECT_EQ(ObserverLongitude(time), -70.4);
        }
    }
    set("VESTREL_LONGITUDE", nullptr);
    set("TZ", zoneBefore == nullptr ? nullptr : zone.c_str());
#endif
}

TEST_F(Telescope, SyncSendsTheCentreOfDateAndLoadBringsItBack) {
    SyncTelescopeCommand(State, Port);  // nothing has been solved
    EXPECT_EQ(Script->Calls(), Texts{});
    Give("sync");
    EXPECT_EQ(Script->Calls(), (Texts{"create", "connect", "sync"}));
    // The vernal equinox moves by 3.075 seconds of time and 20.04" in a year.
    const double years = JulianEpoch(State.JulianDate) - 2000;
    EXPECT_NEAR(Script->SentHours * 3600, 3.075 * years, 0.01 * years);
    EXPECT_NEAR(Script->SentDegrees * 3600, 20.04 * years, 0.01 * years);
    Random random(5);
    for (int k = 0; k < 50; ++k) {
        State.Solution->CentreRA = random.Between(0, TwoPi);
        State.Solution->CentreDec = random.Between(-1.57, 1.57);
        Give("sync");
        Script->Set({}, {}, Script->SentHours, Script->SentDegrees);
        Give("ra");
        EXPECT_EQ(Script->Calls(), (Texts{"ra", "dec"}));  // connected once
        const SkyPosition loaded{ParseRA(State.Inputs.Ra), ParseDec(State.Inputs.Dec)};
        EXPECT_LT(Separation(State.Solution->Centre(), loaded), 0.15) << State.Inputs.Ra;
    }
    EXPECT_EQ(Port.Messages, Texts{});
    EXPECT_EQ(Port.Statuses.back(), "Telescope: position loaded");
}

TEST_F(Telescope, WhatFailsChangesNothingAndAConnectionOutlivesWhatIsRefused) {
    for (const std::string call : {"create", "connect", "ra", "dec", "sync"}) {
        Script->Set(call, {});
        State.TelescopeConnected = false;
        Port.Messages.clear();
        Give(call);
        const bool connects = call == "create" || call == "connect";
        EXPECT_EQ(Port.Messages, connects ? Texts{noConnection} : Texts{});
        EXPECT_EQ(State.Display.Status.Text, "Telescope: the cat is on the ?mount") << call;
        EXPECT_EQ(State.Display.Status.Colour, StatusColour::Red);
        EXPECT_EQ(State.TelescopeConnected, !connects);
        EXPECT_FALSE(State.Display.BusyIndicator);
        ExpectInputsUntouched();
        Script->Set({}, {});
        Give("sync");
        EXPECT_EQ(Script->Calls(), (connects ? Texts{"create", "connect", "sync"} : Texts{"sync"}))
            << call;
    }
    State.TelescopeConnected = false;
    State.CreateTelescope = nullptr;
    Give("ra");
    EXPECT_EQ(Port.Messages, Texts{noConnection});
}

TEST_F(Telescope, APositionThatCannotBeIsNotLoaded) {
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    constexpr double huge = std::numeric_limits<double>::infinity();
    for (const auto& [hours, degrees] : std::vector<std::pair<double, double>>{
             {nan, 0}, {0, nan}, {-0.01, 0}, {24.01, 0}, {1, 90.01}, {1, -91}, {huge, huge}}) {
        Script->Set({}, {}, hours, degrees);
        Give("ra");
        ExpectInputsUntouched();
        EXPECT_TRUE(Port.Statuses.back().starts_with("Telescope: no valid position: "));
        EXPECT_TRUE(State.TelescopeConnected);
    }
    // Values that are off by rounding are accepted.
    for (const auto& [hours, degrees] :
         std::vector<std::pair<double, double>>{{24, 0}, {-1e-9, 0}, {24.00001, 0}}) {
        Script->Set({}, {}, hours, degrees);
        Give("ra");
        const SkyPosition loaded{ParseRA(State.Inputs.Ra), ParseDec(State.Inputs.Dec)};
        EXPECT_LT(Separation(Precess({0, 0}, State.JulianDate, J2000), loaded), 1);
    }
    Script->Set({}, {}, 3, -90.0002);
    Give("ra");
    const SkyPosition loaded{ParseRA(State.Inputs.Ra), ParseDec(State.Inputs.Dec)};
    EXPECT_NEAR(Precess(loaded, J2000, State.JulianDate).Dec, -Pi / 2, 2 * arcsecond);
}

TEST_F(Telescope, ADriverThatHangsIsLeftInTimeAndDoesNoHarmLater) {
    constexpr milliseconds patient(60000);
    for (const std::string call : {"create", "connect", "ra", "dec", "sync"}) {
        const bool connects = call == "create" || call == "connect";
        if (!connects) {  // the calls before the one that hangs may take longer
            State.TelescopePatience = {patient, patient};
            Give("sync");
            ASSERT_TRUE(State.TelescopeConnected);
        }
        // Two of the calls follow another one under the same limit.
        const milliseconds impatient(call == "connect" || call == "dec" ? 2000 : 200);
        State.TelescopePatience = {connects ? impatient : patient, connects ? patient : impatient};
        Script->Set({}, call);
        Port.Messages.clear();
        Port.Yields = 0;
        const auto start = steady_clock::now();
        Give(call);
        EXPECT_LT(steady_clock::now() - start, patient / 2) << call;
        EXPECT_EQ(Script->Calls().back(), call);
        EXPECT_EQ(Port.Messages.empty(), !connects);
        EXPECT_EQ(State.Display.Status.Text, "Telescope: it does not answer");
        EXPECT_GE(Port.Yields, 2) << "the window was dead meanwhile";
        ExpectInputsUntouched();
        Script->Set({}, {});
        EXPECT_TRUE(Script->WaitForTheLast()) << "the driver left alone after " << call;
    }
    // The user does not want to wait and presses every button meanwhile.
    State.TelescopePatience = {patient, patient};
    Script->Set({}, "ra");
    Port.Messages.clear();
    Port.Yields = 0;
    Port.StopAtYield = 3;
    Port.Meddle = [this] {
        const AvailableCommands commands = CommandsFor(State);
        EXPECT_TRUE(!commands.Start && !commands.Sync && commands.Stop);
        LoadTelescopeCommand(State, Port);
        SyncTelescopeCommand(State, Port);
        PlateMatchCommand(State, Port);
    };
    Give("ra");
    EXPECT_EQ(Script->Calls(), (Texts{"create", "connect", "ra"}));
    EXPECT_EQ(Port.Messages, Texts{});
    EXPECT_EQ(State.Display.Status.Text, "Telescope: given up");
    Script->Set({}, {});
    EXPECT_TRUE(Script->WaitForTheLast());
}

}  // namespace vestrel
