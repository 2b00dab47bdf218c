// The attempts of a search plan, the catalog stars and quad tables that they use, and the solution
// that their plates give.
#pragma once

#include <array>
#include <cstdint>
#include <limits>
#include <optional>
#include <vector>

#include "matching/libSeededMatch.h"
#include "program/mGeneral.h"
#include "program/mPlanStars.h"

namespace vestrel {

/// An attempt around a hint: plates from two stars of each list, confirmed by the other stars.
struct SeedAttempt {
    static constexpr std::int32_t FewestStars = 4;
    const char* Name;
    StarSource From;
    double SizeError;  ///< tolerated error of the given size, as a fraction
    double Tried;      ///< the error up to which an earlier attempt has tried these stars
    /// Around a centre that is right the first regions have it; where it is wrong, every further
    /// one only costs time.
    std::int32_t MostRegions;
    /// Takes seeds from the whole circle about a strip, most of which lies outside: when the middle
    /// of the strip has too few stars. Other fields have no such attempt.
    bool AlongStrip = false;
};
inline constexpr std::int32_t NearRegions = 9;
inline constexpr std::array SeedAttempts{
    SeedAttempt{"seeds", StarSource::Peaks, 0.08, 0, std::numeric_limits<std::int32_t>::max()},
    SeedAttempt{"even seeds", StarSource::EvenPeaks, 0.08, 0, NearRegions},
    SeedAttempt{"seeds along a strip", StarSource::Peaks, 0.08, 0, NearRegions, true},
    SeedAttempt{"seeds of other sizes", StarSource::Peaks, 0.35, 0.08, NearRegions},
    SeedAttempt{"even seeds of other sizes", StarSource::EvenPeaks, 0.35, 0.08, NearRegions},
};

/// An attempt without a hint: quads are looked up in all bands.
struct QuadAttempt {
    const char* Name;
    StarSource From;
    std::int32_t FirstStars;  ///< how many stars lead quads in narrow fields; three times as many
                              ///< in wide ones
    std::int32_t LookedUp;    ///< how many of these led quads in an earlier attempt
    /// Whether quads are looked up in the table of the next smaller narrow fields. A field at the
    /// lower end of its band has few frames in its own table that lie inside it, and the larger
    /// ones show bright stars that it lacks. Of frames inside it, it shows all stars.
    bool InSmallerFields = false;
    /// Whether all bands are searched at the same time and to their ends, which is a waste where
    /// one of the first often gives the solution.
    bool BandsAtOnce = true;
    /// Which quads of each band are looked up, brightest first, from 0: those from the first to
    /// before the last.
    std::int32_t FirstQuad = 0;
    std::int32_t LastQuad = std::numeric_limits<std::int32_t>::max();
};
/// The first 32 quads of their band solve two of three pictures that are solved, the first 128 five
/// of six, so these are looked up in all bands before others. The extracted stars come first, as
/// they are there already: to find the peaks takes longer than to look up the first quads of both
/// lists.
inline constexpr std::array QuadAttempts{
    QuadAttempt{"quads", StarSource::Extracted, 10, 0, false, false, 0, 32},
    QuadAttempt{"quads", StarSource::Extracted, 10, 0, false, false, 32, 128},
    QuadAttempt{"quads", StarSource::Extracted, 10, 0, false, false, 128, 256},
    QuadAttempt{"quads of peaks", StarSource::Peaks, 10, 0, false, false, 0, 32},
    QuadAttempt{"quads of peaks", StarSource::Peaks, 10, 0, false, false, 32, 128},
    QuadAttempt{"quads", StarSource::Extracted, 10, 0, false, true, 256},
    QuadAttempt{"quads of peaks", StarSource::Peaks, 10, 0, false, true, 128},
    QuadAttempt{"quads of even peaks", StarSource::EvenPeaks, 10, 0},
    QuadAttempt{"more quads", StarSource::Extracted, 20, 10},
    QuadAttempt{"more quads of peaks", StarSource::Peaks, 20, 10},
    QuadAttempt{"more quads of even peaks", StarSource::EvenPeaks, 20, 10},
    QuadAttempt{"quads of smaller fields", StarSource::Peaks, 20, 0, true},
};

/// The tolerance of a plate from few stars, pixels: distortion of the lens is not in it.
double RoughTolerance(const PlateImage& image);

/// The scales, the tolerance and the seeds of an attempt on a field with these sides (radians), as
/// given.
SeedSettings SettingsOf(const SeedAttempt& attempt, const PlateImage& image, double width,
                        double height);

/// The side of the square for which the plain search is repeated, because its circle of catalog
/// stars lies inside a field with these sides (radians). A strip has too few stars in a circle of
/// its short side, so there the circle is wider.
double InnerSide(double width, double height);

/// Whether the circle about a field with these sides is too large for its shape.
bool IsStrip(double width, double height);

/// The radius of the circle whose brightest stars form seeds, for a field with these sides
/// (radians): half the diagonal. A smaller one for strips, as most of such a circle lies outside.
double SeedRadius(const SeedAttempt& attempt, double width, double height);

/// The catalog stars that an image about a centre may show, brightest first, on the solver's plane.
/// `radius` is half the image's diagonal, radians.
PlateStarList CatalogAbout(ProgramState& state, SkyPosition centre, double radius);

/// The solution that a plate about `about`, on the camera's plane, gives with all stars: the
/// catalog is read again around the middle of the image. None when they do not bear it.
std::optional<PlateSolution> SolutionOfPlate(ProgramState& state, const MatchedPlate& match,
                                             SkyPosition about, const ImageStars& places);

/// The same with the sky model of the solution that the state has, for a plate that some false
/// pairs have drawn away: where all stars together fit better, and without distortion. None
/// otherwise.
std::optional<PlateSolution> SolutionOfModel(ProgramState& state, const ImageStars& places);

/// Keeps the likelier of two matches that are not sure; of equal ones the first.
void KeepLikelier(std::optional<PlateSolution>& kept, const PlateSolution& match);

/// The bands of the quad tables, each list from wide to narrow, because tables of wide fields are
/// small.
struct RankedBands {
    std::vector<QuadBand> OfSize;  ///< those of the given sizes; all when none was given
    std::vector<QuadBand> Others;
};

/// @param diagonals of fields, radians
RankedBands LikelyBands(ProgramState& state, const std::vector<double>& diagonals);

}  // namespace vestrel
