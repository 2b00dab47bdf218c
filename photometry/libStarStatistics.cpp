#include "photometry/libStarStatistics.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <tuple>

#include "astro/libParallel.h"
#include "photometry/libAperture.h"
#include "photometry/libStarWindow.h"

namespace vestrel {

namespace {

constexpr double fwhmPerSigma = 2.3548200450309493;
constexpr double magnitudesPerRelativeError = 1.0857362047581296;

double UsableGain(const ImageHeader& header) {
    constexpr double largestGain = 1e6;
    return header.ElectronGain > 0 && header.ElectronGain < largestGain ? header.ElectronGain : 0;
}

void MeasureFlux(const PlateImage& image, const LocalBackground& sky, double gain,
                 StarMeasurement& star) {
    const ApertureSum sum = SumInAperture(image, star.X, star.Y, star.Radii.Aperture);
    star.Cut = sum.Cut;
    star.ApertureArea = sum.Area;
    star.Flux = sum.Sum - sum.Area * sky.Level;
    const double photons = gain > 0 ? std::max(star.Flux, 0.0) / gain : 0;
    const double scatter = sum.SquaredArea * sky.Scatter * sky.Scatter * sky.Correlation;
    const double level = sum.Area * sky.LevelError();
    star.FluxError = std::sqrt(photons + scatter + level * level);
    if (star.Flux <= 0) return;
    star.InstrumentalMagnitude = -2.5 * std::log10(star.Flux);
    star.SignalToNoise = star.FluxError > 0 ? star.Flux / star.FluxError : 0;
    star.MagnitudeError = magnitudesPerRelativeError * star.FluxError / star.Flux;
}

void MeasureWidth(const PlateImage& image, double windowSigma, StarMeasurement& star) {
    constexpr double smallestRadius = 3;
    star.FwhmFromWindow = fwhmPerSigma * windowSigma;
    const double radius = std::min(star.Radii.Aperture, std::max(4 * windowSigma, smallestRadius));
    double sum = 0;
    double squares = 0;
    ForPixelsAround(image, star.X, star.Y, radius + 0.75,
                    [&](std::int32_t x, std::int32_t y, double dx, double dy) {
                        const double value = CirclePixelOverlap(radius, dx, dy) *
                                             (PhysicalCount(image, x, y) - star.Background);
                        sum += value;
                        squares += value * (dx * dx + dy * dy);
                    });
    if (sum <= 0 || squares <= 0) return;
    star.RmsDiameter = 2 * std::sqrt(squares / sum);
    star.FwhmFromRms = star.RmsDiameter * fwhmPerSigma / (2 * std::numbers::sqrt2);
}

/// Finds the highest pixel near the centre, and whether it is saturated.
///
/// The level alone would miss stars that clip below it, and those of an image whose background was
/// subtracted. Such stars have a flat top: of a Gaussian, only 2π σ² × 0.01 pixels lie within a
/// hundredth of its peak, or four when a sharp star falls between four pixels.
void LookAtPeak(const PlateImage& image, double windowSigma, StarMeasurement& star) {
    constexpr double depth = 0.01;
    constexpr double clearOfNoise = 20;
    star.PeakCount = star.Background;
    ForPixelsAround(image, star.X, star.Y, std::max(windowSigma, 1.5),
                    [&](std::int32_t x, std::int32_t y, double, double) {
                        star.PeakCount = std::max(star.PeakCount, PhysicalCount(image, x, y));
                    });
    star.Peak = star.PeakCount - star.Background;
    int topPixels = 0;
    ForPixelsAround(image, star.X, star.Y, star.Radii.Aperture,
                    [&](std::int32_t x, std::int32_t y, double, double) {
                        const double depthHere =
                            std::fabs(star.PeakCount - PhysicalCount(image, x, y));
                        if (depthHere <= depth * star.Peak) ++topPixels;
                    });
    const double topOfGaussian = 2 * std::numbers::pi * windowSigma * windowSigma * depth;
    star.Saturated =
        star.PeakCount >= SaturationLevel(image) ||
        (star.Peak > clearOfNoise * star.BackgroundScatter && topPixels > 5 + 3 * topOfGaussian);
}

/// Whether the aperture contains another peak. The star's own light is assumed to be equal on
/// opposite sides; companions within its own width are not detected.
bool HasCompanion(const PlateImage& image, const LocalBackground& sky, double gain,
                  double windowSigma, const StarMeasurement& star) {
    constexpr double smallestShare = 0.01;  // of the star's peak; weaker companions do not matter
    constexpr double unevenness = 0.1;      // of the star's own light on opposite sides
    const double core = std::max(2.0, fwhmPerSigma * windowSigma);
    bool found = false;
    const auto look = [&](std::int32_t x, std::int32_t y, double dx, double dy) {
        if (found || dx * dx + dy * dy < core * core) return;
        const double here = SmoothedCount(image, x, y);
        const auto oppositeX = static_cast<std::int32_t>(std::lround(star.X - dx));
        const auto oppositeY = static_cast<std::int32_t>(std::lround(star.Y - dy));
        const double own = HasPixel(image, {oppositeX, oppositeY})
                               ? SmoothedCount(image, oppositeX, oppositeY) - sky.Level
                               : 0;
        const double noise = std::numbers::sqrt2 * SmoothedNoise(sky, gain, here - sky.Level);
        const double excess = here - sky.Level - std::max(own, 0.0) * (1 + unevenness);
        if (excess < SignificantSigmas * noise || excess < smallestShare * star.Peak) return;
        found = IsPeak(image, {x, y});
    };
    ForPixelsAround(image, star.X, star.Y, star.Radii.Aperture, look);
    return found;
}

double Median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    if (values.size() % 2 == 1) return *middle;
    return (*middle + *std::max_element(values.begin(), middle)) / 2;
}

/// Mean and scatter of the values within 3 standard deviations of their median.
ZeroPoint ClippedMean(const std::vector<double>& values) {
    const double median = Median(values);
    std::vector<double> deviations;
    deviations.reserve(values.size());
    for (const double value : values) deviations.push_back(std::fabs(value - median));
    double limit = 3 * std::max(1.4826 * Median(deviations), 0.005);
    ZeroPoint result;
    for (int round = 0; round < 20; ++round) {
        double sum = 0;
        double squares = 0;
        std::int32_t count = 0;
        for (const double value : values) {
            if (std::fabs(value - median) > limit) continue;
            sum += value - median;
            squares += (value - median) * (value - median);
            ++count;
        }
        if (count == result.Count) break;
        const double mean = sum / count;
        const double variance = (squares - count * mean * mean) / std::max(count - 1, 1);
        result = {median + mean, std::sqrt(std::max(variance, 0.0)), count};
        limit = 3 * std::max(result.Scatter, 0.005);
    }
    return result;
}

}  // namespace

