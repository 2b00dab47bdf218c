#include "astro/libStrings.h"

#include <charconv>
#include <cmath>
#include <limits>

#include "astro/libMath.h"

namespace vestrel {

namespace {

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

/// A finite number's decimal digits without trailing zeros, and the exponent of the first one.
struct DecimalDigits {
    std::string Digits;  // at least one, the first not 0 unless the value is 0
    int Exponent = 0;    // the value is D.DDD × 10^Exponent
    bool Negative = false;
};

DecimalDigits SignificantDigits(double value) {
    char buffer[64];
    constexpr int digitsAfterPoint = 14;  // 15 significant digits in all
    const auto end = std::to_chars(buffer, buffer + sizeof buffer, std::fabs(value),
                                   std::chars_format::scientific, digitsAfterPoint)
                         .ptr;
    const std::string_view text(buffer, static_cast<std::size_t>(end - buffer));
    const std::size_t mark = text.find('e');

    DecimalDigits result;
    result.Digits = std::string(1, text[0]) + std::string(text.substr(2, mark - 2));
    result.Digits.erase(result.Digits.find_last_not_of('0') + 1);
    if (result.Digits.empty()) result.Digits = "0";
    const char* exponent = text.data() + mark + 1;
    if (*exponent == '+') ++exponent;
    std::from_chars(exponent, end, result.Exponent);
    result.Negative = value < 0;
    return result;
}

std::string WithoutExponent(const DecimalDigits& number) {
    std::string text = number.Negative ? "-" : "";
    const int count = static_cast<int>(number.Digits.size());
    if (number.Exponent < 0) {
        text += "0." + std::string(static_cast<std::size_t>(-number.Exponent - 1), '0');
        return text + number.Digits;
    }
    if (count <= number.Exponent + 1) {
        text += number.Digits;
        return text + std::string(static_cast<std::size_t>(number.Exponent + 1 - count), '0');
    }
    const auto whole = static_cast<std::size_t>(number.Exponent) + 1;
    return text + number.Digits.substr(0, whole) + "." + number.Digits.substr(whole);
}

std::string NotFiniteText(double value) {
    if (std::isnan(value)) return "NaN";
    return value < 0 ? "-INF" : "INF";
}

}  // namespace

std::string_view Trim(std::string_view text) {
    const std::size_t first = text.find_first_not_of(' ');
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

std::string UpperCase(std::string_view text) {
    std::string result(text);
    for (char& c : result) {
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    }
    return result;
}

std::optional<double> ParseNumber(std::string_view text) {
    text = Trim(text);
    std::string number;  // in the form that from_chars reads
    std::size_t i = 0;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
        if (text[i] == '-') number += '-';
        ++i;
    }
    bool anyDigit = false;
    bool anyPoint = false;
    for (; i < text.size(); ++i) {
        if (IsDigit(text[i])) {
            anyDigit = true;
        } else if (text[i] == '.' && !anyPoint) {
            anyPoint = true;
        } else {
            break;
        }
        number += text[i];
    }
    if (!anyDigit) return std::nullopt;
    const bool anyExponent = i < text.size();
    bool negativeExponent = false;
    if (anyExponent) {
        if (std::string_view("eE").find(text[i]) == std::string_view::npos) return std::nullopt;
        number += 'e';
        ++i;
        if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
            negativeExponent = text[i] == '-';
            number += text[i];
            ++i;
        }
        if (i == text.size()) return std::nullopt;
        for (; i < text.size(); ++i) {
            if (!IsDigit(text[i])) return std::nullopt;
            number += text[i];
        }
    }

    double value = 0;
    const auto result = std::from_chars(number.data(), number.data() + number.size(), value);
    if (result.ec == std::errc::result_out_of_range) {
        // Without an exponent only "0.000…" can be too small, and hundreds of digits too large.
        const bool tiny =
            anyExponent ? negativeExponent : number.find_first_of("123456789") > number.find('.');
        value = tiny ? 0.0 : std::numeric_limits<double>::infinity();
        if (number[0] == '-') value = -value;
    }
    return value;
}

std::optional<double> ParseFitsNumber(std::string_view text) {
    std::string plain(text);
    const std::size_t exponent = plain.find_first_of("dD");
    if (exponent != std::string::npos) plain[exponent] = 'E';
    return ParseNumber(plain);
}

std::string NumberText(double value) {
    if (!std::isfinite(value)) return NotFiniteText(value);
    const DecimalDigits number = SignificantDigits(value);
    if (number.Digits == "0") return "0";
    if (number.Exponent >= -4 && number.Exponent < 15) return WithoutExponent(number);

    std::string text = number.Negative ? "-" : "";
    text += number.Digits.substr(0, 1);
    if (number.Digits.size() > 1) text += "." + number.Digits.substr(1);
    const int magnitude = std::abs(number.Exponent);
    text += number.Exponent < 0 ? "E-" : "E+";
    if (magnitude < 10) text += "0";
    return text + std::to_string(magnitude);
}

std::string PlainNumberText(double value) {
    if (!std::isfinite(value)) return NotFiniteText(value);
    const DecimalDigits number = SignificantDigits(value);
    return number.Digits == "0" ? "0" : WithoutExponent(number);
}

std::string RoundedText(double value, int decimals) {
    return NumberText(RoundToDecimals(value, decimals));
}

bool SplitField(std::string& text, char separator, std::string& field) {
    text = Trim(text);
    const std::size_t position = text.find(separator);
    if (position == std::string::npos) return false;
    field = Trim(std::string_view(text).substr(0, position));
    text.erase(0, position + 1);
    return true;
}

std::size_t LastFolderSeparator(std::string_view path) {
    return path.find_last_of("\\/");
}

std::string FolderOfPath(std::string_view path) {
    const std::size_t last = LastFolderSeparator(path);
    if (last == std::string_view::npos) return {};
    return std::string(path.substr(0, last == 0 ? 1 : last));
}

std::string FileNameOfPath(std::string_view path) {
    const std::size_t last = LastFolderSeparator(path);
    return std::string(last == std::string_view::npos ? path : path.substr(last + 1));
}

}  // namespace vestrel
