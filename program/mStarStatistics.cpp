#include "program/mStarStatistics.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "astro/libMath.h"
#include "display/libReadout.h"
#include "program/mSkyModel.h"

namespace vestrel {

namespace {

/// "value ± error unit".
std::string WithError(double value, double error, int decimals, const char* unit = "") {
    return FixedText(value, decimals) + " \xC2\xB1 " + FixedText(error, decimals) + unit;
}

std::optional<CatalogNeighbour> NearestInCatalog(ProgramState& state, const SkyMap& map,
                                                 const PixelPoint& place) {
    if (!state.Solution) return std::nullopt;
    const auto& kept = KeptSkyModel(state);
    const PlateStarList& stars =
        kept && kept->Solution ? kept->CatalogStars : state.Solution->CatalogStars;
    const auto nearest = NearestCatalogStar(map, stars, place);
    const auto here = map.SkyOf(place);
    if (!nearest || !here) return std::nullopt;
    const PlateStar& star = stars[nearest->Index];
    const SkyPosition sky{star.Ra, star.Dec};
    return CatalogNeighbour{sky, star.Flux, nearest->Distance,
                            SkyDistance(*here, sky) * ExactArcsecondsPerRadian};
}

void Calibrate(const ProgramState& state, StarReport& report) {
    const std::vector<CalibrationStar> stars = CalibrationStarsOf(state);
    if (stars.empty() || !report.Star.InstrumentalMagnitude) return;
    report.Calibration =
        ApertureZeroPoint(state.Image, stars, ApertureSettingsOf(state.Parameters));
    if (!report.Calibration) return;
    report.Magnitude = *report.Star.InstrumentalMagnitude - report.Calibration->Value;
    report.MagnitudeError = std::hypot(report.Star.MagnitudeError, report.Calibration->Error());
}

/// Captions and values in two columns.
class ReportLines {
 public:
    void Add(const char* caption, const std::string& value) { lines_.emplace_back(caption, value); }
    void Gap() { lines_.emplace_back(); }
    std::string Text() const {
        constexpr std::size_t column = 22;
        std::string text;
        for (const auto& [caption, value] : lines_) {
            text += caption;
            if (!value.empty()) text += std::string(column - caption.size(), ' ') + value;
            text += '\n';
        }
        return text;
    }

