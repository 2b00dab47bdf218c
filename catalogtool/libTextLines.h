// Reads lines and fields of delimited text, from files of any length in a fixed amount of memory.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "catalogtool/libUnpackedInput.h"

namespace vestrel {

/// Reads a stream line by line through one buffer.
class LineReader {
 public:
    /// Longer lines cannot be table rows.
    static constexpr std::size_t LongestLine = std::size_t{64} << 10;

    explicit LineReader(UnpackedInput& input);

    enum class Outcome { Line, TooLong, End, Failed };

    /// The next line without its line end (LF or CR LF) and without the UTF-8 byte order mark of
    /// the first line. The text is valid until the next call. `TooLong` skips a line beyond the
    /// limit.
    Outcome Next(std::string_view& line);

 private:
    void Refill();

    UnpackedInput& input_;
    std::vector<char> buffer_;
    std::size_t begin_ = 0;  // start of the bytes not yet returned
    std::size_t end_ = 0;
    bool atEnd_ = false;
    bool firstLine_ = true;
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
