// The telescope's commands with a real INDI server and its simulated mount.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <csignal>
#include <cstdlib>
#include <thread>

#include "astro/libConversions.h"
#include "astro/libMath.h"
#include "astro/libTime.h"
#include "program/mTelescope.h"
#include "telescope/libIndiAddress.h"
#include "tests/judge.h"
#include "tests/testSupport.h"

/// INDI's library is not built for the thread sanitizer, which therefore cannot see how its threads
/// synchronize.
extern "C" const char* __tsan_default_suppressions() {  // NOLINT(*-reserved-identifier)
    return "race:TcpSocketPrivate\n";
}
/// In INDI's library a device and its properties own each other and outlive the client.
extern "C" const char* __lsan_default_suppressions() {  // NOLINT(*-reserved-identifier)
    return "leak:libindiclient\n";
}

namespace vestrel {

namespace {

using Texts = std::vector<std::string>;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

const Texts noConnection{"Vestrel 1.13 Error: Can't connect to SiTech"};

int FreePort() {
    sockaddr_in any{};
    any.sin_family = AF_INET;
    socklen_t size = sizeof any;
    auto* address = reinterpret_cast<sockaddr*>(&any);
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    const bool bound = bind(listener, address, size) == 0;
    if (!bound || getsockname(listener, address, &size) != 0) throw std::runtime_error("no port");
    close(listener);
    return ntohs(any.sin_port);
}

bool Succeeds(const std::string& command) {
    return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

/// A server with a mount and a home folder of its own; it ends with the test, however that ends.
class Server {
 public:
    Server(const std::filesystem::path& home, int port) {
        const std::string number = std::to_string(port);
        const std::string local = (home / "socket").string();
        process_ = fork();
        if (process_ < 0) throw std::runtime_error("no process");
        if (process_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            setpgid(0, 0);
            setenv("HOME", home.c_str(), 1);
            if (std::freopen((home / "log").c_str(), "w", stderr) == nullptr) _exit(1);
            execlp("indiserver", "indiserver", "-p", number.c_str(), "-u", local.c_str(),
                   "indi_simulator_telescope", nullptr);
            _exit(1);
        }
        setpgid(process_, process_);
        for (int tries = 0; tries < 100; ++tries) {
            if (Succeeds("indi_getprop -t 5 -p " + number +
                         " 'Telescope Simulator.CONNECTION.CONNECT'"))
                break;
            std::this_thread::sleep_for(milliseconds(50));
        }
    }
    ~Server() {
        Signal(SIGKILL);
        waitpid(process_, nullptr, 0);
    }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    void Signal(int signal) const { kill(-process_, signal); }

 private:
    pid_t process_ = -1;
};

class IndiTelescope : public testing::Test {
 protected:
    IndiTelescope() {
        State.CreateTelescope = CreateTelescopeDriver;
        State.Solution.emplace();
        Use("Telescope%20Simulator");
    }
    void SetUp() override {
        if (!Succeeds("command -v indiserver indi_simulator_telescope indi_setprop")) {
            SKIP_OR_FAIL("indi-bin is not installed");
        }
    }
    void Use(const std::string& device) const {
        const std::string address = "indi://localhost:" + std::to_string(Number) + "/" + device;
        setenv("VESTREL_TELESCOPE", address.c_str(), 1);
    }
    /// Runs Load and requires that it ends in time. @return whether it has loaded a position
    bool Load() {
        State.Inputs.Ra.clear();
        Port.Messages.clear();
        const auto start = steady_clock::now();
        LoadTelescopeCommand(State, Port);
        EXPECT_LT(steady_clock::now() - start, TelescopeLimits().Connect * 2 / 3);
        return !State.Inputs.Ra.empty();
    }
    TemporaryFolder Folder;
    int Number = FreePort();
    ProgramState State;
    RecordingPort Port{State};
};

}  // namespace

TEST_F(IndiTelescope, TheServerTellsItsDevicesBeforeOneIsChosen) {
    const std::string address = "indi://localhost:" + std::to_string(Number);
    State.CreateTelescope = [address] { return CreateTelescopeDriverAt(address); };
    EXPECT_EQ(TelescopeDevicesCommand(State, Port), Texts{});
    EXPECT_NE(State.Display.Status.Text.find("no INDI server"), std::string::npos);
    const Server server(Folder.Path, Number);
    EXPECT_EQ(TelescopeDevicesCommand(State, Port), Texts{"Telescope Simulator"});
    EXPECT_EQ(AddressOfDevice(address, "Telescope Simulator"), address + "/Telescope Simulator");
    EXPECT_EQ(AddressOfDevice(address + "/Other", "A/B %"), address + "/A/B %25");
    EXPECT_FALSE(Load());
    EXPECT_NE(State.Display.Status.Text.find("names no device"), std::string::npos);
}

TEST_F(IndiTelescope, IsSyncedToTheSolvedCentreAndReadBack) {
    const Server server(Folder.Path, Number);
    double worst = 0;
    for (const SkyPosition& centre : {SkyPosition{1.2, 0.5}, {6.28, -1.1}, {3.5, 1.3}}) {
        State.Solution->CentreRA = centre.Ra;
        State.Solution->CentreDec = centre.Dec;
        const auto start = steady_clock::now();
        SyncTelescopeCommand(State, Port);
        EXPECT_EQ(State.Display.Status.Text, "Telescope: synced to the image centre");
        ASSERT_TRUE(Load()) << State.Display.Status.Text;
        const double dec = ParseDec(State.Inputs.Dec);
        const double east =
            std::remainder(ParseRA(State.Inputs.Ra) - centre.Ra, TwoPi) * std::cos(dec);
        // The sky moves on while the mount does not track.
        const double seconds = std::chrono::duration<double>(steady_clock::now() - start).count();
        worst = std::max(worst, std::hypot(east, dec - centre.Dec) * ArcsecondsPerRadian -
                                    15.05 * seconds * std::cos(dec));
    }
    RecordProperty("WorstArcsecondsBeyondDrift", std::to_string(worst));
    EXPECT_LT(worst, 1);

    // A parked mount must not be synced.
    for (const std::string property : {"PARK_OPTION.PARK_CURRENT", "PARK.PARK"}) {
        ASSERT_TRUE(Succeeds("indi_setprop -p " + std::to_string(Number) +
                             " 'Telescope Simulator.TELESCOPE_" + property + "=On'"));
    }
    std::this_thread::sleep_for(milliseconds(1000));
    SyncTelescopeCommand(State, Port);
    // The driver's reason is shown.
    EXPECT_TRUE(State.Display.Status.Text.starts_with("Telescope: the mount refuses the sync (") &&
                State.Display.Status.Text.find("unpark") != std::string::npos)
        << State.Display.Status.Text;
}

TEST_F(IndiTelescope, AMountJustConnectedIsWhereItSaysAndNotWhereCoordinatesBegin) {
    const Server server(Folder.Path, Number);
    ASSERT_TRUE(Load()) << State.Display.Status.Text;
    // The simulated mount starts at the pole of date.
    const SkyPosition loaded{ParseRA(State.Inputs.Ra), ParseDec(State.Inputs.Dec)};
    EXPECT_NEAR(Precess(loaded, J2000, State.JulianDate).Dec, Pi / 2, 0.001);
}

TEST_F(IndiTelescope, AServerThatDiesOrFallsSilentIsNoticedInTime) {
    EXPECT_FALSE(Load());
    EXPECT_EQ(Port.Messages, noConnection);
    {
        const Server server(Folder.Path, Number);
        ASSERT_TRUE(Load()) << State.Display.Status.Text;
    }
    std::this_thread::sleep_for(milliseconds(100));  // INDI's library itself has a race here
    EXPECT_FALSE(Load());
    EXPECT_EQ(State.Display.Status.Text, "Telescope: the INDI server has gone");
    const Server again(Folder.Path, Number);
    ASSERT_TRUE(Load()) << State.Display.Status.Text;
    again.Signal(SIGSTOP);
    EXPECT_FALSE(Load());
    EXPECT_EQ(State.Display.Status.Text, "Telescope: the mount does not answer");
    EXPECT_FALSE(Load());
    EXPECT_EQ(Port.Messages, noConnection);
    again.Signal(SIGCONT);
    EXPECT_TRUE(Load()) << State.Display.Status.Text;
    State.TelescopeConnected = false;
    Use("No such mount");
    EXPECT_FALSE(Load());
    EXPECT_EQ(State.Display.Status.Text, "Telescope: the INDI server has no such device");
}

TEST(IndiAddresses, HaveAPortAndADeviceOrTheUsualPortAndNone) {
    struct Case {
        const char* Text;
        const char* Host;
        unsigned Port;
        const char* Device;
    };
    for (const auto& [text, host, port, device] : std::vector<Case>{
             {"indi://localhost", "localhost", 7624, ""},
             {"indi://10.0.0.7/", "10.0.0.7", 7624, ""},
             {"indi://h:1/Telescope Simulator", "h", 1, "Telescope Simulator"},
             {"indi://h:65535/Telescope%20Simulator", "h", 65535, "Telescope Simulator"},
             {"indi://h/a%2fb/c%C3%BC", "h", 7624, "a/b/c\xC3\xBC"}}) {
        const auto address = ParseIndiAddress(text);
        ASSERT_TRUE(address) << text;
        EXPECT_EQ(address->Host, host);
        EXPECT_EQ(address->Port, port);
        EXPECT_EQ(address->Device, device);
    }
    EXPECT_EQ(NumericAddress("127.0.0.1"), "127.0.0.1");
    EXPECT_EQ(NumericAddress("localhost"), "127.0.0.1");
    EXPECT_EQ(NumericAddress("no such host.invalid"), "");
}

TEST_F(IndiTelescope, AnAddressThatIsNoneIsSaidSo) {
    for (const char* address :
         {"Telescope Simulator", "http://localhost/a", "indi://localhost", "indi://localhost/",
          "indi:///a", "indi://localhost:/a", "indi://localhost:0/a", "indi://localhost:65536/a",
          "indi://localhost:76x/a", "indi://localhost/a%2", "indi://localhost/a%zz",
          "indi://localhost/a%0Ab"}) {
        setenv("VESTREL_TELESCOPE", address, 1);
        EXPECT_FALSE(Load());
        EXPECT_EQ(Port.Messages, noConnection);
        EXPECT_EQ(State.Display.Status.Text,
                  "Telescope: $VESTREL_TELESCOPE is not indi://host:port/Device Name")
            << address;
    }
    setenv("VESTREL_TELESCOPE", "", 1);
    EXPECT_FALSE(Load());
    EXPECT_EQ(State.Display.Status.Text, "Telescope: no telescope is set up");
}

}  // namespace vestrel
