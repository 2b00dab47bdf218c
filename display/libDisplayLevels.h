// The histogram of an image, the counts to show as black and white, and the transfer between them.
//
// All counts are physical: stored value + `DataOffset`. Only `GreyLookup` takes stored values, as
// they are in the pixels. Sky and noise come from clipping about the median (Da Costa 1992, ASP
// Conf. Ser. 23, 90); the transfers are those of common image viewers, the arc-hyperbolic sine
// after Lupton et al. 1999 (AJ 118, 1406).
#pragma once

#include <cstdint>
#include <vector>

#include "image/libImage.h"

namespace vestrel {

/// Counts `Low`..`High` in bins of `BinWidth` whole counts; bin k holds Low + k × BinWidth and the
/// BinWidth − 1 counts after it.
struct ImageHistogram {
    std::int64_t Low = 0;  ///< the smallest count of the image
    std::int64_t High = 0;
    std::int64_t BinWidth = 1;
    std::vector<std::int64_t> Bins;  ///< numbers of pixels; empty when the image is
    std::int64_t Pixels = 0;

    /// The count below which a fraction (0..1) of the pixels lies, as if the pixels of a bin were
    /// spread evenly from half a count below its first count; 0 without pixels.
    double Quantile(double fraction) const;
};

/// The most bins of a histogram: a bin for each count of a 16-bit image.
inline constexpr std::int64_t MostHistogramBins = 65536;

/// Counts all pixels, in parallel.
/// @param mostBins 1..`MostHistogramBins`
ImageHistogram MakeImageHistogram(const PlateImage& image,
                                  std::int64_t mostBins = MostHistogramBins);

struct SkyEstimate {
    double Level = 0;  ///< counts
    double Noise = 0;  ///< standard deviation of a pixel
};
/// Estimates the sky of an image of which stars, or a border without data, cover less than half.
SkyEstimate EstimateSky(const ImageHistogram& histogram);

/// Counts that are shown black and white; `White` is above `Black`.
struct CountLevels {
    double Black = 0;
    double White = 1;
};

/// Levels that show stars and noise: black is two sigmas below the sky; white is where 99.7 % of
/// the pixels lie below, and at least ten sigmas above the sky.
CountLevels LevelsFromHistogram(const ImageHistogram& histogram);

/// Whether the header's `CBLACK` and `CWHITE` would show anything: white is above black and above
/// the sky, black no more than three sigmas above the sky, and the range is neither fifty times
/// narrower nor wider than that of `LevelsFromHistogram`. Hints for an image whose background has
/// been subtracted since, and the 0 of absent cards, fail.
bool HeaderLevelsSensible(const ImageHeader& header, const ImageHistogram& histogram);

/// The first levels of an image: those of the header when they are sensible, else those from its
/// histogram.
CountLevels FirstLevels(const ImageHeader& header, const ImageHistogram& histogram);

enum class Transfer { Linear, SquareRoot, Asinh, Logarithmic };

/// The brightness (0..1) of a value between black (0) and white (1): x, √x, asinh(10 x) / asinh(10)
/// or log(1 + 1000 x) / log(1001). Values outside are clamped; NaN is black.
double Transferred(Transfer transfer, double place);

/// Converts stored values to grey values by a table. It is exact for ranges up to 131072 counts;
/// larger ranges have more than 65536 even steps.
class GreyLookup {
 public:
    /// @param dataOffset of the image
    /// @param inverted   black stars on white
    GreyLookup(const CountLevels& levels, std::int32_t dataOffset, Transfer transfer,
               bool inverted);

    std::uint8_t operator()(std::int32_t stored) const {
        const std::int64_t above = stored - first_;
        if (above <= 0) return table_.front();
        const auto step = static_cast<std::uint64_t>(above) >> shift_;
        return step < table_.size() ? table_[step] : table_.back();
    }

 private:
    std::int64_t first_ = 0;  ///< the stored value of the table's first entry
    int shift_ = 0;           ///< values per entry, as a power of two
    std::vector<std::uint8_t> table_;
};

}  // namespace vestrel
