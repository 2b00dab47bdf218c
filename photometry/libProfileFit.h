// Least-squares fits of round star profiles.
//
// The method is Levenberg's and Marquardt's (Marquardt 1963, J. SIAM 11, 431); the second profile
// is Moffat's (1969, A&A 3, 455). All pixels weigh the same, so no gain is needed and a wrong one
// does no harm; the profile is taken at pixel centres, so its width includes that of a pixel. The
// sky is given and not fitted, as it cannot be told from a Moffat profile's wings.
#pragma once

#include <cstdint>

#include "image/libImage.h"

namespace vestrel {

/// A fitted profile: `Height` × (1 + k r² / w²)^−Beta about (X, Y), w half of `Fwhm` and
/// k = 2^(1/Beta) − 1; for a Gaussian its limit at an infinite `Beta`.
struct ProfileFit {
    bool Valid = false;  ///< a star came out; else the numbers mean nothing
    double X = 0;        ///< pixels
    double Y = 0;
    double Height = 0;    ///< above the sky, counts
    double Fwhm = 0;      ///< full width at half of the height, pixels
    double Beta = 0;      ///< 1..30 for Moffat; 0 for a Gaussian
    double Residual = 0;  ///< root mean square of counts − profile
};

/// Where a fit starts and what it sees: the pixel centres within `Radius` of (X, Y).
struct ProfileFitStart {
    double X = 0;
    double Y = 0;
    double Radius = 0;  ///< pixels
    double Fwhm = 0;    ///< pixels
    double Height = 0;  ///< above the sky, counts
    double Sky = 0;     ///< physical counts
};

ProfileFit FitGaussian(const PlateImage& image, const ProfileFitStart& start);
ProfileFit FitMoffat(const PlateImage& image, const ProfileFitStart& start);

}  // namespace vestrel
