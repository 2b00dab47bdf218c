// `bash` for hosts on Windows, which run solve-field by way of a shell of its own.

#include <cstdio>
#include <map>
#include <vector>

#include "astro/libStrings.h"
#include "compat/hostCommands.h"
#include "compat/libShellScript.h"
#include "platform/libConsole.h"
#include "platform/libFiles.h"
#include "platform/libPlatform.h"

namespace vestrel {

namespace {

constexpr int notFound = 127;

/// Runs the commands of scripts by their names, without regard to their folders.
class Shell {
 public:
    Shell(std::filesystem::path root, const CommandRunner& run)
        : root_(std::move(root)), run_(run) {}

    int RunScript(std::string_view script) {
        int code = 0;
        for (const ShellCommand& command : CommandsOf(script, variables_)) code = Run(command);
        return code;
    }

    int Run(const ShellCommand& command) {
        const std::string& name = command.front();
        if (name.ends_with(".sh")) return RunFile(name);
        const std::string last = name.substr(name.find_last_of("/\\") + 1);
        const std::vector<std::string> arguments(command.begin() + 1, command.end());
        if (const auto code = run_(last, arguments)) return *code;
        std::fprintf(stderr, "bash: %s: command not found\n", WithoutControls(name).c_str());
        return notFound;
    }

 private:
    /// A script, whose path is as seen from the shell's own root.
    int RunFile(const std::string& name) {
        constexpr std::size_t longest = 1 << 20;
        constexpr int deepest = 4;
        std::vector<unsigned char> bytes;
        const std::filesystem::path inRoot =
            root_ / PathFromText(name.substr(name.starts_with('/') ? 1 : 0));
        const bool found = depth_ < deepest && (ReadWholeFile(inRoot, longest, bytes) ||
                                                ReadWholeFile(PathFromText(name), longest, bytes));
        if (!found) {
            std::fprintf(stderr, "bash: %s: No such file or directory\n",
                         WithoutControls(name).c_str());
            return notFound;
        }
        ++depth_;
        const int code = RunScript({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
        --depth_;
        return code;
    }

    std::filesystem::path root_;
    const CommandRunner& run_;
    std::map<std::string, std::string> variables_;
    int depth_ = 0;
};

}  // namespace

int RunBash(const std::string& program, const std::vector<std::string>& arguments,
            const CommandRunner& run) {
    std::size_t at = 0;
    while (at < arguments.size() && arguments[at] != "-c" && arguments[at].starts_with('-')) ++at;
    if (at + 1 >= arguments.size() || arguments[at] != "-c") {
        std::fputs("usage: bash [-l] -c COMMAND, of which solve-field and wcsinfo are known\n",
                   stderr);
        return notFound;
    }
    Shell shell(PathFromText(program).parent_path().parent_path(), run);
    ShellCommand words(arguments.begin() + static_cast<std::ptrdiff_t>(at) + 1, arguments.end());
    if (!words.front().starts_with('\'')) return shell.RunScript(words.front());
    // Windows takes single quotes for letters: the command comes in parts, out of their double
    // quotes.
    words.front().erase(0, 1);
    if (words.back().ends_with('\'')) words.back().pop_back();
    if (words.back().empty()) words.pop_back();
    if (words.size() == 1) return shell.RunScript(words.front());
    return words.empty() ? 0 : shell.Run(words);
}

}  // namespace vestrel
