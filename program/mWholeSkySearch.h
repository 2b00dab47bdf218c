// The part of a search plan that looks for an image in the whole sky, by its quads.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "matching/libBandLookups.h"
#include "matching/libImageQuads.h"
#include "matching/libSeededConfidence.h"
#include "program/mPlanAttempts.h"
#include "program/mPlanStars.h"
#include "program/mQuadTables.h"
#include "program/mSearchPlan.h"

namespace vestrel {

/// What the search needs of its plan.
struct PlanCalls {
    std::function<bool()> MustEnd;  ///< cheap enough to call for every quad
    /// Makes an attempt that the report mentions by this name. @return whether it was sure
    std::function<bool(const std::string&, const std::function<bool()>&)> Try;
    /// Turns a sure plate about a position into the solution. False when it bears none.
    std::function<bool(const MatchedPlate&, const MatchConfidence&, SkyPosition, const ImageStars&)>
        TakePlate;
    double Shares = 1;  ///< by how much more the trials are charged
};

class WholeSkySearch {
 public:
    /// All must outlive this.
    WholeSkySearch(ProgramState& state, const SearchRequest& request, PlanStars& lists,
                   PlanCalls calls)
        : state_(state), request_(request), lists_(lists), calls_(std::move(calls)) {}

    /// @return whether a solution was found. `Quads.Fault` tells when tables could not be used
    bool Run();

 private:
    bool LookUpIn(const std::vector<QuadBand>& bands, const char* nameEnd);
    bool LookUpQuads(const QuadAttempt& attempt, const std::vector<QuadBand>& bands);
    std::optional<QuadBand> NextSmaller(const QuadBand& band);
    /// What all attempts with the same leading stars of a list use.
    struct ListQuads {
        ListQuads(const PlateStarList& stars, const ProgramState& state,
                  const LeadingStars& leading);
        const std::vector<ImageQuad>& For(const QuadBand& band);

        ImageStars Places;
        SeededJudge Judge;
        ImageQuads Quads;
        std::map<double, std::vector<ImageQuad>> OfBands;  ///< by their smallest diagonals
    };
    ListQuads& QuadsOf(const QuadAttempt& attempt);
    std::optional<BandLookup> Prepare(const QuadAttempt& attempt, const QuadBand& band,
                                      ListQuads& quads);
    bool SearchInTurn(BandLookup& band, const SeededJudge& judge);
    bool JudgePlates(const BandLookup& band, const SeededJudge& judge);
    bool TakePlate(const CentredPlate& plate, const SeededJudge& judge);
    void Count(const LookupCounts& more);
    void NoteDamage();

    ProgramState& state_;
    const SearchRequest& request_;
    PlanStars& lists_;
    PlanCalls calls_;
    QuadTablesOfBands tables_;
    /// By the source, and the first stars that lead quads without and with those looked up before.
    std::map<std::tuple<StarSource, std::int32_t, std::int32_t>, ListQuads> quads_;
    std::string fault_;
    LookupCounts before_;  ///< of the bands that are searched to their ends
};

}  // namespace vestrel
