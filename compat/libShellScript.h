// The scripts that hosts hand to a shell in order to run a solver.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace vestrel {

/// The words of one command, its name first.
using ShellCommand = std::vector<std::string>;

/// The commands of a script, in order: words between blanks, parted by line ends and ";", with
/// single and double quotes, backslashes, comments, and $name or ${name} from what was assigned
/// before (a name without value is empty). Nothing else of a shell is there: such signs are parts
/// of words. An unclosed quote reaches to the end.
/// @param variables keeps what `name=value` assigns
std::vector<ShellCommand> CommandsOf(std::string_view script,
                                     std::map<std::string, std::string>& variables);

}  // namespace vestrel
