#include "extraction/libBackground.h"

#include <algorithm>
#include <span>

#include "astro/libMath.h"
#include "astro/libProcessor.h"
#include "extraction/libBoxPercentile.h"

namespace vestrel {

namespace {

constexpr std::int32_t step = 3;
constexpr std::int32_t lift = 100;
constexpr std::int32_t brightest = 65535;

std::int32_t HeldValue(std::int32_t physical) {
    return std::clamp(physical, 0, LargestHistogramValue);
}

struct ClipLevels {
    std::int32_t Low;
    std::int32_t High;
};

/// How often each value occurs in the samples of some rows.
struct SampleCounts {
    std::vector<std::int32_t> Counts = std::vector<std::int32_t>(LargestHistogramValue + 1, 0);
    std::int32_t Samples = 0;

    template <typename Cell>
    void Add(PixelRow<Cell> row, std::int32_t offset, std::int32_t width) {
        for (std::int32_t x = 0; x < width; x += step) {
            ++Counts[static_cast<std::size_t>(HeldValue(row[x] + offset))];
        }
        Samples += (width + step - 1) / step;
    }
    void Add(const SampleCounts& other) {
        for (std::size_t value = 0; value < Counts.size(); ++value) {
            Counts[value] += other.Counts[value];
        }
        Samples += other.Samples;
    }
    std::int32_t Minimum() const {
        const auto occurs = std::find_if(Counts.begin(), Counts.end(), NotZero);
        return static_cast<std::int32_t>(occurs - Counts.begin());
    }
    std::int32_t Maximum() const {
        const auto occurs = std::find_if(Counts.rbegin(), Counts.rend(), NotZero);
        return static_cast<std::int32_t>(Counts.rend() - occurs) - 1;
    }

 private:
    static bool NotZero(std::int32_t count) { return count != 0; }
};

/// The levels beyond which the darkest and brightest 0.2 % of the samples lie. Images of fewer
/// than 250 samples clip nothing: the levels then lie just outside the values that occur.
ClipLevels FindClipLevels(const PixelGrid& values, std::int32_t offset, std::int32_t width,
                          std::int32_t height) {
    // Each piece has counters of its own, so it must be large enough to be worth them.
    constexpr std::int64_t pixelsPerPiece = 1 << 20;
    constexpr std::int64_t mostPieces = 8;
    const auto pieces = static_cast<std::int32_t>(
        std::clamp(std::int64_t{width} * height / pixelsPerPiece, std::int64_t{1}, mostPieces));
    std::vector<SampleCounts> counts(static_cast<std::size_t>(pieces));
    const std::int32_t rows = (height + step - 1) / step;
    ParallelFor(pieces, [&](int piece) {
        const std::int32_t end = rows * (piece + 1) / pieces;
        for (std::int32_t row = rows * piece / pieces; row < end; ++row) {
            values.VisitRow(row * step, [&](auto pixels) {
                counts[static_cast<std::size_t>(piece)].Add(pixels, offset, width);
            });
        }
    });
    SampleCounts& all = counts.front();
    for (std::size_t piece = 1; piece < counts.size(); ++piece) all.Add(counts[piece]);

    const std::int32_t clipped = RoundToNearestInt32(all.Samples / 500.0);
    ClipLevels levels{all.Minimum() - 1, all.Maximum() + 1};
    for (std::int32_t sum = 0; sum < clipped;) {
        sum += all.Counts[static_cast<std::size_t>(++levels.Low)];
    }
    for (std::int32_t sum = 0; sum < clipped;) {
        sum += all.Counts[static_cast<std::size_t>(--levels.High)];
    }
    return levels;
}

/// One column of boxes sliding down the image.
///
/// The first box takes rows 1, 4, 7, …; the slide adds and removes the rows yc ± halfSize, which
/// for the usual half-size are 2, 5, 8, …. So the first rows are never removed, and rows are
/// removed that were never added: counters may go negative, but they always sum to the number of
/// samples. Results depend on exactly these rows, so do not "repair" them.
class ColumnOfBoxes {
 public:
    ColumnOfBoxes(const PixelGrid& values, std::int32_t offset, std::int32_t width,
                  std::int32_t height, std::int32_t halfSize, ClipLevels clip)
        : values_(values),
          offset_(offset),
          width_(width),
          height_(height),
          halfSize_(halfSize),
          // The levels themselves may lie one step outside the histogram's values.
          darkest_(HeldValue(clip.Low)),
          brightest_(HeldValue(clip.High)),
          histogram_(clip.Low, clip.High) {}

