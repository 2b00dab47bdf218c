// The solver commands that other programs call.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace vestrel {

/// Solves as `astap` does. @return the exit code
int RunAstap(const std::vector<std::string>& arguments);

/// Solves as `solve-field` does. @return the exit code
int RunSolveField(const std::vector<std::string>& arguments);

/// Prints world coordinates as `wcsinfo` does. @return the exit code
int RunWcsInfo(const std::vector<std::string>& arguments);

/// Runs the command of a name; nothing when there is none of that name.
using CommandRunner =
    std::function<std::optional<int>(const std::string& name, const std::vector<std::string>&)>;

/// Runs these commands as `bash -l -c` does. Hosts on Windows have a folder of astrometry.net with
/// a shell in `bin`, and write scripts to `tmp` beside it: `/tmp` for that shell.
/// @param program path that the shell was called by. @return the exit code of the last command
int RunBash(const std::string& program, const std::vector<std::string>& arguments,
            const CommandRunner& run);

}  // namespace vestrel
