#include "extraction/libSlidingRows.h"

#include <array>
#include <cstdlib>

#include "astro/libMath.h"

namespace vestrel {

namespace {

constexpr std::int32_t step = 3;

std::int32_t ValueAt(const BoxSamples& samples, std::int32_t column, std::int32_t y) {
    return std::clamp(samples.Values(column * step, y) + samples.Offset, samples.Darkest,
                      samples.Brightest);
}

/// Ranges of values that hold about the same number of samples each; a value that occurs often is a
/// range of its own.
class Ranges {
 public:
    static constexpr std::size_t Count = 128;

    explicit Ranges(const std::vector<std::int32_t>& values) {
        constexpr std::size_t quantiles = 60;
        constexpr std::size_t sampleStep = 3;
        std::vector<std::int32_t> some;
        for (std::size_t i = 0; i < values.size(); i += sampleStep) some.push_back(values[i]);
        std::sort(some.begin(), some.end());
        std::int32_t before = -1;
        for (std::size_t i = 0; i < quantiles && !some.empty(); ++i) {
            const std::int32_t value = some[i * some.size() / quantiles];
            if (value == before) ends_.push_back(value - 1);
            ends_.push_back(value);
            before = value;
        }
        std::sort(ends_.begin(), ends_.end());
        ends_.erase(std::unique(ends_.begin(), ends_.end()), ends_.end());
    }
    std::uint8_t Of(std::int32_t value) const {
        return static_cast<std::uint8_t>(std::lower_bound(ends_.begin(), ends_.end(), value) -
                                         ends_.begin());
    }
    /// The number of ranges; the last one has no end.
    std::size_t Size() const { return ends_.size() + 1; }
    bool IsValue(std::size_t range) const {
        return range > 0 && range < ends_.size() && ends_[range] == ends_[range - 1] + 1;
    }

 private:
    std::vector<std::int32_t> ends_;  ///< the greatest values of the ranges
};

/// The drift of a box: samples that never leave, and samples that leave without having come.
struct Drift {
    std::array<std::int32_t, Ranges::Count> Stay{};
    std::array<std::int32_t, Ranges::Count> Owed{};

