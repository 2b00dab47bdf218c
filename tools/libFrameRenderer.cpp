#include "tools/libFrameRenderer.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "astro/libMath.h"
#include "astro/libParallel.h"
#include "tools/libRandomNumbers.h"

namespace vestrel {

namespace {

constexpr double pi = std::numbers::pi;

/// The light of a sharp star on the pixels around it: a Moffat profile with exponent 3.5, which has
/// the wings that the atmosphere gives.
class SharpProfile {
 public:
    explicit SharpProfile(double seeing)
        : core_(std::max(2 * seeing, 2.0)),
          // Half the height at a distance of half the seeing: (1 + (s/2α)²)^3.5 = 2.
          widthSquared_(seeing * seeing / 4 / (std::exp2(1 / 3.5) - 1)),
          height_(2.5 / (pi * widthSquared_)) {}

    /// The part of the light that a pixel receives whose centre lies (dx, dy) from the star.
    double PixelShare(double dx, double dy) const {
        if (dx * dx + dy * dy > core_ * core_) return Density(dx * dx + dy * dy);
        constexpr int steps = 5;
        double sum = 0;
        for (int j = 0; j < steps; ++j) {
            const double y = dy + (j + 0.5) / steps - 0.5;
            for (int i = 0; i < steps; ++i) {
                const double x = dx + (i + 0.5) / steps - 0.5;
                sum += Density(x * x + y * y);
            }
        }
        return sum / (steps * steps);
    }

    /// Beyond this distance a pixel receives a smaller part of the light than `share`.
    double ReachOf(double share) const {
        if (share >= height_) return 1;
        return std::sqrt(widthSquared_ * (std::pow(height_ / share, 1 / 3.5) - 1)) + 1;
    }

 private:
    double Density(double squaredDistance) const {
        const double u = 1 + squaredDistance / widthSquared_;
        return height_ / (u * u * u * std::sqrt(u));
    }

    double core_;
    double widthSquared_;
    double height_;
};

/// Sharp images this close merge.
double MergingDistance(const FrameExposure& exposure) {
    return exposure.Seeing / 3;
}

/// The light of a star that stands still: sharp, or spread over a disc.
class StarProfile {
 public:
    explicit StarProfile(const FrameExposure& exposure) : sharp_(exposure.Seeing) {
        if (exposure.DefocusDiameter > 0) MakeDisc(exposure, MergingDistance(exposure));
    }

    /// The part of the light that a pixel receives whose centre lies (dx, dy) from the star.
    double PixelShare(double dx, double dy) const {
        if (disc_.empty()) return sharp_.PixelShare(dx, dy);
        const double place = std::hypot(dx, dy) * perPixel;
        const auto entry = static_cast<std::size_t>(place);
        if (entry + 1 >= disc_.size()) return sharp_.PixelShare(dx, dy);
        const double part = place - static_cast<double>(entry);
        return disc_[entry] * (1 - part) + disc_[entry + 1] * part;
    }

    /// Beyond this distance a pixel receives a smaller part of the light than `share`.
    double ReachOf(double share) const { return sharp_.ReachOf(share) + extent_; }

 private:
    static constexpr double perPixel = 4;  // entries of the disc's table

    /// Makes a table of the light of the round disc by distance from its middle.
    void MakeDisc(const FrameExposure& exposure, double spacing) {
        const double outer = exposure.DefocusDiameter / 2;
        const double inner = outer * exposure.DefocusHole;
        // The pattern of a sunflower spreads points evenly over a ring.
        const double area = pi * (outer * outer - inner * inner);
        const int points = std::clamp(static_cast<int>(area / (spacing * spacing)), 50, 4000);
        const double golden = pi * (3 - std::sqrt(5.0));
        std::vector<FramePoint> places;
        for (int k = 0; k < points; ++k) {
            const double radius =
                std::sqrt(inner * inner + (outer * outer - inner * inner) * (k + 0.5) / points);
            places.push_back({radius * std::cos(k * golden), radius * std::sin(k * golden)});
        }
        const auto entries = static_cast<std::size_t>((outer + 30 * exposure.Seeing) * perPixel);
        for (std::size_t i = 0; i <= entries; ++i) {
            double sum = 0;
            for (const FramePoint& place : places) {
                sum += sharp_.PixelShare(static_cast<double>(i) / perPixel - place.X, place.Y);
            }
            disc_.push_back(sum / points);
        }
        extent_ += outer;
    }

