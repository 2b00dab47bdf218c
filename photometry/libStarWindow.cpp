#include "photometry/libStarWindow.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace vestrel {

namespace {

/// The pixel with the highest smoothed count among `here` and its neighbours.
GridPixel HighestNeighbour(const PlateImage& image, GridPixel here) {
    GridPixel highest = here;
    double height = SmoothedCount(image, here.X, here.Y);
    for (std::int32_t j = -1; j <= 1; ++j) {
        for (std::int32_t i = -1; i <= 1; ++i) {
            if (!HasPixel(image, {here.X + i, here.Y + j})) continue;
            const double there = SmoothedCount(image, here.X + i, here.Y + j);
            if (there > height) {
                height = there;
                highest = {here.X + i, here.Y + j};
            }
        }
    }
    return highest;
}

bool Same(GridPixel a, GridPixel b) {
    return a.X == b.X && a.Y == b.Y;
}

/// The distance from the peak at which a star's light stops falling because a neighbour's begins:
/// compares the brightest pixels of rings, one pixel wide, from the inside out. `largest` when
/// there is no neighbour.
double ValleyRadius(const PlateImage& image, GridPixel peak, const LocalBackground& sky,
                    double gain, double largest) {
    std::vector<double> brightest(static_cast<std::size_t>(largest) + 2, 0);
    ForPixelsAround(
        image, peak.X, peak.Y, largest, [&](std::int32_t x, std::int32_t y, double dx, double dy) {
            double& ring = brightest[static_cast<std::size_t>(std::lround(std::hypot(dx, dy)))];
            ring = std::max(ring, SmoothedCount(image, x, y) - sky.Level);
        });
    std::size_t lowest = 0;
    for (std::size_t k = 1; k < brightest.size(); ++k) {
        if (brightest[k] < brightest[lowest]) lowest = k;
        const double rise = brightest[k] - brightest[lowest];
        if (rise > SignificantSigmas * SmoothedNoise(sky, gain, brightest[k]) &&
            rise > 0.02 * brightest[0]) {
            constexpr double smallest = 2;
            return std::max(static_cast<double>(lowest) + 0.5, smallest);
        }
    }
    return largest;
}

}  // namespace

bool HasPixel(const PlateImage& image, GridPixel pixel) {
    return pixel.X >= 0 && pixel.Y >= 0 && pixel.X < image.Width && pixel.Y < image.Height;
}

double SmoothedCount(const PlateImage& image, std::int32_t x, std::int32_t y) {
    double sum = 0;
    for (std::int32_t j = -1; j <= 1; ++j) {
        for (std::int32_t i = -1; i <= 1; ++i) {
            const std::int32_t column = std::clamp(x + i, 0, image.Width - 1);
            const std::int32_t row = std::clamp(y + j, 0, image.Height - 1);
            sum += (2 - std::abs(i)) * (2 - std::abs(j)) * PhysicalCount(image, column, row);
        }
    }
    return sum / 16;
}

double SmoothedNoise(const LocalBackground& sky, double gain, double excess) {
    // The root of the sum of the squared weights, when the pixels are independent.
    constexpr double weight = 0.375;
    const double photons = gain > 0 ? weight * std::sqrt(std::max(excess, 0.0) / gain) : 0;
    return std::hypot(sky.Scatter * std::min(1.0, weight * std::sqrt(sky.Correlation)), photons);
}

bool IsPeak(const PlateImage& image, GridPixel pixel) {
    return Same(HighestNeighbour(image, pixel), pixel);
}

