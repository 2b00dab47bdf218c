// Measures one star of an image: position, brightness and width, each with its error or validity.
//
// Position and width come from `libStarWindow`. Brightness is aperture photometry with the error of
// Howell 1989 (PASP 101, 616), with the background term of a median. Distances are pixels; counts
// are stored values + `DataOffset`, so images with and without background are treated alike.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "image/libImage.h"
#include "photometry/libProfileFit.h"

namespace vestrel {

/// `ApertureSettingsOf` takes these from the solve parameters.
struct ApertureSettings {
    double ApertureRadius = 0;    ///< pixels; clamped to 1..200
    double BackgroundRadius = 0;  ///< inner radius of the sky ring, pixels; clamped to 1..500
};

/// The radii in use, pixels. The sky ring starts at the larger of the two settings and has six
/// times the area of the aperture, at least 200 pixels: the error of the sky level then adds at
/// most 12 % to the error from the sky under the star.
struct ApertureRadii {
    double Aperture = 0;
    double Inner = 0;
    double Outer = 0;
};
ApertureRadii RadiiFor(const ApertureSettings& settings);

enum class StarOutcome { Measured, OutsideImage, TooLittleSky, NoStar };
/// A text for the user; empty for `Measured`.
const char* OutcomeText(StarOutcome outcome);

struct StarMeasurement {
    StarOutcome Outcome = StarOutcome::NoStar;  ///< unless it is `Measured`, the rest keeps these
                                                ///< defaults
    ApertureRadii Radii;

    double X = 0;
    double Y = 0;
    double PositionError = 0;  ///< standard deviation along each axis

    double Background = 0;  ///< physical counts
    double BackgroundScatter = 0;
    double BackgroundError = 0;         ///< of `Background`
    std::int32_t BackgroundPixels = 0;  ///< pixels that remain after clipping
    double NoiseCorrelation = 1;        ///< see `LocalBackground::Correlation`

    double PeakCount = 0;  ///< the highest pixel near the centre, physical counts
    double Peak = 0;       ///< the same above the background

    double Flux = 0;       ///< aperture sum above the background, counts
    double FluxError = 0;  ///< from photons (when the gain is known), sky, and the error of the
                           ///< background
    double SignalToNoise = 0;
    double ApertureArea = 0;  ///< pixels within the image
    bool GainKnown = false;   ///< when false, the errors lack the star's photon noise
    /// −2.5 log10 of the flux, nothing when the flux is not above 0. Its error is 1.0857 times the
    /// relative error of the flux.
    std::optional<double> InstrumentalMagnitude;
    double MagnitudeError = 0;

    double RmsDiameter = 0;  ///< 2 √⟨r²⟩, flux-weighted, within four window sigmas; 0 when the
                             ///< noise leaves none
    double FwhmFromRms = 0;     ///< of the Gaussian with that diameter
    double FwhmFromWindow = 0;  ///< of the Gaussian with the window's moments; available in any
                                ///< noise
    ProfileFit Gaussian;        ///< this and the next only from `MeasureStar`
    ProfileFit Moffat;

    bool Saturated = false;  ///< at `SaturationLevel`, or with a flat top below it
    bool Blended = false;    ///< another peak in the aperture
    bool Cut = false;        ///< the aperture reaches beyond the image
};

/// Measures the star that a click at (x, y) means: the highest peak within the aperture radius
/// (2..8 pixels), with a preference for near ones. A peak that is less than five standard
/// deviations above the sky after smoothing over 3 × 3 pixels is not a star.
StarMeasurement MeasureStar(const PlateImage& image, double x, double y,
                            const ApertureSettings& settings);

/// As above without the two profile fits.
StarMeasurement MeasureAperture(const PlateImage& image, double x, double y,
                                const ApertureSettings& settings);

/// The smallest physical count that counts as saturated: 98 % of the header's `DataMax` when that
/// is a possible count, else 98 % of the largest count that this kind of image can hold.
double SaturationLevel(const PlateImage& image);

/// One pixel of a radial profile.
struct ProfilePoint {
    double Radius = 0;  ///< from the centroid
    double Value = 0;   ///< above the background, counts
};
/// The pixels within the inner radius of the sky ring, at most within 80 pixels, by rising radius.
std::vector<ProfilePoint> RadialProfile(const PlateImage& image, const StarMeasurement& star);

/// A star of known magnitude and its predicted place on the image.
struct CalibrationStar {
    double X = 0;
    double Y = 0;
    double Magnitude = 0;
};
/// Instrumental − true magnitude for apertures of one size.
struct ZeroPoint {
    double Value = 0;
    double Scatter = 0;      ///< standard deviation of single stars: colours, catalog and
                             ///< measurement together
    std::int32_t Count = 0;  ///< number of stars used

    double Error() const;  ///< standard error of `Value`
};
/// The zero point of apertures: the clipped mean over stars measured with the same settings as the
/// star to be calibrated. The zero point of the plate solution does not suit: it belongs to sums
/// over the pixels above the detection threshold, which miss more of a faint star than of a bright
/// one. Stars that are saturated, blended, cut, more than 3 pixels off or below a signal-to-noise
/// ratio of 10 do not count. Nothing when fewer than 3 remain.
std::optional<ZeroPoint> ApertureZeroPoint(const PlateImage& image,
                                           const std::vector<CalibrationStar>& stars,
                                           const ApertureSettings& settings);

}  // namespace vestrel
