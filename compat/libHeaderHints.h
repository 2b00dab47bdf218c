// What an image's header tells a host's solver of its field.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace vestrel {

/// A centre that a header names, degrees, J2000.
struct HeaderCentre {
    double Ra = 0;   ///< 0..360
    double Dec = 0;  ///< −90..90
};

/// The centres that FITS cards name, in the order in which hosts expect them to be believed: RA and
/// DEC, OBJCTRA and OBJCTDEC, CRVAL1 and CRVAL2. Numbers are degrees, texts with parts hours and
/// degrees. A number for RA that may be hours is tried as such after all others.
std::vector<HeaderCentre> HeaderCentres(const std::vector<std::string>& cards);

/// The degrees per row of a matrix (CD2_2 and CD1_2, else CDELT2) that belongs to no world
/// coordinates; nothing when there is none, or one that nobody has filled in. Headers with whole
/// coordinates, scales and optics need no such help: the solver reads them itself.
std::optional<double> HeaderMatrixScale(const std::vector<std::string>& cards);

}  // namespace vestrel
