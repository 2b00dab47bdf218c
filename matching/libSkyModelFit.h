// The sky model through given pixels and positions: least squares, its errors, the least order that
// the data ask for; and the model of a plate that only its constants are known of.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "astro/libSkyModel.h"
#include "matching/libPlateFit.h"

namespace vestrel {

/// A pixel, and the position that it shows.
struct SkyPoint {
    PixelPoint Pixel;
    SkyPosition Sky;
};

/// A model, and how well the points determine it.
struct SkyModelFit {
    SkyModel Model;
    std::vector<double> Residuals;  ///< of each point, pixels
    double Squares = 0;             ///< sum of their squares
    std::vector<double> Leverages;  ///< how much of a point's own error its residual hides, 0..1

    /// The standard deviation of a coordinate of a point, pixels, for the freedom that is left; 0
    /// when none is.
    double Sigma = 0;
    double CentreSigma = 0;    ///< of the centre in any direction, pixels
    double ScaleSigma = 0;     ///< of the scale, as a part of it
    double RotationSigma = 0;  ///< radians
    double EdgeSigma = 0;      ///< of a coordinate where it is least sure: a corner or edge, pixels
    /// The same, when a coordinate of a star has the standard deviation 1: how well the points
    /// cover the image.
    double EdgeLeverage = 0;
};

/// What kind of distortion a model has: SIP polynomials with all their constants, or the few of a
/// lens. A lens moves a point along the line from its axis, by r³; where its axis does not meet the
/// image centre, that adds two constants for terms of the second order.
struct SkyModelShape {
    int Order = 1;  ///< 1: no polynomials; else up to `Polynomial::MostOrder`
    int Lens = 0;   ///< constants of a lens: 0, 1 or 3; not together with polynomials

    /// How many constants are fitted, for both coordinates.
    std::size_t Constants() const {
        return 2 * PolynomialTerms(Order) + static_cast<std::size_t>(Lens);
    }
};

/// Fits a model of a given shape by unweighted linear least squares on the gnomonic plane, which is
/// moved until it touches the sky at the image centre.
/// @param tangent a position near the image centre, less than 60° from all points
/// @return nothing when the points do not determine the model, or it is no usable map
std::optional<SkyModelFit> FitSkyModel(const std::vector<SkyPoint>& points, SkyModelShape shape,
                                       std::int32_t width, std::int32_t height,
                                       SkyPosition tangent);

/// The probability that the sum of squares of points without the distortion of a larger model falls
/// by as much as here, or more, when it is fitted: the F-test for nested linear models.
/// @param squares, largerSquares sums of squares of both models' residuals
/// @param points                 each of two coordinates
double ChanceOfImprovement(double squares, double largerSquares, std::size_t points,
                           SkyModelShape shape, SkyModelShape larger);

/// The model of a plate: of the orthographic plane about `tangent`, in `planeScale` units per
/// radian, through `constants`. Agrees with it to 0.01 pixels over the image as a rule, else 0.05.
/// @return nothing when the plate shows places off the sky, or too far apart for one photograph
std::optional<SkyModel> SkyModelOfPlate(const PlateConstants& constants, SkyPosition tangent,
                                        double planeScale, std::int32_t width, std::int32_t height);

}  // namespace vestrel
