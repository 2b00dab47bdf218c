// What a picture's own header says about where it points and how large its field is.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "astro/libSphericalMath.h"
#include "image/libImage.h"

namespace vestrel {

/// A centre to search from. Only as good as the mount's or another program's word.
struct CentreHint {
    SkyPosition Centre;  ///< J2000, radians, of the image's middle
    std::string Source;  ///< the cards it was taken from, and how: "RA and DEC, as degrees"
};

/// A scale to search with.
struct ScaleHint {
    double ArcsecondsPerPixel = 0;  ///< above 0
    std::string Source;             ///< "FOCALLEN and XPIXSZ, times XBINNING"
};

/// The candidates in the order in which to try them; none where the header says nothing usable.
struct PictureHints {
    std::vector<CentreHint> Centres;
    std::vector<ScaleHint> Scales;
};

/// The hints of a loaded image's header.
///
/// Centres: a stored solution; world coordinates of any zenithal projection, carried to the middle
/// of the image; OBJCTRA and OBJCTDEC; RA and DEC; the names that fewer programs use. A text with
/// parts is hours and degrees; a lone number is degrees, and once more hours where it can be.
/// Scales: a stored solution; world coordinates; SECPIX and its kin; the focal length with the
/// pixel size, which most programs give with the binning in it, so that this is tried first; the
/// focal length of an equal 35 mm camera.
PictureHints HintsOf(const PlateImage& image);

/// Whether the header says that each pixel lies behind a filter of its own colour, in a pattern of
/// two by two: BAYERPAT, COLORTYP and their like hold the letters of the colours.
bool IsMosaic(const PlateImage& image);

/// The field that a scale gives the image: width and height, radians.
std::pair<double, double> FieldOfScale(const PlateImage& image, double arcsecondsPerPixel);

}  // namespace vestrel
