#include "batch/libPictureFiles.h"

#include <fcntl.h>
#include <glob.h>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "astro/libStrings.h"
#include "image/libFormats.h"
#include "platform/libPlatform.h"

namespace vestrel {
namespace fs = std::filesystem;

namespace {

constexpr std::chrono::milliseconds restAfterClosing{500};
constexpr std::chrono::milliseconds restOfFound{3000};
constexpr std::chrono::seconds betweenScans{30};

/// Calls `take` for every entry of a folder and of all folders below it. Links to folders are not
/// followed.
/// @return the folders that could not be read to their end
template <typename Take>
std::vector<fs::path> ForAllBelow(const fs::path& folder, const Take& take) {
    std::vector<fs::path> unread;
    std::vector<fs::path> left{folder};
    while (!left.empty()) {
        const fs::path here = std::move(left.back());
        left.pop_back();
        std::error_code error;
        fs::directory_iterator entry(here, error);
        while (!error && entry != fs::directory_iterator()) {
            take(*entry);
            std::error_code ignored;
            // What a check of a disk puts into this folder, which is closed to users, has no names.
            const bool ofTheDisk = entry->path().filename() == "lost+found";
            if (entry->is_directory(ignored) && !entry->is_symlink(ignored) && !ofTheDisk) {
                left.push_back(entry->path());
            }
            entry.increment(error);
        }
        if (error && error != std::errc::no_such_file_or_directory) unread.push_back(here);
    }
    return unread;
}

/// Whether somebody has a file open for writing; false where the system cannot tell.
bool IsBeingWritten(const fs::path& file) {
    const int handle = open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (handle < 0) return false;
    // A lease for reading is refused while there is a writer. One that comes meanwhile waits until
    // it is given back, and its signal is one that does nothing.
    fcntl(handle, F_SETSIG, SIGURG);
    const bool refused = fcntl(handle, F_SETLEASE, F_RDLCK) != 0 && errno == EAGAIN;
    if (!refused) fcntl(handle, F_SETLEASE, F_UNLCK);
    close(handle);
    return refused;
}

bool IsExportedCopy(const fs::path& file) {
    return TextFromPath(file.filename()).ends_with(SolvedSuffix);
}

/// Adds the pictures in a folder by name.
void AddFolder(const fs::path& path, FoundPictures& found) {
    std::vector<fs::path> inside;
    const std::vector<fs::path> unread =
        ForAllBelow(path, [&inside](const fs::directory_entry& entry) {
            std::error_code unknown;
            if (LooksLikePicture(entry.path()) && entry.is_regular_file(unknown)) {
                inside.push_back(entry.path());
            }
        });
    std::sort(inside.begin(), inside.end());
    found.Pictures.insert(found.Pictures.end(), inside.begin(), inside.end());
    found.Unread.insert(found.Unread.end(), unread.begin(), unread.end());
}

}  // namespace

bool LooksLikePicture(const fs::path& file) {
    const std::string name = TextFromPath(file.filename());
    if (name.empty() || name.front() == '.' || IsExportedCopy(file)) return false;
    std::string extension = UpperCase(TextFromPath(file.extension()));
    if (extension.size() < 2 || extension.find(' ') != std::string::npos) return false;
    extension = " " + extension.substr(1) + " ";
    const auto formats = ImageFormats();
    return std::any_of(formats.begin(), formats.end(), [&](const ImageFormat& format) {
        return std::string_view(format.Extensions).find(extension) != std::string_view::npos;
    });
}

FoundPictures PicturesOf(const std::string& word) {
    std::error_code ignored;
    const fs::path named = AbsolutePath(PathFromText(word)).lexically_normal();
    FoundPictures found;
    if (fs::is_directory(named, ignored)) {
        AddFolder(named, found);
        return found;
    }
    if (fs::exists(named, ignored)) {
        // A pipe would be waited for until somebody wrote into it.
        if (!fs::is_regular_file(named, ignored)) return found;
        // The shell puts the copies of an earlier run in place of a pattern too.
        found.ExportedCopy = IsExportedCopy(named);
        if (!found.ExportedCopy) found.Pictures.push_back(named);
        return found;
    }
    if (word.find_first_of("*?[") == std::string::npos) {
        // Whoever reads it tells why it cannot be reached.
        found.Pictures.push_back(named);
        return found;
    }
    glob_t matches = {};
    if (glob(word.c_str(), 0, nullptr, &matches) == 0) {
        for (std::size_t i = 0; i < matches.gl_pathc; ++i) {
            const fs::path match = AbsolutePath(matches.gl_pathv[i]).lexically_normal();
            if (fs::is_directory(match, ignored)) {
                AddFolder(match, found);
            } else if (LooksLikePicture(match) && fs::is_regular_file(match, ignored)) {
                found.Pictures.push_back(match);
            }
        }
    }
    globfree(&matches);
    return found;
}

FolderWatch::FolderWatch(const fs::path& folder)
    : root_(AbsolutePath(folder).lexically_normal()),
      handle_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    if (handle_ < 0) {
        throw std::runtime_error("The system cannot watch one more folder: " +
                                 std::generic_category().message(errno) + ".");
    }
    std::error_code ignored;
    if (!fs::is_directory(root_, ignored)) {
        close(handle_);
        throw std::runtime_error(TextFromPath(root_) + " is no folder that can be watched.");
    }
    Rescan(restOfFound);
}

