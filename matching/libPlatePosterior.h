// What is known of a plate from the pairs matched so far: a recursive least-squares estimate with
// its covariance, so that predictions far from the pairs are as uncertain as they should be.
//
// The scalar-update Kalman filter for a constant state (e.g. Gelb 1974, Applied Optimal Estimation,
// section 4.2). The state is a correction to predicted places, in pixels at the corner of the
// frame: shift, rotation and scale (unknown), stretch and skew, quadratic terms and a radial cubic
// one (likely to be small).
#pragma once

#include <array>
#include <cstddef>

namespace vestrel {

/// How much plates depart from a similarity, and stars from the plate.
struct PlateSpread {
    double Noise = 0.5;      ///< of a star's position against the plate, per axis, pixels (1 σ)
    double Stretch = 0.004;  ///< of |Stretch| − 1 and of Skew (1 σ)
    double Distortion = 0;   ///< of each term at the corner, as a fraction of the half-diagonal (1
                             ///< σ)
};

class PlatePosterior {
 public:
    /// @param width, height of the frame, pixels
    /// @param stretch, skew prior mean of these terms: the values that turn the predicted places
    ///                      into those of a similarity
    PlatePosterior(const PlateSpread& spread, int width, int height, double stretch, double skew);

    /// Where a star is expected relative to its predicted place, pixels, and how uncertain that is,
    /// square pixels.
    struct Place {
        double Dx = 0;
        double Dy = 0;
        double VarianceX = 0;
        double VarianceY = 0;
        double Covariance = 0;
    };
    /// @param x, y predicted place, pixels
    Place Predict(double x, double y) const;

    /// Learns that the star predicted at (x, y) was seen (dx, dy) pixels from there.
    /// @param variance of each axis
    void Learn(double x, double y, double dx, double dy, double variance);

 private:
    static constexpr std::size_t terms = 13;
    using Vector = std::array<double, terms>;
    /// By how much each term moves a star at a place, along both axes.
    void Rows(double x, double y, Vector& rowX, Vector& rowY) const;
    Vector TimesCovariance(const Vector& row) const;
    void LearnAxis(const Vector& row, double value, double variance);

    double halfDiagonal_;
    double middleX_;
    double middleY_;
    Vector mean_{};
    std::array<Vector, terms> covariance_{};  ///< by columns, so that one serves all rows at once
};

}  // namespace vestrel
