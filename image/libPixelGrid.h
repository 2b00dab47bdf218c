// The pixels of an image: 16 bits each where all values fit, which halves the memory that a solve
// must move, else 32 bits.
#pragma once

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <type_traits>
#include <utility>
#include <vector>

#include "astro/libGrid.h"
#include "astro/libProcessor.h"

namespace vestrel {

/// A row of pixels as kernels read it: row[x] is the stored value in column x.
///
/// A cell holds the last 16 or all 32 bits of its value. With 16 bits, the values lie in `Least`..
/// `Least` + 65535, which makes them unique.
template <typename Cell>
struct PixelRow {
    static_assert(std::is_same_v<Cell, std::uint16_t> || std::is_same_v<Cell, std::int32_t>);
    static constexpr std::int32_t LeastRank = std::numeric_limits<Cell>::min();
    static constexpr std::int32_t MostRank = std::numeric_limits<Cell>::max();

    const Cell* Cells;
    std::int32_t Least;  ///< 0 for 32-bit cells

    /// A number of the cell's own width that grows with the value: the value minus `Least`.
    VESTREL_KERNEL Cell Rank(std::ptrdiff_t x) const {
        if constexpr (std::is_same_v<Cell, std::int32_t>) return Cells[x];
        return static_cast<Cell>(Cells[x] - static_cast<Cell>(Least));
    }
    VESTREL_KERNEL std::int32_t ValueOf(Cell rank) const { return Least + rank; }
    VESTREL_KERNEL std::int32_t operator[](std::ptrdiff_t x) const { return ValueOf(Rank(x)); }
    VESTREL_KERNEL PixelRow From(std::ptrdiff_t x) const { return {Cells + x, Least}; }
};

/// Has the memory bring a part of a row that will be read soon.
template <typename Cell>
VESTREL_KERNEL void ExpectPixels(PixelRow<Cell> row, std::int32_t first, std::int32_t end) {
    constexpr std::int32_t cacheLine = 64 / sizeof(Cell);
    for (std::int32_t x = first; x < end; x += cacheLine) __builtin_prefetch(row.Cells + x);
}

/// A grid of pixels with bounds 0..width and 0..height (see `Grid`), in cells of either width.
/// Zeros cost no memory until something else is stored.
class PixelGrid {
 public:
    PixelGrid() = default;
    explicit PixelGrid(Grid<std::int32_t> cells) : wide_(std::move(cells)) {}
    /// Zeros in 16-bit cells, which can hold `least`..`least` + 65535; 0 must be among them. Throws
    /// std::bad_alloc when memory is short or a size is negative.
    static PixelGrid Narrow(std::int32_t width, std::int32_t height, std::int32_t least);

    bool Empty() const { return narrow_.Empty() && wide_.Empty(); }
    bool IsNarrow() const { return !narrow_.Empty(); }
    /// The smallest value that 16-bit cells can hold.
    std::int32_t Least() const { return least_; }

    std::int32_t operator()(std::int32_t x, std::int32_t y) const {
        if (!IsNarrow()) return wide_(x, y);
        return PixelRow<std::uint16_t>{&narrow_(x, y), least_}[0];
    }
    /// Row y, its spare column included; 16-bit cells are expanded into `buffer`.
    std::span<const std::int32_t> Row(std::int32_t y, std::vector<std::int32_t>& buffer) const;

    /// Calls work(rows), where rows(y) is a `PixelRow` of either kind of cell. A kernel's `work` is
    /// a generic lambda with VESTREL_KERNEL_LAMBDA.
    template <typename Work>
    VESTREL_KERNEL void Visit(Work work) const {
        if (IsNarrow()) {
            work([this](std::int32_t y) VESTREL_KERNEL_LAMBDA {
                return PixelRow<std::uint16_t>{narrow_.Row(y).data(), least_};
            });
        } else {
            work([this](std::int32_t y) VESTREL_KERNEL_LAMBDA {
                return PixelRow<std::int32_t>{wide_.Row(y).data(), 0};
            });
        }
    }
    /// Calls work(row) with a single row.
    template <typename Work>
    VESTREL_KERNEL void VisitRow(std::int32_t y, Work work) const {
        if (IsNarrow()) {
            work(PixelRow<std::uint16_t>{narrow_.Row(y).data(), least_});
        } else {
            work(PixelRow<std::int32_t>{wide_.Row(y).data(), 0});
        }
    }

    /// The 32-bit cells, which replace 16-bit ones when there are such.
    /// @param rows the rows from this one on hold only zeros
    Grid<std::int32_t>& Wide(std::int32_t rows = std::numeric_limits<std::int32_t>::max()) {
        ForgetGreatest();
        if (IsNarrow()) Widen(rows);
        return wide_;
    }
    const Grid<std::int32_t>& Wide() const {
        assert(!IsNarrow());
        return wide_;
    }
    /// The 16-bit cells; only when there are such.
    Grid<std::uint16_t>& NarrowCells() {
        assert(IsNarrow());
        ForgetGreatest();
        return narrow_;
    }
    PixelRow<std::uint16_t> NarrowRow(std::int32_t y) const {
        assert(IsNarrow());
        return {narrow_.Row(y).data(), least_};
    }
    /// Whether all these values fit the present cells.
    bool Fits(std::span<const std::int32_t> values) const;
    /// Stores values, which must fit, from column `x` of row `y` on.
    void Store(std::int32_t x, std::int32_t y, std::span<const std::int32_t> values);

    /// Notes the greatest rank in each `PartLength` pixels of each row, the spare column left out:
    /// who has just written all 16-bit cells knows it. It is kept until cells are written again.
    /// @param greatest at (x / PartLength, y)
    void NoteGreatest(Grid<std::uint16_t> greatest) { greatest_ = std::move(greatest); }
    /// What was noted of row y; nullptr when nothing is.
    const std::uint16_t* GreatestOfRow(std::int32_t y) const {
        return greatest_.Empty() ? nullptr : greatest_.Row(y).data();
    }
    static constexpr std::int32_t PartLength = 64;

 private:
    /// Several threads may write rows of cells of which nothing is noted.
    void ForgetGreatest() {
        if (!greatest_.Empty()) greatest_ = {};
    }
    void Widen(std::int32_t rows);

    Grid<std::uint16_t> narrow_;  // one of both is empty
    Grid<std::int32_t> wide_;
    std::int32_t least_ = 0;
    Grid<std::uint16_t> greatest_;
};

}  // namespace vestrel
