#include "extraction/libBoxPercentile.h"

#include <algorithm>
#include <bit>
#include <vector>

#include "astro/libMath.h"
#include "astro/libProcessor.h"
#include "extraction/libHistogramDrift.h"
#include "extraction/libHistogramTree.h"
#include "extraction/libLeafSamples.h"
#include "extraction/libNearPercentiles.h"

namespace vestrel {

namespace {

constexpr std::int32_t step = 3;
constexpr std::int32_t children = NodeChildren;
using Node = HistogramNode;
const SampleSums sampleSums;

/// A node of the box's histogram (the sum of the columns' nodes) at the box position where it was
/// last updated.
struct alignas(32) Window {
    Sixteen Before{};  ///< zeros, so that the sum before child 0 can be looked up too
    Sixteen Sums{};
    std::int32_t Node = -1;
    std::int32_t Column = 0;

    std::int16_t SumBefore(int child) const {
        return reinterpret_cast<const std::int16_t*>(&Before)[children - 1 + child];
    }
};

class Strip {
 public:
    Strip(const BoxSamples& samples, std::int32_t halfSize, double percentile, std::int32_t first,
          std::int32_t end)
        : samples_(samples),
          percentile_(percentile),
          reach_(halfSize / step),
          first_(first),
          end_(end),
          start_(first - reach_),
          width_(end - first + 2 * reach_),
          firstSample_(std::max(start_, 0)),
          endSample_(std::min(end + reach_, (samples.Width + step - 1) / step)),
          shape_(samples.High - samples.Low + 1),
          columns_(static_cast<std::size_t>(width_) * static_cast<std::size_t>(shape_.Nodes())),
          excessNodes_(shape_.Shift > 0 ? shape_.Nodes() : shape_.LeafNodeAt(0)),
          excess_(static_cast<std::size_t>(end - first) * static_cast<std::size_t>(excessNodes_)),
          rowLength_(width_ + 2 * children),
          leaves_(static_cast<std::size_t>(4 * reach_) * static_cast<std::size_t>(rowLength_)),
          leaving_(static_cast<std::size_t>(width_)),
          leafSamples_(shape_.Shift > 0 ? width_ : 0, 3 * reach_, reach_) {}

    VESTREL_KERNEL void Run(std::int32_t rows, Grid<std::int32_t>& blocks) {
        if (shape_.Shift > 0) {
            RunRows<true>(rows, blocks);
        } else {
            RunRows<false>(rows, blocks);
        }
    }

 private:
    // Rows of leaf numbers: first those that slide, then those of the first box, then those that
    // are removed without having been added.
    std::int32_t FirstRow(std::int32_t i) const { return 2 * reach_ + i; }
    std::int32_t OwedRow(std::int32_t i) const { return 3 * reach_ + i; }
    std::uint16_t* Leaves(std::int32_t row) {
        return leaves_.data() + static_cast<std::ptrdiff_t>(row) * rowLength_;
    }
    Node* Column(std::int32_t sampleColumn) {
        return columns_.data() +
               static_cast<std::ptrdiff_t>(sampleColumn - start_) * shape_.Nodes();
    }
    Node* Excess(std::int32_t column) {
        return excess_.data() + static_cast<std::ptrdiff_t>(column - first_) * excessNodes_;
    }

    VESTREL_KERNEL std::int32_t Held(std::int32_t stored) const {
        return std::min(std::max(stored + samples_.Offset, samples_.Darkest), samples_.Brightest) -
               samples_.Low;
    }
    /// Converts row y of the image to leaf numbers at `row`.
    template <bool Shared>
    VESTREL_KERNEL void TakeRow(std::int32_t y, std::int32_t row) {
        std::uint16_t* leaves = Leaves(row) - start_;
        const std::int32_t shift = Shared ? shape_.Shift : 0;
        samples_.Values.VisitRow(y, [=, this](auto pixels) VESTREL_KERNEL_LAMBDA {
            const std::int32_t end = endSample_;
            for (std::int32_t i = firstSample_; i < end; ++i) {
                leaves[i] = static_cast<std::uint16_t>(Held(pixels[i * step]) >> shift);
            }
        });
    }
    /// Stores the samples of row y at `place` in their columns, when leaves stand for several
    /// values.
    template <bool Shared>
    VESTREL_KERNEL void PlaceRow(std::int32_t y, std::int32_t place) {
        if constexpr (!Shared) return;
        samples_.Values.VisitRow(y, [=, this](auto pixels) VESTREL_KERNEL_LAMBDA {
            for (std::int32_t i = firstSample_; i < endSample_; ++i) {
                const std::int32_t held = Held(pixels[i * step]);
                const auto leaf = static_cast<std::uint16_t>(held >> shape_.Shift);
                leafSamples_.Set(i - start_, place, leaf, held & ((1 << shape_.Shift) - 1));
                if (place >= leafSamples_.OwedFrom()) leafSamples_.Owe(leaf);
            }
        });
    }

