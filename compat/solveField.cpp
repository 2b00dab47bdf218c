// `solve-field`: images or tables of stars, their world coordinates in .wcs files.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <numbers>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "astro/libStrings.h"
#include "compat/hostCommands.h"
#include "compat/hostFiles.h"
#include "compat/libCancelFile.h"
#include "compat/libFitsStars.h"
#include "compat/libHeaderUpdate.h"
#include "compat/libMeasuredFlux.h"
#include "compat/libNumberFormats.h"
#include "compat/libSolveFieldOptions.h"
#include "compat/libWcsInfo.h"
#include "image/libFitsCards.h"
#include "image/libFormats.h"
#include "platform/libConsole.h"
#include "platform/libFiles.h"
#include "platform/libPlatform.h"
#include "solver/solver.h"

namespace vestrel {

namespace {

constexpr int faultExit = 1;

/// Prints a line for the host at once.
void Say(const std::string& line) {
    std::fputs((line + "\n").c_str(), stdout);
    std::fflush(stdout);
}

void Complain(const std::string& line) {
    std::fputs(("solve-field: " + WithoutControls(line) + "\n").c_str(), stderr);
}

/// Adds the range of scales in the options, converted to the units of the solver.
void AddScale(const SolveFieldOptions& options, SolverHints& hints) {
    if (!options.ScaleLow && !options.ScaleHigh) return;
    double low = options.ScaleLow.value_or(options.ScaleHigh.value_or(0));
    double high = options.ScaleHigh.value_or(low);
    constexpr double arcminutesPerDegree = 60;
    constexpr double filmWidth = 36;  // millimetres
    const auto widthOf = [](double focalLength) {
        return 2 * std::atan(filmWidth / 2 / focalLength) * 180 / std::numbers::pi;
    };
    if (options.Unit == ScaleUnit::ArcminutesWidth) {
        low /= arcminutesPerDegree;
        high /= arcminutesPerDegree;
    } else if (options.Unit == ScaleUnit::FocalLength35mm) {
        low = widthOf(low);
        high = widthOf(high);
    }
    if (low > high) std::swap(low, high);
    (options.Unit == ScaleUnit::ArcsecondsPerPixel ? hints.Scale : hints.FieldWidth) =
        SolverRange{low, high};
}

SolverHints HintsFrom(const SolveFieldOptions& options) {
    constexpr double hintedLimit = 60;  // seconds
    constexpr double blindLimit = 300;
    constexpr double degreesPerRadian = 180 / std::numbers::pi;
    SolverHints hints;
    if (options.Centre) {
        hints.Centres = {{options.Centre->Ra * degreesPerRadian,
                          options.Centre->Dec * degreesPerRadian,
                          options.Radius > 0 ? std::min(options.Radius, 180.0) : 180}};
    }
    AddScale(options, hints);
    hints.TimeLimit = options.TimeLimit > 0 ? options.TimeLimit
                      : options.Centre      ? hintedLimit
                                            : blindLimit;
    hints.EndAfter = hints.TimeLimit;
    hints.FindCause = false;  // hosts read none
    return hints;
}

/// The star lists of a table, in the order in which to try them.
std::vector<std::vector<ListedStar>> ListsOf(const FitsStars& table,
                                             const std::filesystem::path& path) {
    std::vector<std::vector<ListedStar>> lists;
    const auto picture = PictureBeside(path);
    PlateImage image;
    ReadFailure ignored;
    if (picture && ReadImageFile(*picture, image, {}, ignored) && image.Width == table.Width &&
        image.Height == table.Height) {
        std::vector<ListedStar> measured = table.Stars;
        const std::vector<double> flux = MeasuredFlux(image, measured);
        for (std::size_t i = 0; i < measured.size(); ++i) measured[i].Rank = flux[i];
        lists.push_back(RankedStars(std::move(measured)));
    }
    lists.push_back(RankedStars(table.Stars));
    lists.push_back(InterleavedStars(lists.back(), table.Width, table.Height));
    return lists;
}

/// The paths of the results; empty for results that are not wanted.
struct Outputs {
    std::string Wcs;
    std::string Solved;
    std::string NewFits;

    std::vector<std::string> Wanted() const {
        std::vector<std::string> wanted;
        for (const std::string& path : {Wcs, Solved, NewFits}) {
            if (!path.empty()) wanted.push_back(path);
        }
        return wanted;
    }
};

bool LacksCatalog(SolverEnd end) {
    return end == SolverEnd::NoCatalog || end == SolverEnd::DamagedCatalog;
}

bool Exists(const std::string& path) {
    std::error_code ignored;
    return std::filesystem::exists(PathFromText(path), ignored);
}

/// One input, from opening it to writing its files.
class FieldRun {
 public:
    FieldRun(const SolveFieldOptions& options, Solver& solver, std::string input)
        : options_(options), solver_(solver), input_(std::move(input)) {
        outputs_.Wcs = SolveFieldOutputPath(options, input_, options.Wcs, ".wcs");
        outputs_.Solved = SolveFieldOutputPath(options, input_, options.Solved, ".solved");
        outputs_.NewFits = SolveFieldOutputPath(options, input_, options.NewFits, ".new");
    }

