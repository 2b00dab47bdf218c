// Least-squares fits of round star profiles.
//
// The method is Levenberg's and Marquardt's (Marquardt 1963, J. SIAM 11, 431); the second profile
// is Moffat's (1969, A&A 3, 455). All pixels have the same weight, so the gain does not matter. The
// profile is evaluated at pixel centres, so its width includes that of a pixel. The sky is given
// and not fitted, because a fit cannot distinguish it from the wings of a Moffat profile.
#pragma once

#include <cstdint>

#include "image/libImage.h"

namespace vestrel {

/// A fitted profile: `Height` × (1 + k r² / w²)^−Beta about (X, Y), w half of `Fwhm` and k =
/// 2^(1/Beta) − 1; for a Gaussian the limit of infinite `Beta`.
struct ProfileFit {
    bool Valid = false;  ///< the fit succeeded; else the numbers mean nothing
    double X = 0;        ///< pixels
    double Y = 0;
    double Height = 0;    ///< above the sky, counts
    double Fwhm = 0;      ///< full width at half of the height, pixels
    double Beta = 0;      ///< 1..30 for Moffat; 0 for a Gaussian
    double Residual = 0;  ///< root mean square of counts − profile
};

/// The start values of a fit, and its data: the pixel centres within `Radius` of (X, Y).
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
