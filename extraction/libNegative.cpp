#include "extraction/libNegative.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <numeric>
#include <vector>

namespace vestrel {

namespace {

/// Some pixels of an image. Every picture that is opened comes here, so their values are counted
/// where they lie close together.
class SomePixels {
 public:
    SomePixels(const PlateImage& image, std::int32_t step)
        : columns_((image.Width + step - 1) / step), rows_((image.Height + step - 1) / step) {
        if (Count() == 0) return;
        if (image.Pixels.IsNarrow()) {
            low_ = image.Pixels.Least();
            counts_.resize(closeTogether);
            for (std::int32_t i = 0; i < rows_; ++i) {
                const auto row = image.Pixels.NarrowRow(i * step);
                for (std::int32_t j = 0; j < columns_; ++j) {
                    ++counts_[row.Rank(std::ptrdiff_t{j} * step)];
                }
            }
            return;
        }
        values_.reserve(static_cast<std::size_t>(Count()));
        for (std::int32_t i = 0; i < rows_; ++i) {
            const auto row = image.Pixels.Wide().Row(i * step);
            for (std::int32_t j = 0; j < columns_; ++j) {
                values_.push_back(
                    row[static_cast<std::size_t>(j) * static_cast<std::size_t>(step)]);
            }
        }
        const auto [least, greatest] = std::minmax_element(values_.begin(), values_.end());
        if (std::int64_t{*greatest} - *least >= closeTogether) return;
        low_ = *least;
        counts_.resize(static_cast<std::size_t>(*greatest - low_) + 1);
        for (const std::int32_t value : values_) ++counts_[static_cast<std::size_t>(value - low_)];
    }

    std::int64_t Count() const { return std::int64_t{columns_} * rows_; }

    /// The values that 15.87 %, half, and 84.13 % of them do not exceed: the median, and one
    /// standard deviation below and above.
    std::array<std::int32_t, 3> DeviationsAndMedian() {
        constexpr std::array<double, 3> parts = {0.1587, 0.5, 0.8413};
        std::array<std::int32_t, 3> found{};
        auto first = values_.begin();
        std::size_t value = 0;
        std::int64_t passed = counts_.empty() ? 0 : counts_[0];
        for (std::size_t i = 0; i < parts.size(); ++i) {
            const auto place =
                static_cast<std::ptrdiff_t>(parts[i] * static_cast<double>(Count() - 1));
            if (counts_.empty()) {
                std::nth_element(first, values_.begin() + place, values_.end());
                first = values_.begin() + place;
                found[i] = *first;
            } else {
                while (passed <= place) passed += counts_[++value];
                found[i] = low_ + static_cast<std::int32_t>(value);
            }
        }
        return found;
    }
    std::int64_t CountBelow(double bound) const {
        if (counts_.empty()) {
            return std::count_if(values_.begin(), values_.end(),
                                 [bound](std::int32_t value) { return value < bound; });
        }
        // A whole number is below a bound exactly when it is below the next whole number.
        const double end =
            std::clamp(std::ceil(bound) - low_, 0.0, static_cast<double>(counts_.size()));
        return std::accumulate(counts_.begin(), counts_.begin() + static_cast<std::ptrdiff_t>(end),
                               std::int64_t{0});
    }
    std::int64_t CountAbove(double bound) const {
        return Count() - CountBelow(std::nextafter(bound, std::numeric_limits<double>::max()));
    }

 private:
    static constexpr std::int64_t closeTogether = 1 << 16;

    std::int32_t columns_;
    std::int32_t rows_;
    std::int32_t low_ = 0;
    std::vector<std::uint32_t>
        counts_;                        ///< of each value from `low_` on; empty when they lie apart
    std::vector<std::int32_t> values_;  ///< empty when 16-bit cells are counted
};

}  // namespace

bool MayBeNegative(const PlateImage& image) {
    constexpr double samples = 1e5;
    constexpr double far = 6;      // standard deviations
    constexpr double fewest = 20;  // pixels
    constexpr double muchMore = 5;
    const auto step = std::max(static_cast<std::int32_t>(std::sqrt(
                                   static_cast<double>(image.Width) * image.Height / samples)),
                               1);
    SomePixels pixels(image, step);
    if (pixels.Count() == 0) return false;
    const auto [lower, middle, upper] = pixels.DeviationsAndMedian();
    const double sky = middle;
    const double below = sky - lower;
    const double above = upper - sky;
    const double noise = std::max(std::min(below, above), 1.0);
    // Noise may leave no room for dark stars far below the sky: counts end at 0. Then a negative is
    // what has nothing as far above the sky either, where other pictures have their stars.
    const double room = sky + image.DataOffset;
    if (room < far * noise && pixels.CountAbove(sky + room) == 0) return true;
    const auto dark = static_cast<double>(pixels.CountBelow(sky - far * noise));
    const auto bright = static_cast<double>(pixels.CountAbove(sky + far * noise));
    return dark > fewest && dark > muchMore * bright;
}

}  // namespace vestrel
