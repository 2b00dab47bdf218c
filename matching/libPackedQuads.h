// Quads on their way into a table: many millions, in little memory.
//
// A quad is packed into 14 to 19 bytes: the indices of its stars, with as many bits as they need,
// and its shape. Quads of similar shapes are kept together from the start, so that each group can
// be put in order alone. Full pieces of a group go to a file when there are many.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "astro/libSphericalMath.h"
#include "catalog/libCatalogCells.h"
#include "matching/libBitFields.h"
#include "matching/libPieceStore.h"

namespace vestrel {

/// The cells of shapes: 64 steps for each of the ratios 1, 3 and 5, none of which exceeds the one
/// before it.
inline constexpr std::uint32_t ShapeSteps = 64;
inline constexpr std::uint32_t ShapeCells = ShapeSteps * (ShapeSteps + 1) * (ShapeSteps + 2) / 6;
/// The number of a cell; step1 ≥ step3 ≥ step5.
constexpr std::uint32_t ShapeCell(std::uint32_t step1, std::uint32_t step3, std::uint32_t step5) {
    return step1 * (step1 + 1) * (step1 + 2) / 6 + step3 * (step3 + 1) / 2 + step5;
}
/// The step of a ratio, 0..ShapeSteps − 1; ratios outside 0..1 belong to the nearest step.
std::uint32_t ShapeStep(double ratio);

/// A quad as a table stores it.
struct QuadEntry {
    std::uint32_t Cell = 0;   ///< of its shape
    std::uint32_t Shape = 0;  ///< the rest of its shape
    float Key = 0;            ///< of its shape; not kept
    std::array<std::uint32_t, 4> Stars{};
};

/// The indices of a quad's stars as two numbers, which are compared faster than four.
constexpr std::array<std::uint64_t, 2> InTwo(const std::array<std::uint32_t, 4>& stars) {
    return {std::uint64_t{stars[0]} << 32 | stars[1], std::uint64_t{stars[2]} << 32 | stars[3]};
}

/// The entry of a quad; nothing when it has no shape (all stars at one place).
/// @param stars their indices, rising
std::optional<QuadEntry> QuadEntryOf(const std::array<std::uint32_t, 4>& stars,
                                     const std::array<Direction, 4>& directions);

class PackedQuads {
 public:
    /// @param starCount the indices of stars are below it
    /// @param overflow beside this file a temporary one holds what does not fit into the memory
    ///   allowed; empty to keep everything in memory
    /// @param mostInMemory how many pieces of 16 KB are kept in memory beside the open ones
    explicit PackedQuads(std::uint32_t starCount, std::filesystem::path overflow = {},
                         std::size_t mostInMemory = 512);

    // All that follow throw std::system_error when the file cannot be written or read.

    /// Adds entries; the same quad may come several times.
    void Add(std::span<const QuadEntry> entries);

    /// Orders the quads by cell and, within a cell, by their stars, each once. Then each star gets
    /// its number in the table, and the stars of a quad are put in the order of these numbers. Must
    /// be called once, after the last `Add`.
    /// @param numbers of all stars
    void Finish(const std::vector<std::uint32_t>& numbers);

    // Of finished quads:

    std::uint32_t Count() const { return starts_.back(); }
    /// The first quad of each cell, and the end.
    const std::vector<std::uint32_t>& Starts() const { return starts_; }
    /// The place, from 1, of the quad with the greatest key, of several the one that is last by its
    /// stars; 0 when there are no quads.
    std::uint32_t Last() const { return last_; }
    /// The largest difference between the numbers of a quad's last and first star.
    std::uint32_t Farthest() const { return farthest_; }

    /// Calls `visit(entry)` with each quad in order.
    template <typename Visit>
    void ForEach(Visit visit) const {
        std::vector<unsigned char> piece(inPiece_ * entryBytes_);
        for (std::size_t number = 0; number < groups_.size(); ++number) {
            const Group& group = groups_[number];
            for (const std::uint32_t stored : group.Pieces) {
                store_->Read(stored, piece);
                for (std::size_t i = 0; i < inPiece_; ++i) visit(EntryAt(number, piece, i));
            }
            for (std::size_t i = 0; i < group.InOpen; ++i) visit(EntryAt(number, group.Open, i));
        }
    }

 private:
    /// The quads of neighbouring cells.
    struct Group {
        std::vector<std::uint32_t> Pieces;  ///< full ones, by their numbers in the store
        std::vector<unsigned char> Open;    ///< the last piece, which is being filled
        std::size_t InOpen = 0;             ///< quads
    };
    static constexpr unsigned int cellBits = 8;  ///< a group has 256 cells
    static constexpr unsigned int shapeBits = 32;
    static constexpr std::size_t pieceBytes = std::size_t{1} << 14;

    QuadEntry EntryAt(std::size_t group, std::span<const unsigned char> piece,
                      std::size_t i) const {
        BitReader bits(&piece[i * entryBytes_]);
        QuadEntry entry;
        entry.Cell = static_cast<std::uint32_t>(group << cellBits) + bits.Take(cellBits);
        entry.Shape = bits.Take(shapeBits);
        for (std::uint32_t& star : entry.Stars) star = bits.Take(starBits_);
        return entry;
    }
    void Append(Group& group, const QuadEntry& entry) const;
    std::vector<QuadEntry> Ordered(std::size_t number) const;
    void Rewrite(Group& group, std::span<const QuadEntry> entries) const;

    unsigned int starBits_;
    std::size_t entryBytes_;
    std::size_t inPiece_;  ///< entries
    std::vector<Group> groups_;
    std::unique_ptr<PieceStore> store_;
    QuadEntry greatest_;  ///< the one with the greatest key so far
    std::vector<std::uint32_t> starts_ = {0};
    std::uint32_t last_ = 0;
    std::uint32_t farthest_ = 0;
};

}  // namespace vestrel
