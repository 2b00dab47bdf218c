#include "extraction/libNearPercentiles.h"

#include <algorithm>
#include <array>
#include <bit>
#include <vector>

#include "astro/libMath.h"
#include "astro/libProcessor.h"
#include "extraction/libHistogramTree.h"
#include "extraction/libSlidingRows.h"

namespace vestrel {

namespace {

constexpr std::int32_t step = 3;
constexpr std::int32_t lanes = 64;
constexpr std::int8_t noLane = 127;  ///< outside of the image

// Vectors of the compiler. They are loaded and stored by `__builtin_memcpy`, as a lane number may
// stand anywhere.
using Bytes [[gnu::vector_size(32)]] = std::int8_t;
using Numbers [[gnu::vector_size(32)]] = std::int32_t;
using Words [[gnu::vector_size(16)]] = std::uint16_t;

/// Eight cells.
template <typename Cell>
struct Eight;
template <>
struct Eight<std::int32_t> {
    using Vector = Numbers;
};
template <>
struct Eight<std::uint16_t> {
    using Vector = Words;
};

/// The running sums of a column of samples, at most 127 in size. Lanes 0 and 16 stand side by side,
/// then 1 and 17, and so on; 32 and 48 begin the second part.
struct alignas(32) ColumnSums {
    Bytes Of[2];
};
/// Those of a box.
struct alignas(32) BoxSums {
    Sixteen Of[4];
};

/// Stores eight numbers that fit bytes.
VESTREL_KERNEL void StoreAsBytes(const Numbers& numbers, std::int8_t* out) {
#if defined(__SSE2__)
    const auto* halves = reinterpret_cast<const __m128i*>(&numbers);
    const __m128i words = _mm_packs_epi32(halves[0], halves[1]);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out), _mm_packs_epi16(words, words));
#else
    for (int i = 0; i < 8; ++i) out[i] = static_cast<std::int8_t>(numbers[i]);
#endif
}
VESTREL_KERNEL void StoreAsBytes(const Words& words, std::int8_t* out) {
#if defined(__SSE2__)
    const auto numbers = reinterpret_cast<__m128i>(words);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out), _mm_packus_epi16(numbers, numbers));
#else
    for (int i = 0; i < 8; ++i) out[i] = static_cast<std::int8_t>(words[i]);
#endif
}

/// Finds the lanes of `count` samples, every third pixel of a row: their values clamped to
/// `least`..`most`, which is all within `lanes` of `base`, less `base`.
template <typename Cell>
VESTREL_KERNEL void TakeLanes(PixelRow<Cell> pixels, std::int32_t base, std::int32_t least,
                              std::int32_t most, std::int32_t count, std::int8_t* out) {
    using Vector = typename Eight<Cell>::Vector;
    using Row = PixelRow<Cell>;
    std::int32_t i = 0;
    if (least - pixels.Least <= Row::MostRank && most - pixels.Least >= Row::LeastRank) {
        const auto low = static_cast<Cell>(std::max(least - pixels.Least, Row::LeastRank));
        const auto high = static_cast<Cell>(std::min(most - pixels.Least, Row::MostRank));
        const auto toRank = static_cast<Cell>(pixels.Least);
        const auto toLane = static_cast<Cell>(base - pixels.Least);
        // Eight samples lie in 24 pixels: of these every third is kept.
        for (; i + 8 < count; i += 8) {
            const Cell* cells = pixels.Cells + step * i;
            Vector first;
            Vector second;
            Vector third;
            __builtin_memcpy(&first, cells, sizeof first);
            __builtin_memcpy(&second, cells + 8, sizeof second);
            __builtin_memcpy(&third, cells + 16, sizeof third);
            const Vector both = __builtin_shufflevector(first, second, 0, 9, 2, 3, 12, 5, 6, 15);
            const Vector all = __builtin_shufflevector(both, third, 0, 1, 10, 3, 4, 13, 6, 7);
            const Vector cell = __builtin_shufflevector(all, all, 0, 3, 6, 1, 4, 7, 2, 5);
            const Vector rank = cell - toRank;
            const Vector notBelow = rank < low ? Vector{} + low : rank;
            StoreAsBytes((notBelow > high ? Vector{} + high : notBelow) - toLane, out + i);
        }
    }
    for (; i < count; ++i) {
        out[i] = static_cast<std::int8_t>(std::clamp(pixels[i * step], least, most) - base);
    }
}

