// `wcsinfo`: prints the world coordinates of a header, line by line.

#include <cstdio>
#include <vector>

#include "compat/hostCommands.h"
#include "compat/libWcsInfo.h"
#include "platform/libFiles.h"
#include "platform/libPlatform.h"

namespace vestrel {

namespace {

constexpr int faultExit = 255;

/// The start of a file, as long as a header may be.
std::vector<unsigned char> StartOfFile(const std::string& path) {
    constexpr std::size_t longestHeader = std::size_t{4} << 20;
    std::vector<unsigned char> bytes;
    const FileHandle file = OpenFile(PathFromText(path), "rb");
    if (!file) return bytes;
    bytes.resize(longestHeader);
    bytes.resize(std::fread(bytes.data(), 1, bytes.size(), file.get()));
    return bytes;
}

}  // namespace

int RunWcsInfo(const std::vector<std::string>& arguments) {
    std::string path;
    for (const std::string& argument : arguments) {
        if (path.empty() && !argument.starts_with('-')) path = argument;
    }
    if (path.empty()) {
        std::fputs("usage: wcsinfo FILE.wcs\n", stderr);
        return faultExit;
    }
    const auto coordinates = ReadHeaderCoordinates(StartOfFile(path));
    if (!coordinates) {
        std::fputs("wcsinfo: the file has no gnomonic world coordinates.\n", stderr);
        return faultExit;
    }
    std::fputs(WcsInfoText(*coordinates).c_str(), stdout);
    return 0;
}

}  // namespace vestrel
