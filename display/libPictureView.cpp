#include "display/libPictureView.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <utility>

#include "astro/libParallel.h"

namespace vestrel {

namespace {

/// Calls `work(row)` for every row of a target, in parallel where that is worth it.
template <typename Work>
void ForRows(const GreyTarget& target, Work work) {
    constexpr int rowsPerPiece = 32;
    constexpr std::int64_t few = 100000;
    const auto piece = [&](int number) {
        const int end = std::min((number + 1) * rowsPerPiece, target.Height);
        for (int row = number * rowsPerPiece; row < end; ++row) work(row);
    };
    const int pieces = (target.Height + rowsPerPiece - 1) / rowsPerPiece;
    if (std::int64_t{target.Width} * target.Height > few) return ParallelFor(pieces, piece);
    for (int number = 0; number < pieces; ++number) piece(number);
}

const std::uint8_t* RowOf(const GreyLevel& level, int row) {
    return level.Pixels.data() +
           static_cast<std::size_t>(row) * static_cast<std::size_t>(level.Width);
}

/// The level to paint from, and whether to interpolate.
struct PaintedLevel {
    int Number = 0;
    bool Interpolated = false;
};

/// @param at        image coordinate
/// @param levelSize pixels of the level along this axis
ViewSource SourceOf(double at, std::int32_t imageSize, PaintedLevel level, int levelSize) {
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

ViewSources SourcesOf(const PicturePyramid& pyramid, const ViewGeometry& view, double pixelRatio,
                      int width, int height) {
    const PaintedLevel painted = LevelFor(view.Scale() * pixelRatio, pyramid.Levels().size());
    const GreyLevel& image = pyramid.Levels().front();
    const GreyLevel& level = pyramid.Levels()[static_cast<std::size_t>(painted.Number)];
    ViewSources sources{{}, {}, painted.Number, painted.Interpolated, view.Turned()};
    const auto add = [&](std::vector<ViewSource>& to, const PixelPoint& at, bool alongRow) {
        to.push_back(alongRow ? SourceOf(at.X, image.Width, painted, level.Width)
                              : SourceOf(at.Y, image.Height, painted, level.Height));
    };
    sources.Columns.reserve(static_cast<std::size_t>(width));
    for (int i = 0; i < width; ++i) {
        add(sources.Columns, view.PixelAt({(i + 0.5) / pixelRatio, 0}), !sources.Turned);
    }
    sources.Rows.reserve(static_cast<std::size_t>(height));
    for (int i = 0; i < height; ++i) {
        add(sources.Rows, view.PixelAt({0, (i + 0.5) / pixelRatio}), sources.Turned);
    }
    return sources;
}

/// Paints lines that each show one row of the level.
/// @param along  the source of each pixel of a line
/// @param across the source of each line
void PaintLines(const GreyLevel& level, std::span<const ViewSource> along,
                std::span<const ViewSource> across, bool interpolated, const GreyTarget& target) {
    const auto shows = [](const ViewSource& source) { return source.First >= 0; };
    const auto begin = std::find_if(along.begin(), along.end(), shows);
    const std::span<const ViewSource> columns(begin, std::find_if_not(begin, along.end(), shows));
    ForRows(target, [&](int row) {
        const ViewSource& rows = across[static_cast<std::size_t>(row)];
        const auto out = target.Pixels.subspan(static_cast<std::size_t>(row) * target.RowBytes,
                                               static_cast<std::size_t>(target.Width));
        std::fill(out.begin(), out.end(), GreyOutsideImage);
        if (rows.First < 0 || columns.empty()) return;
        std::uint8_t* to = out.data() + (begin - along.begin());
        const std::uint8_t* upper = RowOf(level, rows.First);
        if (!interpolated) {
            for (const ViewSource& column : columns) *to++ = upper[column.First];
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
        for (const ViewSource& column : columns) {
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
    ParallelFor((target.Height + side - 1) / side, [&](int band) {
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

/// A part of a line.
struct Run {
    int Begin = 0;
    int End = 0;
};

/// Paints a part of a target.
void PaintPart(const PicturePyramid& pyramid, const ViewSources& sources, const Run& columns,
               const Run& rows, const GreyTarget& target) {
    const auto part = [](const std::vector<ViewSource>& all, const Run& run) {
        return std::span(all).subspan(static_cast<std::size_t>(run.Begin),
                                      static_cast<std::size_t>(run.End - run.Begin));
    };
    const std::span<const ViewSource> across = part(sources.Rows, rows);
    const std::span<const ViewSource> along = part(sources.Columns, columns);
    if (across.empty() || along.empty()) return;
    const GreyTarget place{
        target.Pixels.subspan(static_cast<std::size_t>(rows.Begin) * target.RowBytes +
                              static_cast<std::size_t>(columns.Begin)),
        columns.End - columns.Begin, rows.End - rows.Begin, target.RowBytes};
    const GreyLevel& level = pyramid.Levels()[static_cast<std::size_t>(sources.Level)];
    if (!sources.Turned) return PaintLines(level, along, across, sources.Interpolated, place);
    // The columns show rows of the image.
    std::vector<std::uint8_t> lines(along.size() * across.size());
    PaintLines(level, across, along, sources.Interpolated,
               {lines, place.Height, place.Width, across.size()});
    Transpose(lines, place);
}

/// The runs of a line whose sources are not those of the places from which the contents move here.
std::vector<Run> NewRuns(const std::vector<ViewSource>& now, const std::vector<ViewSource>& before,
                         int moved) {
    const int size = static_cast<int>(now.size());
    std::vector<Run> runs;
    for (int i = 0; i < size; ++i) {
        const int from = i - moved;
        if (from >= 0 && from < size &&
            now[static_cast<std::size_t>(i)] == before[static_cast<std::size_t>(from)]) {
            continue;
        }
        if (runs.empty() || runs.back().End != i) runs.push_back({i, i});
        runs.back().End = i + 1;
    }
    return runs;
}

std::int64_t LengthOf(const std::vector<Run>& runs) {
    std::int64_t length = 0;
    for (const Run& run : runs) length += run.End - run.Begin;
    return length;
}

bool SameButPlaces(const ViewSources& one, const ViewSources& other) {
    return one.Level == other.Level && one.Interpolated == other.Interpolated &&
           one.Turned == other.Turned && one.Columns.size() == other.Columns.size() &&
           one.Rows.size() == other.Rows.size();
}

/// A movement, pixels of the target.
struct Move {
    int Right = 0;
    int Down = 0;
};

/// The whole pixels that are nearest to the movement from one view to another.
std::optional<Move> WholeMove(const ViewGeometry& view, const ViewGeometry& before,
                              double pixelRatio) {
    constexpr double farthest = 1e6;
    const auto moved = view.MovedFrom(before);
    if (!moved) return std::nullopt;
    const double right = moved->X * pixelRatio;
    const double down = moved->Y * pixelRatio;
    if (!(std::fabs(right) < farthest && std::fabs(down) < farthest)) return std::nullopt;
    return Move{static_cast<int>(std::lround(right)), static_cast<int>(std::lround(down))};
}

}  // namespace

void PaintView(const PicturePyramid& pyramid, const ViewGeometry& view, double pixelRatio,
               const GreyTarget& target) {
    if (pyramid.Empty()) {
        std::fill(target.Pixels.begin(), target.Pixels.end(), GreyOutsideImage);
        return;
    }
    PaintPart(pyramid, SourcesOf(pyramid, view, pixelRatio, target.Width, target.Height),
              {0, target.Width}, {0, target.Height}, target);
}

std::span<const std::uint8_t> DraggedView::Paint(const PicturePyramid& pyramid,
                                                 const ViewGeometry& view, double pixelRatio,
                                                 int width, int height) {
    painted_ = std::int64_t{width} * height;
    pixels_.resize(static_cast<std::size_t>(painted_));
    if (pyramid.Empty()) {
        edition_.reset();
        std::fill(pixels_.begin(), pixels_.end(), GreyOutsideImage);
        return pixels_;
    }
    ViewSources sources = SourcesOf(pyramid, view, pixelRatio, width, height);
    const GreyTarget target{pixels_, width, height, static_cast<std::size_t>(width)};
    std::vector<Run> columns = {{0, width}};
    std::vector<Run> rows;
    const bool same =
        edition_ != nullptr && edition_ == pyramid.Edition() && SameButPlaces(sources, sources_);
    if (const auto move = same ? WholeMove(view, view_, pixelRatio) : std::nullopt) {
        std::vector<Run> newColumns = NewRuns(sources.Columns, sources_.Columns, move->Right);
        std::vector<Run> newRows = NewRuns(sources.Rows, sources_.Rows, move->Down);
        const std::int64_t few = LengthOf(newColumns) * height + LengthOf(newRows) * width;
        // Otherwise it is hardly worth the moving.
        if (few < painted_ / 2) {
            MovePixels({pixels_.data(), target.RowBytes, 1, width, height}, move->Right,
                       move->Down);
            columns = std::move(newColumns);
            rows = std::move(newRows);
            painted_ = few;
        }
    }
    for (const Run& run : columns) PaintPart(pyramid, sources, run, {0, height}, target);
    for (const Run& run : rows) PaintPart(pyramid, sources, {0, width}, run, target);
    edition_ = pyramid.Edition();
    view_ = view;
    sources_ = std::move(sources);
    return pixels_;
}

void MovePixels(const PixelRows& picture, int right, int down) {
    const int rows = picture.Height - std::abs(down);
    const int columns = picture.Width - std::abs(right);
    if (rows <= 0 || columns <= 0) return;
    const auto place = [&](int row, int column) {
        return picture.First + static_cast<std::size_t>(row) * picture.RowBytes +
               static_cast<std::size_t>(column) * picture.PixelBytes;
    };
    for (int k = 0; k < rows; ++k) {
        // No row may be overwritten before it was moved.
        const int row = down > 0 ? rows - 1 - k : k;
        std::memmove(place(row + std::max(down, 0), std::max(right, 0)),
                     place(row + std::max(-down, 0), std::max(-right, 0)),
                     picture.PixelBytes * static_cast<std::size_t>(columns));
    }
}

}  // namespace vestrel
