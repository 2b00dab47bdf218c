#include "platform/libModule.h"

#include "platform/libPlatform.h"
#ifndef _WIN32
#include <dlfcn.h>
#endif

namespace vestrel {

namespace {

#ifndef _WIN32
/// The shared library that this code is part of; empty when it is part of the program.
std::filesystem::path OwnLibrary() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<const void*>(&OwnLibrary), &info) == 0) return {};
    std::error_code error;
    std::filesystem::path file = std::filesystem::canonical(info.dli_fname, error);
    if (error || std::filesystem::equivalent(file, "/proc/self/exe", error)) return {};
    return file;
}
#endif

/// lib/vestrel beside the program's folder; for a library, vestrel beside it or its folder.
std::filesystem::path ModuleFolder() {
#ifndef _WIN32
    if (const std::filesystem::path library = OwnLibrary(); !library.empty()) {
        std::error_code ignored;
        const std::filesystem::path folder = library.parent_path();
        for (const auto& parent : {folder, folder.parent_path()}) {
            if (std::filesystem::exists(parent / "vestrel", ignored)) return parent / "vestrel";
        }
    }
#endif
    return ProgramFolder().parent_path() / "lib" / "vestrel";
}

std::filesystem::path ModulePath(const std::string& module) {
    return ModuleFolder() / (module + ".so");
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