    /// The nodes of a column's histogram that contain a leaf, and the sums that a sample adds to
    /// each.
    struct Path {
        std::int32_t LeafNode;
        std::int32_t MiddleNode;
        const Sixteen& InLeafNode;
        const Sixteen& InMiddleNode;
        const Sixteen& InRoot;

        VESTREL_KERNEL Path(std::int32_t leaf, const Node* sums)
            : LeafNode(leaf / children),
              MiddleNode(leaf / (children * children)),
              InLeafNode(sums[leaf % children].Sums),
              InMiddleNode(sums[LeafNode % children].Sums),
              InRoot(sums[MiddleNode].Sums) {}
    };
    template <int Sign>
    VESTREL_KERNEL void CountRow(std::int32_t row) {
        const std::uint16_t* leaves = Leaves(row) - start_;
        const Node* sums = sampleSums.OfChild;
        const std::int32_t nodes = shape_.Nodes();
        Node* root = Column(firstSample_);
        Node* middle = root + shape_.MiddleAt(0);
        Node* leaf = root + shape_.LeafNodeAt(0);
        for (std::int32_t i = firstSample_; i < endSample_; ++i) {
            const Path path(leaves[i], sums);
            if constexpr (Sign > 0) {
                leaf[path.LeafNode].Sums += path.InLeafNode;
                middle[path.MiddleNode].Sums += path.InMiddleNode;
                root->Sums += path.InRoot;
            } else {
                leaf[path.LeafNode].Sums -= path.InLeafNode;
                middle[path.MiddleNode].Sums -= path.InMiddleNode;
                root->Sums -= path.InRoot;
            }
            root += nodes;
            middle += nodes;
            leaf += nodes;
        }
        boxRows_ += Sign;
    }
    /// Removes a row and adds another one.
    VESTREL_KERNEL void ExchangeRows(const std::uint16_t* out, const std::uint16_t* in) {
        const Node* sums = sampleSums.OfChild;
        const std::int32_t nodes = shape_.Nodes();
        Node* root = Column(firstSample_);
        Node* middle = root + shape_.MiddleAt(0);
        Node* leaf = root + shape_.LeafNodeAt(0);
        for (std::int32_t i = firstSample_ - start_; i < endSample_ - start_; ++i) {
            const Path gone(out[i], sums);
            const Path come(in[i], sums);
            leaf[gone.LeafNode].Sums -= gone.InLeafNode;
            leaf[come.LeafNode].Sums += come.InLeafNode;
            middle[gone.MiddleNode].Sums -= gone.InMiddleNode;
            middle[come.MiddleNode].Sums += come.InMiddleNode;
            root->Sums += come.InRoot - gone.InRoot;
            root += nodes;
            middle += nodes;
            leaf += nodes;
        }
    }

    /// Moves the boxes to block row k.
    template <bool Shared>
    VESTREL_KERNEL void MoveTo(std::int32_t k) {
        if (k == 0) {
            for (std::int32_t i = 0; i < reach_; ++i) {
                if (1 + step * i < samples_.Height) {
                    TakeRow<Shared>(1 + step * i, FirstRow(i));
                    PlaceRow<Shared>(1 + step * i, FirstRow(i));
                    CountRow<1>(FirstRow(i));
                }
                if (2 + step * i < samples_.Height) {
                    TakeRow<Shared>(2 + step * i, OwedRow(i));
                }
            }
            return;
        }
        // Rows 2, 5, 8, … have the numbers 0, 1, 2, …; a row is added 2·reach steps before it is
        // removed.
        const std::int32_t entering = k - 1 + reach_;
        const std::int32_t leaving = k - 1 - reach_;
        const std::int32_t place = entering % (2 * reach_);
        const bool enters = 2 + step * entering < samples_.Height;
        if (leaving >= reach_ && enters) {
            std::copy_n(Leaves(place), width_, leaving_.data());
            TakeRow<Shared>(2 + step * entering, place);
            PlaceRow<Shared>(2 + step * entering, place);
            ExchangeRows(leaving_.data(), Leaves(place));
            return;
        }
        if (leaving >= reach_) {
            CountRow<-1>(place);
        } else if (leaving >= 0) {
            CountRow<-1>(OwedRow(leaving));
            PlaceRow<Shared>(2 + step * leaving, leafSamples_.OwedFrom() + leaving);
        }
        if (enters) {
            TakeRow<Shared>(2 + step * entering, place);
            PlaceRow<Shared>(2 + step * entering, place);
            CountRow<1>(place);
        } else if constexpr (Shared) {
            leafSamples_.Clear(width_, place);
        }
    }

