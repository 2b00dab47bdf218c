// The solver as a library: finds where pictures of the night sky point.
//
//   vestrel::Solver solver;
//   const vestrel::SolverOutcome outcome = solver.Solve("m44.fit");
//   if (outcome.Solved()) std::cout << outcome.Field->Centre.Ra << '\n';
//
// Angles are degrees, right ascension in 0..360, positions J2000 (ICRS). Pixels: x counts columns
// and y rows, both from 0, and whole numbers are the middles of pixels; the rows lie in the order
// in which the file, or the memory, has them. Texts and paths are UTF-8.
//
// A Solver works for one thread at a time. Any number of Solvers work at once in one process, each
// on a thread of its own: they share nothing that changes. Equal inputs give equal results, however
// many Solvers and threads there are.
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

/// What all solves of a Solver share.
struct VESTREL_PUBLIC SolverSettings {
    /// The folder of the catalog and its quad tables; empty: $VESTREL_CATALOG or the usual one.
    std::string CatalogFolder;
    /// Threads for one picture, 1..256; 0: $VESTREL_THREADS, else one for each processor.
    int Threads = 0;
    double DetectionThreshold = 6;     ///< standard deviations of the sky above its mean, above 0
    double EdgeExclusion = 0.02;       ///< border that is ignored, as a part of the image, 0..0.5
    int MinStarSize = 3;               ///< pixels, 1..32767
    double MaxStarSize = 6;            ///< standard deviations of the star sizes above their mean
    int MaxStars = 45;                 ///< stars of each list that take part, 6..1000
    double MaxError = 2;               ///< of the fit, pixels, above 0
    double MaxGeometricError = 0.025;  ///< largest departure of stretch from 1 and skew from 0
    double MatchTolerance = 0.01;      ///< difference in side ratio of triangles that still vote
    double MatchDivisor = 150;         ///< the larger, the fewer votes a pair of stars needs
};

/// The user's own settings, which the desktop program saves; the defaults when there are none.
VESTREL_PUBLIC SolverSettings SettingsOfUser();

/// A range that something probably lies in. Low = High is one good guess, and may be 30 % off.
struct SolverRange {
    double Low = 0;   ///< above 0
    double High = 0;  ///< not below Low
};

/// A place to search around.
struct SolverCentre {
    double Ra = 0;   ///< degrees
    double Dec = 0;  ///< degrees, −90..90
    /// How far off the picture's centre may be, degrees, 0..180. Regions of the size of the field
    /// are searched from the centre outward, at most `SolverHints::MostRegions` of them; what is
    /// farther away is left to the search of the whole sky, which is quicker there.
    double Radius = 1;
    /// Only the quickest search here, for a guess that is right or of no use.
    bool Briefly = false;
};

/// What is known of a picture before it is solved. All of it may be left out. No solution is turned
/// down because it lies outside: a sure one is sure.
struct SolverHints {
    std::vector<SolverCentre> Centres;  ///< the likeliest first; at most 8 are looked at
    /// The scale in arcseconds per pixel, or the width or height of the field in degrees; the
    /// first of them that is there counts.
    std::optional<SolverRange> Scale;
    std::optional<SolverRange> FieldWidth;
    std::optional<SolverRange> FieldHeight;
    bool FromPicture = true;  ///< fills what is missing with what the picture's header says
    bool WholeSky = true;     ///< looks at the whole sky when there is no centre, or none was right
    int MostRegions = 25;     ///< around each centre, 1..10000
    double TimeLimit = 20;    ///< seconds after which no further attempt is begun, from 0; the
                              ///< first one is not cut short by it
    double EndAfter = 0;  ///< seconds after which the solve ends, within about one more; 0: none
};

/// How the samples of a picture in memory are stored.
enum class SampleType { UInt8, UInt16, Int16, UInt32, Int32, Float32, Float64 };

/// A picture in memory. It is copied while it is opened, and not needed afterwards.
struct VESTREL_PUBLIC PixelPicture {
    const void* Samples = nullptr;  ///< in the machine's byte order
    SampleType Type = SampleType::UInt16;
    std::int64_t Width = 0;          ///< 1..32767
    std::int64_t Height = 0;         ///< 1..32767
    int Channels = 1;                ///< side by side in each pixel; of 3 or more the first
                                     ///< three are colours, of 2 the first one counts
    std::ptrdiff_t RowBytes = 0;     ///< from one row to the next; 0: rows follow one another
    bool TopRowFirst = false;        ///< of a camera's picture; FITS arrays begin at the bottom
    std::vector<std::string> Cards;  ///< FITS header cards that go with it, for its hints
    std::string Name;                ///< for messages and results
};

/// A star that was found, by another program or by this one.
struct SolverStar {
    double X = 0;     ///< pixels
    double Y = 0;     ///< pixels
    double Flux = 0;  ///< above the sky, any unit
};

