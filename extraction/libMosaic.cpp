#include "extraction/libMosaic.h"

#include <algorithm>

#include "astro/libParallel.h"

namespace vestrel {

PlateImage SumsOfMosaic(const PlateImage& mosaic) {
    PlateImage sums;
    sums.Width = mosaic.Width / 2;
    sums.Height = mosaic.Height / 2;
    sums.DataOffset = 4 * mosaic.DataOffset;
    sums.ImageType = mosaic.ImageType;
    sums.TopRowFirst = mosaic.TopRowFirst;
    sums.Pixels = Grid<std::int32_t>(sums.Width, sums.Height);
    constexpr int rowsPerPiece = 32;
    const auto add = [&](int piece) {
        const int end = std::min((piece + 1) * rowsPerPiece, sums.Height);
        for (int y = piece * rowsPerPiece; y < end; ++y) {
            const std::int32_t* first = mosaic.Pixels.Row(2 * y).data();
            const std::int32_t* second = mosaic.Pixels.Row(2 * y + 1).data();
            std::int32_t* sum = sums.Pixels.Row(y).data();
            for (int x = 0; x < sums.Width; ++x) {
                sum[x] = first[2 * x] + first[2 * x + 1] + second[2 * x] + second[2 * x + 1];
            }
        }
    };
    ParallelFor((sums.Height + rowsPerPiece - 1) / rowsPerPiece, add);
    return sums;
}

PlateStarList InMosaicPixels(PlateStarList stars) {
    for (std::int32_t i = 1; i <= stars.Count(); ++i) {
        stars[i].X = 2 * stars[i].X + 0.5F;
        stars[i].Y = 2 * stars[i].Y + 0.5F;
    }
    return stars;
}

}  // namespace vestrel
