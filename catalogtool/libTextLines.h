// Reads lines and fields of delimited text, from files of any length in a fixed amount of memory.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "catalogtool/libUnpackedInput.h"

namespace vestrel {

/// Longer lines cannot be table rows.
inline constexpr std::size_t LongestLine = std::size_t{64} << 10;

/// Takes the first line from a text, without its line end (LF or CR LF). False when the text is
/// empty.
bool TakeLine(std::string_view& text, std::string_view& line);

/// Divides a text of whole lines into pieces of whole lines, each of about `pieceBytes` (at least
/// 1) or one line long.
std::vector<std::string_view> PiecesOfLines(std::string_view text, std::size_t pieceBytes);

/// Reads a stream in blocks of whole lines through one buffer.
class LineBlocks {
 public:
    /// @param blockBytes the size of a block; at least twice the longest line is taken
    LineBlocks(UnpackedInput& input, std::size_t blockBytes);

    /// The next lines, each with its end, without the UTF-8 byte order mark of the stream. The text
    /// is valid until the next call; it is empty at the end of the stream. When the stream fails
    /// (`UnpackedInput::Fault`) the lines that it brought whole come first. Of a line that does not
    /// fit a block, only so much remains that it is still too long.
    std::string_view Next();

 private:
    UnpackedInput& input_;
    std::vector<char> buffer_;
    std::size_t begin_ = 0;  // start of the bytes not yet returned
    std::size_t end_ = 0;
    bool atStart_ = true;
    bool atEnd_ = false;
};

/// The value of a field that is a plain number; NaN when it is not one.
double FieldNumber(std::string_view field);

/// Splits lines into fields.
class FieldSplitter {
 public:
    explicit FieldSplitter(char delimiter) : delimiter_(delimiter) {}

    /// Splits a line into fields, without blanks around them. A field may be in double quotes,
    /// which are removed; inside them a delimiter is text, and two quotes mean one. The fields are
    /// valid as long as `line` is, and until the next call. False when a quote is not closed, or is
    /// closed before the end of its field.
    bool Split(std::string_view line, std::vector<std::string_view>& fields);

    /// The delimiter among comma, tab, semicolon and bar that a header uses most; a comma when it
    /// has none. Delimiters in quotes do not count.
    static char DelimiterOf(std::string_view header);

 private:
    char delimiter_;
    std::string unquoted_;
};

}  // namespace vestrel
