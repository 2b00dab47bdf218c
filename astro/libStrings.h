// Text helpers: trimming, fields, numbers to text and back. Nothing here depends on the locale.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vestrel {

/// The text without leading and trailing blanks. Only the character 32 is a blank.
std::string_view Trim(std::string_view text);

/// The text with the letters a to z in upper case; other bytes stay.
std::string UpperCase(std::string_view text);

/// The value of a numeric text: surrounding blanks, an optional sign, digits with at most one
/// decimal point, an optional exponent after an E. Nothing else is numeric. A value beyond the
/// range of a double gives an infinity, one below it 0.
std::optional<double> ParseNumber(std::string_view text);

/// The value of a number in a FITS card, whose exponent may stand after a D as well, as Fortran
/// writes it; else as `ParseNumber`.
std::optional<double> ParseFitsNumber(std::string_view text);

/// Number as text: at most 15 significant digits, no trailing zeros, a leading zero ("0.5"), the
/// exponent form ("1E-05") below 1E-04 and from 1E+15 on. Never "-0"; "NaN", "INF" and "-INF" when
/// it is not finite.
std::string NumberText(double value);

/// As `NumberText`, but never in exponent form ("0.00001").
std::string PlainNumberText(double value);

/// `NumberText` of the value rounded to `decimals` decimal places.
std::string RoundedText(double value, int decimals);

/// Splits the first field off. `text` is trimmed; when `separator` occurs in it, `field` becomes
/// the trimmed text before its first occurrence and `text` everything after it. False when there
/// is no separator: `field` stays as it was.
bool SplitField(std::string& text, char separator, std::string& field);

/// The position of the last "\" or "/" of a path; npos when there is none.
std::size_t LastFolderSeparator(std::string_view path);

/// The folder of a path: the text before its last separator, without it (the separator alone for
/// a file in the root folder); empty when the path has none.
std::string FolderOfPath(std::string_view path);

/// The part of a path after its last separator.
std::string FileNameOfPath(std::string_view path);

}  // namespace vestrel
