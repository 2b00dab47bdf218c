#include "catalogtool/libCatalogFolder.h"

#include <charconv>
#include <string>
#include <string_view>
#include <system_error>

#ifndef _WIN32
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#endif

#include "catalog/libCatalogCells.h"
#include "catalogtool/libCatalogManifest.h"
#include "catalogtool/libToolReport.h"
#include "matching/libQuadFile.h"
#include "platform/libPlatform.h"
#include "platform/libSharedFiles.h"

namespace vestrel {
namespace fs = std::filesystem;

namespace {

constexpr std::string_view buildingMark = ".building-";
constexpr std::string_view asideMark = ".replaced-";

[[noreturn]] void FailToWrite(const fs::path& path, const std::string& why) {
    throw ToolFailure(ToolExit::CannotWrite, TextFromPath(path) + ": " + why);
}

[[noreturn]] void FailToRename(const fs::path& folder, std::error_code error) {
    FailToWrite(folder,
                error.message() +
                    (MayBeInUse(error) ? "; a program that uses the catalog may be running" : ""));
}

#ifdef _WIN32
// Windows can neither flush nor exchange folders.
void SyncFolder(const fs::path&, bool) {}
bool ExchangeFolders(const fs::path&, const fs::path&) {
    return false;
}
bool IsMountPoint(const fs::path&) {
    return false;
}
#else
/// Waits until a folder's entries are on the disk. With `wholeDisk`, everything below it too, by
/// flushing the file system once instead of every file.
void SyncFolder(const fs::path& folder, bool wholeDisk) {
    const int handle = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (handle < 0) FailToWrite(folder, SystemErrorText());
#ifdef __linux__
    const bool good = wholeDisk ? syncfs(handle) == 0 : fsync(handle) == 0;
#else
    if (wholeDisk) sync();
    const bool good = fsync(handle) == 0;
#endif
    const std::string why = SystemErrorText();
    close(handle);
    if (!good) FailToWrite(folder, why);
}

/// Swaps two folders in one step; false when the system cannot.
bool ExchangeFolders(const fs::path& a, const fs::path& b) {
#ifdef RENAME_EXCHANGE
    return renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_EXCHANGE) == 0;
#else
    return false;
#endif
}

bool IsMountPoint(const fs::path& folder) {
    struct stat own {};
    struct stat parent {};
    return stat(folder.c_str(), &own) == 0 && stat(folder.parent_path().c_str(), &parent) == 0 &&
           own.st_dev != parent.st_dev;
}
#endif

/// Whether an entry of a catalog folder was made by builds or solvers.
bool IsCatalogEntry(const fs::directory_entry& entry) {
    const std::string name = TextFromPath(entry.path().filename());
    const bool unfinished = (name.starts_with(std::string(ManifestName) + ".") ||
                             name.starts_with(std::string(QuadFileName) + ".")) &&
                            name.ends_with(".tmp");
    std::error_code ignored;
    return entry.is_regular_file(ignored) && !entry.is_symlink(ignored) &&
           (IsCellName(name) || name == ManifestName || name == QuadFileName || unfinished);
}

/// Removes the files of a catalog, and its folder unless that holds other things.
void RemoveCatalog(const fs::path& folder) {
    std::error_code ignored;
    for (fs::directory_iterator entry(folder, ignored), end; entry != end;
         entry.increment(ignored)) {
        if (IsCatalogEntry(*entry)) fs::remove(entry->path(), ignored);
    }
    fs::remove(folder, ignored);
}

/// Refuses a folder whose replacement would delete something other than a catalog.
void RequireCatalogOnly(const fs::path& folder) {
    std::error_code error;
    if (!fs::exists(folder, error)) return;
    if (!fs::is_directory(folder, error)) FailToWrite(folder, "is not a folder");
    fs::directory_iterator entry(folder, error);
    if (error) FailToWrite(folder, error.message());
    bool anyEntry = false;
    bool anyCell = false;
    for (const fs::directory_iterator end; entry != end; entry.increment(error)) {
        if (!IsCatalogEntry(*entry)) {
            FailToWrite(folder, "holds \"" + TextFromPath(entry->path().filename()) +
                                    "\", which is no part of a catalog; building would replace "
                                    "the whole folder. Move it away or name another folder");
        }
        anyEntry = true;
        anyCell = anyCell || IsCellName(TextFromPath(entry->path().filename()));
    }
    CatalogManifest manifest;
    if (anyEntry && !anyCell && ReadManifest(folder, manifest) != ManifestState::Good) {
        FailToWrite(folder, std::string("holds a ") + ManifestName + " that is not a catalog's");
    }
}

/// The process to which a building or set-aside folder of this catalog belongs; 0 when the name is
/// of neither kind.
long OwnerOf(const std::string& name, const std::string& prefix) {
    if (!name.starts_with(prefix)) return 0;
    long process = 0;
    const char* end = name.data() + name.size();
    const auto result = std::from_chars(name.data() + prefix.size(), end, process);
    return result.ec == std::errc() && result.ptr == end ? process : 0;
}

/// Whether a building folder is in use, which the number of its process does not always tell: in
/// containers many processes have the same number, and a killed one's may be this one's own.
enum class FolderUse { Free, Held, Unknown };

#ifdef _WIN32
// All processes of a Windows share their numbers.
int Hold(const fs::path&) {
    return -1;
}
void Release(int) {}
FolderUse UseOf(const fs::path&) {
    return FolderUse::Free;
}
#else
/// Not all file systems can: then −1.
int Hold(const fs::path& folder) {
    const int handle = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (handle >= 0) (void)flock(handle, LOCK_EX | LOCK_NB);
    return handle;
}
void Release(int hold) {
    if (hold >= 0) close(hold);
}
FolderUse UseOf(const fs::path& folder) {
    const int handle = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (handle < 0) return FolderUse::Unknown;
    const bool locked = flock(handle, LOCK_EX | LOCK_NB) == 0;
    const bool held = !locked && errno == EWOULDBLOCK;
    close(handle);
    return locked ? FolderUse::Free : held ? FolderUse::Held : FolderUse::Unknown;
}
#endif

/// Repairs what builds left that were killed or lost power.
void ClearDeadBuilds(const fs::path& catalog) {
    const std::string base = TextFromPath(catalog.filename());
    std::error_code ignored;
    for (fs::directory_iterator entry(catalog.parent_path(), ignored), end; entry != end;
         entry.increment(ignored)) {
        const std::string name = TextFromPath(entry->path().filename());
        const long builder = OwnerOf(name, base + std::string(buildingMark));
        const long replacer = OwnerOf(name, base + std::string(asideMark));
        const long owner = builder > 0 ? builder : replacer;
        const bool ours = owner == ProcessNumber();
        if (owner <= 0 || (IsRunning(owner) && !ours) || !entry->is_directory(ignored)) continue;
        const FolderUse use = UseOf(entry->path());
        if (use == FolderUse::Held || (ours && use == FolderUse::Unknown)) continue;
        if (replacer > 0 && !fs::exists(catalog, ignored)) {
            fs::rename(entry->path(), catalog, ignored);
        } else {
            RemoveCatalog(entry->path());
        }
    }
}

}  // namespace

