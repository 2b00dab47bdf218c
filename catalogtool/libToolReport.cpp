#include "catalogtool/libToolReport.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <nlohmann/json.hpp>
#include <system_error>

#include "platform/libConsole.h"

namespace vestrel {

namespace {

std::atomic<bool> stopSignalled = false;
static_assert(std::atomic<bool>::is_always_lock_free, "set from a signal handler");

extern "C" void RaiseStopFlag(int signal) {
    // A second signal ends the program at once.
    if (stopSignalled) {
        std::signal(signal, SIG_DFL);
        std::raise(signal);
    }
    stopSignalled = true;
    EndWithin(2, NumberOf(ToolExit::Stopped));
}

}  // namespace

void CatchStopSignals() {
#ifdef _WIN32
    std::signal(SIGINT, RaiseStopFlag);
#else
    struct sigaction action {};
    action.sa_handler = RaiseStopFlag;
    // Without SA_RESTART, a read that waits for a pipe is interrupted too.
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaction(signal, &action, nullptr);
#endif
}

void ThrowIfStopped() {
    if (stopSignalled) throw ToolFailure(ToolExit::Stopped, "stopped; nothing was changed");
}

ToolExit ExitCodeAfter(ToolExit failure) {
    return stopSignalled ? ToolExit::Stopped : failure;
}

std::string SystemErrorText() {
    return std::generic_category().message(errno);
}

std::string GroupedText(std::uint64_t number) {
    std::string text = std::to_string(number);
    for (std::ptrdiff_t at = std::ssize(text) - 3; at > 0; at -= 3) {
        text.insert(static_cast<std::size_t>(at), 1, ',');
    }
    return text;
}

ProgressLine::ProgressLine(std::FILE* stream, ProgressStyle style)
    : stream_(style == ProgressStyle::Json || IsTerminal(stream) ? stream : nullptr),
      style_(style) {}

void ProgressLine::Show(std::string_view task, std::uint64_t done, std::uint64_t total,
                        std::uint64_t count) {
    ThrowIfStopped();
    if (stream_ == nullptr) return;
    const auto now = std::chrono::steady_clock::now();
    if (now < next_) return;
    next_ = now + std::chrono::milliseconds(150);
    std::optional<int> percent;
    if (total > 0) {
        const double share = static_cast<double>(done) / static_cast<double>(total);
        percent = static_cast<int>(100 * std::min(share, 1.0));
    }
    if (style_ == ProgressStyle::Terminal) return Draw(task, percent, count);
    nlohmann::ordered_json line = {{"task", task}, {"percent", nullptr}, {"count", count}};
    if (percent) line["percent"] = *percent;
    // ASCII only: the task may contain a file name that is not UTF-8.
    const std::string text = line.dump(-1, ' ', true, nlohmann::json::error_handler_t::replace);
    std::fprintf(stream_, "%s\n", text.c_str());
    std::fflush(stream_);
}

void ProgressLine::Draw(std::string_view task, std::optional<int> percent, std::uint64_t count) {
    std::string line(task);
    line += ": ";
    if (percent) line += std::to_string(*percent) + " %, ";
    line += GroupedText(count);
    const std::size_t shown = line.size();
    // Blanks erase the rest of a longer line; an escape sequence would depend on the terminal.
    line.resize(std::max(shown, drawn_), ' ');
    std::fprintf(stream_, "\r%s", line.c_str());
    std::fflush(stream_);
    drawn_ = shown;
}

void ProgressLine::Clear() {
    if (stream_ == nullptr || drawn_ == 0) return;
    std::fprintf(stream_, "\r%s\r", std::string(drawn_, ' ').c_str());
    std::fflush(stream_);
    drawn_ = 0;
    next_ = {};
}

}  // namespace vestrel
