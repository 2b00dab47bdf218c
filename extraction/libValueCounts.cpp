#include "extraction/libValueCounts.h"

#include <algorithm>
#include <utility>

#include "astro/libParallel.h"

namespace vestrel {

namespace {

constexpr std::int64_t step = 3;

}  // namespace

std::vector<std::uint32_t> CountByRows(
    const SampleRange& range, std::size_t numbers,
    const std::function<void(std::int32_t, std::uint32_t*)>& countRow) {
    // Each piece has counters of its own, so it must be large enough to be worth them.
    constexpr std::int64_t samplesPerPiece = 1 << 17;
    const std::int64_t mostPieces = std::max(ParallelThreads(), 1);
    const std::int64_t rows = std::max<std::int64_t>(range.LastY - range.FirstY + step, 0) / step;
    const std::int64_t columns =
        std::max<std::int64_t>(range.LastX - range.FirstX + step, 0) / step;
    const std::int64_t pieces =
        std::clamp(rows * columns / samplesPerPiece, std::int64_t{1}, mostPieces);
    std::vector<std::vector<std::uint32_t>> counts(static_cast<std::size_t>(pieces));
    ParallelFor(static_cast<int>(pieces), [&](int piece) {
        auto& ofPiece = counts[static_cast<std::size_t>(piece)];
        ofPiece.assign(numbers, 0);
        const std::int64_t end = rows * (piece + 1) / pieces;
        for (std::int64_t row = rows * piece / pieces; row < end; ++row) {
            countRow(static_cast<std::int32_t>(range.FirstY + step * row), ofPiece.data());
        }
    });
    for (std::size_t piece = 1; piece < counts.size(); ++piece) {
        std::transform(counts[piece].begin(), counts[piece].end(), counts[0].begin(),
                       counts[0].begin(), std::plus<>());
    }
    return std::move(counts[0]);
}

std::vector<std::uint32_t> CountRanks(const PixelGrid& pixels, const SampleRange& range) {
    constexpr std::size_t cellValues = 65536;
    const auto countRow = [&](std::int32_t y, std::uint32_t* counts) {
        const std::uint16_t* cells = pixels.NarrowRow(y).Cells;
        for (std::int64_t x = range.FirstX; x <= range.LastX; x += step) ++counts[cells[x]];
    };
    std::vector<std::uint32_t> counts = CountByRows(range, cellValues, countRow);
    // The rank of a cell is its distance from the one that holds the least value.
    std::rotate(counts.begin(), counts.begin() + static_cast<std::uint16_t>(pixels.Least()),
                counts.end());
    return counts;
}

}  // namespace vestrel
