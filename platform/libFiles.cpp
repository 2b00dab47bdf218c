#include "platform/libFiles.h"

#include <system_error>

#ifdef _WIN32
#include <io.h>
#include <process.h>
#else
#include <unistd.h>
#endif

#include "platform/libPlatform.h"

namespace vestrel {
namespace fs = std::filesystem;

namespace {

long ProcessNumber() {
#ifdef _WIN32
    return _getpid();
#else
    return getpid();
#endif
}

/// Pushes the file's content to the disk, so that a rename never overtakes it.
bool FlushToDisk(std::FILE* file) {
    if (std::fflush(file) != 0) return false;
#ifdef _WIN32
    return _commit(_fileno(file)) == 0;
#else
    return fsync(fileno(file)) == 0;
#endif
}

}  // namespace

FileHandle OpenFile(const fs::path& path, const char* mode) {
    std::error_code ignored;
    if (mode[0] == 'r' && fs::is_directory(path, ignored)) return nullptr;
#ifdef _WIN32
    const std::wstring wideMode(mode, mode + std::char_traits<char>::length(mode));
    return FileHandle(_wfopen(path.c_str(), wideMode.c_str()));
#else
    return FileHandle(std::fopen(path.c_str(), mode));
#endif
}

std::int64_t FileLength(std::FILE* file) {
#ifdef _WIN32
    if (_fseeki64(file, 0, SEEK_END) != 0) return -1;
    const std::int64_t length = _ftelli64(file);
#else
    if (fseeko(file, 0, SEEK_END) != 0) return -1;
    const std::int64_t length = ftello(file);
#endif
    std::rewind(file);
    return length;
}

bool ReadWholeFile(const fs::path& path, std::size_t limit, std::vector<unsigned char>& bytes) {
    const FileHandle file = OpenFile(path, "rb");
    if (!file) return false;
    const std::int64_t length = FileLength(file.get());
    if (length < 0 || static_cast<std::uint64_t>(length) > limit) return false;
    bytes.resize(static_cast<std::size_t>(length));
    return std::fread(bytes.data(), 1, bytes.size(), file.get()) == bytes.size();
}

bool ReplaceFile(const fs::path& path, std::span<const unsigned char> bytes) {
    // A name of the greatest length leaves no room for more. And never a file or link that is there
    // already: whoever may write in the folder could have put it there for us to write through.
    constexpr std::size_t nameLength = 200;
    const std::string ending = "." + std::to_string(ProcessNumber());
    fs::path temporary;
    FileHandle file;
    constexpr int attempts = 100;
    for (int i = 0; i < attempts && !file; ++i) {
        temporary = path.parent_path() / path.filename().native().substr(0, nameLength);
        temporary += ending + "." + std::to_string(i) + ".tmp";
        file = OpenFile(temporary, "wbx");
    }
    std::error_code error;
    if (!file) return false;
    bool good = std::fwrite(bytes.data(), 1, bytes.size(), file.get()) == bytes.size();
    good = FlushToDisk(file.get()) && good;
    good = std::fclose(file.release()) == 0 && good;
    if (good) {
        fs::rename(temporary, path, error);
        good = !error;
    }
    if (!good) fs::remove(temporary, error);
    return good;
}

bool ReplaceFile(const fs::path& path, std::string_view text) {
    return ReplaceFile(path,
                       std::span(reinterpret_cast<const unsigned char*>(text.data()), text.size()));
}

}  // namespace vestrel
