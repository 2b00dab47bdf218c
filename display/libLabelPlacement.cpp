#include "display/libLabelPlacement.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace vestrel {

namespace {

/// Boxes of a drawing, sorted by the squares that they touch, so that few must be compared.
class BoxGrid {
 public:
    BoxGrid(double width, double height)
        : width_(width),
          height_(height),
          columns_(SquaresOver(width)),
          rows_(SquaresOver(height)),
          squares_(columns_ * rows_) {}

    bool Inside(const ScreenBox& box) const {
        return box.Left >= 0 && box.Top >= 0 && box.Left + box.Width <= width_ &&
               box.Top + box.Height <= height_;
    }
    bool IsFree(const ScreenBox& box) const {
        bool free = true;
        ForSquares(box, [&](std::size_t square) {
            free = free && std::none_of(squares_[square].begin(), squares_[square].end(),
                                        [&](const ScreenBox& one) { return one.Overlaps(box); });
        });
        return free;
    }
    void Add(const ScreenBox& box) {
        ForSquares(box, [&](std::size_t square) { squares_[square].push_back(box); });
    }

 private:
    static constexpr double squareSide = 64;
    static std::size_t SquaresOver(double length) {
        constexpr double most = 1000;
        return static_cast<std::size_t>(std::clamp(std::ceil(length / squareSide), 1.0, most));
    }
    static std::size_t SquareAt(double place, std::size_t squares) {
        return static_cast<std::size_t>(
            std::clamp(std::floor(place / squareSide), 0.0, static_cast<double>(squares - 1)));
    }
    template <typename Visit>
    void ForSquares(const ScreenBox& box, Visit visit) const {
        const std::size_t right = SquareAt(box.Left + box.Width, columns_);
        const std::size_t bottom = SquareAt(box.Top + box.Height, rows_);
        for (std::size_t row = SquareAt(box.Top, rows_); row <= bottom; ++row) {
            for (std::size_t column = SquareAt(box.Left, columns_); column <= right; ++column) {
                visit(row * columns_ + column);
            }
        }
    }

    double width_;
    double height_;
    std::size_t columns_;
    std::size_t rows_;
    std::vector<std::vector<ScreenBox>> squares_;
};

/// The eight places, best first: right of the mark, then around it.
std::array<ScreenBox, 8> PlacesOf(const LabelWish& wish) {
    constexpr double gap = 2;
    const double out = wish.Radius + gap;
    const double diagonal = wish.Radius * 0.7 + gap;
    const auto at = [&](double left, double top) {
        return ScreenBox{wish.Mark.X + left, wish.Mark.Y + top, wish.Width, wish.Height};
    };
    const double middle = -wish.Height / 2;
    return {at(out, middle),
            at(diagonal, -diagonal - wish.Height),
            at(diagonal, diagonal),
            at(-out - wish.Width, middle),
            at(-diagonal - wish.Width, -diagonal - wish.Height),
            at(-diagonal - wish.Width, diagonal),
            at(-wish.Width / 2, -out - wish.Height),
            at(-wish.Width / 2, out)};
}

}  // namespace

std::vector<std::optional<ScreenBox>> PlaceLabels(const std::vector<LabelWish>& wishes,
                                                  const std::vector<ScreenBox>& obstacles,
                                                  double width, double height) {
    BoxGrid taken(width, height);
    for (const ScreenBox& box : obstacles) taken.Add(box);
    std::vector<std::optional<ScreenBox>> placed(wishes.size());
    for (std::size_t i = 0; i < wishes.size(); ++i) {
        const LabelWish& wish = wishes[i];
        const auto take = [&](const ScreenBox& box) {
            if (!taken.Inside(box) || !taken.IsFree(box)) return false;
            taken.Add(box);
            placed[i] = box;
            return true;
        };
        if (wish.Fixed) {
            take({wish.Mark.X, wish.Mark.Y - wish.Height, wish.Width, wish.Height});
        } else {
            const auto places = PlacesOf(wish);
            (void)std::any_of(places.begin(), places.end(), take);
        }
    }
    return placed;
}

}  // namespace vestrel
