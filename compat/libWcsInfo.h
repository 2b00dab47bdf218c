// What `wcsinfo` prints about the world coordinates in a FITS header.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace vestrel {

/// Gnomonic world coordinates with the forward terms of SIP, from a header.
struct HeaderCoordinates {
    struct Term {
        int P = 0;  ///< powers of the distance from Crpix in X and in Y
        int Q = 0;
        double Value = 0;
    };
    double Crpix[2] = {};
    double Crval[2] = {};  ///< degrees
    double Cd[2][2] = {};  ///< degrees per pixel
    double Width = 0;      ///< IMAGEW, else NAXIS1; 0 when unknown
    double Height = 0;
    std::vector<Term> Distortion[2];

    /// Right ascension (0..360) and declination of a FITS pixel, degrees.
    std::pair<double, double> SkyOf(double x, double y) const;
};

/// The coordinates in the first header of a file: cards of 80 bytes one after another.
/// @return nothing when it is no FITS header or has no such coordinates
std::optional<HeaderCoordinates> ReadHeaderCoordinates(std::span<const unsigned char> bytes);

/// Width and height of the field along its middle lines, arcseconds.
std::pair<double, double> FieldSizeOf(const HeaderCoordinates& wcs);

/// A field size in the unit that suits its smaller side: "arcseconds" below 1 arcminute,
/// "arcminutes" below 1 degree, else "degrees".
struct FieldInUnits {
    double Width = 0;
    double Height = 0;
    const char* Unit = "";
};
FieldInUnits InSuitableUnits(double widthArcseconds, double heightArcseconds);

/// Degrees as "01:26:34.185" (hours) and as "+69:15:09.427".
std::string HoursText(double ra);
std::string DegreesText(double dec);

/// The position angle of "up" in the image, degrees east of north, −180..180.
double OrientationOf(const double (&cd)[2][2]);

/// The lines "key value" of wcsinfo, in its order.
std::string WcsInfoText(const HeaderCoordinates& wcs);

}  // namespace vestrel
