// What hosts hand over as files: tables of stars, and headers with world coordinates.

#include <cmath>

#include "compat/libFitsStars.h"
#include "compat/libMeasuredFlux.h"
#include "compat/libWcsInfo.h"
#include "fuzz/fuzzSupport.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vestrel;
    std::string fault;
    if (const auto table = ReadFitsStars({data, size}, {}, fault)) {
        Require(HoldsStarTable({data, size}), "what can be read is a table");
        Require(table->Stars.size() <= size, "no more stars than bytes");
        for (const ListedStar& star : table->Stars) {
            Require(std::isfinite(star.X) && std::isfinite(star.Y) && std::isfinite(star.Rank),
                    "stars have numbers");
        }
        const auto ranked = RankedStars(table->Stars);
        Require(InterleavedStars(ranked, table->Width, table->Height).size() == ranked.size(),
                "no star is lost");
    } else {
        Require(!fault.empty(), "what is refused has a reason");
    }
    if (const auto wcs = ReadHeaderCoordinates({data, size})) {
        Require(WcsInfoText(*wcs).starts_with("crpix0 "), "every header that was read can be told");
    }
    return 0;
}
