// vestrel-catalog build: makes a catalog from a survey.
#include <CLI/App.hpp>
#include <cmath>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include "astro/libStrings.h"
#include "astro/libTime.h"
#include "catalogtool/commands.h"
#include "catalogtool/libAstap.h"
#include "catalogtool/libBrightStars.h"
#include "catalogtool/libCatalogBuilder.h"
#include "catalogtool/libCatalogFolder.h"
#include "catalogtool/libFastStars.h"
#include "catalogtool/libFitsTable.h"
#include "catalogtool/libIndexFile.h"
#include "catalogtool/libStarTable.h"
#include "platform/libConsole.h"
#include "platform/libFiles.h"
#include "platform/libPlatform.h"

namespace vestrel {
namespace fs = std::filesystem;

namespace {

struct BuildOptions {
    std::string Catalog;
    std::string Tycho2;
    std::vector<std::string> Indexes;
    std::vector<std::string> Astap;
    std::vector<std::string> Tables;
    std::string Bright;
    std::optional<double> MagMin;
    std::optional<double> MagMax;
    std::string RaUnit = "auto";
    std::vector<std::string> Where;
    std::optional<double> Epoch;
    StarTableOptions Table;  ///< its `Epoch` is that of the catalog
};

/// A source while its stars come in.
struct OpenSource {
    OpenSource(const char* kind, const std::string& file) {
        Record.Kind = kind;
        Record.File = file == "-" ? "standard input" : TextFromPath(PathFromText(file).filename());
        std::error_code error;
        const auto time = fs::last_write_time(PathFromText(file), error);
        if (!error) Record.Modified = TimeText(time);
    }

    void LeaveOut(const char* reason, std::uint64_t rows) {
        if (rows > 0) Record.LeftOut.emplace_back(reason, rows);
    }

    CatalogSource Record;
    std::uint64_t Unusable = 0;  // no magnitude, as a rule
    std::uint64_t Filtered = 0;
};

/// One run of `build`, from the sources to the finished folder.
class Build {
 public:
    explicit Build(const BuildOptions& buildOptions)
        : options_(buildOptions),
          folder_(ChosenCatalog(buildOptions.Catalog)),
          builder_(folder_.Path()),
          progress_(stderr) {}

    void Run() {
        std::optional<OpenSource> bright;
        std::vector<SkyStar> brightStars;
        if (!options_.Bright.empty()) {
            bright.emplace("bright", options_.Bright);
            std::size_t unusable = 0;
            brightStars = ReadBrightStars(PathFromText(options_.Bright), unusable);
            for (SkyStar& star : brightStars) MoveIfFast(star, *bright);
            bright->Record.Rows = brightStars.size() + unusable;
            bright->Unusable = unusable;
        }
        BrightStarFinder finder(brightStars);

        // What measures the bright stars well comes first: of a star that several have, the first
        // one's is taken.
        if (!options_.Tycho2.empty()) ReadIndex("tycho2", options_.Tycho2, "MAG_VT", finder);
        for (const std::string& table : options_.Tables) ReadTable(table, finder);
        for (const std::string& index : options_.Indexes) {
            ReadIndex("index", index, options_.Table.MagColumn, finder);
        }
        for (const std::string& database : options_.Astap) ReadAstap(database, finder);

        if (bright) {
            const std::vector<SkyStar> missing = finder.Missing();
            bright->LeaveOut("in the survey already", brightStars.size() - missing.size());
            for (const SkyStar& star : missing) Add(star, *bright);
            Close(*bright);
            manifest_.BrightGapFilled = true;
        } else {
            Note("the survey's brightest stars are lacking; build with --bright FILE to add them");
        }
        if (options_.MagMin) Filter("magnitude at least " + NumberText(*options_.MagMin));
        if (options_.MagMax) Filter("magnitude at most " + NumberText(*options_.MagMax));
        for (const std::string& where : options_.Where) Filter(where);
        Finish();
    }

 private:
    void Note(const std::string& text) {
        progress_.Clear();
        std::fprintf(stderr, "vestrel-catalog: %s\n", WithoutControls(text).c_str());
    }

    /// Says something now that later users of the catalog should know too.
    void Remark(const std::string& text) {
        Note(text);
        manifest_.Remarks.push_back(text);
    }

    void Filter(const std::string& text) { manifest_.Filters.push_back(text); }

