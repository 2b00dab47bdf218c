#include "program/mSearchPlan.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "astro/libMath.h"
#include "astro/libParallel.h"
#include "image/libHints.h"
#include "matching/libCameraPlane.h"
#include "matching/libSeededRegions.h"
#include "program/mMORA.h"
#include "program/mPlanAttempts.h"
#include "program/mPlanStars.h"
#include "program/mPlateMatch.h"
#include "program/mStarExtraction.h"
#include "program/mStopwatch.h"
#include "program/mWholeSkySearch.h"

namespace vestrel {

namespace {

constexpr std::int32_t fewestStars = 6;  // for the plain search

/// All attempts on one image, and the lists that they share.
class Plan {
 public:
    Plan(ProgramState& state, Port& port, const SearchRequest& request, PlanReport& report)
        : state_(state),
          port_(port),
          request_(request),
          report_(report),
          start_(std::chrono::steady_clock::now()),
          mosaic_(IsMosaic(state.Image)),
          lists_(state, request.Stars, request.Lists) {}

    SolveCode Run() {
        BeginSolve(state_);
        port_.Yield();
        const SolveCode code = WithinMemory(state_, port_, [this] {
            const SolveCode end = RunAttempts();
            if (end == SolveCode::Solved) MeasureWideField(state_, port_);
            return end;
        });
        report_.Lists = lists_.Made();
        return code;
    }

 private:
    double Seconds() const {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    }
    /// Cheap enough to call for every quad.
    bool MustEnd() {
        constexpr double between = 0.01;  // seconds between two yields
        const double now = Seconds();
        if (now > lastYield_ + between) {
            lastYield_ = now;
            port_.Yield();
        }
        return state_.StopRequested || now > request_.TimeLimit;
    }

    SolveCode RunAttempts() {
        if (mosaic_) lists_.KeepMosaicSums();
        lists_.LookForNegative();
        if (request_.Lists) {
            enoughStars_ = TakeKeptStars();
        } else {
            enoughStars_ = request_.Stars ? TakeGivenStars() : FindPlateStars(state_, port_);
        }
        if (enoughStars_) lists_.SetExtracted(state_.PlateStars);
        if (SureSomewhere()) return SolveCode::Solved;
        if (enoughStars_) state_.PlateStars = lists_.Of(StarSource::Extracted);
        state_.Display.Status1 = {"", StatusColour::Black, false};
        if (state_.StopRequested) {
            ShowStatus(state_, port_, "Search Terminated", StatusColour::Red);
            return SolveCode::Stopped;
        }
        report_.TimeLimitReached = Seconds() > request_.TimeLimit;
        const bool candidate = report_.Candidate.has_value();
        if (!enoughStars_ && !candidate) {
            state_.Display.Status1 = {"Insufficient Plate Stars", StatusColour::Red, true};
            return SolveCode::TooFewStars;
        }
        ShowStatus(state_, port_, candidate ? "No Sure Match Found" : "No Match Found",
                   StatusColour::Red);
        return SolveCode::NoMatch;
    }

    /// Replaces `FindPlateStars` when the lists come from an earlier plan. That plan kept them only
    /// when there were enough stars.
    bool TakeKeptStars() {
        ForgetSolution(state_);
        const auto& kept = (*request_.Lists)[static_cast<std::size_t>(StarSource::Extracted)];
        if (kept) state_.PlateStars = *kept;
        return kept && !kept->Empty();
    }

    /// Replaces `FindPlateStars` when the stars were given.
    bool TakeGivenStars() {
        ForgetSolution(state_);
        state_.PlateStars = *request_.Stars;
        state_.PlateStars.Resize(std::min(state_.PlateStars.Count(), MaxExtractedStars));
        state_.Extraction.StarsFound = request_.Stars->Count();
        return state_.PlateStars.Count() >= fewestStars;
    }

    /// The whole sky comes before seeds around a hint, because it costs less when the hint is
    /// wrong.
    bool SureSomewhere() {
        if (SureAroundHints([this](const SearchHint& hint) { return SearchesOf(hint); }))
            return true;
        if (request_.Everywhere && !MustEnd() && SearchEverywhere()) return true;
        const bool blind = std::exchange(state_.Report.Blind, false);
        if (SureAroundHints([this](const SearchHint& hint) { return SeedsOf(hint); })) return true;
        state_.Report.Blind = blind;
        return false;
    }

