#include "viewer/libGreyPicture.h"

#include <algorithm>

#include "astro/libMath.h"
#include "astro/libParallel.h"
#include "viewer/libDisplayLevels.h"

namespace vestrel {

GreyPicture MakeGreyPicture(const PlateImage& image, int longestSide) {
    GreyPicture picture;
    if (image.Width < 1 || image.Height < 1) return picture;
    const int square = (std::max(image.Width, image.Height) + longestSide - 1) / longestSide;
    picture.Width = (image.Width + square - 1) / square;
    picture.Height = (image.Height + square - 1) / square;
    picture.Pixels.resize(static_cast<std::size_t>(picture.Width) *
                          static_cast<std::size_t>(picture.Height));
    const bool topFirst = FirstRowAtTop(image);
    const CountLevels levels = FirstLevels(image.Header, MakeImageHistogram(image));
    const GreyLookup grey(levels, image.DataOffset, Transfer::Linear, false);
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
            const std::int32_t mean = RoundToNearestInt32(sum / ((x1 - x0) * (y1 - y0)));
            const int fromTop = topFirst ? row : picture.Height - 1 - row;
            picture.Pixels[static_cast<std::size_t>(fromTop) *
                               static_cast<std::size_t>(picture.Width) +
                           static_cast<std::size_t>(column)] = grey(mean);
        }
    });
    return picture;
}

}  // namespace vestrel