    void Add(const SkyStar& star, OpenSource& source) {
        const std::optional<CatalogStar> stored = StoredStar(star);
        if (!stored) {
            ++source.Unusable;
        } else if ((options_.MagMin && star.Mag < *options_.MagMin) ||
                   (options_.MagMax && star.Mag > *options_.MagMax)) {
            ++source.Filtered;
        } else {
            builder_.Add(*stored, number_);
            ++source.Record.Used;
        }
    }

    void Close(OpenSource& source) {
        source.LeaveOut("no usable position or magnitude", source.Unusable);
        source.LeaveOut("left out by magnitude", source.Filtered);
        manifest_.Sources.push_back(source.Record);
        // Index files beyond the 255th and the like are no less trusted than that one.
        if (number_ < 255) ++number_;
    }

    /// Carries one of the fastest stars, of a source without proper motions, to the epoch.
    void MoveIfFast(SkyStar& star, OpenSource& source) {
        const std::optional<SkyStar> moved = FastStarAt(star, options_.Table.Epoch);
        if (!moved) return;
        star = *moved;
        ++source.Record.Moved;
    }

    /// A sink that hands the stars of a source on.
    StarSink Into(OpenSource& source, BrightStarFinder& finder) {
        return [this, &source, &finder](const SkyStar& star) {
            finder.Visit(star);
            Add(star, source);
        };
    }

    void ReadIndex(const char* kind, const std::string& file, const std::string& magColumn,
                   BrightStarFinder& finder) {
        OpenSource source(kind, file);
        const StarSink into = Into(source, finder);
        const auto moveAndHandOn = [&](const SkyStar& star) {
            SkyStar moved = star;
            MoveIfFast(moved, source);
            into(moved);
        };
        const IndexStars stars =
            ReadIndexFile(PathFromText(file), magColumn, moveAndHandOn, progress_);
        source.Record.Rows = stars.Count;
        if (stars.MagColumn.empty()) {
            Remark(source.Record.File +
                   ": has no magnitudes; those given to its stars go by their rank");
        } else if (stars.MagColumn != "MAG_VT") {
            Remark(source.Record.File + ": magnitudes " + stars.MagColumn);
        }
        Close(source);
    }

    void ReadAstap(const std::string& folder, BrightStarFinder& finder) {
        const AstapDatabase database = ChosenAstapDatabase(PathFromText(folder));
        OpenSource source("astap", TextFromPath(database.Files.front()));
        source.Record.File = database.Name + " (" + GroupedText(database.Files.size()) + " files)";
        const StarSink sink = Into(source, finder);
        for (std::size_t i = 0; i < database.Files.size(); ++i) {
            progress_.Show("Reading " + database.Name, i, database.Files.size(),
                           source.Record.Rows);
            source.Record.Rows += ReadAstapFile(database.Files[i], sink);
        }
        if (source.Record.Rows == 0) {
            throw ToolFailure(ToolExit::BadInput, folder + ": holds not one star");
        }
        Remark(source.Record.File + ": positions of 2025, magnitudes in tenths");
        Close(source);
    }

    void ReadTable(const std::string& file, BrightStarFinder& finder) {
        OpenSource source("csv", file);
        const bool standardInput = file == "-";
        const FileHandle opened = standardInput ? nullptr : OpenFile(PathFromText(file), "rb");
        if (!standardInput && !opened) {
            std::error_code ignored;
            const bool folder = fs::is_directory(PathFromText(file), ignored);
            throw ToolFailure(
                ToolExit::BadInput,
                file + (folder ? ": is a folder" : ": cannot be opened: " + SystemErrorText()));
        }
        std::FILE* stream = standardInput ? stdin : opened.get();
        const std::int64_t length = standardInput ? -1 : FileLength(stream);
        UnpackedInput input(stream);
        StarTableResult result;
        if (input.StartsWith("SIMPLE  =")) {
            const bool asItLies = !standardInput && !input.IsPacked();
            const fs::path fits =
                asItLies ? PathFromText(file) : Unpacked(input, source.Record.File);
            result = ReadFitsStarTable(fits, source.Record.File, options_.Table,
                                       Into(source, finder), progress_);
            std::error_code ignored;
            if (!asItLies) fs::remove(fits, ignored);
            source.Record.Kind = "fits";
        } else {
            result = ReadStarTable(input, source.Record.File, length > 0 ? length : 0,
                                   options_.Table, Into(source, finder), progress_);
        }
        source.Record.Rows = result.Rows;
        for (std::size_t i = 0; i < result.Faults.size(); ++i) {
            source.LeaveOut(RowFaultText(static_cast<RowFault>(i)), result.Faults[i]);
        }
        Remark(source.Record.File + ": columns " + result.Columns + "; " + result.Motions);
        source.Record.Moved = result.Moved;
        if (result.LooksLikeHours) {
            Remark(source.Record.File +
                   ": its right ascensions, read as degrees, end at 24; if "
                   "they are hours, build again with --ra-unit hours");
        }
        Close(source);
    }

