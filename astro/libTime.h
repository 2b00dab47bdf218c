// The clock as astronomers read it, and precession between J2000 and the current date.
#pragma once

#include <optional>
#include <string_view>

#include "astro/libSphericalMath.h"
#include "platform/libClock.h"

namespace vestrel {

/// The Julian date of the epoch 2000.0.
inline constexpr double J2000 = 2451545.0;

/// The Julian date (universal time) of a local time and its bias.
double JulianDate(const LocalTime& time);

/// The Julian date of the system's clock.
double CurrentJulianDate();

/// The Julian date of a Julian epoch (years), and the inverse.
double EpochJulianDate(double year);
double JulianEpoch(double julianDate);

/// Mean sidereal time (IAU 1982), hours in 0..24.
/// @param longitude degrees, east positive
double LocalSiderealTime(double julianDate, double longitude);

/// A longitude of −360..360 degrees, east positive; nothing for any other text.
std::optional<double> ParseLongitude(std::string_view text);

/// The observer's longitude in degrees, east positive: `$VESTREL_LONGITUDE`. When that is unset or
/// not valid, it is the middle of the time zone: 15 degrees an hour, without
/// summer time. That is good for a rough sidereal time only.
double ObserverLongitude(const LocalTime& time);

/// Precesses a position from the mean equator and equinox of one Julian date to those of another:
/// IAU 1976 without its cubic terms, 0.007" over fifty years. Nutation and aberration are left out.
/// @return right ascension in 0..2π
SkyPosition Precess(const SkyPosition& position, double fromJulianDate, double toJulianDate);

}  // namespace vestrel
