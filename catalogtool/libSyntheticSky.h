// An artificial sky, for tests and benchmarks of deep catalogs.
#pragma once

#include <cstdint>

#include "catalog/libCellGrid.h"

namespace vestrel {

struct SyntheticSky {
    double Density = 1000;  ///< mean number of stars per square degree down to the limit
    double FaintestMagnitude = 18;
    std::uint64_t Seed = 1;
    // Restricts the stars to a circle; degrees. 180 is the whole sky.
    double CentreRa = 0;
    double CentreDec = 0;
    double Radius = 180;
};

/// Passes the stars of an artificial sky to `sink`. They are spread at random, densest in the plane
/// of the Galaxy and eight times less dense at its poles; the logarithm of their number grows by
/// 0.42 per magnitude. The same parameters give the same stars in each cell, so a part of the sky
/// has the stars that the whole sky has there.
void MakeSyntheticSky(const SyntheticSky& sky, const StarSink& sink);

}  // namespace vestrel
