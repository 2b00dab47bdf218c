#ifdef _WIN32
#include <windows.h>
// windows.h must come before the next one.
#include <psapi.h>

#include <algorithm>
#include <array>
#else
#include <unistd.h>
#endif

// Not in testSupport.cpp, as windows.h has macros by the names of our members.
namespace vestrel {

/// The number of a process that runs and is not this one.
long OtherProcess() {
#ifdef _WIN32
    std::array<DWORD, 1024> all{};
    DWORD bytes = 0;
    EnumProcesses(all.data(), sizeof all, &bytes);
    const auto end = all.begin() + bytes / sizeof(DWORD);
    return static_cast<long>(*std::find_if(all.begin(), end, [](DWORD process) {
        return process != 0 && process != GetCurrentProcessId();
    }));
#else
    return getppid();
#endif
}

}  // namespace vestrel
