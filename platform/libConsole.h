// A program and the console that it was started in.
#pragma once

#include <cstdio>
#include <exception>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vestrel {

/// The arguments of this process, its name first. Windows hands them to `main` in a code page that
/// lacks most characters; here they are UTF-8.
class ProgramArguments {
 public:
    ProgramArguments(int argc, const char* const* argv);
    int Count() const { return static_cast<int>(pointers_.size()); }
    const char* const* Values() const { return pointers_.data(); }

 private:
    std::vector<std::string> texts_;
    std::vector<const char*> pointers_;  ///< into `texts_`
};

/// While it lives the console shows UTF-8 and takes escape sequences, as consoles elsewhere do
/// anyway; after it, it is as it was.
class PreparedConsole {
 public:
    PreparedConsole();
    // It has something to do on Windows.
    ~PreparedConsole();  // NOLINT(performance-trivially-destructible)
    PreparedConsole(const PreparedConsole&) = delete;
    PreparedConsole& operator=(const PreparedConsole&) = delete;

#ifdef _WIN32
 private:
    std::vector<std::pair<void*, unsigned long>> modes_;  ///< of each console, before
    unsigned codePage_ = 0;
#endif
};

/// What `main` does: hands the arguments to `run` and returns what it returns. A failure that
/// reaches it is told on standard error, after the program's name; `codeOf` says what it returns
/// then.
int RunProgram(const char* name, int argc, const char* const* argv,
               int (*run)(int argc, const char* const* argv),
               int (*codeOf)(const std::exception& failure));

/// The text (UTF-8) with "?" and "¿" for control characters. Texts out of files go through it on
/// their way to a terminal, which would obey them. The characters in `kept` stay.
std::string WithoutControls(std::string text, std::string_view kept = {});

/// A JSON text whose strings hold control characters as escapes only: also those that JSON lets
/// pass (DEL and the ones from 128 on).
std::string WithEscapedControls(std::string_view json);

/// Ends this process with an exit code when it still runs after so many seconds, whatever it waits
/// for. May be called in a signal handler.
void EndWithin(unsigned seconds, int exitCode);

/// Whether a stream leads to a screen.
bool IsTerminal(std::FILE* stream);

/// Whether it leads to one that takes escape sequences; old consoles print them.
bool TakesEscapeSequences(std::FILE* stream);

}  // namespace vestrel
