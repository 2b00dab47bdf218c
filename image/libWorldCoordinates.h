// The plate solution in the world coordinate keywords of FITS.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "astro/libSkyModel.h"
#include "image/libImage.h"

namespace vestrel {

/// How world coordinates count rows.
enum class RowOrder {
    BottomUp,  ///< from the bottom of the picture, as standard FITS files have them
    AsStored   ///< in the order of the image's own file
};

/// World coordinates of the kind RA---SIN, DEC--SIN (Calabretta & Greisen 2002, A&A 395, 1077,
/// section 5.1.5). That is the program's own projection, so only the last digits are lost. X and Y
/// are FITS pixels: they count from 1, with centres at whole numbers.
struct WorldCoordinates {
    double Crpix[2] = {};   ///< pixel of the tangent point, which need not lie in the image
    double Crval[2] = {};   ///< the tangent point, J2000 right ascension and declination, degrees
    double Cd[2][2] = {};   ///< degrees toward east and north per pixel in X and in Y
    double Centre[2] = {};  ///< J2000 right ascension and declination of the image centre, degrees
};

/// The world coordinates of an image whose header holds a solution; nothing when it holds none, or
/// one that is singular or not finite. They agree with `Projection` to 0.001 arcseconds over any
/// frame.
std::optional<WorldCoordinates> WorldCoordinatesOf(const PlateImage& image,
                                                   RowOrder rows = RowOrder::BottomUp);

/// The world coordinates as standard header cards, with the image centre in two cards of its own.
std::vector<std::string> WorldCoordinateCards(const WorldCoordinates& coordinates,
                                              RowOrder rows = RowOrder::BottomUp);

/// A sky model as header cards: RA---TAN, DEC--TAN (section 5.1.3) with the tangent point at the
/// image centre, and SIP polynomials (RA---TAN-SIP) when the model has a distortion.
std::vector<std::string> WorldCoordinateCards(const PlateImage& image, const SkyModel& model,
                                              RowOrder rows = RowOrder::BottomUp);

/// Whether a header keyword describes world coordinates or a plate solution, and is therefore
/// outdated by a new solution.
bool IsStaleKeyword(std::string_view keyword);

}  // namespace vestrel
