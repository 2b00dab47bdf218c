#include "program/mPlateMatch.h"

#include <algorithm>
#include <cmath>
#include <new>
#include <tuple>

#include "astro/libConversions.h"
#include "astro/libMath.h"
#include "astro/libStrings.h"
#include "catalog/libCatalogRegion.h"
#include "program/mStarExtraction.h"
#include "program/mStopwatch.h"

namespace vestrel {

namespace {

constexpr std::int32_t fewestStars = 6;

void ShowCentre(ProgramState& state, Port& port, SkyPosition centre) {
    state.Display.CentreRA = FormatRA(centre.Ra, true, 2);
    state.Display.CentreDec = FormatDec(centre.Dec, true, 1);
    port.DisplayChanged();
}

/// Extracts the plate stars, with one smoothing when they are few.
std::int32_t ExtractPlateStars(ProgramState& state, Port& port, PlateStarList& stars) {
    constexpr std::int32_t enoughStars = 12;
    ShowStatus(state, port, "Extracting Stars", state.Display.Status.Colour);
    const StageTimer timer(state.Report.Times.Extraction);
    std::int32_t count = 0;
    ExtractStars(state, port, stars, count);
    if (count < enoughStars) {
        GaussianFilter(state, port);
        state.Report.Smoothed = true;
        port.ImageChanged();
        ExtractStars(state, port, stars, count);
    }
    return count;
}

void ShowTooFewStars(ProgramState& state, Port& port, std::int32_t count) {
    state.Display.Status1 = {"Insufficient Plate Stars", StatusColour::Red, true};
    state.Display.BusyIndicator = false;
    ShowStatus(state, port, "Extracted " + std::to_string(count) + " Stars", StatusColour::Red);
}

/// One search over the spiral: what all its regions share.
class RegionSearch {
 public:
    RegionSearch(ProgramState& state, Port& port, double plateWidth, double plateHeight,
                 double matchTolerance)
        : state_(state),
          port_(port),
          matchTolerance_(matchTolerance),
          radius_(std::sqrt(plateWidth * plateWidth + plateHeight * plateHeight) / 2) {
        // A field with a half-diagonal of 14' goes down to magnitude 15; every doubling of the
        // field costs 1.5 magnitudes, which keeps the number of stars about the same.
        const double relative = radius_ * (180 / Pi) * 60 / 14;
        magnitudeLimit_ = 15.0 - 2.5 * std::log10(relative * relative);
        state_.Report.SearchRadius = radius_;
        state_.Report.MagnitudeLimit = magnitudeLimit_;
    }

    /// Reads and matches the region about a centre.
    bool Match(SkyPosition centre) {
        ReadRegion(centre);
        const StageTimer timer(state_.Report.Times.Matching);
        const SolveParameters& parameters = state_.Parameters;
        const AlignSettings settings{parameters.MatchTolerance, parameters.MatchDivisor,
                                     parameters.MaxGeometricError, parameters.MaxStars};
        // The matcher lowers the counts that it is given.
        std::int32_t catalogCount = CatalogCount;
        std::int32_t plateCount = state_.PlateStarCount;
        FitGeometry geometry;
        double fitError = 0;
        AlignReport& report = Report;
        const bool matched = AlignImages(
            CatalogStars, catalogCount, state_.PlateStars, plateCount, Attempt.Pairs,
            Attempt.PairCount, Attempt.Transform, geometry, fitError, Attempt.MatchedCount,
            matchTolerance_, settings, plateTriangles_, report, StoppableProgress(state_, port_));
        port_.ShowProgress(0);
        ++state_.Report.RegionsTried;
        if (!matched) KeepBestAttempt(report, centre);
        return matched;
    }

    PlateSolution Attempt;       ///< pairs and constants of the region tried last
    AlignReport Report;          ///< of the region tried last
    PlateStarList CatalogStars;  ///< of the region tried last
    std::int32_t CatalogCount = 0;