class NearStrip {
 public:
    NearStrip(const BoxSamples& samples, std::int32_t halfSize, double percentile,
              std::int32_t first, std::int32_t end)
        : samples_(samples),
          percentile_(percentile),
          reach_(halfSize / step),
          rows_{samples.Height, reach_},
          first_(first),
          end_(end),
          start_(first - reach_),
          width_(end - first + 2 * reach_),
          firstSample_(std::max(start_, 0)),
          endSample_(std::min(end + reach_, (samples.Width + step - 1) / step)),
          lanes_(static_cast<std::size_t>(4 * reach_ + 1) * static_cast<std::size_t>(width_),
                 noLane),
          columns_(static_cast<std::size_t>(width_) + 1),
          targets_(static_cast<std::size_t>(end - first)),
          bounds_(targets_.size()),
          single_(samples, rows_) {
        for (std::int32_t lane = 0; lane < lanes; ++lane) {
            limits_.Of[lane / 32][lane % 16 * 2 + lane / 16 % 2] =
                static_cast<std::int8_t>(lane + 1);
        }
    }

    VESTREL_KERNEL bool Run(std::int32_t rows, Grid<std::int32_t>& blocks) {
        for (k_ = 0; k_ < rows; ++k_) {
            values_ = blocks.Row(k_).data() + first_;
            SetTargets();
            bool isNew = k_ == 0;
            if (isNew) {
                window_ = ChosenWindow();
            } else {
                MoveDown();
            }
            do {
                if (isNew) CountAll();
                SetBounds();
                FindRow();
                isNew = TakeOtherWindow();
            } while (isNew);
            for (const std::int32_t column : unsure_) FindSingle(column);
            // Every block that is found saves some of what the search may cost.
            constexpr std::int64_t saved = 250;
            constexpr std::int64_t ventured = 30;
            constexpr std::int64_t start = 400'000;
            if (spent_ > start + (end_ - first_) * (saved * (k_ + 1) + ventured * rows)) {
                return false;
            }
        }
        return true;
    }

 private:
    // Places of rows: first those that slide, then those of the first box and those that are owed.
    std::int32_t SlidingPlace(std::int32_t j) const { return j % (2 * reach_); }
    std::int32_t FirstPlace(std::int32_t i) const { return 2 * reach_ + i; }
    std::int32_t OwedPlace(std::int32_t j) const { return 3 * reach_ + j; }
    std::ptrdiff_t At(std::int32_t place) const { return std::ptrdiff_t{place} * width_; }
    std::int8_t* Lanes(std::int32_t place) { return lanes_.data() + At(place); }
    /// The sums of a column of samples; those before the first one are 0.
    ColumnSums* Sums(std::int32_t column) { return columns_.data() + (column - start_ + 1); }

    /// Finds the lanes of the samples in row y of the image: the first one whose sum counts them,
    /// `lanes` when none does.
    VESTREL_KERNEL void TakeRow(std::int32_t y, std::int32_t place) {
        const std::int32_t base = window_ - samples_.Offset;
        const std::int32_t least = base + std::clamp(samples_.Darkest - window_, 0, lanes);
        const std::int32_t most = base + std::clamp(samples_.Brightest - window_, 0, lanes);
        std::int8_t* out = Lanes(place) + (firstSample_ - start_);
        samples_.Values.VisitRow(y, [=, this](auto pixels) VESTREL_KERNEL_LAMBDA {
            TakeLanes(pixels.From(std::ptrdiff_t{firstSample_} * step), base, least, most,
                      endSample_ - firstSample_, out);
        });
    }
    /// Has the memory bring a row that will be taken next.
    VESTREL_KERNEL void ExpectRow(std::int32_t y) const {
        if (y >= samples_.Height) return;
        samples_.Values.VisitRow(y, [this](auto pixels) VESTREL_KERNEL_LAMBDA {
            ExpectPixels(pixels, firstSample_ * step, endSample_ * step);
        });
    }
    template <int Sign>
    VESTREL_KERNEL void CountRow(std::int32_t place) {
        const std::int8_t* row = Lanes(place);
        ColumnSums* sums = Sums(start_);
        for (std::int32_t i = 0; i < width_; ++i) {
            for (int part = 0; part < 2; ++part) {
                // A comparison that holds is −1.
                const Bytes counted = limits_.Of[part] > row[i];
                if constexpr (Sign > 0) {
                    sums[i].Of[part] -= counted;
                } else {
                    sums[i].Of[part] += counted;
                }
            }
        }
    }
    VESTREL_KERNEL void ExchangeRows(const std::int8_t* out, const std::int8_t* in) {
        ColumnSums* sums = Sums(start_);
        const ColumnSums limits = limits_;
        for (std::int32_t i = 0; i < width_; ++i) {
            for (int part = 0; part < 2; ++part) {
                sums[i].Of[part] += (limits.Of[part] > out[i]) - (limits.Of[part] > in[i]);
            }
        }
    }

