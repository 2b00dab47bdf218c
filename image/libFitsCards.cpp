#include "image/libFitsCards.h"

#include <algorithm>
#include <array>

#include "astro/libStrings.h"

namespace vestrel {

namespace {

constexpr std::size_t keywordLength = 8;
constexpr std::size_t valueStart = 10;

bool Printable(char c) {
    return c >= ' ' && c <= '~';
}

std::string PrintableText(std::string_view text) {
    std::string result(text);
    std::replace_if(
        result.begin(), result.end(), [](char c) { return !Printable(c); }, '?');
    return result;
}

/// Keyword, value from column 11 on, comment.
std::string Card(std::string_view keyword, const std::string& value, std::string_view comment) {
    std::string card(keyword);
    card.resize(keywordLength, ' ');
    card.append("= ").append(value);
    if (!comment.empty()) card.append(" / ").append(PrintableText(comment));
    card.resize(FitsCardLength, ' ');
    return card;
}

std::string RightAligned(const std::string& value) {
    constexpr std::size_t width = 20;
    return value.size() < width ? std::string(width - value.size(), ' ') + value : value;
}

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

/// A number in the form of the standard: capital exponent letters, no blanks inside.
bool IsStandardNumber(std::string_view text) {
    return ParseFitsNumber(text).has_value() && text.find_first_of("ed ") == std::string_view::npos;
}

bool IsComplexNumber(std::string_view text) {
    if (text.size() < 2 || text.front() != '(' || text.back() != ')') return false;
    text = text.substr(1, text.size() - 2);
    const std::size_t comma = text.find(',');
    return comma != std::string_view::npos && IsStandardNumber(Trim(text.substr(0, comma))) &&
           IsStandardNumber(Trim(text.substr(comma + 1)));
}

enum class Kind { Nothing, Flag, Whole, Real, Text, Other };

/// What stands after the "=" of a card.
struct ValueField {
    Kind What = Kind::Nothing;
    std::string Value;  ///< a text without its quotes
    std::string_view Comment;
    bool Standard = false;
};

/// A text in quotes, two of which stand for one.
ValueField QuotedField(std::string_view field) {
    ValueField result{Kind::Text, {}, {}, false};
    std::size_t i = 1;
    for (;; ++i) {
        if (i >= field.size()) return result;  // never closed
        if (field[i] != '\'') {
            result.Value += field[i];
        } else if (i + 1 < field.size() && field[i + 1] == '\'') {
            result.Value += field[i++];
        } else {
            break;
        }
    }
    result.Value.erase(result.Value.find_last_not_of(' ') + 1);
    const std::string_view rest = Trim(field.substr(i + 1));
    result.Standard = rest.empty() || rest.front() == '/';
    result.Comment = Trim(rest.substr(rest.empty() || rest.front() != '/' ? 0 : 1));
    return result;
}

ValueField SplitValueField(std::string_view field) {
    field = Trim(field);
    if (!field.empty() && field.front() == '\'') return QuotedField(field);
    const std::size_t slash = field.find('/');
    ValueField result;
    const std::string_view token = Trim(field.substr(0, slash));
    if (slash != std::string_view::npos) result.Comment = Trim(field.substr(slash + 1));
    result.Value = token;
    result.Standard = true;
    if (token == "T" || token == "F") {
        result.What = Kind::Flag;
    } else if (ParseFitsNumber(token)) {
        result.What =
            token.find_first_of(".EeDd") == std::string_view::npos ? Kind::Whole : Kind::Real;
        result.Standard = IsStandardNumber(token);
        result.Value = UpperCase(token);
    } else if (IsComplexNumber(token)) {
        result.What = Kind::Other;
    } else if (!token.empty()) {
        result.What = Kind::Text;  // without its quotes
        result.Standard = false;
    }
    return result;
}

/// yyyy-mm-dd, with or without Thh:mm:ss[.s...], or the old dd/mm/yy.
bool IsStandardDate(std::string_view text) {
    const auto number = [text](std::size_t start, std::size_t digits, int low, int high) {
        if (start + digits > text.size()) return false;
        int value = 0;
        for (const char c : text.substr(start, digits)) {
            if (!IsDigit(c)) return false;
            value = value * 10 + (c - '0');
        }
        return value >= low && value <= high;
    };
    const auto sign = [text](std::size_t at, char c) { return at < text.size() && text[at] == c; };
    if (text.size() == 8) {
        return number(0, 2, 1, 31) && sign(2, '/') && number(3, 2, 1, 12) && sign(5, '/') &&
               number(6, 2, 0, 99);
    }
    // The days of the months, February's in a leap year.
    constexpr std::array<int, 12> days = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (!number(0, 4, 0, 9999) || !sign(4, '-') || !number(5, 2, 1, 12) || !sign(7, '-')) {
        return false;
    }
    const int month = (text[5] - '0') * 10 + (text[6] - '0');
    const int year =
        (text[0] - '0') * 1000 + (text[1] - '0') * 100 + (text[2] - '0') * 10 + (text[3] - '0');
    const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    const int lastDay = month == 2 && !leap ? 28 : days[static_cast<std::size_t>(month) - 1];
    if (!number(8, 2, 1, lastDay)) return false;
    if (text.size() == 10) return true;
    if (!sign(10, 'T') || !number(11, 2, 0, 23) || !sign(13, ':') || !number(14, 2, 0, 59) ||
        !sign(16, ':') || !number(17, 2, 0, 60)) {
        return false;
    }
    if (text.size() == 19) return true;
    return sign(19, '.') && text.size() > 20 && std::all_of(text.begin() + 20, text.end(), IsDigit);
}

/// The date in the form of the standard, as far as that is possible: without the letter of the time
/// zone, with "T" before the time and with seconds.
std::string StandardDate(std::string text) {
    if (IsStandardDate(text)) return text;
    constexpr std::size_t dayLength = 10;
    constexpr std::size_t minuteLength = 16;
    if (text.ends_with('Z')) text.pop_back();
    std::replace(text.begin(), text.end(), '/', '-');
    if (text.size() > dayLength && text[dayLength] == ' ') text[dayLength] = 'T';
    if (text.size() == minuteLength) text += ":00";
    return text;
}

bool IsOneOf(std::string_view keyword, std::initializer_list<std::string_view> list) {
    return std::find(list.begin(), list.end(), keyword) != list.end();
}

/// As `IsOneOf`, also with the letter of an alternative coordinate description behind the keyword.
bool IsOneOfDescriptions(std::string_view keyword, std::initializer_list<std::string_view> list) {
    if (IsOneOf(keyword, list)) return true;
    if (keyword.empty() || keyword.back() < 'A' || keyword.back() > 'Z') return false;
    keyword.remove_suffix(1);
    return IsOneOf(keyword, list);
}

bool IsReservedForTexts(std::string_view keyword) {
    return IsOneOf(keyword,
                   {"AUTHOR", "BUNIT", "CREATOR", "EXTNAME", "INSTRUME", "OBJECT", "OBSERVER",
                    "ORIGIN", "REFERENC", "TELESCOP", "TIMESYS", "TIMEUNIT", "TREFPOS"}) ||
           IsOneOfDescriptions(keyword, {"WCSNAME"});
}

/// The keywords of velocity reference frames, and the values they may have.
bool IsRestFrameKeyword(std::string_view keyword) {
    return IsOneOfDescriptions(keyword, {"SPECSYS", "SSYSOBS", "SSYSSRC"});
}
bool IsRestFrame(std::string_view value) {
    return IsOneOf(value, {"TOPOCENT", "GEOCENTR", "BARYCENT", "HELIOCEN", "LSRK", "LSRD",
                           "GALACTOC", "LOCALGRP", "CMBDIPOL", "SOURCE"});
}

bool IsReservedForNumbers(std::string_view keyword) {
    return IsOneOf(keyword, {"DATAMAX",  "DATAMIN",  "MJD-OBS",  "MJD-AVG",  "MJD-BEG",  "MJD-END",
                             "MJDREF",   "JDREF",    "OBSGEO-B", "OBSGEO-L", "OBSGEO-H", "OBSGEO-X",
                             "OBSGEO-Y", "OBSGEO-Z", "RESTFREQ", "TELAPSE",  "TIMEDEL",  "TIMEPIXR",
                             "TSTART",   "TSTOP",    "XPOSURE"}) ||
           IsOneOfDescriptions(keyword, {"RESTFRQ", "RESTWAV", "VELANGL", "VELOSYS", "ZSOURCE"});
}

bool IsDateKeyword(std::string_view keyword) {
    return keyword == "DATE" || keyword.starts_with("DATE-");
}

/// Whether the standard allows a value of this kind for a keyword. Keywords of tables do not belong
/// in an image.
bool MayHave(std::string_view keyword, const ValueField& field) {
    if (field.What == Kind::Nothing) return false;
    if (IsDateKeyword(keyword)) {
        return field.What == Kind::Text && IsStandardDate(field.Value);
    }
    if (IsRestFrameKeyword(keyword)) return field.What == Kind::Text && IsRestFrame(field.Value);
    if (IsReservedForTexts(keyword)) return field.What == Kind::Text;
    const bool number = field.What == Kind::Whole || field.What == Kind::Real;
    if (IsReservedForNumbers(keyword)) return number;
    if (IsOneOf(keyword, {"BLANK", "EXTVER", "EXTLEVEL"})) return field.What == Kind::Whole;
    if (IsOneOf(keyword, {"EXTEND", "INHERIT"})) return field.What == Kind::Flag;
    static constexpr std::string_view columns[] = {
        "PSCAL", "PTYPE", "PZERO", "TBCOL", "TCDLT", "TCROT", "TCRPX", "TCRVL", "TCTYP",
        "TCUNI", "TDIM",  "TDISP", "TFORM", "TNULL", "TSCAL", "TTYPE", "TUNIT", "TZERO"};
    for (const std::string_view column : columns) {
        if (keyword.starts_with(column) && keyword.size() > column.size() &&
            std::all_of(keyword.begin() + static_cast<std::ptrdiff_t>(column.size()), keyword.end(),
                        IsDigit)) {
            return false;
        }
    }
    return !IsOneOf(keyword, {"TFIELDS", "THEAP"});
}

/// Whether a keyword may have any value, and therefore none.
bool IsFree(std::string_view keyword) {
    const auto may = [keyword](Kind kind) { return MayHave(keyword, {kind, {}, {}, true}); };
    return may(Kind::Flag) && may(Kind::Whole) && may(Kind::Text);
}

bool IsStandardKeyword(std::string_view keyword) {
    return !keyword.empty() && keyword.size() <= keywordLength &&
           std::all_of(keyword.begin(), keyword.end(), [](char c) {
               return (c >= 'A' && c <= 'Z') || IsDigit(c) || c == '-' || c == '_';
           });
}

bool IsCommentary(std::string_view keyword) {
    return keyword.empty() || keyword == "COMMENT" || keyword == "HISTORY";
}

/// The text of a card as a comment, whether or not it is a valid card.
std::vector<std::string> AsComment(std::string_view card) {
    card = Trim(card);
    if (card.empty()) return {};
    return FitsCommentCards(card);
}

}  // namespace

std::string FitsTextCard(std::string_view keyword, std::string_view text,
                         std::string_view comment) {
    constexpr std::size_t longest = FitsCardLength - valueStart - 1;
    std::string value = "'";
    for (const char c : PrintableText(text)) {
        const std::string_view written = c == '\'' ? "''" : std::string_view(&c, 1);
        if (value.size() + written.size() > longest) break;
        value += written;
    }
    // Texts have at least eight characters, and comments start in the same column where possible.
    if (value.size() < 9) value.resize(9, ' ');
    value += "'";
    if (value.size() < 20) value.resize(20, ' ');
    return Card(keyword, value, comment);
}

std::string FitsNumberCard(std::string_view keyword, double value, std::string_view comment) {
    return Card(keyword, RightAligned(NumberText(value)), comment);
}

std::string FitsFlagCard(std::string_view keyword, bool value, std::string_view comment) {
    return Card(keyword, RightAligned(value ? "T" : "F"), comment);
}

std::vector<std::string> FitsCommentCards(std::string_view text) {
    constexpr std::size_t room = FitsCardLength - valueStart;
    std::vector<std::string> cards;
    const std::string printable = PrintableText(text);
    for (std::size_t start = 0; start < printable.size() || cards.empty(); start += room) {
        std::string card = "COMMENT   " + printable.substr(start, room);
        card.resize(FitsCardLength, ' ');
        cards.push_back(std::move(card));
    }
    return cards;
}

std::string FitsHeaderBlocks(const std::vector<std::string>& cards) {
    std::string header;
    for (const std::string& card : cards) header += card;
    header += "END";
    header.resize(WholeFitsBlocks(header.size()), ' ');
    return header;
}

std::string_view KeywordOfCard(std::string_view card) {
    return Trim(card.substr(0, keywordLength));
}

bool MayRepeat(std::string_view keyword) {
    return IsCommentary(keyword) || keyword == "HIERARCH" || keyword == "CONTINUE";
}

std::string_view ValueOfCard(std::string_view card) {
    const std::string_view field = card.substr(valueStart);
    return Trim(field.substr(0, field.find('/')));
}

std::vector<std::string> StandardCards(std::string_view bytes) {
    // Some programs fill headers with zero bytes in place of blanks.
    std::string card(bytes.substr(0, FitsCardLength));
    std::replace(card.begin(), card.end(), '\0', ' ');
    card.resize(FitsCardLength, ' ');
    const bool printable = std::all_of(card.begin(), card.end(), Printable);
    card = PrintableText(card);

    const std::string_view text(card);
    // A keyword with such bytes was not known to any reader, and must not become a known one.
    if (bytes.substr(0, std::min(bytes.find('='), FitsCardLength)).find('\0') != bytes.npos) {
        return AsComment(text);
    }
    std::string_view keyword = KeywordOfCard(text);
    const bool leftAligned = card.front() != ' ';
    if (printable && IsCommentary(keyword) && (leftAligned || keyword.empty())) return {card};
    if (IsCommentary(UpperCase(keyword))) {
        std::string commentary = UpperCase(keyword);
        commentary.resize(keywordLength, ' ');
        return {commentary + card.substr(keywordLength)};
    }
    const bool inColumn = text.substr(keywordLength, 2) == "= ";
    // Two widespread conventions: HIERARCH for long keywords, CONTINUE for the rest of a long text.
    if (keyword == "HIERARCH" && !inColumn) {
        const std::size_t assigned = text.find('=');
        const bool value = assigned != std::string_view::npos &&
                           SplitValueField(text.substr(assigned + 1)).Standard;
        return printable && value ? std::vector{card} : AsComment(text);
    }
    if (keyword == "CONTINUE") {
        const ValueField more = SplitValueField(text.substr(keywordLength));
        const bool goesOn = printable && !inColumn && more.What == Kind::Text && more.Standard;
        return goesOn ? std::vector{card} : AsComment(text);
    }
    // A card without a value is a comment under its own keyword.
    if (printable && !inColumn && leftAligned && IsStandardKeyword(keyword) && IsFree(keyword)) {
        return {card};
    }
    const std::size_t equals = inColumn ? keywordLength : text.find('=');
    if (equals == std::string_view::npos) return AsComment(text);

    const std::string capitals = UpperCase(Trim(text.substr(0, equals)));
    if (!IsStandardKeyword(capitals)) return AsComment(text);
    ValueField field = SplitValueField(text.substr(equals + 1));
    if (IsReservedForTexts(capitals) && field.What != Kind::Text && field.What != Kind::Nothing) {
        field.What = Kind::Text;
        field.Standard = false;
    }
    if (IsDateKeyword(capitals) && field.What == Kind::Text && !IsStandardDate(field.Value)) {
        field.Value = StandardDate(field.Value);
        field.Standard = false;
    }
    if (!MayHave(capitals, field)) return AsComment(text);
    if (printable && inColumn && leftAligned && capitals == keyword && field.Standard) {
        return {card};
    }
    if (field.What == Kind::Text) return {FitsTextCard(capitals, field.Value, field.Comment)};
    return {Card(capitals, RightAligned(field.Value), field.Comment)};
}

}  // namespace vestrel
