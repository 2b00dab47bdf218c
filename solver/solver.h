// The solver as a library: finds where pictures of the night sky point.
//
//   vestrel::Solver solver;
//   const vestrel::SolverOutcome outcome = solver.Solve("m44.fit");
//   if (outcome.Solved()) std::cout << outcome.Field->Centre.Ra << '\n';
//
// Angles are degrees, right ascension in 0..360, positions J2000 (ICRS). Pixels: x counts columns
// and y rows, both from 0, and pixel centres lie at whole numbers; rows have the order of the file
// or the memory. Texts and paths are UTF-8.
//
// A Solver may be used by one thread at a time. Any number of Solvers can work in one process at
// the same time, each on its own thread, because they share no mutable state. Equal inputs give
// equal results, however many Solvers and threads there are.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

#if defined(VESTREL_LIBRARY_BUILD) && defined(__GNUC__)
#define VESTREL_PUBLIC __attribute__((visibility("default")))
#else
#define VESTREL_PUBLIC
#endif

namespace vestrel {

/// The settings that all solves of a Solver share. This header stands alone, so it repeats the
/// defaults of the programs; a test compares them.
struct VESTREL_PUBLIC SolverSettings {
    /// The folder of the catalog and its quad tables; empty: $VESTREL_CATALOG or the default one.
    std::string CatalogFolder;
    /// Threads for one picture, 1..256; 0: $VESTREL_THREADS, else one for each processor.
    int Threads = 0;
    double DetectionThreshold = 6;     ///< standard deviations of the sky above its mean, above 0
    double EdgeExclusion = 0.02;       ///< width of the ignored border, fraction of the image,
                                       ///< 0..0.5
    int MinStarSize = 3;               ///< pixels, 1..32767
    double MaxStarSize = 6;            ///< standard deviations of the star sizes above their mean
    int MaxStars = 45;                 ///< stars of each list that take part in matching, 6..1000
    double MaxError = 2;               ///< largest error of the fit, pixels, above 0
    double MaxGeometricError = 0.025;  ///< largest departure of stretch from 1 and skew from 0
    double MatchTolerance = 0.01;      ///< largest difference in side ratios of triangles that vote
    double MatchDivisor = 150;         ///< the larger, the fewer votes a pair of stars needs
    /// Decodes JPEG pictures in a child process too, as all other formats but plain FITS and SBIG
    /// are (not on Windows), so that no damaged file can end this process or hold it up.
    bool DecodeApart = false;
};

/// The user's own settings, which the desktop program saves; the defaults when there are none.
VESTREL_PUBLIC SolverSettings SettingsOfUser();

/// A range in which a quantity probably lies. Low = High is a single guess, which may be wrong by
/// 30 %.
struct SolverRange {
    double Low = 0;   ///< above 0
    double High = 0;  ///< not below Low
};

/// A place to search around.
struct SolverCentre {
    double Ra = 0;   ///< degrees
    double Dec = 0;  ///< degrees, −90..90
    /// The largest distance of the picture's centre, degrees, 0..180. Regions of the size of the
    /// field are searched from here outward, at most `SolverHints::MostRegions`. Beyond these the
    /// search of the whole sky, which is faster, takes over.
    double Radius = 1;
    /// Makes only the fastest search here, for a guess that is either right or useless.
    bool Briefly = false;
};

/// What is known about a picture before it is solved. All of it is optional. A sure solution is
/// accepted even when it contradicts the hints.
struct SolverHints {
    std::vector<SolverCentre> Centres;  ///< the likeliest first; only the first 8 are used
    /// The scale in arcseconds per pixel, or the width or height of the field in degrees; the first
    /// one that is given counts.
    std::optional<SolverRange> Scale;
    std::optional<SolverRange> FieldWidth;
    std::optional<SolverRange> FieldHeight;
    bool FromPicture = true;  ///< completes missing hints from the picture's header
    bool WholeSky = true;     ///< searches the whole sky when there is no centre, or none was right
    int MostRegions = 25;     ///< around each centre, 1..10000
    double TimeLimit = 20;    ///< seconds, from 0, checked between the steps of every attempt; the
                              ///< first region around the first centre is always tried
    double EndAfter = 0;  ///< seconds after which the solve ends, within about one more; 0: none
    /// Looks for the likeliest cause of a failure, for which up to 15 % of the limits above, at
    /// most 3 seconds, are reserved.
    bool FindCause = true;
};

/// How the samples of a picture in memory are stored.
enum class SampleType { UInt8, UInt16, Int16, UInt32, Int32, Float32, Float64 };

/// A picture in memory. `Open` copies it.
struct VESTREL_PUBLIC PixelPicture {
    const void* Samples = nullptr;  ///< in the machine's byte order
    SampleType Type = SampleType::UInt16;
    std::int64_t Width = 0;          ///< 1..32767
    std::int64_t Height = 0;         ///< 1..32767
    int Channels = 1;                ///< samples of a pixel, side by side: of 3 or more the first
                                     ///< three are colours, of 2 only the first is used
    std::ptrdiff_t RowBytes = 0;     ///< bytes from one row to the next; 0: rows without gaps
    bool TopRowFirst = false;        ///< true for camera pictures; FITS arrays begin at the bottom
    std::vector<std::string> Cards;  ///< FITS header cards that go with it, for its hints
    std::string Name;                ///< for messages and results
};

/// A detected star, found by this or another program.
struct SolverStar {
    double X = 0;     ///< pixels
    double Y = 0;     ///< pixels
    double Flux = 0;  ///< above the sky, any unit
};

/// The stars of a picture that another program has detected.
struct VESTREL_PUBLIC StarField {
    /// In any order. When no flux is above 0, they count as sorted, brightest first.
    std::vector<SolverStar> Stars;
    std::int64_t Width = 0;          ///< of the picture, 1..32767
    std::int64_t Height = 0;         ///< 1..32767
    std::vector<std::string> Cards;  ///< FITS header cards that go with it, for its hints
    std::string Name;
};

/// Facts about an opened picture.
struct VESTREL_PUBLIC PictureFacts {
    bool Opened = false;
    std::string Fault;       ///< why it could not be opened, as a sentence
    std::string Name;        ///< its path
    std::string Format;      ///< "FITS"
    std::string Instrument;  ///< the camera, as the header has it; may be empty
    std::string ObservedAt;  ///< time of observation, exactly as in the header
    int Width = 0;           ///< pixels
    int Height = 0;
    double Seconds = 0;  ///< time that opening took
};

/// How a solve ended.
enum class SolverEnd {
    Solved,
    NoPicture,       ///< the picture cannot be read: see the reason
    TooFewStars,     ///< fewer than 6
    NoMatch,         ///< no match at the positions and sizes that were searched
    NotSure,         ///< only a candidate, which may be due to chance
    NoCatalog,       ///< no catalog, or no stars or quad tables in it for this field
    DamagedCatalog,  ///< files of it that were needed cannot be read
    TimeLimit,       ///< time ran out before all attempts were made
    Stopped,         ///< by the stop token
    OutOfMemory
};
/// The name of an end, such as "no match", for journals and other programs. It never changes.
VESTREL_PUBLIC const char* NameOf(SolverEnd end);

struct SolverPosition {
    double Ra = 0;   ///< degrees, 0..360
    double Dec = 0;  ///< degrees
};

/// A star of the picture and its catalog star.
struct SolverMatch {
    double X = 0;  ///< of the star in the picture, pixels
    double Y = 0;
    double Flux = 0;       ///< counts above the sky
    SolverPosition Sky;    ///< position of the catalog star, J2000
    double Magnitude = 0;  ///< from the catalog
    double Residual = 0;   ///< distance of the star from the catalog star's predicted place, pixels
};

/// How sure a match is.
struct SolverCertainty {
    /// log10 of the probability that chance gives a match as good anywhere in the search; −6 or
    /// less for a solution.
    double Log10FalseAlarm = 0;
    int Matched = 0;              ///< catalog stars in the frame that match a star of the picture
    int InFrame = 0;              ///< catalog stars in the frame
    double ExpectedByChance = 0;  ///< how many would match one in a picture of other stars
};

/// A polynomial of SIP world coordinates: Σ c[p][q]·u^p·v^q with p + q up to the order.
struct SipPolynomial {
    int Order = 0;            ///< 0: none, 2..7
    double Terms[8][8] = {};  ///< c[p][q], pixels
};

/// World coordinates: gnomonic about the middle of the picture, with a distortion when the stars
/// show one (FITS papers I and II; SIP: Shupe et al. 2005).
struct VESTREL_PUBLIC SolverCoordinates {
    double Crpix[2] = {};  ///< the middle of the picture, in FITS pixels, which count from 1
    double Crval[2] = {};  ///< its position, degrees
    double Cd[2][2] = {};  ///< degrees toward east and north per column and per row
    SipPolynomial A, B;    ///< distortion of columns and of rows
    SipPolynomial Ap, Bp;  ///< its inverse

