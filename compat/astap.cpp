// `astap`: one image, its results in an .ini and a .wcs file.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "astro/libStrings.h"
#include "compat/hostCommands.h"
#include "compat/hostFiles.h"
#include "compat/libAstapOptions.h"
#include "compat/libHeaderHints.h"
#include "compat/libHeaderUpdate.h"
#include "compat/libNumberFormats.h"
#include "image/libFitsCards.h"
#include "platform/libConsole.h"
#include "platform/libFiles.h"
#include "platform/libPlatform.h"
#include "solver/solver.h"

namespace vestrel {

namespace {

/// An exit code that hosts know, and its text.
struct AstapFault {
    int Exit;
    const char* Text;
};
/// The highest order of the distortion, which suits a lens. With higher orders a few stars at the
/// edge would determine the corners.
constexpr int sipOrder = 3;
constexpr AstapFault wrongUse{1, ""};
constexpr AstapFault noSolution{1, "No solution found."};
constexpr AstapFault notEnoughStars{2, "Not enough stars."};
constexpr AstapFault noImage{16, "Error reading image file."};
constexpr AstapFault tooWide{1, "The place is found, but the field is too wide for coordinates."};
constexpr AstapFault noCatalog{32, "No star database found."};
constexpr AstapFault damagedCatalog{33, "Error reading star database."};
constexpr int notUpdated = 34;

AstapFault FaultOf(SolverEnd end) {
    switch (end) {
        case SolverEnd::NoPicture:
            return noImage;
        case SolverEnd::TooFewStars:
            return notEnoughStars;
        case SolverEnd::NoCatalog:
            return noCatalog;
        case SolverEnd::DamagedCatalog:
            return damagedCatalog;
        default:
            return noSolution;
    }
}

/// The number of a card of the picture; nothing when it has none.
std::optional<double> CardNumber(const std::vector<std::string>& cards, std::string_view keyword) {
    for (const std::string& card : cards) {
        if (KeywordOfCard(card) == keyword) return ParseFitsNumber(ValueOfCard(card));
    }
    return std::nullopt;
}

SolverHints HintsFrom(const AstapOptions& options, const std::vector<std::string>& cards) {
    constexpr double degreesPerHour = 15;
    constexpr double hintedLimit = 60;  // seconds; hosts give up then, or later
    constexpr double blindLimit = 300;
    const double radius = std::min(options.Radius, 180.0);
    SolverHints hints;
    if (options.Ra && options.Declination) {
        hints.Centres = {{*options.Ra * degreesPerHour, *options.Declination, radius}};
    } else {
        for (const HeaderCentre& centre : HeaderCentres(cards)) {
            hints.Centres.push_back({centre.Ra, centre.Dec, radius});
        }
    }
    // The guess may be far off: hosts send 0.6 to 1.3 times the true size.
    if (options.Height) {
        hints.FieldHeight = SolverRange{*options.Height, *options.Height};
    } else if (const auto perRow = HeaderMatrixScale(cards)) {
        hints.Scale = SolverRange{*perRow * 3600, *perRow * 3600};
    }
    hints.TimeLimit = hints.Centres.empty() ? blindLimit : hintedLimit;
    hints.EndAfter = hints.TimeLimit;
    hints.FindCause = options.Log;  // nothing else tells it
    return hints;
}

/// What the user should do about the scale; empty when it was right to 5 %.
std::string ScaleWarning(const AstapOptions& options, const SolvedField& field,
                         const std::vector<std::string>& cards) {
    constexpr double good = 0.05;
    if (!options.Height || std::fabs(*options.Height / field.Height - 1) <= good) return {};
    const double scale = field.Coordinates.Scale();
    std::string text = "Warning scale was inaccurate! Set FOV=" + FixedText(field.Height, 2) +
                       "d, scale=" + FixedText(scale, 1) + "\"";
    constexpr double arcsecondsTimes = 206.265;  // a micrometre seen from a millimetre
    if (const auto pixel = CardNumber(cards, "XPIXSZ"); pixel && *pixel > 0) {
        text += ", FL=" + FixedText(arcsecondsTimes * *pixel / scale, 0) + "mm";
    }
    return text;
}

bool HoldsCatalog(const std::string& folder) {
    std::error_code ignored;
    return !folder.empty() &&
           (std::filesystem::exists(PathFromText(folder) / "catalog.json", ignored) ||
            std::filesystem::exists(PathFromText(folder) / "N00R00", ignored));
}

/// One run over one image.
class AstapRun {
 public:
    AstapRun(const AstapOptions& options, std::string command)
        : options_(options), command_(std::move(command)) {}

    int Run() {
        for (const char* extension : {".ini", ".wcs", ".log"}) {
            if (IsImage(AstapOutputPath(options_, extension))) {
                std::fputs("The results would take the place of the image.\n", stderr);
                return wrongUse.Exit;
            }
        }
        // Results of an earlier run must not be taken for those of this one.
        bool cleared = true;
        for (const char* extension : {".ini", ".wcs"}) {
            if (ClearResult(AstapOutputPath(options_, extension))) continue;
            std::fprintf(stderr, "The %s file of an earlier run cannot be removed.\n", extension);
            cleared = false;
        }
        if (!cleared) return wrongUse.Exit;
        if (!options_.Refused.empty()) {
            return Fail({wrongUse.Exit,
                         ("The option " + options_.Refused + " is not for a solve.").c_str()});
        }
        try {
            return Solve();
        } catch (const std::exception& error) {
            // For example when memory runs out: hosts wait for the .ini file whatever happens.
            log_ += std::string(error.what()) + "\n";
            return Fail(noSolution);
        }
    }

