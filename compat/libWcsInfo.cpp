#include "compat/libWcsInfo.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <numbers>
#include <string_view>

#include "astro/libMath.h"
#include "astro/libSkyModel.h"
#include "astro/libStrings.h"
#include "compat/libNumberFormats.h"
#include "image/libFitsCards.h"

namespace vestrel {

namespace {

constexpr double fullCircle = 360;
constexpr double arcsecondsPerDegree = 3600;

using CardValues = std::map<std::string, std::string, std::less<>>;

/// The cards up to END; nothing without one.
std::optional<CardValues> ReadCards(std::span<const unsigned char> bytes) {
    CardValues values;
    for (std::size_t at = 0; at + FitsCardLength <= bytes.size(); at += FitsCardLength) {
        const std::string card(bytes.begin() + static_cast<std::ptrdiff_t>(at),
                               bytes.begin() + static_cast<std::ptrdiff_t>(at + FitsCardLength));
        if (at == 0 && !card.starts_with("SIMPLE  =")) return std::nullopt;
        const std::string_view keyword = KeywordOfCard(card);
        if (keyword == "END") return values;
        if (card[8] == '=') values.emplace(keyword, ValueOfCard(card));
    }
    return std::nullopt;
}

std::optional<double> NumberIn(const CardValues& cards, const std::string& keyword) {
    const auto found = cards.find(keyword);
    if (found == cards.end()) return std::nullopt;
    const auto number = ParseFitsNumber(found->second);
    return number && std::isfinite(*number) ? number : std::nullopt;
}

bool ReadMatrix(const CardValues& cards, double (&cd)[2][2]) {
    if (NumberIn(cards, "CD1_1")) {
        for (int i = 0; i < 2; ++i) {
            for (int k = 0; k < 2; ++k) {
                const std::string name = "CD" + std::to_string(i + 1) + "_" + std::to_string(k + 1);
                cd[i][k] = NumberIn(cards, name).value_or(0);
            }
        }
        return true;
    }
    const auto first = NumberIn(cards, "CDELT1");
    const auto second = NumberIn(cards, "CDELT2");
    if (!first || !second) return false;
    const double turn = NumberIn(cards, "CROTA2").value_or(0) * RadiansPerDegree;
    cd[0][0] = *first * std::cos(turn);
    cd[0][1] = -*second * std::sin(turn);
    cd[1][0] = *first * std::sin(turn);
    cd[1][1] = *second * std::cos(turn);
    return true;
}

void ReadDistortion(const CardValues& cards, const std::string& name,
                    std::vector<HeaderCoordinates::Term>& terms) {
    constexpr double highest = 10;
    const double order = std::min(NumberIn(cards, name + "_ORDER").value_or(0), highest);
    for (int p = 0; p <= order; ++p) {
        for (int q = 0; p + q <= order; ++q) {
            const auto value =
                NumberIn(cards, name + "_" + std::to_string(p) + "_" + std::to_string(q));
            if (value && *value != 0) terms.push_back({p, q, *value});
        }
    }
}

double SumOf(const std::vector<HeaderCoordinates::Term>& terms, double u, double v) {
    double sum = 0;
    for (const auto& term : terms) sum += term.Value * std::pow(u, term.P) * std::pow(v, term.Q);
    return sum;
}

double DeterminantOf(const double (&cd)[2][2]) {
    return cd[0][0] * cd[1][1] - cd[0][1] * cd[1][0];
}

/// The distance of two positions (degrees) in arcseconds, by the chord, which is accurate for small
/// distances.
double DistanceOf(const std::pair<double, double>& a, const std::pair<double, double>& b) {
    const double half = std::hypot(std::sin((a.second - b.second) / 2 * RadiansPerDegree),
                                   std::sin((a.first - b.first) / 2 * RadiansPerDegree) *
                                       std::sqrt(std::cos(a.second * RadiansPerDegree)) *
                                       std::sqrt(std::cos(b.second * RadiansPerDegree)));
    return 2 * std::asin(std::min(half, 1.0)) / RadiansPerDegree * arcsecondsPerDegree;
}

/// Hours or degrees, minutes and seconds with `decimals`; neither minutes nor seconds reach 60.
std::string SexagesimalText(double value, int decimals) {
    constexpr double unitsOfSecond[] = {1, 10, 100, 1000};
    const double unit = unitsOfSecond[decimals];
    const auto whole = std::llround(value * arcsecondsPerDegree * unit);
    const auto perMinute = std::llround(60 * unit);
    const auto two = [](long long number) {
        return (number < 10 ? "0" : "") + std::to_string(number);
    };
    const double seconds = static_cast<double>(whole % perMinute) / unit;
    return two(whole / perMinute / 60) + ":" + two(whole / perMinute % 60) + ":" +
           (seconds < 10 ? "0" : "") + FixedText(seconds, decimals);
}

struct Bounds {
    double RaMin, RaMax, DecMin, DecMax;
};

/// The range that the border of the image spans, in steps of ten pixels.
Bounds BoundsOf(const HeaderCoordinates& wcs, const std::pair<double, double>& centre) {
    Bounds bounds{centre.first, centre.first, centre.second, centre.second};
    const auto take = [&](double x, double y) {
        auto [ra, dec] = wcs.SkyOf(x, y);
        if (ra - centre.first > fullCircle / 2) ra -= fullCircle;
        if (centre.first - ra > fullCircle / 2) ra += fullCircle;
        bounds.RaMin = std::min(bounds.RaMin, ra);
        bounds.RaMax = std::max(bounds.RaMax, ra);
        bounds.DecMin = std::min(bounds.DecMin, dec);
        bounds.DecMax = std::max(bounds.DecMax, dec);
    };
    constexpr int step = 10;
    constexpr double longest = 1e5;  // limits a forged size
    const double width = std::min(wcs.Width, longest);
    const double height = std::min(wcs.Height, longest);
    for (int x = 0; x < width; x += step) {
        take(x + 0.5, 0.5);
        take(width + 0.5 - x, height + 0.5);
    }
    for (int y = 0; y < height; y += step) {
        take(width + 0.5, y + 0.5);
        take(0.5, height + 0.5 - y);
    }
    for (const double pole : {90.0, -90.0}) {
        // The pole is in the frame when its place on the tangent plane lies inside the image.
        const auto place =
            GnomonicOf({wcs.Crval[0] * RadiansPerDegree, wcs.Crval[1] * RadiansPerDegree},
                       {wcs.Crval[0] * RadiansPerDegree, pole * RadiansPerDegree});
        if (!place) continue;
        const double determinant = DeterminantOf(wcs.Cd);
        const double east = place->East / RadiansPerDegree;
        const double north = place->North / RadiansPerDegree;
        const double x = wcs.Crpix[0] + (wcs.Cd[1][1] * east - wcs.Cd[0][1] * north) / determinant;
        const double y = wcs.Crpix[1] + (wcs.Cd[0][0] * north - wcs.Cd[1][0] * east) / determinant;
        if (x < 1 || y < 1 || x > wcs.Width || y > wcs.Height) continue;
        bounds.RaMin = 0;
        bounds.RaMax = fullCircle;
        (pole > 0 ? bounds.DecMax : bounds.DecMin) = pole;
    }
    return bounds;
}

double MercatorX(double ra) {
    return ra / fullCircle;
}

double MercatorY(double dec) {
    return 0.5 + std::asinh(std::tan(dec * RadiansPerDegree)) / (2 * std::numbers::pi);
}

}  // namespace

std::pair<double, double> HeaderCoordinates::SkyOf(double x, double y) const {
    double u = x - Crpix[0];
    double v = y - Crpix[1];
    const double du = SumOf(Distortion[0], u, v);
    v += SumOf(Distortion[1], u, v);
    u += du;
    const SkyPosition sky =
        SkyOfGnomonic({Crval[0] * RadiansPerDegree, Crval[1] * RadiansPerDegree},
                      {(Cd[0][0] * u + Cd[0][1] * v) * RadiansPerDegree,
                       (Cd[1][0] * u + Cd[1][1] * v) * RadiansPerDegree});
    return {sky.Ra / RadiansPerDegree, sky.Dec / RadiansPerDegree};
}

std::optional<HeaderCoordinates> ReadHeaderCoordinates(std::span<const unsigned char> bytes) {
    const auto cards = ReadCards(bytes);
    if (!cards) return std::nullopt;
    HeaderCoordinates wcs;
    for (int i = 0; i < 2; ++i) {
        const std::string number = std::to_string(i + 1);
        const auto pixel = NumberIn(*cards, "CRPIX" + number);
        const auto value = NumberIn(*cards, "CRVAL" + number);
        const auto type = cards->find("CTYPE" + number);
        if (!pixel || !value || type == cards->end() ||
            type->second.find(i == 0 ? "RA---TAN" : "DEC--TAN") == std::string::npos) {
            return std::nullopt;
        }
        wcs.Crpix[i] = *pixel;
        wcs.Crval[i] = *value;
    }
    if (!ReadMatrix(*cards, wcs.Cd) || !std::isnormal(DeterminantOf(wcs.Cd))) return std::nullopt;
    const auto side = [&](const char* name, const char* other) {
        const auto value = NumberIn(*cards, name);
        return std::max(value ? *value : NumberIn(*cards, other).value_or(0), 0.0);
    };
    wcs.Width = side("IMAGEW", "NAXIS1");
    wcs.Height = side("IMAGEH", "NAXIS2");
    ReadDistortion(*cards, "A", wcs.Distortion[0]);
    ReadDistortion(*cards, "B", wcs.Distortion[1]);
    // Absurd terms lead nowhere on the sky.
    const auto [ra, dec] = wcs.SkyOf((wcs.Width + 1) / 2, (wcs.Height + 1) / 2);
    if (!std::isfinite(ra) || !std::isfinite(dec)) return std::nullopt;
    return wcs;
}

std::pair<double, double> FieldSizeOf(const HeaderCoordinates& wcs) {
    const double middleX = (wcs.Width + 1) / 2;
    const double middleY = (wcs.Height + 1) / 2;
    const auto middle = wcs.SkyOf(middleX, middleY);
    return {DistanceOf(wcs.SkyOf(0.5, middleY), middle) +
                DistanceOf(middle, wcs.SkyOf(wcs.Width + 0.5, middleY)),
            DistanceOf(wcs.SkyOf(middleX, 0.5), middle) +
                DistanceOf(middle, wcs.SkyOf(middleX, wcs.Height + 0.5))};
}

FieldInUnits InSuitableUnits(double width, double height) {
    const double smaller = std::min(width, height);
    if (smaller < 60) return {width, height, "arcseconds"};
    if (smaller < arcsecondsPerDegree) return {width / 60, height / 60, "arcminutes"};
    return {width / arcsecondsPerDegree, height / arcsecondsPerDegree, "degrees"};
}

std::string HoursText(double ra) {
    std::string text = SexagesimalText(ra / 15, 3);
    return text.starts_with("24:") ? "00:00:00.000" : text;
}

std::string DegreesText(double dec) {
    return (dec < 0 ? "-" : "+") + SexagesimalText(std::fabs(dec), 3);
}

double OrientationOf(const double (&cd)[2][2]) {
    const double parity = DeterminantOf(cd) >= 0 ? 1 : -1;
    return -std::atan2(parity * cd[1][0] - cd[0][1], parity * cd[0][0] + cd[1][1]) /
           RadiansPerDegree;
}

std::string WcsInfoText(const HeaderCoordinates& wcs) {
    std::string text;
    const auto add = [&](const char* key, const std::string& value) {
        text.append(key).append(" ").append(value).append("\n");
    };
    const auto number = [&](const char* key, double value, int digits) {
        add(key, GeneralText(value, digits));
    };
    constexpr int fine = 12;
    constexpr int middling = 8;
    constexpr int coarse = 6;
    number("crpix0", wcs.Crpix[0], fine);
    number("crpix1", wcs.Crpix[1], fine);
    number("crval0", wcs.Crval[0], fine);
    number("crval1", wcs.Crval[1], fine);
    number("ra_tangent", wcs.Crval[0], fine);
    number("dec_tangent", wcs.Crval[1], fine);
    number("pixx_tangent", wcs.Crpix[0], fine);
    number("pixy_tangent", wcs.Crpix[1], fine);
    number("imagew", wcs.Width, fine);
    number("imageh", wcs.Height, fine);
    number("cd11", wcs.Cd[0][0], fine);
    number("cd12", wcs.Cd[0][1], fine);
    number("cd21", wcs.Cd[1][0], fine);
    number("cd22", wcs.Cd[1][1], fine);
    const double determinant = DeterminantOf(wcs.Cd);
    number("det", determinant, fine);
    add("parity", determinant >= 0 ? "1" : "-1");
    const double scale = std::sqrt(std::fabs(determinant)) * arcsecondsPerDegree;
    number("pixscale", scale, fine);
    const double orientation = OrientationOf(wcs.Cd);
    number("orientation", orientation, middling);
    const auto centre = wcs.SkyOf((wcs.Width + 1) / 2, (wcs.Height + 1) / 2);
    number("ra_center", centre.first, fine);
    number("dec_center", centre.second, fine);
    // The direction of north changes along a parallel.
    const double turn = std::atan(std::tan((centre.first - wcs.Crval[0]) * RadiansPerDegree) *
                                  std::sin(wcs.Crval[1] * RadiansPerDegree));
    number("orientation_center", orientation + turn / RadiansPerDegree, middling);
    const double hours = centre.first / 15;
    add("ra_center_h", std::to_string(static_cast<int>(hours)));
    const double minutes = (hours - std::floor(hours)) * 60;
    add("ra_center_m", std::to_string(static_cast<int>(minutes)));
    number("ra_center_s", (minutes - std::floor(minutes)) * 60, fine);
    const double size = std::fabs(centre.second);
    const double arcminutes = (size - std::floor(size)) * 60;
    add("dec_center_sign", centre.second < 0 ? "-1" : "1");
    add("dec_center_d", std::to_string(static_cast<int>(size)));
    add("dec_center_m", std::to_string(static_cast<int>(arcminutes)));
    number("dec_center_s", (arcminutes - std::floor(arcminutes)) * 60, fine);
    add("ra_center_hms", HoursText(centre.first));
    add("dec_center_dms", DegreesText(centre.second));
    number("ra_center_merc", MercatorX(centre.first), middling);
    number("dec_center_merc", MercatorY(centre.second), middling);
    number("fieldarea", std::fabs(determinant) * wcs.Width * wcs.Height, coarse);
    const auto [width, height] = FieldSizeOf(wcs);
    const FieldInUnits field = InSuitableUnits(width, height);
    number("fieldw", field.Width, 4);
    number("fieldh", field.Height, 4);
    add("fieldunits", field.Unit);
    const Bounds bounds = BoundsOf(wcs, centre);
    number("decmin", bounds.DecMin, coarse);
    number("decmax", bounds.DecMax, coarse);
    number("ramin", bounds.RaMin, coarse);
    number("ramax", bounds.RaMax, coarse);
    const auto around = [](double ra) {
        return ra < 0 ? ra + fullCircle : ra > fullCircle ? ra - fullCircle : ra;
    };
    const double left = MercatorX(around(bounds.RaMax));
    const double right = MercatorX(around(bounds.RaMin));
    const double top = MercatorY(bounds.DecMax);
    const double bottom = MercatorY(bounds.DecMin);
    number("ra_min_merc", left, coarse);
    number("ra_max_merc", right, coarse);
    number("dec_min_merc", top, coarse);
    number("dec_max_merc", bottom, coarse);
    const double extent = std::max(std::fabs(left - right), std::fabs(top - bottom));
    number("merc_diff", extent, coarse);
    const int zoom = extent > 0 ? -static_cast<int>(std::floor(std::log2(extent))) : 0;
    add("merczoom", std::to_string(zoom));
    return text;
}

}  // namespace vestrel