    SharpProfile sharp_;
    std::vector<double> disc_;
    double extent_ = 0;
};

/// The places of a star during the exposure, relative to the middle one.
std::vector<FramePoint> WayOf(const FrameExposure& exposure) {
    if (!(exposure.TrailLength > 0)) return {{0, 0}};
    const int steps =
        static_cast<int>(std::ceil(exposure.TrailLength / MergingDistance(exposure))) + 1;
    std::vector<FramePoint> way;
    for (int k = 0; k < steps; ++k) {
        const double along = exposure.TrailLength * (k / (steps - 1.0) - 0.5);
        way.push_back(
            {along * std::cos(exposure.TrailAngle), along * std::sin(exposure.TrailAngle)});
    }
    return way;
}

double Electrons(const FrameExposure& exposure, double magnitude) {
    return std::pow(10.0, 0.4 * (exposure.ZeroPoint - magnitude));
}

/// The standard deviation of the sky in electrons.
double SkySigma(const FrameExposure& exposure) {
    const double sky = exposure.SkyLevel * exposure.Gain;
    return std::sqrt(std::max(sky + exposure.ReadNoise * exposure.ReadNoise, 1.0));
}

/// The expected light of stars and sky, before any noise.
class ExpectedLight {
 public:
    ExpectedLight(const FrameGeometry& geometry, const FrameExposure& exposure,
                  const std::vector<FrameStar>& stars)
        : geometry_(geometry), exposure_(exposure), profile_(exposure) {
        RandomNumbers random(exposure.Seed, RandomStream::Gradient);
        const double direction = 2 * pi * random.Uniform();
        slopeX_ = exposure.Gradient * std::cos(direction) / geometry.Width;
        slopeY_ = exposure.Gradient * std::sin(direction) / geometry.Height;

        // Light below a hundredth of the noise does not matter.
        const double faintest = SkySigma(exposure) / 100;
        bands_.resize(static_cast<std::size_t>(geometry.Height - 1) / bandRows + 1);
        const std::vector<FramePoint> way = WayOf(exposure);
        for (const FrameStar& star : stars) {
            const double electrons = Electrons(exposure, star.Sky.Mag);
            const double reach = std::min(profile_.ReachOf(faintest / electrons),
                                          2.0 * (geometry.Width + geometry.Height));
            for (const FramePoint& step : way) {
                AddLight({star.Place.X + step.X, star.Place.Y + step.Y},
                         electrons / static_cast<double>(way.size()), reach);
            }
        }
    }

    static constexpr int bandRows = 16;
    int Bands() const { return static_cast<int>(bands_.size()); }

    /// Adds the light (electrons) of the rows of one band; `pixels` is the whole frame.
    void DrawBand(int band, std::vector<float>& pixels) const {
        const int firstRow = band * bandRows;
        const int lastRow = std::min(firstRow + bandRows, geometry_.Height) - 1;
        for (int y = firstRow; y <= lastRow; ++y) {
            float* row = RowOf(pixels, y);
            for (int x = 0; x < geometry_.Width; ++x) row[x] = static_cast<float>(Sky(x, y));
        }
        for (const LitStar& star : bands_[static_cast<std::size_t>(band)]) {
            const FramePoint& place = star.Place;
            const int bottom = std::max(firstRow, RowIn(place.Y - star.Reach));
            const int top = std::min(lastRow, RowIn(place.Y + star.Reach));
            const int left = static_cast<int>(std::max(0.0, std::ceil(place.X - star.Reach)));
            const int right =
                static_cast<int>(std::min(geometry_.Width - 1.0, std::floor(place.X + star.Reach)));
            for (int y = bottom; y <= top; ++y) {
                float* row = RowOf(pixels, y);
                for (int x = left; x <= right; ++x) {
                    row[x] += static_cast<float>(star.Electrons *
                                                 profile_.PixelShare(x - place.X, y - place.Y));
                }
            }
        }
    }

 private:
    struct LitStar {
        FramePoint Place;
        double Electrons;
        double Reach;
    };

    void AddLight(const FramePoint& place, double electrons, double reach) {
        if (!std::isfinite(place.X) || !std::isfinite(place.Y) || !std::isfinite(reach)) return;
        if (place.Y + reach < 0 || place.Y - reach > geometry_.Height - 1) return;
        const int first = RowIn(place.Y - reach) / bandRows;
        const int last = RowIn(place.Y + reach) / bandRows;
        for (int band = first; band <= last; ++band) {
            bands_[static_cast<std::size_t>(band)].push_back({place, electrons, reach});
        }
    }

    int RowIn(double y) const {
        return static_cast<int>(std::clamp(std::nearbyint(y), 0.0, geometry_.Height - 1.0));
    }
    float* RowOf(std::vector<float>& pixels, int y) const {
        return pixels.data() +
               static_cast<std::size_t>(y) * static_cast<std::size_t>(geometry_.Width);
    }
    double Sky(int x, int y) const {
        const double change =
            slopeX_ * (x - geometry_.Width / 2.0) + slopeY_ * (y - geometry_.Height / 2.0);
        return std::max(0.0, exposure_.SkyLevel * exposure_.Gain * (1 + change));
    }

