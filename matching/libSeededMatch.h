// A match that needs few true stars: two bright catalog stars and two stars of the image make a
// plate, and the other catalog stars of the frame confirm it or drop it.
//
// Hypotheses are dropped as early as a sequential odds test allows, after Lang et al. 2010 (AJ 139,
// 1782), section 3. Unlike triangle votes it knows the scale, so that a third of each list may be
// false.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "astro/libPlateStar.h"
#include "matching/libPlateFit.h"

namespace vestrel {

/// The stars of an image in buckets, to find the one at a place.
class ImageStars {
 public:
    /// @param stars pixels; they must outlive this
    ImageStars(const PlateStarList& stars, std::int32_t width, std::int32_t height);

    /// The star nearest to a place and closer than `reach` (pixels); 0 when there is none.
    std::int32_t Nearest(double x, double y, double reach) const;

    bool InFrame(double x, double y) const {
        return x > -0.5 && y > -0.5 && x < width_ - 0.5 && y < height_ - 0.5;
    }
    /// Stars per square pixel around a place of the frame, at least their mean over it.
    double DensityAt(double x, double y) const;
    std::int32_t Count() const { return stars_.Count(); }
    const PlateStarList& Stars() const { return stars_; }
    std::int32_t Width() const { return width_; }
    std::int32_t Height() const { return height_; }

 private:
    std::size_t Bucket(double x, double y) const;

    const PlateStarList& stars_;
    std::int32_t width_;
    std::int32_t height_;
    double side_;  ///< of a bucket, pixels
    std::int32_t columns_;
    std::int32_t rows_;
    std::vector<std::int32_t> starts_;  ///< of each bucket in `order_`
    std::vector<std::int32_t> order_;
    std::vector<double> density_;  ///< in cells of an eighth of the frame
};

/// A plate and the stars that agree with it.
struct MatchedPlate {
    PlateConstants Plate;  ///< catalog plane to pixels
    StarMatchList Pairs;   ///< catalog star, image star
    double Rms = 0;        ///< pixels
    bool Similar = false;  ///< too few pairs for more than a turn, a scale and a shift
    StarMatchList Seed;    ///< the pairs that the plate was made from first
};

/// The least-squares plate of a turn, a scale and a shift through the pairs.
/// @param plate says whether it is to be mirrored; the fit takes its place, unless all stars of the
///              catalog lie at one place
void FitSimilarPlate(const PlateStarList& catalog, const PlateStarList& image,
                     const StarMatchList& pairs, PlateConstants& plate);

/// Pairs every catalog star with the image star where the plate puts it, fits, and does so again
/// with a closer tolerance until nothing changes.
/// @param tolerance of the first round, pixels
/// @return false when fewer than 3 pairs are left
bool RefinePlate(const PlateStarList& catalog, const ImageStars& image, double tolerance,
                 MatchedPlate& match);

/// What is compared.
struct SeedSettings {
    double SmallestScale = 0;         ///< arcseconds per pixel
    double LargestScale = 0;          ///< arcseconds per pixel
    double TriedSmallest = 0;         ///< scales from this one were tried before and are left out
    double TriedLargest = 0;          ///< up to this one; 0: none were
    std::int32_t CatalogSeeds = 22;   ///< brightest catalog stars that seed
    std::int32_t ImageSeeds = 40;     ///< first stars of the image that seed
    std::int32_t CheckedStars = 120;  ///< brightest catalog stars that confirm
    double Tolerance = 4;             ///< of a seeded plate, pixels
};

/// Seeds of one image, matched with the catalog stars of one region after the other.
class SeedMatcher {
 public:
    SeedMatcher(const ImageStars& image, const SeedSettings& settings);

    /// Tries all plates that two catalog stars and two image stars give, brightest catalog stars
    /// first. @param catalog brightest first, arcseconds on a gnomonic plane
    /// @param accept shown every refined plate that many stars confirm; true ends the search
    /// @param stop asked now and then; true ends the search
    /// @return whether a plate was accepted
    bool Match(const PlateStarList& catalog, const std::function<bool(const MatchedPlate&)>& accept,
               const std::function<bool()>& stop);

    /// How many plates `Match` tries when none is accepted: as many pairs have the lengths for it.
    double PlatesOf(const PlateStarList& catalog) const;

 private:
    struct ImagePair {
        double Length;
        std::int32_t First;
        std::int32_t Second;
    };

    using PairPlaces =
        std::pair<std::vector<ImagePair>::const_iterator, std::vector<ImagePair>::const_iterator>;
    /// The pairs of the image that two catalog stars may be, in two parts: scales below those tried
    /// before and above.
    std::array<PairPlaces, 2> PairsLike(const PlateStar& star1, const PlateStar& star2) const;
    double PixelDistanceOf(std::int32_t i, std::int32_t j) const;
    struct CatalogPlace {
        double East;
        double North;
    };
    /// The four plates of a pair of catalog stars and a pair of the image. @return true: accepted
    bool TryPair(const PlateStarList& catalog, const std::vector<CatalogPlace>& checked,
                 std::int32_t c1, std::int32_t c2, const ImagePair& pair,
                 const std::function<bool(const MatchedPlate&)>& accept);
    bool Promising(const std::vector<CatalogPlace>& checked, const PlateConstants& plate);
    /// What is known of a cell without a closer look, which most plates never need.
    enum class Cell : std::uint8_t {
        Outside,  ///< of the frame
        Empty,    ///< in the frame, and farther than the tolerance from all stars of the image
        Unknown
    };
    void MarkCells();
    Cell& CellAt(std::int32_t column, std::int32_t row) {
        return cells_[static_cast<std::size_t>(row + 1) * static_cast<std::size_t>(columns_ + 2) +
                      static_cast<std::size_t>(column + 1)];
    }
    Cell CellOf(double x, double y) {
        // Without branches. There is one more row or column beyond each side.
        const double column = std::max(-1.0, std::min((x + 0.5) * cellsPerPixel_, columns_ * 1.0));
        const double row = std::max(-1.0, std::min((y + 0.5) * cellsPerPixel_, rows_ * 1.0));
        return CellAt(static_cast<std::int32_t>(column), static_cast<std::int32_t>(row));
    }

    const ImageStars& image_;
    SeedSettings settings_;
    std::vector<ImagePair> pairs_;  ///< of the image, by rising length
    double shortest_ = 0;           ///< pixels
    std::vector<Cell> cells_;       ///< half a tolerance wide, by row, with one more on each side
    std::int32_t columns_ = 0;
    std::int32_t rows_ = 0;
    double cellsPerPixel_ = 0;
    double tried_ = 0;
    std::vector<std::int32_t> taken_;  ///< per image star: the plate that met it last
    std::int32_t plateNumber_ = 0;
};

}  // namespace vestrel
