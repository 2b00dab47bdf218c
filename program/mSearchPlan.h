// The search plan: a sequence of attempts that ends with the first sure solution.
//
// The first attempt is the plain solve. The others use other star lists, other regions and other
// matchers, the cheapest and likeliest first. docs/ACCURACY.md shows what each one yields.
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
    double Width = 0;    ///< of the field, radians; may be wrong by 30 %
    double Height = 0;
    std::int32_t Regions = UsualRegions;
    bool Briefly = false;         ///< only the plain search
    bool SizeRemembered = false;  ///< the size is that of the last session, and nobody's statement
};

/// What a plan starts from.
struct SearchRequest {
    std::vector<SearchHint> Around;  ///< likeliest first; may be empty
    bool Everywhere = false;         ///< searches the whole sky when the hints give nothing
    std::vector<double> Diagonals;   ///< likely diagonals of the field, radians; may be empty
    /// Seconds; reading the image and extracting stars may exceed it.
    double TimeLimit = UsualTimeLimit;
    /// Stars of the image, brightest first, to use instead of those in its pixels.
    std::optional<PlateStarList> Stars;
    /// All star lists of an earlier plan on the same image, to repeat it without the pixels.
    std::optional<StarLists> Lists;
    /// Receives the name of every attempt before it begins.
    std::function<void(const std::string&)> OnAttempt = {};
};

/// One attempt of a plan.
struct PlanAttempt {
    std::string Name;
    double Seconds = 0;
    bool Sure = false;  ///< gave the solution
};

/// What happened in a plan.
struct PlanReport {
    std::vector<PlanAttempt> Attempts;       ///< in order
    std::string SolvedBy;                    ///< name of the attempt that gave the solution
    std::optional<std::size_t> Start;        ///< index into `Around` of the hint that gave it
    std::optional<PlateSolution> Candidate;  ///< the likeliest match, when none was sure
    bool TimeLimitReached = false;
    StarLists Lists;  ///< all star lists that were made
};

/// Solves the loaded image by a plan; the outcome is the state's `Solution`.
/// @return Solved only for a sure solution. Else `report.Candidate` may hold the likeliest match
SolveCode SolveByPlan(ProgramState& state, Port& port, const SearchRequest& request,
                      PlanReport& report);

}  // namespace vestrel
