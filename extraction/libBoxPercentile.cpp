#include "extraction/libBoxPercentile.h"

#include "extraction/libNearPercentiles.h"
#include "extraction/libRankPercentiles.h"

namespace vestrel {

void BoxPercentiles(const BoxSamples& samples, std::int32_t halfSize, double percentile,
                    std::int32_t first, std::int32_t end, std::int32_t rows, PixelGrid& blocks) {
    if (NearPercentiles(samples, halfSize, percentile, first, end, rows, blocks)) return;
    RankPercentiles(samples, halfSize, percentile, first, end, rows, blocks);
}

}  // namespace vestrel
