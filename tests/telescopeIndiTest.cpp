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

#include "app/mTelescope.h"
#include "astro/libConversions.h"
#include "astro/libMath.h"
#include "astro/libTime.h"
#include "tests/testSupport.h"

namespace vestrel {

namespace {

using Texts = std::vector<std::string>;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

const Texts noConnection{"Vestrel 1.13 Error: Can't connect to SiTech"};

/// A socket on this machine; of any free port when it is 0.
class Socket {
 public:
    explicit Socket(int port) : Number(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        Address.sin_family = AF_INET;
        Address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        Address.sin_port = htons(static_cast<std::uint16_t>(port));
    }
    ~Socket() { close(Number); }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    sockaddr* Pointer() { return reinterpret_cast<sockaddr*>(&Address); }
    int Number;
    sockaddr_in Address{};
};

int FreePort() {
    Socket listener(0);
    socklen_t size = sizeof listener.Address;
    if (bind(listener.Number, listener.Pointer(), size) != 0 ||
        getsockname(listener.Number, listener.Pointer(), &size) != 0) {
        throw std::runtime_error("no port");
    }
    return ntohs(listener.Address.sin_port);
}

/// A server with a mount, which goes with the test however it ends.
class Server {
 public:
    Server(const std::filesystem::path& home, int port) {
        const std::string number = std::to_string(port);
        const std::string local = (home / "socket").string();
        process_ = fork();
        if (process_ == 0) {
            setpgid(0, 0);
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            setenv("HOME", home.c_str(), 1);
            if (std::freopen((home / "log").c_str(), "w", stderr) == nullptr) _exit(1);
            execlp("indiserver", "indiserver", "-p", number.c_str(), "-u", local.c_str(),
                   "indi_simulator_telescope", nullptr);
            _exit(1);
        }
        if (process_ < 0) throw std::runtime_error("no process");
        setpgid(process_, process_);
        for (int tries = 0; tries < 500 && !Answers(port); ++tries) {
            std::this_thread::sleep_for(milliseconds(20));
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
    static bool Answers(int port) {
        Socket client(port);
        return connect(client.Number, client.Pointer(), sizeof client.Address) == 0;
    }
    pid_t process_ = -1;
};

class IndiTelescope : public testing::Test {
 protected:
    IndiTelescope() {
        State.CreateTelescope = CreateTelescopeDriver;
        State.Display.SyncEnabled = true;
        Use("Telescope%20Simulator");
    }
    void SetUp() override {
        if (std::system("command -v indiserver indi_simulator_telescope indi_setprop >/dev/null") !=
            0) {
            GTEST_SKIP() << "indi-bin is not installed";
        }
    }
    void Use(const std::string& device) const {
        const std::string address = "indi://localhost:" + std::to_string(Number) + "/" + device;
        setenv("VESTREL_TELESCOPE", address.c_str(), 1);
    }
    /// Load, which is to end in time. @return whether it has loaded a position
    bool Load() {
        State.Inputs.Ra.clear();
        Port.Messages.clear();
        const auto start = steady_clock::now();
        LoadTelescopeCommand(State, Port);
        EXPECT_LT(steady_clock::now() - start, TelescopeLimits().Connect + milliseconds(500));
        return !State.Inputs.Ra.empty();
    }
    TemporaryFolder Folder;
    int Number = FreePort();
    ProgramState State;
    RecordingPort Port{State};
};

}  // namespace

TEST_F(IndiTelescope, IsSyncedToTheSolvedCentreAndReadBack) {
    const Server server(Folder.Path, Number);
    double worst = 0;
    for (const SkyPosition& centre : {SkyPosition{1.2, 0.5}, {6.28, -1.1}, {3.5, 1.3}}) {
        State.SolvedCentre = centre;
        SyncTelescopeCommand(State, Port);
        EXPECT_EQ(State.Display.Status.Text, "Telescope: synced to the image center");
        ASSERT_TRUE(Load()) << State.Display.Status.Text;
        const double dec = ParseDec(State.Inputs.Dec);
        const double east =
            std::remainder(ParseRA(State.Inputs.Ra) - centre.Ra, TwoPi) * std::cos(dec);
        worst = std::max(worst, std::hypot(east, dec - centre.Dec) * ArcsecondsPerRadian);
    }
    RecordProperty("WorstArcseconds", std::to_string(worst));
    EXPECT_LT(worst, 1);

    // A parked mount is to be left alone.
    for (const std::string property : {"PARK_OPTION.PARK_CURRENT", "PARK.PARK"}) {
        const std::string set = "indi_setprop -p " + std::to_string(Number) +
                                " 'Telescope Simulator.TELESCOPE_" + property + "=On'";
        ASSERT_EQ(std::system(set.c_str()), 0);
    }
    std::this_thread::sleep_for(milliseconds(1000));
    SyncTelescopeCommand(State, Port);
    // It says why, and that is passed on.
    EXPECT_TRUE(State.Display.Status.Text.starts_with("Telescope: the mount refuses the sync (") &&
                State.Display.Status.Text.find("unpark") != std::string::npos)
        << State.Display.Status.Text;
}

TEST_F(IndiTelescope, AServerThatDiesOrFallsSilentIsNoticedInTime) {
    EXPECT_FALSE(Load());
    EXPECT_EQ(Port.Messages, noConnection);
    {
        const Server server(Folder.Path, Number);
        ASSERT_TRUE(Load()) << State.Display.Status.Text;
    }
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
