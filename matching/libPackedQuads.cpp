#include "matching/libPackedQuads.h"

#include <algorithm>
#include <bit>
#include <tuple>
#include <utility>

#include "astro/libParallel.h"
#include "matching/libQuads.h"

namespace vestrel {

namespace {

/// The step of a ratio, of 1024.
std::uint32_t FineStep(float ratio) {
    return static_cast<std::uint32_t>(std::clamp(static_cast<double>(ratio) * 1024, 0.0, 1023.0));
}

/// The order of quads in a table.
struct InOrder {
    bool operator()(const QuadEntry& a, const QuadEntry& b) const {
        if (a.Cell != b.Cell) return a.Cell < b.Cell;
        const auto starsOfA = InTwo(a.Stars);
        const auto starsOfB = InTwo(b.Stars);
        return starsOfA[0] != starsOfB[0] ? starsOfA[0] < starsOfB[0] : starsOfA[1] < starsOfB[1];
    }
};

}  // namespace

std::uint32_t ShapeStep(double ratio) {
    return static_cast<std::uint32_t>(std::clamp(ratio * ShapeSteps, 0.0, ShapeSteps - 1.0));
}

std::optional<QuadEntry> QuadEntryOf(const std::array<std::uint32_t, 4>& stars,
                                     const std::array<Direction, 4>& directions) {
    const Quad shape = QuadOfDirections(directions);
    if (!(shape.QuadKey >= 0)) return std::nullopt;
    const std::uint32_t r1 = FineStep(shape.Ratio1);
    const std::uint32_t r3 = FineStep(shape.Ratio3);
    const std::uint32_t r5 = FineStep(shape.Ratio5);
    // The cell has the highest six bits of three ratios. The rest: their last four bits, and ten
    // bits of the ratios 2 and 4.
    return QuadEntry{ShapeCell(r1 / 16, r3 / 16, r5 / 16),
                     (r1 & 15) | (r3 & 15) << 4 | (r5 & 15) << 8 | FineStep(shape.Ratio2) << 12 |
                         FineStep(shape.Ratio4) << 22,
                     shape.QuadKey, stars};
}

PackedQuads::PackedQuads(std::uint32_t starCount, std::filesystem::path overflow,
                         std::size_t mostInMemory)
    : starBits_(static_cast<unsigned int>(std::bit_width(starCount))),
      entryBytes_((cellBits + shapeBits + 4 * std::size_t{starBits_} + 7) / 8),
      inPiece_(pieceBytes / entryBytes_),
      groups_((ShapeCells >> cellBits) + 1),
      store_(
          std::make_unique<PieceStore>(inPiece_ * entryBytes_, std::move(overflow), mostInMemory)) {
    greatest_.Key = -1;
}

/// Appends an entry to the open piece of a group, which must not be full.
void PackedQuads::Append(Group& group, const QuadEntry& entry) const {
    if (group.Open.empty()) group.Open.resize(inPiece_ * entryBytes_);
    BitWriter bits(&group.Open[group.InOpen * entryBytes_]);
    bits.Put(entry.Cell & ((1U << cellBits) - 1), cellBits);
    bits.Put(entry.Shape, shapeBits);
    for (const std::uint32_t star : entry.Stars) bits.Put(star, starBits_);
    bits.End();
    ++group.InOpen;
}

void PackedQuads::Add(std::span<const QuadEntry> entries) {
    for (const QuadEntry& entry : entries) {
        Group& group = groups_[entry.Cell >> cellBits];
        // A full piece is put away before the next entry, not after the last one: when that
        // fails, the group is as it was, as other threads may still add entries.
        if (group.InOpen == inPiece_) {
            group.Pieces.push_back(store_->Add(group.Open));
            group.InOpen = 0;
        }
        Append(group, entry);
        if (std::tie(entry.Key, entry.Stars) > std::tie(greatest_.Key, greatest_.Stars)) {
            greatest_ = entry;
        }
    }
}

/// The quads of a group in order, each once.
std::vector<QuadEntry> PackedQuads::Ordered(std::size_t number) const {
    const Group& group = groups_[number];
    std::vector<QuadEntry> entries;
    entries.reserve(group.Pieces.size() * inPiece_ + group.InOpen);
    std::vector<unsigned char> piece(inPiece_ * entryBytes_);
    for (const std::uint32_t stored : group.Pieces) {
        store_->Read(stored, piece);
        for (std::size_t i = 0; i < inPiece_; ++i) entries.push_back(EntryAt(number, piece, i));
    }
    for (std::size_t i = 0; i < group.InOpen; ++i) {
        entries.push_back(EntryAt(number, group.Open, i));
    }
    std::sort(entries.begin(), entries.end(), InOrder());
    const auto end =
        std::unique(entries.begin(), entries.end(),
                    [](const QuadEntry& a, const QuadEntry& b) { return !InOrder()(a, b); });
    entries.erase(end, entries.end());
    return entries;
}

/// Gives a group other quads, no more than it had, in the pieces that it has.
void PackedQuads::Rewrite(Group& group, std::span<const QuadEntry> entries) const {
    std::size_t full = 0;
    group.InOpen = 0;
    for (const QuadEntry& entry : entries) {
        if (group.InOpen == inPiece_) {
            store_->Replace(group.Pieces[full++], group.Open);
            group.InOpen = 0;
        }
        Append(group, entry);
    }
    group.Pieces.resize(full);
}

void PackedQuads::Finish(const std::vector<std::uint32_t>& numbers) {
    starts_.assign(std::size_t{ShapeCells} + 1, 0);
    std::vector<std::uint32_t> farthest(groups_.size());
    std::vector<std::uint32_t> before(groups_.size());  // quads of the group before the greatest
    ParallelFor(static_cast<int>(groups_.size()), [&](int number) {
        const auto n = static_cast<std::size_t>(number);
        std::vector<QuadEntry> entries = Ordered(n);
        before[n] = static_cast<std::uint32_t>(
            std::lower_bound(entries.begin(), entries.end(), greatest_, InOrder()) -
            entries.begin());
        for (QuadEntry& entry : entries) {
            for (std::uint32_t& star : entry.Stars) star = numbers[star];
            std::sort(entry.Stars.begin(), entry.Stars.end());
            farthest[n] = std::max(farthest[n], entry.Stars[3] - entry.Stars[0]);
            ++starts_[entry.Cell + 1];
        }
        Rewrite(groups_[n], entries);
    });
    for (std::size_t cell = 0; cell < ShapeCells; ++cell) starts_[cell + 1] += starts_[cell];
    farthest_ = *std::max_element(farthest.begin(), farthest.end());
    if (Count() == 0) return;
    const std::size_t group = greatest_.Cell >> cellBits;
    last_ = starts_[group << cellBits] + before[group] + 1;
}

}  // namespace vestrel
