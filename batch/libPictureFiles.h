// Which files are the pictures of a night, and when one that is being written is complete.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace vestrel {

/// What exported copies end with; they are no pictures of a night.
inline constexpr const char* SolvedSuffix = ".solved.fits";

/// Whether a file of this name is taken for a picture where nobody named it: by the extensions of
/// the formats that can be read. Hidden files and exported copies are none.
bool LooksLikePicture(const std::filesystem::path& file);

/// The pictures in a folder and all below it, in the order of their names. What cannot be read is
/// passed over.
std::vector<std::filesystem::path> PicturesIn(const std::filesystem::path& folder);

/// The pictures that a word of the command line stands for: a file, whatever its name; a folder; or
/// a pattern with * ? [ ]. Absolute paths; none when there is nothing of the kind.
std::vector<std::filesystem::path> PicturesOf(const std::string& word);

/// A folder, and all below it, that pictures arrive in.
///
/// A picture is complete when whoever wrote it has closed it or moved it here, and its size has
/// then been the same for half a second. Files that no such event was seen of, as on a file server,
/// are found by looking, and have to rest for three seconds. One that somebody of this machine has
/// open for writing waits, whatever it looks like. When the folder goes away it is waited for.
class FolderWatch {
 public:
    /// @throws std::runtime_error when the folder cannot be watched
    explicit FolderWatch(const std::filesystem::path& folder);
    ~FolderWatch();
    FolderWatch(const FolderWatch&) = delete;
    FolderWatch& operator=(const FolderWatch&) = delete;

    /// The pictures that have become complete, each one once for as long as its time of change
    /// stays; waits at most so long for the first one.
    std::vector<std::filesystem::path> Wait(std::chrono::milliseconds longest);
    /// Whether the folder was not there when it was last looked for.
    bool Gone() const { return gone_; }

 private:
    using Clock = std::chrono::steady_clock;
    struct Look {
        std::uintmax_t Size = 0;
        std::filesystem::file_time_type Changed;
        bool operator==(const Look&) const = default;
    };
    struct Pending {
        Look Last;
        Clock::time_point Since;  ///< it has looked like that
        std::chrono::milliseconds Rest{};
    };

    void WatchFolder(const std::filesystem::path& folder);
    void Rescan(std::chrono::milliseconds rest);
    void TakeEvents(std::chrono::milliseconds longest);
    void Note(const std::filesystem::path& file, std::chrono::milliseconds rest);

    std::filesystem::path root_;
    int handle_ = -1;
    std::map<int, std::filesystem::path> folders_;  ///< by number of their watch
    std::map<std::filesystem::path, Pending> pending_;
    std::map<std::filesystem::path, Look> given_;
    Clock::time_point scanned_;
    bool gone_ = false;
};

}  // namespace vestrel
