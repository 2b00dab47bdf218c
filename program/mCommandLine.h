// Unattended use: the parameter string, the codes of an outcome, and the result file.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "program/mGeneral.h"
#include "program/mPlateMatch.h"

namespace vestrel {

/// The numeric outcome of one solve and its message.
struct SolveResult {
    SolveCode Code = SolveCode::TooFewStars;
    std::string Message;  ///< of the code, or why there is none
};

/// The five numbers of a parameter string and its image path.
struct UnattendedRequest {
    SkyPosition Start;  ///< starting centre
    double Width = 0;   ///< field of view, radians
    double Height = 0;  ///< radians
    std::int32_t RegionLimit = 0;
    std::string Path;  ///< everything after the fifth comma, trimmed
};

/// The search that a request describes.
PlateSearch SearchFor(const UnattendedRequest& request, const SolveParameters& parameters);

/// Reads "RA,Dec,width,height,regions,path". Angles are radians. Nothing when one of the first five
/// fields is missing or not a number of its type.
std::optional<UnattendedRequest> ParseParameterString(const std::string& text);

/// The result file of an image: its path with everything from the last "." replaced by ".kel".
std::filesystem::path ResultFilePath(const std::string& imagePath);

/// The three lines of the result file, each ended by CR LF.
std::string ResultFileText(const ProgramState& state, SolveCode code);

enum class UnattendedEnd {
    InvalidParameters,  ///< the program ends at once
    InvalidFileName,    ///< no result file
    OldResultStays,     ///< nothing was solved: the result file of an earlier solve could be taken
                        ///< for this one's
    NoImage,            ///< code −10, no result file
    Finished            ///< solved or not, see `Result.Code`
};
struct UnattendedOutcome {
    UnattendedEnd End = UnattendedEnd::InvalidParameters;
    SolveResult Result;  ///< result of the solve, or code −10; else only the message
    bool ResultFileWritten = false;
    std::string WriteFault;  ///< the system's reason when the result file was not written
    UnattendedRequest Request;
};

/// Removes the result file of an earlier solve of the image of a parameter string. `RunUnattended`
/// does that too, and tells when it cannot.
void RemoveOldResultOf(const std::string& parameters);

/// Solves the image of a parameter string and writes the result file beside it. An older result
/// file is removed first, so that a caller never reads a stale one.
/// @param harderFor seconds for a search plan when the plain solve gives nothing sure; 0: no plan.
///                  The result of the plain solve stays when the plan finds nothing sure either.
UnattendedOutcome RunUnattended(ProgramState& state, Port& port, const std::string& parameters,
                                double harderFor = 0);

/// Shows a solve's starting values: centre, plate size in arcminutes, region limit.
/// @param times the text between width and height, including blanks
void ShowStartingValues(ProgramState& state, Port& port, const UnattendedRequest& request,
                        const char* times);

}  // namespace vestrel
