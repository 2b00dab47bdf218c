// What only the operating system knows: where files lie, which processes run, and memory.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <system_error>

namespace vestrel {

/// The folder that holds the catalog unless the user names another one. It need not exist.
///
/// `$VESTREL_CATALOG` when set; else on Windows the common application-data folder +
/// "\Harrowdene\KEL\", elsewhere the first of `$XDG_DATA_HOME/Harrowdene/KEL` (`~/.local/share`
/// when unset) and `/var/lib/Harrowdene/KEL` that exists, and the former when neither does.
std::filesystem::path DefaultCatalogFolder();

/// The settings file. `$VESTREL_SETTINGS` when set; else on Windows "Vestrel.ini" beside the
/// program when it is there, or in `%APPDATA%\Vestrel`; elsewhere
/// `$XDG_CONFIG_HOME/vestrel/Vestrel.ini` (`~/.config` when unset).
std::filesystem::path SettingsFilePath();

/// The file that remembers which images were opened last: `recent-images` in `$VESTREL_STATE` when
/// set; else on Windows where the settings file lies when `$VESTREL_SETTINGS` is unset, elsewhere
/// in `$XDG_STATE_HOME/vestrel` (`~/.local/state` when unset).
std::filesystem::path RecentImagesFilePath();

/// The folder that holds the running program; the current folder when it cannot be told.
std::filesystem::path ProgramFolder();

/// The number of this process.
long ProcessNumber();
/// Whether the process with a number runs, whoever owns it.
bool IsRunning(long process);

/// A path from UTF-8 text, and back. On Windows, text that is not valid becomes replacement
/// characters.
std::filesystem::path PathFromText(const std::string& utf8);
std::string TextFromPath(const std::filesystem::path& path);

/// The absolute form of a path, whether or not the file exists; the path itself when that fails. It
/// is our own, because on Windows the standard library takes a share ("\\server\share") for a
/// folder of the current drive.
std::filesystem::path AbsolutePath(const std::filesystem::path& path);

/// The path with its links resolved; its target need not exist. The path itself when there is an
/// `error`, and always on Windows, where the standard library knows no links. A link in a folder
/// where everybody may write but nobody may remove what is another's (as /tmp) counts only when it
/// is this user's or of the folder's owner: else it is an error (`permission_denied`), as Linux
/// itself has it.
std::filesystem::path FollowLinks(const std::filesystem::path& path, std::error_code& error);

/// The largest resident memory of this process so far (bytes); 0 when unknown.
std::size_t PeakMemoryBytes();

/// How a block of memory will be used.
enum class MemoryUse {
    Swept,     ///< all of it will be touched: large pages save page faults
    Scattered  ///< little of it will be touched: small pages save memory
};
/// Zero-filled memory for `bytes` bytes. Pages that are never touched cost nothing, so a huge but
/// empty image is cheap until it is written to.
/// @return null for 0 bytes
/// @throws std::bad_alloc
void* AllocateZeroed(std::size_t bytes, MemoryUse use);
/// Frees such a block; `bytes` as it was allocated. Null is allowed.
void FreeZeroed(void* block, std::size_t bytes) noexcept;

}  // namespace vestrel
