#include "program/mFailureCause.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <new>

#include "astro/libConversions.h"
#include "astro/libMath.h"
#include "astro/libStrings.h"
#include "display/libReadout.h"
#include "display/libSkyOverlay.h"
#include "image/libFormats.h"
#include "platform/libPlatform.h"
#include "program/mWorkBeside.h"

namespace vestrel {

namespace {

std::string Count(std::int32_t n, const char* one, const char* many) {
    return std::to_string(n) + " " + (n == 1 ? one : many);
}

/// The port of a search that shows nothing. It can be stopped like any other.
class HiddenPort : public Port {
 public:
    explicit HiddenPort(Port& port) : port_(port) {}
    void ShowMessage(const std::string& /*text*/, const std::string& /*title*/) override {}
    std::optional<std::string> AskForFile(const FileDialog& /*dialog*/) override {
        return std::nullopt;
    }
    void DisplayChanged() override {}
    void ImageChanged() override {}
    void ShowProgress(int /*percent*/) override {}
    void Yield() override { port_.Yield(); }
    void ShowBusyPointer(bool /*busy*/) override {}

 private:
    Port& port_;
};

/// Searches the whole sky for the picture and restores the rest of the state.
std::optional<PlateSolution> LookElsewhere(ProgramState& state, Port& port,
                                           const SearchRequest& given, const StarLists& lists,
                                           double seconds) {
    const SolveReport report = state.Report;
    const SolveDisplay display = state.Display;
    const ExtractionFacts extraction = state.Extraction;
    const PlateStarList stars = state.PlateStars;
    QuadSearch quads = std::move(state.QuadMatch);
    const ImageHeader header = state.Image.Header;
    HiddenPort hidden(port);
    SearchRequest request;
    request.Everywhere = true;
    request.Diagonals = given.Diagonals;
    request.TimeLimit = seconds;
    const bool complete =
        std::all_of(lists.begin(), lists.end(), [](const auto& list) { return list.has_value(); });
    if (complete) request.Lists = lists;
    PlanReport plan;
    SolveByPlan(state, hidden, request, plan);
    std::optional<PlateSolution> found = std::move(state.Solution);
    ForgetSolution(state);
    state.Report = report;
    state.Display = display;
    state.Extraction = extraction;
    state.PlateStars = stars;
    state.QuadMatch = std::move(quads);
    state.Image.Header = header;
    port.DisplayChanged();
    return found;
}

/// Judges one failure.
class Inquiry {
 public:
    Inquiry(ProgramState& state, Port& port, const SearchRequest& request, const InputWords& words,
            const StarLists& lists)
        : state_(state), port_(port), request_(request), words_(words), lists_(lists) {}

    FailureCause Find() {
        GatherEvidence();
        // Such pictures cannot be judged.
        if (LacksPixels()) return std::move(cause_);
        if (HasNextToNoCounts(state_.Image)) {
            Found(FailureKind::Unknown, "its numbers leave next to no counts",
                  Advice(state_, SolveCode::TooFewStars, words_).front());
            return std::move(cause_);
        }
        // The surest causes come first. When the picture itself is good, the given centre or size
        // is to blame.
        if (!IsTooSmall() && !HasNoCatalog() && !IsNoSky() && !IsTrailed() && !IsOutOfFocus() &&
            !HasFewStars() && !IsElsewhere() && !CatalogIsShallow() && !IsNotSquare() &&
            !StartIsDoubtful()) {
            SayThatNothingFits();
        }
        return std::move(cause_);
    }

 private:
    const ImageHealth& Health() const { return cause_.Evidence.Health; }
    bool Found(FailureKind kind, std::string text, std::string what) {
        cause_.Kind = kind;
        cause_.Text = std::move(text);
        cause_.Try = std::move(what);
        return true;
    }