ApertureRadii RadiiFor(const ApertureSettings& settings) {
    const auto held = [](double radius, double largest) {
        return radius > 1 ? std::min(radius, largest) : 1;  // NaN becomes 1
    };
    constexpr double fewestSquare = 200 / std::numbers::pi;
    ApertureRadii radii;
    radii.Aperture = held(settings.ApertureRadius, 200);
    radii.Inner = std::max(held(settings.BackgroundRadius, 500), radii.Aperture);
    const double ring = std::max(6 * radii.Aperture * radii.Aperture, fewestSquare);
    radii.Outer = std::sqrt(radii.Inner * radii.Inner + ring);
    return radii;
}

const char* OutcomeText(StarOutcome outcome) {
    switch (outcome) {
        case StarOutcome::Measured:
            return "";
        case StarOutcome::OutsideImage:
            return "This place is outside the image.";
        case StarOutcome::TooLittleSky:
            return "There is too little sky around this place.";
        case StarOutcome::NoStar:
            return "There is no star here.";
    }
    return "";
}

StarMeasurement MeasureAperture(const PlateImage& image, double x, double y,
                                const ApertureSettings& settings) {
    StarMeasurement star;
    star.Radii = RadiiFor(settings);
    const auto failed = [&star](StarOutcome outcome) {
        StarMeasurement none;
        none.Outcome = outcome;
        none.Radii = star.Radii;
        return none;
    };
    if (!(x >= -0.5 && y >= -0.5 && x <= image.Width - 0.5 && y <= image.Height - 0.5)) {
        return failed(StarOutcome::OutsideImage);
    }
    const auto skyAround = [&](double centreX, double centreY) {
        return MeasureBackground(image, centreX, centreY, star.Radii.Inner, star.Radii.Outer);
    };
    LocalBackground sky = skyAround(x, y);
    if (sky.Count == 0) return failed(StarOutcome::TooLittleSky);

    const double searchRadius = std::clamp(star.Radii.Aperture, 2.0, 8.0);
    const GridPixel peak = PeakNear(image, x, y, searchRadius, sky);
    sky = skyAround(peak.X, peak.Y);
    if (sky.Count == 0) return failed(StarOutcome::TooLittleSky);
    const double excess = SmoothedCount(image, peak.X, peak.Y) - sky.Level;
    if (excess <= SignificantSigmas * SmoothedNoise(sky, 0, 0)) return failed(StarOutcome::NoStar);
    const double gain = UsableGain(image.Header);
    const WindowedStar windowed =
        FollowWindow(image, peak, sky, std::max(star.Radii.Aperture, 4.0), gain);
    if (!windowed.Found || !(windowed.X >= -0.5 && windowed.X <= image.Width - 0.5 &&
                             windowed.Y >= -0.5 && windowed.Y <= image.Height - 0.5)) {
        return failed(StarOutcome::NoStar);
    }

    star.Outcome = StarOutcome::Measured;
    star.X = windowed.X;
    star.Y = windowed.Y;
    star.PositionError = windowed.PositionError;
    star.Background = sky.Level;
    star.BackgroundScatter = sky.Scatter;
    star.BackgroundError = sky.LevelError();
    star.BackgroundPixels = sky.Count;
    star.NoiseCorrelation = sky.Correlation;
    star.GainKnown = gain > 0;
    MeasureFlux(image, sky, gain, star);
    MeasureWidth(image, windowed.Sigma, star);
    LookAtPeak(image, windowed.Sigma, star);
    star.Blended = HasCompanion(image, sky, gain, windowed.Sigma, star);
    return star;
}

