// Finds why a picture was not solved: the likeliest cause, from evidence, and the one thing to try.
#pragma once

#include <optional>
#include <string>

#include "extraction/libImageHealth.h"
#include "program/mGeneral.h"
#include "program/mSearchPlan.h"
#include "program/mSolveReport.h"

namespace vestrel {

enum class FailureKind {
    Unknown,            ///< there is no evidence for any other kind
    TooSmall,           ///< the picture has next to no width or height
    NoCatalog,          ///< the catalog has no stars in this part of the sky
    NotSky,             ///< text, a landscape, a test chart, noise
    UnderExposed,       ///< few stars and a dark sky
    BrightSky,          ///< few stars and a bright sky: clouds, twilight, the Moon
    FewStars,           ///< few stars
    Trailed,            ///< the stars moved during the exposure
    OutOfFocus,         ///< discs or rings instead of stars
    CatalogTooShallow,  ///< the catalog is not deep enough for so small a field
    WrongCentre,        ///< the picture shows another part of the sky
    WrongSize,          ///< the picture shows the centre given, at another scale
    NotSquare,          ///< the pixels are not square, by the header
    Start               ///< the picture is good, but the given centre or size is not
};

/// The name of a kind, for programs: "trailed".
const char* NameOf(FailureKind kind);

/// The evidence from which the cause of a failure is found.
struct FailureEvidence {
    ImageHealth Health;
    double TrailAngle = 0;  ///< direction of trails as displayed, degrees counter-clockwise from
                            ///< the horizontal, 0..180
    double FullScale = 0;   ///< the largest count of the format
    std::int32_t StarsExtracted = 0;
    std::int32_t CatalogStars = 0;  ///< in the first region; 0 also when none was searched
    double MagnitudeLimit = 0;      ///< the limit down to which this field is compared; 0 when no
                                    ///< region was searched
    double CatalogEnd = 0;          ///< magnitude where the catalog ends; 0 when unknown
    /// The sure solution that a search of the whole sky found.
    std::optional<PlateSolution> Elsewhere;
    double Separation = 0;  ///< distance of `Elsewhere` from the given centre, radians
    double SizeRatio = 0;   ///< field size found / field size given
};

struct FailureCause {
    FailureKind Kind = FailureKind::Unknown;
    std::string Text;  ///< what is wrong, with the figures
    std::string Try;   ///< the one thing to try
    FailureEvidence Evidence;
};

/// The part of a plan's time limit that is reserved for `CauseOfFailure`: 15 %, at most 3 seconds;
/// 0 for plans that search the whole sky themselves.
double InquirySeconds(const SearchRequest& request);

/// Why a plan did not solve the loaded image; nothing when it did or was stopped.
///
/// Reads the image file again, because the background is already subtracted from the counts in
/// memory. When the plan searched only around given centres and the picture is good, this searches
/// the whole sky for at most `InquirySeconds`. The state stays as the plan left it.
/// @param lists star lists that the plan made; when they are complete, none is made again
std::optional<FailureCause> CauseOfFailure(ProgramState& state, Port& port, SolveCode code,
                                           const SearchRequest& request,
                                           const InputWords& words = ConsoleWords,
                                           const StarLists& lists = {});

}  // namespace vestrel
