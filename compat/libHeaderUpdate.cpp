#include "compat/libHeaderUpdate.h"

#include <optional>
#include <stdexcept>
#include <string_view>

#include "astro/libStrings.h"
#include "image/libFitsCards.h"
#include "image/libWorldCoordinates.h"

namespace vestrel {

namespace {

/// The cards up to END.
std::vector<std::string> CardsOf(std::span<const unsigned char> file) {
    const std::string_view text(reinterpret_cast<const char*>(file.data()), file.size());
    std::vector<std::string> cards;
    for (std::size_t at = 0; at + FitsCardLength <= text.size(); at += FitsCardLength) {
        const std::string_view card = text.substr(at, FitsCardLength);
        if (Trim(card) == "END") return cards;
        cards.emplace_back(card);
    }
    throw std::runtime_error("The header of the file has no end.");
}

double NumberIn(const std::vector<std::string>& cards, std::string_view keyword) {
    for (const std::string& card : cards) {
        if (KeywordOfCard(card) == keyword) return ParseFitsNumber(ValueOfCard(card)).value_or(-1);
    }
    return -1;
}

bool IsReplaced(std::string_view card) {
    const std::string_view keyword = KeywordOfCard(card);
    if (keyword == "COMMENT") {
        return Trim(card.substr(keyword.size())).starts_with(SolvedByVestrel);
    }
    return IsStaleKeyword(keyword) || keyword == "PLTSOLVD" || keyword == "WARNING" ||
           keyword == "CHECKSUM";
}

}  // namespace

std::vector<unsigned char> WithCoordinates(std::span<const unsigned char> file,
                                           const std::vector<std::string>& coordinates, int width,
                                           int height) {
    constexpr std::string_view start = "SIMPLE  =";
    if (std::string_view(reinterpret_cast<const char*>(file.data()), file.size())
            .substr(0, start.size()) != start) {
        throw std::runtime_error("The file is no FITS file.");
    }
    const std::vector<std::string> cards = CardsOf(file);
    const std::size_t length = WholeFitsBlocks((cards.size() + 1) * FitsCardLength);
    if (NumberIn(cards, "NAXIS") < 2 || NumberIn(cards, "NAXIS1") != width ||
        NumberIn(cards, "NAXIS2") != height || file.size() < length) {
        throw std::runtime_error("The picture is not that of the file's first header.");
    }
    std::vector<std::string> kept;
    bool dropped = false;
    for (const std::string& card : cards) {
        const std::string_view keyword = KeywordOfCard(card);
        // A text that goes on in the next card goes with all of it.
        if (keyword != "CONTINUE") dropped = IsReplaced(card);
        if (!dropped) kept.push_back(card);
    }
    kept.insert(kept.end(), coordinates.begin(), coordinates.end());
    const std::string header = FitsHeaderBlocks(kept);
    std::vector<unsigned char> bytes;
    bytes.reserve(header.size() + file.size() - length);
    bytes.insert(bytes.end(), header.begin(), header.end());
    bytes.insert(bytes.end(), file.begin() + static_cast<std::ptrdiff_t>(length), file.end());
    return bytes;
}

}  // namespace vestrel
