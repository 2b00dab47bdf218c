#include "extraction/libFilter.h"

#include <algorithm>
#include <span>
#include <vector>

#include "astro/libProcessor.h"

namespace vestrel {

namespace {

constexpr double centreWeight = 0.2042;
constexpr double sideWeight = 0.12385;
constexpr double cornerWeight = 0.0751;

/// Rounds a value far below 2^51 to the nearest whole number, halves to even: adding 1.5 × 2^52
/// leaves no binary digits for fractions. The compiler vectorises this, unlike a library call.
VESTREL_KERNEL double RoundByAdding(double value) {
    constexpr double lastDigitIsOne = 6755399441055744.0;  // 1.5 × 2^52
    return (value + lastDigitIsOne) - lastDigitIsOne;
}

/// Smooths one row of unfiltered values `here` into `out`. Sums of whole numbers are exact in
/// 64-bit floats in any order.
/// @param sides buffer for a row: the sums of the pixels above and below each pixel
VESTREL_KERNEL void SmoothRow(const std::int32_t* __restrict above,
                              const std::int32_t* __restrict here,
                              const std::int32_t* __restrict below, double* __restrict sides,
                              std::int32_t* __restrict out, std::int32_t width) {
    for (std::int32_t x = 0; x < width; ++x) {
        sides[x] = static_cast<double>(above[x]) + static_cast<double>(below[x]);
    }
    for (std::int32_t x = 1; x <= width - 2; ++x) {
        const auto side = static_cast<float>(static_cast<double>(here[x + 1]) +
                                             static_cast<double>(here[x - 1]) + sides[x]);
        const auto corner = static_cast<float>(sides[x + 1] + sides[x - 1]);
        const auto smoothed = static_cast<float>(sideWeight * static_cast<double>(side) +
                                                 centreWeight * static_cast<double>(here[x]) +
                                                 cornerWeight * static_cast<double>(corner));
        out[x] = static_cast<std::int32_t>(RoundByAdding(static_cast<double>(smoothed)));
    }
}
VESTREL_FOR_AVX2 void SmoothRowForAvx2(const std::int32_t* above, const std::int32_t* here,
                                       const std::int32_t* below, double* sides, std::int32_t* out,
                                       std::int32_t width) {
    SmoothRow(above, here, below, sides, out, width);
}
void SmoothRowPlainly(const std::int32_t* above, const std::int32_t* here,
                      const std::int32_t* below, double* sides, std::int32_t* out,
                      std::int32_t width) {
    SmoothRow(above, here, below, sides, out, width);
}

using Row = std::vector<std::int32_t>;

Row CopyOfRow(const PixelGrid& pixels, std::int32_t y) {
    Row buffer;
    const auto row = pixels.Row(y, buffer);
    return {row.begin(), row.end()};
}

}  // namespace

void GaussianFilter(PixelGrid& pixels, std::int32_t width, std::int32_t height,
                    const Progress& progress) {
    if (width < 3 || height < 3) return;
    // Bands of rows share only the rows at their edges, which are copied first.
    constexpr std::int32_t rowsPerBand = 256;
    const std::int32_t bands = (height - 2 + rowsPerBand - 1) / rowsPerBand;
    std::vector<Row> aboveBand;
    std::vector<Row> belowBand;
    for (std::int32_t band = 0; band < bands; ++band) {
        aboveBand.push_back(CopyOfRow(pixels, band * rowsPerBand));
        belowBand.push_back(CopyOfRow(pixels, std::min((band + 1) * rowsPerBand + 1, height - 1)));
    }
    const auto smooth = HasAvx2() ? SmoothRowForAvx2 : SmoothRowPlainly;
    const auto smoothBand = [&](int band) {
        const std::int32_t first = 1 + band * rowsPerBand;
        const std::int32_t last = std::min(first + rowsPerBand, height - 1) - 1;
        Row above = std::move(aboveBand[static_cast<std::size_t>(band)]);
        Row here = CopyOfRow(pixels, first);
        Row below = std::move(belowBand[static_cast<std::size_t>(band)]);
        Row expanded;
        Row smoothed(static_cast<std::size_t>(width));
        std::vector<double> sides(static_cast<std::size_t>(width));
        for (std::int32_t y = first; y <= last; ++y) {
            const std::int32_t* next = y < last ? pixels.Row(y + 1, expanded).data() : below.data();
            smooth(above.data(), here.data(), next, sides.data(), smoothed.data(), width);
            // A weighted mean fits the cells that its values fit.
            pixels.Store(1, y, std::span(smoothed).subspan(1, static_cast<std::size_t>(width) - 2));
            above.swap(here);
            std::copy_n(next, width, here.begin());
        }
    };
    ParallelFor(bands, smoothBand, progress);
    if (progress) progress(0, height);
}

}  // namespace vestrel
