// Looks up the quads of an image in the table of a band, and keeps the plates that the surrounding
// stars confirm.
//
// The quad match of the window (`MatchByQuads`) looks up one quad for each star. This search takes
// every quad of the image's first stars that the table could contain: in a narrow field three of
// them and one star between them, in a wide field one and three of its neighbours. So false and
// missing stars among the brightest ones spoil only some quads. Shapes are compared as exactly as
// the stars are measured, on the plane of a camera, which makes up for the number of quads.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <vector>

#include "astro/libSphericalMath.h"
#include "matching/libCameraPlane.h"
#include "matching/libImageQuads.h"
#include "matching/libImageStars.h"
#include "matching/libQuadTables.h"

namespace vestrel {

/// What a search has done so far.
struct LookupCounts {
    std::int32_t Searched = 0;    ///< quads looked up
    std::int32_t Candidates = 0;  ///< table quads of the same shape
    std::int32_t Fitted = 0;      ///< plates that fitted four stars
};
inline LookupCounts operator+(const LookupCounts& a, const LookupCounts& b) {
    return {a.Searched + b.Searched, a.Candidates + b.Candidates, a.Fitted + b.Fitted};
}

class QuadLookup {
 public:
    /// @param image brightest first; must outlive this
    /// @param band the range of sizes of the field, of which the tables need not be
    QuadLookup(QuadTables& tables, const ImageStars& image, const QuadBand& band);

    /// Receives each plate that the table's stars confirm, on the camera's plane with its tangent
    /// point in the middle of the image; true ends the search.
    using Accept = std::function<bool(const CentredPlate&)>;

    /// @param quads of the image, in the order in which they are looked up
    /// @param stop asked before every quad; true ends the search
    /// @return whether a plate was accepted. @throws DamagedFile
    bool Search(const std::vector<ImageQuad>& quads, const Accept& accept,
                const std::function<bool()>& stop);

    const LookupCounts& Counts() const { return counts_; }

 private:
    Quad ShapeOf(const ImageQuad& quad) const;
    /// Where a star is in the camera's own axes.
    const Direction& DirectionAt(std::int32_t star) const {
        return directions_[static_cast<std::size_t>(star)];
    }
    bool Try(const ImageQuad& quad, const CatalogQuad& candidate, double tolerance,
             const Accept& accept);
    bool FitFour(const ImageQuad& quad, const std::array<CatalogStar, 4>& stars,
                 CentredPlate& plate) const;
    bool Confirmed(const ImageQuad& quad, const CentredPlate& plate);

    QuadTables& tables_;
    const ImageStars& image_;
    QuadBand band_;
    double diagonal_;                    ///< of the image, pixels
    double radiansPerPixel_;             ///< of a field in the middle of the band
    std::vector<Direction> directions_;  ///< of all stars, by number
    LookupCounts counts_;
};

}  // namespace vestrel
