// vestrel-catalog build: makes a catalog from a survey.
#include <CLI/App.hpp>
#include <cmath>
#include <memory>
#include <string>
#include <utility>

#include "astro/libStrings.h"
#include "astro/libTime.h"
#include "catalogtool/buildRun.h"
#include "catalogtool/commands.h"

namespace vestrel {

namespace {

/// Interprets options that the command line gives as text.
void InterpretOptions(BuildOptions& options) {
    if (options.RaUnit == "degrees") options.Table.RaUnit = AngleUnit::Degrees;
    if (options.RaUnit == "hours") options.Table.RaUnit = AngleUnit::Hours;
    // Rounded to a tenth of a year: no star moves so fast that more would matter.
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
        .add_option(
            "--table-epoch", options.Table.TableEpoch,
            "Epoch of the positions in tables and index files with proper motions (a year), "
            "instead of the one that they give or that is supposed")
        ->check(CLI::Range(1800.0, 2200.0))
        ->check(CheckFinite)
        ->type_name("YEAR");
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
    sources
        .add_option("--kstars", options->KStars,
                    "Folder of the star files of KStars (as in /usr/share/kstars). Of its bright "
                    "stars, to magnitude 8, those that no other source has are added")
        ->type_name("FOLDER")
        ->allow_extra_args(false);
    sources.require_option(1, 0);
    command
        .add_option("--bright", options->Bright,
                    "Adds the brightest stars that the survey lacks: stars.6.json of the npm "
                    "package d3-celestial")
        ->type_name("FILE");
    command.add_option("--mag-min", options->MagMin, "Leave brighter stars out")
        ->check(CheckFinite)
        ->type_name("MAG");
    command.add_option("--mag-max", options->MagMax, "Leave fainter stars out")
        ->check(CheckFinite)
        ->type_name("MAG");
    command
        .add_option("--epoch", options->Epoch,
                    "Epoch to carry stars to that have proper motions (a year; default: today)")
        ->check(CLI::Range(1800.0, 2200.0))
        ->check(CheckFinite)
        ->type_name("YEAR");
    AddTableOptions(command, table, *options);
    AddProgressOption(command, options->Progress);
    command.callback([options, &exitCode] {
        for (const auto& [name, given] :
             {std::pair{"--mag-column", !options->Table.MagColumn.empty()},
              std::pair{"--table-epoch", options->Table.TableEpoch.has_value()}}) {
            if (given && options->Tables.empty() && options->Indexes.empty()) {
                throw ToolFailure(ToolExit::WrongUsage,
                                  std::string(name) + " is for --csv and --index");
            }
        }
        InterpretOptions(*options);
        RunBuild(*options);
        exitCode = ToolExit::Good;
    });
}

}  // namespace vestrel
