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

/// While it lives, a Windows console shows UTF-8 and takes escape sequences, as other consoles do
/// anyway. The destructor restores the console's former state.
class PreparedConsole {
 public:
    PreparedConsole();
    // The destructor has work to do on Windows only.
    ~PreparedConsole();  // NOLINT(performance-trivially-destructible)
    PreparedConsole(const PreparedConsole&) = delete;
    PreparedConsole& operator=(const PreparedConsole&) = delete;

#ifdef _WIN32
 private:
    std::vector<std::pair<void*, unsigned long>> modes_;  ///< of each console, before
    unsigned codePage_ = 0;
#endif
};

/// What every program does before anything else: a file that grows beyond the limit for this
/// process gives an error and no longer ends it, and standard streams that were closed lead
/// nowhere, so that no file that is opened gets the number of one.
void PrepareProcess();

/// The body of `main`: prepares the process and passes the arguments to `run` and returns its exit
/// code. An exception that leaves `run` is reported on standard error after the program's name, and
/// the exit code is `codeOf(exception)`.
int RunProgram(const char* name, int argc, const char* const* argv,
               int (*run)(int argc, const char* const* argv),
               int (*codeOf)(const std::exception& failure));

/// The text (UTF-8) with "?" or "¿" in place of each control character that is not in `kept`. Texts
/// from files go through it before they reach a terminal, which would obey such characters.
std::string WithoutControls(std::string text, std::string_view kept = {});

/// The JSON text with DEL and the control characters U+0080 to U+009F as escapes too, which JSON
/// itself lets pass.
std::string WithEscapedControls(std::string_view json);

/// Ends this process with `exitCode` if it still runs after `seconds`, whatever it waits for. May
/// be called in a signal handler.
void EndWithin(unsigned seconds, int exitCode);

/// Whether a stream leads to a screen.
bool IsTerminal(std::FILE* stream);

/// Whether a stream leads to a screen that takes escape sequences; old consoles print them instead.
bool TakesEscapeSequences(std::FILE* stream);

}  // namespace vestrel