    void Estimate(std::int32_t x0, double percentile, BackgroundBlocks& blocks) {
        firstColumn_ = x0 - halfSize_;
        while (firstColumn_ < 0) firstColumn_ += step;
        const std::int32_t lastColumn = std::min(x0 + halfSize_, width_ - 1);
        columns_ = lastColumn < firstColumn_ ? 0 : (lastColumn - firstColumn_) / step + 1;
        histogram_.Clear();
        std::int32_t samples = 0;
        for (std::int32_t y = 1; y <= halfSize_ && y < height_; y += step) samples += AddRow(y);

        std::int32_t blockRow = 0;
        blocks.Values(x0 / step, blockRow) = HistogramPercentile(histogram_, samples, percentile);
        for (std::int32_t yc = 2; yc < height_; yc += step) {
            const std::int32_t leaving = yc - halfSize_;
            const std::int32_t entering = yc + halfSize_;
            // From here on, the rows that leave are those that entered by sliding, one box height
            // ago.
            const bool entered = leaving >= 2 + halfSize_ && (2 * halfSize_) % step == 0;
            if (entered && entering < height_) {
                ExchangeRows(leaving, entering);
            } else {
                if (leaving >= 0) samples -= RemoveRow(leaving);
                if (entering < height_) samples += AddRow(entering);
            }
            blocks.Values(x0 / step, ++blockRow) =
                HistogramPercentile(histogram_, samples, percentile);
        }
    }

 private:
    std::int32_t Held(std::int32_t stored) const {
        return std::clamp(stored + offset_, darkest_, brightest_);
    }
    std::int32_t AddRow(std::int32_t y) {
        values_.VisitRow(y, [this](auto pixels) {
            const auto sample = pixels.From(firstColumn_);
            for (std::int32_t i = 0; i < columns_; ++i) histogram_.Add(Held(sample[i * step]));
        });
        return columns_;
    }
    std::int32_t RemoveRow(std::int32_t y) {
        values_.VisitRow(y, [this](auto pixels) {
            const auto sample = pixels.From(firstColumn_);
            for (std::int32_t i = 0; i < columns_; ++i) {
                histogram_.RemoveUnseen(Held(sample[i * step]));
            }
        });
        return columns_;
    }
    /// Removes a row that was added before and adds another one.
    void ExchangeRows(std::int32_t leaving, std::int32_t entering) {
        values_.Visit([&](auto rows) {
            const auto out = rows(leaving).From(firstColumn_);
            const auto in = rows(entering).From(firstColumn_);
            for (std::int32_t i = 0; i < columns_; ++i) {
                histogram_.Remove(Held(out[i * step]));
                histogram_.Add(Held(in[i * step]));
            }
        });
    }

