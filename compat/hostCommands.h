// The commands that other programs know solvers by.
#pragma once

#include <string>
#include <vector>

namespace vestrel {

/// Solves as `astap` does. @return the exit code
int RunAstap(const std::vector<std::string>& arguments);

/// Solves as `solve-field` does. @return the exit code
int RunSolveField(const std::vector<std::string>& arguments);

/// Tells of world coordinates as `wcsinfo` does. @return the exit code
int RunWcsInfo(const std::vector<std::string>& arguments);

}  // namespace vestrel
