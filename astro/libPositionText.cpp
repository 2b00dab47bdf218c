#include "astro/libPositionText.h"

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

#include "astro/libConversions.h"
#include "astro/libStrings.h"

namespace vestrel {

namespace {

using Replacement = std::pair<std::string_view, std::string_view>;

constexpr std::array signs{
    Replacement{"\xE2\x88\x92", "-"},     // minus
    Replacement{"\xE2\x80\x90", "-"},     // hyphen
    Replacement{"\xE2\x80\x91", "-"},     // hyphen that does not break
    Replacement{"\xE2\x80\x92", "-"},     // figure dash
    Replacement{"\xE2\x80\x93", "-"},     // en dash
    Replacement{"\xEF\xBC\x8D", "-"},     // wide minus
    Replacement{"\xE2\x80\xB2", "'"},     // prime
    Replacement{"\xE2\x80\x99", "'"},     // quote
    Replacement{"\xCA\xB9", "'"},         // letter prime
    Replacement{"\xC2\xB4", "'"},         // accent
    Replacement{"\xE2\x80\xB3", "\""},    // double prime
    Replacement{"\xE2\x80\x9D", "\""},    // double quote
    Replacement{"\xCA\xBA", "\""},        // letter double prime
    Replacement{"''", "\""},              // typed primes
    Replacement{"\xC2\xBA", DegreeSign},  // ordinal sign
    Replacement{"\xCB\x9A", DegreeSign},  // ring above
    Replacement{"\xCA\xB0", "h"},         // raised letters
    Replacement{"\xE1\xB5\x90", "m"},
    Replacement{"\xCB\xA2", "s"},
    Replacement{"\xC2\xA0", " "},  // blanks
    Replacement{"\xE2\x80\x89", " "},
    Replacement{"\xE2\x80\xAF", " "},
    Replacement{"\xEF\xBB\xBF", ""},
    Replacement{"\t", " "},
    Replacement{"\r", " "},
    Replacement{"\n", " "},
};

/// Words around the two numbers. A word comes before any shorter word that it begins with.
constexpr std::array captions{
    Replacement{"right ascension", " "},
    Replacement{"declination", " , "},
    Replacement{"ra (j2000)", " "},
    Replacement{"dec (j2000)", " , "},
    Replacement{"(j2000)", " "},
    Replacement{"(icrs)", " "},
    Replacement{"j2000.0", " "},
    Replacement{"j2000", " "},
    Replacement{"icrs", " "},
    Replacement{"dec.", " , "},
    Replacement{"dec", " , "},
    Replacement{"de ", " , "},
    Replacement{"r.a.", " "},
    Replacement{"ra", " "},
    Replacement{"\xCE\xB1", " "},
    Replacement{"\xCE\xB4", " , "},
    Replacement{"=", " "},
};

void ReplaceAll(std::string& text, const Replacement& replacement) {
    const auto& [from, to] = replacement;
    for (std::size_t at = text.find(from); at != std::string::npos;
         at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
}

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    });
    return text;
}

/// One of the two coordinates, without the separators around it.
std::string Part(std::string_view text) {
    constexpr std::string_view around = " ,;:";
    const std::size_t first = text.find_first_not_of(around);
    if (first == std::string_view::npos) return {};
    const std::size_t last = text.find_last_not_of(around);
    return std::string(text.substr(first, last - first + 1));
}

/// The text in small letters and plain signs, with commas in place of the captions.
std::string WithoutCaptions(std::string_view utf8) {
    std::string text = Lower(PlainAngleText(utf8));
    for (const Replacement& caption : captions) ReplaceAll(text, caption);
    return Part(text);
}

