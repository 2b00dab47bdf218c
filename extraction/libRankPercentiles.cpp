#include "extraction/libRankPercentiles.h"

#include <algorithm>
#include <array>
#include <bit>
#include <utility>
#include <vector>

#include "astro/libMath.h"
#include "astro/libProcessor.h"
#include "extraction/libLaneSums.h"
#include "extraction/libRankMarks.h"
#include "extraction/libSlidingRows.h"
#include "extraction/libSortByCounting.h"

namespace vestrel {

namespace {

constexpr std::int32_t step = 3;
class RankStrip {
 public:
    RankStrip(const BoxSamples& samples, std::int32_t halfSize, double percentile,
              std::int32_t first, std::int32_t end)
        : samples_(samples),
          percentile_(percentile),
          reach_(halfSize / step),
          rows_{samples.Height, reach_},
          first_(first),
          end_(end),
          start_(first - reach_),
          width_(end - first + 2 * reach_),
          leftmost_(std::max(-start_, 0)),
          rightmost_(std::min(width_, (samples.Width + step - 1) / step - start_)),
          valueBits_(std::bit_width(static_cast<std::uint32_t>(samples.High - samples.Low))),
          falls_(LargestFalls(samples, rows_, first, end)),
          bandRows_(std::min(std::max(bandReaches * reach_, fewRows),
                             MostSortedSamples / width_ - 4 * reach_)),
          ranks_(static_cast<std::size_t>(width_) *
                 static_cast<std::size_t>(4 * reach_ + bandRows_)),
          lanes_(ranks_.size()),
          excesses_(falls_.size()),
          columns_(static_cast<std::size_t>(width_) + 1),
          targets_(falls_.size()),
          searches_(falls_.size()),
          unfinished_(falls_.size()) {}

    VESTREL_KERNEL void Run(std::int32_t rows, PixelGrid& blocks) {
        for (std::int32_t k = 0; k < rows; ++k) {
            if (k % bandRows_ == 0) {
                BeginBand(k, std::min(k + bandRows_, rows) - 1);
            } else {
                MoveDown(k);
            }
            SetTargets(k);
            values_.resize(targets_.size());
            FindRow();
            blocks.Store(first_, k, values_);
            if (spent_ > mostSpent) ChooseOtherWindow(k);
        }
    }

 private:
    // A longer band is sorted less often, but holds more samples that are in no box.
    static constexpr std::int32_t bandReaches = 4;
    static constexpr std::int32_t fewRows = 32;
    static constexpr double leastMargin = 1.0 / 16;
    static constexpr std::int64_t mostSpent = 4'000;  // takes as long as another window

    // Places of rows in a band: those that are owed, those of the first box, those that slide.
    std::int32_t OwedPlace(std::int32_t j) const { return j; }
    std::int32_t FirstPlace(std::int32_t i) const { return reach_ + i; }
    std::int32_t SlidingPlace(std::int32_t j) const { return 2 * reach_ + j - bandBegin_; }
    std::ptrdiff_t At(std::int32_t place) const { return std::ptrdiff_t{place} * width_; }
    /// The sums of a column of samples; those before the first one are 0.
    ColumnSums* Sums(std::int32_t column) { return columns_.data() + column + 1; }

    /// Appends the samples of a row of the image to those that will be sorted.
    VESTREL_KERNEL void TakeRow(std::int32_t y, std::int32_t place) {
        const auto number = static_cast<std::uint32_t>(At(place));
        std::uint32_t* list = sorted_.data() + count_;
        const std::int32_t leftmost = leftmost_;
        const std::int32_t count = rightmost_ - leftmost;
        const std::int32_t darkest = samples_.Darkest;
        const std::int32_t brightest = samples_.Brightest;
        samples_.Values.VisitRow(y, [=, this](auto pixels) VESTREL_KERNEL_LAMBDA {
            const auto row = pixels.From(std::ptrdiff_t{start_ + leftmost} * step);
            for (std::int32_t i = 0; i < count; ++i) {
                const std::int32_t value = row[i * step] + samples_.Offset;
                const std::int32_t held =
                    std::min(std::max(value, darkest), brightest) - samples_.Low;
                list[i] = static_cast<std::uint32_t>(held) << SampleNumberBits |
                          (number + static_cast<std::uint32_t>(leftmost + i));
            }
        });
        count_ += count;
        // The rows to come lie too far away for the processor to expect them.
        constexpr std::int32_t ahead = 3 * step;
        if (y + ahead >= samples_.Height) return;
        samples_.Values.VisitRow(y + ahead, [=, this](auto pixels) VESTREL_KERNEL_LAMBDA {
            ExpectPixels(pixels, (start_ + leftmost) * step, (start_ + leftmost + count) * step);
        });
    }