    std::int32_t LargestFall(const Ranges& ranges) const {
        std::int32_t sum = 0;
        std::int32_t most = 0;  // the largest sum so far
        std::int32_t fall = 0;
        for (std::size_t i = 0; i < ranges.Size(); ++i) {
            const std::int32_t after = sum + Stay[i] - Owed[i];
            if (ranges.IsValue(i)) {
                most = std::max(most, after);
                fall = std::max(fall, most - after);
            } else {
                // All that are owed may come first, or last.
                fall = std::max({fall, Owed[i], most - (sum - Owed[i])});
                most = std::max(most, sum + Stay[i]);
            }
            sum = after;
        }
        return fall;
    }
};

}  // namespace

std::vector<std::int32_t> LargestFalls(const BoxSamples& samples, const SlidingRows& rows,
                                       std::int32_t first, std::int32_t end) {
    const std::int32_t begin = std::max(first - rows.Reach, 0);
    const std::int32_t columns =
        std::min(end + rows.Reach, (samples.Width + step - 1) / step) - begin;
    const std::int32_t stay = rows.FirstRows();
    const std::int32_t all = stay + rows.OwedRows();
    std::vector<std::int32_t> values;
    for (std::int32_t x = 0; x < columns; ++x) {
        for (std::int32_t i = 0; i < all; ++i) {
            const std::int32_t y = i < stay ? rows.FirstRow(i) : rows.Row(i - stay);
            values.push_back(ValueAt(samples, begin + x, y));
        }
    }
    const Ranges ranges(values);
    std::vector<std::uint8_t> rangeOf(values.size());
    std::transform(values.begin(), values.end(), rangeOf.begin(),
                   [&](std::int32_t value) { return ranges.Of(value); });

    Drift drift;
    const auto count = [&](std::int32_t column, std::int32_t sign) {
        if (column < begin || column >= begin + columns) return;
        const std::uint8_t* range = rangeOf.data() + std::ptrdiff_t{column - begin} * all;
        for (std::int32_t i = 0; i < all; ++i)
            (i < stay ? drift.Stay : drift.Owed)[range[i]] += sign;
    };
    std::vector<std::int32_t> falls;
    for (std::int32_t column = first - rows.Reach; column < first + rows.Reach; ++column) {
        count(column, 1);
    }
    for (std::int32_t column = first; column < end; ++column) {
        count(column + rows.Reach, 1);
        falls.push_back(drift.LargestFall(ranges));
        count(column - rows.Reach, -1);
    }
    return falls;
}

SingleBox::SingleBox(const BoxSamples& samples, const SlidingRows& rows)
    : samples_(samples),
      rows_(rows),
      addedIn_(static_cast<std::size_t>((samples.High - samples.Low) >> coarseShift) + 1),
      owedIn_(addedIn_.size()) {}

void SingleBox::TakeRow(std::int32_t y, std::int32_t first, std::int32_t last,
                        std::vector<std::int32_t>& taken) {
    if (last < first) return;
    const std::size_t before = taken.size();
    taken.resize(before + static_cast<std::size_t>(last - first + 1));
    samples_.Values.VisitRow(y, [&](auto pixels) {
        std::int32_t* out = taken.data() + before;
        const std::int32_t darkest = samples_.Darkest;
        const std::int32_t brightest = samples_.Brightest;
        for (std::int32_t i = first; i <= last; ++i) {
            const std::int32_t value = pixels[std::ptrdiff_t{i} * step] + samples_.Offset;
            *out++ = std::clamp(value, darkest, brightest) - samples_.Low;
        }
    });
}

std::int32_t SingleBox::Find(std::int32_t column, std::int32_t k, std::int32_t target) {
    if (target <= 0) return samples_.Low - 1;
    const std::int32_t first = std::max(column - rows_.Reach, 0);
    const std::int32_t last =
        std::min(column + rows_.Reach, (samples_.Width + step - 1) / step - 1);
    added_.clear();
    owed_.clear();
    for (std::int32_t i = 0; i < rows_.FirstRows(); ++i) {
        TakeRow(rows_.FirstRow(i), first, last, added_);
    }
    for (std::int32_t j = rows_.Begin(k); j < rows_.End(k); ++j) {
        TakeRow(rows_.Row(j), first, last, added_);
    }
    for (std::int32_t j = 0; j < rows_.Owed(k); ++j) TakeRow(rows_.Row(j), first, last, owed_);

    std::fill(addedIn_.begin(), addedIn_.end(), 0);
    std::fill(owedIn_.begin(), owedIn_.end(), 0);
    for (const std::int32_t v : added_) ++addedIn_[static_cast<std::size_t>(v >> coarseShift)];
    for (const std::int32_t v : owed_) ++owedIn_[static_cast<std::size_t>(v >> coarseShift)];
    std::int32_t sum = 0;
    for (std::size_t range = 0; range < addedIn_.size(); ++range) {
        // No sum within the range is greater than this.
        if (sum + addedIn_[range] >= target) {
            std::array<std::int32_t, 1 << coarseShift> counts{};
            const auto count = [&](const std::vector<std::int32_t>& values, std::int32_t sign) {
                for (const std::int32_t v : values) {
                    if (static_cast<std::size_t>(v >> coarseShift) == range) {
                        counts[static_cast<std::size_t>(v) % counts.size()] += sign;
                    }
                }
            };
            count(added_, 1);
            count(owed_, -1);
            std::int32_t inside = sum;
            for (std::size_t i = 0; i < counts.size(); ++i) {
                inside += counts[i];
                if (inside >= target) {
                    return samples_.Low + static_cast<std::int32_t>((range << coarseShift) + i);
                }
            }
        }
        sum += addedIn_[range] - owedIn_[range];
    }
    return samples_.High;
}

bool BoxesAreAlike(const BoxSamples& samples, const SlidingRows& sliding, double percentile,
                   std::int32_t first, std::int32_t end, std::int32_t rows) {
    constexpr std::int32_t alikeAcross = 64;
    constexpr std::int32_t alikeBelow = 16;
    const std::int32_t sampleColumns = (samples.Width + step - 1) / step;
    SingleBox single(samples, sliding);
    const auto percentileAt = [&](std::int32_t column, std::int32_t k) {
        const std::int32_t columns = std::min(column + sliding.Reach + 1, sampleColumns) -
                                     std::max(column - sliding.Reach, 0);
        return single.Find(column, k,
                           RoundToNearestInt32(sliding.Count(k) * columns * percentile / 100));
    };
    for (const std::int32_t sixth : {1, 3, 5}) {
        const std::int32_t k = rows * sixth / 6;
        const std::int32_t here = percentileAt(first, k);
        if (std::abs(here - percentileAt(end - 1, k)) > alikeAcross) return false;
        const std::int32_t below = percentileAt(first, std::min(k + 1, rows - 1));
        if (std::abs(here - below) > alikeBelow) return false;
    }
    return true;
}

}  // namespace vestrel
