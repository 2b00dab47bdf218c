// The telescope over ASCOM: Load and Sync with an automation server of our own in place of the
// mount's driver.

#include <gtest/gtest.h>
#include <windows.h>
#undef Yield

#include <cmath>

#include "astro/libConversions.h"
#include "astro/libMath.h"
#include "program/mTelescope.h"
#include "tests/testSupport.h"

namespace vestrel {

namespace {

using Texts = std::vector<std::string>;
using std::chrono::milliseconds;

const std::string noConnection = "Vestrel 1.13 Error: Can't connect to SiTech";
constexpr const wchar_t* programKey = L"SiTech.Telescope";
constexpr const wchar_t* classKey = L"CLSID\\{5D0C1F2E-7A64-4C7B-9E55-1B7B3A0F6C11}";

void SetKey(const std::wstring& key, const wchar_t* value, const std::wstring& text) {
    ASSERT_EQ(RegSetKeyValueW(HKEY_CLASSES_ROOT, key.c_str(), value, REG_SZ, text.c_str(),
                              static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t))),
              ERROR_SUCCESS);
}

/// A user whose telescope driver is `automationTelescope.dll`.
class Ascom : public testing::Test {
 protected:
    Ascom() {
        SetVariable("VESTREL_TEST_TELESCOPE_LOG", Folder / "log");
        Fault("");
        State.CreateTelescope = CreateTelescopeDriver;
        State.TelescopePatience = {milliseconds(20000), milliseconds(20000)};
        State.Solution.emplace();
    }
    ~Ascom() override {
        if (Ours) Unregister();
    }
    Ascom(const Ascom&) = delete;
    Ascom& operator=(const Ascom&) = delete;

    /// Skips the test when a driver is installed, so that nobody's own driver is replaced.
    void SetUp() override {
        wchar_t installed[64] = {};
        DWORD bytes = sizeof installed;
        if (RegGetValueW(HKEY_CLASSES_ROOT, (std::wstring(programKey) + L"\\CLSID").c_str(),
                         nullptr, RRF_RT_REG_SZ, nullptr, installed, &bytes) == ERROR_SUCCESS &&
            std::wstring(classKey).substr(6) != installed) {
            GTEST_SKIP() << "a telescope is installed here";
        }
        Ours = true;
    }
    /// Registers the driver as an installer does. A driver with the threading model "Both" is
    /// called on our thread, one with "Apartment" on a thread that COM makes.
    static void Register(const std::wstring& threading) {
        SetKey(std::wstring(programKey) + L"\\CLSID", nullptr, std::wstring(classKey).substr(6));
        const std::wstring server = std::wstring(classKey) + L"\\InprocServer32";
        SetKey(server, nullptr, (ProgramFolder() / "automationTelescope.dll").native());
        SetKey(server, L"ThreadingModel", threading);
    }
    static void Unregister() {
        RegDeleteTreeW(HKEY_CLASSES_ROOT, programKey);
        RegDeleteTreeW(HKEY_CLASSES_ROOT, classKey);
    }
    static void Fault(const std::string& fault) { SetVariable("VESTREL_TEST_TELESCOPE", fault); }
    /// The lines logged since the last call.
    Texts Log() {
        std::istringstream lines(ReadFile(Folder / "log"));
        Texts log;
        for (std::string line; std::getline(lines, line);) log.push_back(line);
        WriteFile(Folder / "log", "");
        return log;
    }

    bool Ours = false;
    TemporaryFolder Folder;
    ProgramState State;
    RecordingPort Port{State};
};

}  // namespace

TEST_F(Ascom, SyncAndLoadGoToTheDriverAndBack) {
    for (const wchar_t* threading : {L"Both", L"Apartment"}) {
        Register(threading);
        State.Solution->CentreRA = 1.2345;
        State.Solution->CentreDec = -0.4567;
        SyncTelescopeCommand(State, Port);
        LoadTelescopeCommand(State, Port);
        EXPECT_EQ(State.Display.Status.Text, "Telescope: position loaded");
        EXPECT_NEAR(ParseRA(State.Inputs.Ra), State.Solution->CentreRA, 1e-6);
        EXPECT_NEAR(ParseDec(State.Inputs.Dec), State.Solution->CentreDec, 1e-6);
        EXPECT_TRUE(State.TelescopeConnected && Port.Messages.empty());
        Texts log = Log();
        ASSERT_EQ(log.size(), 5U) << testing::PrintToString(log);
        EXPECT_TRUE(log[2].starts_with("SyncToCoordinates 5:4.7")) << log[2];
        EXPECT_NE(log[2].find(" 5:-26."), std::string::npos) << log[2];
        log.erase(log.begin() + 2);
        EXPECT_EQ(log, (Texts{"created", "Connected 11:True", "RightAscension", "Declination"}));
        State.Telescope.reset();
        State.TelescopeConnected = false;
        EXPECT_EQ(Log(), Texts{"destroyed"});
    }
}

TEST_F(Ascom, WhatTheDriverSaysOfAFailureIsShown) {
    LoadTelescopeCommand(State, Port);  // no driver is installed
    EXPECT_EQ(Port.Messages, Texts{noConnection});
    EXPECT_EQ(State.Display.Status.Text, "Telescope: no telescope is set up");
    Register(L"Apartment");
    for (const std::string member :
         {"Connected", "RightAscension", "Declination", "SyncToCoordinates"}) {
        const std::vector<std::pair<std::string, std::string>> faults = {
            {"throws", ": The mount is parked \xE2\x98\x85"}, {"fails", ": "}, {"missing", ": "}};
        for (const auto& [fault, words] : faults) {
            Port.Messages.clear();
            Fault(member + " " + fault);
            if (member[0] == 'S') {
                SyncTelescopeCommand(State, Port);
            } else {
                LoadTelescopeCommand(State, Port);
            }
            const std::string& status = State.Display.Status.Text;
            EXPECT_TRUE(status.starts_with("Telescope: " + member + words)) << status;
            EXPECT_GT(status.size(), 11 + member.size() + 2) << status;
            EXPECT_EQ(State.TelescopeConnected, member[0] != 'C');
            EXPECT_EQ(Port.Messages, member[0] == 'C' ? Texts{noConnection} : Texts{});
        }
    }
}

TEST_F(Ascom, AnyTypeOfNumberIsReadAndNothingElse) {
    Register(L"Both");
    for (const std::string type : {"float", "integer", "text", "double"}) {
        Fault("Declination " + type);
        LoadTelescopeCommand(State, Port);
        EXPECT_EQ(State.Display.Status.Text, "Telescope: position loaded") << type;
        EXPECT_NEAR(ParseDec(State.Inputs.Dec), -7 * Pi / 180, 0.01) << type;
    }
    for (const std::string type : {"word", "object", "nothing"}) {
        Fault("Declination " + type);
        LoadTelescopeCommand(State, Port);
        EXPECT_EQ(State.Display.Status.Text, "Telescope: Declination is no number") << type;
    }
}

TEST_F(Ascom, ADriverThatHangsIsLeft) {
    Register(L"Apartment");
    State.TelescopePatience = {milliseconds(20000), milliseconds(300)};
    Fault("RightAscension hangs");
    const auto start = std::chrono::steady_clock::now();
    LoadTelescopeCommand(State, Port);
    EXPECT_LT(std::chrono::steady_clock::now() - start, milliseconds(1400));
    EXPECT_EQ(State.Display.Status.Text, "Telescope: it does not answer");
    Fault("");
    LoadTelescopeCommand(State, Port);
    EXPECT_EQ(State.Display.Status.Text, "Telescope: position loaded");
}

}  // namespace vestrel