    /// Sorts the samples that the boxes of the block rows `k`..`last` meet, and sets the sums for
    /// row k.
    VESTREL_KERNEL void BeginBand(std::int32_t k, std::int32_t last) {
        bandBegin_ = rows_.Begin(k);
        bandOwed_ = rows_.Owed(last);
        const std::int32_t rows = bandOwed_ + rows_.FirstRows() + rows_.End(last) - bandBegin_;
        count_ = 0;
        sorted_.resize(static_cast<std::size_t>(rows) *
                       static_cast<std::size_t>(rightmost_ - leftmost_));
        // The sort keeps the order of equal values: what is owed comes first.
        for (std::int32_t j = 0; j < bandOwed_; ++j) TakeRow(rows_.Row(j), OwedPlace(j));
        for (std::int32_t i = 0; i < rows_.FirstRows(); ++i) {
            TakeRow(rows_.FirstRow(i), FirstPlace(i));
        }
        for (std::int32_t j = bandBegin_; j < rows_.End(last); ++j) {
            TakeRow(rows_.Row(j), SlidingPlace(j));
        }
        sort_.Sort(sorted_, valueBits_);
        if (sorted_.empty()) sorted_.push_back(0);  // so that there is a value to read
        margin_ = std::max(margin_ * 3 / 4, leastMargin);
        ChooseWindow();
        CountAll(k);
    }
    /// Takes another window when too many percentiles lie outside of this one.
    VESTREL_KERNEL void ChooseOtherWindow(std::int32_t k) {
        margin_ = std::min(margin_ * 2, 1.0);
        ChooseWindow();
        CountAll(k);
    }

    /// Chooses the ranks among which the percentiles of the next rows are supposed: about those of
    /// the row before, when there is one.
    VESTREL_KERNEL void ChooseWindow() {
        std::int32_t begin = 0;
        std::int32_t end = count_;
        if (!values_.empty()) {
            const auto [least, most] = std::minmax_element(values_.begin(), values_.end());
            const auto margin = static_cast<std::int32_t>(margin_ * count_);
            begin = std::max(RankOf(*least) - margin, 0);
            end = std::min(RankOf(*most) + margin, count_);
        }
        const std::int32_t spare = (Lanes - 1) * LaneMarks(end - begin) - (end - begin);
        begin_ = std::max(begin - spare / 2, 0);
        // The bound by how far sums fall in lane 0 holds between different values only.
        if (begin_ < count_) {
            begin_ = FirstRank(sorted_[static_cast<std::size_t>(begin_)] >> SampleNumberBits);
        }
        laneMarks_ = LaneMarks(end - begin_);
        spent_ = 0;
    }
    static std::int32_t LaneMarks(std::int32_t ranks) {
        return (ranks / (Lanes - 1) / MarksAtOnce + 1) * MarksAtOnce;
    }
    std::int32_t RankOf(std::int32_t value) const {
        return FirstRank(static_cast<std::uint32_t>(std::max(value - samples_.Low, 0)));
    }
    /// The first rank of a value above the lowest one, or of the next greater one.
    std::int32_t FirstRank(std::uint32_t value) const {
        return static_cast<std::int32_t>(
            std::lower_bound(sorted_.begin(), sorted_.end(), value << SampleNumberBits) -
            sorted_.begin());
    }

