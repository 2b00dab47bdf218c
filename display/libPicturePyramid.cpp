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
        const auto* row = counts(y);
        for (int x = 0; x < width; x += stepX) sample.push_back(static_cast<float>(row[x]));
    }
    const ScreenStretch grey(std::move(sample), inverted);
    ForRows(half.Height, stop, [&](int pair) {
        const int first = 2 * pair;
        const int second = std::min(first + 1, height - 1);
        const auto* upper = counts(first);
        const auto* lower = counts(second);
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

/// The source of a row or column of the target: two rows or columns of the level, and the weight of
/// the second in 256ths. Outside the image `First` is below 0.
struct Source {
    int First = -1;
    int Second = -1;
    int Weight = 0;
};

/// The level to paint from, and whether to interpolate.
struct PaintedLevel {
    int Number = 0;
    bool Interpolated = false;
};

/// @param at        image coordinate
/// @param levelSize pixels of the level along this axis
Source SourceOf(double at, std::int32_t imageSize, PaintedLevel level, int levelSize) {
    // At whole-number scales all coordinates may lie on the border of two pixels. Rounding must not
    // put some on one side and some on the other.
    constexpr double borders = 1e-6;
    const double fromEdge = at + 0.5 + borders;
    if (!(fromEdge >= 0 && fromEdge < imageSize)) return {};
    if (!level.Interpolated) {
        const int nearest = static_cast<int>(fromEdge);
        return {nearest, nearest, 0};
    }
    const double place = std::ldexp(fromEdge, -level.Number) - 0.5;
    const double whole = std::floor(place);
    const int first = static_cast<int>(whole);
    return {std::clamp(first, 0, levelSize - 1), std::clamp(first + 1, 0, levelSize - 1),
            static_cast<int>((place - whole) * 256)};
}

/// The level from which to paint at a scale (target pixels per image pixel).
PaintedLevel LevelFor(double scale, std::size_t levels) {
    constexpr double rounding = 1e-9;
    if (!(scale < 1 - rounding)) return {};
    const int number = static_cast<int>(std::floor(-std::log2(scale) + rounding));
    return {std::clamp(number, 0, static_cast<int>(levels) - 1), true};
}

/// The lines of the target, each of which shows one row of the level.
struct Lines {
    std::vector<Source> Along;   ///< the source of each pixel of a line that shows the image
    std::vector<Source> Across;  ///< of each line
    int Begin = 0;               ///< pixels of a line before the image
};

void PaintLines(const GreyLevel& level, const Lines& lines, bool interpolated,
                const GreyTarget& target) {
    const std::vector<Source>& columns = lines.Along;
    ForRows(target.Height, {}, [&](int row) {
        const Source& rows = lines.Across[static_cast<std::size_t>(row)];
        const auto out = target.Pixels.subspan(static_cast<std::size_t>(row) * target.RowBytes,
                                               static_cast<std::size_t>(target.Width));
        std::fill(out.begin(), out.end(), GreyOutsideImage);
        if (rows.First < 0 || columns.empty()) return;
        std::uint8_t* to = out.data() + lines.Begin;
        const std::uint8_t* upper = RowOf(level, rows.First);
        if (!interpolated) {
            for (const Source& column : columns) *to++ = upper[column.First];
            return;
        }
        // Interpolates between the two rows first, then between neighbours in the row.
        const std::uint8_t* lower = RowOf(level, rows.Second);
        // A flipped image is read in the other direction.
        const int left = std::min(columns.front().First, columns.back().First);
        const int right = std::max(columns.front().First, columns.back().First);
        const int last = std::min(right + 1, level.Width - 1);
        std::vector<std::uint16_t> between(static_cast<std::size_t>(last - left + 1));
        for (int x = left; x <= last; ++x) {
            between[static_cast<std::size_t>(x - left)] =
                static_cast<std::uint16_t>(upper[x] * (256 - rows.Weight) + lower[x] * rows.Weight);
        }
        const auto value = [&](int x) -> int {
            return between[static_cast<std::size_t>(x - left)];
        };
        for (const Source& column : columns) {
            *to++ = static_cast<std::uint8_t>((value(column.First) * (256 - column.Weight) +
                                               value(column.Second) * column.Weight + 32768) >>
                                              16);
        }
    });
}

/// Copies lines into the columns of the target, in squares that fit the cache.
void Transpose(const std::vector<std::uint8_t>& lines, const GreyTarget& target) {
    constexpr int side = 32;
    const auto lineBytes = static_cast<std::size_t>(target.Height);
    ForRows((target.Height + side - 1) / side, {}, [&](int band) {
        const int first = band * side;
        const int last = std::min(first + side, target.Height);
        for (int left = 0; left < target.Width; left += side) {
            for (int y = first; y < last; ++y) {
                std::uint8_t* out = &target.Pixels[static_cast<std::size_t>(y) * target.RowBytes];
                for (int x = left; x < std::min(left + side, target.Width); ++x) {
                    out[x] = lines[static_cast<std::size_t>(x) * lineBytes +
                                   static_cast<std::size_t>(y)];
                }
            }
        }
    });
}

}  // namespace

void PicturePyramid::Build(const PlateImage& image, const GreyLookup& grey,
                           const std::stop_token& stop) {
    if (image.Width < 1 || image.Height < 1 || image.Pixels.Empty()) return Clear();
    const std::size_t count = LevelCount(image);
    levels_.resize(count);
    SetSize(levels_[0], image.Width, image.Height);
    ForRows(image.Height, stop, [&](int row) {
        const auto pixels = image.Pixels.Row(row).first(static_cast<std::size_t>(image.Width));
        std::transform(pixels.begin(), pixels.end(), RowOf(levels_[0], row),
                       [&grey](std::int32_t stored) { return grey(stored); });
    });
    for (std::size_t k = 1; k < count; ++k) Halve(levels_[k - 1], levels_[k], stop);
}

void PicturePyramid::BuildForScreen(const PlateImage& image, bool inverted,
                                    const std::stop_token& stop) {
    if (image.Width < 1 || image.Height < 1 || image.Pixels.Empty()) return Clear();
    levels_.resize(LevelCount(image));
    CountLevel counts = StretchAndHalve(levels_[0], image.Width, image.Height, inverted, stop,
                                        [&image](int y) { return image.Pixels.Row(y).data(); });
    for (std::size_t k = 1; k < levels_.size(); ++k) {
        counts = StretchAndHalve(levels_[k], counts.Width, counts.Height, inverted, stop,
                                 [&counts](int y) { return counts.Row(y); });
    }
}

void PaintView(const PicturePyramid& pyramid, const ViewGeometry& view, double pixelRatio,
               const GreyTarget& target) {
    if (pyramid.Empty()) {
        std::fill(target.Pixels.begin(), target.Pixels.end(), GreyOutsideImage);
        return;
    }
    const GreyLevel& image = pyramid.Levels().front();
    const PaintedLevel painted = LevelFor(view.Scale() * pixelRatio, pyramid.Levels().size());
    const GreyLevel& level = pyramid.Levels()[static_cast<std::size_t>(painted.Number)];
    // Of a turned image, the columns of the target show rows of it.
    const bool turned = view.Turned();
    Lines lines;
    for (int i = 0, size = turned ? target.Height : target.Width; i < size; ++i) {
        const double place = (i + 0.5) / pixelRatio;
        const PixelPoint at = view.PixelAt(turned ? ScreenPoint{0, place} : ScreenPoint{place, 0});
        const Source source = SourceOf(at.X, image.Width, painted, level.Width);
        if (source.First >= 0) lines.Along.push_back(source);
        if (source.First < 0 && lines.Along.empty()) ++lines.Begin;
    }
    for (int i = 0, size = turned ? target.Width : target.Height; i < size; ++i) {
        const double place = (i + 0.5) / pixelRatio;
        const PixelPoint at = view.PixelAt(turned ? ScreenPoint{place, 0} : ScreenPoint{0, place});
        lines.Across.push_back(SourceOf(at.Y, image.Height, painted, level.Height));
    }
    if (!turned) return PaintLines(level, lines, painted.Interpolated, target);
    const auto rowBytes = static_cast<std::size_t>(target.Height);
    std::vector<std::uint8_t> pixels(rowBytes * static_cast<std::size_t>(target.Width));
    PaintLines(level, lines, painted.Interpolated, {pixels, target.Height, target.Width, rowBytes});
    Transpose(pixels, target);
}

}  // namespace vestrel
