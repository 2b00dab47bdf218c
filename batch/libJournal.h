// The journal of a night: one line of JSON for each picture, which is also the memory of what is
// done. A process that is killed leaves at most half a last line, which the next one takes away.
#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <string>
#include <unordered_set>

#include <nlohmann/json.hpp>

namespace vestrel {

/// The path of a picture as a line holds it. JSON is UTF-8, file names are any bytes: those of a
/// name that is none stand in hexadecimal beside what can be shown of it.
void AddPicturePath(nlohmann::ordered_json& line, const std::string& path);
std::string PicturePathOf(const nlohmann::ordered_json& line);

/// Calls `take` with every whole line of a journal that is one.
/// @return whole lines that are none
std::size_t ReadJournal(const std::filesystem::path& file,
                        const std::function<void(const nlohmann::ordered_json& line)>& take);

/// A journal that is written. One process at a time has it.
class Journal {
 public:
    /// Opens it, or makes a new one; a half last line goes.
    /// @throws std::runtime_error when it cannot be had, or is another kind of file: that is left
    ///         as it is
    explicit Journal(const std::filesystem::path& file);
    ~Journal();
    Journal(const Journal&) = delete;
    Journal& operator=(const Journal&) = delete;

    bool Has(const std::string& picture) const { return done_.contains(picture); }
    std::size_t Count() const { return done_.size(); }
    /// Whole lines in it that are none.
    std::size_t Strange() const { return strange_; }

    /// Adds the line of a picture, whole or not at all.
    /// @throws std::runtime_error when that fails
    void Add(const std::string& picture, const nlohmann::ordered_json& line);

 private:
    void Heal();

    std::filesystem::path file_;
    int handle_ = -1;
    std::unordered_set<std::string> done_;
    std::size_t strange_ = 0;
};

}  // namespace vestrel
