// The journal of a night: one line of JSON for each picture, which also records what is done. A
// process that is killed leaves at most an incomplete last line, which the next process removes.
#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

#include <nlohmann/json.hpp>

namespace vestrel {

/// The key of the picture's path in a line.
inline constexpr const char* PictureKey = "picture";

/// Adds a path to an object. JSON is UTF-8, but file names may be any bytes: a name that is not
/// UTF-8 is also written in hexadecimal ("picture_hex"), beside a readable approximation.
void AddPath(nlohmann::ordered_json& object, const std::string& key, const std::string& path);
/// The path of the picture in a line.
std::string PicturePathOf(const nlohmann::ordered_json& line);
/// The paths of the files that were written for the picture of a line.
std::vector<std::string> WrittenPathsOf(const nlohmann::ordered_json& line);

/// Calls `take` with every complete and valid line of a journal.
/// @return the number of complete lines that are not valid
std::size_t ReadJournal(const std::filesystem::path& file,
                        const std::function<void(const nlohmann::ordered_json& line)>& take);

/// A journal that is being written. Only one process at a time can open it.
class Journal {
 public:
    /// Opens it, or makes a new one; removes an incomplete last line.
    /// @throws std::runtime_error when it cannot be opened, is in use, or is another kind of file,
    ///         which is left as it is
    explicit Journal(const std::filesystem::path& file);
    ~Journal();
    Journal(const Journal&) = delete;
    Journal& operator=(const Journal&) = delete;

    /// Whether there is a line of a picture; also while another thread adds one.
    bool Has(const std::string& picture) const;
    std::size_t Count() const { return done_.size(); }
    /// The number of complete lines in it that are not valid.
    std::size_t Strange() const { return strange_; }

    /// Adds the line of a picture, whole or not at all.
    /// @throws std::runtime_error when that fails, or when somebody has deleted the journal
    void Add(const std::string& picture, const nlohmann::ordered_json& line);

 private:
    void Heal();

    std::filesystem::path file_;
    int handle_ = -1;
    mutable std::mutex lock_;
    std::unordered_set<std::string> done_;
    std::size_t strange_ = 0;
};

}  // namespace vestrel
