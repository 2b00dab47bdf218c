#include "console/consolePort.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "astro/libStrings.h"
#include "console/exitCodes.h"
#include "platform/libConsole.h"

namespace vestrel {

namespace {

// A signal handler may only use an object of this type.
volatile std::sig_atomic_t stopSignals = 0;

extern "C" void OnStopSignal(int /*signal*/) {
    // A second signal gets the default action and ends the program at once.
    for (const int other : {SIGINT, SIGTERM}) std::signal(other, SIG_DFL);
    stopSignals = 1;
    // The running solve notices the first signal, unless it is waiting for a disk or another
    // program.
    EndWithin(2, NumberOf(ExitCode::Stopped));
}

}  // namespace

bool MayUseColour(std::FILE* stream) {
    const char* refused = std::getenv("NO_COLOR");
    return TakesEscapeSequences(stream) && (refused == nullptr || *refused == 0);
}

ConsolePort::ConsolePort(ProgramState& state, bool quiet)
    : state_(state), drawsProgress_(!quiet && TakesEscapeSequences(stderr)) {
    stopSignals = 0;
    std::signal(SIGINT, OnStopSignal);
    std::signal(SIGTERM, OnStopSignal);
}

ConsolePort::~ConsolePort() {
    EndProgressLine();
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
}

void ConsolePort::ShowMessage(const std::string& text, const std::string& title) {
    EndProgressLine();
    std::fprintf(stderr, "%s: %s\n", title.c_str(), WithoutControls(text).c_str());
}

void ConsolePort::DisplayChanged() {
    Redraw();
}

void ConsolePort::ShowProgress(int percent) {
    if (percent == percent_) return;
    percent_ = percent;
    Redraw();
}

void ConsolePort::Yield() {
    if (stopSignals != 0) state_.StopRequested = true;
}

void ConsolePort::Redraw() {
    if (!drawsProgress_) return;
    std::string line = WithoutControls(state_.Display.Status.Text);
    if (percent_ > 0) {
        constexpr int width = 30;
        const auto filled = static_cast<std::size_t>(percent_ * width / 100);
        line += "  [" + std::string(filled, '#') + std::string(width - filled, '.') + "] " +
                std::to_string(percent_) + "%";
    }
    if (line == drawn_) return;
    drawn_ = line;
    std::fprintf(stderr, "\r\033[K%s", line.c_str());
    std::fflush(stderr);
}

void ConsolePort::EndProgressLine() {
    if (drawn_.empty()) return;
    drawn_.clear();
    std::fputs("\r\033[K", stderr);
    std::fflush(stderr);
}

}  // namespace vestrel
