// The state of the program: one loaded image, one list of each kind, one solution.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "astro/libPlateStar.h"
#include "astro/libSphericalMath.h"
#include "catalog/libCatalogCache.h"
#include "display/libDisplayLevels.h"
#include "extraction/libStarDetection.h"
#include "image/libImage.h"
#include "matching/libAlign.h"
#include "matching/libConfidence.h"
#include "matching/libQuadTables.h"
#include "program/libImageSkyModel.h"
#include "program/libPlateSolution.h"
#include "program/libSolveCode.h"
#include "program/mPort.h"
#include "settings/libSettingsFile.h"
#include "telescope/libTelescopeLink.h"

namespace vestrel {

/// The title of the program, and of the message boxes of its errors.
inline constexpr const char* ProgramTitle = "Vestrel 1.13";
inline const std::string ErrorTitle = std::string(ProgramTitle) + " Error";

enum class StatusColour { Black, Red, Green };
struct StatusLine {
    std::string Text;
    StatusColour Colour = StatusColour::Black;
    bool Visible = true;
};

/// The most regions that are searched around a centre unless another number is given.
inline constexpr std::int32_t UsualRegions = 25;
/// Seconds that a search may take unless others are given.
inline constexpr double UsualTimeLimit = 20;
/// Seconds that an unattended run with a window stays open.
inline constexpr int CountdownSeconds = 10;

/// The texts of the solve window, exactly as shown.
struct SolveDisplay {
    StatusLine Status{"Ready", StatusColour::Black, true};
    StatusLine Status1{"", StatusColour::Black, false};
    bool BusyIndicator = false;
    std::string ImageName;  ///< shortened path of the loaded image
    std::string ImageSize;
    std::string CentreCaption = "Search Center";
    std::string CentreRa;
    std::string CentreDec;
    std::string StartRa;
    std::string StartDec;
    std::string StartSize;
    std::string StartRegions;
    std::string PlateSize;
    std::string Scale;
    std::string Stretch;
    std::string Skew;
    std::string Angle;
    std::string Extracted;
    std::string FoundInCatalog;
    std::string Matched;
    std::string RmsDifference;
    std::string Details;           ///< report of the last solve, or why an image was not read
    std::string Stage;             ///< of a search of several that runs
    std::string Cause;             ///< why the last search failed and what to try, in a sentence
    bool OffersJustSolve = false;  ///< a search from a centre found nothing
    std::string Clock;             ///< universal time, Julian date, sidereal time
    std::string Countdown = std::to_string(CountdownSeconds);  ///< until an unattended run closes
                                                               ///< the program
};

/// What the user has typed into the solve window.
struct SolveInputs {
    std::string SizeX;
    std::string SizeY;
    std::string Units = "arcminutes";  ///< or "degrees"
    std::string Regions = std::to_string(UsualRegions);
    std::string Ra = {};
    std::string Dec = {};
    bool KeepOpen = false;  ///< stops the countdown
};

/// The one operation that runs at a time.
enum class Activity { None, Opening, Solving, Saving, Telescope };

/// Seconds spent in each stage of the last image and solve.
struct StageTimes {
    double Reading = 0;
    double Background = 0;
    double Extraction = 0;  ///< smoothing and second extraction included
    double Catalog = 0;
    double Matching = 0;
    double Quads = 0;
};

/// What happened in a solve, for the report of its outcome.
struct SolveReport {
    double MagnitudeLimit = 0;
    double SearchRadius = 0;  ///< radians; of a solution 0 when no size was given for the picture
    std::int32_t RegionsTried = 0;  ///< regions read and matched
    bool Smoothed = false;
    bool Blind = false;                    ///< the centre was searched with quads
    std::int32_t CatalogStarsAtStart = 0;  ///< in the starting region
    CatalogPresence CatalogAtStart = CatalogPresence::Present;
    AlignReport BestAttempt;  ///< the failed region that came farthest
    SkyPosition BestAttemptCentre;
    StageTimes Times;
};

/// The open quad table, and its file.
struct LoadedQuadTables {
    QuadTables Tables;
    std::filesystem::path File;
    std::string Fault;        ///< why there are no tables for a field, in words
    bool OtherSizes = false;  ///< there are tables, but for fields of other sizes
};

/// The result of the last quad search.
struct QuadSearch {
    SolveCode Code = SolveCode::TooFewStars;  ///< of `MatchByQuads`
    std::int32_t Searched = 0;                ///< image quads looked up
    std::int32_t Candidates = 0;              ///< table quads of the same shape
    std::int32_t FourStarFits = 0;            ///< orderings of candidates that passed as a plate
    StarMatchList Pairs;       ///< stars of `Reference`, stars of the image; empty when
                               ///< nothing matched
    PlateStarList Reference;   ///< the quad's four stars, then the stars around it
    PlateConstants Transform;  ///< arcseconds about `Tangent` to pixels
    FitGeometry Geometry;
    double FitError = 0;    ///< root mean square, pixels
    double FieldRatio = 0;  ///< field size found / field size given
    SkyPosition Tangent;
    SkyPosition Centre;  ///< of the image
    MatchConfidence Confidence;
    double Seconds = 0;
    std::vector<std::string> Messages;  ///< lines of the message window
};

/// The sky model of the solution, made when it is first needed.
struct KeptSky {
    bool Made = false;
    std::optional<ImageSkyModel> Model;  ///< nothing when there is no usable one
};

struct ProgramState {
    PlateImage Image;
    bool ImageLoaded = false;
    bool BackgroundRemoved = false;
    bool DecodesApart = false;  ///< JPEG pictures too, as all that decoders read
    Transfer DisplayTransfer =
        Transfer::Linear;  ///< between `Image.DisplayBlack` and `DisplayWhite`
    bool StopRequested = false;
    /// When the running kernel first noticed `StopRequested`.
    std::optional<std::chrono::steady_clock::time_point> StopSeen;
    /// How long it may then go on before it is abandoned.
    std::chrono::steady_clock::duration StopPatience = std::chrono::seconds(1);
    bool CloseRequested = false;  ///< the program ends as soon as nothing runs
    Activity Running = Activity::None;
    int SecondsLeft = CountdownSeconds;  ///< of the countdown

