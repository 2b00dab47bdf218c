#include "display/libDisplayLevels.h"

#include <algorithm>
#include <cmath>
#include <span>
#include <utility>

#include "astro/libParallel.h"

namespace vestrel {

namespace {

constexpr int rowsPerPiece = 64;

int PieceCount(const PlateImage& image) {
    return (image.Height + rowsPerPiece - 1) / rowsPerPiece;
}

/// Calls `work(row)` for the rows of one piece, each without its spare column.
template <typename Work>
void ForRowsOfPiece(const PlateImage& image, int piece, Work work) {
    const int end = std::min((piece + 1) * rowsPerPiece, image.Height);
    std::vector<std::int32_t> buffer;
    for (int y = piece * rowsPerPiece; y < end; ++y) {
        work(image.Pixels.Row(y, buffer).first(static_cast<std::size_t>(image.Width)));
    }
}

/// The smallest and the largest stored value.
std::pair<std::int32_t, std::int32_t> StoredRange(const PlateImage& image) {
    const int pieces = PieceCount(image);
    const std::int32_t some = image.Pixels(0, 0);
    std::vector<std::pair<std::int32_t, std::int32_t>> ranges(static_cast<std::size_t>(pieces),
                                                              {some, some});
    ParallelFor(pieces, [&](int piece) {
        auto& [low, high] = ranges[static_cast<std::size_t>(piece)];
        std::int32_t smallest = some;
        std::int32_t largest = some;
        ForRowsOfPiece(image, piece, [&](std::span<const std::int32_t> row) {
            for (const std::int32_t value : row) {
                smallest = std::min(smallest, value);
                largest = std::max(largest, value);
            }
        });
        low = smallest;
        high = largest;
    });
    auto whole = ranges.front();
    for (const auto& [low, high] : ranges) {
        whole = {std::min(whole.first, low), std::max(whole.second, high)};
    }
    return whole;
}

/// Bins first..end − 1 of a histogram: the part that clipping has left.
struct HistogramPart {
    const ImageHistogram& Histogram;
    std::size_t First;
    std::size_t End;

