// Lines and fields of delimited text, from files of any length in a fixed amount of memory.
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
    /// Longer lines are no table rows.
    static constexpr std::size_t LongestLine = std::size_t{64} << 10;

    explicit LineReader(UnpackedInput& input);

    enum class Outcome { Line, TooLong, End, Failed };

    /// The next line without its line end (LF or CR LF) and, in the first line, without the mark
    /// of UTF-8. The text lives until the next call. `TooLong` skips a line beyond the limit.
    Outcome Next(std::string_view& line);

 private:
    void Refill();

    UnpackedInput& input_;
    std::vector<char> buffer_;
    std::size_t begin_ = 0;  // of what was not handed out yet
    std::size_t end_ = 0;
    bool atEnd_ = false;
    bool firstLine_ = true;
};

/// The value of a field that is a plain number; not-a-number when it is none.
double FieldNumber(std::string_view field);

/// Splits lines into fields.
class FieldSplitter {
 public:
    explicit FieldSplitter(char delimiter) : delimiter_(delimiter) {}

    /// The fields of a line, blanks around them removed. A field may stand in double quotes, which
    /// are removed; inside them the delimiter is text and a doubled quote one quote. The fields
    /// live as long as `line`, until the next call. False when a quote is not closed, or closed
    /// before the end of its field.
    bool Split(std::string_view line, std::vector<std::string_view>& fields);

    /// The delimiter among comma, tab, semicolon and bar that a header uses most; a comma when it
    /// has none. Those in quotes do not count.
    static char DelimiterOf(std::string_view header);

 private:
    char delimiter_;
    std::string unquoted_;
};

}  // namespace vestrel
