// Files of stars as other programs have them, written without the code that reads them.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "catalog/libCellGrid.h"

namespace vestrel {

/// A number's bytes, little-endian as this machine is.
template <typename Number>
std::string LittleEndian(Number value) {
    std::string bytes(sizeof value, '\0');
    std::memcpy(bytes.data(), &value, sizeof value);
    return bytes;
}

/// A `.1476` file of ASTAP, as its manual has it. The stars are in the order of their magnitudes.
/// @param recordBytes 5 or 6
std::string AstapFile(const std::vector<SkyStar>& stars, int recordBytes);

/// A star, and milliarcseconds a year along the parallel and the meridian.
struct MovingStar {
    SkyStar Star;
    double MotionRa = 0;
    double MotionDec = 0;
};

/// A star file of KStars in two parts of the sky, the first half of the stars in the first.
/// @param deep in the short records of its deep files
/// @param blueOnly deep: without visual magnitudes
std::string KStarsFile(const std::vector<MovingStar>& stars, bool deep, bool blueOnly = false);

}  // namespace vestrel