    void GatherEvidence() {
        FailureEvidence& evidence = cause_.Evidence;
        const PlateImage& image = state_.Image;
        PlateImage asRead;
        ReadFailure ignored;
        const bool read = ReadImageFile(
            PathFromText(image.FileName), asRead, [this](int, int) { port_.Yield(); }, ignored,
            state_.DecodesApart);
        // A picture from memory has only a name, which may be that of an unrelated file.
        const bool same = read && asRead.Width == image.Width && asRead.Height == image.Height;
        if (same && image.ImageType == ImageType::Fits) missingPart_ = MissingPart();
        WorkBeside(port_, [&] { evidence.Health = HealthOf(same ? asRead : image); });
        evidence.TrailAngle = evidence.Health.TrailAngle * ExactDegreesPerRadian;
        if (FirstRowAtTop(image)) evidence.TrailAngle = -evidence.TrailAngle;
        if (evidence.TrailAngle < 0) evidence.TrailAngle += 180;
        constexpr double largestByte = 255;
        evidence.FullScale = image.LargestCount;
        if (image.ImageType == ImageType::Jpeg) evidence.FullScale = 3 * largestByte;
        if (image.ImageType == ImageType::Fits && image.Header.BitPix == 8) {
            evidence.FullScale = largestByte;
        }
        evidence.StarsExtracted = state_.Extraction.StarsFound;
        if (state_.Report.RegionsTried == 0) return;
        evidence.CatalogStars = state_.Report.CatalogStarsAtStart;
        evidence.MagnitudeLimit = state_.Report.MagnitudeLimit;
        const double end = FaintEnd(state_.Catalog);
        if (std::isfinite(end)) evidence.CatalogEnd = end;
    }

    bool IsTooSmall() {
        const PlateImage& image = state_.Image;
        constexpr std::int32_t fewest = 20;  // pixels
        if (std::min(image.Width, image.Height) >= fewest) return false;
        if (image.Width == 3 && image.Format == "FITS") {
            return Found(FailureKind::TooSmall,
                         "the picture is 3 pixels wide: its colours seem to come first (NAXIS1 = "
                         "3)",
                         "write the colours as planes, with NAXIS3 = 3");
        }
        const bool narrow = image.Width < fewest;
        return Found(FailureKind::TooSmall,
                     "the picture is " +
                         Count(narrow ? image.Width : image.Height, "pixel", "pixels") +
                         (narrow ? " wide" : " high"),
                     "take a larger part of the frame");
    }

    bool HasNoCatalog() {
        const std::string complaint = CatalogComplaint(state_);
        if (complaint.empty()) return false;
        return Found(
            FailureKind::NoCatalog, complaint,
            std::string("make a catalog with vestrel-catalog build, or name its folder (") +
                words_.CatalogFolder + ")");
    }

    /// The part of the pixels that the file announces but does not hold; they are read as zeros.
    double MissingPart() const {
        const PlateImage& image = state_.Image;
        std::error_code error;
        const std::uintmax_t length =
            std::filesystem::file_size(PathFromText(image.FileName), error);
        if (error) return 0;
        const int bytesOfPixel = std::abs(image.Header.BitPix) / 8;
        const double bytes = static_cast<double>(image.Width) * image.Height * bytesOfPixel;
        constexpr double header = 2880;  // or more
        return 1 - std::max(static_cast<double>(length) - header, 0.0) / bytes;
    }

    bool LacksPixels() {
        constexpr double half = 0.5;
        if (!(missingPart_ > half)) return false;
        return Found(FailureKind::FewStars,
                     "the file ends early: it lacks " + FixedText(100 * missingPart_, 0) +
                         " % of its pixels",
                     "copy the picture again, or wait until it is written whole");
    }

