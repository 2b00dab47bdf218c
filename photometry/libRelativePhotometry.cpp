#include "photometry/libRelativePhotometry.h"

#include <cmath>
#include <string_view>

#include "astro/libMath.h"
#include "astro/libStrings.h"

namespace vestrel {

namespace {

bool HasLight(const StarMeasurement& star) {
    return star.Outcome == StarOutcome::Measured && star.InstrumentalMagnitude.has_value();
}

std::vector<PhotometryWarning> WarningsOf(const StarMeasurement& first,
                                          const StarMeasurement& second) {
    constexpr double lowSignal = 5;
    using enum PhotometryWarning;
    const double distance = std::hypot(first.X - second.X, first.Y - second.Y);
    const bool same = distance < 1;
    std::vector<PhotometryWarning> warnings;
    const auto warn = [&warnings](bool when, PhotometryWarning warning) {
        if (when) warnings.push_back(warning);
    };
    warn(first.Saturated, FirstSaturated);
    warn(second.Saturated, SecondSaturated);
    warn(first.Blended, FirstBlended);
    warn(second.Blended, SecondBlended);
    warn(first.Cut, FirstCut);
    warn(second.Cut, SecondCut);
    warn(same, SameStar);
    warn(!same && distance < first.Radii.Aperture + second.Radii.Aperture, AperturesOverlap);
    // Different radii collect different shares of a star's light.
    warn(first.Radii.Aperture != second.Radii.Aperture, AperturesDiffer);
    warn(!first.GainKnown || !second.GainKnown, GainUnknown);
    warn(first.SignalToNoise < lowSignal || second.SignalToNoise < lowSignal, LowSignal);
    return warnings;
}

std::string QuotedField(const std::string& text) {
    if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
    std::string quoted = "\"";
    for (const char c : text) {
        if (c == '"') quoted += '"';
        quoted += c;
    }
    return quoted + '"';
}

/// Collects the fields of one line.
class CsvLine {
 public:
    void Text(const std::string& text) {
        line_ += (first_ ? "" : ",") + QuotedField(text);
        first_ = false;
    }
    void Number(std::optional<double> value, int decimals) {
        Text(value && std::isfinite(*value) ? RoundedText(*value, decimals) : "");
    }
    std::string Ended() const { return line_ + "\r\n"; }

 private:
    std::string line_;
    bool first_ = true;
};

void AddStar(CsvLine& line, const StarMeasurement& star, const std::optional<SkyPosition>& sky) {
    constexpr int positionDecimals = 3;
    constexpr int degreeDecimals = 7;
    line.Number(star.X, positionDecimals);
    line.Number(star.Y, positionDecimals);
    const auto degrees = [&](double SkyPosition::*angle) {
        return sky ? std::optional((*sky).*angle * ExactDegreesPerRadian) : std::nullopt;
    };
    line.Number(degrees(&SkyPosition::Ra), degreeDecimals);
    line.Number(degrees(&SkyPosition::Dec), degreeDecimals);
    line.Number(star.Flux, 2);
    line.Number(star.FluxError, 2);
}

}  // namespace

const char* WarningText(PhotometryWarning warning) {
    switch (warning) {
        case PhotometryWarning::FirstSaturated:
            return "The first star is saturated.";
        case PhotometryWarning::SecondSaturated:
            return "The second star is saturated.";
        case PhotometryWarning::FirstBlended:
            return "There is another star in the first star's aperture.";
        case PhotometryWarning::SecondBlended:
            return "There is another star in the second star's aperture.";
        case PhotometryWarning::FirstCut:
            return "The first star's aperture reaches beyond the image.";
        case PhotometryWarning::SecondCut:
            return "The second star's aperture reaches beyond the image.";
        case PhotometryWarning::SameStar:
            return "Both are the same star.";
        case PhotometryWarning::AperturesOverlap:
            return "The apertures overlap.";
        case PhotometryWarning::AperturesDiffer:
            return "The apertures have different radii.";
        case PhotometryWarning::GainUnknown:
            return "The gain is unknown: the stars' photon noise is missing from the error.";
        case PhotometryWarning::LowSignal:
            return "A star is too faint for a symmetric error in magnitudes.";
    }
    return "";
}

RelativeMagnitude CompareStars(const StarMeasurement& first, const StarMeasurement& second,
                               std::optional<double> firstMagnitude) {
    RelativeMagnitude result;
    if (first.Outcome == StarOutcome::Measured && second.Outcome == StarOutcome::Measured) {
        result.Warnings = WarningsOf(first, second);
    }
    if (!HasLight(first) || !HasLight(second)) return result;
    result.Valid = true;
    result.Difference = *second.InstrumentalMagnitude - *first.InstrumentalMagnitude;
    result.Error = std::hypot(first.MagnitudeError, second.MagnitudeError);
    if (firstMagnitude) result.SecondMagnitude = *firstMagnitude + result.Difference;
    return result;
}

std::string PhotometryCsv(const std::vector<PhotometryRow>& rows) {
    std::string table =
        "image,date,x1,y1,ra1_deg,dec1_deg,counts1,counts1_error,magnitude1,"
        "x2,y2,ra2_deg,dec2_deg,counts2,counts2_error,"
        "magnitude2_minus_1,error,magnitude2,aperture_radius,warnings\r\n";
    constexpr int magnitudeDecimals = 4;
    for (const PhotometryRow& row : rows) {
        CsvLine line;
        line.Text(row.Image);
        line.Text(row.DateObs);
        AddStar(line, row.First, row.FirstSky);
        line.Number(row.FirstMagnitude, magnitudeDecimals);
        AddStar(line, row.Second, row.SecondSky);
        const RelativeMagnitude& result = row.Result;
        const auto whenValid = [&result](double value) {
            return result.Valid ? std::optional(value) : std::nullopt;
        };
        line.Number(whenValid(result.Difference), magnitudeDecimals);
        line.Number(whenValid(result.Error), magnitudeDecimals);
        line.Number(result.SecondMagnitude, magnitudeDecimals);
        line.Number(row.First.Radii.Aperture, 2);
        std::string warnings;
        for (const PhotometryWarning warning : result.Warnings) {
            warnings += (warnings.empty() ? "" : " ") + std::string(WarningText(warning));
        }
        line.Text(warnings);
        table += line.Ended();
    }
    return table;
}

}  // namespace vestrel