    /// Sets the ranks and the lanes of the samples, and the sums for block row `k`.
    VESTREL_KERNEL void CountAll(std::int32_t k) {
        SetLanes();
        marks_.assign(
            static_cast<std::size_t>(count_) + static_cast<std::size_t>(laneMarks_) + MarksAtOnce,
            NoMark);
        std::fill(columns_.begin(), columns_.end(), ColumnSums{});
        for (std::int32_t j = 0; j < rows_.Owed(k); ++j) CountRow<-1>(OwedPlace(j));
        for (std::int32_t i = 0; i < rows_.FirstRows(); ++i) CountRow<1>(FirstPlace(i));
        for (std::int32_t j = rows_.Begin(k); j < rows_.End(k); ++j) CountRow<1>(SlidingPlace(j));
        SetExcesses();
    }
    VESTREL_KERNEL void SetLanes() {
        const std::uint32_t* sorted = sorted_.data();
        std::uint16_t* ranks = ranks_.data();
        std::int8_t* lanes = lanes_.data();
        for (std::int32_t lane = 0, rank = 0; lane < Lanes; ++lane) {
            for (const std::int32_t end = LaneBegin(lane + 1); rank < end; ++rank) {
                const std::uint32_t number = sorted[rank] & SampleNumberMask;
                ranks[number] = static_cast<std::uint16_t>(rank);
                lanes[number] = static_cast<std::int8_t>(lane);
            }
        }
    }
    std::int32_t LaneBegin(std::int32_t lane) const {
        const std::int32_t begin =
            lane == Lanes ? count_ : std::min(begin_ + (lane - 1) * laneMarks_, count_);
        return lane == 0 ? 0 : begin;
    }
    /// No sum inside a lane exceeds the one at its end by more than the box's samples in it that
    /// are owed. All that lies before the window has a lower bound.
    VESTREL_KERNEL void SetExcesses() {
        std::vector<ColumnSums> owed(columns_.size());
        for (std::int32_t j = 0; j < bandOwed_; ++j) {
            const std::int8_t* row = lanes_.data() + At(OwedPlace(j));
            for (std::int32_t i = leftmost_; i < rightmost_; ++i) {
                const auto limit = static_cast<std::int8_t>(row[i] + 1);
                for (int part = 0; part < LaneParts; ++part) {
                    owed[static_cast<std::size_t>(i) + 1].Of[part] -= limits_.Of[part] == limit;
                }
            }
        }
        BoxSums box;
        const ColumnSums* come = owed.data() + 1;
        for (std::int32_t i = 0; i < 2 * reach_; ++i, ++come) box.Slide(*come, {});
        const ColumnSums* gone = owed.data();
        for (std::size_t column = 0; column < excesses_.size(); ++column, ++come, ++gone) {
            box.Slide(*come, *gone);
            excesses_[column] = box;
            excesses_[column].Of[0][0] =
                static_cast<std::int16_t>(std::min(box[0], falls_[column]));
        }
    }

    /// Marks the ranks of a row's samples with `mark` + `change` × column.
    VESTREL_KERNEL void MarkRow(std::int32_t place, std::uint8_t mark, std::uint8_t change) {
        const std::uint16_t* ranks = ranks_.data() + At(place);
        std::uint8_t* marks = marks_.data();
        for (std::int32_t i = leftmost_; i < rightmost_; ++i) {
            marks[ranks[i]] = static_cast<std::uint8_t>(mark + i * change);
        }
    }
    /// Adds a row, or counts one that leaves without having come.
    template <int Sign>
    VESTREL_KERNEL void CountRow(std::int32_t place) {
        MarkRow(place, Sign > 0 ? 0 : OwedMark, 1);
        const ColumnSums limits = limits_;
        CountInLanes<Sign>(lanes_.data() + At(place) + leftmost_, rightmost_ - leftmost_, limits,
                           Sums(leftmost_));
    }
    VESTREL_KERNEL void RemoveRow(std::int32_t place) {
        CountRow<-1>(place);
        MarkRow(place, NoMark, 0);
    }
    VESTREL_KERNEL void ExchangeRows(std::int32_t out, std::int32_t in, bool outIsOwed) {
        MarkRow(out, outIsOwed ? OwedMark : NoMark, outIsOwed ? 1 : 0);
        MarkRow(in, 0, 1);
        const std::int8_t* gone = lanes_.data() + At(out);
        const std::int8_t* come = lanes_.data() + At(in);
        const ColumnSums limits = limits_;
        ColumnSums* sums = Sums(0);
        for (std::int32_t i = leftmost_; i < rightmost_; ++i) {
            ExchangeInLanes(sums[i], limits, gone[i], come[i]);
        }
    }