FolderWatch::~FolderWatch() {
    close(handle_);
}

void FolderWatch::WatchFolder(const fs::path& folder) {
    const int number = inotify_add_watch(handle_, folder.c_str(),
                                         IN_CLOSE_WRITE | IN_MOVED_TO | IN_CREATE | IN_ONLYDIR);
    // When the system has no watch left, scanning still finds new files.
    if (number >= 0) folders_[number] = folder;
}

void FolderWatch::Rescan(std::chrono::milliseconds rest) {
    scanned_ = Clock::now();
    WatchFolder(root_);  // it may be another one of the same name by now
    unread_ = ForAllBelow(root_, [&](const fs::directory_entry& entry) {
        std::error_code ignored;
        if (entry.is_directory(ignored) && !entry.is_symlink(ignored)) WatchFolder(entry.path());
        if (LooksLikePicture(entry.path()) && entry.is_regular_file(ignored)) {
            Note(entry.path(), rest);
        }
    });
}

void FolderWatch::Note(const fs::path& file, std::chrono::milliseconds rest) {
    if (!LooksLikePicture(file)) return;
    std::error_code error;
    const Look look{fs::file_size(file, error), fs::last_write_time(file, error)};
    if (error) return;
    const auto given = given_.find(file);
    if (given != given_.end() && given->second == look) return;
    const auto [entry, isNew] = pending_.try_emplace(file, Pending{look, Clock::now(), rest});
    if (!isNew) entry->second.Rest = std::min(entry->second.Rest, rest);
}

void FolderWatch::TakeEvents(std::chrono::milliseconds longest) {
    pollfd waited{handle_, POLLIN, 0};
    if (poll(&waited, 1, static_cast<int>(longest.count())) <= 0) return;
    alignas(inotify_event) char buffer[1 << 16];
    bool scan = false;
    for (;;) {
        const ssize_t length = read(handle_, buffer, sizeof buffer);
        if (length <= 0) break;
        for (const char* at = buffer; at < buffer + length;) {
            inotify_event event{};
            std::memcpy(&event, at, sizeof event);
            const char* name = at + sizeof event;
            at += sizeof event + event.len;
            if ((event.mask & IN_Q_OVERFLOW) != 0) scan = true;
            if ((event.mask & IN_IGNORED) != 0) folders_.erase(event.wd);
            const auto folder = folders_.find(event.wd);
            if (folder == folders_.end() || event.len == 0) continue;
            const fs::path path = folder->second / name;
            if ((event.mask & IN_ISDIR) != 0) {
                scan = true;  // finds files that arrived before the folder was watched
            } else {
                // A link is complete when it is made; whatever else is made is written yet.
                const bool closed = (event.mask & (IN_CLOSE_WRITE | IN_MOVED_TO)) != 0;
                Note(path, closed ? restAfterClosing : restOfFound);
            }
        }
    }
    if (scan) Rescan(restOfFound);  // once, however many folders have come
}

std::vector<fs::path> FolderWatch::Wait(std::chrono::milliseconds longest) {
    constexpr std::chrono::milliseconds betweenLooks{100};
    const Clock::time_point end = Clock::now() + longest;
    std::vector<fs::path> ready;
    do {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
        TakeEvents(std::clamp(left, std::chrono::milliseconds(0), betweenLooks));
        const Clock::time_point now = Clock::now();
        std::error_code ignored;
        const bool wasGone = std::exchange(gone_, !fs::is_directory(root_, ignored));
        if ((wasGone && !gone_) || now - scanned_ > betweenScans) Rescan(restOfFound);
        for (auto entry = pending_.begin(); entry != pending_.end();) {
            std::error_code error;
            Pending& pending = entry->second;
            const Look look{fs::file_size(entry->first, error),
                            fs::last_write_time(entry->first, error)};
            const bool rested = now - pending.Since >= pending.Rest;
            if (!error && (look != pending.Last || (rested && IsBeingWritten(entry->first)))) {
                pending.Last = look;
                pending.Since = now;
            }
            if (!error && now - pending.Since < pending.Rest) {
                ++entry;
                continue;
            }
            // An empty file has only been created so far.
            if (!error && look.Size > 0) {
                ready.push_back(entry->first);
                given_[entry->first] = look;
            }
            entry = pending_.erase(entry);
        }
    } while (ready.empty() && Clock::now() < end);
    return ready;
}

}  // namespace vestrel
