// The magnitude difference of two measured stars, and a table of such differences.
//
// Differential photometry in one frame (Howell 2006, Handbook of CCD Astronomy, 2nd ed., chapter
// 5): what dims both stars alike cancels in the difference, and the errors of the two fluxes add in
// quadrature. They contain each star's photon noise (when the header has the gain), the scatter of
// the sky under its aperture, including read-out noise, and the error of its sky level.
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
    bool Valid = false;     ///< both stars were measured and have light; else there is no result
    double Difference = 0;  ///< second − first: above 0 when the second star is fainter
    double Error = 0;       ///< standard deviation
    /// The second star's magnitude when that of the first is known. Its error is `Error` plus that
    /// of the known magnitude, which the catalog does not give.
    std::optional<double> SecondMagnitude;
    std::vector<PhotometryWarning> Warnings;
};

/// Compares two stars of one image.
/// @param firstMagnitude catalog magnitude of the first star, when it is a catalog star
RelativeMagnitude CompareStars(const StarMeasurement& first, const StarMeasurement& second,
                               std::optional<double> firstMagnitude);

/// One row of the table. A row names its image, because the difference holds for that frame.
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
/// unknown values are empty.
std::string PhotometryCsv(const std::vector<PhotometryRow>& rows);

}  // namespace vestrel
