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
/// The matrix is symmetric and positive definite, so its pivots may be taken in any order. A pivot
/// divided by its original diagonal value is the share of that unknown which the others do not
/// explain (1 − R²). So the test for a singular system does not depend on the units of the
/// unknowns.
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

/// The normal equations of x2 and y2 on (x1, y1, 1) over the pairs in use.
NormalEquations SumPairs(const PlateStarList& list1, const PlateStarList& list2,
                         const StarMatchList& matches) {
    NormalEquations rows{};
    for (const StarMatch& match : matches) {
        if (!match.InUse) continue;
        const PlateStar& star1 = list1[match.Star1];
        const PlateStar& star2 = list2[match.Star2];
        const std::array<double, 3> unknowns = {Wide(star1.X), Wide(star1.Y), 1};
        const std::array<double, 5> columns = {Wide(star1.X), Wide(star1.Y), 1, Wide(star2.X),
                                               Wide(star2.Y)};
        for (std::size_t i = 0; i < unknowns.size(); ++i) {
            for (std::size_t j = 0; j < columns.size(); ++j) rows[i][j] += unknowns[i] * columns[j];
        }
    }
    return rows;
}

}  // namespace

double FitPlate(const PlateStarList& list1, const PlateStarList& list2,
                const StarMatchList& matches, PlateConstants& constants,
                NumberedList<double>& residuals) {
    NormalEquations rows = SumPairs(list1, list2, matches);
    const double n = rows[2][2];
    if (SolveNormalEquations(rows)) {
        constants = {rows[0][3], rows[1][3], rows[2][3], rows[0][4], rows[1][4], rows[2][4]};
    } else {
        constants = {notANumber, notANumber, notANumber, notANumber, notANumber, notANumber};
    }

    residuals.Clear();
    double squares = 0;
    for (const StarMatch& match : matches) {
        const PlateStar& star1 = list1[match.Star1];
        const PlateStar& star2 = list2[match.Star2];
        double x = 0;
        double y = 0;
        ApplyPlateFit(constants, Wide(star1.X), Wide(star1.Y), x, y);
        const double dx = Wide(star2.X) - x;
        const double dy = Wide(star2.Y) - y;
        const double residual = std::sqrt(dx * dx + dy * dy);
        residuals.Add(residual);
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
    // Both forms are equal; the one with the larger divisor loses fewer digits.
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
