#include "extraction/libImageHealth.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <utility>
#include <vector>

#include "extraction/libBrightRuns.h"
#include "extraction/libRobustStars.h"
#include "extraction/libSkyPlane.h"

namespace vestrel {

namespace {

constexpr double sigmasAbove = 5;
/// Deviations are whole numbers in units of a standard deviation / this.
constexpr double perSigma = 100;

/// A patch, in binned pixels.
struct Patch {
    double Area = 0;
    double Light = 0;
    double X = 0;  // first Σ x·light, then the centroid
    double Y = 0;
    double Xx = 0;  // first Σ x²·light, then the second moments
    double Yy = 0;
    double Xy = 0;
    double RawLight = 0;  // of the pixels before smoothing
    double RawPeak = 0;
    bool AtEdge = false;

    double Long = 0;  // the variances along the axes
    double Short = 0;
    bool Hollow = false;
};

/// The deviation of every pixel from the level around it, in hundredths of the local standard
/// deviation.
struct Deviations {
    Plane Raw;
    PixelGrid Smooth;
    double Level = 0;
    double Noise = 0;  ///< of single binned pixels

    Deviations(const PlateImage& image, std::int32_t binning) : Raw(Binned(image, binning)) {
        const Plane smoothed = Smoothed(Raw);
        const SkyMesh sky(smoothed);
        Grid<std::int32_t> smooth(Raw.Width, Raw.Height);
        ForRows(Raw.Height, [&](std::int32_t first, std::int32_t end) {
            for (std::int32_t y = first; y < end; ++y) {
                float* raw = Raw.Row(y);
                const float* from = smoothed.Row(y);
                for (std::int32_t x = 0; x < Raw.Width; ++x) {
                    const LevelAndNoise around = sky.At(x, y);
                    raw[x] -= around.Level;
                    const double sigmas =
                        static_cast<double>((from[x] - around.Level) / around.Noise);
                    constexpr double farthest = 1e6;
                    smooth(x, y) = static_cast<std::int32_t>(
                        std::clamp(sigmas, -farthest, farthest) * perSigma);
                }
            }
        });
        Smooth = PixelGrid(std::move(smooth));
        MeasureSky(sky);
    }

    void TurnOver() {
        for (std::int32_t y = 0; y < Raw.Height; ++y) {
            for (std::int32_t& value : Smooth.Wide().Row(y)) value = -value;
            float* raw = Raw.Row(y);
            for (std::int32_t x = 0; x < Raw.Width; ++x) raw[x] = -raw[x];
        }
    }

