#include "extraction/libFilter.h"

#include <algorithm>
#include <array>
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

/// The weighted mean of a pixel and the sums of its neighbours.
VESTREL_KERNEL float Mean(double centre, double side, double corner) {
    return static_cast<float>(sideWeight * side + centreWeight * centre + cornerWeight * corner);
}

/// Smooths one row of unfiltered values `here` into `out`. Sums of whole numbers are exact in
/// 64-bit floats in any order.
/// @param sides buffer for a row: the sums of the pixels above and below each pixel
VESTREL_KERNEL void SmoothRow(const std::int32_t* __restrict above,
                              const std::int32_t* __restrict here,
                              const std::int32_t* __restrict below, std::int32_t,
                              double* __restrict sides, std::int32_t* __restrict out,
                              std::int32_t width) {
    for (std::int32_t x = 0; x < width; ++x) {
        sides[x] = static_cast<double>(above[x]) + static_cast<double>(below[x]);
    }
    for (std::int32_t x = 1; x <= width - 2; ++x) {
        const auto side = static_cast<float>(static_cast<double>(here[x + 1]) +
                                             static_cast<double>(here[x - 1]) + sides[x]);
        const auto corner = static_cast<float>(sides[x + 1] + sides[x - 1]);
        const float mean = Mean(static_cast<double>(here[x]), static_cast<double>(side),
                                static_cast<double>(corner));
        out[x] = static_cast<std::int32_t>(RoundByAdding(static_cast<double>(mean)));
    }
}
/// The same for cells of 16 bits, whose least value is `least`: their sums are exact even in 32-bit
/// floats. Each step is a loop of its own over a part of the row, so that all numbers in a loop are
/// equally wide.
VESTREL_KERNEL void SmoothRow(const std::uint16_t* __restrict above,
                              const std::uint16_t* __restrict here,
                              const std::uint16_t* __restrict below, std::int32_t least,
                              std::int32_t* __restrict sides, std::uint16_t* __restrict out,
                              std::int32_t width) {
    constexpr std::int32_t partLength = 512;
    std::array<std::int32_t, partLength> centre;
    std::array<std::int32_t, partLength> side;
    std::array<std::int32_t, partLength> corner;
    std::array<float, partLength> mean;
    const auto rank = [=](std::uint16_t cell) VESTREL_KERNEL_LAMBDA {
        return static_cast<std::int32_t>(
            static_cast<std::uint16_t>(cell - static_cast<std::uint16_t>(least)));
    };
    for (std::int32_t x = 0; x < width; ++x) sides[x] = rank(above[x]) + rank(below[x]);
    for (std::int32_t first = 1; first <= width - 2; first += partLength) {
        const std::size_t count = static_cast<std::size_t>(std::min(partLength, width - 1 - first));
        const std::uint16_t* cells = here + first;
        const std::int32_t* beside = sides + first;
        std::uint16_t* smoothed = out + first;
        for (std::size_t i = 0; i < count; ++i) {
            centre[i] = rank(cells[i]) + least;
            side[i] = rank(cells[i + 1]) + rank(*(cells + i - 1)) + beside[i] + 4 * least;
            corner[i] = beside[i + 1] + *(beside + i - 1) + 4 * least;
        }
        for (std::size_t i = 0; i < count; ++i) {
            mean[i] = Mean(static_cast<double>(centre[i]), static_cast<double>(side[i]),
                           static_cast<double>(corner[i]));
        }
        for (std::size_t i = 0; i < count; ++i) {
            // Far below 2^22, this rounds like `RoundByAdding`.
            constexpr float lastDigitIsOne = 12582912;  // 1.5 × 2^23
            const float rounded = (mean[i] + lastDigitIsOne) - lastDigitIsOne;
            smoothed[i] = static_cast<std::uint16_t>(static_cast<std::int32_t>(rounded));
        }
    }
}
template <typename Cell, typename Sum>
VESTREL_FOR_AVX2 void SmoothRowForAvx2(const Cell* above, const Cell* here, const Cell* below,
                                       std::int32_t least, Sum* sides, Cell* out,
                                       std::int32_t width) {
    SmoothRow(above, here, below, least, sides, out, width);
}
template <typename Cell, typename Sum>
void SmoothRowPlainly(const Cell* above, const Cell* here, const Cell* below, std::int32_t least,
                      Sum* sides, Cell* out, std::int32_t width) {
    SmoothRow(above, here, below, least, sides, out, width);
}

/// @tparam Sum the kind of number that holds sums of cells
template <typename Sum, typename Cell>
void FilterCells(Grid<Cell>& cells, std::int32_t least, std::int32_t width, std::int32_t height,
                 const Progress& progress) {
    using Row = std::vector<Cell>;
    const auto copyOfRow = [&](std::int32_t y) {
        const auto row = cells.Row(y);
        return Row(row.begin(), row.end());
    };
    // Bands of rows share only the rows at their edges, which are copied first.
    constexpr std::int32_t rowsPerBand = 256;
    const std::int32_t bands = (height - 2 + rowsPerBand - 1) / rowsPerBand;
    std::vector<Row> aboveBand;
    std::vector<Row> belowBand;
    for (std::int32_t band = 0; band < bands; ++band) {
        aboveBand.push_back(copyOfRow(band * rowsPerBand));
        belowBand.push_back(copyOfRow(std::min((band + 1) * rowsPerBand + 1, height - 1)));
    }
    const auto smooth = HasAvx2() ? SmoothRowForAvx2<Cell, Sum> : SmoothRowPlainly<Cell, Sum>;
    const auto smoothBand = [&](int band) {
        const std::int32_t first = 1 + band * rowsPerBand;
        const std::int32_t last = std::min(first + rowsPerBand, height - 1) - 1;
        Row above = std::move(aboveBand[static_cast<std::size_t>(band)]);
        Row here = copyOfRow(first);
        const Row below = std::move(belowBand[static_cast<std::size_t>(band)]);
        std::vector<Sum> sides(static_cast<std::size_t>(width));
        for (std::int32_t y = first; y <= last; ++y) {
            const Cell* next = y < last ? cells.Row(y + 1).data() : below.data();
            // A weighted mean fits the cells that its values fit.
            smooth(above.data(), here.data(), next, least, sides.data(), cells.Row(y).data(),
                   width);
            above.swap(here);
            std::copy_n(next, width, here.begin());
        }
    };
    ParallelFor(bands, smoothBand, progress);
}

}  // namespace

void GaussianFilter(PixelGrid& pixels, std::int32_t width, std::int32_t height,
                    const Progress& progress) {
    if (width < 3 || height < 3) return;
    if (pixels.IsNarrow()) {
        FilterCells<std::int32_t>(pixels.NarrowCells(), pixels.Least(), width, height, progress);
    } else {
        FilterCells<double>(pixels.Wide(), 0, width, height, progress);
    }
    if (progress) progress(0, height);
}

}  // namespace vestrel
