// The few facts that only the operating system knows: where files live and how memory is had.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <system_error>

namespace vestrel {

/// The folder that holds the catalog when nothing else is said, without a test that it exists.
///
/// `$VESTREL_CATALOG` when set; else on Windows the common application-data folder +
/// "\Harrowdene\KEL\", elsewhere the first of `$XDG_DATA_HOME/Harrowdene/KEL` (`~/.local/share`
/// when unset) and `/var/lib/Harrowdene/KEL` that exists, and the former when neither does.
std::filesystem::path DefaultCatalogFolder();

/// The settings file. `$VESTREL_SETTINGS` when set; else on Windows "Vestrel.ini" beside the
/// program when it is there, or in `%APPDATA%\Vestrel`; elsewhere
/// `$XDG_CONFIG_HOME/vestrel/Vestrel.ini` (`~/.config` when unset).
std::filesystem::path SettingsFilePath();

/// The file that remembers which images were opened last. On Windows it is beside the
/// settings, $VESTREL_SETTINGS aside; elsewhere `$XDG_STATE_HOME/vestrel/recent-images`
/// (`~/.local/state` when unset).
std::filesystem::path RecentImagesFilePath();

/// The folder that holds the running program; the current folder when it cannot be told.
std::filesystem::path ProgramFolder();

/// The number of this process, and whether the one of a number runs; one of another user counts.
long ProcessNumber();
bool IsRunning(long process);

/// A path from UTF-8 text, and back.
std::filesystem::path PathFromText(const std::string& utf8);
std::string TextFromPath(const std::filesystem::path& path);

/// A path from its root on, without a look at what is there; the path itself when that fails. On
/// Windows the standard library takes a share ("\\server\share") for a folder of the current
/// drive.
std::filesystem::path AbsolutePath(const std::filesystem::path& path);

/// The path without the links in it; what it leads to need not be there. The path itself with an
/// `error`. On Windows links are not looked for: the standard library knows none there.
std::filesystem::path FollowLinks(const std::filesystem::path& path, std::error_code& error);

/// The largest resident memory that this process has had so far (bytes); 0 when unknown.
std::size_t PeakMemoryBytes();

/// Zero-filled memory for `bytes` bytes; throws std::bad_alloc when there is none. Pages that are
/// never touched cost nothing, so a huge but empty image is cheap until it is written to.
enum class MemoryUse {
    Swept,     ///< all of it will be touched: large pages save page faults
    Scattered  ///< little of it will be touched: small pages save memory
};
void* AllocateZeroed(std::size_t bytes, MemoryUse use);
void FreeZeroed(void* block, std::size_t bytes) noexcept;

}  // namespace vestrel
