// The quads of an image that a table may contain, formed once for the tables of all field sizes.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "astro/libPlateStar.h"
#include "matching/libQuadFile.h"

namespace vestrel {

/// Four stars of an image: their numbers in its list, rising.
using ImageQuad = std::array<std::int32_t, 4>;

/// Whether the quads of a band are three stars with one between them, not a star and three
/// neighbours.
bool IsNarrowBand(const QuadBand& band);

/// Which stars of an image lead quads.
struct LeadingStars {
    std::int32_t First = 16;    ///< how many first stars of the list lead quads in narrow fields;
                                ///< three times as many in wide ones
    std::int32_t LookedUp = 0;  ///< how many of these were looked up before: quads led by them
                                ///< alone are left out
};

/// In a narrow field quads are three of the leading stars, and one of the brightest in the circle
/// over their longest side. They are the same for all narrow bands, but for the longest side that
/// the tables have, so they are formed and put in order once. In a wide field quads are a leading
/// star and three of its neighbours; which stars these are depends on the band.
class ImageQuads {
 public:
    /// @param stars brightest first; must outlive this
    /// @param diagonal of the image, pixels
    ImageQuads(const PlateStarList& stars, double diagonal, const LeadingStars& leading);

    /// Those that the table of a band may contain, brightest first.
    std::vector<ImageQuad> For(const QuadBand& band) const;

 private:
    struct SidedQuad {
        ImageQuad Stars{};
        double Longest = 0;  ///< the longest side of its three leading stars, squared
    };
    void FormNarrow();
    void AddQuadsOver(const ImageQuad& triple, std::vector<SidedQuad>& quads) const;
    std::vector<ImageQuad> WideQuads(double neighbours) const;

    const PlateStarList& stars_;
    double diagonal_;
    LeadingStars leading_;
    std::vector<SidedQuad> narrow_;  ///< of all sizes, in order, each once
};

}  // namespace vestrel
