// Files that other programs have open at the same time.
//
// Elsewhere than on Windows a file can be replaced and removed while it is read: its readers keep
// the old bytes. Windows refuses that unless all readers have opened it so that they share its
// deletion, and unless it lies on a file system that keeps the old bytes for them (NTFS, since
// Windows 10). It always refuses while a program has mapped the file into its memory, which ours
// never do there.
#pragma once

#include <cstdio>
#include <filesystem>
#include <system_error>

namespace vestrel {

/// Opens a file to read its bytes, in a way that lets others replace it meanwhile as far as the
/// system can. Null when that fails or it is no file; `errno` then has the reason.
std::FILE* OpenShared(const std::filesystem::path& path);

/// Gives a file or a folder another name. An older file of that name is replaced in one step, or
/// stays when there is an `error`. On Windows it tries for two seconds to replace a file that is in
/// use, and to rename a folder in which a file is: programs that wait for a result and virus
/// scanners read often, but never for long.
void Rename(const std::filesystem::path& from, const std::filesystem::path& to,
            std::error_code& error);

/// Whether after such an `error` another program may have the file, or one in the folder, open.
/// Windows does not tell this from a lack of rights.
bool MayBeInUse(std::error_code error);

}  // namespace vestrel