 private:
    std::vector<std::pair<std::string, std::string>> lines_;
};

void AddFit(ReportLines& lines, const char* caption, const ProfileFit& fit) {
    if (!fit.Valid) return;
    const std::string beta = fit.Beta > 0 ? ", beta " + FixedText(fit.Beta, 2) : std::string();
    lines.Add(caption, FixedText(fit.Fwhm, 2) + " px" + beta);
}

void AddSky(ReportLines& lines, const StarReport& report) {
    if (!report.Sky) return;
    lines.Gap();
    lines.Add("J2000", SkyText(*report.Sky));
    if (!report.Nearest) return;
    const CatalogNeighbour& star = *report.Nearest;
    lines.Add("Nearest catalog star", SkyText(star.Sky));
    lines.Add("  magnitude", FixedText(star.Magnitude, 2));
    lines.Add("  distance",
              FixedText(star.Pixels, 2) + " px, " + FixedText(star.Arcseconds, 2) + "\"");
}

}  // namespace

ApertureSettings ApertureSettingsOf(const SolveParameters& parameters) {
    return {parameters.ApertureRadius, parameters.BackgroundRadius};
}

std::vector<CalibrationStar> CalibrationStarsOf(const ProgramState& state) {
    std::vector<CalibrationStar> stars;
    const auto map = SkyMap::Of(state.Image.Header);
    if (!state.Solution || !map) return stars;
    for (const MatchedStar& star : MatchedStars(*state.Solution)) {
        if (const auto place = map->PixelOf({star.Catalog->Ra, star.Catalog->Dec})) {
            stars.push_back({place->X, place->Y, star.Catalog->Flux});
        }
    }
    return stars;
}

StarReport MeasureStarAt(ProgramState& state, const PixelPoint& pixel) {
    StarReport report;
    if (!state.ImageLoaded) return report;
    report.Star = MeasureStar(state.Image, pixel.X, pixel.Y, ApertureSettingsOf(state.Parameters));
    if (report.Star.Outcome != StarOutcome::Measured) return report;
    const PixelPoint place{report.Star.X, report.Star.Y};
    if (const auto map = SkyMapOf(state)) {
        report.Sky = map->SkyOf(place);
        report.Nearest = NearestInCatalog(state, *map, place);
    }
    Calibrate(state, report);
    return report;
}

std::optional<double> CatalogMagnitudeOf(const StarReport& report) {
    const double ownLight = std::max(2.0, report.Star.FwhmFromWindow / 2);
    if (!report.Nearest || report.Nearest->Pixels > ownLight) return std::nullopt;
    return report.Nearest->Magnitude;
}

std::string WarningsOf(const StarReport& report) {
    const StarMeasurement& star = report.Star;
    std::string text = OutcomeText(star.Outcome);
    if (star.Outcome != StarOutcome::Measured) return text;
    const auto warn = [&text](bool when, const char* warning) {
        if (when) text += (text.empty() ? "" : " ") + std::string(warning);
    };
    warn(star.Saturated, "The star is saturated.");
    warn(star.Blended, "There is another star in the aperture.");
    warn(star.Cut, "The aperture reaches beyond the image.");
    return text;
}

std::string ReportText(const StarReport& report) {
    const StarMeasurement& star = report.Star;
    if (star.Outcome != StarOutcome::Measured) return {};
    ReportLines lines;
    lines.Add("Centroid x", WithError(star.X, star.PositionError, 3));
    lines.Add("Centroid y", WithError(star.Y, star.PositionError, 3));
    lines.Add("Peak", FixedText(star.Peak, 0) + " above the background");
    lines.Add("Highest count", FixedText(star.PeakCount, 0));
    lines.Add("Background", WithError(star.Background, star.BackgroundError, 2));
    lines.Add("  scatter", FixedText(star.BackgroundScatter, 2) + " per pixel, " +
                               FixedText(star.BackgroundPixels, 0) + " pixels");
    lines.Gap();
    if (star.RmsDiameter > 0) {
        lines.Add("RMS diameter", FixedText(star.RmsDiameter, 2) + " px");
        lines.Add("FWHM from RMS", FixedText(star.FwhmFromRms, 2) + " px");
    }
    lines.Add("FWHM from window", FixedText(star.FwhmFromWindow, 2) + " px");
    AddFit(lines, "FWHM of Gaussian fit", star.Gaussian);
    AddFit(lines, "FWHM of Moffat fit", star.Moffat);
    lines.Gap();
    lines.Add("Flux", WithError(star.Flux, star.FluxError, 0, " counts"));
    lines.Add("Signal to noise",
              FixedText(star.SignalToNoise, 1) +
                  (star.GainKnown ? "" : " (gain unknown: without the star's photons)"));
    if (star.InstrumentalMagnitude) {
        lines.Add("Instrumental mag",
                  WithError(*star.InstrumentalMagnitude, star.MagnitudeError, 3));
    }
    if (report.Magnitude) {
        lines.Add("Magnitude", WithError(*report.Magnitude, report.MagnitudeError, 3));
        lines.Add("  zero point", FixedText(report.Calibration->Value, 3) + " of " +
                                      FixedText(report.Calibration->Count, 0) + " stars, scatter " +
                                      FixedText(report.Calibration->Scatter, 3));
    }
    AddSky(lines, report);
    lines.Gap();
    lines.Add("Aperture radius", FixedText(star.Radii.Aperture, 1) + " px");
    lines.Add("Background ring",
              FixedText(star.Radii.Inner, 1) + " .. " + FixedText(star.Radii.Outer, 1) + " px");
    return lines.Text();
}

}  // namespace vestrel
