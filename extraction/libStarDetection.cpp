#include "extraction/libStarDetection.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <mutex>
#include <optional>
#include <vector>

#include "astro/libIntegerOrder.h"
#include "astro/libMath.h"
#include "extraction/libBrightRuns.h"
#include "extraction/libValueCounts.h"

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

/// The ignored border, in pixels.
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

/// Every third pixel inside the border, both ends included. At border 0 this includes the spare
/// column and row with their stored zeros.
class SkySamples {
 public:
    SkySamples(const PlateImage& image, Border border)
        : image_(image),
          firstX_(First(border.X)),
          firstY_(First(border.Y)),
          lastX_(Last(image.Width, border.X)),
          lastY_(Last(image.Height, border.Y)) {
        CountValues();
    }

    /// Sums over the samples of at most `limit` (counts).
    Sums SumsUpTo(double limit) const {
        const auto exact = ExactSums(limit);
        return exact ? *exact : SumsInOrder(limit);
    }

 private:
    static std::int64_t First(std::int64_t border) {
        // With a negative border the samples start outside the image and keep their phase.
        return border >= 0 ? border : (3 + border % 3) % 3;
    }
    static std::int64_t Last(std::int64_t size, std::int64_t border) {
        return std::min(size - border, size);
    }

    /// Counts how often each value occurs, so that the image is read once for all sums.
    void CountValues() {
        constexpr std::int64_t values = 65536;
        const PixelGrid& pixels = image_.Pixels;
        const SampleRange range{firstX_, lastX_, firstY_, lastY_};
        if (pixels.IsNarrow() && pixels.Least() == -image_.DataOffset) {
            counts_ = CountRanks(pixels, range);
            return;
        }
        std::mutex outsideLock;
        counts_ = CountByRows(range, values, [&](std::int32_t y, std::uint32_t* counts) {
            pixels.VisitRow(y, [&](auto row) {
                for (std::int64_t x = firstX_; x <= lastX_; x += 3) {
                    const std::int64_t value = std::int64_t{row[x]} + image_.DataOffset;
                    if (value >= 0 && value < values) {
                        ++counts[value];
                    } else {
                        const std::lock_guard lock(outsideLock);
                        outside_.push_back(value);
                    }
                }
            });
        });
    }

