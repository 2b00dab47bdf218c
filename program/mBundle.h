// Bundles: everything that a search plan used, in one file, so that others can repeat the plan.
//
// A bundle is a zip archive. bundle.json holds the settings, the request, the facts and cards of
// the picture, the star lists of the plan and its outcome; cells/ holds the catalog cells that the
// plan read. The pixels are included, as picture/image.EXTENSION, only on request.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "program/mGeneral.h"
#include "program/mSearchPlan.h"

namespace vestrel {

/// The outcome of a plan, for comparison.
struct BundledOutcome {
    SolveCode Code = SolveCode::NoMatch;
    std::string SolvedBy;
    double CentreRa = 0;  ///< radians; this and the following are 0 when it was not solved
    double CentreDec = 0;
    double Scale = 0;  ///< pixels per arcsecond
    std::int32_t Matched = 0;

    bool operator==(const BundledOutcome&) const = default;
};
BundledOutcome OutcomeOf(const ProgramState& state, SolveCode code, const PlanReport& plan);

/// Writes the bundle of a plan that has just run on the loaded image.
/// @param pixels whether the image file is included
/// @throws std::runtime_error with a sentence that says why it failed
void WriteBundle(const std::filesystem::path& path, const ProgramState& state,
                 const SearchRequest& request, const PlanReport& plan, SolveCode code, bool pixels);

/// A bundle that was read, and the folder that holds its catalog cells while it lives.
class Bundle {
 public:
    /// Reads a bundle. No name in it can lead outside its temporary folder.
    /// @throws std::runtime_error with a sentence that says what is wrong with it
    explicit Bundle(const std::filesystem::path& path);
    ~Bundle();
    Bundle(const Bundle&) = delete;
    Bundle& operator=(const Bundle&) = delete;

    const BundledOutcome& Outcome() const { return outcome_; }
    const std::string& Picture() const { return picture_; }  ///< name of the image file

    /// Restores the state from before the plan. The bundle's cells become the catalog; the quad
    /// tables remain those of the catalog folder that the state names when this is called.
    /// @return the request to repeat
    SearchRequest Prepare(ProgramState& state) const;

 private:
    struct Contents;
    std::unique_ptr<Contents> contents_;
    BundledOutcome outcome_;
    std::string picture_;
};

}  // namespace vestrel