    /// Sets the excesses, with the rows of the first box or without them. The latter hold until all
    /// rows have been removed that were never added.
    void SetExcesses(bool withFirstRows) {
        HistogramDrift drift(shape_);
        const auto count = [&](std::int32_t column, std::int32_t sign) {
            if (column < firstSample_ || column >= endSample_) return;
            for (std::int32_t i = 0; i < reach_; ++i) {
                if (withFirstRows && 1 + step * i < samples_.Height) {
                    drift.AddFirst(Leaves(FirstRow(i))[column - start_], sign);
                }
                if (2 + step * i < samples_.Height) {
                    drift.AddOwed(Leaves(OwedRow(i))[column - start_], sign);
                }
            }
        };
        for (std::int32_t column = start_; column < first_ + reach_; ++column) count(column, 1);
        for (std::int32_t column = first_; column < end_; ++column) {
            count(column + reach_, 1);
            drift.SetExcesses(Excess(column));
            count(column - reach_, -1);
        }
    }

    /// A position of the box: its column of blocks, the column of samples that was just added, and
    /// the one that was just removed.
    struct Place {
        std::int32_t Column;
        const Node* Come;
        const Node* Gone;
    };

    /// Updates a node of the box to its present position.
    VESTREL_KERNEL void BringTo(Window& window, std::int32_t node, const Place& place) {
        const bool same = window.Node == node;
        if (same && window.Column + 1 == place.Column) [[likely]] {
            window.Sums += place.Come[node].Sums - place.Gone[node].Sums;
        } else if (same && window.Column == place.Column) {
            return;
        } else {
            const std::int32_t nodes = shape_.Nodes();
            // Adds either all columns of the box, or only the changes since the last update.
            std::int32_t columns = 2 * reach_ + 1;
            const Node* come = place.Come + node;
            if (same && place.Column - window.Column <= reach_) {
                columns = place.Column - window.Column;
                const Node* gone = place.Gone + node;
                for (std::int32_t i = 0; i < columns; ++i, gone -= nodes) window.Sums -= gone->Sums;
            } else {
                window.Sums = Sixteen{};
            }
            for (std::int32_t i = 0; i < columns; ++i, come -= nodes) window.Sums += come->Sums;
        }
        window.Node = node;
        window.Column = place.Column;
    }

    /// The first value at which the running sum of the box about `column` reaches `target`.
    template <bool Shared>
    VESTREL_KERNEL std::int32_t Find(const Place& place, const Node* excess, std::int32_t target) {
        const auto reached = [](const Sixteen& sums, const Node& more,
                                std::int32_t wanted) VESTREL_KERNEL_LAMBDA {
            return TrueLanes(sums + more.Sums > static_cast<std::int16_t>(wanted - 1));
        };
        for (unsigned i = reached(root_.Sums, excess[0], target); i != 0; i &= i - 1) {
            const std::int32_t middle = std::countr_zero(i);
            Window& middleWindow = middle_[middle % 2];
            BringTo(middleWindow, shape_.MiddleAt(middle), place);
            const std::int32_t middleTarget = target - root_.SumBefore(middle);
            for (unsigned j =
                     reached(middleWindow.Sums, excess[shape_.MiddleAt(middle)], middleTarget);
                 j != 0; j &= j - 1) {
                const std::int32_t child = std::countr_zero(j);
                const std::int32_t node = middle * children + child;
                Window& window = leafWindows_[node % 4];
                BringTo(window, shape_.LeafNodeAt(node), place);
                const std::int32_t leafTarget = middleTarget - middleWindow.SumBefore(child);
                if constexpr (!Shared) {
                    const unsigned k =
                        TrueLanes(window.Sums > static_cast<std::int16_t>(leafTarget - 1));
                    if (k != 0) return samples_.Low + node * children + std::countr_zero(k);
                    continue;
                }
                for (unsigned k = reached(window.Sums, excess[shape_.LeafNodeAt(node)], leafTarget);
                     k != 0; k &= k - 1) {
                    const std::int32_t last = std::countr_zero(k);
                    const std::int32_t leaf = node * children + last;
                    const std::int32_t column = place.Column - start_;
                    const std::int32_t above = leafSamples_.Find(
                        column - reach_, column + reach_, leaf, leafTarget - window.SumBefore(last),
                        place.Come + shape_.LeafNodeAt(node), shape_.Nodes());
                    if (above >= 0) return samples_.Low + (leaf << shape_.Shift) + above;
                }
            }
        }
        return samples_.High;
    }

