#include "image/libNumberRange.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <functional>
#include <limits>

#include "astro/libParallel.h"
#include "astro/libProcessor.h"

namespace vestrel {

namespace {

/// How many numbers of a row make up a block.
constexpr std::size_t blockLength = 512;

constexpr std::int64_t noLeast = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t noGreatest = std::numeric_limits<std::int64_t>::min();

constexpr unsigned char someFractions = 1;
constexpr unsigned char someInfinite = 2;

// The kinds of numbers. Keys are integers, because compilers vectorise the search for the least
// only for them: that of floating-point numbers may depend on their order. For the same reason
// questions are answered by masks: all bits for yes, none for no.

template <typename CellType, typename RealType, CellType InfinityBits, int MantissaBits>
struct Floating {
    using Cell = CellType;
    using Real = RealType;
    static constexpr Cell sizeBits = std::numeric_limits<Cell>::max();
    static constexpr int signShift = 8 * sizeof(Cell) - 1;
    /// From this number on, the last digit is 1 or more.
    static constexpr Real lastDigitIsOne = static_cast<Real>(Cell{1} << MantissaBits);

    VESTREL_KERNEL static Cell Infinite(Cell cell) {
        return (InfinityBits - 1 - (cell & sizeBits)) >> signShift;
    }
    /// What rounding changes; none of its bits when the number is whole.
    VESTREL_KERNEL static Cell Fraction(Cell cell) {
        const Cell size = cell & sizeBits;
        const Real rounded = (std::bit_cast<Real>(size) + lastDigitIsOne) - lastDigitIsOne;
        const Cell hasDigits = (size - std::bit_cast<Cell>(lastDigitIsOne)) >> signShift;
        return (std::bit_cast<Cell>(rounded) ^ size) & hasDigits;
    }
    VESTREL_KERNEL static Cell KeyOf(Cell cell) { return cell ^ ((cell >> signShift) & sizeBits); }
    VESTREL_KERNEL static Cell CellOf(Cell key) { return KeyOf(key); }
    VESTREL_KERNEL static double Number(Cell cell) {
        return static_cast<double>(std::bit_cast<Real>(cell));
    }
    static Cell CellOfNumber(double number) {
        return std::bit_cast<Cell>(static_cast<Real>(number));
    }
};
using Singles = Floating<std::int32_t, float, 0x7F800000, 23>;
using Doubles = Floating<std::int64_t, double, 0x7FF0000000000000, 52>;

struct Signed {
    using Cell = std::int32_t;
    VESTREL_KERNEL static Cell Infinite(Cell /*cell*/) { return 0; }
    VESTREL_KERNEL static Cell Fraction(Cell /*cell*/) { return 0; }
    VESTREL_KERNEL static Cell KeyOf(Cell cell) { return cell; }
    VESTREL_KERNEL static Cell CellOf(Cell key) { return key; }
    VESTREL_KERNEL static double Number(Cell cell) { return cell; }
    static Cell CellOfNumber(double /*number*/) { return 0; }
};

struct Unsigned : Signed {
    VESTREL_KERNEL static Cell KeyOf(Cell cell) {
        return cell ^ std::numeric_limits<std::int32_t>::min();
    }
    VESTREL_KERNEL static Cell CellOf(Cell key) { return KeyOf(key); }
    VESTREL_KERNEL static double Number(Cell cell) {
        return static_cast<double>(KeyOf(cell)) + 2147483648.0;  // 2^31
    }
};

/// Calls `work` with the kind of numbers that are held so.
template <typename Work>
auto WithKind(HeldAs held, const Work& work) {
    switch (held) {
        case HeldAs::Int32:
            return work(Signed());
        case HeldAs::UInt32:
            return work(Unsigned());
        case HeldAs::Float64:
            return work(Doubles());
        case HeldAs::Float32:
            break;
    }
    return work(Singles());
}

template <typename Cell>
struct Extremes {
    Cell Least;
    Cell Greatest;
    Cell Fractions;
    Cell Infinite;
};

template <typename Kind, typename Cell = typename Kind::Cell>
VESTREL_KERNEL Extremes<Cell> Sweep(const Cell* cells, std::size_t count) {
    constexpr Cell above = std::numeric_limits<Cell>::max();
    constexpr Cell below = std::numeric_limits<Cell>::min();
    Cell least = above;
    Cell greatest = below;
    Cell fractions = 0;
    Cell infinite = 0;
    for (std::size_t i = 0; i < count; ++i) {
        const Cell key = Kind::KeyOf(cells[i]);
        const Cell excluded = Kind::Infinite(cells[i]);
        const Cell low = (key & ~excluded) | (above & excluded);
        const Cell high = (key & ~excluded) | (below & excluded);
        least = low < least ? low : least;
        greatest = high > greatest ? high : greatest;
        fractions |= Kind::Fraction(cells[i]) & ~excluded;
        infinite |= excluded;
    }
    return {least, greatest, fractions, infinite};
}
template <typename Kind>
VESTREL_FOR_AVX2 auto SweepForAvx2(const typename Kind::Cell* cells, std::size_t count) {
    return Sweep<Kind>(cells, count);
}
template <typename Kind>
auto SweepPlainly(const typename Kind::Cell* cells, std::size_t count) {
    return Sweep<Kind>(cells, count);
}

/// How numbers become counts.
struct Making {
    double Zero;
    double Factor;
    double Sky;  ///< for numbers that are not finite
    double Most;
    std::int32_t Offset;
};

template <typename Kind>
VESTREL_KERNEL std::int32_t CountOf(typename Kind::Cell cell, typename Kind::Cell sky,
                                    const Making& making) {
    // Adding it rounds halves to even; a call for each pixel would take several times as long.
    constexpr double lastDigitIsOne = 6755399441055744.0;  // 1.5 × 2^52
    const auto excluded = Kind::Infinite(cell);
    const double value = Kind::Number((cell & ~excluded) | (sky & excluded));
    const double count = (value - making.Zero) * making.Factor;
    const double notBelow = count < 0 ? 0.0 : count;
    const double within = notBelow > making.Most ? making.Most : notBelow;
    return static_cast<std::int32_t>((within + lastDigitIsOne) - lastDigitIsOne) - making.Offset;
}

/// Numbers that lie in the picture's own cells are replaced there.
template <typename Kind>
VESTREL_KERNEL void MakeRow(const typename Kind::Cell* __restrict numbers,
                            std::int32_t* __restrict row, std::size_t width, Making making) {
    const auto sky = Kind::CellOfNumber(making.Sky);
    if constexpr (sizeof(typename Kind::Cell) == sizeof(std::int32_t)) {
        for (std::size_t x = 0; x < width; ++x) row[x] = CountOf<Kind>(row[x], sky, making);
    } else {
        for (std::size_t x = 0; x < width; ++x) row[x] = CountOf<Kind>(numbers[x], sky, making);
    }
}
template <typename Kind>
VESTREL_FOR_AVX2 void MakeRowForAvx2(const typename Kind::Cell* numbers, std::int32_t* row,
                                     std::size_t width, const Making& making) {
    MakeRow<Kind>(numbers, row, width, making);
}
template <typename Kind>
void MakeRowPlainly(const typename Kind::Cell* numbers, std::int32_t* row, std::size_t width,
                    const Making& making) {
    MakeRow<Kind>(numbers, row, width, making);
}

/// The cells of a row that hold its numbers.
template <typename Kind>
const typename Kind::Cell* CellsOf(std::int32_t y, const Grid<std::int64_t>& doubles,
                                   const std::int32_t* cells) {
    if constexpr (sizeof(typename Kind::Cell) == sizeof(std::int32_t)) {
        return cells;
    } else {
        return doubles.Row(y).data();
    }
}

}  // namespace

PictureNumbers::PictureNumbers(HeldAs held, std::int32_t width, std::int32_t height)
    : held_(held),
      width_(width),
      height_(height),
      blocksOfRow_((static_cast<std::size_t>(width) + blockLength - 1) / blockLength),
      blocks_(blocksOfRow_ * static_cast<std::size_t>(height), {noLeast, noGreatest}),
      flags_(static_cast<std::size_t>(height), 0) {
    if (held == HeldAs::Float64) doubles_ = Grid<std::int64_t>(width, height);
}

void PictureNumbers::RowIsComplete(std::int32_t y, const std::int32_t* cells) {
    const auto width = static_cast<std::size_t>(width_);
    const auto row = static_cast<std::size_t>(y);
    flags_[row] = 0;
    WithKind(held_, [&](auto kind) {
        using Kind = decltype(kind);
        const auto* numbers = CellsOf<Kind>(y, doubles_, cells);
        const auto sweep = HasAvx2() ? SweepForAvx2<Kind> : SweepPlainly<Kind>;
        Block* block = &blocks_[row * blocksOfRow_];
        for (std::size_t x = 0; x < width; x += blockLength, ++block) {
            const auto found = sweep(numbers + x, std::min(blockLength, width - x));
            const bool none = found.Least > found.Greatest;
            *block = {none ? noLeast : found.Least, none ? noGreatest : found.Greatest};
            if (found.Fractions != 0) flags_[row] |= someFractions;
            if (found.Infinite != 0) flags_[row] |= someInfinite;
        }
    });
}

double PictureNumbers::NumberOfKey(std::int64_t key) const {
    return WithKind(held_, [key](auto kind) {
        using Kind = decltype(kind);
        return Kind::Number(Kind::CellOf(static_cast<typename Kind::Cell>(key)));
    });
}

NumberRange PictureNumbers::Range() const {
    Block all{noLeast, noGreatest};
    for (const Block& block : blocks_) {
        all.Least = std::min(all.Least, block.Least);
        all.Greatest = std::max(all.Greatest, block.Greatest);
    }
    unsigned char flags = 0;
    for (const unsigned char row : flags_) flags |= row;
    NumberRange range;
    range.Whole = (flags & someFractions) == 0;
    range.AllFinite = (flags & someInfinite) == 0;
    if (all.Least > all.Greatest) {
        range.Least = std::numeric_limits<double>::infinity();
        range.Greatest = -range.Least;
        return range;
    }
    // What has lost its digits is 0, and so is -0.
    const double smallest = held_ == HeldAs::Float32
                                ? static_cast<double>(std::numeric_limits<float>::min())
                                : std::numeric_limits<double>::min();
    const auto number = [&](std::int64_t key) {
        const double found = NumberOfKey(key);
        return std::abs(found) < smallest ? 0.0 : found;
    };
    range.Least = number(all.Least);
    range.Greatest = number(all.Greatest);
    return range;
}

double PictureNumbers::Sky(const Grid<std::int32_t>& cells) const {
    constexpr std::size_t samples = 40009;
    const auto width = static_cast<std::size_t>(width_);
    const std::size_t count = width * static_cast<std::size_t>(height_);
    const std::size_t step = std::max<std::size_t>(1, count / samples);
    std::vector<double> some;
    WithKind(held_, [&](auto kind) {
        using Kind = decltype(kind);
        for (std::size_t i = 0; i < count; i += step) {
            const auto y = static_cast<std::int32_t>(i / width);
            const auto cell = CellsOf<Kind>(y, doubles_, cells.Row(y).data())[i % width];
            if (Kind::Infinite(cell) == 0) some.push_back(Kind::Number(cell));
        }
    });
    if (some.empty()) return 0;
    const auto middle = some.begin() + static_cast<std::ptrdiff_t>(some.size() / 2);
    std::nth_element(some.begin(), middle, some.end());
    return *middle;
}

double PictureNumbers::Extreme(std::size_t k, bool greatest,
                               const Grid<std::int32_t>& cells) const {
    // Complements have the opposite order: from here on the k-th greatest is looked for.
    const auto rank = [greatest](std::int64_t key) { return greatest ? key : ~key; };
    std::vector<std::int64_t> tops(blocks_.size());
    std::transform(blocks_.begin(), blocks_.end(), tops.begin(), [&](const Block& block) {
        return rank(greatest ? block.Greatest : block.Least);
    });
    // The k-th greatest of all is not below the k-th greatest top, and fewer than k blocks have
    // numbers above that.
    const auto kth = [k](std::vector<std::int64_t>& ranks) {
        const auto place = ranks.begin() + static_cast<std::ptrdiff_t>(k - 1);
        std::nth_element(ranks.begin(), place, ranks.end(), std::greater<>());
        return *place;
    };
    std::int64_t bound = noGreatest;
    if (tops.size() >= k) {
        std::vector<std::int64_t> sorted = tops;
        bound = kth(sorted);
    }
    const auto width = static_cast<std::size_t>(width_);
    std::vector<std::int64_t> above;
    for (std::size_t n = 0; n < tops.size(); ++n) {
        if (tops[n] <= bound) continue;
        const auto y = static_cast<std::int32_t>(n / blocksOfRow_);
        const std::size_t from = n % blocksOfRow_ * blockLength;
        WithKind(held_, [&](auto kind) {
            using Kind = decltype(kind);
            const auto* numbers = CellsOf<Kind>(y, doubles_, cells.Row(y).data());
            for (std::size_t x = from; x < std::min(width, from + blockLength); ++x) {
                const std::int64_t key = rank(Kind::KeyOf(numbers[x]));
                if (Kind::Infinite(numbers[x]) == 0 && key > bound) above.push_back(key);
            }
        });
    }
    std::int64_t found = bound;
    if (above.size() >= k) {
        found = kth(above);
    } else if (bound == noGreatest) {
        found = *std::min_element(above.begin(), above.end());
    }
    return NumberOfKey(rank(found));
}

double PictureNumbers::Greatest(std::size_t k, const Grid<std::int32_t>& cells) const {
    return Extreme(k, true, cells);
}
double PictureNumbers::Least(std::size_t k, const Grid<std::int32_t>& cells) const {
    return Extreme(k, false, cells);
}

void PictureNumbers::MakeCounts(double zero, double factor, double sky, std::int32_t most,
                                std::int32_t offset, Grid<std::int32_t>& cells) const {
    const Making making{zero, factor, sky, static_cast<double>(most), offset};
    constexpr std::int32_t band = 32;
    ParallelFor((height_ + band - 1) / band, [&](int piece) {
        const std::int32_t first = piece * band;
        for (std::int32_t y = first; y < std::min(height_, first + band); ++y) {
            WithKind(held_, [&](auto kind) {
                using Kind = decltype(kind);
                std::int32_t* row = cells.Row(y).data();
                const auto* numbers = CellsOf<Kind>(y, doubles_, row);
                (HasAvx2() ? MakeRowForAvx2<Kind>
                           : MakeRowPlainly<Kind>)(numbers, row, static_cast<std::size_t>(width_),
                                                   making);
            });
        }
    });
}

}  // namespace vestrel
