#include "platform/libModule.h"

#include "platform/libPlatform.h"
#ifndef _WIN32
#include <dlfcn.h>
#endif

namespace vestrel {

namespace {

std::filesystem::path ModulePath(const std::string& module) {
    return ProgramFolder().parent_path() / "lib" / "vestrel" / (module + ".so");
}

}  // namespace

void* ModuleFunction(const std::string& module, const char* function, std::string& reason) {
#ifdef _WIN32
    (void)function;
    reason = "There is no module " + module + ".";
    return nullptr;
#else
    void* const handle = dlopen(ModulePath(module).c_str(), RTLD_NOW | RTLD_LOCAL);
    void* const found = handle == nullptr ? nullptr : dlsym(handle, function);
    if (found == nullptr) {
        const char* error = dlerror();  // NOLINT(concurrency-mt-unsafe): thread-safe in glibc
        reason = error == nullptr ? "" : error;
    }
    return found;
#endif
}

bool HasModule(const std::string& module) {
    std::error_code ignored;
    return std::filesystem::exists(ModulePath(module), ignored);
}

}  // namespace vestrel
