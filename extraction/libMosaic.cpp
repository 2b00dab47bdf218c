#include "extraction/libMosaic.h"

#include <algorithm>
#include <utility>

#include "astro/libParallel.h"

namespace vestrel {

PlateImage SumsOfMosaic(const PlateImage& mosaic) {
    PlateImage sums;
    sums.Width = mosaic.Width / 2;
    sums.Height = mosaic.Height / 2;
    sums.DataOffset = 4 * mosaic.DataOffset;
    sums.ImageType = mosaic.ImageType;
    sums.TopRowFirst = mosaic.TopRowFirst;
    Grid<std::int32_t> cells(sums.Width, sums.Height);
    constexpr int rowsPerPiece = 32;
    const auto add = [&](int piece) {
        const int end = std::min((piece + 1) * rowsPerPiece, sums.Height);
        for (int y = piece * rowsPerPiece; y < end; ++y) {
            std::int32_t* sum = cells.Row(y).data();
            mosaic.Pixels.Visit([&](auto rows) {
                const auto first = rows(2 * y);
                const auto second = rows(2 * y + 1);
                for (int x = 0; x < sums.Width; ++x) {
                    sum[x] = first[2 * x] + first[2 * x + 1] + second[2 * x] + second[2 * x + 1];
                }
            });
        }
    };
    ParallelFor((sums.Height + rowsPerPiece - 1) / rowsPerPiece, add);
    sums.Pixels = PixelGrid(std::move(cells));
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