    template <typename Attempts>
    bool SureAroundHints(const Attempts& attempts) {
        for (std::size_t i = 0; i < request_.Around.size() && (i == 0 || !MustEnd()); ++i) {
            const SearchHint& hint = request_.Around[i];
            if (!attempts(hint)) continue;
            report_.Start = i;
            state_.Report.SearchRadius =
                hint.SizeRemembered ? 0 : std::hypot(hint.Width, hint.Height) / 2;
            return true;
        }
        return false;
    }

    bool SearchesOf(const SearchHint& hint) {
        if (Try("search", [&] { return PlainSearch(hint); })) return true;
        if (mosaic_ && !MustEnd() && Try("mosaic", [&] { return MosaicSearch(hint); })) return true;
        return !hint.Briefly && !MustEnd() &&
               Try("short side", [&] { return ShortSideSearch(hint); });
    }

    bool SeedsOf(const SearchHint& hint) {
        return !hint.Briefly &&
               std::any_of(SeedAttempts.begin(), SeedAttempts.end(), [&](const auto& attempt) {
                   return !MustEnd() && !SameSeeds(attempt) &&
                          (!attempt.AlongStrip || IsStrip(hint.Width, hint.Height)) &&
                          Try(attempt.Name, [&] { return SeededSearch(attempt, hint); });
               });
    }

    /// Whether an attempt before had the same seeds: of few stars all are seeds, in any order.
    bool SameSeeds(const SeedAttempt& attempt) {
        return attempt.From == StarSource::EvenPeaks &&
               lists_.Of(attempt.From).Count() <= SeedSettings().ImageSeeds;
    }

    /// Hints and the whole sky share the allowed false-alarm probability: each is charged as if it
    /// had twice as many trials.
    double Shares() const { return request_.Everywhere && !request_.Around.empty() ? 2 : 1; }

    template <typename Attempt>
    bool Try(const std::string& name, const Attempt& attempt) {
        const double before = Seconds();
        if (request_.OnAttempt) request_.OnAttempt(name);
        const bool sure = attempt();
        report_.Attempts.push_back({name, Seconds() - before, sure});
        if (sure) report_.SolvedBy = name;
        return sure;
    }

    bool PlainSearch(const SearchHint& hint) {
        return enoughStars_ && PlainSearch(hint, lists_.Of(StarSource::Extracted));
    }

    /// The plain search with peaks of the sums of two by two pixels: in the counts themselves, the
    /// pattern of a mosaic's colours hides the stars from the plain extraction.
    bool MosaicSearch(const SearchHint& hint) {
        const PlateStarList& stars = lists_.Of(StarSource::Peaks);
        if (stars.Count() < fewestStars) return false;
        const PlateStarList before = state_.PlateStars;
        const std::int32_t found = std::exchange(state_.Extraction.StarsFound, stars.Count());
        if (PlainSearch(hint, stars)) return true;
        state_.PlateStars = before;
        state_.Extraction.StarsFound = found;
        return false;
    }

    bool PlainSearch(const SearchHint& hint, const PlateStarList& stars) {
        state_.PlateStars = stars;
        state_.PlateStars.Resize(std::min(stars.Count(), MaxExtractedStars));
        PlateSearch search{hint.Centre, hint.Width, hint.Height, hint.Regions,
                           state_.Parameters.MaxError};
        search.MustEnd = [this] { return MustEnd(); };
        search.Sides = SkySides::This;
        search.TriedBefore = plainRegions_;
        plainRegions_ += std::max(hint.Regions, 1);
        search.Accept = [this](const PlateSolution& solution) {
            if (IsSure(solution.Confidence)) return true;
            KeepLikelier(report_.Candidate, solution);
            return false;
        };
        return MatchPlateStars(state_, port_, search) == SolveCode::Solved;
    }

    /// The plain search with the catalog stars of a circle inside the frame.
    bool ShortSideSearch(const SearchHint& hint) {
        SearchHint inner = hint;
        inner.Width = inner.Height = InnerSide(hint.Width, hint.Height);
        const SolveReport before = state_.Report;
        const bool sure = PlainSearch(inner);
        // The report describes the plain search, not this search of a part of the field.
        state_.Report.SearchRadius = before.SearchRadius;
        state_.Report.MagnitudeLimit = before.MagnitudeLimit;
        return sure;
    }

