// What a picture's header says about where it points and how large its field is.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "astro/libSphericalMath.h"
#include "image/libImage.h"

namespace vestrel {

/// A centre to search from. It is only as good as the mount or program that wrote it.
struct CentreHint {
    SkyPosition Centre;  ///< J2000, radians, of the image's middle
    std::string Source;  ///< the cards that it comes from, and how they were read: "RA and DEC, as
                         ///< degrees"
};

/// A scale to search with.
struct ScaleHint {
    double ArcsecondsPerPixel = 0;  ///< above 0
    std::string Source;             ///< "FOCALLEN and XPIXSZ, times XBINNING"
};

/// The candidates, in the order in which to try them; empty when the header says nothing usable.
struct PictureHints {
    std::vector<CentreHint> Centres;
    std::vector<ScaleHint> Scales;
};

/// The hints of a loaded image's header.
///
/// Centres: a stored solution; world coordinates of any zenithal projection, carried to the middle
/// of the image; OBJCTRA and OBJCTDEC; RA and DEC; rarer keyword pairs. A text with parts means
/// hours and degrees. A single number means degrees, and is tried as hours too when it is in 0..24.
///
/// Scales: a stored solution; world coordinates; SECPIX and similar keywords; the focal length with
/// the pixel size, first as it stands, since most programs include the binning in it, then times
/// the binning; the focal length of an equivalent 35 mm camera.
PictureHints HintsOf(const PlateImage& image);

/// Whether the header says that the pixels form a mosaic of colours: BAYERPAT, COLORTYP, CFAPAT or
/// CFA-PAT holds the letters of a two by two pattern.
bool IsMosaic(const PlateImage& image);

/// The field that a scale gives the image: width and height, radians.
std::pair<double, double> FieldOfScale(const PlateImage& image, double arcsecondsPerPixel);

}  // namespace vestrel
