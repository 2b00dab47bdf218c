// Header cards that keep to the FITS standard (version 4.0, section 4), for files that other
// programs read.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace vestrel {

inline constexpr std::size_t FitsCardLength = 80;
inline constexpr std::size_t FitsBlockLength = 2880;

/// A length in bytes, rounded up to whole blocks.
constexpr std::size_t WholeFitsBlocks(std::size_t length) {
    return (length + FitsBlockLength - 1) / FitsBlockLength * FitsBlockLength;
}

// Cards of 80 characters in the fixed format. Texts may be any bytes: those that a header cannot
// hold become "?", and text that does not fit is cut off.
std::string FitsTextCard(std::string_view keyword, std::string_view text,
                         std::string_view comment = {});
std::string FitsNumberCard(std::string_view keyword, double value, std::string_view comment = {});
std::string FitsFlagCard(std::string_view keyword, bool value, std::string_view comment = {});

/// A text of any length as COMMENT cards.
std::vector<std::string> FitsCommentCards(std::string_view text);

/// A whole header: the cards and END, filled with blanks to a multiple of 2880 bytes.
std::string FitsHeaderBlocks(const std::vector<std::string>& cards);

/// A card of another program's header as standard cards. A card that keeps to the standard stays as
/// it is, byte for byte. Others are repaired: capitals for the keyword, the "=" in its column,
/// quotes around texts, E in exponents, dates in standard form. What is no valid card even then, or
/// has no value after its "=", becomes a comment.
/// @param bytes of the card, up to 80
std::vector<std::string> StandardCards(std::string_view bytes);

/// The keyword of a standard card (at least 10 bytes), and its value as written.
std::string_view KeywordOfCard(std::string_view card);
std::string_view ValueOfCard(std::string_view card);

/// Whether several cards may have this keyword.
bool MayRepeat(std::string_view keyword);

}  // namespace vestrel
