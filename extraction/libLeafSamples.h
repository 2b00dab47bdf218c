// Keeps the samples of a strip by columns, to count the values within one leaf of a box's
// histogram.
#pragma once

#include <bit>
#include <cstdint>
#include <vector>

#include "extraction/libHistogramTree.h"

namespace vestrel {

/// When leaves stand for several values, the samples in a leaf decide at which value a sum is
/// reached. They are kept column by column: a box that slides right examines the column that is
/// added and the one that is removed, 16 samples at once, and counts the values of the few samples
/// in the leaf.
///
/// A column has places for rows that count +1, then places for rows that count −1.
class LeafSamples {
 public:
    /// @param columns of samples
    /// @param counted rows of the box that count +1
    /// @param owed rows that count −1
    LeafSamples(std::int32_t columns, std::int32_t counted, std::int32_t owed)
        : owedFrom_(WholeVectors(counted)),
          places_(owedFrom_ + WholeVectors(owed)),
          leaves_(static_cast<std::size_t>(columns) * static_cast<std::size_t>(places_), noLeaf),
          lowParts_(leaves_.size()),
          owed_(columns > 0 ? MostLeaves : 0) {}

    /// The place of the first row that counts −1.
    std::int32_t OwedFrom() const { return owedFrom_; }

    VESTREL_KERNEL void Set(std::int32_t column, std::int32_t place, std::uint16_t leaf,
                            std::int32_t lowPart) {
        const std::size_t i = At(column) + static_cast<std::size_t>(place);
        leaves_[i] = leaf;
        lowParts_[i] = static_cast<std::uint8_t>(lowPart);
    }
    void Clear(std::int32_t columns, std::int32_t place) {
        for (std::int32_t column = 0; column < columns; ++column) Set(column, place, noLeaf, 0);
    }

    /// Discards the counts, when the box moves to another row.
    void Forget() {
        for (Counts& counts : counts_) counts.Leaf = -1;
    }

    /// Marks the leaf of a sample that counts −1 from now on. Such samples may cancel others of
    /// their leaf, so that its sum is 0 although sums inside it are not.
    void Owe(std::uint16_t leaf) { owed_[leaf] = 1; }

    /// Finds the value within a leaf: its distance from the leaf's first value, or a number below 0
    /// when the sum of the box's samples reaches `target` nowhere in the leaf.
    ///
    /// @param first, last the columns of the box
    /// @param inLast the histogram node of the leaf in column `last`; those of the columns before
    ///                    lie `nodes` apart
    VESTREL_KERNEL std::int32_t Find(std::int32_t first, std::int32_t last, std::int32_t leaf,
                                     std::int32_t target, const HistogramNode* inLast,
                                     std::int32_t nodes) {
        Counts& counts = counts_[leaf % cachedLeaves];
        const std::int32_t steps = first - counts.First;
        if (counts.Leaf == leaf && 2 * steps <= last - first) {
            for (std::int32_t i = 0; i < steps; ++i) {
                Count<-1>(counts, counts.First + i);
                Count<1>(counts, last - i);
            }
        } else {
            counts = Counts{};
            counts.Leaf = leaf;
            const std::int32_t child = leaf % NodeChildren;
            const bool mayHide = owed_[static_cast<std::size_t>(leaf)] != 0;
            for (std::int32_t column = last; column >= first; --column, inLast -= nodes) {
                if (mayHide || !inLast->IsEmpty(child)) Count<1>(counts, column);
            }
        }
        counts.First = first;
        unsigned reached = TrueLanes(counts.Sums.Low > static_cast<std::int16_t>(target - 1));
        reached |= TrueLanes(counts.Sums.High > static_cast<std::int16_t>(target - 1))
                   << NodeChildren;
        return reached == 0 ? -1 : std::countr_zero(reached);
    }

 private:
    static constexpr std::uint16_t noLeaf = 0xFFFF;
    static constexpr std::int32_t cachedLeaves = 4;

    /// The running sums over the values of a leaf.
    struct Sums {
        Sixteen Low{};
        Sixteen High{};
    };
    struct SumsOfSample {
        Sums OfValue[MostValuesOfLeaf];
        SumsOfSample() {
            for (std::int32_t value = 0; value < MostValuesOfLeaf; ++value) {
                for (std::int32_t i = 0; i < NodeChildren; ++i) {
                    OfValue[value].Low[i] = static_cast<std::int16_t>(i >= value ? 1 : 0);
                    OfValue[value].High[i] =
                        static_cast<std::int16_t>(i + NodeChildren >= value ? 1 : 0);
                }
            }
        }
    };
    static inline const SumsOfSample sumsOfSample;

    /// The sums over a leaf in the box whose first column is `First`.
    struct Counts {
        std::int32_t Leaf = -1;
        std::int32_t First = 0;
        LeafSamples::Sums Sums;
    };

    static std::int32_t WholeVectors(std::int32_t places) {
        return (places + NodeChildren - 1) / NodeChildren * NodeChildren;
    }
    std::size_t At(std::int32_t column) const {
        return static_cast<std::size_t>(column) * static_cast<std::size_t>(places_);
    }

    template <int Sign>
    VESTREL_KERNEL void Count(Counts& counts, std::int32_t column) const {
        const std::uint16_t* leaves = leaves_.data() + At(column);
        const std::uint8_t* lowParts = lowParts_.data() + At(column);
        const auto wanted = static_cast<std::int16_t>(counts.Leaf);
        Sums sums = counts.Sums;
        for (std::int32_t i = 0; i < places_; i += NodeChildren) {
            Sixteen some;
            __builtin_memcpy(&some, leaves + i, sizeof some);
            const bool add = (i < owedFrom_) == (Sign > 0);
            for (unsigned found = TrueLanes(some == wanted); found != 0; found &= found - 1) {
                const Sums& one = sumsOfSample.OfValue[lowParts[i + std::countr_zero(found)]];
                if (add) {
                    sums.Low += one.Low;
                    sums.High += one.High;
                } else {
                    sums.Low -= one.Low;
                    sums.High -= one.High;
                }
            }
        }
        counts.Sums = sums;
    }

    std::int32_t owedFrom_;
    std::int32_t places_;  ///< of a column
    std::vector<std::uint16_t> leaves_;
    std::vector<std::uint8_t> lowParts_;  ///< values minus the first value of their leaf
    std::vector<std::uint8_t> owed_;      ///< whether a leaf may hold samples that count −1
    Counts counts_[cachedLeaves];
};

}  // namespace vestrel
