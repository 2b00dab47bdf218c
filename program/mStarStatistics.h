// The report on a clicked star: its measurement, and what the solution adds.
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
    double MagnitudeError = 0;        ///< error of the measurement and of the zero point together
    std::optional<ZeroPoint> Calibration;
    std::optional<CatalogNeighbour> Nearest;
};

/// The radii that the parameters hold.
ApertureSettings ApertureSettingsOf(const SolveParameters& parameters);

/// The catalog stars of the solution at their places on the image; empty without a valid zero
/// point.
std::vector<CalibrationStar> CalibrationStarsOf(const ProgramState& state);

/// Measures the star nearest to a click on the image.
StarReport MeasureStarAt(ProgramState& state, const PixelPoint& pixel);

/// The catalog magnitude of a measured star: that of the nearest catalog star, if it lies within
/// the star's own light.
std::optional<double> CatalogMagnitudeOf(const StarReport& report);

/// Sentences about what makes the measurement doubtful, or why there is none.
std::string WarningsOf(const StarReport& report);

/// All figures as lines of captions and values in two columns; empty when no star was measured.
std::string ReportText(const StarReport& report);

}  // namespace vestrel
