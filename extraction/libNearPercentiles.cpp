#include "extraction/libNearPercentiles.h"

#include <algorithm>
#include <bit>
#include <vector>

#include "astro/libMath.h"
#include "astro/libProcessor.h"
#include "extraction/libLaneSums.h"
#include "extraction/libSampleLanes.h"
#include "extraction/libSlidingRows.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace vestrel {

namespace {

constexpr std::int32_t step = 3;
constexpr std::int8_t noLane = 127;  ///< counted by no lane: outside of the image, or no sample

/// The first lane whose sum is not negative: `Lanes` when none is.
VESTREL_FOR_AVX2 VESTREL_KERNEL std::int32_t FirstLane(const BoxSums& box) {
    std::uint64_t negative = 0;
#if defined(__x86_64__)
    for (int part = 0; part < LaneParts; ++part) {
        const __m256i packed = _mm256_packs_epi16(reinterpret_cast<__m256i>(box.Of[2 * part]),
                                                  reinterpret_cast<__m256i>(box.Of[2 * part + 1]));
        negative |= std::uint64_t{static_cast<std::uint32_t>(_mm256_movemask_epi8(packed))}
                    << 32 * part;
    }
#else
    for (std::int32_t lane = 0; lane < Lanes; ++lane) {
        negative |= box[lane] < 0 ? std::uint64_t{1} << lane : 0;
    }
#endif
    return std::countr_one(negative);
}

class NearStrip {
    /// A target that every sum exceeds; the box is then counted on its own.
    static constexpr std::int16_t noTarget = -16'000;

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
          none_(static_cast<std::size_t>(width_), noLane),
          columns_(static_cast<std::size_t>(width_) + 1),
          lowest_(static_cast<std::size_t>(end - first)),
          targets_(lowest_.size()),
          bounds_(targets_.size()),
          values_(targets_.size()),
          single_(samples, rows_) {}

