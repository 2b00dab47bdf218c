// Code that is loaded when it is needed first: what most runs do without must not cost them the
// start of its libraries.
#pragma once

#include <string>

namespace vestrel {

/// The address of a function in one of the program's own modules, which lie in ../lib/vestrel
/// beside the folder of the program, or in vestrel beside the library that this is part of or
/// beside its folder. Null when there is no such module, or when it cannot be
/// loaded: then `reason` says why. A module stays loaded.
void* ModuleFunction(const std::string& module, const char* function, std::string& reason);

/// Whether a module is installed, without loading it.
bool HasModule(const std::string& module);

}  // namespace vestrel
