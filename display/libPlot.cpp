#include "display/libPlot.h"

#include <algorithm>
#include <cmath>

namespace vestrel {

double PlotAxis::PlaceOf(double value) const {
    if (!(High > Low)) return From;
    return From + (To - From) * std::clamp((value - Low) / (High - Low), 0.0, 1.0);
}

double PlotAxis::ValueAt(double place) const {
    if (From == To) return Low;
    return Low + (High - Low) * std::clamp((place - From) / (To - From), 0.0, 1.0);
}

std::vector<double> RoundTicks(double low, double high, int most) {
    std::vector<double> ticks;
    if (!(high > low) || !std::isfinite(high - low)) return ticks;
    const double smallest = (high - low) / std::max(most - 1, 1);
    const double power = std::pow(10, std::floor(std::log10(smallest)));
    double step = 10 * power;
    for (const double round : {1.0, 2.0, 5.0}) {
        if (round * power >= smallest) {
            step = round * power;
            break;
        }
    }
    const double slack = 1e-9;
    const double first = std::ceil(low / step - slack);
    const auto count = static_cast<int>(std::floor(high / step + slack) - first) + 1;
    for (int k = 0; k < count; ++k) ticks.push_back((first + k) * step);
    return ticks;
}

CountLevels HistogramSpan(const ImageHistogram& histogram, const CountLevels& levels) {
    const CountLevels usual = LevelsFromHistogram(histogram);
    const double range = usual.White - usual.Black;
    const double low = std::max(usual.Black - range / 4, static_cast<double>(histogram.Low) - 1);
    const double high = std::min(usual.White + range, static_cast<double>(histogram.High) + 1);
    return {std::min(levels.Black, low), std::max({levels.White, high, low + 2})};
}

std::vector<double> HistogramColumns(const ImageHistogram& histogram, const CountLevels& span,
                                     int columns, bool logarithmic) {
    std::vector<double> heights(static_cast<std::size_t>(std::max(columns, 1)), 0);
    const double columnWidth = (span.White - span.Black) / static_cast<double>(heights.size());
    if (!(columnWidth > 0)) return heights;
    const auto width = static_cast<double>(histogram.BinWidth);
    for (std::size_t bin = 0; bin < histogram.Bins.size(); ++bin) {
        if (histogram.Bins[bin] == 0) continue;
        // A bin of whole counts begins half a count before its first count.
        const double begin = (static_cast<double>(histogram.Low) +
                              static_cast<double>(bin) * width - 0.5 - span.Black) /
                             columnWidth;
        const double end = begin + width / columnWidth;
        const double pixelsPerColumn = static_cast<double>(histogram.Bins[bin]) / (end - begin);
        const double last = std::min(end, static_cast<double>(heights.size()));
        for (double place = std::max(begin, 0.0); place < last;) {
            const double next = std::min(std::floor(place) + 1, last);
            heights[static_cast<std::size_t>(place)] += pixelsPerColumn * (next - place);
            place = next;
        }
    }
    for (double& height : heights) height = logarithmic ? std::log1p(height) : height;
    const double highest = *std::max_element(heights.begin(), heights.end());
    for (double& height : heights) height = highest > 0 ? height / highest : 0;
    return heights;
}

CountLevels ProfileSpan(const std::vector<ProfilePoint>& points, const ProfileFit& fit) {
    constexpr double room = 0.05;
    double low = 0;
    double high = fit.Valid ? fit.Height : 0;
    for (const ProfilePoint& point : points) {
        low = std::min(low, point.Value);
        high = std::max(high, point.Value);
    }
    const double margin = std::max(room * (high - low), 1.0);
    return {low - margin, high + margin};
}

double ProfileValue(const ProfileFit& fit, double radius) {
    const double places = 2 * radius / fit.Fwhm;
    if (fit.Beta == 0) return fit.Height * std::exp2(-places * places);
    const double k = std::exp2(1 / fit.Beta) - 1;
    return fit.Height * std::pow(1 + k * places * places, -fit.Beta);
}

int SliderPosition(const CountLevels& span, double count) {
    return static_cast<int>(
        std::lround(PlotAxis{span.Black, span.White, 0, SliderSteps}.PlaceOf(count)));
}

double SliderCount(const CountLevels& span, int position) {
    return PlotAxis{span.Black, span.White, 0, SliderSteps}.ValueAt(position);
}

}  // namespace vestrel
