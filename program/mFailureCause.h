// Why a picture was not solved: the likeliest cause, from evidence, and the one thing to try.
#pragma once

#include <optional>
#include <string>

#include "extraction/libImageHealth.h"
#include "program/mGeneral.h"
#include "program/mSearchPlan.h"
#include "program/mSolveReport.h"

namespace vestrel {

enum class FailureKind {
    Unknown,            ///< nothing speaks for any of the others
    NoCatalog,          ///< none for this part of the sky
    NotSky,             ///< text, a landscape, a test chart, noise
    UnderExposed,       ///< hardly a star, and a dark sky
    BrightSky,          ///< hardly a star, and a bright sky: clouds, twilight, the Moon
    FewStars,           ///< hardly a star
    Trailed,            ///< the stars moved during the exposure
    OutOfFocus,         ///< discs or rings instead of stars
    CatalogTooShallow,  ///< for so small a field
    WrongCentre,        ///< the picture shows another part of the sky
    WrongSize,          ///< the picture shows the centre given, at another scale
    Start               ///< the picture is good: the centre or the size given is not
};

/// The name of a kind, for programs: "trailed".
const char* NameOf(FailureKind kind);

/// What the cause of a failure follows from.
struct FailureEvidence {
    ImageHealth Health;
    double TrailAngle = 0;  ///< as displayed, degrees counter-clockwise from the horizontal, 0..180
    double FullScale = 0;   ///< the largest count of the format
    std::int32_t StarsExtracted = 0;
    std::int32_t CatalogStars = 0;  ///< in the first region; 0 also when none was searched
    double MagnitudeLimit = 0;      ///< down to which this field is compared; 0: none was searched
    double CatalogEnd = 0;          ///< magnitude where the catalog ends; 0: not known
    /// What a search of the whole sky found, surely.
    std::optional<PlateSolution> Elsewhere;
    double Separation = 0;  ///< of that from the centre given, radians
    double SizeRatio = 0;   ///< the field found / the field given
};

struct FailureCause {
    FailureKind Kind = FailureKind::Unknown;
    std::string Text;  ///< what is wrong and the figures that say so; empty when nothing is known
    std::string Try;   ///< the one thing to try; empty likewise
    FailureEvidence Evidence;
};

/// The part of a plan's time limit that the inquiry after it may need, seconds.
double InquirySeconds(const SearchRequest& request);

/// Why a plan did not solve the loaded image; nothing when it did or was stopped.
///
/// Reads the file of the image once more, since the counts in memory have no sky any longer. When
/// only places were searched and the picture is good, looks for it over the whole sky, for at most
/// `InquirySeconds`. The state stays as the plan left it.
std::optional<FailureCause> CauseOfFailure(ProgramState& state, Port& port, SolveCode code,
                                           const SearchRequest& request,
                                           const InputWords& words = ConsoleWords);

}  // namespace vestrel
