// What is to be told about a clicked star: its measurement, and what the solution adds to it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "display/libSkyOverlay.h"
#include "photometry/libStarStatistics.h"
#include "program/mGeneral.h"

namespace vestrel {

/// The catalog star nearest to a measured one.
struct CatalogNeighbour {
    SkyPosition Sky;
    double Magnitude = 0;
    double Pixels = 0;  ///< distance from the measured star
    double Arcseconds = 0;
};

struct StarReport {
    StarMeasurement Star;
    std::optional<SkyPosition> Sky;   ///< when the image is solved
    std::optional<double> Magnitude;  ///< calibrated by the stars of the solution
    double MagnitudeError = 0;        ///< of the measurement and of the zero point
    std::optional<ZeroPoint> Calibration;
    std::optional<CatalogNeighbour> Nearest;
};

/// The radii that the parameters hold.
ApertureSettings ApertureSettingsOf(const SolveParameters& parameters);

/// The stars of the solution where the catalog and the solution put them; none without a valid
/// zero point.
std::vector<CalibrationStar> CalibrationStarsOf(const ProgramState& state);

/// Measures the star that a click on the image means.
StarReport MeasureStarAt(ProgramState& state, const PixelPoint& pixel);

/// The magnitude of the catalog star that a measured star is: the nearest one, when it is within
/// the star's own light.
std::optional<double> CatalogMagnitudeOf(const StarReport& report);

/// What makes the measurement doubtful, in sentences; or why there is none.
std::string WarningsOf(const StarReport& report);

/// All figures as lines "caption  value" in two columns; nothing when no star was measured.
std::string ReportText(const StarReport& report);

}  // namespace vestrel
