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

std::size_t ReadAt(std::FILE* file, std::uint64_t position, void* bytes, std::size_t length) {
    std::size_t done = 0;
    while (done < length) {
        char* place = static_cast<char*>(bytes) + done;
#ifdef _WIN32
        OVERLAPPED where{};
        where.Offset = static_cast<DWORD>(position + done);
        where.OffsetHigh = static_cast<DWORD>((position + done) >> 32);
        const auto most = static_cast<DWORD>(std::min<std::size_t>(length - done, 1U << 30));
        DWORD read = 0;
        const HANDLE handle = reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(file)));
        if (!ReadFile(handle, place, most, &read, &where) || read == 0) break;
        done += read;
#else
        const ssize_t read =
            pread(fileno(file), place, length - done, static_cast<off_t>(position + done));
        if (read < 0 && errno == EINTR) continue;
        if (read <= 0) break;
        done += static_cast<std::size_t>(read);
#endif
    }
    return done;
}

}  // namespace vestrel