    std::int64_t Pixels() const {
        std::int64_t sum = 0;
        for (std::size_t k = First; k < End; ++k) sum += Histogram.Bins[k];
        return sum;
    }
    /// The middle of a bin.
    double CountOf(std::size_t bin) const {
        return static_cast<double>(Histogram.Low) +
               static_cast<double>(bin) * static_cast<double>(Histogram.BinWidth) +
               static_cast<double>(Histogram.BinWidth - 1) / 2;
    }
    double Quantile(double fraction) const {
        const double wanted = fraction * static_cast<double>(Pixels());
        double below = 0;
        for (std::size_t k = First; k < End; ++k) {
            const auto here = static_cast<double>(Histogram.Bins[k]);
            if (here > 0 && below + here >= wanted) {
                const double part = (wanted - below) / here - 0.5;
                return CountOf(k) + part * static_cast<double>(Histogram.BinWidth);
            }
            below += here;
        }
        return 0;
    }
    double Sigma(double about) const {
        double squares = 0;
        for (std::size_t k = First; k < End; ++k) {
            const double deviation = CountOf(k) - about;
            squares += static_cast<double>(Histogram.Bins[k]) * deviation * deviation;
        }
        return std::sqrt(squares / static_cast<double>(std::max<std::int64_t>(Pixels(), 1)));
    }
    /// The half width around a count that contains half of the pixels, to the precision of a bin.
    double HalfWidthOfHalf(double about) const {
        const std::int64_t half = (Pixels() + 1) / 2;
        auto low = static_cast<std::size_t>(
            std::clamp((about - CountOf(0)) / static_cast<double>(Histogram.BinWidth) + 0.5,
                       double(First), double(End - 1)));
        std::size_t high = low;
        std::int64_t inside = Histogram.Bins[low];
        while (inside < half) {
            const bool lowerLeft = low > First;
            const bool upperLeft = high + 1 < End;
            if (lowerLeft) inside += Histogram.Bins[--low];
            if (upperLeft) inside += Histogram.Bins[++high];
            if (!lowerLeft && !upperLeft) break;
        }
        return static_cast<double>(high - low + 1) * static_cast<double>(Histogram.BinWidth) / 2;
    }
    /// The part of the whole histogram whose bins lie within `reach` of a count.
    HistogramPart Within(double about, double reach) const {
        const double size = static_cast<double>(Histogram.Bins.size());
        const double width = static_cast<double>(Histogram.BinWidth);
        const double first = std::ceil((about - reach - CountOf(0)) / width);
        const double last = std::floor((about + reach - CountOf(0)) / width);
        return {Histogram, static_cast<std::size_t>(std::clamp(first, 0.0, size - 1)),
                static_cast<std::size_t>(std::clamp(last + 1, 1.0, size))};
    }
};

HistogramPart WholeOf(const ImageHistogram& histogram) {
    return {histogram, 0, histogram.Bins.size()};
}

}  // namespace

double ImageHistogram::Quantile(double fraction) const {
    return Pixels > 0 ? WholeOf(*this).Quantile(std::clamp(fraction, 0.0, 1.0)) : 0;
}

ImageHistogram MakeImageHistogram(const PlateImage& image, std::int64_t mostBins) {
    ImageHistogram histogram;
    if (image.Width < 1 || image.Height < 1 || image.Pixels.Empty()) return histogram;
    mostBins = std::clamp<std::int64_t>(mostBins, 1, MostHistogramBins);
    const auto [low, high] = StoredRange(image);
    const std::int64_t values = std::int64_t{high} - low + 1;
    histogram.Low = std::int64_t{low} + image.DataOffset;
    histogram.High = std::int64_t{high} + image.DataOffset;
    histogram.BinWidth = (values + mostBins - 1) / mostBins;
    const auto bins =
        static_cast<std::size_t>((values + histogram.BinWidth - 1) / histogram.BinWidth);
    histogram.Bins.assign(bins, 0);
    histogram.Pixels = std::int64_t{image.Width} * image.Height;

    // Each batch of rows has its own counters; sums of whole numbers do not depend on the order.
    constexpr int mostBatches = 16;
    const int pieces = PieceCount(image);
    const int batches = std::min(pieces, mostBatches);
    std::vector<std::vector<std::uint32_t>> counters(static_cast<std::size_t>(batches));
    ParallelFor(batches, [&, smallest = low](int batch) {
        auto& counts = counters[static_cast<std::size_t>(batch)];
        counts.assign(bins, 0);
        const auto width = static_cast<std::uint64_t>(histogram.BinWidth);
        for (int piece = batch; piece < pieces; piece += batches) {
            ForRowsOfPiece(image, piece, [&](std::span<const std::int32_t> row) {
                for (const std::int32_t value : row) {
                    const auto above = static_cast<std::uint64_t>(std::int64_t{value} - smallest);
                    ++counts[width == 1 ? above : above / width];
                }
            });
        }
    });
    for (const auto& counts : counters) {
        for (std::size_t k = 0; k < bins; ++k) histogram.Bins[k] += counts[k];
    }
    return histogram;
}

SkyEstimate EstimateSky(const ImageHistogram& histogram) {
    if (histogram.Pixels < 1) return {};
    // Half of the pixels lie within 0.6745 sigmas of a Gaussian's middle.
    constexpr double sigmaPerHalfWidth = 1.4826;
    constexpr double widening = 1.0136;  // cutting a Gaussian at 3 sigmas reduces its standard
                                         // deviation by this factor
    HistogramPart part = WholeOf(histogram);
    double level = part.Quantile(0.5);
    double noise = sigmaPerHalfWidth * part.HalfWidthOfHalf(level);
    for (int round = 0; round < 30; ++round) {
        const double reach = std::max(3 * noise, 1.5 * static_cast<double>(histogram.BinWidth));
        const HistogramPart next = part.Within(level, reach);
        const bool settled = next.First == part.First && next.End == part.End;
        if (next.End <= next.First || next.Pixels() < 1) break;
        part.First = next.First;
        part.End = next.End;
        level = part.Quantile(0.5);
        noise = widening * part.Sigma(level);
        if (settled) break;
    }
    return {level, noise};
}

CountLevels LevelsFromHistogram(const ImageHistogram& histogram) {
    if (histogram.Pixels < 1) return {};
    constexpr double shareBelowWhite = 0.997;
    const SkyEstimate sky = EstimateSky(histogram);
    const double black = sky.Level - 2 * sky.Noise;
    const double white = std::max(histogram.Quantile(shareBelowWhite), sky.Level + 10 * sky.Noise);
    return {black, std::max(white, black + 1)};
}

bool HeaderLevelsSensible(const ImageHeader& header, const ImageHistogram& histogram) {
    if (histogram.Pixels < 1) return false;
    constexpr double farFromUsual = 50;
    const double black = header.BlackLevel;
    const double white = header.WhiteLevel;
    const SkyEstimate sky = EstimateSky(histogram);
    const CountLevels usual = LevelsFromHistogram(histogram);
    const double ratio = (white - black) / (usual.White - usual.Black);
    return white > black && white > sky.Level && black <= sky.Level + 3 * sky.Noise &&
           ratio > 1 / farFromUsual && ratio < farFromUsual;
}

CountLevels FirstLevels(const ImageHeader& header, const ImageHistogram& histogram) {
    if (!HeaderLevelsSensible(header, histogram)) return LevelsFromHistogram(histogram);
    return {static_cast<double>(header.BlackLevel), static_cast<double>(header.WhiteLevel)};
}

double Transferred(Transfer transfer, double place) {
    if (!(place > 0)) return 0;
    const double x = std::min(place, 1.0);
    constexpr double softening = 10;
    constexpr double decades = 1000;
    switch (transfer) {
        case Transfer::Linear:
            return x;
        case Transfer::SquareRoot:
            return std::sqrt(x);
        case Transfer::Asinh:
            return std::asinh(softening * x) / std::asinh(softening);
        case Transfer::Logarithmic:
            return std::log1p(decades * x) / std::log1p(decades);
    }
    return x;
}

GreyLookup::GreyLookup(const CountLevels& levels, std::int32_t dataOffset, Transfer transfer,
                       bool inverted) {
    // Levels come from users and files: clamp them to a range that contains every stored value.
    constexpr double farthest = 1e10;
    const auto held = [&](double level, double otherwise) {
        return std::isfinite(level) ? std::clamp(level, -farthest, farthest) : otherwise;
    };
    const double black = held(levels.Black, 0) - dataOffset;
    const double white = std::max(held(levels.White, 1) - dataOffset, black + 1e-3);
    first_ = static_cast<std::int64_t>(std::floor(black));
    const auto last = static_cast<std::int64_t>(std::ceil(white));
    constexpr std::int64_t mostSteps = 131072;
    while (((last - first_) >> shift_) > mostSteps) ++shift_;
    const auto steps = static_cast<std::size_t>(((last - first_) >> shift_) + 2);
    table_.resize(steps);
    for (std::size_t k = 0; k < steps; ++k) {
        const auto stored = static_cast<double>(first_ + (static_cast<std::int64_t>(k) << shift_));
        const double grey = 255 * Transferred(transfer, (stored - black) / (white - black));
        const auto value = static_cast<std::uint8_t>(std::lround(grey));
        table_[k] = static_cast<std::uint8_t>(inverted ? 255 - value : value);
    }
}

}  // namespace vestrel
