#include "photometry/libProfileFit.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>
#include <optional>
#include <vector>

#include "photometry/libAperture.h"

namespace vestrel {

namespace {

constexpr double smallestBeta = 1;
constexpr double largestBeta = 30;

struct Sample {
    double X;
    double Y;
    double Value;  ///< above the sky
};

template <std::size_t N>
using Vector = std::array<double, N>;

// Both profiles have the parameters height, x, y, log of the half width at half height, and more.
// Widths and exponents are fitted as logarithms, which keeps them positive.

struct GaussianProfile {
    static constexpr std::size_t Count = 4;
    static double Value(const Vector<Count>& p, const Sample& sample, Vector<Count>& slope) {
        const double dx = sample.X - p[1];
        const double dy = sample.Y - p[2];
        const double perSquare = std::numbers::ln2 * std::exp(-2 * p[3]);
        const double square = (dx * dx + dy * dy) * perSquare;
        slope[0] = std::exp(-square);
        const double value = p[0] * slope[0];
        slope[1] = 2 * value * dx * perSquare;
        slope[2] = 2 * value * dy * perSquare;
        slope[3] = 2 * value * square;
        return value;
    }
    static double BetaOf(const Vector<Count>&) { return 0; }
    static void Hold(Vector<Count>&) {}
};

struct MoffatProfile {
    static constexpr std::size_t Count = 5;
    static double Value(const Vector<Count>& p, const Sample& sample, Vector<Count>& slope) {
        const double dx = sample.X - p[1];
        const double dy = sample.Y - p[2];
        const double beta = std::exp(p[4]);
        const double root = std::exp2(1 / beta);
        const double perSquare = std::exp(-2 * p[3]);
        const double square = (dx * dx + dy * dy) * perSquare;
        const double base = 1 + (root - 1) * square;
        slope[0] = std::pow(base, -beta);
        const double value = p[0] * slope[0];
        const double steepness = 2 * beta * value * (root - 1) / base;
        slope[1] = steepness * dx * perSquare;
        slope[2] = steepness * dy * perSquare;
        slope[3] = steepness * square;
        slope[4] = value * (std::numbers::ln2 * root * square / base - beta * std::log(base));
        return value;
    }
    static double BetaOf(const Vector<Count>& p) { return std::exp(p[4]); }
    static void Hold(Vector<Count>& p) {
        p[4] = std::clamp(p[4], std::log(smallestBeta), std::log(largestBeta));
    }
};

/// Solves a symmetric positive system in place by Cholesky's decomposition; nothing when it is not
/// positive.
template <std::size_t N>
std::optional<Vector<N>> SolvePositive(std::array<Vector<N>, N> matrix, Vector<N> right) {
    for (std::size_t j = 0; j < N; ++j) {
        for (std::size_t i = j; i < N; ++i) {
            double sum = matrix[i][j];
            for (std::size_t k = 0; k < j; ++k) sum -= matrix[i][k] * matrix[j][k];
            if (i == j) {
                if (!(sum > 0)) return std::nullopt;
                matrix[j][j] = std::sqrt(sum);
            } else {
                matrix[i][j] = sum / matrix[j][j];
            }
        }
    }
    for (std::size_t i = 0; i < N; ++i) {
        for (std::size_t k = 0; k < i; ++k) right[i] -= matrix[i][k] * right[k];
        right[i] /= matrix[i][i];
    }
    for (std::size_t i = N; i-- > 0;) {
        for (std::size_t k = i + 1; k < N; ++k) right[i] -= matrix[k][i] * right[k];
        right[i] /= matrix[i][i];
    }
    return right;
}

template <typename Profile>
double SquaredResiduals(const std::vector<Sample>& samples, const Vector<Profile::Count>& p) {
    Vector<Profile::Count> slope{};
    double squares = 0;
    for (const Sample& sample : samples) {
        const double residual = sample.Value - Profile::Value(p, sample, slope);
        squares += residual * residual;
    }
    return squares;
}

/// Improves the parameters; false when it does not converge.
template <typename Profile>
bool Minimise(const std::vector<Sample>& samples, Vector<Profile::Count>& p, double& squares) {
    constexpr std::size_t n = Profile::Count;
    constexpr int mostSteps = 200;
    constexpr double largestDamping = 1e12;
    double damping = 1e-3;
    squares = SquaredResiduals<Profile>(samples, p);
    for (int step = 0; step < mostSteps; ++step) {
        std::array<Vector<n>, n> normal{};
        Vector<n> right{};
        Vector<n> slope{};
        for (const Sample& sample : samples) {
            const double residual = sample.Value - Profile::Value(p, sample, slope);
            for (std::size_t i = 0; i < n; ++i) {
                right[i] += slope[i] * residual;
                for (std::size_t j = 0; j <= i; ++j) normal[i][j] += slope[i] * slope[j];
            }
        }
        for (;;) {
            std::array<Vector<n>, n> damped = normal;
            for (std::size_t i = 0; i < n; ++i) damped[i][i] *= 1 + damping;
            const auto change = SolvePositive(damped, right);
            if (change) {
                Vector<n> next = p;
                for (std::size_t i = 0; i < n; ++i) next[i] += (*change)[i];
                Profile::Hold(next);
                const double nextSquares = SquaredResiduals<Profile>(samples, next);
                if (nextSquares <= squares) {
                    const double gain = squares - nextSquares;
                    p = next;
                    squares = nextSquares;
                    if (gain <= 1e-10 * squares) return true;
                    break;
                }
            }
            damping *= 10;
            // Not even smaller steps improve it: this is the minimum, to the last digit.
            if (damping > largestDamping) return true;
        }
        damping = std::max(damping / 10, 1e-12);
    }
    return false;
}

template <typename Profile>
ProfileFit Fit(const PlateImage& image, const ProfileFitStart& start, Vector<Profile::Count> p) {
    std::vector<Sample> samples;
    ForPixelsAround(image, start.X, start.Y, start.Radius,
                    [&](std::int32_t x, std::int32_t y, double dx, double dy) {
                        samples.push_back({dx, dy, PhysicalCount(image, x, y) - start.Sky});
                    });
    ProfileFit fit;
    if (samples.size() <= Profile::Count || !(start.Fwhm > 0) || !(start.Height > 0)) return fit;
    p[0] = start.Height;
    p[3] = std::log(start.Fwhm / 2);
    double squares = 0;
    const bool ended = Minimise<Profile>(samples, p, squares);
    fit.X = start.X + p[1];
    fit.Y = start.Y + p[2];
    fit.Height = p[0];
    fit.Fwhm = 2 * std::exp(p[3]);
    fit.Beta = Profile::BetaOf(p);
    fit.Residual = std::sqrt(squares / static_cast<double>(samples.size()));
    fit.Valid = ended && p[0] > 0 && std::hypot(p[1], p[2]) < start.Radius / 2 && fit.Fwhm > 0.2 &&
                fit.Fwhm < 4 * start.Radius && std::isfinite(fit.Residual);
    return fit;
}

}  // namespace

ProfileFit FitGaussian(const PlateImage& image, const ProfileFitStart& start) {
    return Fit<GaussianProfile>(image, start, {});
}

ProfileFit FitMoffat(const PlateImage& image, const ProfileFitStart& start) {
    constexpr double usualBeta = 3;
    return Fit<MoffatProfile>(image, start, {0, 0, 0, 0, std::log(usualBeta)});
}

}  // namespace vestrel
