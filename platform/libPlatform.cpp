#include "platform/libPlatform.h"

#include <cstdlib>
#include <new>
#include <system_error>

#ifdef _WIN32
#include <windows.h>
// windows.h must come before the next two.
#include <psapi.h>
#include <shlobj.h>
#else
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>
#endif

namespace vestrel {
namespace fs = std::filesystem;

namespace {

fs::path FolderFromEnvironment(const char* variable) {
    const char* value = std::getenv(variable);
    return value == nullptr ? fs::path() : PathFromText(value);
}

#ifndef _WIN32
/// `$variable`, or `fallback` under the home folder when it is unset.
fs::path UserFolder(const char* variable, const char* fallback) {
    fs::path folder = FolderFromEnvironment(variable);
    // Relative values are to be ignored, by the base-directory convention.
    if (folder.is_absolute()) return folder;
    const fs::path home = FolderFromEnvironment("HOME");
    return home.empty() ? fs::path() : home / fallback;
}
#endif

}  // namespace

fs::path PathFromText(const std::string& utf8) {
#ifdef _WIN32
    return fs::path(reinterpret_cast<const char8_t*>(utf8.c_str()));
#else
    return {utf8};
#endif
}

std::string TextFromPath(const fs::path& path) {
#ifdef _WIN32
    const auto text = path.u8string();
    return std::string(text.begin(), text.end());
#else
    return path.string();
#endif
}

fs::path ProgramFolder() {
#ifdef _WIN32
    wchar_t buffer[32768];
    const DWORD length = GetModuleFileNameW(nullptr, buffer, 32768);
    if (length > 0 && length < 32768) return fs::path(buffer).parent_path();
#else
    std::error_code error;
    const fs::path program = fs::read_symlink("/proc/self/exe", error);
    if (!error) return program.parent_path();
#endif
    std::error_code ignored;
    return fs::current_path(ignored);
}

fs::path DefaultCatalogFolder() {
    fs::path folder = FolderFromEnvironment("VESTREL_CATALOG");
    if (!folder.empty()) return folder;
#ifdef _WIN32
    char common[MAX_PATH] = {};
    SHGetSpecialFolderPathA(nullptr, common, CSIDL_COMMON_APPDATA, FALSE);
    return fs::path(common) / "Harrowdene" / "KEL";
#else
    fs::path system = "/var/lib/Harrowdene/KEL";
    const fs::path user = UserFolder("XDG_DATA_HOME", ".local/share");
    if (user.empty()) return system;
    std::error_code ignored;
    fs::path own = user / "Harrowdene" / "KEL";
    return !fs::is_directory(own, ignored) && fs::is_directory(system, ignored) ? system : own;
#endif
}

fs::path SettingsFilePath() {
    fs::path file = FolderFromEnvironment("VESTREL_SETTINGS");
    if (!file.empty()) return file;
#ifdef _WIN32
    return ProgramFolder() / "Vestrel.ini";
#else
    const fs::path folder = UserFolder("XDG_CONFIG_HOME", ".config");
    return (folder.empty() ? ProgramFolder() : folder / "vestrel") / "Vestrel.ini";
#endif
}

fs::path RecentImagesFilePath() {
#ifdef _WIN32
    return ProgramFolder() / "recent-images";
#else
    const fs::path folder = UserFolder("XDG_STATE_HOME", ".local/state");
    return (folder.empty() ? ProgramFolder() : folder / "vestrel") / "recent-images";
#endif
}

std::size_t PeakMemoryBytes() {
#ifdef _WIN32
    PROCESS_MEMORY_COUNTERS counters{};
    if (!GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters)) return 0;
    return counters.PeakWorkingSetSize;
#else
    rusage usage{};
    if (getrusage(RUSAGE_SELF, &usage) != 0) return 0;
    return static_cast<std::size_t>(usage.ru_maxrss) * 1024;  // kibibytes on Linux
#endif
}

void* AllocateZeroed(std::size_t bytes, [[maybe_unused]] MemoryUse use) {
    if (bytes == 0) return nullptr;
#ifdef _WIN32
    void* block = std::calloc(bytes, 1);
    if (block == nullptr) throw std::bad_alloc();
#else
    void* block = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (block == MAP_FAILED) throw std::bad_alloc();
#ifdef MADV_HUGEPAGE
    // A large image would cost tens of thousands of page faults.
    constexpr std::size_t worthwhile = std::size_t{8} << 20;
    if (use == MemoryUse::Swept && bytes >= worthwhile) madvise(block, bytes, MADV_HUGEPAGE);
#endif
#endif
    return block;
}

void FreeZeroed(void* block, std::size_t bytes) noexcept {
    if (block == nullptr) return;
#ifdef _WIN32
    (void)bytes;
    std::free(block);
#else
    munmap(block, bytes);
#endif
}

}  // namespace vestrel
