#include "program/mBlindSolve.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numeric>
#include <vector>

#include "astro/libMath.h"
#include "program/mMORA.h"
#include "program/mPlateMatch.h"
#include "program/mStarExtraction.h"

namespace vestrel {

namespace {

/// Places of three stars in the list, in rising order.
using Triple = std::array<std::int32_t, 3>;

/// The triples of the brightest stars, those of the brightest ones first.
std::vector<Triple> BrightTriples(std::int32_t imageCount) {
    constexpr std::int32_t brightStars = 6;
    const std::int32_t n = std::min(brightStars, imageCount - 1);
    std::vector<Triple> triples;
    for (std::int32_t a = 1; a <= n; ++a) {
        for (std::int32_t b = a + 1; b <= n; ++b) {
            for (std::int32_t c = b + 1; c <= n; ++c) triples.push_back({a, b, c});
        }
    }
    const auto sum = [](const Triple& t) { return std::accumulate(t.begin(), t.end(), 0); };
    std::stable_sort(triples.begin(), triples.end(),
                     [&sum](const Triple& a, const Triple& b) { return sum(a) < sum(b); });
    return triples;
}

/// The list without the stars before the triple's last one that are not of the triple.
PlateStarList ThinnedList(const PlateStarList& stars, const Triple& kept) {
    PlateStarList thinned;
    for (std::int32_t i = 1; i <= stars.Count(); ++i) {
        if (i > kept.back() || std::find(kept.begin(), kept.end(), i) != kept.end()) {
            thinned.Add(stars[i]);
        }
    }
    return thinned;
}

}  // namespace

std::vector<PlateStarList> ThinnedLists(const PlateStarList& stars) {
    std::vector<PlateStarList> lists;
    for (const Triple& triple : BrightTriples(stars.Count())) {
        lists.push_back(ThinnedList(stars, triple));
    }
    return lists;
}

bool FindCentreByQuads(ProgramState& state, Port& port, double width, double height,
                       double tolerance, const std::function<bool()>& confirm) {
    const QuadJudge sure = [](const QuadSearch& search) { return IsSure(search); };
    for (const PlateStarList& stars : ThinnedLists(state.PlateStars)) {
        if (SearchQuads(state, port, stars, width, height, tolerance, sure) &&
            (!confirm || confirm())) {
            return true;
        }
        if (state.StopRequested) break;
    }
    state.QuadMatch.Pairs.Clear();
    return false;
}

namespace {

/// Solves from the centre and with the field that the quads gave. Unless it succeeds the report
/// stays that of the searches before, but for the times.
bool MeasureFromQuads(ProgramState& state, Port& port, double tolerance) {
    // The centre that few stars near a corner give may be off by a small part of the field.
    constexpr std::int32_t regions = 9;
    SolveReport report = state.Report;
    report.RegionsTried = 0;
    report.CatalogAtStart = CatalogPresence::Present;
    const double radiansPerPixel = 1 / state.QuadMatch.Geometry.Scale / ArcsecondsPerRadian;
    const PlateSearch search{state.QuadMatch.Centre, state.Image.Width * radiansPerPixel,
                             state.Image.Height * radiansPerPixel, regions, tolerance};
    if (MatchPlateStars(state, port, search, report) == SolveCode::Solved) {
        state.Report = report;
        return true;
    }
    state.Report.Times = report.Times;
    state.Report.UnmeasuredCentre = state.QuadMatch.Centre;
    return false;
}

}  // namespace

SolveCode SolveBlind(ProgramState& state, Port& port, double plateWidth, double plateHeight,
                     double matchTolerance, bool useStars) {
    if (!useStars) BeginSolve(state);
    state.Report.Blind = true;
    state.QuadMatch = {};
    const SolveCode code = WithinMemory(state, port, [&] {
        if (!useStars && !FindPlateStars(state, port)) return SolveCode::TooFewStars;
        ShowStatus(state, port, "Searching Quads");
        const bool solved =
            LoadQuadTables(state, plateWidth, plateHeight) &&
            FindCentreByQuads(state, port, plateWidth, plateHeight, matchTolerance,
                              [&] { return MeasureFromQuads(state, port, matchTolerance); });
        if (solved) {
            // The report compares the field with the size that the user gave, not with that of
            // the quads.
            state.Report.SearchRadius = std::hypot(plateWidth, plateHeight) / 2;
            return SolveCode::Solved;
        }
        const bool stopped = state.StopRequested;
        ShowStatus(state, port, stopped ? "Search Terminated" : "No Match Found",
                   StatusColour::Red);
        return stopped ? SolveCode::Stopped : SolveCode::NoMatch;
    });
    state.Report.Times.Quads = state.QuadMatch.Seconds;
    state.QuadMatch.Code = code;
    return code;
}

}  // namespace vestrel
