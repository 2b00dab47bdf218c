// Looks up an image's quads in the tables of several bands on several threads.
//
// It is for searches that mostly find nothing: all bands are searched to their ends, and only then
// are the plates judged, in the order in which a search band by band would have found them. So the
// outcome does not depend on the number of threads.
#pragma once

#include <cstddef>
#include <functional>
#include <vector>

#include "matching/libImageStars.h"
#include "matching/libQuadLookup.h"

namespace vestrel {

/// The search of one band.
struct BandLookup {
    QuadTables* Tables = nullptr;
    std::size_t Pool = 0;  ///< tables with the same number share their pages
    QuadBand Band;         ///< of the field
    std::vector<ImageQuad> Quads;

    struct Confirmed {
        CentredPlate Plate;
        LookupCounts Counts;  ///< up to this plate
    };
    std::vector<Confirmed> Plates;  ///< found, in order
    LookupCounts Counts;            ///< of the whole band
    bool Damaged = false;           ///< the table is; the search of the band ended there
};

/// Searches all bands. Those whose tables share pages are searched one after another.
/// @param mustEnd asked often, but only on this thread; true ends all searches
void LookUpTogether(std::vector<BandLookup>& bands, const ImageStars& image,
                    const std::function<bool()>& mustEnd);

}  // namespace vestrel
