#include "display/libResiduals.h"

#include <algorithm>
#include <cmath>
#include <initializer_list>

namespace vestrel {

namespace {

std::vector<double> SortedLengths(const std::vector<Residual>& residuals) {
    std::vector<double> lengths;
    for (const Residual& one : residuals) {
        const double length = std::hypot(one.Dx, one.Dy);
        if (std::isfinite(length)) lengths.push_back(length);
    }
    std::sort(lengths.begin(), lengths.end());
    return lengths;
}

/// The smallest of 1, 2 or 5 times a power of ten that is not below a positive value.
double RoundUp(double value) {
    const double power = std::pow(10, std::floor(std::log10(value)));
    for (const double step : {1.0, 2.0, 5.0}) {
        if (step * power >= value * (1 - 1e-12)) return step * power;
    }
    return 10 * power;
}

}  // namespace

ResidualHistogram HistogramOf(const std::vector<Residual>& residuals, int mostBins) {
    const std::vector<double> lengths = SortedLengths(residuals);
    ResidualHistogram histogram;
    if (lengths.empty()) return histogram;
    constexpr double shortest = 1e-6;
    histogram.Largest = lengths.back();
    const std::size_t half = lengths.size() / 2;
    histogram.Median =
        lengths.size() % 2 == 1 ? lengths[half] : (lengths[half - 1] + lengths[half]) / 2;
    const int bins = std::max(mostBins, 2);
    // One bin is reserved, because the largest residual may lie on the border of a bin.
    histogram.BinWidth = RoundUp(std::max(histogram.Largest, shortest) / (bins - 1));
    const auto binOf = [&](double length) {
        return static_cast<std::size_t>(length / histogram.BinWidth);
    };
    histogram.Counts.assign(binOf(histogram.Largest) + 1, 0);
    for (const double length : lengths) ++histogram.Counts[binOf(length)];
    return histogram;
}

double ResidualMagnification(const std::vector<Residual>& residuals, std::int32_t width,
                             std::int32_t height) {
    const std::vector<double> lengths = SortedLengths(residuals);
    if (lengths.empty()) return 1;
    constexpr double longest = 1.0 / 12;
    constexpr double largest = 1e5;
    const double typical = lengths[(lengths.size() - 1) * 19 / 20];
    const double wanted = longest * std::min(width, height) / std::max(typical, 1e-9);
    if (!(wanted > 1)) return 1;
    // Rounds down to a round number.
    return 1 / RoundUp(1 / std::min(wanted, largest));
}

}  // namespace vestrel
