// Reading files whole and writing them so that they are complete or absent.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace vestrel {

struct FileCloser {
    void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};
using FileHandle = std::unique_ptr<std::FILE, FileCloser>;

/// Opens a file in a `fopen` mode ("rb", "wb", "ab", ...); null when that fails. Folders, pipes,
/// devices and other things that are not files do not open for reading.
FileHandle OpenFile(const std::filesystem::path& path, const char* mode);

/// Opens a file or a pipe to read it once, from its start; null when that fails. It waits for the
/// pipe's other end.
FileHandle OpenInput(const std::filesystem::path& path);

/// The length of an open file in bytes, from 0; the position is moved to the start. −1 when the
/// file has no length (a pipe).
std::int64_t FileLength(std::FILE* file);

/// Moves the position of an open file to a byte counted from its start. False when that fails.
bool SeekFile(std::FILE* file, std::uint64_t position);

/// What tells a file from another one that takes its place, and from itself after a change. All
/// zeros when there is no file.
struct FileStamp {
    std::uint64_t Device = 0;  ///< this and the number are not told on Windows
    std::uint64_t Number = 0;
    std::uint64_t Length = 0;
    std::int64_t ChangedAt = 0;  ///< in the steps of the system's clock for files

    bool operator==(const FileStamp&) const = default;
};

/// Take it before a file is opened: only while it stays the same the file holds what was read.
FileStamp StampOfFile(const std::filesystem::path& path);

/// Reads a whole file of at most `limit` bytes. False when it cannot be read or is longer.
bool ReadWholeFile(const std::filesystem::path& path, std::size_t limit,
                   std::vector<unsigned char>& bytes);

/// A file that is written piece by piece and appears whole or not at all: it grows as a temporary
/// file in the same folder, which `Commit` renames. The new file takes over the permissions of the
/// one it replaces, as well as its owner where the user may give files away, and a symbolic link
/// keeps pointing to its file. Write-protected files, anything that is not a file, and links that
/// someone else put into a folder for all (see `FollowLinks`) are refused.
class NewFile {
 public:
    /// @throws std::system_error with the system's reason
    explicit NewFile(const std::filesystem::path& path);
    ~NewFile();
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    std::FILE* Stream() const { return file_.get(); }
    /// The file that is to be replaced.
    const std::filesystem::path& Path() const { return path_; }
    /// Brings everything to the disk and puts the file in its place.
    /// @throws std::system_error, after which an older file is as it was
    void Commit();
    /// As `Commit`, unless the file in its place is no longer the one of the stamp: a program that
    /// takes pictures may have written the next one there.
    /// @throws std::runtime_error in that case, std::system_error as `Commit` does
    void CommitOver(const FileStamp& older);

 private:
    void Finish();
    void TakePlace();

    std::filesystem::path path_;
    std::filesystem::path temporary_;
    FileHandle file_;
};

/// Replaces a file by `bytes` as a `NewFile` does.
/// @throws std::system_error with the system's reason, after which an older file is as it was
void WriteWholeFile(const std::filesystem::path& path, std::span<const unsigned char> bytes);
void WriteWholeFile(const std::filesystem::path& path, std::string_view text);

/// Replaces the file of the stamp, and no other that has come to its place since.
/// @throws std::system_error as above, std::runtime_error when it is another one
void ReplaceSameFile(const std::filesystem::path& path, const FileStamp& older,
                     std::span<const unsigned char> bytes);

/// As `WriteWholeFile`, but returns false when that fails.
bool ReplaceFile(const std::filesystem::path& path, std::span<const unsigned char> bytes);
bool ReplaceFile(const std::filesystem::path& path, std::string_view text);

/// Replaces the first bytes of a file, whole or not at all; what a longer file holds beyond them
/// stays.
/// @throws std::system_error with the system's reason, after which an older file is as it was
void ReplaceFileStart(const std::filesystem::path& path, std::span<const unsigned char> bytes);

}  // namespace vestrel
