// One program under several names: the name by which it is called decides what it does.

#include <csignal>
#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <vector>

#include "astro/libStrings.h"
#include "compat/hostCommands.h"
#include "platform/libConsole.h"
#include "platform/libPlatform.h"

namespace vestrel {
namespace {

std::optional<int> RunCommand(const std::string& name, const std::vector<std::string>& arguments) {
    if (name == "astap" || name == "astap_cli") return RunAstap(arguments);
    if (name == "solve-field") return RunSolveField(arguments);
    if (name == "wcsinfo") return RunWcsInfo(arguments);
    return std::nullopt;
}

int Run(int argc, const char* const* argv) {
#ifndef _WIN32
    // Hosts need the exit code even when they have closed the pipe.
    std::signal(SIGPIPE, SIG_IGN);
#endif
    std::vector<std::string> arguments(argv, argv + argc);
    if (arguments.empty()) arguments.emplace_back();
    const auto nameIn = [](const std::string& path) {
        std::filesystem::path file = PathFromText(path).filename();
        if (file.extension() == ".exe" || file.extension() == ".EXE") file = file.stem();
        return TextFromPath(file);
    };
    std::string program = arguments.front();
    arguments.erase(arguments.begin());
    if (nameIn(program) == "vestrel-compat" && !arguments.empty()) {
        program = arguments.front();
        arguments.erase(arguments.begin());
    }
    const std::string name = nameIn(program);
    if (name == "bash") return RunBash(program, arguments, RunCommand);
    if (const auto code = RunCommand(name, arguments)) return *code;
    const bool help = name == "-h" || name == "--help";
    std::fputs(
        "usage: vestrel-compat astap|astap_cli|solve-field|wcsinfo|bash arguments...\n"
        "Links of these names do the same; programs that call such a solver are given their "
        "folder.\n",
        help ? stdout : stderr);
    return help ? 0 : 1;
}

}  // namespace
}  // namespace vestrel

int main(int argc, char** argv) {
    return vestrel::RunProgram("vestrel-compat", argc, argv, vestrel::Run,
                               [](const std::exception&) { return 1; });
}