    /// The sums as whole numbers. Below 2^53 every order of adding gives the same 64-bit float, so
    /// the result equals `SumsInOrder`. Nothing when they are larger.
    std::optional<Sums> ExactSums(double limit) const {
        constexpr std::uint64_t exactLimit = std::uint64_t{1} << 53;
        constexpr std::int64_t largestValue = 1 << 20;
        // Samples are whole numbers, so the limit can be rounded down.
        const std::int64_t whole =
            limit < static_cast<double>(largestValue)
                ? static_cast<std::int64_t>(std::max(std::floor(limit), -1.0 * largestValue))
                : largestValue;
        std::int64_t count = 0;
        std::int64_t values = 0;
        std::uint64_t squares = 0;
        const auto add = [&](std::int64_t value, std::int64_t times) {
            count += times;
            values += times * value;
            squares += static_cast<std::uint64_t>(times * value * value);
        };
        // No more than 2^31 samples of 2^16 have squares of less than 2^63.
        const auto end = std::min(whole + 1, static_cast<std::int64_t>(counts_.size()));
        for (std::int64_t value = 0; value < end; ++value) {
            add(value, counts_[static_cast<std::size_t>(value)]);
        }
        for (const std::int64_t value : outside_) {
            if (value > largestValue || value < -largestValue) return std::nullopt;
            if (value <= whole) add(value, 1);
            if (squares >= exactLimit) return std::nullopt;
        }
        if (squares >= exactLimit) return std::nullopt;
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
    std::vector<std::uint32_t> counts_;  ///< of each value from 0 on
    std::vector<std::int64_t> outside_;  ///< values that are not counted there
};

// ---- Detection ---------------------------------------------------------------------------------

/// The stored value that a pixel must exceed for its physical value to exceed `threshold`.
std::int32_t StoredLevel(double threshold, std::int32_t offset) {
    constexpr auto largest = std::numeric_limits<std::int32_t>::max();
    constexpr auto smallest = std::numeric_limits<std::int32_t>::min();
    const double level = std::floor(threshold) - offset;
    if (!(level < largest)) return largest;  // nothing is above a threshold that is NaN
    return level > smallest ? static_cast<std::int32_t>(level) : smallest;
}

// ---- Measurement and rejection -----------------------------------------------------------------

/// The regions that can become stars, measured; the others, most of them hot pixels, would only
/// take memory.
struct Candidates {
    std::vector<std::int32_t> Place;  ///< of each region in `Regions`, by number; 0 = not there
    std::vector<Region> Regions;      ///< from place 1 on
};

/// Chooses the regions of several pixels, or all when single pixels count too.
Candidates ChooseCandidates(const BrightRuns& bright, std::int32_t count, bool singlePixels) {
    Candidates candidates;
    std::vector<std::int32_t>& pixels = candidates.Place;
    pixels.resize(static_cast<std::size_t>(count) + 1);
    bright.ForEach([&](std::int32_t, const BrightRun& run, const std::int32_t*) {
        pixels[static_cast<std::size_t>(run.Label)] += run.End - run.First;
    });
    std::int32_t places = 0;
    for (std::int32_t& region : candidates.Place) {
        region = region > 1 || (region == 1 && singlePixels) ? ++places : 0;
    }
    candidates.Regions.resize(static_cast<std::size_t>(places) + 1);
    return candidates;
}

/// Flux-weighted moments of the candidates, added up column by column.
void MeasureRegions(const BrightRuns& bright, std::int32_t dataOffset, double skyMean,
                    Candidates& candidates) {
    std::vector<Region>& regions = candidates.Regions;
    bright.ForEach([&](double x, const BrightRun& run, const std::int32_t* value) {
        const std::int32_t place = candidates.Place[static_cast<std::size_t>(run.Label)];
        if (place == 0) return;
        Region& region = regions[static_cast<std::size_t>(place)];
        for (std::int32_t rowNumber = run.First; rowNumber < run.End; ++rowNumber, ++value) {
            const double y = rowNumber;
            const double flux = static_cast<double>(*value) + dataOffset - skyMean;
            region.FluxSum += flux;
            region.PixelCount += 1;
            region.SumXF += x * flux;
            region.SumYF += y * flux;
            region.VarX += x * x * flux;
            region.VarY += y * y * flux;
        }
    });
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
}

/// Marks regions near the edges by a pixel count of 0. Regions without size count as one pixel,
/// even at the edge.
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

/// The regions of at least `fewest` pixels, the largest ones first. The order of equal ones depends
/// on all that are sorted, so those that are no candidates take part: they count as one pixel.
std::vector<Region> SortedByPixelCount(const Candidates& candidates, std::int32_t fewest) {
    std::vector<std::int32_t> pixels = candidates.Place;
    for (std::int32_t& place : pixels) {
        place = place == 0 ? 1
                           : static_cast<std::int32_t>(
                                 candidates.Regions[static_cast<std::size_t>(place)].PixelCount);
    }
    const std::vector<std::int32_t> order = CombSortedIntegers(pixels);
    std::vector<Region> sorted(1);
    for (std::size_t i = order.size() - 1; i >= 1; --i) {
        const auto region = static_cast<std::size_t>(order[i]);
        if (pixels[region] < fewest) break;
        sorted.push_back(candidates.Regions[static_cast<std::size_t>(candidates.Place[region])]);
    }
    return sorted;
}

/// Sorts regions 1..count by their light, brightest first.
void SortByFluxDescending(std::vector<Region>& regions, std::int32_t count) {
    std::vector<std::int32_t> order = CombSortedOrder(
        count, [&](std::int32_t i) { return regions[static_cast<std::size_t>(i)].FluxSum; });
    ReverseList(order, count);
    std::vector<Region> sorted;
    sorted.reserve(order.size());
    for (const std::int32_t place : order)
        sorted.push_back(regions[static_cast<std::size_t>(place)]);
    regions = std::move(sorted);
}

/// The size that a star must stay below, from the regions smaller than `limit`; nothing when there
/// are none.
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

/// Keeps the regions of ordinary size, in their order. Returns their number.
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

PlateStarList ExtractStars(const PlateImage& image, const DetectionSettings& settings,
                           ExtractionFacts& facts, const Progress& progress) {
    facts.StarsFound = 0;
    constexpr std::int32_t smallestSide = 20;
    if (image.Width < smallestSide || image.Height < smallestSide) return {};

    const Border border{RoundToNearestInt32(image.Width * settings.EdgeExclusion),
                        RoundToNearestInt32(image.Height * settings.EdgeExclusion)};
    const SkySamples samples(image, border);
    const Sums all = samples.SumsUpTo(std::numeric_limits<double>::infinity());
    if (all.Count == 0) return {};
    const MeanAndSigma rough = Statistics(all);
    const Sums clipped = samples.SumsUpTo(rough.Mean + 3 * rough.Sigma);
    if (clipped.Count == 0) return {};
    const MeanAndSigma sky = Statistics(clipped);
    facts.BackgroundSigma = sky.Sigma;
    facts.SkyMean = sky.Mean;
    // A sky without noise would make every ripple a star.
    const double threshold =
        sky.Sigma < 1.0 ? sky.Mean + 4.0 : sky.Mean + settings.DetectionThreshold * sky.Sigma;

    const std::int32_t level = StoredLevel(threshold, image.DataOffset);
    BrightRuns bright(image.Pixels, image.Width, image.Height, level, progress);
    const std::int32_t found = bright.Label(facts.MaxFillDepth);
    Candidates candidates = ChooseCandidates(bright, found, settings.MinStarSize <= 1);
    MeasureRegions(bright, image.DataOffset, sky.Mean, candidates);
    RejectAtEdges(candidates.Regions, image, border);
    std::vector<Region> regions = SortedByPixelCount(candidates, settings.MinStarSize);
    auto count = static_cast<std::int32_t>(regions.size()) - 1;
    if (count == 0) return {};
    count = RejectLarge(regions, count, settings.MaxStarSize);
    if (count == 0) return {};
    SortByFluxDescending(regions, count);
    facts.StarsFound = count;

    PlateStarList stars;
    for (std::size_t i = 1; i <= static_cast<std::size_t>(std::min(count, MaxExtractedStars));
         ++i) {
        const Region& region = regions[i];
        stars.Add({static_cast<float>(region.CentroidX), static_cast<float>(region.CentroidY),
                   static_cast<float>(region.FluxSum)});
    }
    return stars;
}

}  // namespace vestrel
