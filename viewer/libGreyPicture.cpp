#include "viewer/libGreyPicture.h"

#include <algorithm>
#include <cmath>

#include "astro/libParallel.h"

namespace vestrel {

namespace {

/// The value below which a fraction of the sample lies. Reorders the sample.
double Quantile(std::vector<std::int32_t>& sample, double fraction) {
    const auto place =
        static_cast<std::ptrdiff_t>(fraction * (static_cast<double>(sample.size()) - 1));
    std::nth_element(sample.begin(), sample.begin() + place, sample.end());
    return sample[static_cast<std::size_t>(place)];
}

}  // namespace

DisplayLevels AutomaticLevels(const PlateImage& image) {
    constexpr double sampleSize = 100000;
    const double pixels = static_cast<double>(image.Width) * image.Height;
    const int step = std::max(1, static_cast<int>(std::sqrt(pixels / sampleSize)));
    std::vector<std::int32_t> sample;
    for (int x = 0; x < image.Width; x += step) {
        for (int y = 0; y < image.Height; y += step) sample.push_back(image.Pixels(x, y));
    }
    if (sample.empty()) return {};
    const double sky = Quantile(sample, 0.5);
    const double noise = sky - Quantile(sample, 0.16);
    const double black = sky - 2 * noise;
    const double white = Quantile(sample, 0.997);
    return {black, std::max({white, sky + 6 * noise, black + 1})};
}

GreyPicture MakeGreyPicture(const PlateImage& image, const DisplayLevels& levels, int longestSide) {
    GreyPicture picture;
    if (image.Width < 1 || image.Height < 1) return picture;
    const int square = (std::max(image.Width, image.Height) + longestSide - 1) / longestSide;
    picture.Width = (image.Width + square - 1) / square;
    picture.Height = (image.Height + square - 1) / square;
    picture.Pixels.resize(static_cast<std::size_t>(picture.Width) *
                          static_cast<std::size_t>(picture.Height));
    const bool topFirst = FirstRowAtTop(image);
    const double range = levels.White - levels.Black;
    ParallelFor(picture.Width, [&](int column) {
        const int x0 = column * square;
        const int x1 = std::min(x0 + square, image.Width);
        for (int row = 0; row < picture.Height; ++row) {
            const int y0 = row * square;
            const int y1 = std::min(y0 + square, image.Height);
            double sum = 0;
            for (int x = x0; x < x1; ++x) {
                for (int y = y0; y < y1; ++y) sum += image.Pixels(x, y);
            }
            const double mean = sum / ((x1 - x0) * (y1 - y0));
            const double grey = std::clamp((mean - levels.Black) / range, 0.0, 1.0);
            const int fromTop = topFirst ? row : picture.Height - 1 - row;
            picture.Pixels[static_cast<std::size_t>(fromTop) *
                               static_cast<std::size_t>(picture.Width) +
                           static_cast<std::size_t>(column)] =
                static_cast<std::uint8_t>(std::lround(grey * 255));
        }
    });
    return picture;
}

}  // namespace vestrel
