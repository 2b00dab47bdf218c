// Converts between the sky and the pixels of a solved image.
//
// The map is either that of the plate constants, in the program's own orthographic projection
// (Calabretta & Greisen 2002, A&A 395, 1077, section 5.1.5; see docs/CONVENTIONS.md), so that
// anything drawn falls where the solve put it; or the sky model of all stars, which is accurate to
// the corners. Pixels and directions are those of the grid (see `FirstRowAtTop`); the window flips
// them together with the image.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "astro/libPlateStar.h"
#include "astro/libSkyModel.h"
#include "astro/libSphericalMath.h"
#include "image/libImage.h"

namespace vestrel {

/// The map between an image and the sky, in both directions.
class SkyMap {
 public:
    /// Nothing when the header holds no solution, or one that is singular or absurd.
    static std::optional<SkyMap> Of(const ImageHeader& header);
    /// The map of a model that `CompleteSkyModel` has accepted.
    static SkyMap Of(const SkyModel& model);

    /// The map of a part of the image, whose pixel (0, 0) is `corner` here.
    SkyMap PartFrom(const PixelPoint& corner) const;

    /// The pixel of a position; nothing on the far hemisphere, which the plane would fold onto this
    /// one.
    std::optional<PixelPoint> PixelOf(const SkyPosition& sky) const;

    /// The J2000 position (radians, right ascension in 0..2π) of a pixel; nothing beyond the rim of
    /// the sky. Unlike `Projection::PlaneToSky` with its short π, which is off by up to 0.0002″,
    /// this is the exact inverse: converting back and forth agrees to 1e-6 pixels.
    std::optional<SkyPosition> SkyOf(const PixelPoint& pixel) const;

    /// The directions (unit vectors on the grid) of north and east at a pixel; nothing off the sky.
    /// At a pole, "north" is along the meridian that `SkyOf` names.
    struct Compass {
        PixelPoint North;
        PixelPoint East;
    };
    std::optional<Compass> CompassAt(const PixelPoint& pixel) const;

    /// Pixels per radian at the tangent point, the geometric mean of all directions.
    double PixelsPerRadian() const;

 private:
    std::optional<Compass> CompassByStep(const PixelPoint& pixel, const SkyPosition& sky) const;

    Projection plane_;  ///< scale 1: plane units are radians
    // Pixels per radian, and the tangent point.
    double xXi_ = 0;
    double xEta_ = 0;
    double yXi_ = 0;
    double yEta_ = 0;
    PixelPoint tangent_;
    double determinant_ = 0;
    std::optional<SkyModel> model_;  ///< replaces all of the above when present
    PixelPoint corner_;              ///< corner of the part, in pixels of the model
};

/// A round angle and its length on the image.
struct ScaleBar {
    double Pixels = 0;
    double Arcseconds = 0;
    std::string Text;  ///< such as 30", 5' or 2°
};
/// The longest bar of a round angle (1, 2, 5, 10, 20 or 30 of a unit, decimals of an arcsecond)
/// that is no longer than `longest` pixels, at the image's tangent point; nothing when none within
/// 0.001″..45° fits.
std::optional<ScaleBar> ScaleBarFor(const SkyMap& map, double longest);

/// A star of a list and its distance from a given pixel.
struct NearestStar {
    std::int32_t Index = 0;  ///< in the list, from 1
    double Distance = 0;     ///< pixels
};
/// The catalog star whose place by the solution is nearest to a pixel; nothing for an empty list.
std::optional<NearestStar> NearestCatalogStar(const SkyMap& map, const PlateStarList& stars,
                                              const PixelPoint& pixel);

}  // namespace vestrel
