// A program and the console that it was started in.
#pragma once

#include <cstdio>
#include <string>
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

/// Ends this process with an exit code when it still runs after so many seconds, whatever it waits
/// for. May be called in a signal handler.
void EndWithin(unsigned seconds, int exitCode);

/// Whether a stream leads to a screen.
bool IsTerminal(std::FILE* stream);

/// Whether it leads to one that takes escape sequences; old consoles print them.
bool TakesEscapeSequences(std::FILE* stream);

}  // namespace vestrel
