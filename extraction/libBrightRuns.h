// Finds the pixels above a level as vertical runs in the columns of an image, and joins them to
// regions.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "astro/libParallel.h"
#include "image/libPixelGrid.h"

namespace vestrel {

/// Rows `First`..`End` − 1 of one column, with no bright pixel above and below.
struct BrightRun {
    std::uint16_t First;
    std::uint16_t End;
    std::int32_t Label;  ///< its region, from 1; 0 = none yet
};

/// The runs of an image and the values of their pixels, both column by column and downward.
///
/// Bright pixels are few. One sweep in memory order lists them; all later steps, which must go
/// column by column, visit only these and need no map of labels.
class BrightRuns {
 public:
    /// Finds the stored values strictly above `level`.
    BrightRuns(const PixelGrid& pixels, std::int32_t width, std::int32_t height, std::int32_t level,
               const Progress& progress);

    /// A fill is cut off at this depth; runs that it has not reached may start a region of their
    /// own.
    static constexpr std::int32_t DepthLimit = 1001;

    /// Joins runs of neighbouring columns that touch, diagonals included, into regions 1, 2, …
    /// @param maxFillDepth raised to the depth of the deepest fill
    /// @return the number of regions
    std::int32_t Label(std::int32_t& maxFillDepth);

    /// Calls visit(column, run, values of the run) for all runs in order.
    template <typename Visit>
    void ForEach(Visit visit) const {
        for (std::int32_t x = 0; x < width_; ++x) {
            const Piece& piece = pieces_[static_cast<std::size_t>(x / columnsPerPiece)];
            const auto column = static_cast<std::size_t>(x % columnsPerPiece);
            const std::int32_t* value = piece.Values.data() + piece.ValueStart[column];
            for (std::uint32_t i = piece.RunStart[column]; i < piece.RunStart[column + 1]; ++i) {
                const BrightRun& run = piece.Runs[i];
                visit(x, run, value);
                value += run.End - run.First;
            }
        }
    }

 private:
    static constexpr std::int32_t columnsPerPiece = 512;
    static_assert(columnsPerPiece % PixelGrid::PartLength == 0);

    struct Piece {
        std::vector<BrightRun> Runs;
        std::vector<std::int32_t> Values;
        std::vector<std::uint32_t> RunStart;    ///< of each column, and the end
        std::vector<std::uint32_t> ValueStart;  ///< of each column, and the end
    };

    static Piece FindPiece(const PixelGrid& pixels, std::int32_t firstColumn, std::int32_t columns,
                           std::int32_t height, std::int32_t level);
    std::span<BrightRun> RunsOf(std::int32_t x);
    static std::int32_t Top(const BrightRun& run);
    /// The runs of the columns beside a run, from the first ones on that may touch it.
    struct Neighbours {
        std::span<BrightRun> Left;
        std::span<BrightRun> Right;

        void MoveDownTo(std::int32_t top);
    };
    Neighbours NeighboursOf(std::int32_t x, const BrightRun& run);
    void Fill(std::int32_t x, BrightRun& run, std::int32_t label, std::int32_t depth,
              const Neighbours& neighbours);
    void FillTouching(std::int32_t x, std::span<BrightRun> runs, std::int32_t bottom,
                      std::int32_t label, std::int32_t depth);

    std::int32_t width_;
    std::int32_t height_;
    std::vector<Piece> pieces_;
    std::int32_t maxFillDepth_ = 0;
};

}  // namespace vestrel