/// The stars of a picture that somebody else measured.
struct VESTREL_PUBLIC StarField {
    /// Any order. When no flux is above 0 they count as listed from the brightest down.
    std::vector<SolverStar> Stars;
    std::int64_t Width = 0;          ///< of the picture, 1..32767
    std::int64_t Height = 0;         ///< 1..32767
    std::vector<std::string> Cards;  ///< FITS header cards that go with it, for its hints
    std::string Name;
};

/// What is known of a picture that was opened.
struct VESTREL_PUBLIC PictureFacts {
    bool Opened = false;
    std::string Fault;       ///< why it was not, in a sentence
    std::string Name;        ///< its path
    std::string Format;      ///< "FITS"
    std::string Instrument;  ///< the camera, as the header has it; may be empty
    std::string ObservedAt;  ///< the header's time of observation, as it stands there
    int Width = 0;           ///< pixels
    int Height = 0;
    double Seconds = 0;  ///< that opening it took
};

/// How a solve ended.
enum class SolverEnd {
    Solved,
    NoPicture,       ///< the picture cannot be read: see the reason
    TooFewStars,     ///< fewer than 6
    NoMatch,         ///< nothing in the places and sizes that were searched
    NotSure,         ///< only a candidate that chance may have given
    NoCatalog,       ///< no catalog, or no stars or quad tables in it for this field
    DamagedCatalog,  ///< files of it that were needed cannot be read
    TimeLimit,       ///< before all attempts were made
    Stopped,         ///< by the stop token
    OutOfMemory
};
/// A name that never changes, "no match", for journals and other programs.
VESTREL_PUBLIC const char* NameOf(SolverEnd end);

struct SolverPosition {
    double Ra = 0;   ///< degrees, 0..360
    double Dec = 0;  ///< degrees
};

/// A star of the picture and the star of the catalog that it is.
struct SolverMatch {
    double X = 0;  ///< of the star in the picture, pixels
    double Y = 0;
    double Flux = 0;       ///< counts above the sky
    SolverPosition Sky;    ///< of the catalog's star, J2000
    double Magnitude = 0;  ///< the catalog's
    double Residual = 0;   ///< between the two, pixels
};

/// How sure a match is, against chance.
struct SolverCertainty {
    /// log10 of the probability that chance gives a match as good anywhere that was searched; a
    /// solution has −6 or less.
    double Log10FalseAlarm = 0;
    int Matched = 0;              ///< catalog stars in the frame that meet a star of the picture
    int InFrame = 0;              ///< catalog stars in the frame
    double ExpectedByChance = 0;  ///< how many would meet one in a picture of other stars
};

/// A polynomial of SIP world coordinates: Σ c[p][q]·u^p·v^q with p + q up to the order.
struct SipPolynomial {
    int Order = 0;            ///< 0: none, 2..7
    double Terms[8][8] = {};  ///< c[p][q], pixels
};

/// How the pixels lie on the sky: gnomonic about the middle of the picture, with a distortion
/// when the stars tell of one (FITS papers I and II; SIP: Shupe et al. 2005).
struct VESTREL_PUBLIC SolverCoordinates {
    double Crpix[2] = {};  ///< the middle of the picture in FITS pixels, which count from 1
    double Crval[2] = {};  ///< its position, degrees
    double Cd[2][2] = {};  ///< degrees toward east and north per column and per row
    SipPolynomial A, B;    ///< the distortion of columns and of rows
    SipPolynomial Ap, Bp;  ///< its inverse

    /// Arcseconds per pixel at the middle, the mean of all directions.
    double Scale() const;
    /// Of the direction of rising y, degrees east of north, 0..360.
    double Rotation() const;
    /// Whether east lies clockwise of north in a picture whose y rises upward: the sky as seen
    /// from inside has it counter-clockwise.
    bool Mirrored() const { return Cd[0][0] * Cd[1][1] - Cd[0][1] * Cd[1][0] > 0; }
};

/// Where a picture points.
struct VESTREL_PUBLIC SolvedField {
    SolverPosition Centre;  ///< of the middle of the picture
    double Width = 0;       ///< of the field, degrees, along the middle row
    double Height = 0;      ///< degrees
    SolverCoordinates Coordinates;
    bool FittedToAllStars = false;  ///< else to the stars of the first match alone
    double Rms = 0;                 ///< root mean square of the residuals, pixels
    double CentreError = 0;         ///< standard deviation of the centre, arcseconds; 0: not known
    double MagnitudeZeroPoint = 0;  ///< mean of instrumental less catalog magnitude
    std::vector<SolverMatch> Matches;
    std::vector<std::string> Cautions;  ///< what should make one doubt it; empty as a rule
};

