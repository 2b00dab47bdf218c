// Finds the pictures of a night, and decides when one that is being written is complete.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace vestrel {

/// The ending of exported copies, which are not pictures of a night.
inline constexpr const char* SolvedSuffix = ".solved.fits";

/// Whether a file that nobody named counts as a picture: by the extensions of the readable formats.
/// Hidden files and exported copies do not.
bool LooksLikePicture(const std::filesystem::path& file);

struct FoundPictures {
    std::vector<std::filesystem::path> Pictures;
    std::vector<std::filesystem::path> Unread;  ///< folders that could not be read to their end
    bool ExportedCopy = false;  ///< the argument is the name of one, and so no picture
};

/// The pictures that a command-line argument means: a file with any name but that of an exported
/// copy, a folder with all folders below it, or a pattern with * ? [ ] for both. What a folder or a
/// pattern gives must look like pictures. The paths are absolute; empty when nothing matches. A
/// name that is not there, or cannot be looked for, stands for itself.
FoundPictures PicturesOf(const std::string& word);

/// Watches a folder, and all folders below it, for pictures that arrive.
///
/// A picture is complete when its writer has closed it or moved it here and it has then not changed
/// for half a second. Files without such an event, as on a file server, are found by scanning, and
/// must not change for three seconds. One that somebody of this machine has open for writing waits,
/// whatever it looks like. When the folder goes away it is waited for.
class FolderWatch {
 public:
    /// @throws std::runtime_error when the folder cannot be watched
    explicit FolderWatch(const std::filesystem::path& folder);
    ~FolderWatch();
    FolderWatch(const FolderWatch&) = delete;
    FolderWatch& operator=(const FolderWatch&) = delete;

    /// Waits at most `longest` for pictures to become complete and returns them. Each is returned
    /// once, and again only after its file has changed.
    std::vector<std::filesystem::path> Wait(std::chrono::milliseconds longest);
    /// Lets a picture that was returned be returned again when it is next found: at the next scan
    /// at the latest.
    void Forget(const std::filesystem::path& picture) { given_.erase(picture); }
    /// Whether some picture is not complete yet.
    bool Waiting() const { return !pending_.empty(); }
    /// The folders that could not be read to their end at the last scan.
    const std::vector<std::filesystem::path>& Unread() const { return unread_; }
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
        Clock::time_point Since;  ///< when it began to look like `Last`
        std::chrono::milliseconds Rest{};
    };

    void WatchFolder(const std::filesystem::path& folder);
    void Rescan(std::chrono::milliseconds rest);
    void TakeEvents(std::chrono::milliseconds longest);
    void Note(const std::filesystem::path& file, std::chrono::milliseconds rest);

    std::filesystem::path root_;
    int handle_ = -1;
    std::map<int, std::filesystem::path> folders_;  ///< by watch descriptor
    std::map<std::filesystem::path, Pending> pending_;
    std::map<std::filesystem::path, Look> given_;
    std::vector<std::filesystem::path> unread_;
    Clock::time_point scanned_;
    bool gone_ = false;
};

}  // namespace vestrel
