// Star statistics and relative photometry, compared with synthetic stars of known place, brightness
// and noise, and with photutils where it is installed.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <numbers>
#include <set>
#include <sstream>
#include <tuple>

#include "extraction/libFilter.h"
#include "photometry/libAperture.h"
#include "photometry/libProfileFit.h"
#include "photometry/libRelativePhotometry.h"
#include "photometry/libStarStatistics.h"
#include "program/mStarStatistics.h"
#include "tests/judge.h"
#include "tests/testSupport.h"

namespace vestrel {
namespace {

const ApertureSettings usual = ApertureSettingsOf(SolveParameters());

/// A frame of sky and round Gaussian stars, integrated over each pixel.
struct Frame {
    PlateImage Image;
    std::vector<double> Light;  ///< counts expected above the sky, row by row
    double Sky = 1000;

    Frame(int width, int height) : Light(static_cast<std::size_t>(width * height)) {
        Image.Width = width;
        Image.Height = height;
        Image.DataOffset = 32768;
        Image.Header.BitPix = 16;
        Image.ImageType = ImageType::Fits;
        Image.Pixels = PixelGrid(Grid<std::int32_t>(width, height));
    }
    void AddStar(double x, double y, double flux, double sigma) {
        const auto share = [sigma](double distance) {
            const double unit = sigma * std::numbers::sqrt2;
            return (std::erf((distance + 0.5) / unit) - std::erf((distance - 0.5) / unit)) / 2;
        };
        for (int row = 0; row < Image.Height; ++row) {
            for (int column = 0; column < Image.Width; ++column) {
                At(column, row) += flux * share(column - x) * share(row - y);
            }
        }
    }
    double& At(int x, int y) {
        return Light.at(static_cast<std::size_t>(y) * static_cast<std::size_t>(Image.Width) +
                        static_cast<std::size_t>(x));
    }
    /// Counts with Gaussian sky noise and, with a gain, photon noise of the stars, held at `full`.
    void Expose(Random& random, double noise, double gain = 0, double full = 65535) {
        Image.Header.ElectronGain = gain;
        for (int row = 0; row < Image.Height; ++row) {
            for (int column = 0; column < Image.Width; ++column) {
                const double light = At(column, row);
                const double photons = gain > 0 ? light / gain : 0;
                const double count =
                    Sky + light + random.Normal(std::sqrt(photons + noise * noise));
                Image.Pixels.Wide()(column, row) =
                    static_cast<std::int32_t>(std::lround(std::clamp(count, 0.0, full))) -
                    Image.DataOffset;
            }
        }
    }
};

/// The smallest standard deviation that any unbiased position along x can have (Cramér & Rao):
/// 1 / √Σ (∂m/∂x)² / v with m the expected counts and v = noise² + m / gain of each pixel.
double PositionLimit(double flux, double sigma, double noise, double gain) {
    double information = 0;
    for (int row = -12; row <= 12; ++row) {
        for (int column = -12; column <= 12; ++column) {
            const double light = flux / (2 * std::numbers::pi * sigma * sigma) *
                                 std::exp(-(row * row + column * column) / (2 * sigma * sigma));
            const double slope = light * column / (sigma * sigma);
            information += slope * slope / (noise * noise + light / gain);
        }
    }
    return 1 / std::sqrt(information);
}

struct Spread {
    double Sum = 0;
    double Squares = 0;
    int Count = 0;
    void Add(double deviation) {
        Sum += deviation;
        Squares += deviation * deviation;
        ++Count;
    }
    double Mean() const { return Sum / Count; }
    double RootMeanSquare() const { return std::sqrt(Squares / Count); }
};

}  // namespace

TEST(StarStatistics, PlaceAndBrightnessComeWithinAFifthOfThePhotonLimit) {
    constexpr int trials = 600;
    constexpr double sigma = 1.6;
    constexpr double noise = 8;
    constexpr double gain = 1.5;
    const ApertureSettings settings{8, 12};
    const double area = std::numbers::pi * settings.ApertureRadius * settings.ApertureRadius;
    // Integration over pixels widens the star.
    const double fwhm = 2.3548 * std::sqrt(sigma * sigma + 1.0 / 12);
    // Signal to noise from 10 to 760.
    for (const double flux : {1200.0, 2500.0, 10000.0, 60000.0, 400000.0}) {
        Random random(static_cast<unsigned>(flux));
        // The aperture's limit: the star's photons and the sky's noise under the aperture.
        const double fluxLimit = std::sqrt(flux / gain + area * noise * noise);
        const double placeLimit = PositionLimit(flux, sigma, noise, gain);
        Spread x, y, light, lightInErrors, placeInErrors, window, gaussian, moffat;
        for (int trial = 0; trial < trials; ++trial) {
            Frame frame(61, 61);
            const double trueX = random.Between(29.5, 30.5);
            const double trueY = random.Between(29.5, 30.5);
            frame.AddStar(trueX, trueY, flux, sigma);
            frame.Expose(random, noise, gain);
            const StarMeasurement star = MeasureStar(frame.Image, 31, 29, settings);
            ASSERT_EQ(star.Outcome, StarOutcome::Measured) << flux << " " << trial;
            EXPECT_FALSE(star.Saturated || star.Blended || star.Cut) << flux << " " << trial;
            ASSERT_TRUE(star.Gaussian.Valid && star.Moffat.Valid) << flux << " " << trial;
            x.Add(star.X - trueX);
            y.Add(star.Y - trueY);
            light.Add(star.Flux - flux);
            lightInErrors.Add((star.Flux - flux) / star.FluxError);
            placeInErrors.Add((star.X - trueX) / star.PositionError);
            window.Add(star.FwhmFromWindow / fwhm - 1);
            gaussian.Add(star.Gaussian.Fwhm / fwhm - 1);
            moffat.Add(star.Moffat.Fwhm / fwhm - 1);
        }
        std::ostringstream text;
        text << "signal to noise " << flux / fluxLimit << ": x " << x.RootMeanSquare() / placeLimit
             << " y " << y.RootMeanSquare() / placeLimit << " flux "
             << light.RootMeanSquare() / fluxLimit << " limits";
        const std::string shown = text.str();
        std::cout << shown << "\n";
        // Scatter and bias together, as the root mean square about the truth.
        for (const auto& [spread, limit] :
             {std::pair{&x, placeLimit}, {&y, placeLimit}, {&light, fluxLimit}}) {
            EXPECT_LT(spread->RootMeanSquare(), 1.2 * limit) << shown;
            EXPECT_LT(std::fabs(spread->Mean()), 0.15 * limit) << shown;
        }
        // The stated errors are the true ones.
        EXPECT_NEAR(lightInErrors.RootMeanSquare(), 1, 0.1) << shown;
        EXPECT_NEAR(placeInErrors.RootMeanSquare(), 1, 0.1) << shown;
        for (const Spread* width : {&window, &gaussian, &moffat}) {
            EXPECT_LT(std::fabs(width->Mean()), 0.02) << shown;
        }
    }
}

TEST(StarStatistics, ErrorsStayTrueWhereNeighboursVaryTogether) {
    // A frame with a single star is smoothed before extraction, which hides half of the noise.
    Random random(5);
    Spread lightInErrors;
    for (int trial = 0; trial < 200; ++trial) {
        Frame frame(81, 81);
        frame.AddStar(40.2, 40.3, 20000, 1.6);
        frame.Expose(random, 12, 2);
        GaussianFilter(frame.Image.Pixels, 81, 81);
        const StarMeasurement star = MeasureAperture(frame.Image, 40, 40, {8, 12});
        ASSERT_EQ(star.Outcome, StarOutcome::Measured);
        EXPECT_GT(star.NoiseCorrelation, 3);
        lightInErrors.Add((star.Flux - 20000) / star.FluxError);
    }
    EXPECT_NEAR(lightInErrors.RootMeanSquare(), 1, 0.25);
}

TEST(StarStatistics, MoffatStarsGiveTheirWidthAndTheirWings) {
    constexpr double beta = 2.5;
    constexpr double fwhm = 6;
    const double alpha = fwhm / 2 / std::sqrt(std::exp2(1 / beta) - 1);
    const auto profile = [&](double radius) {
        return 20000 * std::pow(1 + radius * radius / (alpha * alpha), -beta);
    };
    Frame frame(121, 121);
    for (int y = 0; y < 121; ++y) {
        for (int x = 0; x < 121; ++x) frame.At(x, y) = profile(std::hypot(x - 60.3, y - 59.6));
    }
    Random random(8);
    frame.Expose(random, 5);
    const StarMeasurement star = MeasureStar(frame.Image, 57, 62, {15, 45});
    EXPECT_NEAR(star.Moffat.Fwhm, fwhm, 0.02);
    EXPECT_NEAR(star.Moffat.Beta, beta, 0.03);
    EXPECT_NEAR(star.Moffat.Height, 20000, 30);
    EXPECT_NEAR(std::hypot(star.Moffat.X - 60.3, star.Moffat.Y - 59.6), 0, 0.005);
    EXPECT_LT(star.Moffat.Residual, 0.5 * star.Gaussian.Residual);
    EXPECT_FALSE(star.GainKnown);
    const std::vector<ProfilePoint> points = RadialProfile(frame.Image, star);
    EXPECT_NEAR(static_cast<double>(points.size()), std::numbers::pi * 45 * 45, 60);
    for (const ProfilePoint& point : points) {
        EXPECT_NEAR(point.Value, profile(point.Radius), point.Radius < 10 ? 560 : 60);
    }
}

/// An image with the exact profile in its pixel centres, in counts of a thousandth.
PlateImage ProfileImage(int side, double x, double y, double height, double fwhm, double beta,
                        double sky) {
    PlateImage image = EmptyImage(side, side, 0);
    image.ImageType = ImageType::Fits;
    for (int row = 0; row < side; ++row) {
        for (int column = 0; column < side; ++column) {
            const double r2 = std::pow(column - x, 2) + std::pow(row - y, 2);
            const double w2 = fwhm * fwhm / 4;
            const double share = beta > 0 ? std::pow(1 + (std::exp2(1 / beta) - 1) * r2 / w2, -beta)
                                          : std::exp(-std::numbers::ln2 * r2 / w2);
            image.Pixels.Wide()(column, row) =
                static_cast<std::int32_t>(std::lround(sky + height * share));
        }
    }
    return image;
}

TEST(ProfileFit, RecoversTheProfileFromAPoorStart) {
    Random random(61);
    for (int trial = 0; trial < 60; ++trial) {
        const double beta = trial % 2 == 0 ? 0 : random.Between(1.5, 8);
        const double fwhm = random.Between(2, 6);
        const double x = random.Between(28, 32);
        const double y = random.Between(28, 32);
        constexpr double height = 5e8;  // so that whole counts are no limit
        constexpr double sky = 1e6;
        const PlateImage image = ProfileImage(61, x, y, height, fwhm, beta, sky);
        const ProfileFitStart start{
            x + random.Between(-0.7, 0.7),   y + random.Between(-0.7, 0.7),     20,
            fwhm * random.Between(0.6, 1.6), height * random.Between(0.5, 1.5), sky};
        const ProfileFit fit = (beta > 0 ? FitMoffat : FitGaussian)(image, start);
        SCOPED_TRACE("trial " + std::to_string(trial));
        ASSERT_TRUE(fit.Valid);
        EXPECT_NEAR(fit.X, x, 1e-4);
        EXPECT_NEAR(fit.Y, y, 1e-4);
        EXPECT_NEAR(fit.Height / height, 1, 1e-4);
        EXPECT_NEAR(fit.Fwhm, fwhm, 1e-3);
        EXPECT_NEAR(fit.Beta, beta, beta * 1e-3);
        EXPECT_LT(fit.Residual, height * 1e-5);
        // A Moffat profile of a large exponent is nearly Gaussian: it is held at 30.
        if (beta == 0) {
            const ProfileFit wings = FitMoffat(image, start);
            EXPECT_NEAR(wings.Beta, 30, 1e-9);
            EXPECT_NEAR(wings.Fwhm, fwhm, 0.05 * fwhm);
        }
    }
}

TEST(ProfileFit, WhatIsNoStarIsNotValid) {
    constexpr double sky = 1000;
    const PlateImage star = ProfileImage(61, 30, 30, 50000, 4, 0, sky);
    const ProfileFitStart good{30, 30, 10, 4, 40000, sky};
    ASSERT_TRUE(FitGaussian(star, good).Valid);
    const auto with = [&](double ProfileFitStart::*field, double value) {
        ProfileFitStart start = good;
        start.*field = value;
        return start;
    };
    for (const auto& start : {with(&ProfileFitStart::Radius, 0.5), with(&ProfileFitStart::Fwhm, 0),
                              with(&ProfileFitStart::Height, -1), with(&ProfileFitStart::Fwhm, NAN),
                              with(&ProfileFitStart::X, 500), with(&ProfileFitStart::X, 38)}) {
        EXPECT_FALSE(FitGaussian(star, start).Valid) << start.X << " " << start.Radius;
        EXPECT_FALSE(FitMoffat(star, start).Valid);
    }
    // Wider than four times the radius in which it was looked at.
    const PlateImage hill = ProfileImage(61, 30, 30, 50000, 200, 0, sky);
    EXPECT_FALSE(FitGaussian(hill, {30, 30, 10, 12, 50000, sky}).Valid);
    // A hole.
    const PlateImage hole = ProfileImage(61, 30, 30, -50000, 4, 0, 60000);
    EXPECT_FALSE(FitGaussian(hole, {30, 30, 10, 4, 100, 60000}).Valid);
    EXPECT_FALSE(FitGaussian(EmptyImage(61, 61, 0), {30, 30, 10, 4, 100, -5e5}).Valid);
}

TEST(StarStatistics, NeitherOffsetNorSubtractedSkyChangesAStar) {
    Random random(6);
    Frame frame(81, 81);
    frame.AddStar(40.3, 38.8, 30000, 2);
    frame.Expose(random, 6, 1.3);
    const StarMeasurement before = MeasureStar(frame.Image, 42, 37, usual);
    ASSERT_EQ(before.Outcome, StarOutcome::Measured);
    // First the same counts with another offset, then with 900 subtracted.
    for (const int subtracted : {0, 900}) {
        PlateImage& image = frame.Image;
        for (std::int32_t y = 0; y < 81; ++y) {
            for (std::int32_t x = 0; x < 81; ++x)
                image.Pixels.Wide()(x, y) += image.DataOffset - subtracted;
        }
        image.DataOffset = 0;
        const StarMeasurement after = MeasureStar(image, 42, 37, usual);
        EXPECT_NEAR(after.X, before.X, 1e-9);
        EXPECT_NEAR(after.Flux, before.Flux, 1e-6);
        EXPECT_NEAR(after.FluxError, before.FluxError, 1e-9);
        EXPECT_NEAR(after.Moffat.Fwhm, before.Moffat.Fwhm, 1e-6);
        EXPECT_NEAR(after.Background, before.Background - subtracted, 1e-9);
        EXPECT_EQ(after.PeakCount, before.PeakCount - subtracted);
    }
}

TEST(StarStatistics, TheSkyIsTrueBesideStarsAndBelowACountOfNoise) {
    Random random(9);
    for (const double noise : {0.4, 1.0, 10.0}) {
        Spread level;
        for (int trial = 0; trial < 50; ++trial) {
            Frame frame(81, 81);
            frame.Sky = random.Between(800, 801);
            // A tenth of the ring is starlight.
            for (int k = 0; k < 4; ++k) {
                const double angle = random.Between(0, 7);
                frame.AddStar(40 + 25 * std::cos(angle), 40 + 25 * std::sin(angle), 30000, 1.5);
            }
            frame.Expose(random, noise);
            const LocalBackground sky = MeasureBackground(frame.Image, 40, 40, 20, 33);
            level.Add(sky.Level - frame.Sky);
            // Faint wings remain and do make the sky less certain.
            EXPECT_NEAR(sky.Scatter / std::sqrt(noise * noise + 1.0 / 12), 1.1, 0.2);
        }
        EXPECT_LT(level.RootMeanSquare(), 0.1 * noise + 0.05) << noise;
    }
}

TEST(StarStatistics, WarnsOfWhatSpoilsAMeasurement) {
    const ApertureSettings settings{10, 15};
    const auto measured = [&](double x, double y, double width, double full, double subtracted,
                              double companionAt, double companion) {
        Random random(12);
        Frame frame(121, 101);
        frame.AddStar(x, y, 50000 * 2 * std::numbers::pi * width * width, width);
        frame.AddStar(x + companionAt, y, companion * 50000 * 2 * std::numbers::pi * width * width,
                      width);
        frame.Expose(random, 6, 1.5, full);
        frame.Image.DataOffset -= static_cast<std::int32_t>(subtracted);
        return MeasureStar(frame.Image, x + 1, y, settings);
    };
    const StarMeasurement good = measured(60, 50, 2, 65535, 0, 40, 1);
    EXPECT_FALSE(good.Saturated || good.Blended || good.Cut);
    for (const double width : {0.8, 2.0, 4.0, 8.0}) {
        const StarMeasurement fits = measured(60.5, 50.5, width, 65535, 0, 40, 0);
        EXPECT_FALSE(fits.Saturated || fits.Blended) << width;
        // Saturation at a level that the header does not state.
        EXPECT_TRUE(measured(60.5, 50.5, width, 30000, 900, 40, 0).Saturated || width < 1) << width;
        EXPECT_TRUE(measured(60.5, 50.5, width, 45000, 0, 40, 0).Saturated || width < 5) << width;
    }
    EXPECT_TRUE(measured(60, 50, 2, 65535, 0, 8, 0.05).Blended);
    EXPECT_FALSE(measured(60, 50, 2, 65535, 0, 8, 0.003).Blended);
    EXPECT_FALSE(measured(60, 50, 2, 65535, 0, 20, 1).Blended);
    EXPECT_TRUE(measured(9, 50, 2, 65535, 0, 40, 0).Cut);
    EXPECT_FALSE(measured(9.6, 50, 2, 65535, 0, 40, 0).Cut);
    EXPECT_TRUE(measured(60, 91.2, 2, 65535, 0, 40, 0).Cut);

    PlateImage image = std::move(Frame(5, 5).Image);
    for (const double nonsense : {0.0, -5.0, 1e30, std::nan("")}) {
        image.Header.DataMax = nonsense;
        EXPECT_EQ(SaturationLevel(image), 0.98 * 65535);
    }
    image.Header.DataMax = 50000;
    EXPECT_EQ(SaturationLevel(image), 0.98 * 50000);
}

TEST(StarStatistics, NoStarNoSkyAndNonsenseFailSensibly) {
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    constexpr double huge = std::numeric_limits<double>::max();
    Random random(3);
    Frame empty(200, 200);
    empty.Expose(random, 10);
    int found = 0;
    for (int trial = 0; trial < 500; ++trial) {
        found += MeasureAperture(empty.Image, random.Between(-0.5, 199.5),
                                 random.Between(-0.5, 199.5), {})
                     .Outcome == StarOutcome::Measured;
    }
    EXPECT_LE(found, 2);
    for (const double x : {-0.6, 199.6, nan, huge, -huge}) {
        EXPECT_EQ(MeasureStar(empty.Image, x, 5, usual).Outcome, StarOutcome::OutsideImage);
        EXPECT_EQ(MeasureStar(empty.Image, 5, x, usual).Outcome, StarOutcome::OutsideImage);
    }
    // Every size of image and of radius, stars at the very corners, counts at both ends.
    for (const int side : {1, 2, 5, 23, 60}) {
        Frame small(side, side);
        small.AddStar(0, side - 1, 40000, 1);
        small.Expose(random, 3);
        for (const double radius : {nan, -huge, 0.0, 0.3, 3.0, 12.0, 90.0, huge}) {
            const StarMeasurement star = MeasureStar(small.Image, 0, side - 1, {radius, radius});
            EXPECT_TRUE(side >= 5 || star.Outcome == StarOutcome::TooLittleSky);
            EXPECT_TRUE(side < 60 || radius > 20 ||
                        (star.Cut && std::hypot(star.X, star.Y - 59) < 0.6));
            if (star.Outcome != StarOutcome::Measured) continue;
            EXPECT_TRUE(std::isfinite(star.X + star.Y + star.Flux + star.FluxError + star.Peak));
            EXPECT_LE(star.ApertureArea, side * side + 1e-6);
        }
    }
    Frame extreme(40, 40);
    for (std::int32_t k = 0; k < 1600; ++k) {
        extreme.Image.Pixels.Wide()(k % 40, k / 40) =
            (k + k / 40) % 2 == 0 ? 2147483647 : -2147483647 - 1;
    }
    const StarMeasurement star = MeasureStar(extreme.Image, 20, 20, usual);
    EXPECT_TRUE(std::isfinite(star.X + star.Flux + star.FluxError + star.RmsDiameter));
}

TEST(StarStatistics, AnotherProgramFindsTheSameSumsAndPlaces) {
    TemporaryFolder folder;
    Random random(21);
    constexpr int side = 300;
    Frame frame(side, side);
    frame.Sky = 500;
    std::vector<std::pair<double, double>> places;
    for (int k = 0; k < 25; ++k) {
        const int row = k / 5;
        places.emplace_back(30 + 60 * (k % 5) + random.Between(-2, 2),
                            30 + 60 * row + random.Between(-2, 2));
        frame.AddStar(places.back().first, places.back().second, random.Between(3e4, 3e5), 2.2);
    }
    frame.Expose(random, 5, 2);
    std::vector<double> counts;
    for (std::int32_t y = 0; y < side; ++y) {
        for (std::int32_t x = 0; x < side; ++x) {
            counts.push_back(PhysicalCount(frame.Image, x, y) - 32768);
        }
    }
    WriteFile(folder / "image.fits",
              FitsHeader(FitsCards(16, side, side, {"BZERO   = 32768", "BSCALE  = 1"})) +
                  FitsPixels(16, counts));
    std::ofstream sums(folder / "sums.txt");
    sums << std::setprecision(17);
    for (int k = 0; k < 300; ++k) {
        // Some reach beyond the image.
        const double x = random.Between(-3, side + 2);
        const double y = random.Between(-3, side + 2);
        const double radius = k % 3 == 0 ? random.Between(0.05, 2) : random.Between(1, 40);
        const ApertureSum sum = SumInAperture(frame.Image, x, y, radius);
        sums << x << " " << y << " " << radius << " " << sum.Sum << " " << sum.Area << "\n";
    }
    std::ofstream stars(folder / "stars.txt");
    stars << std::setprecision(17);
    for (const auto& [x, y] : places) {
        const StarMeasurement star = MeasureStar(frame.Image, x + 2, y - 1, {12, 18});
        ASSERT_EQ(star.Outcome, StarOutcome::Measured);
        stars << star.X << " " << star.Y << " " << star.PositionError << " " << star.Background
              << " " << star.BackgroundScatter << " " << star.Radii.Inner << " " << star.Radii.Outer
              << " " << star.Gaussian.Fwhm << "\n";
    }
    sums.close();
    stars.close();
    EXPECT_JUDGED("judgePhotometry.py", {folder.Path.string()});
}

TEST(ZeroPoint, OfAperturesIsFoundAmongSpoiltStars) {
    Random random(33);
    Frame frame(500, 500);
    constexpr double truth = -21.3;
    std::vector<CalibrationStar> stars;
    for (int k = 0; k < 36; ++k) {
        const double x = 40 + 80 * (k % 6) + random.Between(-3, 3);
        const int row = k / 6;
        const double y = 40 + 80 * row + random.Between(-3, 3);
        const double magnitude = random.Between(9, 13);
        frame.AddStar(x, y, std::pow(10, -0.4 * (magnitude + truth)), 1.8);
        stars.push_back({x + random.Between(-1, 1), y, magnitude + random.Normal(0.05)});
        if (k % 9 == 4) stars.back().Magnitude += 1.5;        // a wrong pair
        if (k % 9 == 5) frame.AddStar(x + 8, y, 20000, 1.8);  // blended
        if (k % 9 == 6) stars.back() = {x + 30, y + 30, 10};  // no star
        if (k % 9 == 7) stars.back().Magnitude = std::nan("");
    }
    frame.Expose(random, 6, 1.5, 20000);  // the brightest are cut off
    const ApertureSettings settings{9, 14};
    const auto zero = ApertureZeroPoint(frame.Image, stars, settings);
    ASSERT_TRUE(zero);
    EXPECT_NEAR(zero->Value, truth, 3 * zero->Error());
    EXPECT_NEAR(zero->Scatter, 0.05, 0.025);
    EXPECT_GE(zero->Count, 10);
    EXPECT_LE(zero->Count, 20);
    stars.resize(2);
    EXPECT_FALSE(ApertureZeroPoint(frame.Image, stars, settings));
    EXPECT_FALSE(ApertureZeroPoint(frame.Image, {}, settings));
}

TEST(RelativePhotometry, TheStatedErrorIsTheScatterOfTheDifference) {
    Random random(17);
    Spread difference, inErrors;
    for (int trial = 0; trial < 400; ++trial) {
        Frame frame(110, 60);
        frame.AddStar(30.3, 30.2, 40000, 1.7);
        frame.AddStar(80.1, 30.4, 10000, 1.7);
        frame.Expose(random, 9, 1.5);
        const auto result = CompareStars(MeasureAperture(frame.Image, 30, 30, {8, 12}),
                                         MeasureAperture(frame.Image, 80, 30, {8, 12}), 10.5);
        ASSERT_TRUE(result.Valid && result.Warnings.empty());
        difference.Add(*result.SecondMagnitude - (10.5 + 2.5 * std::log10(4.0)));
        inErrors.Add((result.Difference - 2.5 * std::log10(4.0)) / result.Error);
    }
    EXPECT_LT(std::fabs(difference.Mean()), 0.002);
    EXPECT_NEAR(inErrors.RootMeanSquare(), 1, 0.1);
}

TEST(RelativePhotometry, AperturesOverlapFromTheSumOfTheirRadiiOn) {
    StarMeasurement first;
    first.Outcome = StarOutcome::Measured;
    first.GainKnown = true;
    first.SignalToNoise = 100;
    first.Radii = {8, 12, 20};
    first.X = first.Y = 50;
    StarMeasurement second = first;
    using enum PhotometryWarning;
    using List = std::vector<PhotometryWarning>;
    for (const auto& [radius, distance, expected] :
         {std::tuple{8.0, 0.9, List{SameStar}},
          {8.0, 1.1, List{AperturesOverlap}},
          {8.0, 15.9, List{AperturesOverlap}},
          {8.0, 16.1, List{}},
          {3.0, 10.9, List{AperturesOverlap, AperturesDiffer}},
          {3.0, 11.1, List{AperturesDiffer}}}) {
        second.Radii.Aperture = radius;
        second.X = 50 + distance * 0.6;
        second.Y = 50 - distance * 0.8;
        EXPECT_EQ(CompareStars(first, second, std::nullopt).Warnings, expected) << distance;
        EXPECT_EQ(CompareStars(second, first, std::nullopt).Warnings, expected) << distance;
    }
}

TEST(RelativePhotometry, WarnsAndWritesWhatSpreadsheetsRead) {
    Random random(18);
    Frame frame(150, 70);
    frame.AddStar(35, 35, 4e5, 1.7);
    frame.AddStar(45, 35, 30000, 1.7);
    frame.AddStar(143, 35, 30000, 1.7);
    frame.AddStar(100, 35, 1600, 1.7);
    frame.Expose(random, 9, 1.5, 15000);
    const auto at = [&](double x) { return MeasureAperture(frame.Image, x, 35, {12, 20}); };
    using enum PhotometryWarning;
    using List = std::vector<PhotometryWarning>;
    EXPECT_NEAR(at(46).X, 45, 0.3);  // not the bright star beside it
    const RelativeMagnitude close = CompareStars(at(35), at(46), std::nullopt);
    EXPECT_EQ(close.Warnings,
              (List{FirstSaturated, FirstBlended, SecondBlended, AperturesOverlap}));
    EXPECT_FALSE(close.SecondMagnitude);
    StarMeasurement smaller = MeasureAperture(frame.Image, 100, 35, {8, 20});
    EXPECT_EQ(CompareStars(at(143), smaller, 9.0).Warnings, (List{FirstCut, AperturesDiffer}));
    smaller.SignalToNoise = 4;
    smaller.GainKnown = false;
    EXPECT_EQ(CompareStars(smaller, smaller, 9.0).Warnings,
              (List{SameStar, GainUnknown, LowSignal}));
    EXPECT_FALSE(CompareStars(at(35), at(75), 9.0).Valid);
    std::set<std::string> texts;
    for (int k = 0; k <= static_cast<int>(LowSignal); ++k) {
        texts.insert(WarningText(static_cast<PhotometryWarning>(k)));
    }
    EXPECT_EQ(texts.size(), static_cast<std::size_t>(LowSignal) + 1);

    PhotometryRow row{"M 31, \"deep\".fit", "2024-01-02", at(35), at(46),
                      SkyPosition{1, -0.5}, std::nullopt, 9.25,   close};
    row.First.X = 35.0004;
    row.First.Flux = 1234567.125;
    row.First.FluxError = std::nan("");
    row.Result.Difference = 0.00001;
    const std::string table = PhotometryCsv({row, {}});
    EXPECT_NE(table.find("\r\n\"M 31, \"\"deep\"\".fit\",2024-01-02,35,"), std::string::npos);
    EXPECT_NE(table.find(",57.2957795,-28.6478898,1234567.12,,9.25,"), std::string::npos) << table;
    // Counting commas outside quotes, every row has as many columns as the first.
    bool quoted = false;
    std::vector<int> commas(1);
    for (const char c : table) {
        if (c == '"') quoted = !quoted;
        if (c == ',' && !quoted) ++commas.back();
        if (c == '\n') commas.push_back(0);
    }
    EXPECT_EQ(commas, (std::vector<int>{19, 19, 19, 0}));
}

}  // namespace vestrel