GridPixel PeakNear(const PlateImage& image, double x, double y, double radius,
                   const LocalBackground& sky) {
    const double limit = SignificantSigmas * SmoothedNoise(sky, 0, 0);
    GridPixel peak{static_cast<std::int32_t>(std::clamp(std::round(x), 0.0, image.Width - 1.0)),
                   static_cast<std::int32_t>(std::clamp(std::round(y), 0.0, image.Height - 1.0))};
    double best = 0;
    bool bestIsPeak = false;
    ForPixelsAround(
        image, x, y, radius, [&](std::int32_t column, std::int32_t row, double dx, double dy) {
            const double excess = SmoothedCount(image, column, row) - sky.Level;
            if (excess <= limit) return;
            const GridPixel here{column, row};
            const bool isPeak = IsPeak(image, here);
            const double weighted = excess * std::exp(-2 * (dx * dx + dy * dy) / (radius * radius));
            if (isPeak < bestIsPeak || (isPeak == bestIsPeak && weighted <= best)) return;
            best = weighted;
            bestIsPeak = isPeak;
            peak = here;
        });
    const int mostSteps = static_cast<int>(4 * radius);
    for (int step = 0; step < mostSteps; ++step) {
        const GridPixel next = HighestNeighbour(image, peak);
        if (Same(next, peak)) break;
        peak = next;
    }
    return peak;
}

WindowedStar FollowWindow(const PlateImage& image, GridPixel peak, const LocalBackground& sky,
                          double largestRadius, double gain) {
    constexpr double startSigma = 1.5;
    constexpr double smallestSigma = 0.5;
    constexpr int mostRounds = 60;
    constexpr double reach = 3;  // window sigmas: all but a millionth of the star
    // The moment shifts by 1 / 1.5 of the star's shift when the window's variance is twice the
    // star's.
    constexpr double shiftPerMoment = 1.5;
    WindowedStar star{false, double(peak.X), double(peak.Y), startSigma, 0};
    const double largestSigma = std::max(largestRadius / 2, startSigma);
    // The window would run away to a brighter neighbour.
    const double valley = ValleyRadius(image, peak, sky, gain, 2 * largestRadius);
    for (int round = 0; round < mostRounds; ++round) {
        const double windowVariance = 2 * star.Sigma * star.Sigma;
        double sum = 0;
        double sumX = 0;
        double sumY = 0;
        double sumSquares = 0;
        double noise = 0;
        ForPixelsAround(image, star.X, star.Y, std::min(reach * std::sqrt(windowVariance), valley),
                        [&](std::int32_t x, std::int32_t y, double dx, double dy) {
                            const double square = dx * dx + dy * dy;
                            const double weight = std::exp(-square / (2 * windowVariance));
                            const double value = PhysicalCount(image, x, y) - sky.Level;
                            sum += weight * value;
                            sumX += weight * value * dx;
                            sumY += weight * value * dy;
                            sumSquares += weight * value * square;
                            const double photons = gain > 0 ? std::max(value, 0.0) / gain : 0;
                            noise += weight * weight * square / 2 *
                                     (photons + sky.Scatter * sky.Scatter * sky.Correlation);
                        });
        if (!(sum > 0)) return star;
        double dx = shiftPerMoment * sumX / sum;
        double dy = shiftPerMoment * sumY / sum;
        const double step = std::hypot(dx, dy);
        if (step > 1) {
            dx /= step;
            dy /= step;
        }
        star.X += dx;
        star.Y += dy;
        if (!(std::hypot(star.X - peak.X, star.Y - peak.Y) <= largestRadius)) return star;

        const double moment = sumSquares / (2 * sum);
        double sigma = moment < windowVariance && moment > 0
                           ? std::sqrt(moment / (1 - moment / windowVariance))
                           : (moment > 0 ? largestSigma : smallestSigma);
        sigma = std::clamp(sigma, star.Sigma / 2, star.Sigma * 2);
        sigma = std::clamp(sigma, smallestSigma, largestSigma);
        const double widening = std::fabs(sigma - star.Sigma);
        star.Sigma = sigma;
        // Pixels at the window's rim enter and leave, so the steps may never get smaller than this.
        const bool last = round == mostRounds - 1;
        if ((step < 1e-5 && widening < 1e-4) || (last && step < 0.01)) {
            star.PositionError = shiftPerMoment * std::sqrt(noise) / sum;
            star.Found = true;
            return star;
        }
    }
    return star;
}

}  // namespace vestrel
