#include "matching/libPackedQuads.h"

#include <algorithm>
#include <bit>
#include <tuple>

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

PackedQuads::PackedQuads(std::uint32_t starCount)
    : starBits_(static_cast<unsigned int>(std::bit_width(starCount))),
      entryBytes_((cellBits + shapeBits + 4 * std::size_t{starBits_} + 7) / 8),
      inPiece_(pieceBytes / entryBytes_),
      groups_((ShapeCells >> cellBits) + 1) {
    greatest_.Key = -1;
}

void PackedQuads::Append(Group& group, const QuadEntry& entry) const {
    const std::size_t piece = group.Count / inPiece_;
    if (piece == group.Pieces.size()) group.Pieces.emplace_back(inPiece_ * entryBytes_);
    BitWriter bits(&group.Pieces[piece][group.Count % inPiece_ * entryBytes_]);
    ++group.Count;
    bits.Put(entry.Cell & ((1U << cellBits) - 1), cellBits);
    bits.Put(entry.Shape, shapeBits);
    for (const std::uint32_t star : entry.Stars) bits.Put(star, starBits_);
    bits.End();
}

void PackedQuads::Add(std::span<const QuadEntry> entries) {
    for (const QuadEntry& entry : entries) {
        Append(groups_[entry.Cell >> cellBits], entry);
        if (std::tie(entry.Key, entry.Stars) > std::tie(greatest_.Key, greatest_.Stars)) {
            greatest_ = entry;
        }
    }
}

/// The quads of a group in order, each once.
std::vector<QuadEntry> PackedQuads::Ordered(std::size_t group) const {
    std::vector<QuadEntry> entries;
    entries.reserve(groups_[group].Count);
    for (std::size_t i = 0; i < groups_[group].Count; ++i) entries.push_back(EntryAt(group, i));
    std::sort(entries.begin(), entries.end(), InOrder());
    const auto end =
        std::unique(entries.begin(), entries.end(),
                    [](const QuadEntry& a, const QuadEntry& b) { return !InOrder()(a, b); });
    entries.erase(end, entries.end());
    return entries;
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
        groups_[n].Count = 0;
        for (QuadEntry& entry : entries) {
            for (std::uint32_t& star : entry.Stars) star = numbers[star];
            std::sort(entry.Stars.begin(), entry.Stars.end());
            farthest[n] = std::max(farthest[n], entry.Stars[3] - entry.Stars[0]);
            ++starts_[entry.Cell + 1];
            Append(groups_[n], entry);
        }
        groups_[n].Pieces.resize((groups_[n].Count + inPiece_ - 1) / inPiece_);
    });
    for (std::size_t cell = 0; cell < ShapeCells; ++cell) starts_[cell + 1] += starts_[cell];
    farthest_ = *std::max_element(farthest.begin(), farthest.end());
    if (Count() == 0) return;
    const std::size_t group = greatest_.Cell >> cellBits;
    last_ = starts_[group << cellBits] + before[group] + 1;
}

}  // namespace vestrel
