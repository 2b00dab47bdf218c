// Runs in one process what the reliability benches measure: many solves, or one reading of a
// telescope.
//
//   vestrel-probe soak COUNT PARAMETERS   solves; a line of resident bytes and open descriptors
//   each
//                                         time a twentieth of them is done
//   vestrel-probe telescope               loads the position of $VESTREL_TELESCOPE; what came of it

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>

#include "astro/libStrings.h"
#include "bench/silentPort.h"
#include "platform/libConsole.h"
#include "platform/libPlatform.h"
#include "program/mCommandLine.h"
#include "program/mPlateMatch.h"
#include "program/mTelescope.h"
#include "telescope/libTelescopeDriver.h"

namespace vestrel {
namespace {

/// A port that prints messages.
class TellingPort : public SilentPort {
 public:
    void ShowMessage(const std::string& text, const std::string& /*title*/) override {
        std::printf("message: %s\n", WithoutControls(text).c_str());
    }
};

std::size_t ResidentBytes() {
    constexpr std::size_t pageBytes = 4096;
    std::size_t all = 0;
    std::size_t resident = 0;
    std::ifstream("/proc/self/statm") >> all >> resident;
    return resident * pageBytes;
}

std::ptrdiff_t OpenDescriptors() {
    // One of them belongs to the listing itself.
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}) - 1;
}

void Soak(int count, const std::string& parameters) {
    constexpr int points = 20;
    const auto state = std::make_unique<ProgramState>();
    state->Catalog.Folder = DefaultCatalogFolder();
    SilentPort port;
    for (int solve = 1; solve <= count; ++solve) {
        const UnattendedOutcome outcome = RunUnattended(*state, port, parameters);
        if (outcome.Result.Code != SolveCode::Solved || !outcome.ResultFileWritten) {
            throw std::runtime_error("solve " + std::to_string(solve) + ": " +
                                     outcome.Result.Message);
        }
        if (solve % std::max(1, count / points) == 0) {
            std::printf("%zu %td\n", ResidentBytes(), OpenDescriptors());
        }
    }
}

void LookAtTelescope() {
    ProgramState state;
    state.CreateTelescope = CreateTelescopeDriver;
    TellingPort port;
    const auto start = std::chrono::steady_clock::now();
    LoadTelescopeCommand(state, port);
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    std::printf("message: %s\n", WithoutControls(state.Display.Status.Text).c_str());
    std::printf("loaded: %s %s\n", state.Inputs.Ra.c_str(), state.Inputs.Dec.c_str());
    std::printf("seconds: %.2f\npeak: %zu\n", elapsed.count(), PeakMemoryBytes());
}

}  // namespace
}  // namespace vestrel

int main(int count, char** arguments) {
    try {
        int solves = 0;
        if (count == 4 && std::strcmp(arguments[1], "soak") == 0 &&
            std::from_chars(arguments[2], arguments[2] + std::strlen(arguments[2]), solves).ec ==
                std::errc()) {
            vestrel::Soak(solves, arguments[3]);
        } else if (count == 2 && std::strcmp(arguments[1], "telescope") == 0) {
            vestrel::LookAtTelescope();
        } else {
            std::fputs("usage: vestrel-probe soak COUNT PARAMETERS | telescope\n", stderr);
            return 2;
        }
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "vestrel-probe: %s\n", error.what());
        return 1;
    }
}
