#include "program/mJustSolve.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <string_view>
#include <utility>

#include "astro/libConversions.h"
#include "astro/libMath.h"
#include "astro/libStrings.h"
#include "program/mPictureHints.h"
#include "program/mPlateMatch.h"
#include "program/mSolveReport.h"
#include "program/mSolveWindow.h"

namespace vestrel {

namespace {

using std::chrono::steady_clock;

/// Seconds. Users with less patience have the stop button.
constexpr double patience = 90;

/// The names of a plan's attempts in the window.
constexpr std::array<std::pair<const char*, const char*>, 13> stageNames{{
    {"search", "stars around the place"},
    {"short side", "stars of a smaller circle"},
    {"seeds", "pairs of bright stars"},
    {"even seeds", "pairs of stars from all parts"},
    {"seeds of other sizes", "pairs of stars, other field sizes"},
    {"even seeds of other sizes", "pairs of stars from all parts, other field sizes"},
    {"quads", "patterns of stars over the whole sky"},
    {"quads of peaks", "patterns of bright spots over the whole sky"},
    {"quads of even peaks", "patterns of spots from all parts over the whole sky"},
    {"more quads", "more patterns of stars over the whole sky"},
    {"more quads of peaks", "more patterns of bright spots over the whole sky"},
    {"more quads of even peaks", "more patterns of spots from all parts over the whole sky"},
    {"quads of smaller fields", "patterns of bright spots in smaller fields over the whole sky"},
}};

std::string StageName(const std::string& attempt) {
    const auto found = std::find_if(stageNames.begin(), stageNames.end(),
                                    [&](const auto& name) { return attempt == name.first; });
    if (found != stageNames.end()) return found->second;
    constexpr std::string_view others = " of other sizes";
    if (!attempt.ends_with(others)) return attempt;
    return StageName(attempt.substr(0, attempt.size() - others.size())) + ", other field sizes";
}

/// A line for each finished stage; consecutive searches of the same kind share one.
std::string StagesText(const PlanReport& report) {
    std::string text;
    std::size_t i = 0;
    while (i < report.Attempts.size()) {
        const std::string& name = report.Attempts[i].Name;
        double seconds = 0;
        bool sure = false;
        int times = 0;
        for (; i < report.Attempts.size() && report.Attempts[i].Name == name; ++i, ++times) {
            seconds += report.Attempts[i].Seconds;
            sure = sure || report.Attempts[i].Sure;
        }
        text += "  Tried " + StageName(name);
        if (times > 1) text += ", " + std::to_string(times) + " times";
        text += (sure ? ": found, " : ": nothing sure, ") + RoundedText(seconds, 1) + " s\n";
    }
    return text;
}

}  // namespace

SearchRequest RequestForAnything(const ProgramState& state) {
    constexpr std::size_t mostPlaces = 4;
    SearchRequest request;
    request.Everywhere = true;
    const SolveInputs& inputs = state.Inputs;
    KnownOfPicture typed;
    const double ra = ParseRA(inputs.Ra);
    const double dec = ParseDec(inputs.Dec);
    if (ra >= 0 && dec >= -Pi / 2) typed.Places = {{{ra, dec}}};
    const auto size = FieldSizeOf(inputs);
    KnownSize last = RememberedFieldSize(state.Parameters);
    if (size) {
        // The window begins with the size of the last session.
        constexpr double same = 1e-6;
        const bool asLast = std::fabs(size->first - last.Width) < same * last.Width &&
                            std::fabs(size->second - last.Height) < same * last.Height;
        last = {size->first, size->second, {}, asLast};
    }
    const auto add = [&](const KnownOfPicture& known) {
        for (const SearchHint& place : PlanFor(known, state.Image).Search.Around) {
            const bool there = std::any_of(
                request.Around.begin(), request.Around.end(), [&](const SearchHint& hint) {
                    return hint.Centre.Ra == place.Centre.Ra &&
                           hint.Centre.Dec == place.Centre.Dec && hint.Width == place.Width &&
                           hint.Height == place.Height;
                });
            if (there || request.Around.size() == mostPlaces) continue;
            request.Around.push_back(place);
            request.Diagonals.push_back(std::hypot(place.Width, place.Height));
        }
    };
    // What is typed first; then what the picture says fills it up, and then takes its place.
    if (!typed.Places.empty() && size) {
        KnownOfPicture both = typed;
        both.Sizes = {last};
        add(both);
    }
    typed.LastSizes = {last};
    add(typed);
    KnownOfPicture picture;
    picture.LastSizes = {last};
    add(picture);
    return request;
}

SolveCode SolveWithAnything(ProgramState& state, Port& port, double seconds, PlanReport& report,
                            const std::function<void(const std::string&)>& onAttempt) {
    const auto start = steady_clock::now();
    const auto left = [&] {
        return seconds - std::chrono::duration<double>(steady_clock::now() - start).count();
    };
    SolveCode code = SolveCode::NoMatch;
    const SearchRequest all = RequestForAnything(state);
    report = {};
    // The inputs may belong to another picture, so the whole sky comes before the slow methods
    // around them.
    for (const bool patient : {false, true}) {
        SearchRequest request = all;
        request.Everywhere = !patient;
        request.TimeLimit = left();
        for (SearchHint& hint : request.Around) hint.Briefly = !patient;
        if (patient && (request.Around.empty() || code != SolveCode::NoMatch || left() <= 0)) break;
        PlanReport before = std::move(report);
        report = {};
        request.OnAttempt = [&](const std::string& name) {
            if (!onAttempt) return;
            PlanReport so = before;
            so.Attempts.insert(so.Attempts.end(), report.Attempts.begin(), report.Attempts.end());
            std::swap(report, so);
            onAttempt(name);
            std::swap(report, so);
        };
        code = SolveByPlan(state, port, request, report);
        report.Attempts.insert(report.Attempts.begin(), before.Attempts.begin(),
                               before.Attempts.end());
        if (!report.Candidate) report.Candidate = std::move(before.Candidate);
    }
    return code;
}

std::string CandidateText(const PlanReport& report) {
    if (!report.Candidate) return {};
    const PlateSolution& candidate = *report.Candidate;
    return "  Not sure          " + FormatRA(candidate.CentreRA, true, 1) + "  " +
           FormatDec(candidate.CentreDec, true, 0) + ": " + ConfidenceText(candidate.Confidence) +
           "\n";
}

void JustSolveCommand(ProgramState& state, Port& port) {
    const Operation operation(state, port, Activity::Solving);
    if (!operation || !BeginAnySearch(state, port)) return;
    SolveDisplay& display = state.Display;
    display.StartRa = display.StartDec = display.StartSize = display.StartRegions = {};
    state.QuadMatch.Code = SolveCode::NoMatch;
    PlanReport report;
    state.SearchEnds =
        steady_clock::now() + std::chrono::milliseconds(static_cast<std::int64_t>(patience * 1000));
    const SolveCode code =
        SolveWithAnything(state, port, patience, report, [&](const std::string& name) {
            display.Details = StagesText(report);
            display.Stage =
                "Stage " + std::to_string(report.Attempts.size() + 1) + ": " + StageName(name);
            port.DisplayChanged();
        });
    state.SearchEnds.reset();
    display.Stage.clear();
    const std::string stages = StagesText(report);
    if (code == SolveCode::Solved) {
        display.Details = SolutionText(state) + stages;
        // Searches with patterns read no single region of the catalog.
        display.FoundInCatalog = std::to_string(state.Solution->CatalogCount());
        port.ImageChanged();
        return;
    }
    ExplainFailure(state, port, code, RequestForAnything(state));
    display.Details += CandidateText(report) + stages;
    if (report.TimeLimitReached) display.Details += "  The time was up.\n";
}

std::string StageText(const ProgramState& state) {
    if (!state.SearchEnds || state.Display.Stage.empty()) return {};
    const auto left = std::chrono::duration<double>(*state.SearchEnds - steady_clock::now());
    return state.Display.Stage + ", " + std::to_string(std::max(0L, std::lround(left.count()))) +
           " s left at most";
}

}  // namespace vestrel
