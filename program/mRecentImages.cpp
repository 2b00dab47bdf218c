#include "program/mRecentImages.h"

#include <algorithm>
#include <system_error>

#include "platform/libFiles.h"
#include "platform/libPlatform.h"

namespace vestrel {

namespace {

constexpr std::size_t mostImages = 8;

/// Whether a path fits on one line of the file; other paths are not remembered.
bool IsLine(const std::string& path) {
    return !path.empty() && std::none_of(path.begin(), path.end(),
                                         [](char c) { return static_cast<unsigned char>(c) < 32; });
}

}  // namespace

void AddRecentImage(ProgramState& state, const std::string& path) {
    if (!IsLine(path)) return;
    const std::string entry = TextFromPath(AbsolutePath(PathFromText(path)));
    std::erase(state.RecentImages, entry);
    state.RecentImages.insert(state.RecentImages.begin(), entry);
    if (state.RecentImages.size() > mostImages) state.RecentImages.resize(mostImages);
}

void LoadRecentImages(ProgramState& state) {
    constexpr std::size_t longestFile = 1 << 16;
    state.RecentImages.clear();
    std::vector<unsigned char> bytes;
    if (!ReadWholeFile(RecentImagesFilePath(), longestFile, bytes)) return;
    auto line = bytes.begin();
    while (line != bytes.end() && state.RecentImages.size() < mostImages) {
        const auto end = std::find(line, bytes.end(), '\n');
        std::string path(line, end);
        if (IsLine(path)) state.RecentImages.push_back(std::move(path));
        line = end == bytes.end() ? end : end + 1;
    }
}

bool SaveRecentImages(const ProgramState& state) {
    std::string text;
    for (const std::string& path : state.RecentImages) text += path + "\n";
    const std::filesystem::path file = RecentImagesFilePath();
    std::error_code ignored;
    std::filesystem::create_directories(file.parent_path(), ignored);
    return ReplaceFile(file, text);
}

}  // namespace vestrel
