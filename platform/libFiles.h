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

/// Opens a file in a `fopen` mode ("rb", "wb", "ab", ...); null when that fails. Folders and other
/// things that are not files do not open for reading.
FileHandle OpenFile(const std::filesystem::path& path, const char* mode);

/// The length of an open file in bytes, from 0; the position is moved to the start. −1 when the
/// file has no length (a pipe).
std::int64_t FileLength(std::FILE* file);

/// Reads a whole file of at most `limit` bytes. False when it cannot be read or is longer.
bool ReadWholeFile(const std::filesystem::path& path, std::size_t limit,
                   std::vector<unsigned char>& bytes);

/// Replaces a file by `bytes`, whole or not at all: they go to a temporary in the same folder,
/// which takes the file's place, and its permissions, in one step. Follows a link to its file.
/// False leaves an older file as it was, and so a write-protected one and anything that is not a
/// file.
bool ReplaceFile(const std::filesystem::path& path, std::span<const unsigned char> bytes);
bool ReplaceFile(const std::filesystem::path& path, std::string_view text);

/// Replaces the first bytes of a file, whole or not at all; what a longer file holds beyond them
/// stays.
/// @throws std::system_error with the system's reason, after which an older file is as it was
void ReplaceFileStart(const std::filesystem::path& path, std::span<const unsigned char> bytes);

}  // namespace vestrel
