// A match that needs few true stars: two bright catalog stars and two image stars make a plate, and
// the other catalog stars in the frame confirm or reject it.
//
// A sequential odds test rejects plates as early as it can (Lang et al. 2010, AJ 139, 1782, section
// 3). Unlike triangle votes this match knows the scale, so a third of each list may be false.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "matching/libImageStars.h"
#include "matching/libMatchedPlate.h"

namespace vestrel {

/// Which stars and scales a seeded match uses.
struct SeedSettings {
    double SmallestScale = 0;         ///< arcseconds per pixel
    double LargestScale = 0;          ///< arcseconds per pixel
    double TriedSmallest = 0;         ///< scales from this one to `TriedLargest` were tried before
                                      ///< and are left out
    double TriedLargest = 0;          ///< 0: none were tried
    std::int32_t CatalogSeeds = 22;   ///< how many of the brightest catalog stars form seeds
    std::int32_t ImageSeeds = 40;     ///< how many of the first image stars form seeds
    std::int32_t CheckedStars = 120;  ///< how many of the brightest catalog stars confirm a plate
    double Tolerance = 4;             ///< of a seeded plate, pixels
};

/// Matches one image with the catalog stars of regions, one after the other.
class SeedMatcher {
 public:
    SeedMatcher(const ImageStars& image, const SeedSettings& settings);

    /// Tries all plates that two catalog stars and two image stars give, brightest catalog stars
    /// first. @param catalog brightest first, arcseconds on a gnomonic plane
    /// @param accept receives every refined plate that many stars confirm; true ends the search
    /// @param stop called now and then; true ends the search
    /// @return whether a plate was accepted
    bool Match(const PlateStarList& catalog, const std::function<bool(const MatchedPlate&)>& accept,
               const std::function<bool()>& stop);

    /// How many plates `Match` tries when none is accepted: those whose pairs have suitable
    /// lengths.
    double PlatesOf(const PlateStarList& catalog) const;

 private:
    struct ImagePair {
        double Length;
        std::int32_t First;
        std::int32_t Second;
    };

    using PairPlaces =
        std::pair<std::vector<ImagePair>::const_iterator, std::vector<ImagePair>::const_iterator>;
    /// The image pairs that can correspond to two catalog stars, in two parts: with scales below
    /// and above those tried before.
    std::array<PairPlaces, 2> PairsLike(const PlateStar& star1, const PlateStar& star2) const;
    double PixelDistanceOf(std::int32_t i, std::int32_t j) const;
    struct CatalogPlace {
        double East;
        double North;
    };
    /// Tries the four plates of a pair of catalog stars and a pair of image stars. @return whether
    /// one was accepted
    bool TryPair(const PlateStarList& catalog, const std::vector<CatalogPlace>& checked,
                 std::int32_t c1, std::int32_t c2, const ImagePair& pair,
                 const std::function<bool(const MatchedPlate&)>& accept);
    bool Promising(const std::vector<CatalogPlace>& checked, const PlateConstants& plate);
    void WeighHits();
    /// What is known about a cell: most plates are rejected by this alone. A positive number is
    /// that of the image star which is the nearest one, and close enough, in the whole cell.
    using Cell = std::int16_t;
    static constexpr Cell outside = 0;   ///< of the frame
    static constexpr Cell empty = -1;    ///< farther than the tolerance from all image stars
    static constexpr Cell unknown = -2;  ///< has to be searched
    void MarkCells();
    void MarkStar(std::int32_t star);
    Cell& CellAt(std::int32_t column, std::int32_t row) {
        return cells_[static_cast<std::size_t>(row + 1) * static_cast<std::size_t>(columns_ + 2) +
                      static_cast<std::size_t>(column + 1)];
    }
    Cell CellOf(double x, double y) {
        // Works without branches, as there is one more row or column beyond each side.
        const double column = std::max(-1.0, std::min((x + 0.5) * cellsPerPixel_, columns_ * 1.0));
        const double row = std::max(-1.0, std::min((y + 0.5) * cellsPerPixel_, rows_ * 1.0));
        return CellAt(static_cast<std::int32_t>(column), static_cast<std::int32_t>(row));
    }
    /// The image star nearest to a place in such a cell and within the tolerance; 0 when there is
    /// none.
    std::int32_t StarIn(Cell cell, double x, double y) const;

    const ImageStars& image_;
    SeedSettings settings_;
    std::vector<ImagePair> pairs_;  ///< of the image, by rising length
    double shortest_ = 0;           ///< pixels
    std::vector<Cell> cells_;       ///< cells half a tolerance wide, row by row, with one more on
                                    ///< each side
    std::int32_t columns_ = 0;
    std::int32_t rows_ = 0;
    double cellsPerPixel_ = 0;
    double tried_ = 0;
    std::vector<double> hitGains_;  ///< by how much a confirming star raises the logarithm of the
                                    ///< odds, for each cell of the density
    std::vector<std::int32_t> taken_;  ///< per image star: the number of the plate that last used
                                       ///< it
    std::int32_t plateNumber_ = 0;
};

}  // namespace vestrel