    /// Whether the picture does not look like a sky, which shows small separate patches of light on
    /// a darker background.
    bool IsNoSky() {
        const ImageHealth& health = Health();
        constexpr std::int32_t fewestDark = 5;
        constexpr double darkPart = 0.3;
        constexpr double texture = 0.15;  // of the full scale
        constexpr double tilted = 3;      // degrees
        const double angle = cause_.Evidence.TrailAngle;
        const bool upright = std::fabs(std::remainder(angle, 90)) < tilted;
        const bool filled = health.CoveredPart > 0.2 && health.Elongation > 2.2;
        const bool lines = health.CoveredPart > 0.1 && health.Elongation > 2.2 && upright &&
                           health.AngleAgreement > 0.5 && health.LengthSpread > 1;
        std::string sign;
        if (health.DarkPatches >= fewestDark && health.DarkPatches > darkPart * health.Patches) {
            sign = Count(health.DarkPatches, "dark patch", "dark patches") + " beside " +
                   std::to_string(health.Patches) + " bright ones";
        } else if (health.SkyNoise > texture * cause_.Evidence.FullScale) {
            sign = "what would be the sky varies by " + FixedText(health.SkyNoise, 0) + " of " +
                   FixedText(cause_.Evidence.FullScale, 0) + " counts from pixel to pixel";
        } else if (filled || lines) {
            sign = "bright patches cover " + FixedText(100 * health.CoveredPart, 0) +
                   " % of it, and are no dots but " + FixedText(health.Elongation, 1) +
                   " times as long as wide";
        }
        if (sign.empty()) return false;
        return Found(FailureKind::NotSky, "this does not look like a picture of stars: " + sign,
                     "check that it is the picture that was meant, and no negative");
    }

    bool IsTrailed() {
        const ImageHealth& health = Health();
        constexpr std::int32_t fewest = 4;
        // Noise breaks faint trails into pieces that still lie along one direction.
        const bool alike = health.AngleAgreement > 0.9 ||
                           (health.AngleAgreement > 0.75 && health.LengthSpread < 1);
        const bool broken = health.LengthSpread > 0.7;
        if (health.Patches < fewest || !alike || health.Elongation < 1.8 ||
            health.TrailLength < 5) {
            return false;
        }
        return Found(FailureKind::Trailed,
                     std::string("the stars are trailed: ") + (broken ? "at least " : "") +
                         FixedText(health.TrailLength, 0) + " pixels long and " +
                         FixedText(health.Width, 1) + " wide, at " +
                         FixedText(cause_.Evidence.TrailAngle, 0) + DegreeSign +
                         " from the horizontal, all of them alike",
                     "expose for a shorter time, or track the sky");
    }

    bool IsOutOfFocus() {
        const ImageHealth& health = Health();
        constexpr std::int32_t fewest = 4;
        constexpr double wide = 9;  // pixels
        const bool ring = health.HollowPart > 0.4 && health.Width > wide / 2;
        if (health.Patches < fewest || health.Elongation > 1.5 || !(ring || health.Width > wide)) {
            return false;
        }
        return Found(FailureKind::OutOfFocus,
                     "the stars are out of focus: round and " + FixedText(health.Width, 0) +
                         " pixels wide" +
                         (ring ? ", " + FixedText(100 * health.HollowPart, 0) +
                                     " % of them darker in the middle"
                               : ""),
                     "focus, or make the picture smaller until its stars are dots");
    }

    bool HasFewStars() {
        const FailureEvidence& evidence = cause_.Evidence;
        const ImageHealth& health = Health();
        constexpr std::int32_t enough = 12;
        const std::int32_t stars = StarsThatStandOut();
        const bool onlyHot = health.HotPixels > 5 * std::max(stars, 1);
        if (stars >= enough || (evidence.StarsExtracted >= enough && !onlyHot)) return false;
        const std::string few =
            stars == 0 ? std::string("no star stands out of the sky")
                       : "only " + Count(stars, "star stands", "stars stand") + " out of the sky";
        if (!health.Measured) {
            return Found(FailureKind::FewStars, few,
                         "expose for longer, or take a larger part of the frame");
        }
        const double sky = health.SkyLevel / evidence.FullScale;
        // In pictures made for viewing the sky is much brighter than in a camera's counts.
        const bool forPeople = evidence.FullScale < 1024;
        const double bright = forPeople ? 0.4 : 0.15;
        const double dark = forPeople ? 0.1 : 0.03;
        const std::string level =
            ", and the sky is at " + FixedText(100 * sky, 1) + " % of the full scale";
        if (sky > bright) {
            return Found(FailureKind::BrightSky, few + level,
                         "wait for a clear and dark sky, or expose for a shorter time");
        }
        if (sky < dark) {
            return Found(FailureKind::UnderExposed, few + level,
                         "expose for longer, and check that nothing covers the lens");
        }
        return Found(FailureKind::FewStars, few + level, "expose for longer, or check for clouds");
    }

