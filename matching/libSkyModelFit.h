// Fits the sky model to pairs of pixels and positions by least squares, with its errors and the
// F-test for its order; and converts a plate of which only the constants are known.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "astro/libSkyModel.h"
#include "matching/libPlateFit.h"

namespace vestrel {

/// A pixel and its position on the sky.
struct SkyPoint {
    PixelPoint Pixel;
    SkyPosition Sky;
};

/// A fitted model, and how well the points determine it.
struct SkyModelFit {
    SkyModel Model;
    std::vector<double> Residuals;  ///< of each point, pixels
    double Squares = 0;             ///< sum of their squares
    std::vector<double> Leverages;  ///< the share of a point's own error that its residual hides,
                                    ///< 0..1

    /// The standard deviation of a coordinate of a point, pixels, from the remaining degrees of
    /// freedom; 0 when there are none.
    double Sigma = 0;
    double CentreSigma = 0;    ///< of the centre in any direction, pixels
    double ScaleSigma = 0;     ///< of the scale, as a fraction of it
    double RotationSigma = 0;  ///< radians
    double EdgeSigma = 0;      ///< of a coordinate at the corner or edge where it is least certain,
                               ///< with what the shape may lack there, pixels
    /// The same for stars whose coordinates have the standard deviation 1: how well the points
    /// cover the image.
    double EdgeLeverage = 0;
};

/// The kind of distortion of a model: SIP polynomials with all their constants, or the few
/// constants of a lens. A lens moves a point away from its axis in proportion to r³, a strong one
/// also to r⁵ and r⁷. When its axis does not meet the image centre, two more constants describe the
/// terms of second order.
struct SkyModelShape {
    int Order = 1;         ///< 1: no polynomials; else up to `Polynomial::MostOrder`
    int Radial = 0;        ///< terms of a lens along the radius, 0..3; above 0 only with `Order` 1
    bool OffAxis = false;  ///< with the two constants of the axis; only with radial terms

    /// How many constants are fitted, for both coordinates.
    std::size_t Constants() const {
        return 2 * PolynomialTerms(Order) + static_cast<std::size_t>(Radial) + (OffAxis ? 2 : 0);
    }
};

/// Fits a model of a given shape by unweighted linear least squares on the gnomonic plane, which is
/// moved until it touches the sky at the image centre.
/// @param tangent a position near the image centre, less than 60° from all points
/// @return nothing when the points do not determine the model, or `CompleteSkyModel` refuses it
std::optional<SkyModelFit> FitSkyModel(const std::vector<SkyPoint>& points, SkyModelShape shape,
                                       std::int32_t width, std::int32_t height,
                                       SkyPosition tangent);

/// About how far (pixels) the terms that a shape lacks move a corner of a fitted model. Each term
/// of a lens is about 2d / r times the one before, where they move a corner at r by d; most of it
/// is taken up by the terms that are fitted.
double LeftOutOf(const SkyModel& model, const SkyModelShape& shape);

/// The probability that fitting a larger model reduces the sum of squares by this much or more
/// although the points do not have its distortion: the F-test for nested linear models.
/// @param squares, largerSquares sums of squares of both models' residuals
/// @param points number of points, of two coordinates each
double ChanceOfImprovement(double squares, double largerSquares, std::size_t points,
                           SkyModelShape shape, SkyModelShape larger);

/// The model of a plate: of the orthographic plane about `tangent`, in `planeScale` units per
/// radian, through `constants`. It agrees with the plate to 0.05 pixels over the image, usually
/// to 0.01.
/// @return nothing when the plate shows places off the sky, or spans more than one photograph can
std::optional<SkyModel> SkyModelOfPlate(const PlateConstants& constants, SkyPosition tangent,
                                        double planeScale, std::int32_t width, std::int32_t height);

}  // namespace vestrel
