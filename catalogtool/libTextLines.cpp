#include "catalogtool/libTextLines.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

#include "astro/libStrings.h"

namespace vestrel {

bool TakeLine(std::string_view& text, std::string_view& line) {
    if (text.empty()) return false;
    const std::size_t end = text.find('\n');
    line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    if (line.ends_with('\r')) line.remove_suffix(1);
    return true;
}

std::vector<std::string_view> PiecesOfLines(std::string_view text, std::size_t pieceBytes) {
    std::vector<std::string_view> pieces;
    while (!text.empty()) {
        const std::size_t last = std::min(pieceBytes, text.size()) - 1;
        const std::size_t end = std::min(text.find('\n', last), text.size() - 1) + 1;
        pieces.push_back(text.substr(0, end));
        text.remove_prefix(end);
    }
    return pieces;
}

LineBlocks::LineBlocks(UnpackedInput& input, std::size_t blockBytes)
    : input_(input), buffer_(std::max(blockBytes, 2 * LongestLine)) {}

std::string_view LineBlocks::Next() {
    // The start of a line whose end came with no earlier block.
    std::copy(buffer_.begin() + static_cast<std::ptrdiff_t>(begin_),
              buffer_.begin() + static_cast<std::ptrdiff_t>(end_), buffer_.begin());
    end_ -= begin_;
    begin_ = 0;
    while (!atEnd_) {
        const std::size_t room = buffer_.size() - end_;
        const std::size_t count = input_.Read(buffer_.data() + end_, room);
        end_ += count;
        atEnd_ = count < room;
        constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";
        std::string_view text(buffer_.data(), end_);
        if (atStart_ && text.starts_with(byteOrderMark)) text.remove_prefix(byteOrderMark.size());
        atStart_ = false;
        begin_ = end_;
        if (atEnd_ && input_.Fault().empty()) return text;
        const std::size_t whole = text.rfind('\n') + 1;  // 0 when no line ends
        if (whole > 0 || atEnd_) {
            begin_ -= text.size() - whole;
            return text.substr(0, whole);
        }
        // With room for the end of a line (CR LF), what is kept is too long to be a row.
        end_ = LongestLine + 2;
        begin_ = 0;
    }
    return {};
}

namespace {

constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();

/// The value of a plain decimal number whose digits fit a double without rounding; then one
/// division by a power of ten, which is exact too, gives the correctly rounded result (Clinger
/// 1990, ACM SIGPLAN Notices 25(6), 92). NaN for any other text.
double ShortDecimal(std::string_view text) {
    constexpr std::array<double, 20> powersOfTen = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,
                                                    1e7,  1e8,  1e9,  1e10, 1e11, 1e12, 1e13,
                                                    1e14, 1e15, 1e16, 1e17, 1e18, 1e19};
    constexpr std::uint64_t largest = std::uint64_t{1} << 53;
    const bool negative = text.starts_with('-');
    if (negative) text.remove_prefix(1);
    // Nineteen digits fit 64 bits.
    if (text.size() < 2 || text.size() > powersOfTen.size()) return notANumber;
    std::uint64_t digits = 0;
    const char* at = text.data();
    const char* end = at + text.size();
    const auto takeDigits = [&] {
        for (; at < end; ++at) {
            const auto digit = static_cast<unsigned int>(*at) - '0';
            if (digit > 9) return;
            digits = digits * 10 + digit;
        }
    };
    takeDigits();
    const bool whole = at == end;
    if (!whole && *at++ != '.') return notANumber;
    const auto decimals = static_cast<std::size_t>(end - at);
    takeDigits();
    if (at < end || digits > largest || (whole && text.size() == powersOfTen.size())) {
        return notANumber;
    }
    const double value = static_cast<double>(digits) / powersOfTen[decimals];
    return negative ? -value : value;
}

}  // namespace

double FieldNumber(std::string_view field) {
    // Written for speed, because it is called hundreds of millions of times.
    if (field.starts_with('+')) field.remove_prefix(1);
    if (const double value = ShortDecimal(field); !std::isnan(value)) return value;
    double value = notANumber;
    const auto result = std::from_chars(field.data(), field.data() + field.size(), value);
    const bool good = result.ec == std::errc() && result.ptr == field.data() + field.size();
    return good && std::isfinite(value) ? value : notANumber;
}

bool FieldSplitter::Split(std::string_view line, std::vector<std::string_view>& fields) {
    fields.clear();
    if (line.find('"') == std::string_view::npos) {
        for (;;) {
            const std::size_t end = line.find(delimiter_);
            const std::string_view field = line.substr(0, end);
            const bool blanks = !field.empty() && (field.front() == ' ' || field.back() == ' ');
            fields.push_back(blanks ? Trim(field) : field);
            if (end == std::string_view::npos) return true;
            line.remove_prefix(end + 1);
        }
    }
    // The unquoted text is never longer than the line, so the fields' text does not move.
    unquoted_.clear();
    unquoted_.reserve(line.size());
    for (std::size_t i = 0;; ++i) {
        while (i < line.size() && line[i] == ' ' && delimiter_ != ' ') ++i;
        const std::size_t start = unquoted_.size();
        if (i < line.size() && line[i] == '"') {
            for (++i;; ++i) {
                if (i >= line.size()) return false;
                if (line[i] == '"' && (++i >= line.size() || line[i] != '"')) break;
                unquoted_ += line[i];
            }
            while (i < line.size() && line[i] == ' ') ++i;
            if (i < line.size() && line[i] != delimiter_) return false;
        } else {
            for (; i < line.size() && line[i] != delimiter_; ++i) unquoted_ += line[i];
        }
        fields.push_back(Trim(std::string_view(unquoted_).substr(start)));
        if (i >= line.size()) return true;
    }
}

char FieldSplitter::DelimiterOf(std::string_view header) {
    constexpr std::string_view candidates = ",\t;|";
    char best = ',';
    std::ptrdiff_t most = 0;
    for (const char candidate : candidates) {
        bool quoted = false;
        std::ptrdiff_t count = 0;
        for (const char c : header) {
            if (c == '"') quoted = !quoted;
            if (c == candidate && !quoted) ++count;
        }
        if (count > most) {
            most = count;
            best = candidate;
        }
    }
    return best;
}

}  // namespace vestrel
