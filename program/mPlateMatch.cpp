#include "program/mPlateMatch.h"

#include <algorithm>
#include <new>
#include <tuple>

#include "astro/libConversions.h"
#include "astro/libMath.h"
#include "astro/libStrings.h"
#include "program/mSkyModel.h"
#include "program/mStarExtraction.h"
#include "program/mStopwatch.h"

namespace vestrel {

namespace {

constexpr std::int32_t fewestStars = 6;

void ShowCentre(ProgramState& state, Port& port, SkyPosition centre) {
    state.Display.CentreRa = FormatRA(centre.Ra, true, 2);
    state.Display.CentreDec = FormatDec(centre.Dec, true, 1);
    port.DisplayChanged();
}

/// Extracts the plate stars, after one smoothing when they are fewer than 12.
PlateStarList ExtractPlateStars(ProgramState& state, Port& port) {
    constexpr std::int32_t enoughStars = 12;
    ShowStatus(state, port, "Extracting Stars", state.Display.Status.Colour);
    const StageTimer timer(state.Report.Times.Extraction);
    PlateStarList stars = ExtractStars(state, port);
    if (stars.Count() < enoughStars) {
        GaussianFilter(state, port);
        state.Report.Smoothed = true;
        port.ImageChanged();
        stars = ExtractStars(state, port);
    }
    return stars;
}

void ShowTooFewStars(ProgramState& state, Port& port, std::int32_t count) {
    state.Display.Status1 = {"Insufficient Plate Stars", StatusColour::Red, true};
    state.Display.BusyIndicator = false;
    ShowStatus(state, port, "Extracted " + std::to_string(count) + " Stars", StatusColour::Red);
}

/// Remembers a failed region when it came farther than the ones before.
void KeepBestAttempt(SolveReport& report, const RegionMatch& region) {
    const auto merit = [](const AlignReport& r) {
        return std::make_tuple(r.Kept, r.Selected, r.Voted);
    };
    if (report.RegionsTried == 1 || merit(region.Found.Report) > merit(report.BestAttempt)) {
        report.BestAttempt = region.Found.Report;
        report.BestAttemptCentre = region.Centre;
    }
}

/// How sure the solution is, judged with all stars (the matcher used only the brightest). In a
/// blind solve, the quads that fitted before count as searches too.
MatchConfidence ConfidenceOfSolution(const ProgramState& state, const PlateSolution& solution,
                                     double triedBefore) {
    const std::int32_t most = state.Parameters.MaxStars;
    const PlateStarList catalog =
        OnThisSide(solution.CatalogStars, {solution.TangentRA, solution.TangentDec});
    MatchEvidence evidence = EvidenceOf(solution.Transform, catalog, solution.PlateStars,
                                        state.Image.Width, state.Image.Height);
    evidence.SearchedCatalog = std::min(catalog.Count(), most);
    evidence.SearchedImage = std::min(solution.PlateStars.Count(), most);
    evidence.Trials = triedBefore + solution.RegionsSearched;
    if (state.Report.Blind) evidence.Trials += state.QuadMatch.FourStarFits;
    return ConfidenceOf(evidence);
}

PlateSolution RegionSolution(const ProgramState& state, const RegionMatch& region,
                             std::int32_t regions, double triedBefore) {
    PlateSolution solution =
        SolutionOf(region, state.PlateStars, state.Image.Width, state.Image.Height);
    solution.ExtractedCount = state.Extraction.StarsFound;
    solution.RegionsSearched = regions;
    solution.Confidence = ConfidenceOfSolution(state, solution, triedBefore);
    return solution;
}

RegionSettings SettingsFor(const PlateSearch& search, const SolveParameters& parameters) {
    return RegionSettingsFor(search.Width, search.Height, search.MatchTolerance,
                             AlignSettingsOf(parameters));
}

/// The centres of a square spiral about a starting centre, without that centre.
class SpiralCentres {
 public:
    SpiralCentres(SkyPosition start, double step) : step_(step) {
        grid_.SetProjectionCentre(start, SolveArcsecondsPerRadian);
    }
    SkyPosition Next() {
        NextSpiralCell(i_, j_, ring_);
        return grid_.PlaneToSky(i_ * step_, j_ * step_);
    }
    /// The place in the spiral of the last centre.
    std::string PlaceText() const {
        return "[" + std::to_string(i_) + "," + std::to_string(j_) + "]";
    }