/// What came of a solve.
struct VESTREL_PUBLIC SolverOutcome {
    SolverEnd End = SolverEnd::NoPicture;
    std::string Reason;               ///< why there is no solution, in a sentence; else empty
    std::vector<std::string> Advice;  ///< what to try next
    /// The likeliest cause of a failure: a name that never changes ("trailed"), and a sentence with
    /// the figures that speak for it; empty when nothing is known. The first advice belongs to it.
    std::string CauseKind;
    std::string Cause;
    PictureFacts Picture;
    std::optional<SolvedField> Field;         ///< when it was solved
    SolverCertainty Certainty;                ///< of the solution, or of the candidate
    std::optional<SolverPosition> Candidate;  ///< centre of a match that is not sure
    std::vector<SolverStar> Stars;            ///< of the picture, brightest first
    std::string SolvedBy;                     ///< the attempt that gave the solution
    std::string StartedFrom;  ///< the header cards that gave the start; may be empty
    double Seconds = 0;       ///< of the solve, without opening

    bool Solved() const { return End == SolverEnd::Solved; }
};

/// How far a solve is.
struct SolverProgress {
    std::string Stage;  ///< "Extracting Stars"
    int Percent = 0;    ///< of the present step, 0..100
};

/// Watches and ends a solve.
struct SolverWatch {
    /// Ends the solve when a stop is asked for, from any thread, within about a second.
    std::stop_token Stop;
    /// Called now and then on the solving thread. It may ask for a stop, not use the Solver; what
    /// it throws comes out of `Solve`.
    std::function<void(const SolverProgress&)> Progress;
};

/// Which way world coordinates are written as FITS cards.
struct CardOptions {
    /// The highest order of SIP terms. Lower than that of the distortion: fitted anew to it, over
    /// the whole frame. 0: no terms; from 2 on.
    int MostSipOrder = 6;
    /// Rows as the file has them. False: from the bottom of the picture up, as Vestrel's own files
    /// have them; this differs for pictures that begin at the top, and for nothing else.
    bool RowsAsStored = true;
};

/// See the top of this file. Every procedure may throw std::bad_alloc.
class VESTREL_PUBLIC Solver {
 public:
    /// @throws std::invalid_argument for a setting outside its range. That there is no catalog is
    /// told by the solves.
    explicit Solver(const SolverSettings& settings = SolverSettings());
    ~Solver();
    Solver(Solver&& other) noexcept;
    Solver& operator=(Solver&& other) noexcept;

    // One picture is open at a time. Opening another one, or failing to, forgets it.

    /// Opens a picture of any format that Vestrel reads. Never throws because of the picture.
    PictureFacts Open(const std::string& path, const SolverWatch& watch = SolverWatch());
    /// Takes a picture from memory. @throws std::invalid_argument for a shape that is none
    PictureFacts Open(const PixelPicture& picture, const SolverWatch& watch = SolverWatch());
    /// Takes stars in place of a picture. @throws std::invalid_argument for sizes outside their
    /// range and numbers that are not finite
    PictureFacts Open(const StarField& stars, const SolverWatch& watch = SolverWatch());

    /// Solves the picture that is open. A second time it begins anew, on the picture as the first
    /// time left it: without its background, and smoothed when there were few stars.
    /// @throws std::invalid_argument for hints outside their ranges
    SolverOutcome Solve(const SolverHints& hints, const SolverWatch& watch = SolverWatch());

    /// Opens and solves.
    template <typename Picture>
    SolverOutcome Solve(const Picture& picture, const SolverHints& hints = SolverHints(),
                        const SolverWatch& watch = SolverWatch()) {
        Open(picture, watch);
        return Solve(hints, watch);
    }

    // What can be had of the solution, until another picture is opened. Without one: no cards, and
    // false with a `fault`.

    /// The world coordinates as FITS cards of 80 characters, from WCSAXES on, without END.
    std::vector<std::string> CoordinateCards(const CardOptions& options = CardOptions()) const;
    /// The coordinates that such cards hold; nothing where the field is wider than a photograph's.
    std::optional<SolverCoordinates> Coordinates(const CardOptions& options = CardOptions()) const;
    /// Header cards of the picture as its file has them, without END.
    std::vector<std::string> PictureCards() const;

    // Files, whole or not at all; an older one is replaced.

    /// A FITS header with the world coordinates, as `vestrel-solve --wcs` writes it.
    bool WriteCoordinates(const std::string& path, std::string& fault) const;
    /// The picture as its file has it, as standard FITS with the world coordinates in its header.
    bool Export(const std::string& path, std::string& fault) const;
    /// The result file (.kel) of unattended runs, also of a solve that failed.
    bool WriteResult(const std::string& path, std::string& fault) const;

 private:
    class Session;
    std::unique_ptr<Session> session_;
};

}  // namespace vestrel
