// Replaces a catalog folder as a whole, so that a solver sees either the old catalog or the new
// one.
#pragma once

#include <filesystem>

namespace vestrel {

/// A folder beside the catalog's in which the new catalog is built. Unless it is published it is
/// removed, so that a failure or Ctrl-C leaves only the old catalog.
class BuildingFolder {
 public:
    /// Prepares to replace the catalog at `catalog` (which need not exist yet): removes leftovers
    /// of killed builds, restores a catalog that one of them had set aside, and creates the
    /// building folder.
    ///
    /// Throws a `ToolFailure` when `catalog` holds anything that is not part of a catalog, so that
    /// a mistyped path does not delete other files, or when its parent cannot be written to.
    explicit BuildingFolder(const std::filesystem::path& catalog);
    ~BuildingFolder();
    BuildingFolder(const BuildingFolder&) = delete;
    BuildingFolder& operator=(const BuildingFolder&) = delete;

    const std::filesystem::path& Path() const { return building_; }

    /// Flushes everything to the disk and puts the folder in the catalog's place: in one step where
    /// the file system can exchange two folders. Otherwise, or when `inOneStep` is false, it takes
    /// two steps; the next build repairs a crash between them. Throws a `ToolFailure`, the old
    /// catalog in place, when that fails.
    void Publish(bool inOneStep = true);

 private:
    std::filesystem::path catalog_;
    std::filesystem::path building_;
    std::filesystem::path aside_;
    int hold_ = -1;  ///< marks the building folder as in use, for processes of other containers
};

}  // namespace vestrel