    bool SeededSearch(const SeedAttempt& attempt, const SearchHint& hint) {
        const PlateStarList& stars = lists_.Of(attempt.From);
        if (stars.Count() < SeedAttempt::FewestStars) return false;
        const PlateImage& image = state_.Image;
        const ImageStars places(stars, image.Width, image.Height);
        const SeedSettings settings = SettingsOf(attempt, image, hint.Width, hint.Height);
        const SeededJudge judge(places, settings);
        SeededRegions search(judge, settings);

        const double radius =
            SeedRadius(attempt, hint.Width, hint.Height) * (1 + attempt.SizeError / 2);
        const double step = std::min(hint.Width, hint.Height) / 2.5 * SolveArcsecondsPerRadian;
        Projection grid;
        grid.SetProjectionCentre(hint.Centre, SolveArcsecondsPerRadian);
        std::int16_t i = 0;
        std::int16_t j = 0;
        std::int16_t ring = 0;
        const std::int32_t regions = std::clamp(hint.Regions, 1, attempt.MostRegions);
        for (std::int32_t done = 0; done < regions && !MustEnd();) {
            // Most searches end with the first region, so no other is searched beside it.
            const std::int32_t together =
                done == 0 ? 1 : std::min(ParallelThreads(), regions - done);
            std::vector<SeededRegion> next;
            for (std::int32_t k = 0; k < together; ++k) {
                SkyPosition centre = hint.Centre;
                if (done + k > 0) {
                    NextSpiralCell(i, j, ring);
                    centre = grid.PlaneToSky(i * step, j * step);
                }
                next.push_back({centre,
                                OnCameraPlane(CatalogAbout(state_, centre, radius), centre),
                                Shares() * ++searches_,
                                {},
                                {}});
            }
            const StageTimer timer(state_.Report.Times.Matching);
            search.Match(next, [this] { return MustEnd(); });
            for (const SeededRegion& region : next) {
                ++done;
                if (region.Plate &&
                    TakePlate(*region.Plate, region.Confidence, region.Centre, places, done)) {
                    return true;
                }
            }
        }
        return false;
    }

    /// Turns a sure plate about `about` into the solution.
    bool TakePlate(const MatchedPlate& match, const MatchConfidence& confidence, SkyPosition about,
                   const ImageStars& places, std::int32_t regions) {
        std::optional<PlateSolution> solution = SolutionOfPlate(state_, match, about, places);
        if (!solution) return false;
        solution->RegionsSearched = regions;
        solution->Confidence = confidence;
        state_.PlateStars = places.Stars();
        FinishPlateSolution(state_, port_, *std::move(solution));
        if (state_.Solution->Rms > state_.Parameters.MaxError) SettlePlate(places);
        return true;
    }

    /// Replaces the plate that was just found by that of its sky model, if that is a better one.
    void SettlePlate(const ImageStars& places) {
        std::optional<PlateSolution> settled = SolutionOfModel(state_, places);
        if (!settled || settled->MatchedCount < state_.Solution->MatchedCount) return;
        settled->RegionsSearched = state_.Solution->RegionsSearched;
        settled->Confidence = state_.Solution->Confidence;
        FinishPlateSolution(state_, port_, *std::move(settled));
    }

    /// The likeliest size that the user or the picture gave, radians; 0 without one.
    double GivenDiagonal() const {
        const auto& around = request_.Around;
        if (around.empty()) return request_.Diagonals.empty() ? 0 : request_.Diagonals.front();
        const auto given = std::find_if(around.begin(), around.end(), [](const SearchHint& hint) {
            return !hint.SizeRemembered;
        });
        return given == around.end() ? 0 : std::hypot(given->Width, given->Height);
    }

    bool SearchEverywhere() {
        state_.Report.Blind = true;
        WholeSkySearch search(
            state_, request_, lists_,
            {[this] { return MustEnd(); },
             [this](const std::string& name, const auto& attempt) { return Try(name, attempt); },
             [this](const MatchedPlate& match, const MatchConfidence& confidence, SkyPosition about,
                    const ImageStars& places) {
                 if (!TakePlate(match, confidence, about, places, 1)) return false;
                 // The report mentions a size that differs from the given one; that of a hint was
                 // only tried.
                 state_.Report.SearchRadius = GivenDiagonal() / 2;
                 return true;
             },
             Shares()});
        return search.Run();
    }

    ProgramState& state_;
    Port& port_;
    const SearchRequest& request_;
    PlanReport& report_;
    std::chrono::steady_clock::time_point start_;
    double lastYield_ = 0;
    bool enoughStars_ = false;
    double searches_ = 0;      ///< regions and lists that were tried with seeds
    double plainRegions_ = 0;  ///< regions that plain searches were to try
    bool mosaic_;              ///< the image is a mosaic of colours
    PlanStars lists_;
};

}  // namespace

SolveCode SolveByPlan(ProgramState& state, Port& port, const SearchRequest& request,
                      PlanReport& report) {
    report = {};
    return Plan(state, port, request, report).Run();
}

}  // namespace vestrel
