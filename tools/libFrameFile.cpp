#include "tools/libFrameFile.h"

#include <bit>
#include <cstdint>

#include "astro/libStrings.h"

namespace vestrel {

namespace {

constexpr std::size_t blockBytes = 2880;

/// Keyword, value from column 11 on, comment.
std::string Card(std::string_view keyword, const std::string& value, std::string_view comment) {
    constexpr std::size_t cardBytes = 80;
    std::string card(keyword);
    card.resize(8, ' ');
    card.append("= ").append(value);
    if (!comment.empty()) {
        card += " / ";
        card += comment;
    }
    card.resize(cardBytes, ' ');
    return card;
}

std::string RightAligned(const std::string& value) {
    constexpr std::size_t width = 20;
    return value.size() < width ? std::string(width - value.size(), ' ') + value : value;
}

void AppendBigEndian(std::vector<unsigned char>& bytes, std::uint32_t bits, int count) {
    for (int i = count - 1; i >= 0; --i) bytes.push_back(static_cast<unsigned char>(bits >> 8 * i));
}

}  // namespace

std::string FitsTextCard(std::string_view keyword, std::string_view text,
                         std::string_view comment) {
    std::string value = "'";
    for (const char c : text) value += c == '\'' ? "''" : std::string(1, c);
    // Strings have eight characters at least, and comments start in one column where they can.
    if (value.size() < 9) value.resize(9, ' ');
    value += "'";
    if (value.size() < 20) value.resize(20, ' ');
    return Card(keyword, value, comment);
}

std::string FitsNumberCard(std::string_view keyword, double value, std::string_view comment) {
    return Card(keyword, RightAligned(NumberText(value)), comment);
}

std::vector<unsigned char> FrameFileBytes(const Frame& frame, int bitPix,
                                          const std::vector<std::string>& cards) {
    std::string header = Card("SIMPLE", RightAligned("T"), "standard FITS");
    header += FitsNumberCard("BITPIX", bitPix, "bits per pixel");
    header += FitsNumberCard("NAXIS", 2);
    header += FitsNumberCard("NAXIS1", frame.Width, "columns");
    header += FitsNumberCard("NAXIS2", frame.Height, "rows, from the bottom of the picture up");
    if (bitPix == 16) {
        header += FitsNumberCard("BZERO", 32768, "unsigned counts");
        header += FitsNumberCard("BSCALE", 1);
    }
    for (const std::string& card : cards) header += card;
    header += "END";
    const auto wholeBlocks = [](std::size_t length) {
        return (length + blockBytes - 1) / blockBytes * blockBytes;
    };
    header.resize(wholeBlocks(header.size()), ' ');

    const int pixelBytes = bitPix == 8 ? 1 : bitPix == 16 ? 2 : 4;
    std::vector<unsigned char> bytes;
    bytes.reserve(header.size() +
                  wholeBlocks(frame.Pixels.size() * static_cast<std::size_t>(pixelBytes)));
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
    bytes.resize(wholeBlocks(bytes.size()), 0);
    return bytes;
}

}  // namespace vestrel
