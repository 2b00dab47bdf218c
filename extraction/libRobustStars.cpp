#include "extraction/libRobustStars.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>

#include "extraction/libSkyPlane.h"

namespace vestrel {

namespace {

constexpr std::int32_t rowsPerPiece = 64;

/// A local maximum.
struct Summit {
    std::int32_t X;
    std::int32_t Y;
    float Height;
};

bool IsHighest(const Plane& plane, std::int32_t x, std::int32_t y) {
    const float value = plane.Row(y)[x];
    for (std::int32_t dy = -1; dy <= 1; ++dy) {
        const float* row = plane.Row(y + dy);
        for (std::int32_t dx = -1; dx <= 1; ++dx) {
            // Of equal neighbours the last one counts.
            const bool later = dy > 0 || (dy == 0 && dx > 0);
            if (later ? row[x + dx] >= value : row[x + dx] > value) return false;
        }
    }
    return true;
}

std::vector<Summit> FindSummits(const Plane& plane, const SkyMesh& sky, double threshold,
                                std::int32_t border, const Progress& progress) {
    const std::int32_t pieces = (plane.Height + rowsPerPiece - 1) / rowsPerPiece;
    std::vector<std::vector<Summit>> found(static_cast<std::size_t>(pieces));
    const auto look = [&](int piece) {
        const std::int32_t first = std::max(piece * rowsPerPiece, border);
        const std::int32_t end = std::min((piece + 1) * rowsPerPiece, plane.Height - border);
        for (std::int32_t y = first; y < end; ++y) {
            const float* row = plane.Row(y);
            for (std::int32_t x = border; x < plane.Width - border; ++x) {
                if (row[x] < row[x - 1] || row[x] <= row[x + 1] || !IsHighest(plane, x, y))
                    continue;
                const LevelAndNoise around = sky.At(x, y);
                const float height = row[x] - around.Level;
                if (height > static_cast<float>(threshold) * around.Noise) {
                    found[static_cast<std::size_t>(piece)].push_back({x, y, height});
                }
            }
        }
    };
    ParallelFor(pieces, look, progress);
    std::vector<Summit> all;
    for (const auto& piece : found) all.insert(all.end(), piece.begin(), piece.end());
    std::stable_sort(all.begin(), all.end(),
                     [](const Summit& a, const Summit& b) { return a.Height > b.Height; });
    return all;
}

/// Measures single peaks on the planes.
class PeakMeasure {
 public:
    PeakMeasure(const Plane& plane, const Plane& smoothed, const SkyMesh& sky)
        : plane_(plane), smoothed_(smoothed), sky_(sky) {}

    /// Measures a peak; lengths are binned pixels.
    Peak Measure(const Summit& summit) const {
        const float level = sky_.At(summit.X, summit.Y).Level;
        Peak peak;
        peak.Height = static_cast<double>(summit.Height);
        peak.HalfWidth = HalfWidth(summit, level);
        peak.Sharp = IsSharp(summit, level);
        Moments(summit, level, peak);
        return peak;
    }

 private:
    static constexpr std::int32_t widest = 40;

    /// The mean distance at which eight rays fall to half of the height.
    double HalfWidth(const Summit& summit, float level) const {
        constexpr std::array<std::array<int, 2>, 8> ways{
            {{1, 0}, {0, 1}, {-1, 0}, {0, -1}, {1, 1}, {-1, 1}, {-1, -1}, {1, -1}}};
        const float half = level + summit.Height / 2;
        double sum = 0;
        for (const auto& [dx, dy] : ways) {
            const double step = dx != 0 && dy != 0 ? std::sqrt(2.0) : 1.0;
            double distance = 0;
            float before = smoothed_.Row(summit.Y)[summit.X];
            for (std::int32_t n = 1; n <= widest; ++n) {
                const std::int32_t x = summit.X + n * dx;
                const std::int32_t y = summit.Y + n * dy;
                if (!smoothed_.Inside(x, y)) break;
                const float value = smoothed_.Row(y)[x];
                if (value <= half) {
                    distance += step * static_cast<double>((before - half) /
                                                           std::max(before - value, 1e-6F));
                    break;
                }
                distance += step;
                before = value;
            }
            sum += distance;
        }
        return sum / static_cast<double>(ways.size());
    }

