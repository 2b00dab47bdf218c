#include "extraction/libBackground.h"

#include <algorithm>
#include <span>

#include "astro/libMath.h"
#include "extraction/libBoxPercentile.h"
#include "extraction/libNearPercentiles.h"
#include "extraction/libValueCounts.h"

namespace vestrel {

namespace {

constexpr std::int32_t step = 3;

std::int32_t HeldValue(std::int32_t physical) {
    return std::clamp(physical, 0, LargestHistogramValue);
}

struct ClipLevels {
    std::int32_t Low;
    std::int32_t High;
};

/// How often each held value occurs in the samples of an image.
std::vector<std::uint32_t> CountHeldValues(const PixelGrid& values, std::int32_t offset,
                                           std::int32_t width, std::int32_t height) {
    const SampleRange range{0, width - 1, 0, height - 1};
    if (values.IsNarrow() && values.Least() == -offset) return CountRanks(values, range);
    return CountByRows(range, LargestHistogramValue + 1,
                       [&](std::int32_t y, std::uint32_t* counts) {
                           values.VisitRow(y, [&](auto row) {
                               for (std::int32_t x = 0; x < width; x += step)
                                   ++counts[HeldValue(row[x] + offset)];
                           });
                       });
}

/// The levels beyond which the darkest and brightest 0.2 % of the samples lie. Images of fewer
/// than 250 samples clip nothing: the levels then lie just outside the values that occur.
ClipLevels FindClipLevels(const PixelGrid& values, std::int32_t offset, std::int32_t width,
                          std::int32_t height) {
    const std::vector<std::uint32_t> counts = CountHeldValues(values, offset, width, height);
    const auto occurs = [](std::uint32_t count) { return count != 0; };
    const auto least = std::find_if(counts.begin(), counts.end(), occurs) - counts.begin();
    const auto most = counts.rend() - std::find_if(counts.rbegin(), counts.rend(), occurs) - 1;
    const std::int64_t samples =
        (std::int64_t{width} + step - 1) / step * ((std::int64_t{height} + step - 1) / step);
    const std::int64_t clipped = RoundToNearestInt32(static_cast<double>(samples) / 500.0);
    ClipLevels levels{static_cast<std::int32_t>(least) - 1, static_cast<std::int32_t>(most) + 1};
    for (std::int64_t sum = 0; sum < clipped;) {
        sum += counts[static_cast<std::size_t>(++levels.Low)];
    }
    for (std::int64_t sum = 0; sum < clipped;) {
        sum += counts[static_cast<std::size_t>(--levels.High)];
    }
    return levels;
}

/// Blocks of 16 bits where these can hold all percentiles: fewer bytes to clear, write and read.
PixelGrid NewBlocks(std::int32_t columns, std::int32_t rows, ClipLevels clip) {
    const std::int32_t least = std::min(clip.Low - 1, 0);
    if (clip.High - least <= PixelRow<std::uint16_t>::MostRank) {
        return PixelGrid::Narrow(columns, rows, least);
    }
    return PixelGrid(Grid<std::int32_t>(columns, rows));
}

/// How many columns of blocks one piece of work estimates: the more, the less often columns of
/// samples are counted for two pieces, but the farther the percentiles of a row spread. Every
/// processor gets as many pieces.
std::int32_t ColumnsOfStrip(std::int32_t columns) {
    constexpr std::int32_t narrowStrips = 14;
    const std::int32_t wanted = columns < 2 * narrowStrips * BoxPercentileColumns
                                    ? BoxPercentileColumns
                                    : 2 * BoxPercentileColumns;
    const std::int32_t threads = ParallelThreads();
    const std::int32_t pieces = std::max(columns / (wanted * threads), 1) * threads;
    return std::clamp((columns + pieces - 1) / pieces, 1, wanted + BoxPercentileColumns / 2);
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
        const auto store = [&] {
            const std::int32_t found[] = {HistogramPercentile(histogram_, samples, percentile)};
            blocks.Values.Store(x0 / step, blockRow, found);
        };
        store();
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
            ++blockRow;
            store();
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
    const ClipLevels clip = FindClipLevels(values, offset, width, height);
    blocks.Values = NewBlocks(blocks.Columns, blocks.Rows, clip);
    if (HasBoxPercentiles(halfSize)) {
        const BoxSamples samples{values,
                                 offset,
                                 width,
                                 height,
                                 clip.Low,
                                 clip.High,
                                 HeldValue(clip.Low),
                                 HeldValue(clip.High)};
        const std::int32_t columns = ColumnsOfStrip(blocks.Columns);
        const auto estimateStrip = [&](int piece) {
            const std::int32_t first = piece * columns;
            const std::int32_t end = std::min(first + columns, blocks.Columns);
            if (columns > BoxPercentileColumns &&
                NearPercentiles(samples, halfSize, percentile, first, end, blocks.Rows,
                                blocks.Values)) {
                return;
            }
            for (std::int32_t part = first; part < end; part += BoxPercentileColumns) {
                BoxPercentiles(samples, halfSize, percentile, part,
                               std::min(part + BoxPercentileColumns, end), blocks.Rows,
                               blocks.Values);
            }
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

}  // namespace vestrel
