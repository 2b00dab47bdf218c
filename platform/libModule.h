// Modules: code that is loaded when it is first needed, so that runs which do without it need not
// load the libraries it uses.
#pragma once

#include <string>

namespace vestrel {

/// The address of a function in one of the program's own modules. Modules lie in ../lib/vestrel, as
/// seen from the program's folder. When this code is part of a shared library, they lie in vestrel/
/// beside that library or beside its folder. A module stays loaded.
/// @return null when the module is missing or cannot be loaded; `reason` then says why
void* ModuleFunction(const std::string& module, const char* function, std::string& reason);

/// Whether a module is installed, without loading it.
bool HasModule(const std::string& module);

}  // namespace vestrel