    /// Moves the boxes from the block row before to this one.
    VESTREL_KERNEL void MoveDown(std::int32_t k) {
        const std::int32_t entering = k - 1 + reach_;
        const std::int32_t leaving = k - 1 - reach_;
        const bool enters = entering < samples_.Height / step;
        const bool isOwed = leaving < reach_;
        const std::int32_t in = SlidingPlace(entering);
        const std::int32_t out = isOwed ? OwedPlace(leaving) : SlidingPlace(leaving);
        if (enters && leaving >= 0) {
            ExchangeRows(out, in, isOwed);
        } else if (enters) {
            CountRow<1>(in);
        } else if (leaving >= 0 && isOwed) {
            CountRow<-1>(out);
        } else if (leaving >= 0) {
            RemoveRow(out);
        }
    }

    /// Sets the sums to look for, which depend on the number of rows in the boxes.
    void SetTargets(std::int32_t k) {
        const std::int32_t count = rows_.Count(k);
        if (count == targetsFor_) return;
        targetsFor_ = count;
        for (std::int32_t column = 0; column < end_ - first_; ++column) {
            const std::int32_t columns =
                std::min(column + 2 * reach_ + 1, rightmost_) - std::max(column, leftmost_);
            targets_[static_cast<std::size_t>(column)] =
                RoundToNearestInt32(count * columns * percentile_ / 100);
        }
    }

    /// Finds the percentiles of a row of blocks.
    VESTREL_KERNEL void FindRow() {
        const std::int32_t columns = end_ - first_;
        BoxSums box;
        const ColumnSums* come = Sums(0);
        for (std::int32_t i = 0; i < 2 * reach_; ++i, ++come) box.Slide(*come, {});
        const ColumnSums* gone = Sums(-1);
        for (std::int32_t column = 0; column < columns; ++column, ++come, ++gone) {
            box.Slide(*come, *gone);
            const auto at = static_cast<std::size_t>(column);
            const std::uint64_t lanes = box.Above(targets_[at] - 1, excesses_[at]);
            const std::int32_t lane = std::countr_zero(lanes);
            const std::int32_t left = targets_[at] - (lane > 0 ? box[lane - 1] : 0);
            // A sum of 0 or less is not searched for.
            constexpr std::int32_t unreachable = 1000;
            const bool sought = targets_[at] > 0;
            searches_[at] = {sought ? LaneBegin(lane) : count_, sought ? left : unreachable};
        }
        // Without branches that depend on the outcome, several boxes are searched at a time. What
        // lies in this object would be read anew after each store.
        const std::uint8_t* marks = marks_.data();
        const std::uint32_t* sorted = sorted_.data();
        const std::int32_t laneMarks = laneMarks_;
        const std::int32_t span = 2 * reach_;
        const std::int32_t low = samples_.Low;
        std::int32_t* values = values_.data();
        std::int32_t* unfinished = unfinished_.data();
        constexpr std::int32_t notFound = MostSortedSamples;
        for (std::int32_t column = 0; column < columns; ++column) {
            Search& search = searches_[static_cast<std::size_t>(column)];
            const std::int32_t begin = search.Begin;
            std::int32_t left = search.Left;
            std::int32_t found = notFound;
            for (std::int32_t i = 0; i < laneMarks; i += MarksAtOnce) {
                const std::int32_t at = FindAmongMarks(marks + begin + i, column, span, left);
                found = std::min(found, begin + i + at + at / MarksAtOnce * notFound);
            }
            search.Left = left;
            const std::uint32_t sample = sorted[found & (notFound - 1)];
            values[column] = low + static_cast<std::int32_t>(sample >> SampleNumberBits);
            *unfinished = column;
            unfinished += found / notFound;
        }
        for (const std::int32_t* column = unfinished_.data(); column < unfinished; ++column) {
            values[*column] = FindFurther(*column);
        }
    }
    std::int32_t ValueOf(std::int32_t rank) const {
        return samples_.Low + static_cast<std::int32_t>(sorted_[static_cast<std::size_t>(rank)] >>
                                                        SampleNumberBits);
    }
    /// Continues a search beyond its lane.
    VESTREL_KERNEL std::int32_t FindFurther(std::int32_t column) {
        Search search = searches_[static_cast<std::size_t>(column)];
        if (targets_[static_cast<std::size_t>(column)] <= 0) return samples_.Low - 1;
        for (std::int32_t rank = search.Begin + laneMarks_; rank < count_; rank += MarksAtOnce) {
            const std::int32_t found = FindAmong(rank, column, search.Left);
            ++spent_;
            if (found >= 0) return ValueOf(found);
        }
        return samples_.High;
    }
    VESTREL_KERNEL std::int32_t FindAmong(std::int32_t rank, std::int32_t column,
                                          std::int32_t& target) const {
        const std::int32_t found = FindAmongMarks(marks_.data() + rank, column, 2 * reach_, target);
        return found == MarksAtOnce ? -1 : rank + found;
    }