    /// @tparam Shared whether leaves stand for several values
    template <bool Shared>
    VESTREL_KERNEL void RunRows(std::int32_t rows, Grid<std::int32_t>& blocks) {
        std::int32_t samples = -1;
        std::int32_t target = 0;
        for (std::int32_t k = 0; k < rows; ++k) {
            std::int32_t* blockRow = blocks.Row(k).data();
            MoveTo<Shared>(k);
            if (k == 0 || k == 2 * reach_) SetExcesses(k > 0);
            leafSamples_.Forget();
            root_.Node = -1;
            for (Window& window : middle_) window.Node = -1;
            for (Window& window : leafWindows_) window.Node = -1;
            const std::int32_t nodes = shape_.Nodes();
            Place place{first_, Column(first_ + reach_), Column(first_ - reach_) - nodes};
            const Node* excess = Excess(first_);
            for (; place.Column < end_; ++place.Column) {
                const std::int32_t boxColumns = std::min(place.Column + reach_ + 1, endSample_) -
                                                std::max(place.Column - reach_, firstSample_);
                if (boxRows_ * boxColumns != samples) {
                    samples = boxRows_ * boxColumns;
                    target = RoundToNearestInt32(samples * percentile_ / 100);
                }
                BringTo(root_, 0, place);
                blockRow[place.Column] =
                    target > 0 ? Find<Shared>(place, excess, target) : samples_.Low - 1;
                place.Come += nodes;
                place.Gone += nodes;
                excess += excessNodes_;
            }
        }
    }

    const BoxSamples& samples_;
    double percentile_;
    std::int32_t reach_;  ///< half the side of the box, in samples
    std::int32_t first_;
    std::int32_t end_;
    std::int32_t start_;  ///< the first column of samples that a box touches; may lie outside the
                          ///< image
    std::int32_t width_;
    std::int32_t firstSample_;
    std::int32_t endSample_;
    TreeShape shape_;
    std::vector<Node> columns_;
    std::int32_t excessNodes_;  ///< leaves have an excess only when they stand for several values
    std::vector<Node> excess_;
    std::int32_t rowLength_;
    std::vector<std::uint16_t> leaves_;
    std::vector<std::uint16_t> leaving_;  ///< the row that is removed
    LeafSamples leafSamples_;             ///< empty when a leaf is one value
    std::int32_t boxRows_ = 0;            ///< rows added minus rows removed
    Window root_;
    Window middle_[2];
    Window leafWindows_[4];
};

VESTREL_FOR_AVX2 void RunForAvx2(Strip& strip, std::int32_t rows, Grid<std::int32_t>& blocks) {
    strip.Run(rows, blocks);
}
void RunPlainly(Strip& strip, std::int32_t rows, Grid<std::int32_t>& blocks) {
    strip.Run(rows, blocks);
}

}  // namespace

void BoxPercentiles(const BoxSamples& samples, std::int32_t halfSize, double percentile,
                    std::int32_t first, std::int32_t end, std::int32_t rows,
                    Grid<std::int32_t>& blocks) {
    // In narrower vectors it would take longer than the trees.
    if (HasAvx2() && NearPercentiles(samples, halfSize, percentile, first, end, rows, blocks)) {
        return;
    }
    Strip strip(samples, halfSize, percentile, first, end);
    (HasAvx2() ? RunForAvx2 : RunPlainly)(strip, rows, blocks);
}

}  // namespace vestrel
