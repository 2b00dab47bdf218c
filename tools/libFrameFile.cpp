#include "tools/libFrameFile.h"

#include <bit>
#include <cstdint>

#include "image/libFitsCards.h"

namespace vestrel {

namespace {

void AppendBigEndian(std::vector<unsigned char>& bytes, std::uint32_t bits, int count) {
    for (int i = count - 1; i >= 0; --i) bytes.push_back(static_cast<unsigned char>(bits >> 8 * i));
}

}  // namespace

std::vector<unsigned char> FrameFileBytes(const Frame& frame, int bitPix,
                                          const std::vector<std::string>& cards) {
    std::vector<std::string> all = {
        FitsFlagCard("SIMPLE", true, "standard FITS"),
        FitsNumberCard("BITPIX", bitPix, "bits per pixel"), FitsNumberCard("NAXIS", 2),
        FitsNumberCard("NAXIS1", frame.Width, "columns"),
        FitsNumberCard("NAXIS2", frame.Height, "rows, from the bottom of the picture up")};
    if (bitPix == 16) {
        all.push_back(FitsNumberCard("BZERO", 32768, "unsigned counts"));
        all.push_back(FitsNumberCard("BSCALE", 1));
    }
    all.insert(all.end(), cards.begin(), cards.end());
    const std::string header = FitsHeaderBlocks(all);
    const int pixelBytes = bitPix == 8 ? 1 : bitPix == 16 ? 2 : 4;
    std::vector<unsigned char> bytes;
    bytes.reserve(header.size() +
                  WholeFitsBlocks(frame.Pixels.size() * static_cast<std::size_t>(pixelBytes)));
    bytes.assign(header.begin(), header.end());
    for (const float value : frame.Pixels) {
        std::uint32_t bits = 0;
        if (bitPix == -32) {
            bits = std::bit_cast<std::uint32_t>(value);
        } else {
            const auto counts = static_cast<std::int32_t>(value);
            bits = static_cast<std::uint32_t>(bitPix == 16 ? counts - 32768 : counts);
        }
        AppendBigEndian(bytes, bits, pixelBytes);
    }
    bytes.resize(WholeFitsBlocks(bytes.size()), 0);
    return bytes;
}

}  // namespace vestrel