    int Run() {
        for (const std::string& path : outputs_.Wanted()) {
            std::error_code ignored;
            if (std::filesystem::equivalent(PathFromText(path), PathFromText(input_), ignored)) {
                Complain(path + " is the input itself.");
                return faultExit;
            }
        }
        if (options_.SkipSolved && Exists(outputs_.Solved)) {
            Say("Ignoring input file " + input_ + ": it is solved");
            return 0;
        }
        if (const auto exit = MakeRoom()) return *exit;
        const CancelFile cancel(options_.Cancel);
        SolverWatch watch;
        watch.Stop = cancel.Token();
        const auto outcome = OpenAndSolve(watch);
        if (!outcome) return faultExit;
        const SipChoice choice = Coordinates();
        if (!outcome->Solved() || !choice) {
            if (outcome->End == SolverEnd::TimeLimit) Say("Total CPU time limit reached");
            if (LacksCatalog(outcome->End)) Complain(outcome->Reason);
            if (outcome->Solved()) {
                Complain("The place is found, but the field is too wide for coordinates.");
            }
            Say("Did not solve (or no WCS file was written).");
            return 0;
        }
        return WriteAll(*outcome, *choice);
    }

 private:
    using SipChoice = std::optional<SolverCoordinates>;

    /// Removes the results of an earlier run, if the options allow it. Else returns the exit code.
    std::optional<int> MakeRoom() const {
        for (const std::string& path : outputs_.Wanted()) {
            if (!options_.Overwrite && !options_.Continue && Exists(path)) {
                Complain("Output file already exists: \"" + path +
                         "\". Use --overwrite to replace it.");
                Say("Did not solve (or no WCS file was written).");
                return 0;
            }
        }
        std::optional<int> fault;
        for (const std::string& path : outputs_.Wanted()) {
            // That a .solved file is there tells success, also when it is empty.
            if (ClearResult(path) && (path != outputs_.Solved || !Exists(path))) continue;
            Complain("The file " + path + " of an earlier run cannot be removed.");
            fault = faultExit;
        }
        if (fault) Say("Did not solve (or no WCS file was written).");
        return fault;
    }

    /// Opens and solves the input. Nothing, with a message, when it cannot be read.
    std::optional<SolverOutcome> OpenAndSolve(const SolverWatch& watch) {
        constexpr std::size_t longest = std::size_t{1} << 30;
        std::vector<unsigned char> start(std::size_t{1} << 20);
        {
            const FileHandle file = OpenFile(PathFromText(input_), "rb");
            start.resize(file ? std::fread(start.data(), 1, start.size(), file.get()) : 0);
        }
        if (HoldsStarTable(start)) {
            std::vector<unsigned char> bytes;
            if (!ReadWholeFile(PathFromText(input_), longest, bytes)) {
                Complain("The file " + input_ + " cannot be read.");
                return std::nullopt;
            }
            isTable_ = true;
            return SolveTable(bytes, watch);
        }
        const PictureFacts picture = solver_.Open(input_, watch);
        if (!picture.Opened) {
            Complain("The file " + input_ + " cannot be read. " + picture.Fault);
            return std::nullopt;
        }
        width_ = picture.Width;
        height_ = picture.Height;
        return solver_.Solve(HintsFrom(options_), watch);
    }

    std::optional<SolverOutcome> SolveTable(const std::vector<unsigned char>& bytes,
                                            const SolverWatch& watch) {
        std::string fault;
        const StarColumns columns{options_.XColumn, options_.YColumn, options_.SortColumn,
                                  options_.SortAscending};
        auto table = ReadFitsStars(bytes, columns, fault);
        if (!table) {
            Complain("The file " + input_ + " cannot be read. " + fault);
            return std::nullopt;
        }
        if (options_.Width > 0) table->Width = options_.Width;
        if (options_.Height > 0) table->Height = options_.Height;
        constexpr double longestSide = 32767;
        if (!(table->Width >= 1 && table->Height >= 1 && table->Width <= longestSide &&
              table->Height <= longestSide)) {
            Complain("The field of " + input_ + " has no usable size.");
            return std::nullopt;
        }
        width_ = static_cast<int>(table->Width);
        height_ = static_cast<int>(table->Height);
        SolverHints hints = HintsFrom(options_);
        SolverOutcome outcome;
        for (const std::vector<ListedStar>& list : ListsOf(*table, PathFromText(input_))) {
            StarField field;
            field.Width = width_;
            field.Height = height_;
            field.Cards = table->Cards;
            field.Name = input_;
            for (const ListedStar& star : list) {
                // Only their order by brightness is reliable.
                const auto place = static_cast<double>(list.size() - field.Stars.size());
                field.Stars.push_back({star.X - 1, star.Y - 1, place});
            }
            solver_.Open(field, watch);
            outcome = solver_.Solve(hints, watch);
            hints.EndAfter -= outcome.Seconds;
            hints.TimeLimit = hints.EndAfter;
            if (outcome.Solved() || outcome.End == SolverEnd::Stopped ||
                LacksCatalog(outcome.End) || !(hints.EndAfter > 0)) {
                break;
            }
        }
        return outcome;
    }

