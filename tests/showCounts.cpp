// Shows what was read from pictures, so that other programs can judge it.
//
//     showCounts FILE...
//
// Prints a line of JSON for each file and writes its counts to FILE.counts: 32-bit numbers in the
// machine's byte order, the top row first.
#include <cstdio>
#include <nlohmann/json.hpp>
#include <vector>

#include "image/libFormats.h"
#include "platform/libFiles.h"
#include "platform/libPlatform.h"

namespace {

using namespace vestrel;

std::vector<std::int32_t> CountsOf(const PlateImage& image) {
    std::vector<std::int32_t> counts;
    for (std::int32_t n = 0; n < image.Height; ++n) {
        const std::int32_t y = FirstRowAtTop(image) ? n : image.Height - 1 - n;
        for (std::int32_t x = 0; x < image.Width; ++x) {
            counts.push_back(image.Pixels(x, y) + image.DataOffset);
        }
    }
    return counts;
}

nlohmann::json Shown(const std::string& file) {
    PlateImage image;
    ReadFailure failure;
    if (!ReadImageFile(PathFromText(file), image, nullptr, failure)) {
        return {{"file", file}, {"text", failure.Text}, {"cause", failure.Cause}};
    }
    const auto counts = CountsOf(image);
    const auto* bytes = reinterpret_cast<const unsigned char*>(counts.data());
    if (!ReplaceFile(PathFromText(file + ".counts"), {bytes, counts.size() * sizeof counts[0]})) {
        return {{"file", file}, {"text", "no room for the counts"}};
    }
    const auto first = image.Header.Cards.begin() + 1;
    return {{"file", file},
            {"format", image.Format},
            {"width", image.Width},
            {"height", image.Height},
            {"orientation", image.Orientation},
            {"zero", image.Counts.Zero},
            {"factor", image.Counts.Factor},
            {"remarks", image.Remarks},
            {"cards", std::vector<std::string>(first, first + image.Header.CardCount)}};
}

}  // namespace

int main(int argc, char** argv) {
    using Json = nlohmann::json;
    for (int n = 1; n < argc; ++n) {
        const std::string line = Shown(argv[n]).dump(-1, ' ', true, Json::error_handler_t::replace);
        std::puts(line.c_str());
    }
    return 0;
}