 private:
    void ReadRegion(SkyPosition centre) {
        const StageTimer timer(state_.Report.Times.Catalog);
        state_.Plane.SetProjectionCentre(centre.Ra, centre.Dec, SolveArcsecondsPerRadian);
        RegionStars(state_.Catalog, state_.Plane, centre.Ra, centre.Dec, radius_, magnitudeLimit_,
                    CatalogStars, CatalogCount);
        state_.Display.FoundInCatalog = std::to_string(CatalogCount);
        if (state_.Report.RegionsTried == 0) {
            state_.Report.CatalogStarsAtStart = CatalogCount;
            if (CatalogCount == 0) state_.Report.CatalogAtStart = PresenceOfCatalog(state_.Catalog);
        }
        port_.DisplayChanged();
    }

    void KeepBestAttempt(const AlignReport& report, SkyPosition centre) {
        const auto merit = [](const AlignReport& r) {
            return std::make_tuple(r.Kept, r.Selected, r.Voted);
        };
        if (state_.Report.RegionsTried == 1 || merit(report) > merit(state_.Report.BestAttempt)) {
            state_.Report.BestAttempt = report;
            state_.Report.BestAttemptCentre = centre;
        }
    }

    ProgramState& state_;
    Port& port_;
    double matchTolerance_;
    double radius_;
    double magnitudeLimit_ = 0;
    KeptTriangles plateTriangles_;
};

/// Mean of instrumental − catalog magnitude over the pairs in use.
void SetZeroPoint(ProgramState& state, const PlateStarList& catalogStars) {
    double instrumental = 0;
    double catalog = 0;
    std::int32_t n = 0;
    for (std::size_t k = 1; k < state.Solution.Pairs.size(); ++k) {
        const StarMatch& pair = state.Solution.Pairs[k];
        if (!pair.InUse) continue;
        const PlateStar& plateStar = state.PlateStars[static_cast<std::size_t>(pair.Star2)];
        instrumental += -2.5 * std::log10(static_cast<double>(plateStar.Flux));
        catalog += static_cast<double>(catalogStars[static_cast<std::size_t>(pair.Star1)].Flux);
        ++n;
    }
    state.MagnitudeZeroPoint = (instrumental - catalog) / n;
    state.Solution.MagnitudeZeroPoint = state.MagnitudeZeroPoint;
    state.ZeroPointValid = true;
}

/// How sure the solution is, judged with all stars, of which the matcher used the brightest. The
/// quads that fitted before, in a blind solve, were searches as well.
MatchConfidence ConfidenceOfSolution(const ProgramState& state, const RegionSearch& search,
                                     std::int32_t regions) {
    const std::int32_t most = state.Parameters.MaxStars;
    MatchEvidence evidence =
        EvidenceOf(state.Solution.Transform, search.CatalogStars, search.CatalogCount,
                   state.PlateStars, state.PlateStarCount, state.Image.Width, state.Image.Height);
    evidence.SearchedCatalog = std::min(search.CatalogCount, most);
    evidence.SearchedImage = std::min(state.PlateStarCount, most);
    evidence.Trials = regions;
    if (state.Report.Blind) evidence.Trials += state.QuadMatch.FourStarFits;
    return ConfidenceOf(evidence);
}

/// Everything that follows a match in the region about `tangent`, the `regions`-th one tried.
void TakeSolution(ProgramState& state, Port& port, const RegionSearch& search, SkyPosition tangent,
                  std::int32_t regions, double& ra, double& dec) {
    PlateSolution& solution = state.Solution;
    solution = search.Attempt;
    double xi = 0;
    double eta = 0;
    InvertPlateFit(solution.Transform, (state.Image.Width - 1) / 2.0,
                   (state.Image.Height - 1) / 2.0, xi, eta);
    state.Plane.SetProjectionCentre(tangent.Ra, tangent.Dec, SolveArcsecondsPerRadian);
    state.Plane.PlaneToSky(xi, eta, ra, dec);
    ShowStatus(state, port, "Plate Match Found", StatusColour::Green);

    FinishPlateSolution(state, port, search.CatalogStars, state.PlateStars);
    solution.CentreRA = ra;
    solution.CentreDec = dec;
    solution.TangentRA = tangent.Ra;
    solution.TangentDec = tangent.Dec;
    solution.ExtractedCount = state.Extraction.StarsFound;
    solution.CatalogCount = search.CatalogCount;
    solution.RegionsSearched = regions;
    solution.Confidence = ConfidenceOfSolution(state, search, regions);

    ImageHeader& header = state.Image.Header;
    header.RaRef = tangent.Ra;
    header.DecRef = tangent.Dec;
    header.PlateScale = SolveArcsecondsPerRadian;
    state.Display.CentreCaption = "J2000 Image Center";
    state.SolvedCentre = {ra, dec};
    state.Display.SyncEnabled = true;
    state.Display.Status1 = {
        "Searched " + std::to_string(regions) + (regions == 1 ? " region" : " regions"),
        StatusColour::Green, true};
    ShowCentre(state, port, state.SolvedCentre);
    state.CatalogStars = search.CatalogStars;
    state.CatalogStarCount = search.CatalogCount;
    SetZeroPoint(state, search.CatalogStars);
}

}  // namespace

std::int16_t SolvePlate(ProgramState& state, Port& port, double& ra, double& dec, double plateWidth,
                        double plateHeight, std::int32_t regionLimit, double matchTolerance) {
    BeginSolve(state);
    port.Yield();
    return WithinMemory(state, port, [&] {
        if (!FindPlateStars(state, port)) return SolveCode::TooFewStars;
        return MatchPlateStars(state, port, ra, dec, plateWidth, plateHeight, regionLimit,
                               matchTolerance);
    });
}

void BeginSolve(ProgramState& state) {
    state.StopRequested = false;
    state.StopSeen.reset();
    const double readingTime = state.Report.Times.Reading;
    state.Report = {};
    state.Report.Times.Reading = readingTime;
}

std::int16_t WithinMemory(ProgramState& state, Port& port,
                          const std::function<std::int16_t()>& piece) {
    try {
        return piece();
    } catch (const StopOverdue&) {
        state.Display.BusyIndicator = false;
        state.Image.Header.PlateMatched = false;
        port.ShowProgress(0);
        port.ShowBusyPointer(false);
        ShowStatus(state, port, "Search Terminated", StatusColour::Red);
        return SolveCode::Stopped;
    } catch (const std::bad_alloc&) {
        state.Display.BusyIndicator = false;
        ShowStatus(state, port, "Out of memory", StatusColour::Red);
        port.ShowMessage("There is not enough memory for this image.", DefaultTitle);
        return SolveCode::TooFewStars;
    }
}

bool FindPlateStars(ProgramState& state, Port& port) {
    if (!state.BackgroundRemoved) {
        const StageTimer timer(state.Report.Times.Background);
        SubtractBackground(state, port, 30, 50.0);
        port.ImageChanged();
    }
    PlateStarList stars;
    const std::int32_t count = ExtractPlateStars(state, port, stars);
    state.Display.Extracted = std::to_string(state.Extraction.StarsFound);
    if (count >= fewestStars) {
        state.PlateStars = std::move(stars);
        state.PlateStarCount = count;
    }
    port.ImageChanged();
    port.Yield();
    if (count < fewestStars) ShowTooFewStars(state, port, count);
    return count >= fewestStars;
}

std::int16_t MatchPlateStars(ProgramState& state, Port& port, double& ra, double& dec,
                             double plateWidth, double plateHeight, std::int32_t regionLimit,
                             double matchTolerance) {
    state.Display.BusyIndicator = true;
    state.Display.Status1 = {"", StatusColour::Black, false};
    state.Display.CentreCaption = "Search Center";
    state.Display.SyncEnabled = false;
    ShowStatus(state, port, "Attempting Match");
    port.Yield();

    const SkyPosition start{ra, dec};
    RegionSearch search(state, port, plateWidth, plateHeight, matchTolerance);
    SkyPosition centre = start;
    bool matched = search.Match(centre);
    ShowCentre(state, port, centre);
    state.Display.BusyIndicator = false;
    port.DisplayChanged();

    const double step = std::min(plateWidth, plateHeight) / 2.5 * SolveArcsecondsPerRadian;
    std::int16_t i = 0;
    std::int16_t j = 0;
    std::int16_t ring = 0;
    std::int64_t k = 1;
    do {
        if (matched) {
            TakeSolution(state, port, search, centre, static_cast<std::int32_t>(k), ra, dec);
            return SolveCode::Solved;
        }
        if (state.StopRequested) {
            state.Image.Header.PlateMatched = false;
            ShowStatus(state, port, "Search Terminated", StatusColour::Red);
            return SolveCode::Stopped;
        }
        ShowStatus(state, port,
                   "Spiral search " + std::to_string(k) + " [" + std::to_string(i) + "," +
                       std::to_string(j) + "]");
        NextSpiralCell(i, j, ring);
        state.Plane.SetProjectionCentre(start.Ra, start.Dec, SolveArcsecondsPerRadian);
        state.Plane.PlaneToSky(i * step, j * step, centre.Ra, centre.Dec);
        ShowCentre(state, port, centre);
        port.Yield();
        matched = search.Match(centre);
        ++k;
        // The limit is looked at before the match: the region beyond it cannot succeed.
    } while (k <= regionLimit);
    state.Report.RegionsTried = std::max(regionLimit, 1);
    ShowStatus(state, port, "No Match Found", StatusColour::Red);
    return SolveCode::NoMatch;
}

void NextSpiralCell(std::int16_t& i, std::int16_t& j, std::int16_t& ring) {
    if (j == -ring && i > -ring) {
        --i;
    } else if (i == -ring && j < ring) {
        ++j;
    } else if (j == ring && i < ring) {
        ++i;
    } else if (i == ring && -ring < j && j < ring) {
        --j;
    } else if (i == ring && j == ring) {
        ++ring;
        i = ring;
    }
}

void ShowPlateGeometry(ProgramState& state, const FitGeometry& geometry, double rms,
                       std::int32_t matched) {
    double width = state.Image.Width / geometry.Scale;
    double height = state.Image.Height / geometry.Scale;
    const char* unit = "\"";
    for (const char* larger : {"'", DegreeSign}) {
        if (std::min(width, height) < 60) break;
        width /= 60;
        height /= 60;
        unit = larger;
    }
    double degrees = geometry.Angle * 57.29577950560105;
    if (degrees < 0) degrees += 360;
    if (degrees > 360) degrees -= 360;
    state.Geometry = {1 / geometry.Scale, degrees, geometry.Stretch, geometry.Skew};

    SolveDisplay& display = state.Display;
    display.PlateSize = RoundedText(width, 2) + unit + " X " + RoundedText(height, 2) + unit;
    display.Matched = std::to_string(matched);
    display.RmsDifference = RoundedText(rms / geometry.Scale, 3) + "\"";
    display.Scale = RoundedText(1 / geometry.Scale, 4) + "\"";
    display.Stretch = RoundedText(-geometry.Stretch, 3);
    display.Skew = RoundedText(geometry.Skew, 3);
    display.Angle = RoundedText(degrees, 2) + DegreeSign;
}

void FinishPlateSolution(ProgramState& state, Port& port, const PlateStarList& catalogStars,
                         const PlateStarList& plateStars) {
    PlateSolution& solution = state.Solution;
    std::vector<double> residuals;
    solution.Rms = FitPlate(catalogStars, plateStars, solution.Pairs, solution.PairCount,
                            solution.Transform, residuals);
    const FitGeometry geometry = PlateGeometry(solution.Transform);
    solution.Scale = geometry.Scale;
    solution.Stretch = geometry.Stretch;
    solution.Skew = geometry.Skew;
    solution.Angle = geometry.Angle;
    solution.MatchedCount =
        static_cast<std::int32_t>(std::count_if(solution.Pairs.begin() + 1, solution.Pairs.end(),
                                                [](const StarMatch& pair) { return pair.InUse; }));

    ImageHeader& header = state.Image.Header;
    header.ImageSizeX = solution.WidthArcmin = state.Image.Width / solution.Scale / 60;
    header.ImageSizeY = solution.HeightArcmin = state.Image.Height / solution.Scale / 60;
    ShowPlateGeometry(state, geometry, solution.Rms, solution.MatchedCount);
    port.DisplayChanged();

    const PlateConstants& transform = solution.Transform;
    const double rows[2][3] = {{transform.a, transform.b, transform.c},
                               {transform.d, transform.e, transform.f}};
    for (int row = 0; row < 2; ++row) std::copy_n(rows[row], 3, header.PlateTransform[row]);
    header.PlateMatched = true;

    state.MatchedPositions.clear();
    for (std::size_t k = 1; k < solution.Pairs.size(); ++k) {
        if (!solution.Pairs[k].InUse) continue;
        const PlateStar& star = catalogStars[static_cast<std::size_t>(solution.Pairs[k].Star1)];
        state.MatchedPositions.push_back({star.Ra, star.Dec});
    }
}

}  // namespace vestrel
