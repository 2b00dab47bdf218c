#include "extraction/libBrightRuns.h"

#include <algorithm>

#include "astro/libProcessor.h"

namespace vestrel {

namespace {

struct BrightPixel {
    std::uint16_t Column;  ///< within the piece
    std::uint16_t Row;
    std::int32_t Value;
};

/// Lists the bright pixels of some columns, row by row.
VESTREL_KERNEL void ListBrightPixels(const PixelGrid& pixels, std::int32_t firstColumn,
                                     std::int32_t columns, std::int32_t height, std::int32_t level,
                                     std::vector<BrightPixel>& list) {
    pixels.Visit([&](auto rows) VESTREL_KERNEL_LAMBDA {
        constexpr std::int32_t look = 64;  // values looked at before the first branch
        constexpr std::int32_t rowsAhead = 4;
        for (std::int32_t y = 0; y < height; ++y) {
            const auto row = rows(y).From(firstColumn);
            // The next rows lie too far away for the processor to expect them.
            const auto next = rows(std::min(y + rowsAhead, height)).From(firstColumn);
            for (std::int32_t x0 = 0; x0 < columns; x0 += look) {
                const std::int32_t end = std::min(x0 + look, columns);
                ExpectPixels(next, x0, end);
                if (end - x0 == look) {
                    auto most = row.Rank(x0);
                    for (std::int32_t i = 1; i < look; ++i) {
                        const auto rank = row.Rank(x0 + i);
                        most = rank > most ? rank : most;
                    }
                    if (row.ValueOf(most) <= level) continue;
                }
                for (std::int32_t x = x0; x < end; ++x) {
                    if (row[x] > level) {
                        list.push_back(
                            {static_cast<std::uint16_t>(x), static_cast<std::uint16_t>(y), row[x]});
                    }
                }
            }
        }
    });
}
VESTREL_FOR_AVX2 void ListForAvx2(const PixelGrid& pixels, std::int32_t firstColumn,
                                  std::int32_t columns, std::int32_t height, std::int32_t level,
                                  std::vector<BrightPixel>& list) {
    ListBrightPixels(pixels, firstColumn, columns, height, level, list);
}
void ListPlainly(const PixelGrid& pixels, std::int32_t firstColumn, std::int32_t columns,
                 std::int32_t height, std::int32_t level, std::vector<BrightPixel>& list) {
    ListBrightPixels(pixels, firstColumn, columns, height, level, list);
}

}  // namespace

BrightRuns::BrightRuns(const PixelGrid& pixels, std::int32_t width, std::int32_t height,
                       std::int32_t level, const Progress& progress)
    : width_(width),
      height_(height),
      pieces_(static_cast<std::size_t>((width + columnsPerPiece - 1) / columnsPerPiece)) {
    const auto findPiece = [&](int piece) {
        const std::int32_t first = piece * columnsPerPiece;
        const std::int32_t columns = std::min(columnsPerPiece, width - first);
        pieces_[static_cast<std::size_t>(piece)] = FindPiece(pixels, first, columns, height, level);
    };
    ParallelFor(static_cast<int>(pieces_.size()), findPiece, progress);
}

BrightRuns::Piece BrightRuns::FindPiece(const PixelGrid& pixels, std::int32_t firstColumn,
                                        std::int32_t columns, std::int32_t height,
                                        std::int32_t level) {
    std::vector<BrightPixel> list;
    (HasAvx2() ? ListForAvx2 : ListPlainly)(pixels, firstColumn, columns, height, level, list);

    // Sorts the pixels from rows to columns by counting, which keeps the order of the rows.
    Piece piece;
    piece.ValueStart.assign(static_cast<std::size_t>(columns) + 1, 0);
    for (const BrightPixel& pixel : list) ++piece.ValueStart[pixel.Column + 1U];
    for (std::size_t x = 1; x < piece.ValueStart.size(); ++x) {
        piece.ValueStart[x] += piece.ValueStart[x - 1];
    }
    piece.Values.resize(list.size());
    std::vector<std::uint16_t> rows(list.size());
    std::vector<std::uint32_t> next = piece.ValueStart;
    for (const BrightPixel& pixel : list) {
        const std::uint32_t place = next[pixel.Column]++;
        rows[place] = pixel.Row;
        piece.Values[place] = pixel.Value;
    }
    std::vector<BrightPixel>().swap(list);

    piece.RunStart.push_back(0);
    for (std::size_t x = 0; x + 1 < piece.ValueStart.size(); ++x) {
        const std::uint32_t end = piece.ValueStart[x + 1];
        for (std::uint32_t i = piece.ValueStart[x]; i < end;) {
            const std::uint16_t first = rows[i];
            std::uint16_t row = first;
            for (; i < end && rows[i] == row; ++i) ++row;
            piece.Runs.push_back({first, row, 0});
        }
        piece.RunStart.push_back(static_cast<std::uint32_t>(piece.Runs.size()));
    }
    return piece;
}

std::span<BrightRun> BrightRuns::RunsOf(std::int32_t x) {
    Piece& piece = pieces_[static_cast<std::size_t>(x / columnsPerPiece)];
    const auto column = static_cast<std::size_t>(x % columnsPerPiece);
    BrightRun* runs = piece.Runs.data();
    return {runs + piece.RunStart[column], runs + piece.RunStart[column + 1]};
}

std::int32_t BrightRuns::Label(std::int32_t& maxFillDepth) {
    maxFillDepth_ = maxFillDepth;
    std::int32_t regions = 0;
    for (std::int32_t x = 0; x < width_; ++x) {
        for (BrightRun& run : RunsOf(x)) {
            if (run.Label == 0) Fill(x, run, ++regions, 0);
        }
    }
    maxFillDepth = maxFillDepth_;
    return regions;
}

void BrightRuns::Fill(std::int32_t x, BrightRun& run, std::int32_t label, std::int32_t depth) {
    ++depth;
    maxFillDepth_ = std::max(maxFillDepth_, depth);
    if (depth >= DepthLimit || run.Label != 0) return;
    run.Label = label;
    // The span includes the pixels just beyond the run, which joins diagonal neighbours.
    const std::int32_t top = std::max(run.First - 1, 0);
    const std::int32_t bottom = std::min<std::int32_t>(run.End, height_ - 1);
    if (x > 0) FillTouching(x - 1, top, bottom, label, depth);
    if (x < width_ - 1) FillTouching(x + 1, top, bottom, label, depth);
}

void BrightRuns::FillTouching(std::int32_t x, std::int32_t top, std::int32_t bottom,
                              std::int32_t label, std::int32_t depth) {
    const std::span<BrightRun> runs = RunsOf(x);
    auto run = std::partition_point(runs.begin(), runs.end(),
                                    [top](const BrightRun& r) { return r.End <= top; });
    for (; run != runs.end() && run->First <= bottom; ++run) {
        if (run->Label == 0) Fill(x, *run, label, depth);
    }
}

}  // namespace vestrel
