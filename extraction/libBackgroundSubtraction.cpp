#include "extraction/libBackground.h"

#include <algorithm>
#include <type_traits>
#include <vector>

#include "astro/libProcessor.h"
#include "extraction/libSampleLanes.h"

namespace vestrel {

namespace {

constexpr std::int32_t step = 3;
constexpr std::int32_t lift = 100;
constexpr std::int32_t brightest = 65535;

/// Subtracts the background of a row and clamps the result to `least`..`most`. Written so that the
/// compiler vectorises it.
VESTREL_KERNEL void SubtractRow(std::int32_t* __restrict row, const std::int32_t* __restrict sky,
                                std::int32_t width, std::int32_t least, std::int32_t most) {
    for (std::int32_t x = 0; x < width; ++x) {
        const std::int32_t value = row[x] - sky[x] + lift;
        const std::int32_t notBelow = value < least ? least : value;
        row[x] = notBelow > most ? most : notBelow;
    }
}
VESTREL_FOR_AVX2 void SubtractRowForAvx2(std::int32_t* row, const std::int32_t* sky,
                                         std::int32_t width, std::int32_t least,
                                         std::int32_t most) {
    SubtractRow(row, sky, width, least, most);
}
void SubtractRowPlainly(std::int32_t* row, const std::int32_t* sky, std::int32_t width,
                        std::int32_t least, std::int32_t most) {
    SubtractRow(row, sky, width, least, most);
}

/// The same in 16 bits. Each count falls or, where the sky is darker than the lift, rises; one of
/// `fall` and `rise` is 0. A count that would leave 0..65535 stops at the bound.
/// @return the greatest count
VESTREL_KERNEL std::uint16_t SubtractNarrowPart(std::uint16_t* __restrict row,
                                                const std::uint16_t* __restrict fall,
                                                const std::uint16_t* __restrict rise,
                                                std::int32_t width, std::uint16_t offset) {
    std::uint16_t greatest = 0;
    for (std::int32_t x = 0; x < width; ++x) {
        const auto count = static_cast<std::uint16_t>(row[x] + offset);
        const auto room = static_cast<std::uint16_t>(brightest - count);
        const auto raised = static_cast<std::uint16_t>(count + (rise[x] < room ? rise[x] : room));
        const auto left =
            static_cast<std::uint16_t>(raised - (fall[x] < raised ? fall[x] : raised));
        row[x] = static_cast<std::uint16_t>(left - offset);
        greatest = left > greatest ? left : greatest;
    }
    return greatest;
}
/// @param greatest of each part of the row
VESTREL_KERNEL void SubtractNarrowRow(std::uint16_t* row, const std::uint16_t* fall,
                                      const std::uint16_t* rise, std::int32_t width,
                                      std::uint16_t offset, std::uint16_t* greatest) {
    constexpr std::int32_t length = PixelGrid::PartLength;
    std::int32_t x = 0;
    for (; x + length <= width; x += length) {
        *greatest++ = SubtractNarrowPart(row + x, fall + x, rise + x, length, offset);
    }
    if (x < width) {
        *greatest = SubtractNarrowPart(row + x, fall + x, rise + x, width - x, offset);
    }
}
VESTREL_FOR_AVX2 void SubtractNarrowRowForAvx2(std::uint16_t* row, const std::uint16_t* fall,
                                               const std::uint16_t* rise, std::int32_t width,
                                               std::uint16_t offset, std::uint16_t* greatest) {
    SubtractNarrowRow(row, fall, rise, width, offset, greatest);
}
void SubtractNarrowRowPlainly(std::uint16_t* row, const std::uint16_t* fall,
                              const std::uint16_t* rise, std::int32_t width, std::uint16_t offset,
                              std::uint16_t* greatest) {
    SubtractNarrowRow(row, fall, rise, width, offset, greatest);
}

/// What a row of blocks subtracts from the pixels of each column.
class WideSky {
 public:
    explicit WideSky(std::int32_t blocks) : sky_(static_cast<std::size_t>(blocks) * step) {}
    template <typename Cell>
    void Set(PixelRow<Cell> blocks) {
        const auto count = static_cast<std::ptrdiff_t>(sky_.size() / step);
        for (std::ptrdiff_t i = 0; i < count; ++i) {
            std::int32_t* const place = sky_.data() + i * step;
            place[0] = place[1] = place[2] = blocks[i];
        }
    }
    void SubtractFrom(std::int32_t* row, std::int32_t offset, std::int32_t width,
                      std::uint16_t* /*greatest*/) const {
        // Stored and physical values differ only by the offset, so it just shifts the bounds.
        (hasAvx2_ ? SubtractRowForAvx2 : SubtractRowPlainly)(row, sky_.data(), width, -offset,
                                                             brightest - offset);
    }

