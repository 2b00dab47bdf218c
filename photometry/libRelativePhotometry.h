// The magnitude difference of two measured stars, and a table of such differences.
//
// Differential photometry in one frame (Howell 2006, Handbook of CCD Astronomy, 2nd ed., chapter
// 5): what dims both stars alike falls out of the difference, and the errors of the two fluxes add
// in squares. They hold each star's photons (when the header knows the gain), the sky's scatter
// under its aperture, read-out noise included, and the error of its sky level.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "astro/libSphericalMath.h"
#include "photometry/libStarStatistics.h"

namespace vestrel {

/// What makes a difference doubtful. "First" and "Second" are the stars in the order clicked.
enum class PhotometryWarning {
    FirstSaturated,
    SecondSaturated,
    FirstBlended,
    SecondBlended,
    FirstCut,
    SecondCut,
    SameStar,
    AperturesOverlap,
    AperturesDiffer,
    GainUnknown,
    LowSignal,
};
const char* WarningText(PhotometryWarning warning);

struct RelativeMagnitude {
    bool Valid = false;     ///< both stars were measured and have light; else there is no number
    double Difference = 0;  ///< second − first: above 0 when the second star is fainter
    double Error = 0;       ///< standard deviation
    /// The second star's magnitude when the first one's is known. Its error is `Error` and the
    /// known magnitude's own, which the catalog does not tell.
    std::optional<double> SecondMagnitude;
    std::vector<PhotometryWarning> Warnings;
};

/// Compares two stars of one image.
/// @param firstMagnitude catalog magnitude of the first star, when it is a catalog star
RelativeMagnitude CompareStars(const StarMeasurement& first, const StarMeasurement& second,
                               std::optional<double> firstMagnitude);

/// One row of the table. A difference is only as good as its frame, so a row names it.
struct PhotometryRow {
    std::string Image;  ///< file name, UTF-8
    std::string DateObs;
    StarMeasurement First;
    StarMeasurement Second;
    std::optional<SkyPosition> FirstSky;
    std::optional<SkyPosition> SecondSky;
    std::optional<double> FirstMagnitude;
    RelativeMagnitude Result;
};

/// The whole table as comma-separated values (RFC 4180): a header row, lines end with CR LF, texts
/// with commas, quotes or line ends are quoted, numbers have a decimal point whatever the locale;
/// what is not known is empty.
std::string PhotometryCsv(const std::vector<PhotometryRow>& rows);

}  // namespace vestrel
