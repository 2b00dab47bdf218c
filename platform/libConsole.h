// A program and the console that it was started in.
#pragma once

#include <cstdio>
#include <string>
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

/// Makes the console show UTF-8 and take escape sequences, as consoles elsewhere do anyway.
void PrepareConsole();

/// Whether a stream leads to a screen.
bool IsTerminal(std::FILE* stream);

}  // namespace vestrel