    /// Searches the whole sky, unless the plan has done so.
    bool IsElsewhere() {
        FailureEvidence& evidence = cause_.Evidence;
        constexpr std::int32_t enough = 12;
        const double seconds = InquirySeconds(request_);
        if (seconds <= 0 || evidence.StarsExtracted < enough) return false;
        evidence.Elsewhere = LookElsewhere(state_, port_, request_, lists_, seconds);
        if (!evidence.Elsewhere) return false;
        const SearchHint& given = request_.Around.front();
        const PlateSolution& found = *evidence.Elsewhere;
        evidence.Separation = SkyDistance(found.Centre(), given.Centre);
        const double diagonal = std::hypot(found.WidthArcmin, found.HeightArcmin);
        const double givenDiagonal = std::hypot(given.Width, given.Height);
        evidence.SizeRatio = diagonal / 60 / ExactDegreesPerRadian / givenDiagonal;
        const std::string place = FormatRA(found.CentreRA, true, 0) +
                                  (found.CentreDec < 0 ? " " : " +") +
                                  FormatDec(found.CentreDec, true, 0);
        const std::string size =
            FixedText(found.WidthArcmin, 1) + "x" + FixedText(found.HeightArcmin, 1);
        const bool otherSize = !(evidence.SizeRatio > 0.7 && evidence.SizeRatio < 1.4);
        const std::string timesSize =
            FixedText(evidence.SizeRatio, 2) + " times the size " +
            (given.SizeRemembered ? "of the last session, as none was given" : "given");
        if (evidence.Separation < givenDiagonal / 2) {
            if (!otherSize) {
                return Found(FailureKind::Start,
                             "only a search of the whole sky finds the picture, at " + place,
                             words_.SearchWholeSky);
            }
            return Found(FailureKind::WrongSize, "the field is " + timesSize + ": " + size + "'",
                         std::string("give its size (") + words_.FieldSize + " " + size + ")");
        }
        std::string text = "the picture shows " + place + ", " +
                           FixedText(evidence.Separation * ExactDegreesPerRadian, 1) + DegreeSign +
                           " from the centre given";
        if (otherSize) {
            text += ", and " + timesSize;
        }
        return Found(FailureKind::WrongCentre, text,
                     std::string("give that centre (") + words_.Ra + ")" +
                         (otherSize ? std::string(" and size (") + words_.FieldSize + ")" : "") +
                         ", or " + words_.NoCentre);
    }

    bool CatalogIsShallow() {
        const std::string shallow = ShallowCatalogText(state_);
        constexpr std::int32_t fewestUseful = 10;
        if (shallow.empty() || cause_.Evidence.CatalogStars >= fewestUseful) return false;
        return Found(FailureKind::CatalogTooShallow,
                     shallow + ": it has " + Count(cause_.Evidence.CatalogStars, "star", "stars") +
                         " in the first region",
                     "build a deeper catalog: \"vestrel-catalog sources\" says from what");
    }

