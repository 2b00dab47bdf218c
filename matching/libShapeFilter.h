// Finds the few stored quads whose shape may be near another shape.
//
// A search compares thousands of stored shapes for every quad of an image and nearly all of them
// differ, so this decides how long a search takes that finds nothing. The comparison uses the
// rounded ratios of the table and never leaves out a quad that is near enough; the stars decide
// about those that pass. Eight shapes are compared at once, sixteen before anything is decided:
// each in its own lane with the operations of one, so that the lanes cannot change what passes.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "matching/libQuads.h"

namespace vestrel {

class ShapeFilter {
 public:
    /// @param tolerance the largest distance of shapes, 0..1
    ShapeFilter(const Quad& shape, double tolerance);

    /// Appends the indices of the quads that may be nearer than the tolerance, rising.
    /// @param steps the cell of all these quads, in 64ths of the ratios 1, 3 and 5
    /// @param packed the rest of their shapes, 32 bits each, as a table stores them
    /// @param first the index of the first
    void Find(const std::array<std::uint32_t, 3>& steps, const unsigned char* packed,
              std::size_t count, std::uint32_t first, std::vector<std::uint32_t>& passing) const;

 private:
    std::array<float, 5> at_{};  ///< ratios 1, 3, 5, 2, 4 in 1024ths
    float limit_ = 0;            ///< squared
    bool avx2_;                  ///< of the processor
};

}  // namespace vestrel
