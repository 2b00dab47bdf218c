// Describes the outcome of a solve in words and figures.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "program/mGeneral.h"

namespace vestrel {

/// How the image lies on the sky, as viewers display it: pictures from the top row down, FITS
/// images from the bottom row up.
struct ImageOrientation {
    /// Position angle of the upward direction at the image centre, degrees east of north, 0..360.
    double UpPositionAngle = 0;
    bool Mirrored = false;  ///< true when east lies to the right with north up
};
ImageOrientation OrientationOf(const PlateSolution& solution, const PlateImage& image);

/// Describes how sure a match is: "17 of 24 catalog stars in the frame matched, 0.6 expected by
/// chance; false alarm below 1e-12".
std::string ConfidenceText(const MatchConfidence& confidence);

/// The solution of the image as lines of "label   value", ready to print. There must be one.
std::string SolutionText(const ProgramState& state);

/// The column, from 0, at which a line of these texts goes on in the next one where there is no
/// room for all of it: that of its value, or a little more than its own where it has no label.
std::size_t ContinuationColumn(std::string_view line);

/// The result of `MatchByQuads` as lines of the same form.
std::string QuadMatchText(const ProgramState& state);

/// Reasons to doubt the solution of the image; usually empty, and empty without a solution. A
/// handful of stars can fit by chance, and such a fit is either poor or has a scale other than
/// expected.
std::vector<std::string> Cautions(const ProgramState& state);

/// The names of the inputs in advice.
struct InputWords {
    const char* Threshold;
    const char* MinStarSize;
    const char* CatalogFolder;
    const char* FieldSize;
    const char* Ra;
    const char* Regions;
    const char* SearchFromCentre;  ///< what to do where quads find nothing
    const char* SearchWholeSky;    ///< the advice when no given place is right
    const char* NoCentre;          ///< what to do where the picture has another centre
};
inline constexpr InputWords ConsoleWords{"--detection-threshold",
                                         "--min-star-size",
                                         "--catalog",
                                         "--size",
                                         "--ra",
                                         "--regions",
                                         "give the approximate centre (--ra)",
                                         "search the whole sky (--blind)",
                                         "none"};
inline constexpr InputWords WindowWords{"Detection Threshold",
                                        "Min Star Size",
                                        "Edit, Settings",
                                        "Approximate Image Size",
                                        "RA",
                                        "Search Limit",
                                        "Plate Match, with the approximate centre (RA, Dec)",
                                        "Just Solve, which searches the whole sky",
                                        "press Just Solve"};

/// What is wrong, and the one thing to try. Empty when unknown.
struct CauseAndCure {
    std::string Cause;
    std::string Cure;
};

/// Explains a solve that ended without a solution: what was found, the likeliest cause, and what to
/// try next. When no cause is known, everything that might help.
std::string FailureText(const ProgramState& state, SolveCode code,
                        const InputWords& words = ConsoleWords, const CauseAndCure& likeliest = {});

/// Whether an image of fractions lost nearly all its content when they became whole counts.
bool HasNextToNoCounts(const PlateImage& image);

/// Says that the catalog ends before the magnitude down to which this field is compared; empty when
/// it does not, or when no region was searched.
std::string ShallowCatalogText(const ProgramState& state);

/// Says what is wrong with the catalog; empty when it has stars for the starting region.
std::string CatalogComplaint(const ProgramState& state);

/// Which file of the catalog could not be read as it should in the last search; empty when all
/// could that were needed.
std::string CatalogDamage(const ProgramState& state);

/// What a search of the loaded image lacked to find anything: stars, or quad tables where it had
/// nothing else. Empty when it lacked nothing.
std::string LackOfCatalog(const ProgramState& state);

/// What the user can try next, most promising first.
std::vector<std::string> Advice(const ProgramState& state, SolveCode code,
                                const InputWords& words = ConsoleWords);

/// The stages' names and seconds, in order.
std::vector<std::pair<std::string, double>> StageTable(const StageTimes& times);

}  // namespace vestrel
