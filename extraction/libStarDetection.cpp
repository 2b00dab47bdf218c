#include "extraction/libStarDetection.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>
#include <vector>

#include "astro/libMath.h"

namespace vestrel {

namespace {

/// A candidate region, in double precision throughout.
struct Region {
    double FluxSum = 0;
    double SumXF = 0;
    double SumYF = 0;
    double VarX = 0;  // first Σ x²·f, then the variance
    double VarY = 0;
    double Size = 0;
    double PixelCount = 0;
    double CentroidX = 0;
    double CentroidY = 0;
};

/// The border that is left out, in pixels.
struct Border {
    std::int32_t X;
    std::int32_t Y;
};

// ---- Sky statistics ----------------------------------------------------------------------------

struct Sums {
    std::int64_t Count = 0;
    double Values = 0;
    double Squares = 0;
};

struct MeanAndSigma {
    double Mean;
    double Sigma;
};

MeanAndSigma Statistics(const Sums& sums) {
    const double n = static_cast<double>(sums.Count);
    const double mean = sums.Values / n;
    // Rounding can leave a tiny negative variance.
    return {mean, std::sqrt(std::max(sums.Squares / n - mean * mean, 0.0))};
}

/// Every third pixel inside the border, both ends included: at border 0 that reaches the spare
/// column and row, whose stored zeros take part.
class SkySamples {
 public:
    SkySamples(const PlateImage& image, Border border)
        : image_(image),
          firstX_(First(border.X)),
          firstY_(First(border.Y)),
          lastX_(Last(image.Width, border.X)),
          lastY_(Last(image.Height, border.Y)) {}

    /// Sums over the samples of at most `limit` (counts).
    Sums SumsUpTo(double limit) const {
        const auto exact = ExactSums(limit);
        return exact ? *exact : SumsInOrder(limit);
    }

 private:
    static std::int64_t First(std::int64_t border) {
        // A negative border starts outside the image; the grid keeps its phase.
        return border >= 0 ? border : (3 + border % 3) % 3;
    }
    static std::int64_t Last(std::int64_t size, std::int64_t border) {
        return std::min(size - border, size);
    }

    /// The sums as whole numbers, row by row as the memory lies. While they stay below 2^53 every
    /// order of adding gives the same 64-bit float, so this equals `SumsInOrder`; beyond, nothing.
    std::optional<Sums> ExactSums(double limit) const {
        constexpr std::uint64_t exactLimit = std::uint64_t{1} << 53;
        constexpr std::int64_t largestValue = 1 << 20;
        std::int64_t count = 0;
        std::int64_t values = 0;
        std::uint64_t squares = 0;
        for (std::int64_t y = firstY_; y <= lastY_; y += 3) {
            const auto row = image_.Pixels.Row(static_cast<std::int32_t>(y));
            for (std::int64_t x = firstX_; x <= lastX_; x += 3) {
                const std::int64_t v =
                    std::int64_t{row[static_cast<std::size_t>(x)]} + image_.DataOffset;
                if (v > largestValue || v < -largestValue) return std::nullopt;
                if (static_cast<double>(v) <= limit) {
                    ++count;
                    values += v;
                    squares += static_cast<std::uint64_t>(v * v);
                }
            }
            if (squares >= exactLimit) return std::nullopt;
        }
        return Sums{count, static_cast<double>(values), static_cast<double>(squares)};
    }

    Sums SumsInOrder(double limit) const {
        Sums sums;
        for (std::int64_t x = firstX_; x <= lastX_; x += 3) {
            for (std::int64_t y = firstY_; y <= lastY_; y += 3) {
                const double v = static_cast<double>(image_.Pixels(static_cast<std::int32_t>(x),
                                                                   static_cast<std::int32_t>(y))) +
                                 image_.DataOffset;
                if (v <= limit) {
                    ++sums.Count;
                    sums.Values += v;
                    sums.Squares += v * v;
                }
            }
        }
        return sums;
    }