/// Whether the comma can be that of a decimal: "40,5", "02 42 04,2", "40,5 20".
bool IsDecimalComma(std::string_view text, std::size_t comma) {
    constexpr std::string_view digits = "0123456789";
    if (text[comma] != ',') return false;
    const std::string_view before = text.substr(0, comma);
    const std::string_view after = text.substr(comma + 1);
    const std::size_t whole = before.find_last_not_of(digits) + 1;
    const std::size_t places = std::min(after.find_first_not_of(digits), after.size());
    if (whole == before.size() || places == 0) return false;
    if (whole > 0 && before[whole - 1] == '.') return false;
    // What goes on as a coordinate is the declination, unless that begins further on.
    const std::string_view rest = after.substr(places);
    constexpr auto none = std::string_view::npos;
    return rest.find_first_of(digits) == none || rest.find_first_of("+-") != none ||
           rest.front() == ' ';
}

std::optional<SkyPosition> SplitAt(std::string_view text, std::size_t place) {
    const std::string raText = Part(text.substr(0, place));
    const std::string decText = Part(text.substr(place));
    const double ra = ParseRA(raText);
    const double dec = ParseDec(decText);
    if (raText.empty() || decText.empty() || ra < 0 || dec == InvalidAngle) return std::nullopt;
    return SkyPosition{ra, dec};
}

}  // namespace

std::string PlainAngleText(std::string_view utf8) {
    std::string text(utf8);
    for (const Replacement& sign : signs) ReplaceAll(text, sign);
    return std::string(Trim(text));
}

bool MayBeOneCoordinate(std::string_view utf8) {
    constexpr std::string_view number = "0123456789.";
    constexpr auto none = std::string_view::npos;
    constexpr int numbersOfPosition = 6;
    const std::string text = WithoutCaptions(utf8);
    const std::size_t comma = text.find_first_of(",;");
    if (comma != none) return IsDecimalComma(text, comma);
    if (text.find_first_of("+-", 1) != none) return false;
    int numbers = 0;
    bool fraction = false;
    for (std::size_t at = text.find_first_of(number); at != none; ++numbers) {
        // Only the last number of a coordinate has a fraction.
        if (fraction) return false;
        const std::size_t end = std::min(text.find_first_not_of(number, at), text.size());
        fraction = text.substr(at, end - at).find('.') != none;
        at = text.find_first_of(number, end);
    }
    return numbers < numbersOfPosition;
}

std::optional<SkyPosition> ParsePosition(std::string_view utf8) {
    constexpr std::size_t longest = 200;
    if (utf8.size() > longest) return std::nullopt;
    const std::string text = WithoutCaptions(utf8);
    // The surest separator is tried first: a comma, then a sign, then the middle of the parts.
    const std::size_t comma = text.find_first_of(",;");
    const bool integers = text.find_first_not_of("0123456789,") == std::string::npos;
    if (comma != std::string::npos && !integers && IsDecimalComma(text, comma)) {
        return std::nullopt;
    }
    if (comma != std::string::npos) return SplitAt(text, comma);
    const std::size_t sign = text.find_first_of("+-", 1);
    if (sign != std::string::npos) return SplitAt(text, sign);
    std::vector<std::size_t> blanks;
    std::vector<SkyPosition> readings;
    for (std::size_t i = 1; i < text.size(); ++i) {
        if (text[i] != ' ' || text[i - 1] == ' ') continue;
        blanks.push_back(i);
        // Hours belong to the right ascension, degree signs to the declination.
        const bool hours = text.find('h', i) != std::string::npos;
        const bool degrees = text.find(DegreeSign) < i;
        if (hours || degrees) continue;
        if (const auto reading = SplitAt(text, i)) readings.push_back(*reading);
    }
    const bool lettered = text.find('h') != std::string::npos;
    const bool secondsFirst = !lettered || text.find('s') != std::string::npos;
    if (readings.size() == 1 && secondsFirst) return readings.front();
    // Numbers without letters: both coordinates have equally many parts.
    if (lettered || blanks.size() % 2 == 0) return std::nullopt;
    return SplitAt(text, blanks[blanks.size() / 2]);
}

}  // namespace vestrel
