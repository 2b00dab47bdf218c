#include "matching/libPlateFit.h"

#include <array>
#include <cmath>
#include <limits>
#include <utility>

#include "astro/libMath.h"
#include "astro/libSphericalMath.h"

namespace vestrel {

namespace {

constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();

/// Three normal equations with two right sides: columns 0..2 the matrix, 3 and 4 the right sides.
using NormalEquations = std::array<std::array<double, 5>, 3>;

/// Solves in place by elimination; the solutions end in columns 3 and 4. False when the system is
/// singular.
///
/// The matrix is symmetric and positive: its pivots may be taken in any order, and a pivot divided
/// by its original diagonal value is the share of that unknown which the others do not explain
/// (1 − R²). So the test for a singular system does not depend on the units of the unknowns.
bool SolveNormalEquations(NormalEquations& rows) {
    constexpr double smallestShare = 1e-13;
    const std::array<double, 3> diagonal = {rows[0][0], rows[1][1], rows[2][2]};
    for (std::size_t k = 0; k < 3; ++k) {
        if (!(rows[k][k] > smallestShare * diagonal[k])) return false;
        for (std::size_t i = k + 1; i < 3; ++i) {
            const double factor = rows[i][k] / rows[k][k];
            for (std::size_t j = k; j < 5; ++j) rows[i][j] -= factor * rows[k][j];
        }
    }
    for (std::size_t right = 3; right < 5; ++right) {
        for (std::size_t k = 3; k-- > 0;) {
            for (std::size_t j = k + 1; j < 3; ++j) rows[k][right] -= rows[k][j] * rows[j][right];
            rows[k][right] /= rows[k][k];
        }
    }
    return true;
}

double Wide(float value) {
    return static_cast<double>(value);
}

}  // namespace

double FitPlate(const PlateStarList& list1, const PlateStarList& list2,
                const StarMatchList& matches, std::int32_t matchCount, PlateConstants& constants,
                std::vector<double>& residuals) {
    double n = 0;
    double x1Sum = 0;
    double y1Sum = 0;
    double x1x1 = 0;
    double y1y1 = 0;
    double x1y1 = 0;
    double x2Sum = 0;
    double y2Sum = 0;
    double x1x2 = 0;
    double y1x2 = 0;
    double x1y2 = 0;
    double y1y2 = 0;
    for (std::int32_t k = 1; k <= matchCount; ++k) {
        const StarMatch& match = matches[static_cast<std::size_t>(k)];
        if (!match.InUse) continue;
        const PlateStar& star1 = list1[static_cast<std::size_t>(match.Star1)];
        const PlateStar& star2 = list2[static_cast<std::size_t>(match.Star2)];
        const double x1 = Wide(star1.X);
        const double y1 = Wide(star1.Y);
        const double x2 = Wide(star2.X);
        const double y2 = Wide(star2.Y);
        n += 1;
        x1Sum += x1;
        y1Sum += y1;
        x1x1 += x1 * x1;
        y1y1 += y1 * y1;
        x1y1 += x1 * y1;
        x2Sum += x2;
        y2Sum += y2;
        x1x2 += x1 * x2;
        y1x2 += y1 * x2;
        x1y2 += x1 * y2;
        y1y2 += y1 * y2;
    }
    NormalEquations rows = {{{x1x1, x1y1, x1Sum, x1x2, x1y2},
                             {x1y1, y1y1, y1Sum, y1x2, y1y2},
                             {x1Sum, y1Sum, n, x2Sum, y2Sum}}};
    if (SolveNormalEquations(rows)) {
        constants = {rows[0][3], rows[1][3], rows[2][3], rows[0][4], rows[1][4], rows[2][4]};
    } else {
        constants = {notANumber, notANumber, notANumber, notANumber, notANumber, notANumber};
    }

    residuals.resize(static_cast<std::size_t>(matchCount) + 1);
    double squares = 0;
    for (std::int32_t k = 1; k <= matchCount; ++k) {
        const StarMatch& match = matches[static_cast<std::size_t>(k)];
        const PlateStar& star1 = list1[static_cast<std::size_t>(match.Star1)];
        const PlateStar& star2 = list2[static_cast<std::size_t>(match.Star2)];
        double x = 0;
        double y = 0;
        ApplyPlateFit(constants, Wide(star1.X), Wide(star1.Y), x, y);
        const double dx = Wide(star2.X) - x;
        const double dy = Wide(star2.Y) - y;
        const double residual = std::sqrt(dx * dx + dy * dy);
        residuals[static_cast<std::size_t>(k)] = residual;
        if (match.InUse) squares += residual * residual;
    }
    return std::sqrt(squares / n);
}

FitGeometry PlateGeometry(const PlateConstants& constants) {
    const auto& [a, b, c, d, e, f] = constants;
    FitGeometry geometry;
    geometry.Scale = std::sqrt(a * a + b * b);
    geometry.Stretch = (a * e - b * d) / (geometry.Scale * geometry.Scale);
    geometry.Angle = Atan2(-b, a);
    const double t = geometry.Stretch * geometry.Scale;
    const double cosine = std::cos(geometry.Angle);
    const double sine = std::sin(geometry.Angle);
    // Both forms are equal; the one with the larger divisor loses no digits.
    geometry.Skew =
        std::fabs(cosine) >= std::fabs(sine) ? (d / t - sine) / cosine : (cosine - e / t) / sine;
    geometry.OffsetX = c;
    geometry.OffsetY = f;
    return geometry;
}

void ApplyPlateFit(const PlateConstants& constants, double x1, double y1, double& x2, double& y2) {
    x2 = constants.a * x1 + constants.b * y1 + constants.c;
    y2 = constants.d * x1 + constants.e * y1 + constants.f;
}

void InvertPlateFit(const PlateConstants& constants, double x2, double y2, double& x1, double& y1) {
    const auto& [a, b, c, d, e, f] = constants;
    const double determinant = a * e - d * b;
    if (determinant == 0) {
        x1 = 0;
        y1 = 0;
        return;
    }
    x1 = ((x2 - c) * e - (y2 - f) * b) / determinant;
    y1 = (-(x2 - c) * d + (y2 - f) * a) / determinant;
}

}  // namespace vestrel