 private:
    Projection grid_;
    double step_;  ///< plane units
    std::int16_t i_ = 0;
    std::int16_t j_ = 0;
    std::int16_t ring_ = 0;
};

/// The next centres.
std::vector<SkyPosition> CentresAhead(SpiralCentres spiral, std::size_t count) {
    std::vector<SkyPosition> centres(count);
    for (SkyPosition& centre : centres) centre = spiral.Next();
    return centres;
}

/// Reads and matches one region, and shows and reports how far it came. `Found.Matched` says
/// whether it matches the plate stars.
/// @param next gives the centres after this one
/// @param mayFollow how many of these may be used
RegionMatch TryRegion(ProgramState& state, Port& port, RegionMatcher& matcher, SkyPosition centre,
                      const SpiralCentres& next, std::int64_t mayFollow) {
    SolveReport& report = state.Report;
    RegionMatch region;
    {
        const StageTimer timer(report.Times.Catalog);
        region = matcher.Read(centre);
        const std::int32_t count = region.CatalogStars.Count();
        state.Display.FoundInCatalog = std::to_string(count);
        if (report.RegionsTried == 0) {
            report.CatalogStarsAtStart = count;
            if (count == 0) report.CatalogAtStart = PresenceOfCatalog(state.Catalog);
        }
        port.DisplayChanged();
    }
    const StageTimer timer(report.Times.Matching);
    const auto ahead = static_cast<std::size_t>(
        std::clamp<std::int64_t>(mayFollow, 0, static_cast<std::int64_t>(matcher.WantsNext())));
    matcher.MatchWithNext(region, CentresAhead(next, ahead), StoppableProgress(state, port));
    port.ShowProgress(0);
    ++report.RegionsTried;
    if (!region.Found.Matched) KeepBestAttempt(report, region);
    return region;
}

}  // namespace

AlignSettings AlignSettingsOf(const SolveParameters& parameters) {
    return {parameters.MatchTolerance, parameters.MatchDivisor, parameters.MaxGeometricError,
            parameters.MaxStars};
}

SolveCode SolvePlate(ProgramState& state, Port& port, const PlateSearch& search) {
    BeginSolve(state);
    port.Yield();
    return WithinMemory(state, port, [&] {
        if (!FindPlateStars(state, port)) return SolveCode::TooFewStars;
        const SolveCode code = MatchPlateStars(state, port, search);
        // Whether its positions can be followed to the corners; the centre stays the plate's.
        if (code == SolveCode::Solved && state.Solution->IsWide()) KeptSkyModel(state);
        return code;
    });
}

void BeginSolve(ProgramState& state) {
    state.StopRequested = false;
    state.StopSeen.reset();
    const double readingTime = state.Report.Times.Reading;
    state.Report = {};
    state.Report.Times.Reading = readingTime;
}

SolveCode WithinMemory(ProgramState& state, Port& port, const std::function<SolveCode()>& piece) {
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
    PlateStarList stars = ExtractPlateStars(state, port);
    const std::int32_t count = stars.Count();
    state.Display.Extracted = std::to_string(state.Extraction.StarsFound);
    if (count >= fewestStars) {
        ForgetSolution(state);
        state.PlateStars = std::move(stars);
    }
    port.ImageChanged();
    port.Yield();
    if (count < fewestStars) ShowTooFewStars(state, port, count);
    return count >= fewestStars;
}

SolveCode MatchPlateStars(ProgramState& state, Port& port, const PlateSearch& search) {
    SolveReport& report = state.Report;
    state.Display.BusyIndicator = true;
    state.Display.Status1 = {"", StatusColour::Black, false};
    state.Display.CentreCaption = "Search Center";
    ShowStatus(state, port, "Attempting Match");
    port.Yield();

    RegionSettings settings = SettingsFor(search, state.Parameters);
    settings.Sides = search.Sides;
    report.SearchRadius = settings.Radius;
    report.MagnitudeLimit = settings.MagnitudeLimit;
    RegionMatcher matcher(state.Catalog, state.PlateStars, settings);
    const double step = std::min(search.Width, search.Height) / 2.5 * SolveArcsecondsPerRadian;
    SpiralCentres spiral(search.Start, step);
    // Most searches end with the first region, so no other region is matched ahead of it.
    RegionMatch region = TryRegion(state, port, matcher, search.Start, spiral, 0);
    ShowCentre(state, port, region.Centre);
    state.Display.BusyIndicator = false;
    port.DisplayChanged();

    std::int64_t k = 1;
    do {
        if (region.Found.Matched) {
            PlateSolution solution =
                RegionSolution(state, region, static_cast<std::int32_t>(k), search.TriedBefore);
            if (!search.Accept || search.Accept(solution)) {
                FinishPlateSolution(state, port, std::move(solution));
                return SolveCode::Solved;
            }
        }
        if (state.StopRequested || (search.MustEnd && search.MustEnd())) {
            state.Image.Header.PlateMatched = false;
            ShowStatus(state, port, "Search Terminated", StatusColour::Red);
            return SolveCode::Stopped;
        }
        ShowStatus(state, port, "Spiral search " + std::to_string(k) + " " + spiral.PlaceText());
        const SkyPosition centre = spiral.Next();
        ShowCentre(state, port, centre);
        port.Yield();
        region = TryRegion(state, port, matcher, centre, spiral, search.RegionLimit - k);
        ++k;
        // The limit is checked before the match, so the region beyond it cannot succeed.
    } while (k <= search.RegionLimit);
    report.RegionsTried = std::max(search.RegionLimit, 1);
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
    SolveDisplay& display = state.Display;
    display.PlateSize = FieldSizeText(state.Image.Width, state.Image.Height, geometry.Scale);
    display.Matched = std::to_string(matched);
    display.RmsDifference = ResidualText(rms, geometry.Scale);
    display.Scale = RoundedText(1 / geometry.Scale, 4) + "\"";
    display.Stretch = RoundedText(-geometry.Stretch, 3);
    display.Skew = RoundedText(geometry.Skew, 3);
    display.Angle = RoundedText(PositionAngleDegrees(geometry.Angle), 2) + DegreeSign;
}

void FinishPlateSolution(ProgramState& state, Port& port, PlateSolution solution) {
    ShowStatus(state, port, "Plate Match Found", StatusColour::Green);
    ShowPlateGeometry(state, PlateGeometry(solution.Transform), solution.Rms,
                      solution.MatchedCount);
    port.DisplayChanged();

    ImageHeader& header = state.Image.Header;
    const PlateConstants& transform = solution.Transform;
    const double rows[2][3] = {{transform.a, transform.b, transform.c},
                               {transform.d, transform.e, transform.f}};
    for (int row = 0; row < 2; ++row) std::copy_n(rows[row], 3, header.PlateTransform[row]);
    header.PlateMatched = true;
    header.PlateScale = SolveArcsecondsPerRadian;
    header.RaRef = solution.TangentRA;
    header.DecRef = solution.TangentDec;
    header.ImageSizeX = solution.WidthArcmin;
    header.ImageSizeY = solution.HeightArcmin;

    const std::int32_t regions = solution.RegionsSearched;
    state.Display.CentreCaption = "J2000 Image Center";
    state.Display.Status1 = {
        "Searched " + std::to_string(regions) + (regions == 1 ? " region" : " regions"),
        StatusColour::Green, true};
    ShowCentre(state, port, solution.Centre());
    state.Solution = std::move(solution);
    ++state.SolutionCount;
    state.Sky = {};
}

void MeasureWideField(ProgramState& state, Port& port) {
    if (!state.Solution || !state.Solution->IsWide()) return;
    const StageTimer timer(state.Report.Times.Matching);
    const auto& sky = KeptSkyModel(state);
    if (!sky) return;
    state.Solution->CentreRA = sky->Model.Tangent.Ra;
    state.Solution->CentreDec = sky->Model.Tangent.Dec;
    ShowCentre(state, port, state.Solution->Centre());
}

}  // namespace vestrel