    SipChoice Coordinates() const {
        CardOptions card;
        constexpr int usual = 2;  // the default of solve-field
        constexpr int highest = 6;
        const int asked = options_.TweakOrder < 0 ? usual : options_.TweakOrder;
        // First order means linear, without SIP terms.
        card.MostSipOrder = asked < 2 ? 0 : std::min(asked, highest);
        return solver_.Coordinates(card);
    }

    int WriteAll(const SolverOutcome& outcome, const SolverCoordinates& coordinates) {
        HeaderContents contents;
        contents.Coordinates = coordinates;
        contents.Width = width_;
        contents.Height = height_;
        contents.Comments = {SolvedByVestrel + outcome.SolvedBy};
        const std::string header = FitsHeaderBlocks(HeaderCards(contents));
        bool good = true;
        const auto write = [&](const std::string& path, std::string_view text) {
            if (path.empty() || ReplaceFile(PathFromText(path), text)) return;
            Complain("The file " + path + " cannot be written.");
            good = false;
        };
        write(outputs_.Wcs, header);
        std::string fault;
        if (good && !isTable_ && !outputs_.NewFits.empty() &&
            !solver_.Export(outputs_.NewFits, fault)) {
            Complain(fault);
            good = false;
        }
        // The file that marks success comes last.
        if (good) write(outputs_.Solved, std::string_view("\x01", 1));
        if (!good) {
            Say("Did not solve (or no WCS file was written).");
            return faultExit;
        }
        Report(header);
        return 0;
    }

    void Report(const std::string& header) const {
        const auto wcs = ReadHeaderCoordinates(
            {reinterpret_cast<const unsigned char*>(header.data()), header.size()});
        if (!wcs) return;
        const auto [ra, dec] = wcs->SkyOf((wcs->Width + 1) / 2, (wcs->Height + 1) / 2);
        const auto [width, height] = FieldSizeOf(*wcs);
        const FieldInUnits field = InSuitableUnits(width, height);
        constexpr int digits = 6;
        const auto& cd = wcs->Cd;
        const bool mirrored = cd[0][0] * cd[1][1] - cd[0][1] * cd[1][0] >= 0;
        Say("Field 1: solved with index index-0000.fits.");
        Say("Field: " + WithoutControls(input_));
        Say("Field center: (RA,Dec) = (" + FixedText(ra, digits) + ", " + FixedText(dec, digits) +
            ") deg.");
        Say("Field center: (RA H:M:S, Dec D:M:S) = (" + HoursText(ra) + ", " + DegreesText(dec) +
            ").");
        Say("Field size: " + GeneralText(field.Width, digits) + " x " +
            GeneralText(field.Height, digits) + " " + field.Unit);
        Say("Field rotation angle: up is " + GeneralText(OrientationOf(cd), digits) +
            " degrees E of N");
        Say(std::string("Field parity: ") + (mirrored ? "neg" : "pos"));
    }

    const SolveFieldOptions& options_;
    Solver& solver_;
    std::string input_;
    Outputs outputs_;
    bool isTable_ = false;
    int width_ = 0;
    int height_ = 0;
};

}  // namespace

int RunSolveField(const std::vector<std::string>& arguments) {
    const SolveFieldOptions options = ParseSolveFieldOptions(arguments);
    if (!options.Fault.empty()) {
        Complain(options.Fault);
        return faultExit;
    }
    if (options.Version) {
        Say("0.93");
        return 0;
    }
    if (options.Help) {
        std::fputs(SolveFieldUsage, stdout);
        return 0;
    }
    if (options.Inputs.empty()) {
        Complain("There is no file to solve.");
        return faultExit;
    }
    Solver solver(SettingsOfUser());
    int exit = 0;
    for (const std::string& input : options.Inputs) {
        exit = std::max(exit, FieldRun(options, solver, input).Run());
    }
    return exit;
}

}  // namespace vestrel
