// A two-dimensional block of numbers indexed by column, then row.
#pragma once

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <new>
#include <span>
#include <type_traits>
#include <utility>

#include "platform/libPlatform.h"

namespace vestrel {

/// A grid with bounds 0..width in x and 0..height in y, both inclusive: one spare column and one
/// spare row exist beyond the image proper. One contiguous block, zero-filled when made; (x, y)
/// lies at y × (width + 1) + x, so a sweep along a row walks memory in order.
template <typename T>
class Grid {
    static_assert(std::is_trivial_v<T>);

 public:
    Grid() = default;
    /// Throws std::bad_alloc when memory is short or a size is negative.
    Grid(std::int32_t width, std::int32_t height, MemoryUse use = MemoryUse::Swept) {
        if (width < 0 || height < 0) throw std::bad_alloc();
        rowLength_ = static_cast<std::size_t>(width) + 1;
        rowCount_ = static_cast<std::size_t>(height) + 1;
        if (rowCount_ > std::numeric_limits<std::size_t>::max() / sizeof(T) / rowLength_) {
            throw std::bad_alloc();
        }
        cells_ = static_cast<T*>(AllocateZeroed(Bytes(), use));
    }
    ~Grid() { FreeZeroed(cells_, Bytes()); }
    Grid(const Grid&) = delete;
    Grid& operator=(const Grid&) = delete;
    Grid(Grid&& other) noexcept { Swap(other); }
    Grid& operator=(Grid&& other) noexcept {
        Grid taken(std::move(other));
        Swap(taken);
        return *this;
    }

    T& operator()(std::int32_t x, std::int32_t y) { return cells_[Index(x, y)]; }
    const T& operator()(std::int32_t x, std::int32_t y) const { return cells_[Index(x, y)]; }

    /// Row y, its spare column included.
    std::span<T> Row(std::int32_t y) { return {cells_ + Index(0, y), rowLength_}; }
    std::span<const T> Row(std::int32_t y) const { return {cells_ + Index(0, y), rowLength_}; }

    /// The rows, the spare one included.
    std::size_t RowCount() const { return rowCount_; }
    bool Empty() const { return cells_ == nullptr; }

 private:
    std::size_t Index(std::int32_t x, std::int32_t y) const {
        assert(x >= 0 && static_cast<std::size_t>(x) < rowLength_);
        assert(y >= 0 && static_cast<std::size_t>(y) < rowCount_);
        return static_cast<std::size_t>(y) * rowLength_ + static_cast<std::size_t>(x);
    }
    std::size_t Bytes() const { return rowLength_ * rowCount_ * sizeof(T); }
    void Swap(Grid& other) noexcept {
        std::swap(cells_, other.cells_);
        std::swap(rowLength_, other.rowLength_);
        std::swap(rowCount_, other.rowCount_);
    }

    T* cells_ = nullptr;
    std::size_t rowLength_ = 0;
    std::size_t rowCount_ = 0;
};

}  // namespace vestrel