    /// A FITS table that came packed or by a pipe, in a file of the folder that is being built.
    fs::path Unpacked(UnpackedInput& input, const std::string& name) {
        fs::path path = folder_.Path() / (std::string(ManifestName) + ".unpacked.tmp");
        const FileHandle file = OpenFile(path, "wb");
        std::vector<char> bytes(std::size_t{1} << 20);
        bool good = file != nullptr;
        for (std::size_t count = 0; good && (count = input.Read(bytes.data(), bytes.size())) > 0;) {
            progress_.Show("Unpacking " + name, 0, 0, 0);
            good = std::fwrite(bytes.data(), 1, count, file.get()) == count;
        }
        if (!good || std::fflush(file.get()) != 0) {
            throw ToolFailure(ToolExit::CannotWrite, TextFromPath(path) + ": " + SystemErrorText());
        }
        if (!input.Fault().empty())
            throw ToolFailure(ToolExit::BadInput, name + ": " + input.Fault());
        return path;
    }

    void Finish() {
        builder_.Finish(progress_);
        manifest_.Tool = "vestrel-catalog " VESTREL_VERSION;
        manifest_.Created = CurrentTimeText();
        manifest_.Epoch = options_.Table.Epoch;
        manifest_.Cells = builder_.Cells();
        manifest_.Magnitudes = builder_.Magnitudes().Steps();
        manifest_.Duplicates = builder_.Duplicates();
        if (builder_.Merged() > 0) {
            manifest_.Remarks.push_back(GroupedText(builder_.Merged()) +
                                        " stars that several sources have were taken once");
        }
        const std::uint64_t stars = manifest_.StarCount();
        if (stars == 0) throw ToolFailure(ToolExit::BadInput, "no star passes the filters");
        if (!WriteManifest(folder_.Path(), manifest_)) {
            throw ToolFailure(ToolExit::CannotWrite, TextFromPath(folder_.Path() / ManifestName) +
                                                         ": " + SystemErrorText());
        }
        ThrowIfStopped();
        folder_.Publish();
        progress_.Clear();
        for (const CatalogSource& source : manifest_.Sources) {
            std::printf("%s: %s of %s rows used\n", WithoutControls(source.File).c_str(),
                        GroupedText(source.Used).c_str(), GroupedText(source.Rows).c_str());
            if (source.Moved > 0) {
                std::printf("    moved to the epoch %s: %s\n",
                            NumberText(manifest_.Epoch.value_or(0)).c_str(),
                            GroupedText(source.Moved).c_str());
            }
            for (const auto& [reason, rows] : source.LeftOut) {
                std::printf("    %s: %s\n", WithoutControls(reason).c_str(),
                            GroupedText(rows).c_str());
            }
        }
        if (manifest_.Duplicates > 0) {
            std::printf("exact duplicates dropped: %s\n",
                        GroupedText(manifest_.Duplicates).c_str());
        }
        if (builder_.Merged() > 0) {
            std::printf("stars of several sources, taken once: %s\n",
                        GroupedText(builder_.Merged()).c_str());
        }
        std::printf("%s stars in %s\n", GroupedText(stars).c_str(),
                    TextFromPath(ChosenCatalog(options_.Catalog)).c_str());
    }

