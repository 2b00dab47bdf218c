// The plate solution in the world coordinate keywords of FITS.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "astro/libSkyModel.h"
#include "image/libImage.h"

namespace vestrel {

/// How the rows of world coordinates count.
enum class RowOrder {
    BottomUp,  ///< from the bottom of the picture, as standard FITS files have them
    AsStored   ///< as the rows lie in the image's own file
};

/// World coordinates of the kind RA---SIN, DEC--SIN (Calabretta & Greisen 2002, A&A 395, 1077,
/// section 5.1.5), which is just the program's projection: nothing is lost but the last digits.
/// X and Y are FITS pixels: from 1, centres at whole numbers.
struct WorldCoordinates {
    double Crpix[2] = {};   ///< pixel of the tangent point, which need not lie in the image
    double Crval[2] = {};   ///< the tangent point, J2000 right ascension and declination, degrees
    double Cd[2][2] = {};   ///< degrees toward east and north per pixel in X and in Y
    double Centre[2] = {};  ///< J2000 right ascension and declination of the image centre, degrees
};

/// The world coordinates of an image whose header holds a solution; nothing when it holds none, or
/// one that is no map of the sky. Good to 0.001 arcseconds against `Projection` over any frame.
std::optional<WorldCoordinates> WorldCoordinatesOf(const PlateImage& image,
                                                   RowOrder rows = RowOrder::BottomUp);

/// Their keywords as standard header cards, with the image centre in two cards of its own.
std::vector<std::string> WorldCoordinateCards(const WorldCoordinates& coordinates,
                                              RowOrder rows = RowOrder::BottomUp);

/// The keywords of a sky model: of the kind RA---TAN, DEC--TAN (section 5.1.3) with the tangent
/// point at the image centre, and SIP polynomials (RA---TAN-SIP) where the model has a distortion.
std::vector<std::string> WorldCoordinateCards(const PlateImage& image, const SkyModel& model,
                                              RowOrder rows = RowOrder::BottomUp);

/// Whether a header keyword speaks of world coordinates or of a plate solution, and so no longer
/// holds when there is a new one.
bool IsStaleKeyword(std::string_view keyword);

}  // namespace vestrel
