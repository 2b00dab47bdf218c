// The state of the program: one loaded image, one list of each kind, one solution.
#pragma once

#include <chrono>
#include <cstdint>
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
#include "program/mPort.h"
#include "settings/libSettingsFile.h"
#include "telescope/libTelescopeLink.h"

namespace vestrel {

/// The program's title, also in the titles of error messages.
inline constexpr const char* ProgramTitle = "Vestrel 1.13";

/// Everything that one successful solve produces.
struct PlateSolution {
    StarMatchList Pairs;  ///< 1-based
    std::int32_t PairCount = 0;
    PlateConstants Transform;  ///< A, B, U0, C, D, V0: arcseconds about the tangent point
                               ///< to pixels
    double Scale = 0;          ///< pixels per arcsecond
    double Stretch = 0;        ///< as fitted; shown with its sign turned
    double Skew = 0;
    double Angle = 0;               ///< position angle, radians
    double Rms = 0;                 ///< pixels
    std::int32_t MatchedCount = 0;  ///< pairs in use
    double CentreRA = 0;            ///< J2000 image centre, radians
    double CentreDec = 0;
    double TangentRA = 0;  ///< tangent point of the projection, radians
    double TangentDec = 0;
    double WidthArcmin = 0;
    double HeightArcmin = 0;
    std::int32_t ExtractedCount = 0;   ///< stars that the extraction reported
    std::int32_t CatalogCount = 0;     ///< catalog stars of the winning region
    std::int32_t RegionsSearched = 0;  ///< the winning one included
    double MagnitudeZeroPoint = 0;     ///< mean of instrumental − catalog magnitude
    MatchConfidence Confidence;
};

/// The solve window's numbers of the last solution; 0 until there is one.
struct ShownGeometry {
    double ScaleArcseconds = 0;  ///< arcseconds per pixel
    double AngleDegrees = 0;     ///< 0..360
    double Stretch = 0;          ///< as fitted
    double Skew = 0;
};

enum class StatusColour { Black, Red, Green };
struct StatusLine {
    std::string Text;
    StatusColour Colour = StatusColour::Black;
    bool Visible = true;
};

/// The texts of the solve window, as they are to be shown.
struct SolveDisplay {
    StatusLine Status{"Ready", StatusColour::Black, true};
    StatusLine Status1{"", StatusColour::Black, false};
    bool BusyIndicator = false;
    bool SyncEnabled = false;
    std::string ImageName;  ///< shortened path of the loaded image
    std::string ImageSize;
    std::string CentreCaption = "Search Center";
    std::string CentreRA;
    std::string CentreDec;
    std::string StartRA;
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
    std::string Details;            ///< what the last solve saw, or why an image was not read
    std::string Clock;              ///< universal time, Julian date, sidereal time
    std::string Countdown = "10";   ///< seconds until an unattended run closes the program
    bool SolutionOverlays = false;  ///< the three overlays that a solution switches on
};

/// What the user has typed into the solve window.
struct SolveInputs {
    std::string SizeX;
    std::string SizeY;
    std::string Units = "arcminutes";  ///< or "degrees"
    std::string Regions = "25";
    std::string Ra = {};
    std::string Dec = {};
    bool KeepOpen = false;  ///< holds the countdown
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

/// What a solve went through, for the report of its outcome.
struct SolveReport {
    double MagnitudeLimit = 0;
    double SearchRadius = 0;        ///< radians
    std::int32_t RegionsTried = 0;  ///< regions read and matched
    bool Smoothed = false;
    bool Blind = false;                    ///< quads were to find the centre
    std::int32_t CatalogStarsAtStart = 0;  ///< in the starting region
    CatalogPresence CatalogAtStart = CatalogPresence::Present;
    AlignReport BestAttempt;  ///< of the regions that failed
    SkyPosition BestAttemptCentre;
    /// A sure match of quads whose centre gave no solution.
    std::optional<SkyPosition> UnmeasuredCentre;
    StageTimes Times;
};

/// The quad tables that are open, and where they are.
struct LoadedQuadTables {
    QuadTables Tables;
    std::filesystem::path File;
    std::string Fault;        ///< why there are no tables for a field, in words
    bool OtherSizes = false;  ///< there are tables, but for fields of other sizes
};

/// What the last quad search left.
struct QuadSearch {
    std::int16_t Code = 0;          ///< of `MatchByQuads`: a `SolveCode`
    std::int32_t Searched = 0;      ///< image quads looked up
    std::int32_t Candidates = 0;    ///< table quads of the same shape
    std::int32_t FourStarFits = 0;  ///< orderings of candidates that passed as a plate
    StarMatchList Pairs;            ///< 1-based: stars of `Reference`, stars of the image
    std::int32_t PairCount = 0;     ///< 0 when nothing matched
    PlateStarList Reference;        ///< 1-based: the quad's four stars, then the stars around it
    PlateConstants Transform;       ///< arcseconds about `Tangent` to pixels
    FitGeometry Geometry;
    double FitError = 0;    ///< root mean square, pixels
    double FieldRatio = 0;  ///< the field found / the field given
    SkyPosition Tangent;
    SkyPosition Centre;  ///< of the image
    MatchConfidence Confidence;
    double Seconds = 0;
    std::vector<std::string> Messages;  ///< the lines of the test list
};

struct ProgramState {
    PlateImage Image;
    bool ImageLoaded = false;
    bool BackgroundRemoved = false;
    Transfer DisplayTransfer =
        Transfer::Linear;  ///< between `Image.DisplayBlack` and `DisplayWhite`
    bool StopRequested = false;
    /// When a kernel that runs first saw `StopRequested`.
    std::optional<std::chrono::steady_clock::time_point> StopSeen;
    bool CloseRequested = false;  ///< the program is to end as soon as nothing runs
    Activity Running = Activity::None;
    int SecondsLeft = 10;  ///< of the countdown

    SolveParameters Parameters;
    bool HaveConfig = false;  ///< the settings were read from the file
    SolveInputs Inputs;
    SolveInputs FilledInputs;  ///< what was last put into the inputs from a picture's hints
    std::vector<std::string> RecentImages;  ///< paths, the last one first

    ExtractionFacts Extraction;
    PlateStarList PlateStars;  ///< 1-based; of the last extraction that gave 6 or more
    std::int32_t PlateStarCount = 0;
    PlateStarList CatalogStars;  ///< 1-based; of the region of the last success
    std::int32_t CatalogStarCount = 0;
    std::vector<SkyPosition> MatchedPositions;

    Projection Plane;
    CatalogCache Catalog;
    LoadedQuadTables Quads;
    QuadSearch QuadMatch;
    PlateSolution Solution;
    ShownGeometry Geometry;
    SkyPosition SolvedCentre;
    double MagnitudeZeroPoint = 0;
    bool ZeroPointValid = false;

    bool TelescopeConnected = false;
    std::unique_ptr<TelescopeLink> Telescope;  ///< the driver, from the first use on
    TelescopeFactory CreateTelescope;          ///< makes the driver; none where there is none
    TelescopeLimits TelescopePatience;
    double JulianDate = 0;  ///< of the clock when it was looked at last

    SolveDisplay Display;
    SolveReport Report;
};

}  // namespace vestrel
