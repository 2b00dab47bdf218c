#include "catalogtool/libSources.h"

#include <algorithm>
#include <cstdlib>
#include <system_error>

#include "catalogtool/libAstap.h"
#include "catalogtool/libKStars.h"
#include "platform/libPlatform.h"

namespace vestrel {
namespace fs = std::filesystem;

namespace {

std::uint64_t BytesOf(const std::vector<fs::path>& files) {
    std::uint64_t bytes = 0;
    for (const fs::path& file : files) {
        std::error_code error;
        const std::uintmax_t length = fs::file_size(file, error);
        if (!error) bytes += length;
    }
    return bytes;
}

/// The index files of a folder, those of narrow fields (the deepest) first.
std::vector<fs::path> IndexFilesIn(const fs::path& folder) {
    std::vector<fs::path> files;
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string name = TextFromPath(entry->path().filename());
        // Debian's big-endian files are for other machines.
        if (name.starts_with("index-") && name.ends_with(".fits") &&
            name.find("bigendian") == std::string::npos) {
            files.push_back(entry->path());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace

std::vector<fs::path> UsualSourceFolders() {
    std::vector<fs::path> folders;
#ifdef _WIN32
    for (const char* variable : {"ProgramFiles", "ProgramFiles(x86)", "LOCALAPPDATA"}) {
        const char* base = std::getenv(variable);
        if (base == nullptr) continue;
        folders.push_back(PathFromText(base) / "KStars Desktop Planetarium" / "data");
        folders.push_back(PathFromText(base) / "kstars");
        folders.push_back(PathFromText(base) / "astap");
        folders.push_back(PathFromText(base) / "cygwin_ansvr" / "usr" / "share" / "astrometry");
        folders.push_back(PathFromText(base) / "cygwin_ansvr" / "usr" / "share" / "astrometry" /
                          "data");
    }
#else
    for (const char* folder :
         {"/opt/astap", "/usr/share/astap/data", "/usr/local/share/astap", "/usr/share/astrometry",
          "/usr/local/astrometry/data", "/usr/local/share/astrometry",
          "/Library/Application Support/ASTAP", "/Applications/ASTAP.app/Contents/MacOS",
          "/usr/share/kstars", "/usr/local/share/kstars",
          "/Applications/kstars.app/Contents/Resources/kstars"}) {
        folders.emplace_back(folder);
    }
    if (const char* home = std::getenv("HOME"); home != nullptr && *home != '\0') {
        for (const char* folder :
             {".astap", "astap", ".local/share/astap", ".local/share/kstars",
              ".local/share/kstars/astrometry", "Library/Application Support/Astrometry",
              ".local/share/astrometry"}) {
            folders.push_back(PathFromText(home) / folder);
        }
    }
#endif
    return folders;
}

CatalogSources FindCatalogSources(const std::vector<fs::path>& folders) {
    CatalogSources found;
    for (const fs::path& folder : folders) {
        found.LookedIn.push_back(folder);
        for (const AstapDatabase& database : AstapDatabasesIn(folder)) {
            found.Astap.push_back({database.Name.empty() ? folder : folder / database.Name,
                                   database.Files.size(), BytesOf(database.Files)});
        }
        const std::vector<fs::path> indexes = IndexFilesIn(folder);
        if (!indexes.empty()) found.Indexes.push_back({folder, indexes, BytesOf(indexes)});
        const std::vector<fs::path> stars = KStarsFilesIn(folder);
        if (!stars.empty()) found.KStars.push_back({folder, stars.size(), BytesOf(stars)});
    }
    return found;
}

}  // namespace vestrel
