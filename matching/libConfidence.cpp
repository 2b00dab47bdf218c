#include "matching/libConfidence.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "astro/libMath.h"

namespace vestrel {

namespace {

/// The first free image star within the tolerance of a place; 0 when there is none.
std::int32_t StarMet(const MatchEvidence& evidence, const std::vector<bool>& met, double x,
                     double y) {
    for (std::int32_t i = 1; i <= evidence.ImageCount; ++i) {
        const PlateStar& star = evidence.ImageStars[static_cast<std::size_t>(i)];
        const double distance =
            std::hypot(static_cast<double>(star.X) - x, static_cast<double>(star.Y) - y);
        if (!met[static_cast<std::size_t>(i)] && distance < evidence.Tolerance) return i;
    }
    return 0;
}

/// The part of the image where the catalog stars are.
struct Box {
    double Left = INFINITY;
    double Right = -INFINITY;
    double Bottom = INFINITY;
    double Top = -INFINITY;

    void Include(double x, double y) {
        Left = std::min(Left, x);
        Right = std::max(Right, x);
        Bottom = std::min(Bottom, y);
        Top = std::max(Top, y);
    }
    /// How many image stars lie in it, those fitted left out.
    double StarsIn(const MatchEvidence& evidence) const {
        const auto inside = [this](const PlateStar& star) {
            const double x = static_cast<double>(star.X);
            const double y = static_cast<double>(star.Y);
            return x >= Left && x <= Right && y >= Bottom && y <= Top;
        };
        const auto first = evidence.ImageStars.begin() + 1;
        const auto count = std::count_if(first, first + evidence.ImageCount, inside);
        return std::max(static_cast<double>(count) - evidence.StarsFitted, 0.0);
    }
    double Area(double tolerance) const {
        const double least = 2 * tolerance;
        return std::max(Right - Left, least) * std::max(Top - Bottom, least);
    }
};

}  // namespace

double Log10BinomialTail(std::int32_t n, std::int32_t k, double p) {
    if (k <= 0 || p >= 1) return 0;
    if (k > n || !(p > 0)) return -999;
    // The terms are summed relative to the largest one, which is the one nearest to the mean.
    const auto logTerm = [n, p](std::int32_t i) {
        return std::lgamma(n + 1.0) - std::lgamma(i + 1.0) - std::lgamma(n - i + 1.0) +
               i * std::log(p) + (n - i) * std::log1p(-p);
    };
    const double largest = logTerm(std::max(k, static_cast<std::int32_t>((n + 1) * p)));
    double sum = 0;
    for (std::int32_t i = k; i <= n; ++i) sum += std::exp(logTerm(i) - largest);
    return std::clamp((largest + std::log(sum)) / std::log(10.0), -999.0, 0.0);
}

MatchConfidence ConfidenceOf(const PlateConstants& plate, const MatchEvidence& evidence) {
    MatchConfidence confidence;
    Box seen;
    std::vector<bool> met(static_cast<std::size_t>(evidence.ImageCount) + 1);
    for (std::int32_t c = 1; c <= evidence.CatalogCount; ++c) {
        const PlateStar& star = evidence.CatalogStars[static_cast<std::size_t>(c)];
        double x = 0;
        double y = 0;
        ApplyPlateFit(plate, static_cast<double>(star.X), static_cast<double>(star.Y), x, y);
        const bool inside =
            x > -0.5 && y > -0.5 && x < evidence.Width - 0.5 && y < evidence.Height - 0.5;
        if (!inside) continue;
        ++confidence.Candidates;
        seen.Include(x, y);
        const std::int32_t image = StarMet(evidence, met, x, y);
        if (image == 0) continue;
        met[static_cast<std::size_t>(image)] = true;
        ++confidence.Matched;
    }
    const std::int32_t trials = std::max(confidence.Candidates - evidence.StarsFitted, 0);
    const std::int32_t successes = std::max(confidence.Matched - evidence.StarsFitted, 0);
    // Stars that crowd where the catalog is compared meet more by chance than the mean tells.
    const double others = std::max(evidence.ImageCount - evidence.StarsFitted, 0);
    const double density =
        std::max(others / (static_cast<double>(evidence.Width) * evidence.Height),
                 seen.StarsIn(evidence) / seen.Area(evidence.Tolerance));
    const double chance = 1 - std::exp(-density * Pi * evidence.Tolerance * evidence.Tolerance);
    confidence.ExpectedByChance = trials * chance;
    confidence.Log10FalseAlarm = std::min(Log10BinomialTail(trials, successes, chance) +
                                              std::log10(std::max(evidence.Placements, 1.0)),
                                          0.0);
    return confidence;
}

}  // namespace vestrel
