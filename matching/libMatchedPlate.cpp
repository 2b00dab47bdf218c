#include "matching/libMatchedPlate.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <utility>
#include <vector>

#include "matching/libStarPlaces.h"

namespace vestrel {

namespace {

double Residual(const PlateStarList& catalog, const PlateStarList& image, const StarMatch& pair,
                const PlateConstants& plate) {
    const PlateStar& c = catalog[pair.Star1];
    const PlateStar& p = image[pair.Star2];
    double x = 0;
    double y = 0;
    ApplyPlateFit(plate, XOf(c), YOf(c), x, y);
    return std::hypot(XOf(p) - x, YOf(p) - y);
}

}  // namespace

void FitSimilarPlate(const PlateStarList& catalog, const PlateStarList& image,
                     const StarMatchList& pairs, PlateConstants& plate) {
    const double sign = plate.a * plate.e - plate.b * plate.d < 0 ? -1 : 1;
    double n = 0;
    double zx = 0;
    double zy = 0;
    double wx = 0;
    double wy = 0;
    for (const StarMatch& pair : pairs) {
        const PlateStar& c = catalog[pair.Star1];
        const PlateStar& p = image[pair.Star2];
        n += 1;
        zx += XOf(c);
        zy += sign * YOf(c);
        wx += XOf(p);
        wy += YOf(p);
    }
    zx /= n;
    zy /= n;
    wx /= n;
    wy /= n;
    double square = 0;
    double re = 0;
    double im = 0;
    for (const StarMatch& pair : pairs) {
        const PlateStar& c = catalog[pair.Star1];
        const PlateStar& p = image[pair.Star2];
        const double x = XOf(c) - zx;
        const double y = sign * YOf(c) - zy;
        const double u = XOf(p) - wx;
        const double v = YOf(p) - wy;
        square += x * x + y * y;
        re += u * x + v * y;
        im += v * x - u * y;
    }
    if (!(square > 0)) return;
    re /= square;
    im /= square;
    plate = {re, -sign * im, wx - re * zx + im * zy, im, sign * re, wy - im * zx - re * zy};
}

bool RefinePlate(const PlateStarList& catalog, const ImageStars& image, double tolerance,
                 MatchedPlate& match) {
    constexpr int mostRounds = 12;
    constexpr double closest = 1.2;       // pixels
    constexpr std::size_t fewest = 3;     // pairs
    constexpr std::size_t forSixths = 8;  // pairs for all six constants
    constexpr std::int32_t mostStars = std::numeric_limits<std::int16_t>::max();
    std::vector<double> residuals;
    std::size_t before = 0;
    for (int round = 0; round < mostRounds; ++round) {
        // When two catalog stars claim an image star, the nearer one gets it.
        std::vector<std::pair<double, std::int32_t>> owner(
            static_cast<std::size_t>(image.Count()) + 1, {0, 0});
        for (std::int32_t c = 1; c <= std::min(catalog.Count(), mostStars); ++c) {
            const PlateStar& star = catalog[c];
            double x = 0;
            double y = 0;
            ApplyPlateFit(match.Plate, XOf(star), YOf(star), x, y);
            if (!image.InFrame(x, y)) continue;
            const std::int32_t i = image.Nearest(x, y, tolerance);
            if (i == 0 || i > mostStars) continue;
            const PlateStar& there = image.Stars()[i];
            const double distance = std::hypot(XOf(there) - x, YOf(there) - y);
            auto& [nearest, who] = owner[static_cast<std::size_t>(i)];
            if (who == 0 || distance < nearest) {
                nearest = distance;
                who = c;
            }
        }
        match.Pairs.Clear();
        for (std::size_t i = 1; i < owner.size(); ++i) {
            if (owner[i].second == 0) continue;
            match.Pairs.Add({static_cast<std::int16_t>(owner[i].second),
                             static_cast<std::int16_t>(i), 0, true});
        }
        const auto count = static_cast<std::size_t>(match.Pairs.Count());
        if (count < fewest) return false;
        match.Similar = count < forSixths;
        if (match.Similar) {
            FitSimilarPlate(catalog, image.Stars(), match.Pairs, match.Plate);
        } else {
            NumberedList<double> ignored;
            FitPlate(catalog, image.Stars(), match.Pairs, match.Plate, ignored);
        }
        if (!std::isfinite(match.Plate.a + match.Plate.c + match.Plate.e + match.Plate.f)) {
            return false;
        }
        residuals.clear();
        double squares = 0;
        for (const StarMatch& pair : match.Pairs) {
            residuals.push_back(Residual(catalog, image.Stars(), pair, match.Plate));
            squares += residuals.back() * residuals.back();
        }
        match.Rms = std::sqrt(squares / static_cast<double>(count));
        const auto middle = residuals.begin() + static_cast<std::ptrdiff_t>(count / 2);
        std::nth_element(residuals.begin(), middle, residuals.end());
        // The median of such distances is 1.18 standard deviations along one axis.
        const double closer = std::clamp(3.5 * *middle / 1.18, closest, tolerance);
        if (closer >= 0.98 * tolerance && count == before) break;
        tolerance = std::max(closer, 0.6 * tolerance);
        before = count;
    }
    return true;
}

}  // namespace vestrel