    /// Whether the header says that the pixels are not square. Pixel sizes usually have the binning
    /// in them.
    bool IsNotSquare() {
        const ImageHeader& header = state_.Image.Header;
        constexpr double tolerated = 0.1;
        const auto differ = [](double x, double y) {
            return x > 0 && y > 0 && std::fabs(y / x - 1) > tolerated;
        };
        std::string sign;
        if (differ(header.XPixelSize, header.YPixelSize)) {
            sign = "XPIXSZ is " + NumberText(header.XPixelSize) + " and YPIXSZ " +
                   NumberText(header.YPixelSize);
        } else if (differ(header.XBinning, header.YBinning)) {
            sign = "XBINNING is " + std::to_string(header.XBinning) + " and YBINNING " +
                   std::to_string(header.YBinning);
        }
        if (sign.empty()) return false;
        return Found(FailureKind::NotSquare, "the pixels are not square: " + sign,
                     "resample the picture to square pixels");
    }

    bool StartIsDoubtful() {
        if (request_.Around.empty() || request_.Everywhere) return false;
        return Found(FailureKind::Start,
                     StarsText() + ", and the catalog has " +
                         std::to_string(cause_.Evidence.CatalogStars) +
                         " in the first region: the centre or the size given is likely wrong, or "
                         "the pixels are not square",
                     words_.SearchWholeSky);
    }

    void SayThatNothingFits() {
        if (request_.Around.empty() && !state_.Quads.Fault.empty()) {
            Found(FailureKind::Unknown, state_.Quads.Fault, words_.SearchFromCentre);
            return;
        }
        Found(FailureKind::Unknown,
              StarsText() +
                  ", and nothing that was searched fits them: perhaps most of them are "
                  "no stars, the size given is wrong, or the pixels are not square",
              std::string("check the size of the field (") + words_.FieldSize + ")");
    }

    /// What is too small to be measured has the stars that were extracted.
    std::int32_t StarsThatStandOut() const {
        return Health().Measured ? Health().Patches : cause_.Evidence.StarsExtracted;
    }
    std::string StarsText() const {
        return Count(StarsThatStandOut(), "star stands", "stars stand") + " out of the sky" +
               (Health().Measured ? ", sharp and round" : "");
    }

    ProgramState& state_;
    Port& port_;
    const SearchRequest& request_;
    const InputWords& words_;
    const StarLists& lists_;
    FailureCause cause_;
    double missingPart_ = 0;  ///< of the pixels
};

}  // namespace

const char* NameOf(FailureKind kind) {
    switch (kind) {
        case FailureKind::TooSmall:
            return "too_small";
        case FailureKind::NoCatalog:
            return "no_catalog";
        case FailureKind::NotSky:
            return "not_sky";
        case FailureKind::UnderExposed:
            return "under_exposed";
        case FailureKind::BrightSky:
            return "bright_sky";
        case FailureKind::FewStars:
            return "few_stars";
        case FailureKind::Trailed:
            return "trailed";
        case FailureKind::OutOfFocus:
            return "out_of_focus";
        case FailureKind::CatalogTooShallow:
            return "catalog_too_shallow";
        case FailureKind::WrongCentre:
            return "wrong_centre";
        case FailureKind::WrongSize:
            return "wrong_size";
        case FailureKind::NotSquare:
            return "not_square";
        case FailureKind::Start:
            return "wrong_start";
        case FailureKind::Unknown:
            break;
    }
    return "unknown";
}

double InquirySeconds(const SearchRequest& request) {
    constexpr double part = 0.15;
    constexpr double most = 3;
    if (request.Around.empty() || request.Everywhere) return 0;
    return std::min(part * request.TimeLimit, most);
}

std::optional<FailureCause> CauseOfFailure(ProgramState& state, Port& port, SolveCode code,
                                           const SearchRequest& request, const InputWords& words,
                                           const StarLists& lists) {
    if ((code != SolveCode::NoMatch && code != SolveCode::TooFewStars) || !state.ImageLoaded) {
        return std::nullopt;
    }
    try {
        return Inquiry(state, port, request, words, lists).Find();
    } catch (const std::bad_alloc&) {
        return std::nullopt;  // two copies of the picture are in memory for a moment
    }
}

}  // namespace vestrel
