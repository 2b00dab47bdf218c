#include "astro/libConversions.h"

#include <cmath>
#include <initializer_list>

#include "astro/libMath.h"
#include "astro/libStrings.h"

namespace vestrel {

namespace {

struct Sexagesimal {
    double Whole;
    double Minutes;
    double Seconds;
};

/// Splits a value, rounds its seconds and carries what reaches 60.
Sexagesimal SplitSexagesimal(double value, int decimals) {
    Sexagesimal parts{};
    parts.Whole = std::floor(value);
    const double rest = (value - parts.Whole) * 60;
    parts.Minutes = std::floor(rest);
    parts.Seconds = RoundToDecimals((rest - parts.Minutes) * 60, decimals);
    if (parts.Seconds >= 60) {
        parts.Seconds -= 60;
        parts.Minutes += 1;
    }
    if (parts.Minutes >= 60) {
        parts.Minutes -= 60;
        parts.Whole += 1;
    }
    return parts;
}

/// Padding goes by the length of the text, so that "7.5" stays "7.5".
std::string PaddedNumber(double value) {
    std::string text = NumberText(value);
    return text.size() < 2 ? "0" + text : text;
}

/// The place of the first separator *kind*, in the given order, that occurs at all.
std::size_t FindSeparator(std::string_view text, std::initializer_list<char> kinds) {
    for (const char kind : kinds) {
        const std::size_t position = text.find(kind);
        if (position != std::string_view::npos) return position;
    }
    return std::string_view::npos;
}

/// Adds `part / divisor` to `total`; false when the part is not numeric.
bool AddPart(std::string_view part, double divisor, double& total) {
    const auto value = ParseNumber(part);
    if (!value) return false;
    total += *value / divisor;
    return true;
}

/// The hours of a right ascension text; false when it is not one.
bool ParseHours(std::string_view text, double& hours) {
    constexpr auto none = std::string_view::npos;
    hours = 0;
    std::size_t separator = FindSeparator(text, {':', 'h', 'H', ' '});
    if (separator == none) return AddPart(text, 15, hours);
    if (!AddPart(text.substr(0, separator), 1, hours)) return false;

    std::string_view rest = Trim(text.substr(separator + 1));
    if (rest.empty()) return true;
    separator = FindSeparator(rest, {':', 'm', 'M', ' '});
    if (separator == none) return AddPart(rest, 60, hours);
    if (!AddPart(rest.substr(0, separator), 60, hours)) return false;

    rest = Trim(rest.substr(separator + 1));
    if (rest.empty()) return true;
    return AddPart(rest.substr(0, FindSeparator(rest, {':', 's', 'S'})), 3600, hours);
}

/// Takes a leading "-" off a part of a declination and reads the rest; an empty part counts 0.
bool ParseSignedPart(std::string_view part, double& value, double& sign) {
    part = Trim(part);
    value = 0;
    if (!part.empty() && part.front() == '-') {
        sign = -sign;
        part = Trim(part.substr(1));
        if (!part.empty() && part.front() == '-') return false;
    }
    if (part.empty()) return true;
    const auto number = ParseNumber(part);
    if (number) value = *number;
    return number.has_value();
}

/// The number of one side of a field size. `radiansPerUnit` is set when the text carries a unit.
std::optional<double> ParseSide(std::string_view text, double& radiansPerUnit) {
    constexpr double radiansPerArcminute = Pi / 180 / 60;
    text = Trim(text);
    for (const auto& [suffix, value] :
         {std::pair<std::string_view, double>{"d", radiansPerArcminute * 60},
          {DegreeSign, radiansPerArcminute * 60},
          {"m", radiansPerArcminute},
          {"'", radiansPerArcminute}}) {
        if (text.ends_with(suffix)) {
            radiansPerUnit = value;
            text.remove_suffix(suffix.size());
            break;
        }
    }
    return ParseNumber(text);
}

}  // namespace

std::string FormatRA(double ra, bool letters, int decimals) {
    Sexagesimal parts = SplitSexagesimal(ra * 12 / Pi, decimals);
    if (parts.Whole >= 24) parts.Whole -= 24;
    const std::string hours = PaddedNumber(parts.Whole);
    const std::string minutes = PaddedNumber(parts.Minutes);
    const std::string seconds = PaddedNumber(parts.Seconds);
    if (letters) return hours + "h" + minutes + "m" + seconds + "s";
    return hours + " " + minutes + " " + seconds;
}

std::string FormatDec(double dec, bool symbols, int decimals) {
    const double sign = dec < 0 ? -1 : 1;
    const Sexagesimal parts = SplitSexagesimal(dec * sign * 180 / Pi, decimals);
    const std::string degrees = PaddedNumber(parts.Whole);
    const std::string minutes = PaddedNumber(parts.Minutes);
    const std::string seconds = PaddedNumber(parts.Seconds);
    std::string text = symbols ? degrees + DegreeSign + " " + minutes + "' " + seconds + "\""
                               : degrees + " " + minutes + " " + seconds;
    return sign < 0 ? "-" + text : text;
}

double ParseRA(std::string_view text) {
    double hours = 0;
    if (!ParseHours(Trim(text), hours)) return InvalidAngle;
    const double radians = hours * Pi / 12;
    return radians >= 0 && radians <= TwoPi ? radians : InvalidAngle;
}

double ParseDec(std::string_view text) {
    constexpr auto none = std::string_view::npos;
    // Both encodings of the degree sign become the one byte that is searched for.
    constexpr char degreeByte = '\xB0';
    std::string plain(Trim(text));
    for (std::size_t at = plain.find(DegreeSign); at != none; at = plain.find(DegreeSign)) {
        plain.replace(at, 2, 1, degreeByte);
    }

    double degrees = 0;
    const std::string_view whole = plain;
    const std::size_t separator = FindSeparator(whole, {':', 'd', 'D', degreeByte, ' '});
    if (separator == none) {
        if (!AddPart(whole, 1, degrees)) return InvalidAngle;
    } else {
        const std::string_view rest = Trim(whole.substr(separator + 1));
        const std::size_t minutesEnd = FindSeparator(rest, {':', 'm', 'M', '\'', ' '});
        std::string_view secondsText =
            minutesEnd == none ? std::string_view() : rest.substr(minutesEnd + 1);
        secondsText = secondsText.substr(0, FindSeparator(secondsText, {':', 's', 'S', '"'}));

        double sign = 1;
        double minutes = 0;
        double seconds = 0;
        if (!ParseSignedPart(whole.substr(0, separator), degrees, sign) ||
            !ParseSignedPart(rest.substr(0, minutesEnd), minutes, sign) ||
            !ParseSignedPart(secondsText, seconds, sign)) {
            return InvalidAngle;
        }
        degrees = (degrees + minutes / 60 + seconds / 3600) * sign;
    }
    const double radians = degrees * Pi / 180;
    return radians >= -Pi / 2 && radians <= Pi / 2 ? radians : InvalidAngle;
}

std::optional<std::pair<double, double>> ParseFieldSize(std::string_view text) {
    std::size_t split = text.find_first_of("xX");
    std::size_t length = 1;
    if (split == std::string_view::npos) {
        constexpr std::string_view times = "\xC3\x97";
        split = text.find(times);
        length = times.size();
    }
    if (split == std::string_view::npos) return std::nullopt;
    constexpr double radiansPerArcminute = Pi / 180 / 60;
    double unitOfSecond = radiansPerArcminute;
    const auto second = ParseSide(text.substr(split + length), unitOfSecond);
    double unitOfFirst = unitOfSecond;
    const auto first = ParseSide(text.substr(0, split), unitOfFirst);
    if (!first || !second) return std::nullopt;
    const std::pair<double, double> size{*first * unitOfFirst, *second * unitOfSecond};
    const auto sensible = [](double side) { return side > 0 && side <= TwoPi; };
    if (!sensible(size.first) || !sensible(size.second)) return std::nullopt;
    return size;
}

}  // namespace vestrel
