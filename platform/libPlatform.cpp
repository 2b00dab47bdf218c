#include "platform/libPlatform.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <new>

#ifdef _WIN32
#include <windows.h>
// windows.h must come before the next two.
#include <psapi.h>
#include <shlobj.h>
#else
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <vector>
#endif

namespace vestrel {
namespace fs = std::filesystem;

namespace {

#ifdef _WIN32
fs::path FolderFromEnvironment(const char* variable) {
    const wchar_t* value = _wgetenv(PathFromText(variable).c_str());
    return value == nullptr ? fs::path() : fs::path(value);
}

/// One of the folders that Windows knows by a number; empty when it has none.
fs::path ShellFolder(int number) {
    wchar_t folder[MAX_PATH] = {};
    return SHGetSpecialFolderPathW(nullptr, folder, number, TRUE) ? fs::path(folder) : fs::path();
}

constexpr const wchar_t* settingsName = L"Vestrel.ini";

/// Where the user's files are: beside the program when settings are there already, as on a memory
/// stick that goes from one computer to the next, else with the user's other application data.
fs::path UserFile(const wchar_t* name) {
    const fs::path program = ProgramFolder();
    std::error_code ignored;
    const fs::path data = ShellFolder(CSIDL_APPDATA);
    const bool beside = data.empty() || fs::exists(program / settingsName, ignored);
    return (beside ? program : data / "Vestrel") / name;
}
#else
fs::path FolderFromEnvironment(const char* variable) {
    const char* value = std::getenv(variable);
    return value == nullptr ? fs::path() : PathFromText(value);
}

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

#ifdef _WIN32
long ProcessNumber() {
    return static_cast<long>(GetCurrentProcessId());
}
bool IsRunning(long process) {
    const HANDLE handle = OpenProcess(SYNCHRONIZE, FALSE, static_cast<DWORD>(process));
    if (handle == nullptr) return GetLastError() != ERROR_INVALID_PARAMETER;
    const bool running = WaitForSingleObject(handle, 0) == WAIT_TIMEOUT;
    CloseHandle(handle);
    return running;
}
#else
long ProcessNumber() {
    return getpid();
}
bool IsRunning(long process) {
    return kill(static_cast<pid_t>(process), 0) == 0 || errno != ESRCH;
}
#endif

#ifdef _WIN32
// The standard library's conversions throw on text that is no UTF-8 and on file names that are no
// UTF-16; here either becomes a replacement character, and the file is not found.
fs::path PathFromText(const std::string& utf8) {
    const int length = static_cast<int>(utf8.size());
    std::wstring wide(utf8.size(), L'\0');
    const int used = MultiByteToWideChar(CP_UTF8, 0, utf8.data(), length, wide.data(), length);
    wide.resize(static_cast<std::size_t>(used));
    return {wide};
}

std::string TextFromPath(const fs::path& path) {
    const std::wstring& wide = path.native();
    const int length = static_cast<int>(wide.size());
    std::string utf8(wide.size() * 3, '\0');
    const int used = WideCharToMultiByte(CP_UTF8, 0, wide.data(), length, utf8.data(),
                                         static_cast<int>(utf8.size()), nullptr, nullptr);
    utf8.resize(static_cast<std::size_t>(used));
    return utf8;
}
#else
fs::path PathFromText(const std::string& utf8) {
    return {utf8};
}

std::string TextFromPath(const fs::path& path) {
    return path.string();
}
#endif

#ifdef _WIN32
fs::path AbsolutePath(const fs::path& path) {
    const DWORD size = GetFullPathNameW(path.c_str(), 0, nullptr, nullptr);
    std::wstring full(size, L'\0');
    const DWORD length = GetFullPathNameW(path.c_str(), size, full.data(), nullptr);
    if (length == 0 || length >= size) return path;
    full.resize(length);
    return {full};
}

fs::path FollowLinks(const fs::path& path, std::error_code& error) {
    error.clear();
    return path;
}
#else
fs::path AbsolutePath(const fs::path& path) {
    std::error_code error;
    fs::path full = fs::absolute(path, error);
    return error ? path : full;
}

namespace {

/// Whether someone else may have put this link into a folder that is everybody's.
bool MayBePlanted(const struct stat& link, const fs::path& folder) {
    struct stat status {};
    constexpr mode_t everybodys = S_ISVTX | S_IWOTH;
    return link.st_uid != geteuid() && stat(folder.c_str(), &status) == 0 &&
           (status.st_mode & everybodys) == everybodys && link.st_uid != status.st_uid;
}

}  // namespace

fs::path FollowLinks(const fs::path& path, std::error_code& error) {
    error.clear();
    if (path.empty()) return path;
    constexpr int mostLinks = 40;
    int links = 0;
    fs::path followed = "/";
    const fs::path whole = AbsolutePath(path);
    std::vector<fs::path> ahead(whole.begin(), whole.end());
    std::reverse(ahead.begin(), ahead.end());
    while (!ahead.empty() && !error) {
        const fs::path name = std::move(ahead.back());
        ahead.pop_back();
        if (name.empty() && ahead.empty()) followed /= "";  // it ended in a separator
        if (name.empty() || name == ".") continue;
        const fs::path place = name == ".." ? followed.parent_path() : followed / name;
        struct stat status {};
        const bool there = lstat(place.c_str(), &status) == 0;
        if (!there && errno != ENOENT) {
            error = {errno, std::generic_category()};
        } else if (!there || !S_ISLNK(status.st_mode)) {
            followed = place;
        } else if (++links > mostLinks) {
            error = std::make_error_code(std::errc::too_many_symbolic_link_levels);
        } else if (MayBePlanted(status, followed)) {
            error = std::make_error_code(std::errc::permission_denied);
        } else {
            const fs::path target = fs::read_symlink(place, error);
            const auto end = ahead.size();
            for (const fs::path& part : target) ahead.push_back(part);
            std::reverse(ahead.begin() + static_cast<std::ptrdiff_t>(end), ahead.end());
            if (target.is_absolute()) followed = "/";
        }
    }
    return error ? path : followed;
}
#endif

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
    return ShellFolder(CSIDL_COMMON_APPDATA) / "Harrowdene" / "KEL";
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
    return UserFile(settingsName);
#else
    const fs::path folder = UserFolder("XDG_CONFIG_HOME", ".config");
    return (folder.empty() ? ProgramFolder() : folder / "vestrel") / "Vestrel.ini";
#endif
}

fs::path RecentImagesFilePath() {
    const fs::path chosen = FolderFromEnvironment("VESTREL_STATE");
    if (!chosen.empty()) return chosen / "recent-images";
#ifdef _WIN32
    return UserFile(L"recent-images");
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

#ifndef _WIN32
namespace {

/// Gives back all of a mapping of `bytes` + `alignment` bytes but `bytes` at a multiple of
/// `alignment`.
void* KeepAligned(char* block, std::size_t bytes, std::size_t alignment) {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const std::size_t kept = (bytes + page - 1) / page * page;
    const std::size_t mapped = (bytes + alignment + page - 1) / page * page;
    const std::size_t before =
        (alignment - reinterpret_cast<std::uintptr_t>(block) % alignment) % alignment;
    if (before > 0) munmap(block, before);
    if (mapped > before + kept) munmap(block + before + kept, mapped - before - kept);
    return block + before;
}

}  // namespace
#endif

void* AllocateZeroed(std::size_t bytes, [[maybe_unused]] MemoryUse use) {
    if (bytes == 0) return nullptr;
#ifdef _WIN32
    void* block = VirtualAlloc(nullptr, bytes, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
    if (block == nullptr) throw std::bad_alloc();
#else
    // A large image would cost tens of thousands of page faults. Large pages begin at whole
    // multiples of their size, and so does the block.
    constexpr std::size_t largePage = std::size_t{2} << 20;
    const bool large = use == MemoryUse::Swept && bytes >= largePage;
    const std::size_t reserved = bytes + (large ? largePage : 0);
    if (reserved < bytes) throw std::bad_alloc();
    void* block =
        mmap(nullptr, reserved, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (block == MAP_FAILED) throw std::bad_alloc();
    if (large) block = KeepAligned(static_cast<char*>(block), bytes, largePage);
#ifdef MADV_HUGEPAGE
    if (large) madvise(block, bytes, MADV_HUGEPAGE);
#endif
#endif
    return block;
}

void FreeZeroed(void* block, std::size_t bytes) noexcept {
    if (block == nullptr) return;
#ifdef _WIN32
    (void)bytes;
    VirtualFree(block, 0, MEM_RELEASE);
#else
    munmap(block, bytes);
#endif
}

}  // namespace vestrel
