#include "program/mRecentImages.h"

#include <algorithm>
#include <string>
#include <system_error>
#include <vector>

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

std::vector<std::string> ReadRecentImages() {
    constexpr std::size_t longestFile = 1 << 16;
    std::vector<std::string> images;
    std::vector<unsigned char> bytes;
    if (!ReadWholeFile(RecentImagesFilePath(), longestFile, bytes)) return images;
    auto line = bytes.begin();
    while (line != bytes.end() && images.size() < mostImages) {
        const auto end = std::find(line, bytes.end(), '\n');
        std::string path(line, end);
        if (IsLine(path)) images.push_back(std::move(path));
        line = end == bytes.end() ? end : end + 1;
    }
    return images;
}

bool Contains(const std::vector<std::string>& images, const std::string& image) {
    return std::find(images.begin(), images.end(), image) != images.end();
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
    state.RecentImages = ReadRecentImages();
    state.LoadedImages = state.RecentImages;
}

bool SaveRecentImages(const ProgramState& state) {
    // Another window may have saved meanwhile: its images come after the new ones of this.
    std::vector<std::string> images = state.RecentImages;
    auto place = std::find_if(images.begin(), images.end(), [&](const std::string& image) {
        return Contains(state.LoadedImages, image);
    });
    for (const std::string& image : ReadRecentImages()) {
        if (Contains(images, image) || Contains(state.LoadedImages, image)) continue;
        place = images.insert(place, image) + 1;
    }
    if (images.size() > mostImages) images.resize(mostImages);
    std::string text;
    for (const std::string& path : images) text += path + "\n";
    const std::filesystem::path file = RecentImagesFilePath();
    std::error_code ignored;
    std::filesystem::create_directories(file.parent_path(), ignored);
    return ReplaceFile(file, text);
}

}  // namespace vestrel
