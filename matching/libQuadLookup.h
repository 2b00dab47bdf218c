// Looks up all quads of an image in the table of a band, and keeps the plates that the surrounding
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
#include "matching/libImageStars.h"
#include "matching/libQuadTables.h"

namespace vestrel {

/// Four stars of an image: their numbers in its list, rising.
using ImageQuad = std::array<std::int32_t, 4>;

/// Which quads are formed, and how exactly they are compared.
struct QuadLookupSettings {
    double SmallestDiagonal = 0;   ///< of the field, radians
    double LargestDiagonal = 0;    ///< radians
    std::int32_t FirstStars = 16;  ///< how many first stars of the list lead quads
    std::int32_t LookedUp = 0;     ///< how many first stars were looked up before: quads led by
                                   ///< these alone are left out
    double PlaceError = 0.5;       ///< of a star in the image, per axis, pixels
};

/// Whether the quads of a band are three stars with one between them, not a star and three
/// neighbours.
bool IsNarrowBand(const QuadBand& band);

/// The quads of an image that a table for these field sizes may contain, brightest first.
/// @param diagonal of the image, pixels
std::vector<ImageQuad> QuadsOfImage(const PlateStarList& stars, double diagonal,
                                    const QuadLookupSettings& settings);

class QuadLookup {
 public:
    /// @param image brightest first; must outlive this
    QuadLookup(QuadTables& tables, const ImageStars& image, const QuadLookupSettings& settings);

    /// Receives each plate that the table's stars confirm, on the camera's plane with its tangent
    /// point in the middle of the image; true ends the search.
    using Accept = std::function<bool(const CentredPlate&)>;

    /// @param stop asked before every quad; true ends the search
    /// @return whether a plate was accepted. @throws DamagedFile
    bool Search(const Accept& accept, const std::function<bool()>& stop);

    std::int32_t Searched() const { return searched_; }      ///< quads looked up
    std::int32_t Candidates() const { return candidates_; }  ///< table quads of the same shape
    std::int32_t Fitted() const { return fitted_; }          ///< plates that fitted four stars

 private:
    Quad ShapeOf(const ImageQuad& quad) const;
    Direction DirectionAt(std::int32_t star) const;
    bool Try(const ImageQuad& quad, const CatalogQuad& candidate, double tolerance,
             const Accept& accept);
    bool FitFour(const ImageQuad& quad, const std::array<CatalogStar, 4>& stars,
                 CentredPlate& plate) const;
    bool Confirmed(const ImageQuad& quad, const CentredPlate& plate);

    QuadTables& tables_;
    const ImageStars& image_;
    QuadLookupSettings settings_;
    double diagonal_;         ///< of the image, pixels
    double radiansPerPixel_;  ///< of a field in the middle of the band
    std::int32_t searched_ = 0;
    std::int32_t candidates_ = 0;
    std::int32_t fitted_ = 0;
};

}  // namespace vestrel