    const PlateImage& image_;
    std::int64_t firstX_;
    std::int64_t firstY_;
    std::int64_t lastX_;
    std::int64_t lastY_;
};

// ---- Detection ---------------------------------------------------------------------------------

/// The stored value that a pixel must exceed for its physical value to exceed `threshold`.
std::int32_t StoredLevel(double threshold, std::int32_t offset) {
    constexpr auto largest = std::numeric_limits<std::int32_t>::max();
    constexpr auto smallest = std::numeric_limits<std::int32_t>::min();
    const double level = std::floor(threshold) - offset;
    if (!(level < largest)) return largest;  // nothing is above a threshold that is no number
    return level > smallest ? static_cast<std::int32_t>(level) : smallest;
}

/// The rows of the pixels above a level, column by column, each in rising order.
using BrightRows = std::vector<std::vector<std::uint16_t>>;

/// Bright pixels are few: finding them once, in memory order, spares the later steps, which go
/// column by column, the sweep over the whole image.
BrightRows FindBrightPixels(const PlateImage& image, std::int32_t level, const Progress& progress) {
    BrightRows bright(static_cast<std::size_t>(image.Width));
    constexpr std::int32_t columnsPerPiece = 256;
    constexpr std::int32_t columnsPerLook = 32;
    const auto findInPiece = [&](int piece) {
        const std::int32_t first = piece * columnsPerPiece;
        const std::int32_t end = std::min(first + columnsPerPiece, image.Width);
        for (std::int32_t y = 0; y < image.Height; ++y) {
            const std::int32_t* row = image.Pixels.Row(y).data();
            for (std::int32_t x0 = first; x0 < end; x0 += columnsPerLook) {
                const std::int32_t x1 = std::min(x0 + columnsPerLook, end);
                std::int32_t largest = row[x0];
                for (std::int32_t x = x0; x < x1; ++x) largest = std::max(largest, row[x]);
                if (largest <= level) continue;
                for (std::int32_t x = x0; x < x1; ++x) {
                    if (row[x] > level) {
                        bright[static_cast<std::size_t>(x)].push_back(
                            static_cast<std::uint16_t>(y));
                    }
                }
            }
        }
    };
    ParallelFor((image.Width + columnsPerPiece - 1) / columnsPerPiece, findInPiece, progress);
    return bright;
}

/// Labels all regions; returns how many there are.
std::int32_t LabelRegions(const PlateImage& image, const BrightRows& bright, std::int32_t level,
                          Grid<std::int32_t>& labels, std::int32_t& maxFillDepth) {
    RegionFill fill{image.Pixels, image.Width, image.Height, level, labels, maxFillDepth};
    std::int32_t regions = 0;
    for (std::int32_t x = 0; x < image.Width; ++x) {
        for (const std::int32_t y : bright[static_cast<std::size_t>(x)]) {
            if (labels(x, y) == 0) {
                std::int32_t depth = 0;
                fill.FillRegion(x, y, ++regions, depth);
            }
        }
    }
    maxFillDepth = fill.MaxFillDepth;
    return regions;
}

// ---- Measurement and rejection -----------------------------------------------------------------

/// Flux-weighted moments of regions 1..count, added up column by column.
std::vector<Region> MeasureRegions(const PlateImage& image, const BrightRows& bright,
                                   const Grid<std::int32_t>& labels, std::int32_t count,
                                   double skyMean) {
    std::vector<Region> regions(static_cast<std::size_t>(count) + 1);
    for (std::int32_t column = 0; column < image.Width; ++column) {
        const double x = column;
        for (const std::int32_t rowNumber : bright[static_cast<std::size_t>(column)]) {
            const double y = rowNumber;
            Region& region = regions[static_cast<std::size_t>(labels(column, rowNumber))];
            const double flux =
                static_cast<double>(image.Pixels(column, rowNumber)) + image.DataOffset - skyMean;
            region.FluxSum += flux;
            region.PixelCount += 1;
            region.SumXF += x * flux;
            region.SumYF += y * flux;
            region.VarX += x * x * flux;
            region.VarY += y * y * flux;
        }
    }
    for (std::size_t k = 1; k < regions.size(); ++k) {
        Region& region = regions[k];
        if (region.FluxSum > 0) {
            const double flux = region.FluxSum;
            region.CentroidX = region.SumXF / flux;
            region.CentroidY = region.SumYF / flux;
            region.VarX = (region.VarX - region.CentroidX * region.CentroidX * flux) / flux;
            region.VarY = (region.VarY - region.CentroidY * region.CentroidY * flux) / flux;
        }
        // Rounding can leave tiny negative variances.
        if (region.PixelCount > 1) {
            region.Size = std::sqrt(std::max(region.VarX, 0.0) + std::max(region.VarY, 0.0));
        }
    }
    return regions;
}

/// Marks regions near the edges by a pixel count of 0. Regions without size count as one pixel,
/// also at the edge.
void RejectAtEdges(std::vector<Region>& regions, const PlateImage& image, Border border) {
    for (std::size_t k = 1; k < regions.size(); ++k) {
        Region& region = regions[k];
        const bool inside = border.X <= region.CentroidX &&
                            region.CentroidX <= static_cast<double>(image.Width) - border.X &&
                            border.Y <= region.CentroidY &&
                            region.CentroidY <= static_cast<double>(image.Height) - border.Y;
        if (!inside) region.PixelCount = 0;
        if (region.Size == 0) region.PixelCount = 1;
    }
}

/// Sorts regions 1..count by a key, largest first.
void SortDescending(std::vector<Region>& regions, std::int32_t count, double Region::*key) {
    std::vector<std::int32_t> order = CombSortedOrder(
        count, [&](std::int32_t i) { return regions[static_cast<std::size_t>(i)].*key; });
    ReverseList(order, count);
    std::vector<Region> sorted;
    sorted.reserve(order.size());
    for (const std::int32_t place : order)
        sorted.push_back(regions[static_cast<std::size_t>(place)]);
    regions = std::move(sorted);
}

void SortByFluxDescending(std::vector<Region>& regions, std::int32_t count) {
    SortDescending(regions, count, &Region::FluxSum);
}

void SortByPixelCountDescending(std::vector<Region>& regions, std::int32_t count) {
    SortDescending(regions, count, &Region::PixelCount);
}

/// The largest size that a star may have (not included), from the regions below `limit`; nothing
/// when there are none.
std::optional<double> SizeLimit(const std::vector<Region>& regions, std::int32_t count,
                                double limit, double maxStarSize) {
    Sums sums;
    for (std::int32_t i = 1; i <= count; ++i) {
        const double size = regions[static_cast<std::size_t>(i)].Size;
        if (size < limit) {
            ++sums.Count;
            sums.Values += size;
            sums.Squares += size * size;
        }
    }
    if (sums.Count == 0) return std::nullopt;
    const MeanAndSigma sizes = Statistics(sums);
    return maxStarSize * sizes.Sigma + sizes.Mean;
}

/// Keeps the regions of ordinary size, in their order; returns how many.
std::int32_t RejectLarge(std::vector<Region>& regions, std::int32_t count, double maxStarSize) {
    constexpr double unlimited = std::numeric_limits<double>::infinity();
    const auto first = SizeLimit(regions, count, unlimited, maxStarSize);
    const auto second = first ? SizeLimit(regions, count, *first, maxStarSize) : std::nullopt;
    if (!second) return 0;
    std::int32_t kept = 0;
    for (std::int32_t i = 1; i <= count; ++i) {
        const Region& region = regions[static_cast<std::size_t>(i)];
        if (region.Size < *second) regions[static_cast<std::size_t>(++kept)] = region;
    }
    return kept;
}

}  // namespace

void RegionFill::FillRegion(std::int32_t x, std::int32_t y, std::int32_t label,
                            std::int32_t& depth) {
    const auto unlabelledStar = [this](std::int32_t column, std::int32_t row) {
        return Pixels(column, row) > Level && Labels(column, row) < 1;
    };
    ++depth;
    MaxFillDepth = std::max(MaxFillDepth, depth);
    if (depth < DepthLimit && unlabelledStar(x, y)) {
        std::int32_t top = y;
        for (; top >= 0 && unlabelledStar(x, top); --top) Labels(x, top) = label;
        std::int32_t bottom = y + 1;
        for (; bottom < Height && unlabelledStar(x, bottom); ++bottom) Labels(x, bottom) = label;
        // The pixels just beyond the run belong to the span: that joins diagonal neighbours.
        top = std::max(top, 0);
        bottom = std::min(bottom, Height - 1);
        if (x > 0) {
            for (std::int32_t row = top; row <= bottom; ++row) {
                if (unlabelledStar(x - 1, row)) FillRegion(x - 1, row, label, depth);
            }
        }
        if (x < Width - 1) {
            for (std::int32_t row = top; row <= bottom; ++row) {
                if (unlabelledStar(x + 1, row)) FillRegion(x + 1, row, label, depth);
            }
        }
    }
    --depth;
}

void ExtractStars(const PlateImage& image, const DetectionSettings& settings, PlateStarList& stars,
                  std::int32_t& count, ExtractionFacts& facts, const Progress& progress) {
    facts.StarsFound = 0;
    count = 0;
    stars.clear();
    constexpr std::int32_t smallestSide = 20;
    if (image.Width < smallestSide || image.Height < smallestSide) return;

    const Border border{RoundToNearestInt32(image.Width * settings.EdgeExclusion),
                        RoundToNearestInt32(image.Height * settings.EdgeExclusion)};
    const SkySamples samples(image, border);
    const Sums all = samples.SumsUpTo(std::numeric_limits<double>::infinity());
    if (all.Count == 0) return;
    const MeanAndSigma rough = Statistics(all);
    const Sums clipped = samples.SumsUpTo(rough.Mean + 3 * rough.Sigma);
    if (clipped.Count == 0) return;
    const MeanAndSigma sky = Statistics(clipped);
    facts.BackgroundSigma = sky.Sigma;
    facts.SkyMean = sky.Mean;
    // A sky without noise would make every ripple a star.
    const double threshold =
        sky.Sigma < 1.0 ? sky.Mean + 4.0 : sky.Mean + settings.DetectionThreshold * sky.Sigma;

    const std::int32_t level = StoredLevel(threshold, image.DataOffset);
    const BrightRows bright = FindBrightPixels(image, level, progress);
    Grid<std::int32_t> labels(image.Width, image.Height, MemoryUse::Scattered);
    count = LabelRegions(image, bright, level, labels, facts.MaxFillDepth);
    std::vector<Region> regions = MeasureRegions(image, bright, labels, count, sky.Mean);

    RejectAtEdges(regions, image, border);
    SortByPixelCountDescending(regions, count);
    while (count > 0 &&
           regions[static_cast<std::size_t>(count)].PixelCount < settings.MinStarSize) {
        --count;
    }
    if (count == 0) return;
    count = RejectLarge(regions, count, settings.MaxStarSize);
    if (count == 0) return;
    SortByFluxDescending(regions, count);
    facts.StarsFound = count;
    count = std::min(count, MaxExtractedStars);

    constexpr std::size_t spareEntries = 10;
    stars.assign(static_cast<std::size_t>(count) + 1 + spareEntries, PlateStar());
    for (std::size_t i = 1; i <= static_cast<std::size_t>(count); ++i) {
        stars[i].X = static_cast<float>(regions[i].CentroidX);
        stars[i].Y = static_cast<float>(regions[i].CentroidY);
        stars[i].Flux = static_cast<float>(regions[i].FluxSum);
    }
}

}  // namespace vestrel
