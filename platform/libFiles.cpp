#include "platform/libFiles.h"

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <string_view>
#include <system_error>

#ifdef _WIN32
#include <fcntl.h>
#include <io.h>
#include <share.h>
#include <sys/stat.h>
#else
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#endif
#ifdef __linux__
#include <sys/vfs.h>
#endif

#include "platform/libPlatform.h"
#include "platform/libSharedFiles.h"

namespace vestrel {
namespace fs = std::filesystem;

namespace {

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
    if (mode[0] == 'r' && fs::is_directory(path, ignored)) {
        errno = EISDIR;
        return nullptr;
    }
    if (std::string_view(mode) == "rb") return FileHandle(OpenShared(path));
#ifdef _WIN32
    const std::wstring wideMode(mode, mode + std::char_traits<char>::length(mode));
    return FileHandle(_wfopen(path.c_str(), wideMode.c_str()));
#else
    return FileHandle(std::fopen(path.c_str(), mode));
#endif
}

FileHandle OpenInput(const fs::path& path) {
#ifdef _WIN32
    return OpenFile(path, "rb");
#else
    return FileHandle(std::fopen(path.c_str(), "rb"));
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

bool SeekFile(std::FILE* file, std::uint64_t position) {
#ifdef _WIN32
    return _fseeki64(file, static_cast<std::int64_t>(position), SEEK_SET) == 0;
#else
    return fseeko(file, static_cast<off_t>(position), SEEK_SET) == 0;
#endif
}

#ifndef _WIN32
namespace {

/// Whether a file keeps its number: some file systems have none and make up others later.
bool KeepsItsNumber(const fs::path& path) {
#ifdef __linux__
    constexpr std::uint32_t fat = 0x4d44;
    constexpr std::uint32_t exFat = 0x2011bab0;
    constexpr std::uint32_t ntfs = 0x5346544e;
    constexpr std::uint32_t fuse = 0x65735546;
    constexpr std::uint32_t cifs = 0xff534d42;
    constexpr std::uint32_t smb2 = 0xfe534d42;
    struct statfs found {};
    if (statfs(path.c_str(), &found) != 0) return true;
    const auto type = static_cast<std::uint32_t>(found.f_type);
    return type != fat && type != exFat && type != ntfs && type != fuse && type != cifs &&
           type != smb2;
#else
    (void)path;
    return true;
#endif
}

}  // namespace
#endif

FileStamp StampOfFile(const fs::path& path) {
    std::error_code error;
    const auto changed = fs::last_write_time(path, error);
    if (error) return {};
    FileStamp stamp;
    stamp.ChangedAt = changed.time_since_epoch().count();
    const std::uintmax_t length = fs::file_size(path, error);
    stamp.Length = error ? 0 : length;
#ifndef _WIN32
    struct stat found {};
    if (stat(path.c_str(), &found) != 0) return {};
    if (KeepsItsNumber(path)) {
        stamp.Device = found.st_dev;
        stamp.Number = found.st_ino;
    }
#endif
    return stamp;
}

bool ReadWholeFile(const fs::path& path, std::size_t limit, std::vector<unsigned char>& bytes) {
    const FileHandle file = OpenFile(path, "rb");
    if (!file) return false;
    const std::int64_t length = FileLength(file.get());
    if (length < 0 || static_cast<std::uint64_t>(length) > limit) return false;
    bytes.resize(static_cast<std::size_t>(length));
    return std::fread(bytes.data(), 1, bytes.size(), file.get()) == bytes.size();
}

namespace {

std::error_code LastError() {
    return {errno != 0 ? errno : EIO, std::generic_category()};
}

bool WriteBytes(std::FILE* file, std::span<const unsigned char> bytes) {
    return std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
}

/// Appends what the file at `path` holds beyond its first `start` bytes. True when there is no
/// such file or no more in it.
bool AppendRest(std::FILE* file, const fs::path& path, std::size_t start) {
    std::error_code absent;
    if (!fs::exists(path, absent)) return true;
    const FileHandle old = OpenFile(path, "rb");
    if (!old) return false;
    const std::int64_t length = FileLength(old.get());
    if (length <= static_cast<std::int64_t>(start)) return length >= 0;
    if (!SeekFile(old.get(), start)) return false;
    std::vector<unsigned char> chunk(std::size_t{1} << 16);
    while (const std::size_t read = std::fread(chunk.data(), 1, chunk.size(), old.get())) {
        if (!WriteBytes(file, std::span(chunk).first(read))) return false;
    }
    return std::ferror(old.get()) == 0;
}

/// A file that was not there before; null when that fails.
FileHandle CreateNewFile(const fs::path& path) {
#ifdef _WIN32
    // The system's C library knows no mode "x".
    const int file = _wsopen(path.c_str(), _O_CREAT | _O_EXCL | _O_RDWR | _O_BINARY, _SH_DENYNO,
                             _S_IREAD | _S_IWRITE);
    return FileHandle(file < 0 ? nullptr : _fdopen(file, "w+b"));
#else
    return OpenFile(path, "w+bx");
#endif
}

/// Whether this process may write to a file that is there.
bool MayWrite(const fs::path& path) {
#ifdef _WIN32
    return _waccess(path.c_str(), 2) == 0;
#else
    return access(path.c_str(), W_OK) == 0;
#endif
}

/// What the names of a file's temporaries begin with. It is cut, because a name of the greatest
/// length leaves no room for the ending.
fs::path TemporaryStem(const fs::path& path) {
    constexpr std::size_t nameLength = 200;
    return path.filename().native().substr(0, nameLength);
}

/// The number of the process that writes a temporary, read from its name; 0 when the name is not
/// that of a temporary of this stem.
long WriterOf(const fs::path& name, const fs::path& stem) {
    if (!name.native().starts_with(stem.native())) return 0;
    const fs::path::string_type rest = name.native().substr(stem.native().size());
    const std::string ending(rest.begin(), rest.end());
    const char* place = ending.data();
    const char* const end = place + ending.size();
    const auto read = [&](auto& number) {
        if (place == end || *place != '.') return false;
        const auto [after, error] = std::from_chars(place + 1, end, number);
        place = after;
        return error == std::errc();
    };
    long process = 0;
    int number = 0;
    if (!read(process) || !read(number) || std::string_view(place, end) != ".tmp") return 0;
    return process;
}

/// Marks an open temporary as in use, for programs on other machines that share the folder: there
/// the number of its process says nothing.
void HoldTemporary([[maybe_unused]] std::FILE* file) {
#ifndef _WIN32
    (void)flock(fileno(file), LOCK_EX | LOCK_NB);
#endif
}

bool IsHeld(const fs::path& temporary) {
#ifdef _WIN32
    return !MayWrite(temporary);  // Windows removes no file that is open
#else
    // Never through a link, and never waiting for the other end of a pipe.
    const int file = open(temporary.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (file < 0) return true;
    const bool held = flock(file, LOCK_EX | LOCK_NB) != 0;
    close(file);
    return held;
#endif
}

/// Removes the temporaries of this file whose writers were killed.
void RemoveStaleTemporaries(const fs::path& path) {
    const fs::path stem = TemporaryStem(path);
    const fs::path folder = path.has_parent_path() ? path.parent_path() : fs::path(".");
    std::error_code error;
    std::vector<fs::path> stale;
    fs::directory_iterator entry(folder, error);
    for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
        const long writer = WriterOf(entry->path().filename(), stem);
        // In a container every process has the same few numbers: a dead one may have had our own.
        const bool mayBeStale = writer == ProcessNumber() || (writer > 0 && !IsRunning(writer));
        if (mayBeStale) stale.push_back(entry->path());
    }
    for (const fs::path& temporary : stale) {
        if (!IsHeld(temporary)) fs::remove(temporary, error);
    }
}

/// A new file beside `path`, under a name that it returns in `temporary`.
FileHandle CreateTemporary(const fs::path& path, fs::path& temporary) {
    // Existing files and links are never used: anyone who may write in the folder could have put
    // one there to make this program write elsewhere.
    const std::string ending = "." + std::to_string(ProcessNumber());
    RemoveStaleTemporaries(path);
    FileHandle file;
    constexpr int attempts = 100;
    for (int i = 0; i < attempts && !file; ++i) {
        temporary = path.parent_path() / TemporaryStem(path);
        temporary += ending + "." + std::to_string(i) + ".tmp";
        file = CreateNewFile(temporary);
    }
    if (file) HoldTemporary(file.get());
    return file;
}

/// Gives a new file the owner and the group of the one at `path`, as far as this user may.
void KeepOwner([[maybe_unused]] const fs::path& path, [[maybe_unused]] std::FILE* file) {
#ifndef _WIN32
    constexpr auto sameUser = static_cast<uid_t>(-1);
    struct stat old {};
    if (stat(path.c_str(), &old) != 0) return;
    if (fchown(fileno(file), old.st_uid, old.st_gid) != 0) {
        (void)!fchown(fileno(file), sameUser, old.st_gid);
    }
#endif
}

[[noreturn]] void Fail(const fs::path& path, std::error_code error) {
    throw std::system_error(error, "Cannot write " + TextFromPath(path));
}

void Replace(const fs::path& path, std::span<const unsigned char> bytes, bool keepRest) {
    NewFile file(path);
    errno = 0;
    if (!WriteBytes(file.Stream(), bytes) ||
        (keepRest && !AppendRest(file.Stream(), file.Path(), bytes.size()))) {
        Fail(path, LastError());
    }
    file.Commit();
}

}  // namespace

NewFile::NewFile(const fs::path& path) {
    std::error_code error;
    path_ = FollowLinks(path, error);
    if (error) Fail(path, error);
    // A rename would replace even a device or a write-protected file.
    const fs::file_status there = fs::status(path_, error);
    if (fs::exists(there)) {
        if (fs::is_directory(there)) Fail(path, std::make_error_code(std::errc::is_a_directory));
        if (!fs::is_regular_file(there)) {
            Fail(path, std::make_error_code(std::errc::not_supported));
        }
        if (!MayWrite(path_)) Fail(path, std::make_error_code(std::errc::permission_denied));
    }
    errno = 0;
    file_ = CreateTemporary(path_, temporary_);
    if (!file_) Fail(path, LastError());
    KeepOwner(path_, file_.get());
    // A file system without permissions has none to keep.
    if (fs::exists(there)) fs::permissions(temporary_, there.permissions(), error);
}

NewFile::~NewFile() {
    file_.reset();
    std::error_code ignored;
    if (!temporary_.empty()) fs::remove(temporary_, ignored);
}

void NewFile::Commit() {
    Finish();
    TakePlace();
}

void NewFile::CommitOver(const FileStamp& older) {
    Finish();
    if (StampOfFile(path_) != older) {
        throw std::runtime_error("The file is no longer what it was.");
    }
    TakePlace();
}

void NewFile::Finish() {
    errno = 0;
    if (!FlushToDisk(file_.get())) Fail(path_, LastError());
    if (std::fclose(file_.release()) != 0) Fail(path_, LastError());
}

void NewFile::TakePlace() {
    std::error_code error;
    Rename(temporary_, path_, error);
    if (MayBeInUse(error)) {
        throw std::system_error(error, "Cannot write " + TextFromPath(path_) +
                                           ", which another program may have open; close it there");
    }
    if (error) Fail(path_, error);
    temporary_.clear();
}

void WriteWholeFile(const fs::path& path, std::span<const unsigned char> bytes) {
    Replace(path, bytes, false);
}

void WriteWholeFile(const fs::path& path, std::string_view text) {
    WriteWholeFile(path,
                   std::span(reinterpret_cast<const unsigned char*>(text.data()), text.size()));
}

void ReplaceSameFile(const fs::path& path, const FileStamp& older,
                     std::span<const unsigned char> bytes) {
    NewFile file(path);
    errno = 0;
    if (!WriteBytes(file.Stream(), bytes)) Fail(path, LastError());
    file.CommitOver(older);
}

bool ReplaceFile(const fs::path& path, std::span<const unsigned char> bytes) {
    try {
        WriteWholeFile(path, bytes);
        return true;
    } catch (const std::system_error&) {
        return false;
    }
}

bool ReplaceFile(const fs::path& path, std::string_view text) {
    return ReplaceFile(path,
                       std::span(reinterpret_cast<const unsigned char*>(text.data()), text.size()));
}

void ReplaceFileStart(const fs::path& path, std::span<const unsigned char> bytes) {
    Replace(path, bytes, true);
}

}  // namespace vestrel
