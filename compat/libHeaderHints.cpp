#include "compat/libHeaderHints.h"

#include <cmath>
#include <string_view>
#include <utility>

#include "astro/libConversions.h"
#include "astro/libMath.h"
#include "astro/libStrings.h"
#include "image/libFitsCards.h"

namespace vestrel {

namespace {

/// The value of the first card of a keyword, without quotes and comment; empty when there is none.
std::string ValueOf(const std::vector<std::string>& cards, std::string_view keyword) {
    for (const std::string& card : cards) {
        if (KeywordOfCard(card) != keyword) continue;
        std::string_view value = Trim(ValueOfCard(card));
        if (value.starts_with('\'')) value = value.substr(1, value.find('\'', 1) - 1);
        return std::string(Trim(value));
    }
    return {};
}

std::optional<double> NumberOf(const std::vector<std::string>& cards, std::string_view keyword) {
    const auto number = ParseFitsNumber(ValueOf(cards, keyword));
    return number && std::isfinite(*number) ? number : std::nullopt;
}

double InCircle(double degrees) {
    const double rest = std::fmod(degrees, 360);
    return rest < 0 ? rest + 360 : rest;
}

}  // namespace

std::vector<HeaderCentre> HeaderCentres(const std::vector<std::string>& cards) {
    std::vector<HeaderCentre> centres;
    std::vector<HeaderCentre> asHours;
    constexpr double hours = 24;
    constexpr double degreesPerHour = 15;
    for (const auto& [raKey, decKey] :
         {std::pair{"RA", "DEC"}, {"OBJCTRA", "OBJCTDEC"}, {"CRVAL1", "CRVAL2"}}) {
        const std::string raText = ValueOf(cards, raKey);
        const std::string decText = ValueOf(cards, decKey);
        const double dec = ParseDec(decText);
        if (raText.empty() || decText.empty() || dec == InvalidAngle) continue;
        const double decDegrees = dec * ExactDegreesPerRadian;
        if (const auto number = ParseFitsNumber(raText)) {
            if (!(std::fabs(*number) <= 360)) continue;
            centres.push_back({InCircle(*number), decDegrees});
            if (raKey == std::string_view("RA") && *number >= 0 && *number < hours) {
                asHours.push_back({*number * degreesPerHour, decDegrees});
            }
        } else if (const double ra = ParseRA(raText); ra != InvalidAngle) {
            centres.push_back({InCircle(ra * ExactDegreesPerRadian), decDegrees});
        }
    }
    centres.insert(centres.end(), asHours.begin(), asHours.end());
    return centres;
}

std::optional<double> HeaderMatrixScale(const std::vector<std::string>& cards) {
    if (!ValueOf(cards, "CTYPE1").empty() && NumberOf(cards, "CRVAL1")) return std::nullopt;
    const auto along = NumberOf(cards, "CD2_2");
    const auto across = NumberOf(cards, "CD1_2");
    const double scale = along || across ? std::hypot(along.value_or(0), across.value_or(0))
                                         : std::fabs(NumberOf(cards, "CDELT2").value_or(0));
    // 1 is what stands there when nobody knew.
    constexpr double least = 1e-6;
    constexpr double most = 0.99;
    return scale >= least && scale <= most ? std::optional(scale) : std::nullopt;
}

}  // namespace vestrel