StarMeasurement MeasureStar(const PlateImage& image, double x, double y,
                            const ApertureSettings& settings) {
    StarMeasurement star = MeasureAperture(image, x, y, settings);
    if (star.Outcome != StarOutcome::Measured) return star;
    const ProfileFitStart start{
        star.X,    star.Y,         std::max(star.Radii.Aperture, 3.0), star.FwhmFromWindow,
        star.Peak, star.Background};
    star.Gaussian = FitGaussian(image, start);
    star.Moffat = FitMoffat(image, start);
    return star;
}

double SaturationLevel(const PlateImage& image) {
    constexpr double margin = 0.98;
    double largest = 65535;
    if (image.ImageType == ImageType::Jpeg) {
        largest = 3 * 255;  // the sum of three colours
    } else if (image.ImageType == ImageType::Decoded) {
        largest = image.LargestCount;
    } else if (image.Header.BitPix == 8) {
        largest = 255.0 + image.DataOffset;
    } else if (image.Header.BitPix == 16) {
        largest = 32767.0 + image.DataOffset;
    }
    const double stated = image.Header.DataMax;
    return margin * (stated > 0 && stated < largest ? stated : largest);
}

std::vector<ProfilePoint> RadialProfile(const PlateImage& image, const StarMeasurement& star) {
    constexpr double largestRadius = 80;
    std::vector<ProfilePoint> points;
    if (star.Outcome != StarOutcome::Measured) return points;
    ForPixelsAround(
        image, star.X, star.Y, std::min(star.Radii.Inner, largestRadius),
        [&](std::int32_t x, std::int32_t y, double dx, double dy) {
            points.push_back({std::hypot(dx, dy), PhysicalCount(image, x, y) - star.Background});
        });
    std::sort(points.begin(), points.end(), [](const ProfilePoint& a, const ProfilePoint& b) {
        return std::tie(a.Radius, a.Value) < std::tie(b.Radius, b.Value);
    });
    return points;
}

double ZeroPoint::Error() const {
    return Count > 0 ? Scatter / std::sqrt(static_cast<double>(Count)) : 0;
}

std::optional<ZeroPoint> ApertureZeroPoint(const PlateImage& image,
                                           const std::vector<CalibrationStar>& stars,
                                           const ApertureSettings& settings) {
    constexpr double farthest = 3;
    constexpr double weakest = 10;
    constexpr std::size_t fewest = 3;
    std::vector<StarMeasurement> measured(stars.size());
    ParallelFor(static_cast<int>(stars.size()), [&](int i) {
        const auto k = static_cast<std::size_t>(i);
        measured[k] = MeasureAperture(image, stars[k].X, stars[k].Y, settings);
    });
    std::vector<double> differences;
    for (std::size_t k = 0; k < stars.size(); ++k) {
        const StarMeasurement& star = measured[k];
        if (star.Outcome == StarOutcome::Measured && star.InstrumentalMagnitude &&
            star.SignalToNoise >= weakest && !star.Saturated && !star.Blended && !star.Cut &&
            std::hypot(star.X - stars[k].X, star.Y - stars[k].Y) <= farthest &&
            std::isfinite(stars[k].Magnitude)) {
            differences.push_back(*star.InstrumentalMagnitude - stars[k].Magnitude);
        }
    }
    if (differences.size() < fewest) return std::nullopt;
    return ClippedMean(differences);
}

}  // namespace vestrel
