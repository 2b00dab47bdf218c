#include "display/libPicturePyramid.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <utility>

#include "astro/libParallel.h"

namespace vestrel {

namespace {

constexpr int rowsPerPiece = 32;

/// Calls `work(row)` for every row, in parallel; not for those that are left when it is to stop.
template <typename Work>
void ForRows(int rows, const std::stop_token& stop, Work work) {
    ParallelFor((rows + rowsPerPiece - 1) / rowsPerPiece, [&](int piece) {
        if (stop.stop_requested()) return;
        const int end = std::min((piece + 1) * rowsPerPiece, rows);
        for (int row = piece * rowsPerPiece; row < end; ++row) work(row);
    });
}

void SetSize(GreyLevel& level, int width, int height) {
    level.Width = width;
    level.Height = height;
    level.Pixels.resize(static_cast<std::size_t>(width) * static_cast<std::size_t>(height));
}

std::uint8_t* RowOf(GreyLevel& level, int row) {
    return level.Pixels.data() +
           static_cast<std::size_t>(row) * static_cast<std::size_t>(level.Width);
}
const std::uint8_t* RowOf(const GreyLevel& level, int row) {
    return level.Pixels.data() +
           static_cast<std::size_t>(row) * static_cast<std::size_t>(level.Width);
}

void Halve(const GreyLevel& from, GreyLevel& to, const std::stop_token& stop) {
    SetSize(to, (from.Width + 1) / 2, (from.Height + 1) / 2);
    ForRows(to.Height, stop, [&](int row) {
        const std::uint8_t* upper = RowOf(from, 2 * row);
        const std::uint8_t* lower = RowOf(from, std::min(2 * row + 1, from.Height - 1));
        std::uint8_t* mean = RowOf(to, row);
        const int whole = from.Width / 2;
        for (int x = 0; x < whole; ++x) {
            mean[x] = static_cast<std::uint8_t>(
                (upper[2 * x] + upper[2 * x + 1] + lower[2 * x] + lower[2 * x + 1] + 2) / 4);
        }
        if (whole < to.Width) {
            const int last = from.Width - 1;
            mean[whole] = static_cast<std::uint8_t>((upper[last] + lower[last] + 1) / 2);
        }
    });
}

/// The mean counts of an image that was halved in size one or more times.
struct CountLevel {
    int Width = 0;
    int Height = 0;
    std::vector<float> Counts;

    const float* Row(int row) const {
        return Counts.data() + static_cast<std::size_t>(row) * static_cast<std::size_t>(Width);
    }
    float* Row(int row) {
        return Counts.data() + static_cast<std::size_t>(row) * static_cast<std::size_t>(Width);
    }
};

CountLevel HalfSized(int width, int height) {
    CountLevel half{(width + 1) / 2, (height + 1) / 2, {}};
    half.Counts.resize(static_cast<std::size_t>(half.Width) *
                       static_cast<std::size_t>(half.Height));
    return half;
}

/// Converts counts to grey by a table, with levels that show a picture's faint stars.
class ScreenStretch {
 public:
    /// @param sample counts of the picture, in any order; at least one
    ScreenStretch(std::vector<float> sample, bool inverted) {
        const auto quantile = [&sample](double part) {
            const auto place = sample.begin() + static_cast<std::ptrdiff_t>(
                                                    part * static_cast<double>(sample.size() - 1));
            std::nth_element(sample.begin(), place, sample.end());
            return *place;
        };
        // The lower half of the sky is free of stars.
        constexpr double sigmaPerQuarter = 1.4826;
        const float sky = quantile(0.5);
        const double noise = sigmaPerQuarter * (sky - quantile(0.25));
        black_ = static_cast<float>(sky - 0.5 * noise);
        const double white = std::max({sky + 15 * noise, double{quantile(0.998)}, sky + 1.0});
        steps_ = static_cast<float>(static_cast<double>(table_.size() - 1) / (white - black_));
        for (std::size_t k = 0; k < table_.size(); ++k) {
            const double place = static_cast<double>(k) / static_cast<double>(table_.size() - 1);
            const auto grey =
                static_cast<std::uint8_t>(std::lround(255 * Transferred(Transfer::Asinh, place)));
            table_[k] = static_cast<std::uint8_t>(inverted ? 255 - grey : grey);
        }
    }
    std::uint8_t operator()(float count) const {
        const float step = (count - black_) * steps_;
        const float last = static_cast<float>(table_.size() - 1);
        return table_[static_cast<std::size_t>(step > 0 ? std::min(step, last) : 0.0F)];
    }