    VESTREL_FOR_AVX2 bool Run(std::int32_t rows, PixelGrid& blocks) {
        for (k_ = 0; k_ < rows; ++k_) {
            SetTargets();
            RowsToMove moved{none_.data(), none_.data()};
            if (k_ > 0) {
                moved = TakeNextRow();
                SetBounds();
                MoveAndFind(moved);
            } else {
                window_ = ChosenWindow();
            }
            if (k_ == 0 || TakeOtherWindow()) {
                CountAll();
                SetBounds();
                MoveAndFind({none_.data(), none_.data()});
            }
            for (const std::int32_t column : unsure_) FindSingle(column);
            blocks.Store(first_, k_, values_);
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
    std::int8_t* LanesAt(std::int32_t place) { return lanes_.data() + At(place); }

    /// Finds the lanes of the samples in row y of the image: the first one whose sum counts them,
    /// `Lanes` when none does.
    VESTREL_KERNEL void TakeRow(std::int32_t y, std::int32_t place) {
        const std::int32_t base = window_ - samples_.Offset;
        const std::int32_t least = base + std::clamp(samples_.Darkest - window_, 0, Lanes);
        const std::int32_t most = base + std::clamp(samples_.Brightest - window_, 0, Lanes);
        std::int8_t* out = LanesAt(place) + (firstSample_ - start_);
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
    VESTREL_FOR_AVX2 VESTREL_KERNEL void CountRow(std::int32_t place) {
        const ColumnSums countedBelow = countedBelow_;
        CountInLanes<Sign>(LanesAt(place), width_, countedBelow, columns_.data() + 1);
    }

    /// The lanes of the row that leaves the boxes and of the one that enters them.
    struct RowsToMove {
        const std::int8_t* Out;
        const std::int8_t* In;
    };
    /// Takes the row that enters when the boxes move from the block row before to this one.
    VESTREL_KERNEL RowsToMove TakeNextRow() {
        const std::int32_t entering = k_ - 1 + reach_;
        const std::int32_t leaving = k_ - 1 - reach_;
        RowsToMove moved{none_.data(), none_.data()};
        const std::int32_t in = SlidingPlace(entering);  // also that of the row that leaves
        if (leaving >= 0) moved.Out = LanesAt(leaving >= reach_ ? in : OwedPlace(leaving));
        if (entering >= samples_.Height / step) return moved;
        if (leaving >= reach_) {
            moved.Out = LanesAt(4 * reach_);
            std::copy_n(LanesAt(in), width_, LanesAt(4 * reach_));
        }
        TakeRow(rows_.Row(entering), in);
        moved.In = LanesAt(in);
        ExpectRow(rows_.Row(entering + 1));
        return moved;
    }

    /// Counts all rows of the boxes anew, after the window has changed.
    VESTREL_FOR_AVX2 VESTREL_KERNEL void CountAll() {
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
                owed += LanesAt(OwedPlace(j))[column] == 0 ? sign : 0;
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

    /// What the percentiles' sums must reach, which depends on the number of samples in the boxes.
    void SetTargets() {
        const std::int32_t count = rows_.Count(k_);
        if (count == targetsFor_) return;
        targetsFor_ = count;
        equalTargets_.clear();
        for (std::int32_t column = 0; column < end_ - first_; ++column) {
            const std::int32_t columns = std::min(first_ + column + reach_ + 1, endSample_) -
                                         std::max(first_ + column - reach_, firstSample_);
            const std::int32_t target = RoundToNearestInt32(count * columns * percentile_ / 100);
            const auto sought = target > 0 ? static_cast<std::int16_t>(target) : noTarget;
            targets_[static_cast<std::size_t>(column)] = sought;
            if (equalTargets_.empty() || equalTargets_.back().Target != sought) {
                equalTargets_.push_back({sought, column});
            }
            equalTargets_.back().End = column + 1;
        }
    }
    void FindSingle(std::int32_t column) {
        constexpr std::int64_t instructions = 12'000;
        spent_ += instructions;
        values_[static_cast<std::size_t>(column)] =
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
                some.push_back(values_[static_cast<std::size_t>(column)]);
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

    /// Moves the boxes down by a row and finds their percentiles; `unsure_` takes the columns for
    /// which that failed.
    VESTREL_FOR_AVX2 VESTREL_KERNEL void MoveAndFind(RowsToMove moved) {
        unsure_.clear();
        BoxSums box;  // its sums less the target, so that their signs tell which reach it
        // What lies in this object would be read anew after each store.
        const ColumnSums countedBelow = countedBelow_;
        const std::int32_t window = window_;
        std::int32_t* values = values_.data();
        const std::int8_t* out = moved.Out;
        const std::int8_t* in = moved.In;
        ColumnSums* come = columns_.data() + 1;
        for (const ColumnSums* end = come + 2 * reach_; come < end; ++come) {
            ExchangeInLanes(*come, countedBelow, *out++, *in++);
            box.Slide(*come, {});
        }
        const ColumnSums* gone = columns_.data();
        std::int16_t* lowest = lowest_.data();
        std::int32_t i = 0;
        std::int16_t taken = 0;
        for (const EqualTargets& run : equalTargets_) {
            for (Sixteen& sums : box.Of) sums -= static_cast<std::int16_t>(run.Target - taken);
            taken = run.Target;
            for (const std::int32_t end = run.End; i < end; ++i) {
                ExchangeInLanes(come[i], countedBelow, out[i], in[i]);
                box.Slide(come[i], gone[i]);
                values[i] = window + FirstLane(box);
                lowest[i] = box.Of[0][0];
            }
        }
        const std::int32_t columns = end_ - first_;
        const std::int32_t* bounds = bounds_.data();
        const auto isUnsure = [=](std::int32_t column) VESTREL_KERNEL_LAMBDA -> std::int32_t {
            const bool maybeBelow = lowest[column] + bounds[column] >= 0;
            return static_cast<std::int32_t>(maybeBelow) |
                   static_cast<std::int32_t>(values[column] == window + Lanes);
        };
        std::int32_t anyUnsure = 0;
        for (i = 0; i < columns; ++i) anyUnsure |= isUnsure(i);
        if (anyUnsure == 0) return;
        for (i = 0; i < columns; ++i) {
            if (isUnsure(i) != 0) unsure_.push_back(i);
        }
    }

    /// Neighbouring boxes with the same target.
    struct EqualTargets {
        std::int16_t Target;
        std::int32_t End;  ///< column of blocks, from 0
    };

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
    std::vector<std::int8_t> lanes_;   ///< of the samples at each place, and of a row that leaves
    std::vector<std::int8_t> none_;    ///< a row without samples
    std::vector<ColumnSums> columns_;  ///< before the first one is one of zeros
    const ColumnSums countedBelow_ = LaneLimits();
    std::int32_t window_ = 0;           ///< lane i holds the running sum at this value + i
    std::int32_t chosenAt_ = 0;         ///< row of blocks
    std::vector<std::int16_t> lowest_;  ///< the sums of each box in lane 0, less its target
    std::vector<std::int16_t> targets_;
    std::vector<EqualTargets> equalTargets_;  ///< the same in runs
    std::int32_t targetsFor_ = -1;            ///< so many rows
    std::vector<std::int32_t> bounds_;
    bool boundsAreSet_ = false;
    std::vector<std::int32_t> falls_;

    std::int32_t k_ = 0;  ///< row of blocks
    std::vector<std::int32_t> values_;
    std::vector<std::int32_t> unsure_;  ///< columns of blocks, from 0
    std::size_t singles_ = 0;           ///< such columns since the window was chosen
    SingleBox single_;
    std::int64_t spent_ = 0;  ///< instructions that no ordinary sky would take, about
};

}  // namespace

bool NearPercentiles(const BoxSamples& samples, std::int32_t halfSize, double percentile,
                     std::int32_t first, std::int32_t end, std::int32_t rows, PixelGrid& blocks) {
    const SlidingRows sliding{samples.Height, halfSize / step};
    return HasAvx2() && BoxesAreAlike(samples, sliding, percentile, first, end, rows) &&
           NearStrip(samples, halfSize, percentile, first, end).Run(rows, blocks);
}

}  // namespace vestrel
