// Exit codes, failures, progress and Ctrl-C of the tool.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace vestrel {

/// The exit codes of the program. Scripts rely on the numbers.
enum class ToolExit : int {
    Good = 0,
    FaultsFound = 1,  ///< `verify` found something wrong
    WrongUsage = 2,
    BadInput = 3,  ///< an input is missing, unreadable or of the wrong kind
    CannotWrite = 4,
    Stopped = 130  ///< Ctrl-C, or another signal to end
};
inline constexpr int NumberOf(ToolExit code) {
    return static_cast<int>(code);
}

/// Ends a subcommand: the text goes to standard error, the code to the shell.
class ToolFailure : public std::runtime_error {
 public:
    ToolFailure(ToolExit code, const std::string& message)
        : std::runtime_error(message), Code(code) {}
    ToolExit Code;
};

/// Makes Ctrl-C (and the signals that end a session) only set a flag, so that unfinished work can
/// be undone. A second Ctrl-C ends the program at once.
void CatchStopSignals();

/// Throws a `ToolFailure` with `ToolExit::Stopped` after a stop signal. Cheap to call.
void ThrowIfStopped();

/// The exit code after a failure: `Stopped` after a stop signal, which often makes a read fail.
ToolExit ExitCodeAfter(ToolExit failure);

/// The text of the system's current error number, such as "No space left on device".
std::string SystemErrorText();

/// A number with thousands separators, "1,871,011".
std::string GroupedText(std::uint64_t number);

enum class ProgressStyle {
    Terminal,  ///< one line that is redrawn; nothing without a terminal
    Json       ///< for other programs: one object a line, {"task":"...","percent":37,"count":12}
};

/// Reports progress. Uses plain characters only, no colours.
class ProgressLine {
 public:
    explicit ProgressLine(std::FILE* stream, ProgressStyle style = ProgressStyle::Terminal);
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;
    ~ProgressLine() { Clear(); }

    /// Reports `done` of `total` as a percentage (none when `total` is 0), and `count` processed
    /// items. Writes at most a few times a second. Throws if a stop was signalled, so a loop that
    /// reports can be stopped.
    void Show(std::string_view task, std::uint64_t done, std::uint64_t total, std::uint64_t count);

    /// Removes the line, so that messages can be written.
    void Clear();

 private:
    void Draw(std::string_view task, std::optional<int> percent, std::uint64_t count);

    std::FILE* stream_;
    ProgressStyle style_;
    std::size_t drawn_ = 0;  // characters on the screen
    std::chrono::steady_clock::time_point next_{};
};

}  // namespace vestrel
