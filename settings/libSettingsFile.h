// The solve parameters and the bytes of the settings file.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>

namespace vestrel {

/// The parameters of extraction and matching, and what is remembered between runs; in file order.
struct SolveParameters {
    double MaxStarSize = 6;            ///< standard deviations of the star sizes above their mean
    double MatchTolerance = 0.01;      ///< distance of two triangles that still vote, side ratios
    double MatchDivisor = 150;         ///< divides the number of votes that a pair needs
    double DetectionThreshold = 6;     ///< standard deviations of the sky above its mean
    double EdgeExclusion = 0.02;       ///< ignored border, fraction of the image size
    double MaxGeometricError = 0.025;  ///< largest departure of stretch from 1 and skew from 0
    std::int16_t MinStarSize = 3;      ///< pixels
    std::int16_t MaxStars = 45;        ///< stars of each list that take part in the matching
    double MaxError = 2;               ///< pixels
    double BackgroundRadius = 20;      ///< star statistics, pixels
    double ApertureRadius = 12;        ///< star statistics, pixels
    double FieldWidth = 20;            ///< expected image width, in `SizeUnit`
    double FieldHeight = 20;           ///< expected image height, in `SizeUnit`
    double SizeUnit = 0;               ///< 0 = arcminutes, 1 = degrees
    std::string LastOpenFolder;        ///< UTF-8, at most 255 bytes survive in the file
    std::string LastSaveFolder;
};

/// The settings file: a version stamp, then the parameters; little-endian, unpadded.
inline constexpr std::size_t SettingsFileBytes = 614;
inline constexpr std::int32_t SettingsStamp = 113113;

std::array<unsigned char, SettingsFileBytes> EncodeSettings(const SolveParameters& parameters);

enum class SettingsRead {
    Absent,     ///< shorter than 5 bytes, treated as missing
    OutOfDate,  ///< another stamp, cut short, or numbers that are not finite
    Good
};

/// Decodes a settings file. `parameters` changes only when the result is `Good`.
SettingsRead DecodeSettings(std::span<const unsigned char> bytes, SolveParameters& parameters);

}  // namespace vestrel
