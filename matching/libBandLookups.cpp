#include "matching/libBandLookups.h"

#include <algorithm>
#include <atomic>
#include <thread>

#include "astro/libParallel.h"

namespace vestrel {

namespace {

void LookUp(BandLookup& band, const ImageStars& image, const std::function<bool()>& stop) {
    QuadLookup lookup(*band.Tables, image, band.Band);
    const auto keep = [&](const CentredPlate& plate) {
        band.Plates.push_back({plate, lookup.Counts()});
        return false;
    };
    try {
        lookup.Search(band.Quads, keep, stop);
    } catch (const DamagedFile&) {
        band.Damaged = true;
    }
    band.Counts = lookup.Counts();
}

}  // namespace

void LookUpTogether(std::vector<BandLookup>& bands, const ImageStars& image,
                    const std::function<bool()>& mustEnd) {
    std::size_t pools = 0;
    for (const BandLookup& band : bands) pools = std::max(pools, band.Pool + 1);
    std::atomic<bool> ended = false;
    const auto caller = std::this_thread::get_id();
    const auto stop = [&] {
        if (std::this_thread::get_id() == caller && mustEnd()) ended = true;
        return ended.load();
    };
    ParallelFor(static_cast<int>(pools), [&](int pool) {
        for (BandLookup& band : bands) {
            if (band.Pool == static_cast<std::size_t>(pool)) LookUp(band, image, stop);
        }
    });
}

}  // namespace vestrel