BuildingFolder::BuildingFolder(const fs::path& catalog) {
    std::error_code error;
    // Links are followed, so that the folder behind a link is replaced and not the link.
    catalog_ = FollowLinks(AbsolutePath(catalog), error);
    if (catalog_.filename().empty()) catalog_ = catalog_.parent_path();
    if (error || catalog_.filename().empty()) FailToWrite(catalog, "is no place for a catalog");
    const std::string process = std::to_string(ProcessNumber());
    building_ = catalog_;
    building_ += std::string(buildingMark) + process;
    aside_ = catalog_;
    aside_ += std::string(asideMark) + process;

    fs::create_directories(catalog_.parent_path(), error);
    if (error) FailToWrite(catalog_.parent_path(), error.message());
    ClearDeadBuilds(catalog_);
    RequireCatalogOnly(catalog_);
    if (IsMountPoint(catalog_)) {
        FailToWrite(catalog_, "is a mount point, which cannot be replaced; name a folder in it");
    }
    if (!fs::create_directory(building_, error)) {
        FailToWrite(building_, error ? error.message() : "exists already");
    }
    hold_ = Hold(building_);
}

BuildingFolder::~BuildingFolder() {
    // After publishing, the old catalog is here if the two folders were exchanged.
    RemoveCatalog(building_);
    Release(hold_);
}

void BuildingFolder::Publish(bool inOneStep) {
    SyncFolder(building_, true);
    std::error_code error;
    if (!fs::exists(catalog_, error)) {
        Rename(building_, catalog_, error);
        if (error) FailToRename(catalog_, error);
    } else if (!inOneStep || !ExchangeFolders(building_, catalog_)) {
        Rename(catalog_, aside_, error);
        if (error) FailToRename(catalog_, error);
        Rename(building_, catalog_, error);
        if (error) {
            const std::error_code why = error;
            Rename(aside_, catalog_, error);
            FailToRename(catalog_, why);
        }
        RemoveCatalog(aside_);
    }
    SyncFolder(catalog_.parent_path(), false);
}

}  // namespace vestrel