    /// Moves the boxes from the block row before to this one.
    VESTREL_KERNEL void MoveDown() {
        const std::int32_t entering = k_ - 1 + reach_;
        const std::int32_t leaving = k_ - 1 - reach_;
        const bool enters = entering < samples_.Height / step;
        const std::int32_t in = SlidingPlace(entering);  // also that of the row that leaves
        std::int32_t out = leaving >= reach_ ? in : OwedPlace(leaving);
        if (enters && out == in) {
            out = 4 * reach_;
            std::copy_n(Lanes(in), width_, Lanes(out));
        }
        if (enters) {
            TakeRow(rows_.Row(entering), in);
            ExpectRow(rows_.Row(entering + 1));
        }
        if (enters && leaving >= 0) {
            ExchangeRows(Lanes(out), Lanes(in));
        } else if (enters) {
            CountRow<1>(in);
        } else if (leaving >= 0) {
            CountRow<-1>(out);
        }
    }

    /// Counts all rows of the boxes anew, after the window has changed.
    VESTREL_KERNEL void CountAll() {
        std::fill(columns_.begin(), columns_.end(), ColumnSums{});
        // Owed rows are needed already while they are not.
        for (std::int32_t j = 0; j < rows_.OwedRows(); ++j) TakeRow(rows_.Row(j), OwedPlace(j));
        for (std::int32_t j = 0; j < rows_.Owed(k_); ++j) CountRow<-1>(OwedPlace(j));
        const std::int32_t firstRows = rows_.FirstRows();
        for (std::int32_t i = rows_.Begin(k_) - firstRows; i < rows_.End(k_); ++i) {
            const bool first = i < rows_.Begin(k_);
            const std::int32_t firstRow = i - rows_.Begin(k_) + firstRows;
            const std::int32_t place = first ? FirstPlace(firstRow) : SlidingPlace(i);
            TakeRow(first ? rows_.FirstRow(firstRow) : rows_.Row(i), place);
            CountRow<1>(place);
        }
        boundsAreSet_ = false;
        spent_ += std::int64_t{400} * width_;
        chosenAt_ = k_;
    }

    /// Sets the bounds by how much a sum below lane 0 can exceed that in lane 0.
    void SetBounds() {
        if (k_ <= reach_ || (boundsAreSet_ && k_ != 2 * reach_)) return;
        boundsAreSet_ = true;
        if (k_ >= 2 * reach_) {
            // They do not depend on the window.
            if (falls_.empty()) falls_ = LargestFalls(samples_, rows_, first_, end_);
            bounds_ = falls_;
            return;
        }
        std::int32_t owed = 0;
        const auto count = [&](std::int32_t column, std::int32_t sign) {
            for (std::int32_t j = 0; j < rows_.OwedRows(); ++j) {
                owed += Lanes(OwedPlace(j))[column] == 0 ? sign : 0;
            }
        };
        for (std::int32_t column = 0; column < width_; ++column) {
            count(column, 1);
            const std::int32_t box = column - 2 * reach_;
            if (box < 0) continue;
            bounds_[static_cast<std::size_t>(box)] = owed;
            count(box, -1);
        }
    }

    /// Sets the sums to look for, which depend on the number of rows in the boxes.
    void SetTargets() {
        const std::int32_t count = rows_.Count(k_);
        if (count == targetsFor_) return;
        targetsFor_ = count;
        for (std::int32_t column = 0; column < end_ - first_; ++column) {
            const std::int32_t columns = std::min(first_ + column + reach_ + 1, endSample_) -
                                         std::max(first_ + column - reach_, firstSample_);
            targets_[static_cast<std::size_t>(column)] =
                RoundToNearestInt32(count * columns * percentile_ / 100);
        }
    }
    void FindSingle(std::int32_t column) {
        constexpr std::int64_t instructions = 12'000;
        spent_ += instructions;
        values_[column] =
            single_.Find(first_ + column, k_, targets_[static_cast<std::size_t>(column)]);
    }

    /// Chooses a window about the percentiles of the row, some of which may be missing.
    std::int32_t ChosenWindow() {
        constexpr std::int32_t count = 9;
        constexpr std::int32_t below = 36;  // lanes; sums must rise above the bounds
        constexpr std::int32_t lanesAhead = 8;
        std::vector<std::int32_t> some;
        for (const bool single : {false, true}) {
            // Those that are known will do when they are the most.
            if (single && some.size() > count / 2) break;
            for (std::int32_t i = 0; i < count; ++i) {
                const std::int32_t column = (end_ - first_ - 1) * i / (count - 1);
                const bool missing =
                    k_ == 0 || std::binary_search(unsure_.begin(), unsure_.end(), column);
                if (missing != single) continue;
                if (missing) FindSingle(column);
                some.push_back(values_[column]);
            }
        }
        std::sort(some.begin(), some.end());
        const std::int32_t chosen = (some[1] + some[some.size() - 2]) / 2 - below;
        if (k_ == 0) return chosen;
        // Where the sky slopes, the percentiles move on row by row.
        return chosen + std::clamp(chosen - window_, -lanesAhead, lanesAhead);
    }
    /// Takes another window for the row when too many percentiles lie outside of this one.
    bool TakeOtherWindow() {
        constexpr std::int32_t fewLanes = 4;
        constexpr std::size_t fewSingles = 2;  // take less time than to count all rows anew
        if (chosenAt_ == k_) return false;
        singles_ += unsure_.size();
        if (singles_ <= fewSingles) return false;
        singles_ = 0;
        const std::int32_t chosen = ChosenWindow();
        if (std::abs(chosen - window_) < fewLanes) return false;
        window_ = chosen;
        return true;
    }