 private:
    int Solve() {
        SolverSettings settings = SettingsOfUser();
        if (HoldsCatalog(options_.CatalogFolder)) settings.CatalogFolder = options_.CatalogFolder;
        Solver solver(settings);
        image_ = StampOfFile(PathFromText(options_.Image));
        const PictureFacts picture = solver.Open(options_.Image);
        if (!picture.Opened) {
            log_ += picture.Fault + "\n";
            return Fail(noImage);
        }
        const std::vector<std::string> cards = solver.PictureCards();
        const SolverOutcome outcome = solver.Solve(HintsFrom(options_, cards));
        const auto straight = solver.Coordinates({0, true});
        if (outcome.Solved() && !straight) return Fail(tooWide);
        if (!outcome.Solved()) {
            log_ += outcome.Reason + "\n";
            if (!outcome.Cause.empty()) log_ += "Likely cause: " + outcome.Cause + "\n";
            return Fail(FaultOf(outcome.End));
        }
        std::string warning = ScaleWarning(options_, *outcome.Field, cards);
        HeaderContents contents;
        contents.Coordinates = options_.Distortion
                                   ? solver.Coordinates({sipOrder, true}).value_or(*straight)
                                   : *straight;
        contents.Width = picture.Width;
        contents.Height = picture.Height;
        contents.PictureCards = cards;
        contents.Classic = true;
        contents.Warning = warning;
        contents.Comments = {SolvedByVestrel + outcome.SolvedBy, command_};
        const bool updated = !options_.Update || Update(contents);
        if (!updated) {
            warning += std::string(warning.empty() ? "" : " ") + "The image file was not updated.";
            contents.Warning = warning;
        }
        const std::vector<std::string> header = HeaderCards(contents);
        // Hosts take the .ini file as a sign that everything is written, so it comes last.
        if (!Write(".wcs",
                   options_.BlockHeader ? FitsHeaderBlocks(header) : HeaderLinesText(header))) {
            return Fail({wrongUse.Exit, "The .wcs file cannot be written."});
        }
        const std::string ini = SolvedIniText(*straight, command_, warning);
        const std::string seconds =
            "Solved in " + FixedText(picture.Seconds + outcome.Seconds, 1) + " sec.\n";
        WriteLog(ini + seconds);
        if (!Write(".ini", ini)) return wrongUse.Exit;
        std::fputs((ini.substr(0, ini.find("CMDLINE=")) + seconds).c_str(), stdout);
        return updated ? 0 : notUpdated;
    }

    /// Puts the solution into the image's own file, whole or not at all.
    bool Update(const HeaderContents& contents) {
        constexpr std::size_t longest = std::size_t{4} << 30;
        const std::filesystem::path path = PathFromText(options_.Image);
        try {
            std::vector<unsigned char> bytes;
            if (!ReadWholeFile(path, longest, bytes)) {
                throw std::runtime_error("It cannot be read again, or has more than 4 GiB.");
            }
            // Without the command line, of which each update would leave another one.
            HeaderContents kept = contents;
            kept.Comments.resize(1);
            const auto changed =
                WithCoordinates(bytes, CoordinateCards(kept), contents.Width, contents.Height);
            ReplaceSameFile(path, image_, changed);
            return true;
        } catch (const std::system_error&) {
            log_ += "The image file cannot be written.\n";
        } catch (const std::exception& fault) {
            log_ += "The image file was not updated. " + std::string(fault.what()) + "\n";
        }
        return false;
    }

    bool IsImage(const std::string& path) const {
        std::error_code ignored;
        return std::filesystem::equivalent(PathFromText(path), PathFromText(options_.Image),
                                           ignored);
    }

    bool Write(const char* extension, const std::string& text) const {
        const std::string path = AstapOutputPath(options_, extension);
        if (ReplaceFile(PathFromText(path), text)) return true;
        std::fputs((std::string("The ") + extension + " file cannot be written.\n").c_str(),
                   stderr);
        return false;
    }

    void WriteLog(const std::string& text) {
        if (options_.Log) Write(".log", command_ + "\n" + log_ + text);
    }

    int Fail(const AstapFault& fault) {
        const std::string ini = FailedIniText(command_, fault.Text);
        WriteLog(ini);
        Write(".ini", ini);
        std::fputs("PLTSOLVD=F\n", stdout);
        // Hosts that do not read this must not wait for it, so it stays short.
        constexpr std::size_t longest = 400;
        std::fputs((WithoutControls(fault.Text).substr(0, longest) + "\n").c_str(), stderr);
        return fault.Exit;
    }

    const AstapOptions& options_;
    std::string command_;
    std::string log_;
    FileStamp image_;  ///< of the picture that is solved
};

}  // namespace

int RunAstap(const std::vector<std::string>& arguments) {
    const AstapOptions options = ParseAstapOptions(arguments);
    if (options.Help) {
        std::fputs(AstapUsage, stdout);
        return 0;
    }
    if (options.Image.empty()) {
        std::fputs("There is no image to solve: -f names it.\n", stderr);
        return wrongUse.Exit;
    }
    std::string command = "astap";
    for (const std::string& argument : arguments) command += " " + argument;
    return AstapRun(options, command).Run();
}

}  // namespace vestrel
