#include "compat/libNumberFormats.h"

#include <array>
#include <charconv>

namespace vestrel {

namespace {

std::string Formatted(double value, std::chars_format format, int precision) {
    std::array<char, 400> buffer{};  // the largest double has 309 digits
    const auto end =
        std::to_chars(buffer.data(), buffer.data() + buffer.size(), value, format, precision);
    return {buffer.data(), end.ptr};
}

}  // namespace

std::string GeneralText(double value, int digits) {
    return Formatted(value, std::chars_format::general, digits);
}

std::string FixedText(double value, int decimals) {
    return Formatted(value, std::chars_format::fixed, decimals);
}

std::string LongScientificText(double value) {
    constexpr int decimals = 16;
    constexpr std::size_t exponentDigits = 3;
    std::string text = Formatted(value, std::chars_format::scientific, decimals);
    if (text.front() != '-') text.insert(0, 1, ' ');
    const std::size_t e = text.find('e');
    if (e == std::string::npos) return text;
    text[e] = 'E';
    const std::size_t digits = text.size() - e - 2;
    if (digits < exponentDigits) text.insert(e + 2, exponentDigits - digits, '0');
    return text;
}

}  // namespace vestrel