    /// Arcseconds per pixel at the middle, the geometric mean of both axes.
    double Scale() const;
    /// The position angle of the direction of rising y, degrees east of north, 0..360.
    double Rotation() const;
    /// Whether east lies clockwise from north when y rises upward. On the sky as we see it, east
    /// lies counter-clockwise. Rows of a picture that begins at its top rise downward, so that this
    /// is true for the ordinary sky; with `RowsAsStored` false it is about the displayed picture.
    bool Mirrored() const { return Cd[0][0] * Cd[1][1] - Cd[0][1] * Cd[1][0] > 0; }
};

/// Where a picture points.
struct VESTREL_PUBLIC SolvedField {
    SolverPosition Centre;  ///< position of the middle of the picture
    double Width = 0;       ///< width of the field along the middle row, degrees
    double Height = 0;      ///< degrees
    SolverCoordinates Coordinates;
    bool FittedToAllStars = false;  ///< when false, only to the stars of the first match
    double Rms = 0;                 ///< root mean square of the residuals, pixels
    double CentreError = 0;         ///< standard deviation of the centre, arcseconds; 0 when
                                    ///< unknown
    double MagnitudeZeroPoint = 0;  ///< mean of instrumental − catalog magnitude
    std::vector<SolverMatch> Matches;
    std::vector<std::string> Cautions;  ///< reasons to doubt it; usually empty
};

/// The outcome of a solve.
struct VESTREL_PUBLIC SolverOutcome {
    SolverEnd End = SolverEnd::NoPicture;
    std::string Reason;               ///< why there is no solution, as a sentence; empty when there
                                      ///< is one
    std::vector<std::string> Advice;  ///< what to try next
    /// The likeliest cause of a failure: a name that never changes ("trailed"), and a sentence with
    /// the evidence; empty when nothing is known. The first advice belongs to this cause.
    std::string CauseKind;
    std::string Cause;
    PictureFacts Picture;
    std::optional<SolvedField> Field;         ///< when it was solved
    SolverCertainty Certainty;                ///< certainty of the solution or the candidate
    std::optional<SolverPosition> Candidate;  ///< centre of a match that is not sure
    std::vector<SolverStar> Stars;            ///< detected stars of the picture, brightest first
    std::string SolvedBy;                     ///< name of the attempt that gave the solution
    std::string StartedFrom;  ///< the header cards that gave the start; may be empty
    double Seconds = 0;       ///< time of the solve, without opening

