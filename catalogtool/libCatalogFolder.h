// Replaces a whole catalog folder at once, so that a solver sees the old catalog or the new one.
#pragma once

#include <filesystem>

namespace vestrel {

/// A folder beside the catalog's in which its successor grows. Unless published it is removed
/// again, so that a failure or Ctrl-C leaves the old catalog and nothing else.
class BuildingFolder {
 public:
    /// Prepares to replace the catalog at `catalog` (which need not exist yet): clears away what
    /// dead builds left, puts back a catalog that one had set aside, creates the building folder.
    ///
    /// Throws a `ToolFailure` when `catalog` holds anything that is not part of a catalog, so that
    /// a mistyped path costs nobody their files, or when its parent cannot be written to.
    explicit BuildingFolder(const std::filesystem::path& catalog);
    ~BuildingFolder();
    BuildingFolder(const BuildingFolder&) = delete;
    BuildingFolder& operator=(const BuildingFolder&) = delete;

    const std::filesystem::path& Path() const { return building_; }

    /// Brings everything to the disk and puts the folder in the catalog's place. In one step where
    /// the file system can exchange two folders; otherwise, or with `inOneStep` false, in two with
    /// a moment between them, which the next build repairs if the machine dies in it.
    /// Throws a `ToolFailure`, the old catalog in place, when that fails.
    void Publish(bool inOneStep = true);

 private:
    std::filesystem::path catalog_;
    std::filesystem::path building_;
    std::filesystem::path aside_;
};

}  // namespace vestrel