    SolveParameters Parameters;
    bool HaveConfig = false;  ///< the settings were read from the file
    SolveInputs Inputs;
    SolveInputs FilledInputs;  ///< what was last filled into the inputs from a picture's hints
    std::vector<std::string> RecentImages;           ///< paths, the last one first
    std::vector<std::string> LoadedImages;           ///< what they were when they were read
    std::map<std::string, std::string> Preferences;  ///< preferences of the windows, kept between
                                                     ///< runs
    std::map<std::string, std::string> LoadedPreferences;  ///< what they were when they were read

    ExtractionFacts Extraction;
    PlateStarList PlateStars;               ///< from the last extraction that found 6 or more
    std::optional<PlateSolution> Solution;  ///< of the loaded image
    std::size_t SolutionCount = 0;          ///< how many there were
    KeptSky Sky;                            ///< belongs to `Solution`

    /// When the time limit of the running search expires.
    std::optional<std::chrono::steady_clock::time_point> SearchEnds;

    CatalogCache Catalog;
    LoadedQuadTables Quads;
    QuadSearch QuadMatch;

    bool TelescopeConnected = false;
    std::unique_ptr<TelescopeLink> Telescope;  ///< null before the first use
    TelescopeFactory CreateTelescope;          ///< makes the driver; empty when the program has
                                               ///< none
    TelescopeLimits TelescopePatience;
    double JulianDate = 0;  ///< at the last `UpdateClock`

    SolveDisplay Display;
    SolveReport Report;
};

// Everything that depends on an image is dropped through these.

/// Call before another image is opened: drops the stars and the solution of the last one, and all
/// that is shown of them.
void ForgetImage(ProgramState& state);

/// Call before other stars are matched: drops the solution.
void ForgetSolution(ProgramState& state);

/// Call after the counts of the image have changed: drops the display levels.
void CountsChanged(ProgramState& state);

}  // namespace vestrel
