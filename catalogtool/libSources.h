// Finds star catalogs that other programs have installed.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace vestrel {

/// A star database of ASTAP.
struct AstapSource {
    std::filesystem::path Place;  ///< the argument for `build --astap`
    std::size_t Files = 0;
    std::uint64_t Bytes = 0;
};

/// Index files of Astrometry.net in one folder.
struct IndexSource {
    std::filesystem::path Folder;
    std::vector<std::filesystem::path> Files;
    std::uint64_t Bytes = 0;
};

/// Star files of KStars in one folder.
struct KStarsSource {
    std::filesystem::path Folder;  ///< the argument of `build --kstars`
    std::size_t Files = 0;
    std::uint64_t Bytes = 0;
};

struct CatalogSources {
    std::vector<AstapSource> Astap;
    std::vector<IndexSource> Indexes;
    std::vector<KStarsSource> KStars;
    std::vector<std::filesystem::path> LookedIn;
};

/// The folders where ASTAP, Astrometry.net, KStars and Siril keep their catalogs on this machine;
/// each once.
std::vector<std::filesystem::path> UsualSourceFolders();

/// The catalogs in some folders, without their subfolders.
CatalogSources FindCatalogSources(const std::vector<std::filesystem::path>& folders);

}  // namespace vestrel
