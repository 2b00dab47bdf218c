// Header cards as the FITS standard (version 4.0, section 4) has them, for files that other
// programs read.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace vestrel {

inline constexpr std::size_t FitsCardLength = 80;
inline constexpr std::size_t FitsBlockLength = 2880;

/// A length (bytes) made up to whole blocks.
constexpr std::size_t WholeFitsBlocks(std::size_t length) {
    return (length + FitsBlockLength - 1) / FitsBlockLength * FitsBlockLength;
}

// Cards of 80 characters in the fixed format. Texts may be any bytes: those that a header cannot
// hold become "?", and what does not fit is cut.
std::string FitsTextCard(std::string_view keyword, std::string_view text,
                         std::string_view comment = {});
std::string FitsNumberCard(std::string_view keyword, double value, std::string_view comment = {});
std::string FitsFlagCard(std::string_view keyword, bool value, std::string_view comment = {});

/// A text of any length as COMMENT cards.
std::vector<std::string> FitsCommentCards(std::string_view text);

/// A whole header: the cards and END, filled with blanks to a multiple of 2880 bytes.
std::string FitsHeaderBlocks(const std::vector<std::string>& cards);

/// A card of another program's header as standard cards. One that keeps to the standard stays as it
/// is, byte for byte. Of the others the keyword gets its capitals and the "=" its column, texts
/// their quotes, exponents their E and dates their form; what is then still no card, or has no
/// value after its "=", becomes a comment.
/// @param bytes of the card, up to 80
std::vector<std::string> StandardCards(std::string_view bytes);

/// The keyword of a standard card, and its value as it is written.
std::string_view KeywordOfCard(std::string_view card);
std::string_view ValueOfCard(std::string_view card);

/// Whether a keyword may stand in any number of cards.
bool MayRepeat(std::string_view keyword);

}  // namespace vestrel
