// The range of a picture's numbers, and the counts that are made of them.
//
// A large picture is walked through as rarely as possible: its numbers come once, as its rows are
// decoded, and go once, as counts. What must be known in between (the least and the greatest
// number, whether all are whole) is collected by blocks while they are in the cache. The k-th
// greatest number is then found among the few blocks that reach it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "astro/libGrid.h"

namespace vestrel {

/// How the numbers of a picture lie in memory until they become counts.
enum class HeldAs {
    Float32,  ///< the bits of a number in each cell of the picture itself
    Int32,
    UInt32,
    Float64  ///< in a grid of their own
};

/// The finite numbers of a picture. `Least` > `Greatest` when there are none.
struct NumberRange {
    double Least = 0;
    double Greatest = 0;
    bool Whole = true;  ///< all of them are whole
    bool AllFinite = true;
};

/// The numbers of a picture, row after row.
class PictureNumbers {
 public:
    PictureNumbers() = default;
    /// @throws std::bad_alloc
    PictureNumbers(HeldAs held, std::int32_t width, std::int32_t height);

    HeldAs Held() const { return held_; }
    /// The row to be filled with the bits of doubles, when they are held as such.
    std::int64_t* DoubleRow(std::int32_t y) { return doubles_.Row(y).data(); }
    /// Must be called once for each row when it is complete. `cells`: the picture's row.
    void RowIsComplete(std::int32_t y, const std::int32_t* cells);

    NumberRange Range() const;
    /// The median of some 40,000 evenly spaced finite numbers; 0 when there are none.
    double Sky(const Grid<std::int32_t>& cells) const;
    /// The k-th greatest finite number, k from 1, or the least when there are fewer.
    double Greatest(std::size_t k, const Grid<std::int32_t>& cells) const;
    double Least(std::size_t k, const Grid<std::int32_t>& cells) const;

    /// Replaces the cells by (number - zero) x factor within 0..`most`, rounded, halves to even,
    /// less `offset`. Numbers that are not finite are taken for `sky`.
    void MakeCounts(double zero, double factor, double sky, std::int32_t most, std::int32_t offset,
                    Grid<std::int32_t>& cells) const;

 private:
    /// The extremes of the finite numbers of a block, as keys: whole numbers in the same order.
    struct Block {
        std::int64_t Least;
        std::int64_t Greatest;
    };
    double NumberOfKey(std::int64_t key) const;
    double Extreme(std::size_t k, bool greatest, const Grid<std::int32_t>& cells) const;

    HeldAs held_ = HeldAs::Float32;
    std::int32_t width_ = 0;
    std::int32_t height_ = 0;
    Grid<std::int64_t> doubles_;
    std::size_t blocksOfRow_ = 0;
    std::vector<Block> blocks_;
    std::vector<unsigned char> flags_;  ///< of each row: whether some are not whole, not finite
};

}  // namespace vestrel