    const PixelGrid& values_;
    std::int32_t offset_;
    std::int32_t width_;
    std::int32_t height_;
    std::int32_t halfSize_;
    std::int32_t darkest_;
    std::int32_t brightest_;
    ValueHistogram histogram_;
    std::int32_t firstColumn_ = 0;
    std::int32_t columns_ = 0;
};

}  // namespace

ValueHistogram::ValueHistogram(std::int32_t low, std::int32_t high)
    : Low(low),
      High(high),
      Counts(static_cast<std::size_t>(high - low + 1), 0),
      BlockAdded((Counts.size() >> BlockShift) + 1, 0),
      BlockRemoved(BlockAdded.size(), 0),
      BlockOwed(BlockAdded.size(), 0) {}

void ValueHistogram::Clear() {
    for (auto* counters : {&Counts, &BlockAdded, &BlockRemoved, &BlockOwed}) {
        std::fill(counters->begin(), counters->end(), 0);
    }
}

std::int32_t HistogramPercentile(const ValueHistogram& histogram, std::int32_t count,
                                 double percentile) {
    const std::int32_t target = RoundToNearestInt32(count * percentile / 100);
    if (target <= 0) return histogram.Low - 1;
    constexpr std::size_t blockLength = std::size_t{1} << ValueHistogram::BlockShift;
    std::int32_t sum = 0;
    for (std::size_t block = 0; block < histogram.BlockAdded.size(); ++block) {
        const std::int32_t blockSum = histogram.BlockAdded[block] - histogram.BlockRemoved[block];
        if (sum + blockSum + histogram.BlockOwed[block] < target) {
            sum += blockSum;
            continue;
        }
        const std::size_t end = std::min((block + 1) * blockLength, histogram.Counts.size());
        for (std::size_t i = block * blockLength; i < end; ++i) {
            sum += histogram.Counts[i];
            if (sum >= target) return histogram.Low + static_cast<std::int32_t>(i);
        }
    }
    return histogram.High;
}

BackgroundBlocks EstimateBackgroundBlocks(const PixelGrid& values, std::int32_t offset,
                                          std::int32_t width, std::int32_t height,
                                          std::int16_t halfSize, double percentile,
                                          const Progress& progress) {
    BackgroundBlocks blocks;
    if (width <= 0 || height <= 0) return blocks;
    blocks.Columns = (width + step - 1) / step;
    blocks.Rows = height / step + 1;
    blocks.Values = Grid<std::int32_t>(blocks.Columns, blocks.Rows);

    const ClipLevels clip = FindClipLevels(values, offset, width, height);
    if (HasBoxPercentiles(halfSize)) {
        const BoxSamples samples{values,
                                 offset,
                                 width,
                                 height,
                                 clip.Low,
                                 clip.High,
                                 HeldValue(clip.Low),
                                 HeldValue(clip.High)};
        constexpr std::int32_t columns = BoxPercentileColumns;
        const auto estimateStrip = [&](int piece) {
            const std::int32_t first = piece * columns;
            BoxPercentiles(samples, halfSize, percentile, first,
                           std::min(first + columns, blocks.Columns), blocks.Rows, blocks.Values);
        };
        ParallelFor((blocks.Columns + columns - 1) / columns, estimateStrip, progress);
        return blocks;
    }
    // This many columns of boxes share one histogram, one after the other.
    constexpr std::int32_t columnsPerPiece = 16;
    const auto estimatePiece = [&](int piece) {
        ColumnOfBoxes boxes(values, offset, width, height, halfSize, clip);
        const std::int32_t end = std::min((piece + 1) * columnsPerPiece, blocks.Columns);
        for (std::int32_t column = piece * columnsPerPiece; column < end; ++column) {
            boxes.Estimate(column * step, percentile, blocks);
        }
    };
    ParallelFor((blocks.Columns + columnsPerPiece - 1) / columnsPerPiece, estimatePiece, progress);
    return blocks;
}

void EstimateBackground(PixelGrid& values, std::int32_t width, std::int32_t height,
                        std::int16_t halfSize, double percentile, const Progress& progress) {
    const BackgroundBlocks blocks =
        EstimateBackgroundBlocks(values, 0, width, height, halfSize, percentile, progress);
    Grid<std::int32_t>& map = values.Wide();
    for (std::int32_t y = 0; y < height; ++y) {
        for (std::int32_t x = 0; x < width; ++x) map(x, y) = blocks.At(x, y);
    }
}

namespace {

/// Subtracts the background of a row and clamps the result to `least`..`most`. Written so that the
/// compiler vectorises it.
VESTREL_KERNEL void SubtractRow(std::int32_t* __restrict row, const std::int32_t* __restrict sky,
                                std::int32_t width, std::int32_t least, std::int32_t most) {
    for (std::int32_t x = 0; x < width; ++x) {
        const std::int32_t value = row[x] - sky[x] + lift;
        const std::int32_t notBelow = value < least ? least : value;
        row[x] = notBelow > most ? most : notBelow;
    }
}
VESTREL_FOR_AVX2 void SubtractRowForAvx2(std::int32_t* row, const std::int32_t* sky,
                                         std::int32_t width, std::int32_t least,
                                         std::int32_t most) {
    SubtractRow(row, sky, width, least, most);
}
void SubtractRowPlainly(std::int32_t* row, const std::int32_t* sky, std::int32_t width,
                        std::int32_t least, std::int32_t most) {
    SubtractRow(row, sky, width, least, most);
}

/// The same in 16 bits. Each count falls or, where the sky is darker than the lift, rises; one of
/// `fall` and `rise` is 0. A count that would leave 0..65535 stops at the bound.
VESTREL_KERNEL void SubtractNarrowRow(std::uint16_t* __restrict row,
                                      const std::uint16_t* __restrict fall,
                                      const std::uint16_t* __restrict rise, std::int32_t width,
                                      std::uint16_t offset) {
    for (std::int32_t x = 0; x < width; ++x) {
        const auto count = static_cast<std::uint16_t>(row[x] + offset);
        const auto room = static_cast<std::uint16_t>(brightest - count);
        const auto raised = static_cast<std::uint16_t>(count + (rise[x] < room ? rise[x] : room));
        const auto left =
            static_cast<std::uint16_t>(raised - (fall[x] < raised ? fall[x] : raised));
        row[x] = static_cast<std::uint16_t>(left - offset);
    }
}
VESTREL_FOR_AVX2 void SubtractNarrowRowForAvx2(std::uint16_t* row, const std::uint16_t* fall,
                                               const std::uint16_t* rise, std::int32_t width,
                                               std::uint16_t offset) {
    SubtractNarrowRow(row, fall, rise, width, offset);
}
void SubtractNarrowRowPlainly(std::uint16_t* row, const std::uint16_t* fall,
                              const std::uint16_t* rise, std::int32_t width, std::uint16_t offset) {
    SubtractNarrowRow(row, fall, rise, width, offset);
}

/// What a row of blocks subtracts from the pixels of each column.
class WideSky {
 public:
    explicit WideSky(std::int32_t blocks) : sky_(static_cast<std::size_t>(blocks) * step) {}
    void Set(std::span<const std::int32_t> blocks) {
        std::int32_t* place = sky_.data();
        for (const std::int32_t block : blocks) {
            place[0] = place[1] = place[2] = block;
            place += step;
        }
    }
    void SubtractFrom(std::int32_t* row, std::int32_t offset, std::int32_t width) const {
        // Stored and physical values differ only by the offset, so it just shifts the bounds.
        (HasAvx2() ? SubtractRowForAvx2 : SubtractRowPlainly)(row, sky_.data(), width, -offset,
                                                              brightest - offset);
    }

