#include "platform/libConsole.h"

#ifdef _WIN32
#include <windows.h>
// windows.h must come before the next two.
#include <io.h>
#include <shellapi.h>
#else
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#endif

#include <csignal>
#include <memory>

#include "platform/libPlatform.h"

namespace vestrel {

ProgramArguments::ProgramArguments(int argc, const char* const* argv) : texts_(argv, argv + argc) {
#ifdef _WIN32
    int count = 0;
    const std::unique_ptr<wchar_t*[], decltype(&LocalFree)> wide(
        CommandLineToArgvW(GetCommandLineW(), &count), LocalFree);
    if (wide) {
        texts_.clear();
        for (int i = 0; i < count; ++i) texts_.push_back(TextFromPath(wide[i]));
    }
#endif
    for (const std::string& text : texts_) pointers_.push_back(text.c_str());
}

int RunProgram(const char* name, int argc, const char* const* argv,
               int (*run)(int argc, const char* const* argv),
               int (*codeOf)(const std::exception& failure)) {
    PrepareProcess();
    try {
        const ProgramArguments arguments(argc, argv);
        const PreparedConsole console;
        return run(arguments.Count(), arguments.Values());
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "%s: %s\n", name, WithoutControls(failure.what(), "\n").c_str());
        return codeOf(failure);
    }
}

std::string WithoutControls(std::string text, std::string_view kept) {
    unsigned char before = 0;
    for (char& c : text) {
        const auto code = static_cast<unsigned char>(c);
        // Also those of two bytes, C2 80 to C2 9F: the second becomes a letter without meaning.
        const bool second = before == 0xC2 && code >= 0x80 && code < 0xA0;
        if ((code < 32 || code == 127) && kept.find(c) == std::string_view::npos) c = '?';
        if (second) c = '\xBF';
        before = code;
    }
    return text;
}

std::string WithEscapedControls(std::string_view json) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string result;
    for (std::size_t i = 0; i < json.size(); ++i) {
        const auto code = static_cast<unsigned char>(json[i]);
        const auto next = static_cast<unsigned char>(i + 1 < json.size() ? json[i + 1] : 0);
        const bool second = code == 0xC2 && next >= 0x80 && next < 0xA0;
        if (code != 127 && !second) {
            result += json[i];
            continue;
        }
        const unsigned char control = second ? next : code;
        result += "\\u00";
        result += digits[control >> 4];
        result += digits[control & 15];
        if (second) ++i;
    }
    return result;
}

#ifdef _WIN32

namespace {

struct LateEnd {
    DWORD Milliseconds;
    UINT ExitCode;
};
LateEnd lateEnd{};

DWORD WINAPI EndLate(void* /*unused*/) {
    Sleep(lateEnd.Milliseconds);
    TerminateProcess(GetCurrentProcess(), lateEnd.ExitCode);
    return 0;
}

/// The console that a stream leads to; null when it leads elsewhere. The C library's own test takes
/// the null device for one too.
HANDLE ConsoleOf(std::FILE* stream, DWORD& mode) {
    const auto handle = reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(stream)));
    return GetConsoleMode(handle, &mode) ? handle : nullptr;
}

}  // namespace

void PrepareProcess() {}

void EndWithin(unsigned seconds, int exitCode) {
    lateEnd = {seconds * 1000, static_cast<UINT>(exitCode)};
    const HANDLE thread = CreateThread(nullptr, 0, EndLate, nullptr, 0, nullptr);
    if (thread != nullptr) CloseHandle(thread);
}

PreparedConsole::PreparedConsole() : codePage_(GetConsoleOutputCP()) {
    for (std::FILE* stream : {stdout, stderr}) {
        DWORD mode = 0;
        const HANDLE console = ConsoleOf(stream, mode);
        if (console == nullptr) continue;
        modes_.emplace_back(console, mode);
        SetConsoleOutputCP(CP_UTF8);
        SetConsoleMode(console, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
    }
}

PreparedConsole::~PreparedConsole() {
    if (modes_.empty()) return;
    std::fflush(stdout);  // in the code page that it was written for
    SetConsoleOutputCP(codePage_);
    // Both streams may lead to one console, whose first mode is the one before.
    for (auto mode = modes_.rbegin(); mode != modes_.rend(); ++mode) {
        SetConsoleMode(mode->first, mode->second);
    }
}

bool IsTerminal(std::FILE* stream) {
    DWORD mode = 0;
    return ConsoleOf(stream, mode) != nullptr;
}

bool TakesEscapeSequences(std::FILE* stream) {
    DWORD mode = 0;
    return ConsoleOf(stream, mode) != nullptr && (mode & ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0;
}

#else

namespace {

// A signal handler may use objects of this type only.
volatile std::sig_atomic_t lateExitCode = 0;

volatile std::sig_atomic_t secondsLeft = 0;

/// The first alarm only interrupts waiting calls: a signal that came just before a call began to
/// wait did not interrupt it.
extern "C" void EndLate(int /*signal*/) {
    if (secondsLeft == 0) _exit(lateExitCode);
    alarm(static_cast<unsigned>(secondsLeft));
    secondsLeft = 0;
}

}  // namespace

void PrepareProcess() {
    std::signal(SIGXFSZ, SIG_IGN);
    // Only to be read: what is written there must fail, as it does on a closed stream.
    int file = 0;
    while (file >= 0 && file <= STDERR_FILENO) file = open("/dev/null", O_RDONLY);
    if (file >= 0) close(file);
}

void EndWithin(unsigned seconds, int exitCode) {
    lateExitCode = exitCode;
    struct sigaction action {};
    action.sa_handler = EndLate;  // without SA_RESTART: what waits is to end
    sigaction(SIGALRM, &action, nullptr);
    secondsLeft = static_cast<std::sig_atomic_t>(seconds - seconds / 2);
    alarm(std::max(seconds / 2, 1U));
}

PreparedConsole::PreparedConsole() = default;
PreparedConsole::~PreparedConsole() = default;

bool IsTerminal(std::FILE* stream) {
    return isatty(fileno(stream)) != 0;
}

bool TakesEscapeSequences(std::FILE* stream) {
    return IsTerminal(stream);
}

#endif

}  // namespace vestrel
