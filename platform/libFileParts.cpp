#include "platform/libFileParts.h"

#include <algorithm>
#include <cerrno>

#ifdef _WIN32
#include <io.h>
#include <windows.h>
#else
#include <unistd.h>
#endif

namespace vestrel {

std::int64_t FilePosition(std::FILE* file) {
#ifdef _WIN32
    return _ftelli64(file);
#else
    return ftello(file);
#endif
}

#ifdef _WIN32
namespace {

/// Windows moves the position of a file with every read, so it is put back; the stream's own lock
/// keeps its other readers away meanwhile. Windows itself reads a file only for one thread at a
/// time, so nobody waits longer for the lock.
class KeptPosition {
 public:
    explicit KeptPosition(std::FILE* file)
        : file_(file), handle_(reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(file)))) {
        _lock_file(file_);
        known_ = SetFilePointerEx(handle_, LARGE_INTEGER{}, &position_, FILE_CURRENT);
    }
    ~KeptPosition() {
        if (known_) SetFilePointerEx(handle_, position_, nullptr, FILE_BEGIN);
        _unlock_file(file_);
    }
    KeptPosition(const KeptPosition&) = delete;
    KeptPosition& operator=(const KeptPosition&) = delete;
    HANDLE Handle() const { return handle_; }

 private:
    std::FILE* file_;
    HANDLE handle_;
    LARGE_INTEGER position_{};
    BOOL known_ = FALSE;
};

}  // namespace

std::size_t ReadAt(std::FILE* file, std::uint64_t position, void* bytes, std::size_t length) {
    const KeptPosition kept(file);
    std::size_t done = 0;
    while (done < length) {
        OVERLAPPED where{};
        where.Offset = static_cast<DWORD>(position + done);
        where.OffsetHigh = static_cast<DWORD>((position + done) >> 32);
        const auto most = static_cast<DWORD>(std::min<std::size_t>(length - done, 1U << 30));
        DWORD read = 0;
        char* place = static_cast<char*>(bytes) + done;
        if (!ReadFile(kept.Handle(), place, most, &read, &where) || read == 0) break;
        done += read;
    }
    return done;
}
#else
std::size_t ReadAt(std::FILE* file, std::uint64_t position, void* bytes, std::size_t length) {
    std::size_t done = 0;
    while (done < length) {
        char* place = static_cast<char*>(bytes) + done;
        const ssize_t read =
            pread(fileno(file), place, length - done, static_cast<off_t>(position + done));
        if (read < 0 && errno == EINTR) continue;
        if (read <= 0) break;
        done += static_cast<std::size_t>(read);
    }
    return done;
}
#endif

}  // namespace vestrel
