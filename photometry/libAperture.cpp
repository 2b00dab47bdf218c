#include "photometry/libAperture.h"

#include <limits>
#include <numbers>
#include <vector>

namespace vestrel {

namespace {

/// The area that the circle shares with the rectangle from the origin to (x, y); negative when the
/// two have different signs.
double OverlapFromCentre(double r, double x, double y) {
    const double sign = (x < 0) == (y < 0) ? 1 : -1;
    x = std::min(std::fabs(x), r);
    y = std::min(std::fabs(y), r);
    if (x * x + y * y <= r * r) return sign * x * y;
    const double corners = x * std::sqrt(r * r - x * x) + y * std::sqrt(r * r - y * y);
    const double sector = r * r * (std::asin(x / r) + std::asin(y / r) - std::numbers::pi / 2);
    return sign * (corners + sector) / 2;
}

/// Sorted counts, of which a part is in use.
struct ClippedCounts {
    std::vector<std::int32_t> Sorted;
    std::size_t First = 0;
    std::size_t End = 0;

    std::int32_t AtFraction(double fraction) const {
        return Sorted[First + static_cast<std::size_t>(fraction * double(End - First - 1))];
    }
    /// The median as if each whole count stood for values spread evenly over ± 0.5: sky whose
    /// noise is below a count still has a level between counts.
    double Median() const {
        const std::int32_t middle = AtFraction(0.5);
        const auto begin = Sorted.begin() + static_cast<std::ptrdiff_t>(First);
        const auto end = Sorted.begin() + static_cast<std::ptrdiff_t>(End);
        const auto [low, high] = std::equal_range(begin, end, middle);
        return middle - 0.5 + (double(End - First) / 2 - double(low - begin)) / double(high - low);
    }
    double Sigma() const {
        double mean = 0;
        for (std::size_t i = First; i < End; ++i) mean += Sorted[i];
        mean /= double(End - First);
        double squares = 0;
        for (std::size_t i = First; i < End; ++i) {
            squares += (Sorted[i] - mean) * (Sorted[i] - mean);
        }
        return std::sqrt(squares / double(End - First));
    }
    /// Restricts the part to low..high. Returns whether that changed it.
    bool Clip(double low, double high) {
        const auto first = static_cast<std::size_t>(
            std::lower_bound(Sorted.begin(), Sorted.end(), low) - Sorted.begin());
        const auto end = static_cast<std::size_t>(
            std::upper_bound(Sorted.begin(), Sorted.end(), high) - Sorted.begin());
        const bool changed = first != First || end != End;
        First = first;
        End = end;
        return changed;
    }
};

/// One plus the autocorrelation of the sky over the neighbours up to two pixels away.
double CorrelationOfSky(const PlateImage& image, double x, double y, double inner, double outer,
                        double level, double clip, double variance) {
    constexpr std::int32_t reach = 2;
    const auto deviation = [&](std::int32_t column, std::int32_t row, double& value) {
        value = image.Pixels(column, row) - level;
        return std::fabs(value) <= clip;
    };
    double sums[2 * reach + 1][reach + 1] = {};
    double counts[2 * reach + 1][reach + 1] = {};
    ForPixelsAround(image, x, y, outer,
                    [&](std::int32_t column, std::int32_t row, double dx, double dy) {
                        double here = 0;
                        if (dx * dx + dy * dy <= inner * inner || !deviation(column, row, here)) {
                            return;
                        }
                        for (std::int32_t j = 0; j <= reach && row + j < image.Height; ++j) {
                            for (std::int32_t i = j == 0 ? 1 : -reach; i <= reach; ++i) {
                                double there = 0;
                                if (column + i < 0 || column + i >= image.Width ||
                                    !deviation(column + i, row + j, there)) {
                                    continue;
                                }
                                sums[i + reach][j] += here * there;
                                counts[i + reach][j] += 1;
                            }
                        }
                    });
    double correlation = 1;
    double smallestCount = std::numeric_limits<double>::max();
    for (std::int32_t j = 0; j <= reach; ++j) {
        for (std::int32_t i = j == 0 ? 1 : -reach; i <= reach; ++i) {
            const double count = counts[i + reach][j];
            smallestCount = std::min(smallestCount, count);
            if (count > 0) correlation += 2 * sums[i + reach][j] / (count * variance);
        }
    }
    // Twelve lags, each counted twice, together have an uncertainty of 2 √(12 / count). Less than
    // three times that is no evidence of correlation.
    const bool significant = correlation - 1 > 3 * 2 * std::sqrt(12 / std::max(smallestCount, 1.0));
    return significant ? correlation : 1;
}

}  // namespace

PixelRange PixelsWithin(double coordinate, double reach, std::int32_t size) {
    const double low = std::ceil(coordinate - reach - 0.5);
    const double high = std::floor(coordinate + reach + 0.5);
    if (!(low <= high) || high < 0 || low > size - 1.0) return {};
    return {static_cast<std::int32_t>(std::max(low, 0.0)),
            static_cast<std::int32_t>(std::min(high, size - 1.0))};
}

double CirclePixelOverlap(double radius, double dx, double dy) {
    const double nearest =
        std::hypot(std::max(std::fabs(dx) - 0.5, 0.0), std::max(std::fabs(dy) - 0.5, 0.0));
    if (nearest >= radius) return 0;
    if (std::hypot(std::fabs(dx) + 0.5, std::fabs(dy) + 0.5) <= radius) return 1;
    const double area = OverlapFromCentre(radius, dx + 0.5, dy + 0.5) -
                        OverlapFromCentre(radius, dx - 0.5, dy + 0.5) -
                        OverlapFromCentre(radius, dx + 0.5, dy - 0.5) +
                        OverlapFromCentre(radius, dx - 0.5, dy - 0.5);
    return std::clamp(area, 0.0, 1.0);
}

ApertureSum SumInAperture(const PlateImage& image, double x, double y, double radius) {
    ApertureSum result;
    if (!(radius > 0)) return result;
    // The corner of a pixel is up to 0.71 nearer than its centre.
    ForPixelsAround(image, x, y, radius + 0.75,
                    [&](std::int32_t column, std::int32_t row, double dx, double dy) {
                        const double part = CirclePixelOverlap(radius, dx, dy);
                        result.Sum += part * PhysicalCount(image, column, row);
                        result.Area += part;
                        result.SquaredArea += part * part;
                    });
    result.Cut = x - radius < -0.5 || x + radius > image.Width - 0.5 || y - radius < -0.5 ||
                 y + radius > image.Height - 0.5;
    return result;
}

LocalBackground MeasureBackground(const PlateImage& image, double x, double y, double inner,
                                  double outer) {
    ClippedCounts counts;
    ForPixelsAround(image, x, y, outer,
                    [&](std::int32_t column, std::int32_t row, double dx, double dy) {
                        if (dx * dx + dy * dy > inner * inner) {
                            counts.Sorted.push_back(image.Pixels(column, row));
                        }
                    });
    LocalBackground result;
    if (counts.Sorted.size() < static_cast<std::size_t>(FewestSkyPixels)) return result;
    std::sort(counts.Sorted.begin(), counts.Sorted.end());
    counts.End = counts.Sorted.size();

    // Stars, or a border without data, affect one side only; the narrower side gives the noise.
    double level = counts.Median();
    double sigma = std::min(level - counts.AtFraction(0.1587), counts.AtFraction(0.8413) - level);
    double clip = 0;
    // Cutting a Gaussian at 3 sigma reduces its standard deviation by this factor.
    constexpr double widening = 1.0136;
    for (int round = 0; round < 20; ++round) {
        // Never narrower than to keep the whole counts next to the level.
        clip = std::max(3 * sigma, 1.5);
        if (!counts.Clip(level - clip, level + clip)) break;
        level = counts.Median();
        sigma = counts.Sigma() * widening;
    }
    if (counts.End - counts.First < static_cast<std::size_t>(FewestSkyPixels)) return result;
    sigma = counts.Sigma() * widening;
    result.Level = level + image.DataOffset;
    result.Scatter = sigma;
    result.Count = static_cast<std::int32_t>(counts.End - counts.First);
    if (sigma > 0) {
        result.Correlation =
            CorrelationOfSky(image, x, y, inner, outer, level, clip, sigma * sigma);
    }
    return result;
}

}  // namespace vestrel
