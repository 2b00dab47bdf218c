#include "astro/libTime.h"

#include <chrono>
#include <cmath>
#include <cstdlib>

#include "astro/libMath.h"
#include "astro/libStrings.h"

namespace vestrel {

namespace {

constexpr double daysPerYear = 365.25;
constexpr double secondsPerDay = 86400;
constexpr double unixEpochJulianDate = 2440587.5;  // 1970-01-01 0h

}  // namespace

double JulianDate(const LocalTime& time) {
    const std::chrono::sys_days day = std::chrono::year(time.Year) /
                                      std::chrono::month(static_cast<unsigned>(time.Month)) /
                                      std::chrono::day(static_cast<unsigned>(time.Day));
    const double seconds = (time.Hour * 60 + time.Minute) * 60 + time.BiasSeconds + time.Second;
    const auto days = static_cast<double>(day.time_since_epoch().count());
    return unixEpochJulianDate + days + seconds / secondsPerDay;
}

double CurrentJulianDate() {
    return JulianDate(LocalTimeAt(std::chrono::system_clock::now()));
}

double EpochJulianDate(double year) {
    return (year - 2000) * daysPerYear + J2000;
}

double JulianEpoch(double julianDate) {
    return (julianDate - J2000) / daysPerYear + 2000;
}

double LocalSiderealTime(double julianDate, double longitude) {
    // IAU 1982, universal time throughout.
    const double days = julianDate - J2000;
    const double centuries = days / 36525;
    const double degrees = 280.46061837 + 360.98564736629 * days + longitude +
                           (0.000387933 - centuries / 38710000) * centuries * centuries;
    const double hours = std::fmod(degrees / 15, 24);
    return hours < 0 ? hours + 24 : hours;
}

std::optional<double> ParseLongitude(std::string_view text) {
    const auto degrees = ParseNumber(text);
    return degrees && std::abs(*degrees) <= 360 ? degrees : std::nullopt;
}

double ObserverLongitude(const LocalTime& time) {
    if (const char* text = std::getenv("VESTREL_LONGITUDE")) {
        if (const auto degrees = ParseLongitude(text)) return *degrees;
    }
    return -time.StandardBiasSeconds / 240.0;  // the Earth turns a degree in 240 s
}

SkyPosition Precess(const SkyPosition& position, double fromJulianDate, double toJulianDate) {
    const double fromEpoch = JulianEpoch(fromJulianDate);
    const double T = (fromEpoch - 2000) / 100;
    const double t = (JulianEpoch(toJulianDate) - fromEpoch) / 100;
    if (t == 0) return position;
    const double linear = 2306.2181 + 1.39656 * T - 0.000139 * T * T;
    // 0.000345 has always been used here; the literature has 0.000344.
    const double zetaSeconds = linear * t + (0.30188 - 0.000345 * T) * t * t;
    const double zSeconds = linear * t + (1.09468 + 0.000066 * T) * t * t;
    const double thetaSeconds =
        (2004.3109 - 0.8533 * T - 0.000217 * T * T) * t + (-0.42665 - 0.000217 * T) * t * t;
    constexpr double radiansPerSecond = Pi / 648000;
    const double zeta = zetaSeconds * radiansPerSecond;
    const double z = zSeconds * radiansPerSecond;
    const double theta = thetaSeconds * radiansPerSecond;

    // About the old pole, about the node of the equators, about the new pole.
    const double cosDec = std::cos(position.Dec);
    const double alongNode = cosDec * std::cos(position.Ra + zeta);
    const double acrossNode = cosDec * std::sin(position.Ra + zeta);
    const double sinDec = std::sin(position.Dec);
    const double turned = std::cos(theta) * alongNode - std::sin(theta) * sinDec;
    const double up = std::sin(theta) * alongNode + std::cos(theta) * sinDec;
    const double x = std::cos(z) * turned - std::sin(z) * acrossNode;
    const double y = std::sin(z) * turned + std::cos(z) * acrossNode;

    SkyPosition result{Atan2(y, x), Atan2(up, std::sqrt(x * x + y * y))};
    if (result.Ra < 0) result.Ra += TwoPi;
    if (result.Ra >= TwoPi) result.Ra -= TwoPi;
    return result;
}

}  // namespace vestrel