    const BuildOptions& options_;
    BuildingFolder folder_;
    CatalogBuilder builder_;
    ProgressLine progress_;
    CatalogManifest manifest_;
    unsigned char number_ = 0;  ///< of the source that is being read
};

/// Completes what the command line gives as text.
void InterpretOptions(BuildOptions& options) {
    if (options.RaUnit == "degrees") options.Table.RaUnit = AngleUnit::Degrees;
    if (options.RaUnit == "hours") options.Table.RaUnit = AngleUnit::Hours;
    // To a tenth of a year: nothing in the sky moves so fast that more would show.
    const double today = std::round(JulianEpoch(CurrentJulianDate()) * 10) / 10;
    options.Table.Epoch = options.Epoch.value_or(today);
    for (const std::string& where : options.Where) {
        options.Table.Filters.emplace_back();
        ParseRowFilter(where, options.Table.Filters.back());
    }
}

std::string CheckRowFilter(const std::string& text) {
    RowFilter filter;
    return ParseRowFilter(text, filter)
               ? ""
               : "\"" + text + "\" is not COLUMN=VALUE, COLUMN<NUMBER or COLUMN>NUMBER";
}

void AddTableOptions(CLI::App& command, CLI::Option* table, BuildOptions& options) {
    command.add_option("--ra-column", options.Table.RaColumn, "Column of right ascensions")
        ->type_name("NAME")
        ->needs(table);
    command.add_option("--dec-column", options.Table.DecColumn, "Column of declinations")
        ->type_name("NAME")
        ->needs(table);
    command.add_option("--mag-column", options.Table.MagColumn, "Column of magnitudes, any band")
        ->type_name("NAME");
    command
        .add_option("--ra-unit", options.RaUnit,
                    "Unit of right ascensions that are plain numbers: degrees, hours or auto "
                    "(degrees). Those like 05:23:12.3 are always hours")
        ->check(CLI::IsMember({"auto", "degrees", "hours"}))
        ->type_name("UNIT")
        ->needs(table);
    command
        .add_option("--table-epoch", options.Table.TableEpoch,
                    "Epoch of the table's positions (a year), where it has none itself")
        ->check(CLI::Range(1800.0, 2200.0))
        ->type_name("YEAR")
        ->needs(table);
    command
        .add_option("--where", options.Where,
                    "Use only rows with COLUMN=VALUE, COLUMN<NUMBER or COLUMN>NUMBER. May be "
                    "given several times; all must hold")
        ->check(CheckRowFilter)
        ->type_name("CONDITION")
        ->allow_extra_args(false)
        ->needs(table);
}

}  // namespace

void AddBuildCommand(CLI::App& program, ToolExit& exitCode) {
    CLI::App& command = *program.add_subcommand(
        "build", "Make the catalog; the old one stays until the new one is complete");
    const auto options = std::make_shared<BuildOptions>();
    AddCatalogOption(command, options->Catalog);
    CLI::Option_group& sources = *command.add_option_group(
        "Sources, one or more; a star that several have is taken once, from the first of this "
        "list");
    sources
        .add_option("--tycho2", options->Tycho2,
                    "Index file of Debian's astrometry-data-tycho2-07-littleendian")
        ->type_name("FILE");
    CLI::Option* table =
        sources
            .add_option("--csv,--table", options->Tables,
                        "Table with named columns (Gaia, UCAC, APASS, VizieR): text with comma, "
                        "tab, semicolon or bar, or FITS; gzip is unpacked. - is standard input. "
                        "May be given several times")
            ->type_name("FILE")
            ->allow_extra_args(false);
    sources
        .add_option("--index", options->Indexes,
                    "Index files of Astrometry.net, of any series, little-endian")
        ->type_name("FILE...");
    sources
        .add_option("--astap", options->Astap,
                    "Folder of a star database of ASTAP (.1476 or .001), or FOLDER/NAME (as in "
                    "/opt/astap/d50)")
        ->type_name("FOLDER")
        ->allow_extra_args(false);
    sources.require_option(1, 0);
    command
        .add_option("--bright", options->Bright,
                    "Adds the brightest stars that the survey lacks: stars.6.json of the npm "
                    "package d3-celestial")
        ->type_name("FILE");
    command.add_option("--mag-min", options->MagMin, "Leave brighter stars out")->type_name("MAG");
    command.add_option("--mag-max", options->MagMax, "Leave fainter stars out")->type_name("MAG");
    command
        .add_option("--epoch", options->Epoch,
                    "Epoch to carry stars to that have proper motions (a year; default: today)")
        ->check(CLI::Range(1800.0, 2200.0))
        ->type_name("YEAR");
    AddTableOptions(command, table, *options);
    command.callback([options, &exitCode] {
        if (!options->Table.MagColumn.empty() && options->Tables.empty() &&
            options->Indexes.empty()) {
            throw ToolFailure(ToolExit::WrongUsage, "--mag-column is for --csv and --index");
        }
        InterpretOptions(*options);
        Build(*options).Run();
        exitCode = ToolExit::Good;
    });
}

}  // namespace vestrel