 private:
    std::vector<std::int32_t> sky_;
};

/// Sets `fall` and `rise` for the three columns of each block.
VESTREL_KERNEL void SpreadChanges(const std::int32_t* __restrict blocks, std::size_t count,
                                  std::uint16_t* __restrict fall, std::uint16_t* __restrict rise) {
    for (std::size_t i = 0; i < count; ++i) {
        const std::int32_t down = blocks[i] - lift;
        const std::int32_t notBelow = down < -brightest ? -brightest : down;
        const std::int32_t change = notBelow > brightest ? brightest : notBelow;
        const auto falls = static_cast<std::uint16_t>(change < 0 ? 0 : change);
        const auto rises = static_cast<std::uint16_t>(change < 0 ? -change : 0);
        fall[3 * i] = fall[3 * i + 1] = fall[3 * i + 2] = falls;
        rise[3 * i] = rise[3 * i + 1] = rise[3 * i + 2] = rises;
    }
}
VESTREL_FOR_AVX2 void SpreadChangesForAvx2(const std::int32_t* blocks, std::size_t count,
                                           std::uint16_t* fall, std::uint16_t* rise) {
    SpreadChanges(blocks, count, fall, rise);
}
void SpreadChangesPlainly(const std::int32_t* blocks, std::size_t count, std::uint16_t* fall,
                          std::uint16_t* rise) {
    SpreadChanges(blocks, count, fall, rise);
}

/// The same for 16-bit cells.
class NarrowSky {
 public:
    explicit NarrowSky(std::int32_t blocks)
        : fall_(static_cast<std::size_t>(blocks) * step), rise_(fall_.size()) {}
    void Set(std::span<const std::int32_t> blocks) {
        (HasAvx2() ? SpreadChangesForAvx2 : SpreadChangesPlainly)(blocks.data(), blocks.size(),
                                                                  fall_.data(), rise_.data());
    }
    void SubtractFrom(std::uint16_t* row, std::int32_t offset, std::int32_t width) const {
        (HasAvx2() ? SubtractNarrowRowForAvx2 : SubtractNarrowRowPlainly)(
            row, fall_.data(), rise_.data(), width, static_cast<std::uint16_t>(offset));
    }

 private:
    std::vector<std::uint16_t> fall_;
    std::vector<std::uint16_t> rise_;
};

template <typename Sky, typename Cell>
void SubtractFromCells(Grid<Cell>& cells, std::int32_t offset, std::int32_t width,
                       std::int32_t height, const BackgroundBlocks& background,
                       const Progress& progress) {
    constexpr std::int32_t rowsPerPiece = 63;  // whole blocks
    const auto subtractPiece = [&](int piece) {
        Sky sky(background.Columns);
        const std::int32_t first = piece * rowsPerPiece;
        const std::int32_t end = std::min(first + rowsPerPiece, height);
        for (std::int32_t y = first; y < end; ++y) {
            if (y == first || (y + 1) % step == 0) {
                sky.Set(background.Values.Row((y + 1) / step)
                            .first(static_cast<std::size_t>(background.Columns)));
            }
            sky.SubtractFrom(cells.Row(y).data(), offset, width);
        }
    };
    ParallelFor((height + rowsPerPiece - 1) / rowsPerPiece, subtractPiece, progress);
}

}  // namespace

void SubtractBackgroundBlocks(PixelGrid& pixels, std::int32_t offset, std::int32_t width,
                              std::int32_t height, const BackgroundBlocks& background,
                              const Progress& progress) {
    if (width == 0) return;  // empty rows have no first pixel
    if (pixels.IsNarrow() && pixels.Least() == -offset) {
        SubtractFromCells<NarrowSky>(pixels.NarrowCells(), offset, width, height, background,
                                     progress);
    } else {
        SubtractFromCells<WideSky>(pixels.Wide(), offset, width, height, background, progress);
    }
}

}  // namespace vestrel