    bool IsSharp(const Summit& summit, float level) const {
        constexpr float leastPart = 0.1F;  // least share of a peak's light in its four neighbours
        float brightest = 0;
        std::int32_t px = summit.X;
        std::int32_t py = summit.Y;
        for (std::int32_t y = summit.Y - 1; y <= summit.Y + 1; ++y) {
            for (std::int32_t x = summit.X - 1; x <= summit.X + 1; ++x) {
                if (plane_.Inside(x, y) && plane_.Row(y)[x] - level > brightest) {
                    brightest = plane_.Row(y)[x] - level;
                    px = x;
                    py = y;
                }
            }
        }
        if (px < 1 || py < 1 || px >= plane_.Width - 1 || py >= plane_.Height - 1) return false;
        const float around = (plane_.Row(py)[px - 1] + plane_.Row(py)[px + 1] +
                              plane_.Row(py - 1)[px] + plane_.Row(py + 1)[px]) /
                                 4 -
                             level;
        return around < leastPart * brightest;
    }

    /// Sets centroid, light and shape from the pixels above a quarter of the height.
    void Moments(const Summit& summit, float level, Peak& peak) const {
        const auto reach =
            static_cast<std::int32_t>(std::min(2.0 * peak.HalfWidth + 2, 1.0 * widest));
        const float floor = level + summit.Height * 0.25F;
        double sum = 0;
        double sx = 0;
        double sy = 0;
        double sxx = 0;
        double syy = 0;
        double sxy = 0;
        for (std::int32_t y = summit.Y - reach; y <= summit.Y + reach; ++y) {
            for (std::int32_t x = summit.X - reach; x <= summit.X + reach; ++x) {
                if (!plane_.Inside(x, y)) continue;
                const double dx = x - summit.X;
                const double dy = y - summit.Y;
                if (dx * dx + dy * dy > reach * reach) continue;
                const float value = smoothed_.Row(y)[x];
                if (value <= floor) continue;
                const double light = static_cast<double>(value - floor);
                sum += light;
                sx += light * dx;
                sy += light * dy;
                sxx += light * dx * dx;
                syy += light * dy * dy;
                sxy += light * dx * dy;
            }
        }
        peak.X = summit.X;
        peak.Y = summit.Y;
        if (!(sum > 0)) return;
        const double cx = sx / sum;
        const double cy = sy / sum;
        peak.X += cx;
        peak.Y += cy;
        peak.Flux = sum;
        const double vx = sxx / sum - cx * cx;
        const double vy = syy / sum - cy * cy;
        const double vxy = sxy / sum - cx * cy;
        const double mean = (vx + vy) / 2;
        const double spread = std::hypot((vx - vy) / 2, vxy);
        constexpr double pixel = 1.0 / 12;  // the variance of a pixel itself
        peak.Elongation =
            std::sqrt((mean + spread + pixel) / (std::max(mean - spread, 0.0) + pixel));
        peak.Angle = 0.5 * std::atan2(2 * vxy, vx - vy);
    }

