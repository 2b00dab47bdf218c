#include "platform/libSharedFiles.h"

#ifdef _WIN32
#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "platform/libPlatform.h"
#else
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#endif

namespace vestrel {
namespace fs = std::filesystem;

#ifdef _WIN32

namespace {

int ErrorNumberOf(DWORD error) {
    switch (error) {
        case ERROR_FILE_NOT_FOUND:
        case ERROR_PATH_NOT_FOUND:
        case ERROR_INVALID_NAME:
        case ERROR_BAD_NETPATH:
            return ENOENT;
        case ERROR_ACCESS_DENIED:
        case ERROR_SHARING_VIOLATION:
        case ERROR_LOCK_VIOLATION:
        case ERROR_USER_MAPPED_FILE:
            return EACCES;
        case ERROR_FILE_EXISTS:
        case ERROR_ALREADY_EXISTS:
            return EEXIST;
        case ERROR_DISK_FULL:
        case ERROR_HANDLE_DISK_FULL:
            return ENOSPC;
        case ERROR_TOO_MANY_OPEN_FILES:
            return EMFILE;
        case ERROR_NOT_SAME_DEVICE:
            return EXDEV;
        default:
            return EIO;
    }
}

/// Replaces a file that programs read, who go on with the old bytes. False, and nothing is changed,
/// where the system or the file system does not know that, or a reader does not share the file.
bool ReplaceWhileItIsRead(const fs::path& from, const fs::path& to) {
    // The headers show these names only to programs that need the newest Windows.
    constexpr DWORD replaceIfExists = 1;
    constexpr DWORD keepForReaders = 2;
    constexpr auto renameWithFlags = static_cast<FILE_INFO_BY_HANDLE_CLASS>(22);
    const std::wstring name = AbsolutePath(to).native();
    const std::size_t nameBytes = name.size() * sizeof(wchar_t);
    std::vector<std::max_align_t> room(
        (sizeof(FILE_RENAME_INFO) + nameBytes) / sizeof(std::max_align_t) + 1);
    auto* const wish = reinterpret_cast<FILE_RENAME_INFO*>(room.data());
    const DWORD flags = replaceIfExists | keepForReaders;
    std::memcpy(wish, &flags, sizeof flags);
    wish->FileNameLength = static_cast<DWORD>(nameBytes);
    std::memcpy(wish->FileName, name.data(), nameBytes);
    const HANDLE file = CreateFileW(from.c_str(), DELETE | SYNCHRONIZE,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                    OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    const BOOL renamed = SetFileInformationByHandle(
        file, renameWithFlags, wish, static_cast<DWORD>(sizeof(FILE_RENAME_INFO) + nameBytes));
    CloseHandle(file);
    return renamed != FALSE;
}

std::error_code RenameNow(const fs::path& from, const fs::path& to) {
    if (MoveFileExW(from.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING)) return {};
    const int error = ErrorNumberOf(GetLastError());
    if (error == EACCES && ReplaceWhileItIsRead(from, to)) return {};
    return {error, std::generic_category()};
}

}  // namespace

std::FILE* OpenShared(const fs::path& path) {
    const HANDLE handle = CreateFileW(path.c_str(), GENERIC_READ,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                      nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        errno = ErrorNumberOf(GetLastError());
        return nullptr;
    }
    const int number =
        _open_osfhandle(reinterpret_cast<std::intptr_t>(handle), _O_RDONLY | _O_BINARY);
    if (number < 0) {
        CloseHandle(handle);
        return nullptr;
    }
    std::FILE* const file = _fdopen(number, "rb");
    if (file == nullptr) _close(number);
    return file;
}

void Rename(const fs::path& from, const fs::path& to, std::error_code& error) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while ((error = RenameNow(from, to)) == std::errc::permission_denied &&
           std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

bool MayBeInUse(std::error_code error) {
    return error == std::errc::permission_denied;
}

#else

std::FILE* OpenShared(const fs::path& path) {
    // Never waiting for the other end of a pipe.
    const int number = open(path.c_str(), O_RDONLY | O_NONBLOCK);
    if (number < 0) return nullptr;
    struct stat status {};
    const bool isFile = fstat(number, &status) == 0 && S_ISREG(status.st_mode);
    std::FILE* const file = isFile ? fdopen(number, "rb") : nullptr;
    if (!isFile) errno = EINVAL;
    if (file == nullptr) close(number);
    return file;
}

void Rename(const fs::path& from, const fs::path& to, std::error_code& error) {
    fs::rename(from, to, error);
}

bool MayBeInUse(std::error_code) {
    return false;
}

#endif

}  // namespace vestrel
