// Measures one star of an image: place, brightness, width, and how far each can be trusted.
//
// Place and width come from `libStarWindow`. Brightness: aperture photometry with the error of
// Howell 1989 (PASP 101, 616), whose background term is that of a median. Distances are pixels,
// counts are stored values + `DataOffset`, so images with and without their background work alike.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "image/libImage.h"
#include "photometry/libProfileFit.h"

namespace vestrel {

struct ApertureSettings {
    double ApertureRadius = 12;    ///< pixels; held within 1..200
    double BackgroundRadius = 20;  ///< inner radius of the sky ring; held within 1..500
};

/// The radii in use. The sky ring starts at the larger one of the two settings and holds six times
/// the aperture's area, 200 pixels at least: then the sky's own error adds at most 12 % to the
/// error that the sky under the star makes.
struct ApertureRadii {
    double Aperture = 0;
    double Inner = 0;
    double Outer = 0;
};
ApertureRadii RadiiFor(const ApertureSettings& settings);

enum class StarOutcome { Measured, OutsideImage, TooLittleSky, NoStar };
/// What to tell the user; empty for `Measured`.
const char* OutcomeText(StarOutcome outcome);

struct StarMeasurement {
    StarOutcome Outcome = StarOutcome::NoStar;  ///< but for `Measured` the rest is as it is here
    ApertureRadii Radii;

    double X = 0;
    double Y = 0;
    double PositionError = 0;  ///< standard deviation along each axis

    double Background = 0;  ///< physical counts
    double BackgroundScatter = 0;
    double BackgroundError = 0;         ///< of `Background`
    std::int32_t BackgroundPixels = 0;  ///< those that passed the clipping
    double NoiseCorrelation = 1;        ///< see `LocalBackground::Correlation`

    double PeakCount = 0;  ///< the highest pixel near the centre, physical counts
    double Peak = 0;       ///< the same above the background

    double Flux = 0;       ///< aperture sum above the background, counts
    double FluxError = 0;  ///< photons (when the gain is known), sky, and error of the background
    double SignalToNoise = 0;
    double ApertureArea = 0;  ///< pixels within the image
    bool GainKnown = false;   ///< else the photon noise of the star is missing from the errors
    /// −2.5 log10 of the flux, nothing when the flux is not above 0. Its error is 1.0857 times the
    /// relative one of the flux.
    std::optional<double> InstrumentalMagnitude;
    double MagnitudeError = 0;

    double RmsDiameter = 0;  ///< 2 √⟨r²⟩, flux-weighted, within four window sigmas; 0 when the
                             ///< noise leaves none
    double FwhmFromRms = 0;     ///< of the Gaussian with that diameter
    double FwhmFromWindow = 0;  ///< of the Gaussian with the window's moments: there in any noise
    ProfileFit Gaussian;        ///< both only from `MeasureStar`
    ProfileFit Moffat;

    bool Saturated = false;  ///< at `SaturationLevel`, or with a flat top below it
    bool Blended = false;    ///< another peak in the aperture
    bool Cut = false;        ///< the aperture reaches beyond the image
};

/// Measures the star nearest to a click: of the light around it (8 pixels, or the aperture) the
/// highest peak, near ones preferred. Not a star is what does not rise five standard deviations
/// above the sky after smoothing over 3 × 3 pixels.
StarMeasurement MeasureStar(const PlateImage& image, double x, double y,
                            const ApertureSettings& settings);

/// As above without the two profile fits.
StarMeasurement MeasureAperture(const PlateImage& image, double x, double y,
                                const ApertureSettings& settings);

/// The smallest physical count that is taken for saturated: 98 % of the header's `DataMax` when
/// that is a possible count, else of the largest count that the kind of image can hold.
double SaturationLevel(const PlateImage& image);

/// One pixel of a radial profile.
struct ProfilePoint {
    double Radius = 0;  ///< from the centroid
    double Value = 0;   ///< above the background, counts
};
/// The pixels within the inner radius of the sky ring, 80 pixels at most, in rising order of
/// radius.
std::vector<ProfilePoint> RadialProfile(const PlateImage& image, const StarMeasurement& star);

/// A star whose magnitude is known, where it should be on the image.
struct CalibrationStar {
    double X = 0;
    double Y = 0;
    double Magnitude = 0;
};
/// Instrumental − true magnitude of apertures of one size.
struct ZeroPoint {
    double Value = 0;
    double Scatter = 0;      ///< of one star about it: colours, catalog and measurement together
    std::int32_t Count = 0;  ///< stars that it rests on

    double Error() const;  ///< standard error of `Value`
};
/// The zero point of apertures: the clipped mean of stars that are measured just as the one to be
/// calibrated will be. The zero point of the plate solution will not do: it belongs to sums over
/// the pixels above the detection threshold, which miss more of a faint star than of a bright one.
/// Stars that are saturated, blended, cut, more than 3 pixels off or below a signal to noise of 10
/// do not count. Nothing when fewer than 3 remain.
std::optional<ZeroPoint> ApertureZeroPoint(const PlateImage& image,
                                           const std::vector<CalibrationStar>& stars,
                                           const ApertureSettings& settings);

}  // namespace vestrel