    const Plane& plane_;
    const Plane& smoothed_;
    const SkyMesh& sky_;
};

double MedianOf(std::vector<double> values, double part = 0.5) {
    if (values.empty()) return 0;
    const auto place = static_cast<std::ptrdiff_t>(part * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + place, values.end());
    return values[static_cast<std::size_t>(place)];
}

/// Marks peaks that share a row or column with far more others than chance would bring together.
void MarkCrowdedLines(const std::vector<Peak>& peaks, std::int32_t size, double Peak::*coordinate,
                      std::vector<bool>& marked) {
    constexpr double width = 3;
    std::vector<std::int32_t> counts(static_cast<std::size_t>(size / width) + 2);
    const auto place = [&](const Peak& peak) {
        return std::min(static_cast<std::size_t>(std::max(peak.*coordinate, 0.0) / width),
                        counts.size() - 1);
    };
    for (const Peak& peak : peaks) ++counts[place(peak)];
    const double mean = static_cast<double>(peaks.size()) * width / size;
    const double limit = 6 + 6 * mean;
    for (std::size_t i = 0; i < peaks.size(); ++i) {
        if (counts[place(peaks[i])] > limit) marked[i] = true;
    }
}

}  // namespace

std::vector<Peak> FindPeaks(const PlateImage& image, const PeakSettings& settings,
                            const Progress& progress) {
    constexpr std::int32_t smallestSide = 20;
    const std::int32_t binning = std::max(settings.Binning, 1);
    if (image.Width / binning < smallestSide || image.Height / binning < smallestSide) return {};
    Plane plane = Binned(image, binning);
    if (settings.Dark) {
        for (float& value : plane.Values) value = -value;
    }
    const Plane smoothed = Smoothed(plane);
    const SkyMesh sky(smoothed);
    const auto border = std::max(
        static_cast<std::int32_t>(settings.EdgeExclusion * std::min(plane.Width, plane.Height)), 2);
    const std::vector<Summit> summits =
        FindSummits(smoothed, sky, settings.Threshold, border, progress);

    const PeakMeasure measure(plane, smoothed, sky);
    std::vector<Peak> peaks;
    for (const Summit& summit : summits) {
        if (peaks.size() >= settings.MostPeaks) break;
        // A lower summit on a higher peak's slope belongs to that peak.
        const bool swallowed = std::any_of(peaks.begin(), peaks.end(), [&summit](const Peak& peak) {
            const double reach = 1.6 * peak.HalfWidth + 1.5;
            const double dx = peak.X - summit.X;
            const double dy = peak.Y - summit.Y;
            return dx * dx + dy * dy < reach * reach;
        });
        if (!swallowed) peaks.push_back(measure.Measure(summit));
    }
    const double middle = (binning - 1) / 2.0;
    for (Peak& peak : peaks) {
        peak.X = peak.X * binning + middle;
        peak.Y = peak.Y * binning + middle;
        peak.HalfWidth *= binning;
        peak.Flux *= binning * binning;
    }
    std::stable_sort(peaks.begin(), peaks.end(),
                     [](const Peak& a, const Peak& b) { return a.Flux > b.Flux; });
    return peaks;
}

std::vector<Peak> StarsAmong(const std::vector<Peak>& peaks, const PlateImage& image) {
    std::vector<double> widths;
    std::vector<double> elongations;
    for (const Peak& peak : peaks) {
        if (peak.Sharp) continue;
        widths.push_back(peak.HalfWidth);
        elongations.push_back(peak.Elongation);
    }
    // When nearly all peaks are single pixels, those are the stars.
    const bool sharpStars = widths.size() < 12 || widths.size() * 5 < peaks.size();
    if (sharpStars) {
        for (const Peak& peak : peaks) {
            if (!peak.Sharp) continue;
            widths.push_back(peak.HalfWidth);
            elongations.push_back(peak.Elongation);
        }
    }
    const double widest = 5 * std::max(MedianOf(widths), 1.0) + 3;
    const double longest = std::max(1.6 * MedianOf(elongations, 0.6), 2.0);
    std::vector<bool> onLine(peaks.size());
    MarkCrowdedLines(peaks, image.Width, &Peak::X, onLine);
    MarkCrowdedLines(peaks, image.Height, &Peak::Y, onLine);
    std::vector<Peak> stars;
    for (std::size_t i = 0; i < peaks.size(); ++i) {
        const Peak& peak = peaks[i];
        const bool star = (sharpStars || !peak.Sharp) && !onLine[i] && peak.Elongation <= longest &&
                          peak.HalfWidth <= widest;
        if (star) stars.push_back(peak);
    }
    return stars;
}

PlateStarList StarListOf(const std::vector<Peak>& peaks) {
    PlateStarList stars;
    for (const Peak& peak : peaks) {
        stars.Add({static_cast<float>(peak.X), static_cast<float>(peak.Y),
                   static_cast<float>(peak.Flux), 0, 0});
    }
    return stars;
}

PlateStarList SpreadEvenly(const PlateStarList& stars, std::int32_t width, std::int32_t height) {
    constexpr std::size_t cells = 4;
    std::array<std::vector<PlateStar>, cells * cells> byCell;
    const auto cellOf = [](float place, std::int32_t size) {
        return static_cast<std::size_t>(
            std::clamp(static_cast<double>(place) / size * cells, 0.0, cells - 1.0));
    };
    for (const PlateStar& star : stars) {
        byCell[cellOf(star.Y, height) * cells + cellOf(star.X, width)].push_back(star);
    }
    PlateStarList even;
    for (std::size_t rank = 0; even.Count() < stars.Count(); ++rank) {
        std::vector<PlateStar> ranked;
        for (const auto& cell : byCell) {
            if (rank < cell.size()) ranked.push_back(cell[rank]);
        }
        std::stable_sort(ranked.begin(), ranked.end(),
                         [](const PlateStar& a, const PlateStar& b) { return a.Flux > b.Flux; });
        for (const PlateStar& star : ranked) even.Add(star);
    }
    return even;
}

std::int32_t BinningFor(const PlateImage& image) {
    constexpr double mostPixels = 3.2e6;
    std::int32_t binning = 1;
    while (static_cast<double>(image.Width) * image.Height / (binning * binning) > mostPixels) {
        binning *= 2;
    }
    return binning;
}

}  // namespace vestrel