    bool Solved() const { return End == SolverEnd::Solved; }
};

/// The progress of a solve.
struct SolverProgress {
    std::string Stage;  ///< "Extracting Stars"
    int Percent = 0;    ///< of the present step, 0..100
};

/// Watches and ends a solve.
struct SolverWatch {
    /// A stop request from any thread ends the solve within about a second.
    std::stop_token Stop;
    /// Called now and then on the solving thread. It may request a stop but must not use the
    /// Solver. Exceptions from it leave `Solve`.
    std::function<void(const SolverProgress&)> Progress;
};

/// How world coordinates are written as FITS cards.
struct CardOptions {
    /// The highest order of SIP terms: 0 for none, else from 2 on. When it is lower than that of
    /// the distortion, a new fit to the distortion over the whole frame is made.
    int MostSipOrder = 6;
    /// Whether rows count as in the file. When false, they count from the bottom of the picture up,
    /// as in Vestrel's own files; the two differ only for pictures that begin at the top.
    bool RowsAsStored = true;
};

/// Solves pictures; see the top of this file. Every procedure may throw std::bad_alloc.
class VESTREL_PUBLIC Solver {
 public:
    /// @throws std::invalid_argument for a setting outside its range. A missing catalog is reported
    ///   by `Solve`.
    explicit Solver(const SolverSettings& settings = SolverSettings());
    ~Solver();
    Solver(Solver&& other) noexcept;
    Solver& operator=(Solver&& other) noexcept;

    // One picture is open at a time. Opening another one closes it, even when that fails.

    /// Opens a picture of any format that Vestrel reads. Never throws because of the picture.
    PictureFacts Open(const std::string& path, const SolverWatch& watch = SolverWatch());
    /// Opens a picture in memory. @throws std::invalid_argument for an invalid shape
    PictureFacts Open(const PixelPicture& picture, const SolverWatch& watch = SolverWatch());
    /// Opens a list of stars instead of a picture. @throws std::invalid_argument for sizes outside
    /// their range and numbers that are not finite
    PictureFacts Open(const StarField& stars, const SolverWatch& watch = SolverWatch());

    /// Solves the open picture. A second call solves it again, but in the state that the first call
    /// left: without background, and smoothed if there were few stars.
    /// @throws std::invalid_argument for hints outside their ranges
    SolverOutcome Solve(const SolverHints& hints, const SolverWatch& watch = SolverWatch());

    /// Opens and solves.
    template <typename Picture>
    SolverOutcome Solve(const Picture& picture, const SolverHints& hints = SolverHints(),
                        const SolverWatch& watch = SolverWatch()) {
        Open(picture, watch);
        return Solve(hints, watch);
    }

    // The solution in various forms, until another picture is opened. Without a solution there are
    // no cards, and files are not written: false, with a `fault`. So it is with the world
    // coordinates of a field so wide that no lens fits its stars; its `Cautions` tell it.

    /// The world coordinates as FITS cards of 80 characters, from WCSAXES on, without END.
    std::vector<std::string> CoordinateCards(const CardOptions& options = CardOptions()) const;
    /// The coordinates that these cards hold; nothing when the field is wider than a photograph can
    /// be.
    std::optional<SolverCoordinates> Coordinates(const CardOptions& options = CardOptions()) const;
    /// Header cards of the picture as its file has them, without END.
    std::vector<std::string> PictureCards() const;

    // Files appear whole or not at all; an older one is replaced.

    /// A FITS header with the world coordinates, as `vestrel-solve --wcs` writes it.
    bool WriteCoordinates(const std::string& path, std::string& fault) const;
    /// The picture as its file has it, as standard FITS with the world coordinates in its header.
    bool Export(const std::string& path, std::string& fault) const;
    /// The result file (.kel) of unattended runs, also for a failed solve.
    bool WriteResult(const std::string& path, std::string& fault) const;

 private:
    class Session;
    std::unique_ptr<Session> session_;
};

}  // namespace vestrel
