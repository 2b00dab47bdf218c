// A sky that is nowhere, for tests and benches of deep catalogs.
#pragma once

#include <cstdint>

#include "catalog/libCellGrid.h"

namespace vestrel {

struct SyntheticSky {
    double Density = 1000;  ///< stars per square degree down to the limit, mean of the sky
    double FaintestMagnitude = 18;
    std::uint64_t Seed = 1;
    // A part of the sky only; degrees. The radius of the whole sky is 180.
    double CentreRa = 0;
    double CentreDec = 0;
    double Radius = 180;
};

/// Hands the stars of a synthetic sky to `sink`: spread at random, with three times the mean
/// density in the plane of the Galaxy and half of it at its poles; 0.42 more in the logarithm of
/// their number with each magnitude. The same for the same numbers, cell by cell: a part of the sky
/// has the stars that the whole sky has there.
void MakeSyntheticSky(const SyntheticSky& sky, const StarSink& sink);

}  // namespace vestrel
