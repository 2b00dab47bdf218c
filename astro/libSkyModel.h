// The ordinary photograph: a gnomonic map of the sky about the image centre, with the distortion of
// real lenses.
#pragma once

#include <cstdint>
#include <optional>

#include "astro/libPolynomial.h"
#include "astro/libSphericalMath.h"

namespace vestrel {

/// A point of the grid, pixels.
struct PixelPoint {
    double X = 0;
    double Y = 0;
};

/// A point of a gnomonic plane: its offset from the tangent point, radians toward east and north.
struct PlanePoint {
    double East = 0;
    double North = 0;
};

/// The gnomonic projection of a position about a tangent point (Calabretta & Greisen 2002, A&A 395,
/// 1077, section 5.1.3); nothing 90° or more away.
std::optional<PlanePoint> GnomonicOf(const SkyPosition& tangent, const SkyPosition& sky);
/// Its inverse; `Ra` in 0..2π.
SkyPosition SkyOfGnomonic(const SkyPosition& tangent, const PlanePoint& place);

/// Maps the pixels of an image to the sky and back.
///
/// With u and v the columns and rows from the image centre, (east, north) = Cd·(u + A(u, v), v +
/// B(u, v)) on the gnomonic plane that touches the sky at the image centre: the SIP convention
/// (Shupe et al. 2005, ASP Conf. Ser. 347, 491) in grid pixels. Outside the image, where nothing
/// was measured, the distortion stays what it is at the nearest point of the edge: so the map folds
/// over nowhere.
struct SkyModel {
    std::int32_t Width = 0;   ///< pixels
    std::int32_t Height = 0;  ///< pixels
    SkyPosition Tangent;   ///< the sky at the image centre, ((Width − 1) / 2, (Height − 1) / 2)
    double Cd[2][2] = {};  ///< radians toward east and north per pixel in X and in Y
    Polynomial Distortion[2];         ///< A and B, pixels: terms from degree 2 on; order 0: none
    Polynomial InverseDistortion[2];  ///< from corrected u, v back to the pixel's, within the image

    bool Distorted() const { return Distortion[0].Order > 1; }
    PixelPoint Centre() const { return {(Width - 1) / 2.0, (Height - 1) / 2.0}; }

    /// The J2000 position of a pixel, radians, right ascension in 0..2π.
    SkyPosition SkyOf(const PixelPoint& pixel) const;
    /// The pixel of a position, within 1e-9 pixels of the inverse of `SkyOf`; nothing 90° or more
    /// from the image centre.
    std::optional<PixelPoint> PixelOf(const SkyPosition& sky) const;
    /// The same for a point of the gnomonic plane about `Tangent`.
    PixelPoint PixelOf(const PlanePoint& place) const;
    /// The point of the gnomonic plane about `Tangent` that a pixel shows.
    PlanePoint PlaneOf(const PixelPoint& pixel) const;

    /// Radians per pixel at the image centre: the square root of the area that a pixel covers.
    double Scale() const;
};

/// Makes the inverse polynomials of a model. Their order rises from that of the distortion until
/// they are wrong by less than 0.01 pixels everywhere, up to one order more (at least 5, at most
/// 7). When none is that good, the last ones stay: `PixelOf` does not use them.
/// @return false when the model cannot be used: the map is not finite, or is close to folding over
bool CompleteSkyModel(SkyModel& model);

}  // namespace vestrel