    /// Finds the percentiles of the row; `unsure_` takes the columns for which that failed.
    VESTREL_KERNEL void FindRow() {
        unsure_.clear();
        BoxSums box{};
        const ColumnSums* come = Sums(start_);
        for (std::int32_t i = 0; i < 2 * reach_; ++i, ++come) Slide(box, *come, {});
        const ColumnSums* gone = Sums(start_) - 1;
        for (std::int32_t column = 0; column < end_ - first_; ++column, ++come, ++gone) {
            Slide(box, *come, *gone);
            const std::int32_t target = targets_[static_cast<std::size_t>(column)];
            if (target <= 0) {
                values_[column] = samples_.Low - 1;
                continue;
            }
            const std::uint64_t reached = LanesAbove(box, target - 1);
            const std::int32_t below = box.Of[0][0] + bounds_[static_cast<std::size_t>(column)];
            if (reached != 0 && below < target) {
                values_[column] = window_ + std::countr_zero(reached);
            } else {
                unsure_.push_back(column);
            }
        }
    }
    /// Moves the sums of a box to the right.
    VESTREL_KERNEL static void Slide(BoxSums& box, const ColumnSums& come, const ColumnSums& gone) {
        for (int part = 0; part < 2; ++part) {
            const Bytes change = come.Of[part] - gone.Of[part];
            // Each number of 16 bits consists of two lanes.
            const auto pairs = reinterpret_cast<Sixteen>(change);
            box.Of[2 * part] += pairs << 8 >> 8;
            box.Of[2 * part + 1] += pairs >> 8;
        }
    }
    VESTREL_KERNEL static std::uint64_t LanesAbove(const BoxSums& box, std::int32_t limit) {
        std::uint64_t lanesAbove = 0;
        for (int part = 0; part < 4; ++part) {
            const std::uint64_t some = TrueLanes(box.Of[part] > static_cast<std::int16_t>(limit));
            lanesAbove |= some << 16 * part;
        }
        return lanesAbove;
    }

    const BoxSamples& samples_;
    double percentile_;
    std::int32_t reach_;  ///< half the side of the box, in samples
    SlidingRows rows_;
    std::int32_t first_;
    std::int32_t end_;
    std::int32_t start_;  ///< the first column of samples that a box touches; may lie outside the
                          ///< image
    std::int32_t width_;
    std::int32_t firstSample_;
    std::int32_t endSample_;
    std::vector<std::int8_t> lanes_;     ///< of the samples at each place, and of a row that leaves
    std::vector<ColumnSums> columns_;    ///< before the first one is one of zeros
    ColumnSums limits_{};                ///< a sample in a lane below this is counted
    std::int32_t window_ = 0;            ///< lane i holds the running sum at this value + i
    std::int32_t chosenAt_ = 0;          ///< row of blocks
    std::vector<std::int32_t> targets_;  ///< the sum that each box's percentile must reach
    std::int32_t targetsFor_ = -1;       ///< so many rows
    std::vector<std::int32_t> bounds_;
    bool boundsAreSet_ = false;
    std::vector<std::int32_t> falls_;

    std::int32_t k_ = 0;  ///< row of blocks
    std::int32_t* values_ = nullptr;
    std::vector<std::int32_t> unsure_;  ///< columns of blocks, from 0
    std::size_t singles_ = 0;           ///< such columns since the window was chosen
    SingleBox single_;
    std::int64_t spent_ = 0;  ///< instructions that no ordinary sky would take, about
};

VESTREL_FOR_AVX2 bool RunForAvx2(NearStrip& strip, std::int32_t rows, Grid<std::int32_t>& blocks) {
    return strip.Run(rows, blocks);
}
bool RunPlainly(NearStrip& strip, std::int32_t rows, Grid<std::int32_t>& blocks) {
    return strip.Run(rows, blocks);
}

}  // namespace

bool NearPercentiles(const BoxSamples& samples, std::int32_t halfSize, double percentile,
                     std::int32_t first, std::int32_t end, std::int32_t rows,
                     Grid<std::int32_t>& blocks) {
    NearStrip strip(samples, halfSize, percentile, first, end);
    return (HasAvx2() ? RunForAvx2 : RunPlainly)(strip, rows, blocks);
}

}  // namespace vestrel