    const FrameGeometry& geometry_;
    const FrameExposure& exposure_;
    StarProfile profile_;
    double slopeX_ = 0;
    double slopeY_ = 0;
    std::vector<std::vector<LitStar>> bands_;
};

void SortBrightestFirst(std::vector<FrameStar>& stars) {
    std::stable_sort(stars.begin(), stars.end(),
                     [](const FrameStar& a, const FrameStar& b) { return a.Sky.Mag < b.Sky.Mag; });
}

}  // namespace

double PeakSigmas(const FrameExposure& exposure, double magnitude) {
    const StarProfile profile(exposure);
    const std::vector<FramePoint> way = WayOf(exposure);
    double share = 0;
    for (const FramePoint& step : way) share += profile.PixelShare(step.X, step.Y);
    share /= static_cast<double>(way.size());
    return Electrons(exposure, magnitude) * share / SkySigma(exposure);
}

double ZeroPointFor(const FrameExposure& exposure, double magnitude, double sigmas) {
    FrameExposure trial = exposure;
    trial.ZeroPoint = magnitude;
    trial.TrailLength = trial.DefocusDiameter = 0;
    return magnitude + 2.5 * std::log10(sigmas / PeakSigmas(trial, magnitude));
}

std::vector<FrameStar> CatalogFrameStars(const std::filesystem::path& catalog,
                                         const FrameGeometry& geometry, double magnitudeLimit) {
    // The light of stars just outside falls into the frame too.
    constexpr double margin = 30;
    const double radius = geometry.Radius() + margin * geometry.RadiansPerPixel;
    std::vector<FrameStar> stars;
    std::vector<CatalogStar> cellStars;
    for (const CellPosition& cell : AllCells()) {
        if (!CellTouches(cell, geometry.Centre, radius)) continue;
        ReadCellFile(catalog / CellName(cell), cellStars);
        for (const CatalogStar& star : cellStars) {
            const SkyStar sky{star.Ra, star.Dec, star.Mag / 100.0};
            if (!(sky.Mag <= magnitudeLimit)) continue;
            const std::optional<FramePoint> place = SkyToFrame(geometry, PositionOf(sky));
            if (!place || place->X < -margin || place->Y < -margin ||
                place->X > geometry.Width - 1 + margin || place->Y > geometry.Height - 1 + margin) {
                continue;
            }
            stars.push_back({sky, *place});
        }
    }
    SortBrightestFirst(stars);
    return stars;
}

std::vector<FrameStar> RandomFrameStars(const FrameGeometry& geometry, int count, double brightest,
                                        double faintest, std::uint64_t seed) {
    // Each magnitude holds about 2.8 times as many stars as the one before, as in the sky.
    constexpr double slope = 0.45;
    const double brightestShare = std::pow(10.0, slope * (brightest - faintest));
    RandomNumbers random(seed, RandomStream::Stars);
    std::vector<FrameStar> stars(static_cast<std::size_t>(std::max(count, 0)));
    for (FrameStar& star : stars) {
        star.Place = {random.Uniform() * geometry.Width - 0.5,
                      random.Uniform() * geometry.Height - 0.5};
        const SkyPosition sky = FrameToSky(geometry, star.Place);
        star.Sky.Ra = sky.Ra;
        star.Sky.Dec = sky.Dec;
        const double share = 1 - random.Uniform() * (1 - brightestShare);
        star.Sky.Mag = faintest + std::log10(share) / slope;
    }
    SortBrightestFirst(stars);
    return stars;
}

Frame RenderFrame(const FrameGeometry& geometry, const FrameExposure& exposure,
                  const std::vector<FrameStar>& stars) {
    const auto width = static_cast<std::size_t>(geometry.Width);
    Frame frame{geometry.Width, geometry.Height,
                std::vector<float>(width * static_cast<std::size_t>(geometry.Height))};
    const auto toCounts = [&exposure](double counts) {
        counts = std::clamp(counts, 0.0, exposure.Saturation);
        return static_cast<float>(exposure.WholeCounts ? std::nearbyint(counts) : counts);
    };

    const ExpectedLight light(geometry, exposure, stars);
    ParallelFor(light.Bands(), [&](int band) {
        light.DrawBand(band, frame.Pixels);
        const int firstRow = band * ExpectedLight::bandRows;
        const int endRow = std::min(firstRow + ExpectedLight::bandRows, geometry.Height);
        for (int y = firstRow; y < endRow; ++y) {
            RandomNumbers random(exposure.Seed, RandomStream::Row, static_cast<std::uint64_t>(y));
            float* row = frame.Pixels.data() + static_cast<std::size_t>(y) * width;
            for (std::size_t x = 0; x < width; ++x) {
                const double electrons = random.Poisson(static_cast<double>(row[x])) +
                                         exposure.ReadNoise * random.Normal();
                row[x] = toCounts(electrons / exposure.Gain);
            }
        }
    });

    RandomNumbers random(exposure.Seed, RandomStream::HotPixels);
    for (int i = 0; i < exposure.HotPixels; ++i) {
        const double place = random.Uniform() * static_cast<double>(frame.Pixels.size());
        float& pixel = frame.Pixels[static_cast<std::size_t>(place)];
        pixel = toCounts(static_cast<double>(pixel) + random.Uniform() * exposure.Saturation);
    }
    return frame;
}

}  // namespace vestrel