 private:
    bool hasAvx2_ = HasAvx2();
    std::vector<std::int32_t> sky_;
};

/// Takes the next eight of `left` blocks, or zeros where there are no more.
template <typename Cell>
VESTREL_KERNEL void TakeEight(PixelRow<Cell> blocks, std::size_t left, LaneNumbers& numbers) {
    typename EightCells<Cell>::Vector cells{};
    if (left >= 8) {
        __builtin_memcpy(&cells, blocks.Cells, sizeof cells);
    } else {
        __builtin_memcpy(&cells, blocks.Cells, left * sizeof(Cell));
    }
    if constexpr (std::is_same_v<Cell, std::int32_t>) {
        numbers = cells;
    } else {
        cells -= static_cast<Cell>(blocks.Least);
        numbers = __builtin_convertvector(cells, LaneNumbers) + blocks.Least;
    }
}

/// Sets `fall` and `rise` for the three columns of each block.
template <typename Cell>
VESTREL_KERNEL void SpreadChanges(PixelRow<Cell> blocks, std::size_t count,
                                  std::uint16_t* __restrict fall, std::uint16_t* __restrict rise) {
    const auto spread = [](const LaneNumbers& numbers, std::uint16_t* out) VESTREL_KERNEL_LAMBDA {
        const LaneWords of = __builtin_convertvector(numbers, LaneWords);
        const LaneWords parts[] = {__builtin_shufflevector(of, of, 0, 0, 0, 1, 1, 1, 2, 2),
                                   __builtin_shufflevector(of, of, 2, 3, 3, 3, 4, 4, 4, 5),
                                   __builtin_shufflevector(of, of, 5, 5, 6, 6, 6, 7, 7, 7)};
        __builtin_memcpy(out, parts, sizeof parts);
    };
    const LaneNumbers none{};
    const LaneNumbers most = none + brightest;
    for (std::size_t i = 0; i < count; i += 8) {
        LaneNumbers down;
        TakeEight(blocks.From(static_cast<std::ptrdiff_t>(i)), count - i, down);
        down -= lift;
        const LaneNumbers falls = down > none ? down : none;
        const LaneNumbers rises = down < none ? -down : none;
        spread(falls < most ? falls : most, fall + step * i);
        spread(rises < most ? rises : most, rise + step * i);
    }
}
template <typename Cell>
VESTREL_FOR_AVX2 void SpreadChangesForAvx2(PixelRow<Cell> blocks, std::size_t count,
                                           std::uint16_t* fall, std::uint16_t* rise) {
    SpreadChanges(blocks, count, fall, rise);
}
template <typename Cell>
void SpreadChangesPlainly(PixelRow<Cell> blocks, std::size_t count, std::uint16_t* fall,
                          std::uint16_t* rise) {
    SpreadChanges(blocks, count, fall, rise);
}

/// The same for 16-bit cells.
class NarrowSky {
 public:
    explicit NarrowSky(std::int32_t blocks)
        // Eight blocks are spread at a time.
        : blocks_(static_cast<std::size_t>(blocks)),
          fall_((blocks_ + 7) * step),
          rise_(fall_.size()) {}
    template <typename Cell>
    void Set(PixelRow<Cell> blocks) {
        (hasAvx2_ ? SpreadChangesForAvx2<Cell>
                  : SpreadChangesPlainly<Cell>)(blocks, blocks_, fall_.data(), rise_.data());
    }
    void SubtractFrom(std::uint16_t* row, std::int32_t offset, std::int32_t width,
                      std::uint16_t* greatest) const {
        (hasAvx2_ ? SubtractNarrowRowForAvx2 : SubtractNarrowRowPlainly)(
            row, fall_.data(), rise_.data(), width, static_cast<std::uint16_t>(offset), greatest);
    }

 private:
    bool hasAvx2_ = HasAvx2();
    std::size_t blocks_;
    std::vector<std::uint16_t> fall_;
    std::vector<std::uint16_t> rise_;
};

template <typename Sky, typename Cell>
void SubtractFromCells(Grid<Cell>& cells, Grid<std::uint16_t>& greatest, std::int32_t offset,
                       std::int32_t width, std::int32_t height, const BackgroundBlocks& background,
                       const Progress& progress) {
    constexpr std::int32_t rowsPerPiece = 63;  // whole blocks
    const auto subtractPiece = [&](int piece) {
        Sky sky(background.Columns);
        const std::int32_t first = piece * rowsPerPiece;
        const std::int32_t end = std::min(first + rowsPerPiece, height);
        for (std::int32_t y = first; y < end; ++y) {
            if (y == first || (y + 1) % step == 0) {
                background.Values.VisitRow((y + 1) / step, [&](auto row) { sky.Set(row); });
            }
            sky.SubtractFrom(cells.Row(y).data(), offset, width,
                             greatest.Empty() ? nullptr : greatest.Row(y).data());
        }
    };
    ParallelFor((height + rowsPerPiece - 1) / rowsPerPiece, subtractPiece, progress);
}

}  // namespace

void SubtractBackgroundBlocks(PixelGrid& pixels, std::int32_t offset, std::int32_t width,
                              std::int32_t height, const BackgroundBlocks& background,
                              const Progress& progress) {
    if (width == 0) return;  // empty rows have no first pixel
    Grid<std::uint16_t> greatest;
    if (pixels.IsNarrow() && pixels.Least() == -offset) {
        greatest = Grid<std::uint16_t>(width / PixelGrid::PartLength, height);
        SubtractFromCells<NarrowSky>(pixels.NarrowCells(), greatest, offset, width, height,
                                     background, progress);
        pixels.NoteGreatest(std::move(greatest));
    } else {
        SubtractFromCells<WideSky>(pixels.Wide(), greatest, offset, width, height, background,
                                   progress);
    }
}

}  // namespace vestrel
