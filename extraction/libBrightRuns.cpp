#include "extraction/libBrightRuns.h"

#include <algorithm>
#include <array>
#include <bit>

#include "astro/libProcessor.h"
#include "extraction/libLaneSums.h"

namespace vestrel {

namespace {

struct BrightPixel {
    std::uint16_t Column;  ///< within the piece
    std::uint16_t Row;
    std::int32_t Value;
};

/// Which of at most 64 pixels from column `first` on are bright, as bits. Where many are, a branch
/// for each pixel would often be mispredicted.
template <typename Cell>
VESTREL_KERNEL std::uint64_t BrightBits(PixelRow<Cell> row, std::int32_t first, std::int32_t count,
                                        std::int32_t level) {
    constexpr std::int32_t most = PixelGrid::PartLength;
    std::array<std::int8_t, most> bright{};
    if (count == most) {
        for (std::int32_t i = 0; i < most; ++i) {
            bright[static_cast<std::size_t>(i)] = row[first + i] > level ? -1 : 0;
        }
    } else {
        for (std::int32_t i = 0; i < count; ++i) {
            bright[static_cast<std::size_t>(i)] = row[first + i] > level ? -1 : 0;
        }
    }
    ThirtyTwo halves[2];
    static_assert(sizeof halves == sizeof bright);
    __builtin_memcpy(&halves, bright.data(), sizeof halves);
    return TrueElements(halves[0]) | std::uint64_t{TrueElements(halves[1])} << 32;
}

/// Lists the bright pixels of some columns, row by row.
VESTREL_KERNEL void ListBrightPixels(const PixelGrid& pixels, std::int32_t firstColumn,
                                     std::int32_t columns, std::int32_t height, std::int32_t level,
                                     std::vector<BrightPixel>& list) {
    pixels.Visit([&](auto rows) VESTREL_KERNEL_LAMBDA {
        constexpr std::int32_t look = PixelGrid::PartLength;
        constexpr std::int32_t rowsAhead = 4;
        for (std::int32_t y = 0; y < height; ++y) {
            const auto row = rows(y).From(firstColumn);
            const std::uint16_t* greatest = pixels.GreatestOfRow(y);
            if (greatest != nullptr) greatest += firstColumn / look;
            // The next rows lie too far away for the processor to expect them.
            const auto next = rows(std::min(y + rowsAhead, height)).From(firstColumn);
            for (std::int32_t x0 = 0; x0 < columns; x0 += look) {
                const std::int32_t end = std::min(x0 + look, columns);
                if (greatest != nullptr) {
                    if (row.Least + greatest[x0 / look] <= level) continue;
                } else if (end - x0 == look) {
                    ExpectPixels(next, x0, end);
                    auto most = row.Rank(x0);
                    for (std::int32_t i = 1; i < look; ++i) {
                        const auto rank = row.Rank(x0 + i);
                        most = rank > most ? rank : most;
                    }
                    if (row.ValueOf(most) <= level) continue;
                }
                ExpectPixels(next, x0, end);
                const std::uint64_t bright = BrightBits(row, x0, end - x0, level);
                for (std::uint64_t left = bright; left != 0; left &= left - 1) {
                    const std::int32_t x = x0 + std::countr_zero(left);
                    list.push_back(
                        {static_cast<std::uint16_t>(x), static_cast<std::uint16_t>(y), row[x]});
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
    std::span<BrightRun> left;
    std::span<BrightRun> right = width_ > 0 ? RunsOf(0) : left;
    for (std::int32_t x = 0; x < width_; ++x) {
        const std::span<BrightRun> runs = right;
        right = x < width_ - 1 ? RunsOf(x + 1) : std::span<BrightRun>();
        // The runs beside a column's lie in the same order, so nothing needs to be searched for.
        Neighbours next{left, right};
        for (BrightRun& run : runs) {
            next.MoveDownTo(Top(run));
            if (run.Label == 0) Fill(x, run, ++regions, 0, next);
        }
        left = runs;
    }
    maxFillDepth = maxFillDepth_;
    return regions;
}

std::int32_t BrightRuns::Top(const BrightRun& run) {
    return std::max(run.First - 1, 0);
}

void BrightRuns::Neighbours::MoveDownTo(std::int32_t top) {
    for (std::span<BrightRun>* runs : {&Left, &Right}) {
        while (!runs->empty() && runs->front().End <= top) *runs = runs->subspan(1);
    }
}

BrightRuns::Neighbours BrightRuns::NeighboursOf(std::int32_t x, const BrightRun& run) {
    const auto from = [top = Top(run)](std::span<BrightRun> runs) {
        const auto first = std::partition_point(runs.begin(), runs.end(),
                                                [top](const BrightRun& r) { return r.End <= top; });
        return runs.subspan(static_cast<std::size_t>(first - runs.begin()));
    };
    Neighbours found;
    if (x > 0) found.Left = from(RunsOf(x - 1));
    if (x < width_ - 1) found.Right = from(RunsOf(x + 1));
    return found;
}

void BrightRuns::Fill(std::int32_t x, BrightRun& run, std::int32_t label, std::int32_t depth,
                      const Neighbours& neighbours) {
    ++depth;
    maxFillDepth_ = std::max(maxFillDepth_, depth);
    if (depth >= DepthLimit || run.Label != 0) return;
    run.Label = label;
    // The span includes the pixels just beyond the run, which joins diagonal neighbours.
    const std::int32_t bottom = std::min<std::int32_t>(run.End, height_ - 1);
    FillTouching(x - 1, neighbours.Left, bottom, label, depth);
    FillTouching(x + 1, neighbours.Right, bottom, label, depth);
}

void BrightRuns::FillTouching(std::int32_t x, std::span<BrightRun> runs, std::int32_t bottom,
                              std::int32_t label, std::int32_t depth) {
    for (BrightRun& run : runs) {
        if (run.First > bottom) break;
        if (run.Label == 0) Fill(x, run, label, depth, NeighboursOf(x, run));
    }
}

}  // namespace vestrel