 private:
    void MeasureSky(const SkyMesh& sky) {
        constexpr std::int32_t step = 16;
        // Smoothing with a Gaussian of 1.2 pixels leaves this fraction of the noise.
        constexpr double leftBySmoothing = 0.235;
        std::vector<float> levels;
        std::vector<float> noises;
        for (std::int32_t y = step / 2; y < Raw.Height; y += step) {
            for (std::int32_t x = step / 2; x < Raw.Width; x += step) {
                const LevelAndNoise around = sky.At(x, y);
                levels.push_back(around.Level);
                noises.push_back(around.Noise);
            }
        }
        const auto median = [](std::vector<float>& list) {
            const auto middle = list.begin() + static_cast<std::ptrdiff_t>(list.size() / 2);
            std::nth_element(list.begin(), middle, list.end());
            return static_cast<double>(*middle);
        };
        if (levels.empty()) return;
        Level = median(levels);
        Noise = median(noises) / leftBySmoothing;
    }
};

/// The sums over all patches of light.
std::vector<Patch> SumPatches(const Deviations& deviations) {
    const Plane& raw = deviations.Raw;
    BrightRuns runs(deviations.Smooth, raw.Width, raw.Height,
                    static_cast<std::int32_t>(sigmasAbove * perSigma), {});
    std::int32_t depth = 0;
    std::vector<Patch> patches(static_cast<std::size_t>(runs.Label(depth)));
    runs.ForEach([&](std::int32_t x, const BrightRun& run, const std::int32_t* values) {
        if (run.Label < 1) return;
        Patch& patch = patches[static_cast<std::size_t>(run.Label) - 1];
        constexpr std::int32_t edge = 2;
        if (x < edge || run.First < edge || x >= raw.Width - edge || run.End > raw.Height - edge) {
            patch.AtEdge = true;
        }
        for (std::int32_t y = run.First; y < run.End; ++y) {
            const double light = values[y - run.First];
            const double rawLight = static_cast<double>(raw.Row(y)[x]);
            patch.Area += 1;
            patch.Light += light;
            patch.X += light * x;
            patch.Y += light * y;
            patch.Xx += light * x * x;
            patch.Yy += light * y * y;
            patch.Xy += light * x * y;
            patch.RawLight += rawLight;
            patch.RawPeak = std::max(patch.RawPeak, rawLight);
        }
    });
    return patches;
}

/// Computes the centroid and the axes from the sums.
void Finish(Patch& patch, const Deviations& deviations) {
    // The variance that smoothing adds, minus that of a pixel.
    constexpr double added = 1.2 * 1.2 - 1.0 / 12;
    constexpr double least = 0.1;
    patch.X /= patch.Light;
    patch.Y /= patch.Light;
    patch.Xx = patch.Xx / patch.Light - patch.X * patch.X;
    patch.Yy = patch.Yy / patch.Light - patch.Y * patch.Y;
    patch.Xy = patch.Xy / patch.Light - patch.X * patch.Y;
    const double mean = (patch.Xx + patch.Yy) / 2;
    const double spread = std::hypot((patch.Xx - patch.Yy) / 2, patch.Xy);
    patch.Long = std::max(mean + spread - added, least);
    patch.Short = std::max(mean - spread - added, least);

    // A star is brightest in its middle, a ring is not.
    const auto valueAt = [&](double x, double y) {
        const auto column = static_cast<std::int32_t>(std::lround(x));
        const auto row = static_cast<std::int32_t>(std::lround(y));
        return deviations.Raw.Inside(column, row) ? double(deviations.Smooth(column, row)) : 0.0;
    };
    constexpr int ways = 8;
    const double radius = 1.3 * std::sqrt(mean);
    double around = 0;
    for (int way = 0; way < ways; ++way) {
        const double angle = way * 6.283185307179586 / ways;
        around += valueAt(patch.X + radius * std::cos(angle), patch.Y + radius * std::sin(angle));
    }
    patch.Hollow = valueAt(patch.X, patch.Y) < 0.7 * around / ways;
}

double MedianOf(std::vector<double> values) {
    if (values.empty()) return 0;
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

constexpr double leastArea = 5;

/// The health of a picture at one binning.
ImageHealth LookAt(Deviations& deviations, std::int32_t binning) {
    ImageHealth health;
    health.SkyLevel = deviations.Level;
    health.SkyNoise = deviations.Noise * binning;
    double covered = 0;
    std::vector<Patch> whole;
    for (Patch& patch : SumPatches(deviations)) {
        covered += patch.Area;
        if (patch.Area < leastArea) continue;
        // Nearly all light of a hot pixel comes from one place.
        constexpr double hotPart = 0.55;
        if (patch.RawPeak > hotPart * patch.RawLight) {
            ++health.HotPixels;
            continue;
        }
        ++health.Patches;
        if (patch.AtEdge) continue;
        Finish(patch, deviations);
        whole.push_back(patch);
    }

    std::stable_sort(whole.begin(), whole.end(),
                     [](const Patch& a, const Patch& b) { return a.Light > b.Light; });
    constexpr std::size_t enough = 10;
    constexpr std::size_t most = 100;
    whole.resize(std::min({whole.size(), std::max(enough, whole.size() / 2), most}));
    std::vector<double> widths;
    std::vector<double> elongations;
    std::vector<double> lengths;
    double cosine = 0;
    double sine = 0;
    double hollow = 0;
    double ragged = 0;
    for (const Patch& patch : whole) {
        widths.push_back(2.355 * std::sqrt(patch.Short) * binning);
        elongations.push_back(std::sqrt(patch.Long / patch.Short));
        lengths.push_back(std::sqrt(12 * (patch.Long - patch.Short)) * binning);
        const double angle = std::atan2(2 * patch.Xy, patch.Xx - patch.Yy);
        cosine += std::cos(angle);
        sine += std::sin(angle);
        if (patch.Hollow) hollow += 1;
        // A uniform ellipse covers 4π times the product of the standard deviations along its axes.
        const double moments = patch.Xx * patch.Yy - patch.Xy * patch.Xy;
        if (patch.Area < 0.6 * 4 * 3.14159 * std::sqrt(std::max(moments, 0.0))) ragged += 1;
    }
    if (!whole.empty()) {
        const auto count = static_cast<double>(whole.size());
        health.Width = MedianOf(std::move(widths));
        health.Elongation = MedianOf(std::move(elongations));
        std::sort(lengths.begin(), lengths.end());
        const auto lengthAt = [&lengths](double part) {
            return lengths[static_cast<std::size_t>(part *
                                                    static_cast<double>(lengths.size() - 1))];
        };
        health.TrailLength = lengthAt(0.5);
        health.LengthSpread = (lengthAt(0.84) - lengthAt(0.16)) / std::max(lengthAt(0.5), 1.0);
        health.TrailAngle = std::atan2(sine, cosine) / 2;
        health.AngleAgreement = std::hypot(cosine, sine) / count;
        health.HollowPart = hollow / count;
        health.RaggedPart = ragged / count;
    }
    deviations.TurnOver();
    for (const Patch& patch : SumPatches(deviations)) {
        covered += patch.Area;
        if (patch.Area >= leastArea && patch.RawPeak < 0.55 * patch.RawLight) ++health.DarkPatches;
    }
    health.CoveredPart = covered / deviations.Raw.Width / deviations.Raw.Height;
    return health;
}

/// Whether a coarser binning shows what a finer one shows in pieces or not at all: large discs, or
/// long faint lines.
bool ShowsMore(const ImageHealth& coarse, const ImageHealth& fine, std::int32_t binning) {
    constexpr std::int32_t enough = 5;
    if (coarse.Patches < enough) return false;
    const bool wide = coarse.Width > 3.5 * binning;
    const bool longer = coarse.AngleAgreement > 0.8 && coarse.TrailLength > 8.0 * binning &&
                        coarse.TrailLength > 1.3 * fine.TrailLength;
    return wide || longer;
}

}  // namespace

ImageHealth HealthOf(const PlateImage& image) {
    constexpr std::int32_t smallest = 64;
    constexpr std::int32_t coarsest = 8;
    const std::int32_t binning = BinningFor(image);
    const std::int32_t side = std::min(image.Width, image.Height);
    if (side / binning < smallest) return {};
    Deviations fine(image, binning);
    ImageHealth health = LookAt(fine, binning);
    health.Measured = true;
    health.SkyLevel += image.DataOffset;
    for (std::int32_t coarser = 2; coarser <= coarsest; coarser *= 2) {
        const std::int32_t coarse = coarser * binning;
        if (side / coarse < smallest) break;
        Deviations blurred(image, coarse);
        const ImageHealth other = LookAt(blurred, coarse);
        if (!ShowsMore(other, health, coarse)) continue;
        health.Width = other.Width;
        health.Elongation = other.Elongation;
        health.TrailLength = other.TrailLength;
        health.LengthSpread = other.LengthSpread;
        health.TrailAngle = other.TrailAngle;
        health.AngleAgreement = other.AngleAgreement;
        health.HollowPart = other.HollowPart;
        health.RaggedPart = other.RaggedPart;
    }
    return health;
}

}  // namespace vestrel
