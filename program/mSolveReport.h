// The outcome of a solve in words and figures, for people.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "program/mGeneral.h"

namespace vestrel {

/// How the image lies on the sky, as viewers display it: pictures from the top row down, FITS
/// images from the bottom row up.
struct ImageOrientation {
    /// Of the direction up, degrees east of north at the centre of the image, 0..360.
    double UpPositionAngle = 0;
    bool Mirrored = false;  ///< true when east lies to the right with north up
};
ImageOrientation OrientationOf(const PlateSolution& solution, const PlateImage& image);

/// How sure a match is: "17 of 24 catalog stars in the frame matched, 0.6 expected by chance; false
/// alarm below 1e-12".
std::string ConfidenceText(const MatchConfidence& confidence);

/// The solution of the image as lines of "label   value", ready to print. There must be one.
std::string SolutionText(const ProgramState& state);

/// What `MatchByQuads` found, as such lines.
std::string QuadMatchText(const ProgramState& state);

/// What should make a user doubt the solution of the image; empty as a rule, and without one. A
/// handful of stars can fit by chance, and such a fit is either poor or of another scale than
/// expected.
std::vector<std::string> Cautions(const ProgramState& state);

/// What advice calls the inputs.
struct InputWords {
    const char* Threshold;
    const char* MinStarSize;
    const char* CatalogFolder;
    const char* FieldSize;
    const char* Ra;
    const char* Regions;
    const char* SearchFromCentre;  ///< what to do where quads find nothing
    const char* SearchWholeSky;    ///< what to do where no place that is given is right
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
                                        "$VESTREL_CATALOG",
                                        "Approximate Image Size",
                                        "RA",
                                        "Search Limit",
                                        "Plate Match, with the approximate centre (RA, Dec)",
                                        "Just Solve, which searches the whole sky",
                                        "press Just Solve"};

/// What is wrong, and the one thing to try. Empty when that is not known.
struct CauseAndCure {
    std::string Cause;
    std::string Cure;
};

/// Why a solve ended without a solution: what was seen, the likeliest cause, and what to try next.
/// Where no cause is known, all that might help.
std::string FailureText(const ProgramState& state, SolveCode code,
                        const InputWords& words = ConsoleWords, const CauseAndCure& likeliest = {});

/// Whether an image of fractions lost them all when they became whole counts.
bool HasNextToNoCounts(const PlateImage& image);

/// That the catalog ends before the magnitude that this field is compared down to; empty when it
/// does not, or no region was searched.
std::string ShallowCatalogText(const ProgramState& state);

/// What is wrong with the catalog, in words; empty when it has stars for the starting region.
std::string CatalogComplaint(const ProgramState& state);

/// Which file of the catalog could not be read as it should in the last search; empty when all
/// could that were needed.
std::string CatalogDamage(const ProgramState& state);

/// What a search of the loaded image lacked to find anything: stars, or quad tables where it had
/// nothing else. Empty when it lacked nothing.
std::string LackOfCatalog(const ProgramState& state);

/// What a user might try next, most promising first.
std::vector<std::string> Advice(const ProgramState& state, SolveCode code,
                                const InputWords& words = ConsoleWords);

/// The stages' names and seconds, in order.
std::vector<std::pair<std::string, double>> StageTable(const StageTimes& times);

}  // namespace vestrel
