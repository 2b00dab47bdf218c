#include "program/mSolveReport.h"

#include <algorithm>
#include <cmath>

#include "astro/libConversions.h"
#include "astro/libMath.h"
#include "astro/libStrings.h"
#include "platform/libPlatform.h"
#include "program/mMORA.h"
#include "program/mPlateMatch.h"
#include "program/mTrust.h"

namespace vestrel {

namespace {

/// The characters of a label with its padding; two blanks precede it.
constexpr std::size_t labelWidth = 18;

/// Lines of a label column and a value.
class Table {
 public:
    void Line(const std::string& label, const std::string& value) {
        const std::size_t padding = label.size() < labelWidth ? labelWidth - label.size() : 1;
        text_ += "  " + label + std::string(padding, ' ') + value + "\n";
    }
    std::string Take() { return std::move(text_); }

 private:
    std::string text_;
};

/// A number with exactly this many decimals.
std::string Fixed(double value, int decimals) {
    std::string text = PlainNumberText(RoundToDecimals(value, decimals));
    if (decimals == 0) return text;
    std::size_t point = text.find('.');
    if (point == std::string::npos) {
        point = text.size();
        text += '.';
    }
    const std::size_t present = text.size() - point - 1;
    if (present < static_cast<std::size_t>(decimals)) {
        text.append(static_cast<std::size_t>(decimals) - present, '0');
    }
    return text;
}

std::string Position(SkyPosition position) {
    const std::string sign = position.Dec < 0 ? "" : "+";
    return FormatRA(position.Ra, true, 2) + "  " + sign + FormatDec(position.Dec, true, 1) +
           "   (" + Fixed(position.Ra * ExactDegreesPerRadian, 6) + DegreeSign + ", " + sign +
           Fixed(position.Dec * ExactDegreesPerRadian, 6) + DegreeSign + ")";
}

std::string Count(std::int64_t n, const char* one, const char* many) {
    return std::to_string(n) + " " + (n == 1 ? one : many);
}

/// Adds what a failed search started from.
void AddImage(Table& table, const ProgramState& state) {
    table.Line("Image", std::to_string(state.Image.Width) + " x " +
                            std::to_string(state.Image.Height) + " pixels");
    table.Line("Stars found", std::to_string(state.Extraction.StarsFound) +
                                  (state.Report.Smoothed ? " (after smoothing)" : "") +
                                  ", sky noise " + Fixed(state.Extraction.BackgroundSigma, 1) +
                                  " counts");
}

/// Adds how far a quad search came, or why there was none.
void AddQuads(Table& table, const ProgramState& state) {
    const QuadSearch& search = state.QuadMatch;
    const std::string& fault = state.Quads.Fault;
    table.Line("Quads", fault.empty()
                            ? std::to_string(search.Searched) + " looked up, " +
                                  std::to_string(search.Candidates) + " of the same shape, " +
                                  std::to_string(search.FourStarFits) + " tried as plates"
                            : fault);
}

/// A catalog that ends this many magnitudes too early is worth mentioning.
constexpr double shallow = 0.5;

std::string TryLine(const std::string& advice) {
    return "  Try: " + advice + "\n";
}

}  // namespace

bool HasNextToNoCounts(const PlateImage& image) {
    if (image.Pixels.Empty() || image.Header.BitPix >= 0 || image.Width == 0 || image.Height == 0)
        return false;
    std::int32_t least = image.Pixels(0, 0);
    std::int32_t most = least;
    std::vector<std::int32_t> buffer;
    for (std::int32_t y = 0; y < image.Height; ++y) {
        const auto row = image.Pixels.Row(y, buffer).first(static_cast<std::size_t>(image.Width));
        const auto [low, high] = std::minmax_element(row.begin(), row.end());
        least = std::min(least, *low);
        most = std::max(most, *high);
    }
    return std::int64_t{most} - least <= 1;
}

ImageOrientation OrientationOf(const PlateSolution& solution, const PlateImage& image) {
    const bool firstRowAtTop = FirstRowAtTop(image);
    const double upward = firstRowAtTop ? -1 : 1;
    const double centreX = (image.Width - 1) / 2.0;
    const double centreY = (image.Height - 1) / 2.0;
    double xi0 = 0;
    double eta0 = 0;
    double xi1 = 0;
    double eta1 = 0;
    InvertPlateFit(solution.Transform, centreX, centreY, xi0, eta0);
    InvertPlateFit(solution.Transform, centreX, centreY + upward, xi1, eta1);

    // North at the image centre, not at the tangent point: the two differ by the convergence of the
    // meridians, which near a pole can be any angle. Vectors are (east, north, outward) at the
    // tangent point.
    double east = -xi0 / SolveArcsecondsPerRadian;
    double north = eta0 / SolveArcsecondsPerRadian;
    if (solution.IsWide()) {
        // The plate may put its own centre some pixels off, which turns north near a pole.
        const double ahead = solution.CentreRA - solution.TangentRA;
        east = std::cos(solution.CentreDec) * std::sin(ahead);
        north = std::sin(solution.CentreDec) * std::cos(solution.TangentDec) -
                std::cos(solution.CentreDec) * std::sin(solution.TangentDec) * std::cos(ahead);
    }
    const double outward = std::sqrt(std::max(0.0, 1 - east * east - north * north));
    const double upEast = -(xi1 - xi0);
    const double upNorth = eta1 - eta0;
    const double upOutward = outward > 0 ? -(east * upEast + north * upNorth) / outward : 0;
    const double poleNorth = std::cos(solution.TangentDec);
    const double poleOutward = std::sin(solution.TangentDec);
    const double alongNorth = poleNorth * upNorth + poleOutward * upOutward;
    const double alongEast = (poleNorth * outward - poleOutward * north) * upEast +
                             poleOutward * east * upNorth - poleNorth * east * upOutward;
    double angle = std::atan2(alongEast, alongNorth) * ExactDegreesPerRadian;
    if (angle < 0) angle += 360;
    // xi grows west, so with rows counted downward the unmirrored sky has a negative stretch.
    return {angle, firstRowAtTop ? solution.Stretch > 0 : solution.Stretch < 0};
}

std::string ConfidenceText(const MatchConfidence& confidence) {
    constexpr double likely = -3;
    const double log = confidence.Log10FalseAlarm;
    return std::to_string(confidence.Matched) + " of " +
           Count(confidence.Candidates, "catalog star", "catalog stars") +
           " in the frame matched, " + Fixed(confidence.ExpectedByChance, 1) +
           " expected by chance; false alarm " +
           (log > likely ? RoundedText(std::pow(10, log), 3)
                         : "below 1e" + std::to_string(static_cast<int>(std::ceil(log))));
}

std::size_t ContinuationColumn(std::string_view line) {
    const std::size_t start = std::min(line.find_first_not_of(' '), line.size());
    constexpr std::size_t value = 2 + labelWidth;
    const bool hasLabel = start == 2 && line.size() > value && line[value - 1] == ' ' &&
                          line[value] != ' ' &&
                          line.substr(0, value).find("  ", start) != std::string_view::npos;
    return hasLabel ? value : start + 2;
}

namespace {

/// An angle of 0..360° with two decimals: what would be rounded to 360 is 0.
std::string CircleText(double degrees) {
    return Fixed(std::fmod(RoundToDecimals(degrees, 2), 360), 2) + DegreeSign;
}

}  // namespace

std::string SolutionText(const ProgramState& state) {
    const PlateSolution& solution = *state.Solution;
    const ImageOrientation orientation = OrientationOf(solution, state.Image);
    Table table;
    table.Line("Centre (J2000)", Position(solution.Centre()));
    table.Line("Field", FieldSizeText(state.Image.Width, state.Image.Height, solution.Scale));
    table.Line("Scale", Fixed(1 / solution.Scale, 4) + "\"/px");
    table.Line("Rotation", CircleText(PositionAngleDegrees(solution.Angle)) + "   (up is " +
                               CircleText(orientation.UpPositionAngle) + " east of north)");
    table.Line("Mirrored", orientation.Mirrored ? "yes (with north up, east is right)"
                                                : "no (with north up, east is left)");
    table.Line("Stretch, skew",
               Fixed(std::fabs(solution.Stretch), 5) + ", " + Fixed(solution.Skew, 5));
    table.Line("Stars", std::to_string(solution.ExtractedCount) + " extracted, " +
                            std::to_string(solution.CatalogCount()) + " in catalog, " +
                            std::to_string(solution.MatchedCount) + " matched");
    table.Line("RMS",
               ResidualText(solution.Rms, solution.Scale) + " (" + Fixed(solution.Rms, 3) + " px)");
    if (state.Report.Blind) {
        const QuadSearch& quads = state.QuadMatch;
        table.Line("Found by quads", std::to_string(quads.Searched) + " looked up, " +
                                         std::to_string(quads.FourStarFits) + " tried as plates");
    }
    table.Line("Regions searched", std::to_string(solution.RegionsSearched));
    if (solution.Confidence.Candidates > 0) {
        table.Line("Certainty", ConfidenceText(solution.Confidence));
    }
    const char* const word = WordOf(TrustOf(state).Level);
    for (const std::string& caution : Cautions(state)) table.Line(word, caution);
    return table.Take();
}

std::string QuadMatchText(const ProgramState& state) {
    const QuadSearch& search = state.QuadMatch;
    Table table;
    table.Line("Centre (J2000)", Position(search.Centre));
    const double scale = search.Geometry.Scale;
    table.Line("Field", FieldSizeText(state.Image.Width, state.Image.Height, scale));
    table.Line("Scale", Fixed(1 / scale, 4) + "\"/px");
    table.Line("Pairs", std::to_string(search.Pairs.Count()) + ", fit error " +
                            Fixed(search.FitError, 3) + " px");
    AddQuads(table, state);
    table.Line("Certainty", ConfidenceText(search.Confidence));
    if (!(search.FieldRatio > 0.5 && search.FieldRatio < 2)) {
        table.Line("Size", "the field is " + Fixed(search.FieldRatio, 2) +
                               " times the size given: give that size to Plate Match");
    }
    if (IsSure(search)) {
        return table.Take() + TryLine("Plate Match, which measures the image from this centre");
    }
    table.Line("Doubtful", Count(search.Pairs.Count(), "pair", "pairs") +
                               " can be chance: the approximate centre stays as it was");
    return table.Take() + TryLine("Plate Match, from this centre or another that is known");
}

std::vector<std::string> Cautions(const ProgramState& state) {
    std::vector<std::string> cautions;
    if (!state.Solution) return cautions;
    const PlateSolution& solution = *state.Solution;
    if (solution.Rms > state.Parameters.MaxError) {
        cautions.push_back("the fit is poor: RMS " + Fixed(solution.Rms, 1) + " px from " +
                           std::to_string(solution.MatchedCount) + " stars");
    }
    const double found = std::hypot(solution.WidthArcmin, solution.HeightArcmin);
    const double expected = 2 * state.Report.SearchRadius * ExactDegreesPerRadian * 60;
    const double ratio = found / expected;
    constexpr double tolerated = 1.25;
    // Without a given size there is nothing to compare with.
    if (expected > 0 && !(ratio < tolerated && ratio > 1 / tolerated)) {
        cautions.push_back("the field is " + Fixed(ratio, 2) + " times the size given");
    }
    if (solution.Confidence.Candidates > 0 && !IsSure(solution.Confidence)) {
        cautions.emplace_back("so few stars can match by chance");
    }
    if (state.Sky.Made && !state.Sky.Model) {
        cautions.emplace_back("the field is too wide: positions away from its centre are rough");
    } else if (state.Sky.Made &&
               !(state.Sky.Model->Solution && state.Sky.Model->Solution->ReachesEdges)) {
        cautions.emplace_back("too few stars near the edges fit: positions there can be wrong");
    }
    return cautions;
}

std::string CatalogComplaint(const ProgramState& state) {
    const std::string folder = TextFromPath(state.Catalog.Folder);
    switch (state.Report.CatalogAtStart) {
        case CatalogPresence::FolderMissing:
            return "the catalog folder " + folder + " does not exist";
        case CatalogPresence::NoCells:
            return "the catalog folder " + folder + " holds no stars";
        case CatalogPresence::NothingHere:
            return "the catalog in " + folder + " has no stars in this part of the sky";
        case CatalogPresence::Present:
            break;
    }
    return {};
}

std::string CatalogDamage(const ProgramState& state) {
    const std::string cell = DamagedCell(state.Catalog);
    if (!cell.empty()) {
        return "the file " + TextFromPath(state.Catalog.Folder / cell) +
               " of the catalog is damaged or cannot be read";
    }
    // The faults of the tables themselves begin with the name of their file.
    const std::string tables = TextFromPath(state.Quads.File);
    const bool damaged = !tables.empty() && state.Quads.Fault.starts_with(tables + " ");
    return damaged ? state.Quads.Fault : std::string();
}

std::string LackOfCatalog(const ProgramState& state) {
    std::string complaint = CatalogComplaint(state);
    if (!complaint.empty()) return complaint;
    // When there was a place to search as well, that search decides.
    const bool onlyQuads = state.Report.Blind && state.Report.RegionsTried == 0;
    return onlyQuads ? state.Quads.Fault : std::string();
}

std::vector<std::string> Advice(const ProgramState& state, SolveCode code,
                                const InputWords& words) {
    std::vector<std::string> advice;
    if (code == SolveCode::TooFewStars && HasNextToNoCounts(state.Image)) {
        advice.emplace_back(
            "scale the pixels up and write them again, as by 65535: Vestrel takes whole counts, "
            "and these reach from 0 to 1");
        return advice;
    }
    if (code == SolveCode::TooFewStars) {
        advice.push_back(std::string("lower ") + words.Threshold + ", or " + words.MinStarSize +
                         " for sharp stars");
        advice.emplace_back("check that the picture shows stars: exposure, focus, clouds, cap");
        return advice;
    }
    if (code != SolveCode::NoMatch) return advice;
    const SolveReport& report = state.Report;
    if (report.Blind && report.RegionsTried == 0) {
        if (state.Quads.Fault.empty() || state.Quads.OtherSizes) {
            advice.push_back(std::string("check the size of the field (") + words.FieldSize +
                             "): it decides which quads are compared");
        }
        advice.emplace_back(words.SearchFromCentre);
        return advice;
    }
    if (report.CatalogAtStart == CatalogPresence::FolderMissing ||
        report.CatalogAtStart == CatalogPresence::NoCells) {
        advice.push_back(
            std::string("make a catalog with vestrel-catalog build, or name its folder (") +
            words.CatalogFolder + ")");
        return advice;
    }
    constexpr std::int32_t fewestUseful = 10;
    if (report.CatalogStarsAtStart < fewestUseful) {
        advice.emplace_back(
            "the catalog has few stars here: build a deeper one, or check the size of the field");
    } else if (FaintEnd(state.Catalog) < report.MagnitudeLimit - shallow) {
        advice.emplace_back("build a deeper catalog: \"vestrel-catalog sources\" says from what");
    }
    advice.push_back(std::string("check the size of the field (") + words.FieldSize +
                     "): it decides which stars are compared");
    advice.push_back(std::string("check the centre (") + words.Ra +
                     " in hours when sexagesimal, in degrees when plain)");
    advice.push_back(std::string("search farther with a larger ") + words.Regions);
    return advice;
}

std::string ShallowCatalogText(const ProgramState& state) {
    const SolveReport& report = state.Report;
    const double end = FaintEnd(state.Catalog);
    if (report.RegionsTried == 0 || !(end < report.MagnitudeLimit - shallow)) return {};
    return "the catalog ends at " + Fixed(end, 1) + " here, this field is compared down to " +
           Fixed(report.MagnitudeLimit, 1);
}

std::string FailureText(const ProgramState& state, SolveCode code, const InputWords& words,
                        const CauseAndCure& likeliest) {
    const SolveReport& report = state.Report;
    Table table;
    AddImage(table, state);
    if (report.Blind && code != SolveCode::TooFewStars) AddQuads(table, state);
    if (report.RegionsTried > 0 && (code == SolveCode::NoMatch || code == SolveCode::Stopped)) {
        const std::string complaint = CatalogComplaint(state);
        table.Line("Catalog", complaint.empty()
                                  ? std::to_string(report.CatalogStarsAtStart) +
                                        " stars in the first region, down to magnitude " +
                                        Fixed(report.MagnitudeLimit, 1)
                                  : complaint);
        const std::string tooShallow = ShallowCatalogText(state);
        if (!tooShallow.empty() && !likeliest.Cause.starts_with(tooShallow)) {
            table.Line("Too shallow", tooShallow);
        }
        const std::string oversized = OversizedCell(state.Catalog);
        if (!oversized.empty()) {
            table.Line("Not read", TextFromPath(state.Catalog.Folder / oversized) +
                                       ": no cell of a catalog is that large");
        }
        table.Line("Regions tried", std::to_string(report.RegionsTried));
        table.Line("Best attempt", Count(report.BestAttempt.Selected, "pair", "pairs") +
                                       " by votes, " + std::to_string(report.BestAttempt.Kept) +
                                       " left by the fit, about " +
                                       Position(report.BestAttemptCentre));
    }
    if (!likeliest.Cause.empty()) {
        table.Line("Likely cause", likeliest.Cause);
        return table.Take() + TryLine(likeliest.Cure);
    }
    std::string text = table.Take();
    for (const std::string& line : Advice(state, code, words)) text += TryLine(line);
    return text;
}

std::vector<std::pair<std::string, double>> StageTable(const StageTimes& times) {
    std::vector<std::pair<std::string, double>> table = {{"reading", times.Reading},
                                                         {"background", times.Background},
                                                         {"extraction", times.Extraction},
                                                         {"catalog", times.Catalog},
                                                         {"matching", times.Matching}};
    if (times.Quads > 0) table.emplace_back("quads", times.Quads);
    return table;
}

}  // namespace vestrel
