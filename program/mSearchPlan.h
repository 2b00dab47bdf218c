// The search plan: what is tried, one after the other, until a solution is sure.
//
// The first attempt is the plain solve. The others take other lists of stars, other regions and
// other matchers, the cheapest and likeliest first; docs/ACCURACY.md has what each one yields.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "program/mGeneral.h"
#include "program/mPlanStars.h"

namespace vestrel {

/// A place to search around.
struct SearchHint {
    SkyPosition Centre;  ///< J2000, radians
    double Width = 0;    ///< of the field, radians; may be 30 % off
    double Height = 0;
    std::int32_t Regions = 25;
    bool Briefly = false;  ///< only the plain search
};

/// What a plan starts from.
struct SearchRequest {
    std::vector<SearchHint> Around;  ///< likeliest first; may be empty
    bool Everywhere = false;         ///< looks at the whole sky when the hints give nothing
    std::vector<double> Diagonals;   ///< likely diagonals of the field, radians; may be empty
    double TimeLimit = 20;           ///< seconds; all but reading and extracting keep to it
    /// The stars of the image, brightest first, in place of those that its pixels show.
    std::optional<PlateStarList> Stars;
    /// All star lists of an earlier plan on the same image, to repeat it without the pixels.
    std::optional<StarLists> Lists;
    /// Told the name of every attempt before it begins.
    std::function<void(const std::string&)> OnAttempt = {};
};

/// One attempt of a plan.
struct PlanAttempt {
    std::string Name;
    double Seconds = 0;
    bool Sure = false;  ///< gave the solution
};

/// What a plan went through.
struct PlanReport {
    std::vector<PlanAttempt> Attempts;       ///< in order
    std::string SolvedBy;                    ///< the attempt that gave the solution
    std::optional<std::size_t> Start;        ///< which of `Around` gave it
    std::optional<PlateSolution> Candidate;  ///< the likeliest match that was not sure
    bool TimeLimitReached = false;
    StarLists Lists;  ///< all that were made
};

/// Solves the loaded image by a plan; the outcome is the state's `Solution`.
/// @return Solved for a sure solution only. Else `report.Candidate` may hold what was not sure.
SolveCode SolveByPlan(ProgramState& state, Port& port, const SearchRequest& request,
                      PlanReport& report);

}  // namespace vestrel