 private:
    std::array<std::uint8_t, 4096> table_{};
    float black_ = 0;
    float steps_ = 0;
};

/// Makes a grey level of counts, and the counts of the next one in the same sweep: what takes time
/// is to fetch them.
/// @param counts gives the counts of a row
template <typename Counts>
CountLevel StretchAndHalve(GreyLevel& level, int width, int height, bool inverted,
                           const std::stop_token& stop, Counts counts) {
    SetSize(level, width, height);
    CountLevel half = HalfSized(width, height);
    constexpr int mostEachWay = 200;
    const int stepX = std::max(width / mostEachWay, 1);
    const int stepY = std::max(height / mostEachWay, 1);
    std::vector<float> sample;
    for (int y = 0; y < height; y += stepY) {
        const auto row = counts(y);
        for (int x = 0; x < width; x += stepX) sample.push_back(static_cast<float>(row[x]));
    }
    const ScreenStretch grey(std::move(sample), inverted);
    ForRows(half.Height, stop, [&](int pair) {
        const int first = 2 * pair;
        const int second = std::min(first + 1, height - 1);
        const auto upper = counts(first);
        const auto lower = counts(second);
        std::uint8_t* out = RowOf(level, first);
        for (int x = 0; x < width; ++x) out[x] = grey(static_cast<float>(upper[x]));
        out = RowOf(level, second);
        for (int x = 0; x < width; ++x) out[x] = grey(static_cast<float>(lower[x]));
        float* mean = half.Row(pair);
        const auto meanOf = [&](int left, int right) {
            return (static_cast<float>(upper[left]) + static_cast<float>(upper[right]) +
                    static_cast<float>(lower[left]) + static_cast<float>(lower[right])) /
                   4;
        };
        for (int x = 0; x < width / 2; ++x) mean[x] = meanOf(2 * x, 2 * x + 1);
        if (width % 2 != 0) mean[width / 2] = meanOf(width - 1, width - 1);
    });
    return half;
}

std::size_t LevelCount(const PlateImage& image) {
    std::size_t count = 1;
    for (int longest = std::max(image.Width, image.Height); longest > 1;
         longest = (longest + 1) / 2) {
        ++count;
    }
    return count;
}

}  // namespace

void PicturePyramid::Clear() {
    levels_.clear();
    edition_ = std::make_shared<char>();
}

void PicturePyramid::Build(const PlateImage& image, const GreyLookup& grey,
                           const std::stop_token& stop) {
    if (image.Width < 1 || image.Height < 1 || image.Pixels.Empty()) return Clear();
    edition_ = std::make_shared<char>();
    const std::size_t count = LevelCount(image);
    levels_.resize(count);
    SetSize(levels_[0], image.Width, image.Height);
    ForRows(image.Height, stop, [&](int row) {
        std::uint8_t* out = RowOf(levels_[0], row);
        image.Pixels.VisitRow(row, [&](auto pixels) {
            for (int x = 0; x < image.Width; ++x) out[x] = grey(pixels[x]);
        });
    });
    for (std::size_t k = 1; k < count; ++k) Halve(levels_[k - 1], levels_[k], stop);
}

void PicturePyramid::BuildForScreen(const PlateImage& image, bool inverted,
                                    const std::stop_token& stop) {
    if (image.Width < 1 || image.Height < 1 || image.Pixels.Empty()) return Clear();
    edition_ = std::make_shared<char>();
    levels_.resize(LevelCount(image));
    CountLevel counts;
    image.Pixels.Visit([&](auto rows) {
        counts = StretchAndHalve(levels_[0], image.Width, image.Height, inverted, stop, rows);
    });
    for (std::size_t k = 1; k < levels_.size(); ++k) {
        counts = StretchAndHalve(levels_[k], counts.Width, counts.Height, inverted, stop,
                                 [&counts](int y) { return counts.Row(y); });
    }
}

}  // namespace vestrel
