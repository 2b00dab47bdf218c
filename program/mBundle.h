// Bundles: all that a search plan went by, in one file, so that others can repeat it and see why.
//
// A bundle is a zip archive: bundle.json has the settings, the request, the facts and cards of the
// picture, the star lists of the plan and its outcome; cells/ has the catalog cells that the plan
// read. The pixels are in it, as picture/NAME, only when they are asked for.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "program/mGeneral.h"
#include "program/mSearchPlan.h"

namespace vestrel {

/// What a plan gave, to be compared.
struct BundledOutcome {
    SolveCode Code = SolveCode::NoMatch;
    std::string SolvedBy;
    double CentreRa = 0;  ///< radians; 0 when it was not solved, like what follows
    double CentreDec = 0;
    double Scale = 0;  ///< pixels per arcsecond
    std::int32_t Matched = 0;

    bool operator==(const BundledOutcome&) const = default;
};
BundledOutcome OutcomeOf(const ProgramState& state, SolveCode code, const PlanReport& plan);

/// Writes the bundle of a plan that has just run on the loaded image.
/// @throws std::runtime_error with a sentence that says why not
void WriteBundle(const std::filesystem::path& path, const ProgramState& state,
                 const SearchRequest& request, const PlanReport& plan, SolveCode code, bool pixels);

/// A bundle that was read, and the folder that holds its catalog cells while it lives.
class Bundle {
 public:
    /// Reads a bundle. Nothing in it can name a place outside the folder.
    /// @throws std::runtime_error with a sentence that says what is wrong with it
    explicit Bundle(const std::filesystem::path& path);
    ~Bundle();
    Bundle(const Bundle&) = delete;
    Bundle& operator=(const Bundle&) = delete;

    const BundledOutcome& Outcome() const { return outcome_; }
    const std::string& Picture() const { return picture_; }  ///< the name that it had

    /// Makes the state what it was before the plan, with the bundle's cells as the catalog and the
    /// quad tables of the catalog that the state names now.
    /// @return the request to repeat
    SearchRequest Prepare(ProgramState& state) const;

 private:
    struct Contents;
    std::unique_ptr<Contents> contents_;
    BundledOutcome outcome_;
    std::string picture_;
};

}  // namespace vestrel
