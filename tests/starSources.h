// Star files in the formats of other programs, written without the code that reads them.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "catalog/libCellGrid.h"

namespace vestrel {

/// The bytes of a number, little-endian like this machine.
template <typename Number>
std::string LittleEndian(Number value) {
    std::string bytes(sizeof value, '\0');
    std::memcpy(bytes.data(), &value, sizeof value);
    return bytes;
}

/// A `.1476` file of ASTAP, as its manual has it. The stars are in the order of their magnitudes.
/// @param recordBytes 5 or 6
std::string AstapFile(const std::vector<SkyStar>& stars, int recordBytes);

/// A star and its proper motion, milliarcseconds a year along the parallel and the meridian.
struct MovingStar {
    SkyStar Star;
    double MotionRa = 0;
    double MotionDec = 0;
};

/// A star file of KStars in two parts of the sky, the first half of the stars in the first.
/// @param deep writes the short records of the deep files
/// @param blueOnly with `deep`: without visual magnitudes
std::string KStarsFile(const std::vector<MovingStar>& stars, bool deep, bool blueOnly = false);

}  // namespace vestrel