    /// The search for a box's percentile.
    struct Search {
        std::int32_t Begin;  ///< the rank at which it begins
        std::int32_t Left;   ///< what the running sum from there on must reach
    };

    const BoxSamples& samples_;
    double percentile_;
    std::int32_t reach_;  ///< half the side of the box, in samples
    SlidingRows rows_;
    std::int32_t first_;
    std::int32_t end_;
    std::int32_t start_;  ///< the first column of samples that a box touches; may lie outside the
                          ///< image. Columns are counted from it.
    std::int32_t width_;
    std::int32_t leftmost_;   ///< the first column inside the image
    std::int32_t rightmost_;  ///< the end of those
    int valueBits_;
    std::vector<std::int32_t> falls_;

    // Of a band.
    std::int32_t bandRows_;              ///< rows of blocks
    std::int32_t bandBegin_ = 0;         ///< the first row that slides
    std::int32_t bandOwed_ = 0;          ///< rows that are owed at its end
    std::vector<std::uint32_t> sorted_;  ///< the samples, by rank
    std::int32_t count_ = 0;             ///< of samples
    SortByCounting sort_;
    std::vector<std::uint16_t> ranks_;  ///< of the samples at each place
    std::vector<std::int8_t> lanes_;    ///< likewise

    // Of a window.
    double margin_ = 1.0 / 8;        ///< on either side, as a part of all ranks
    std::int32_t begin_ = 0;         ///< the first rank of lane 1; the last lane reaches to the end
    std::int32_t laneMarks_ = 0;     ///< ranks in each lane between
    std::vector<BoxSums> excesses_;  ///< by which a sum in a lane can exceed the one at its end
    std::int64_t spent_ = 0;         ///< vectors of marks that were searched outside of lanes

    // Of a row of blocks.
    std::vector<std::uint8_t> marks_;  ///< of each rank: the column that it counts in
    std::vector<ColumnSums> columns_;  ///< before the first one is one of zeros
    const ColumnSums limits_ = LaneLimits();
    std::vector<std::int32_t> targets_;  ///< the sum that each box's percentile must reach
    std::int32_t targetsFor_ = -1;       ///< so many rows
    std::vector<Search> searches_;
    std::vector<std::int32_t> unfinished_;  ///< columns of blocks
    std::vector<std::int32_t> values_;      ///< empty before the first row
};

VESTREL_FOR_AVX2 void RunForAvx2(RankStrip& strip, std::int32_t rows, PixelGrid& blocks) {
    strip.Run(rows, blocks);
}
void RunPlainly(RankStrip& strip, std::int32_t rows, PixelGrid& blocks) {
    strip.Run(rows, blocks);
}

}  // namespace

void RankPercentiles(const BoxSamples& samples, std::int32_t halfSize, double percentile,
                     std::int32_t first, std::int32_t end, std::int32_t rows, PixelGrid& blocks) {
    RankStrip strip(samples, halfSize, percentile, first, end);
    (HasAvx2() ? RunForAvx2 : RunPlainly)(strip, rows, blocks);
}

}  // namespace vestrel
