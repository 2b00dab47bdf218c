// The attempts of a search plan, and the stars and tables that they look things up in.
#pragma once

#include <array>
#include <cstdint>
#include <limits>
#include <vector>

#include "program/mGeneral.h"
#include "program/mPlanStars.h"

namespace vestrel {

/// One attempt around a hint: two stars of each list, confirmed by the others.
struct SeedAttempt {
    const char* Name;
    StarSource From;
    double SizeError;  ///< of the given size, as a part of it
    double Tried;      ///< the error up to which an attempt before has tried these stars
    /// Around a centre that is right the first regions have it; where it is wrong, every further
    /// one only costs time.
    std::int32_t MostRegions;
};
inline constexpr std::int32_t NearRegions = 9;
inline constexpr std::array SeedAttempts{
    SeedAttempt{"seeds", StarSource::Peaks, 0.08, 0, std::numeric_limits<std::int32_t>::max()},
    SeedAttempt{"even seeds", StarSource::EvenPeaks, 0.08, 0, NearRegions},
    SeedAttempt{"seeds of other sizes", StarSource::Peaks, 0.35, 0.08, NearRegions},
    SeedAttempt{"even seeds of other sizes", StarSource::EvenPeaks, 0.35, 0.08, NearRegions},
};

/// One attempt without a hint: quads of all bands are looked up.
struct QuadAttempt {
    const char* Name;
    StarSource From;
    std::int32_t FirstStars;  ///< that lead quads in narrow fields; thrice as many in wide ones
    std::int32_t LookedUp;    ///< led the quads of an attempt before
};
inline constexpr std::array QuadAttempts{
    QuadAttempt{"quads of peaks", StarSource::Peaks, 10, 0},
    QuadAttempt{"quads", StarSource::Extracted, 10, 0},
    QuadAttempt{"quads of even peaks", StarSource::EvenPeaks, 10, 0},
    QuadAttempt{"more quads of peaks", StarSource::Peaks, 20, 10},
    QuadAttempt{"more quads", StarSource::Extracted, 20, 10},
    QuadAttempt{"more quads of even peaks", StarSource::EvenPeaks, 20, 10},
};

/// The tolerance of a plate that few stars gave, pixels: lenses bend it.
double RoughTolerance(const PlateImage& image);

/// All catalog stars about a centre that an image may show whose half diagonal is `radius`
/// (radians), brightest first, on the solve's own plane.
PlateStarList CatalogAbout(ProgramState& state, SkyPosition centre, double radius);

/// All bands: those of the sizes given first, then the wide ones, whose tables are small.
/// @param diagonals of fields, radians
std::vector<QuadBand> LikelyBands(ProgramState& state, const std::vector<double>& diagonals);

}  // namespace vestrel
