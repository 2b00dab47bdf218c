// Building a catalog from a window: what vestrel-catalog is asked for, and what it answers.
//
// It runs as a process of its own, so that neither a failure nor the end of the window harms a
// catalog: its builds are complete or absent.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vestrel {

/// Something that a catalog can be made from.
struct CatalogSourceChoice {
    std::string Text;                       ///< for the user
    std::vector<std::string> BuildOptions;  ///< that make `vestrel-catalog build` take it
};

/// The words after the program's name.
using ToolArguments = std::vector<std::string>;

/// Asks for what there is: in the usual places, or in some folder.
ToolArguments SourcesQuestion(const std::string& folder = {});

/// Reads the answer; nothing when it is none.
std::optional<std::vector<CatalogSourceChoice>> ReadSources(const std::string& json);

/// A table that the user names.
CatalogSourceChoice SourceOfTable(const std::string& path);

/// What is to be made, as the user says it.
struct CatalogWish {
    std::string Folder;
    std::vector<CatalogSourceChoice> Sources;  ///< none: the catalog stays, tables only
    std::string FaintestMagnitude;             ///< empty: all stars
    bool Tables = true;
    double SmallestField = 0.9;  ///< diagonal of the fields that the tables are for, degrees
    double LargestField = 30;
};

/// The runs that it takes, one after another; a `Fault` and no runs when the wish makes no sense.
struct CatalogRuns {
    std::vector<ToolArguments> Runs;
    std::string Fault;
};
CatalogRuns RunsFor(const CatalogWish& wish);

/// How far a run is.
struct ToolProgress {
    std::string Task;            ///< "Reading d50"
    std::optional<int> Percent;  ///< 0..100
    std::string Count;           ///< of what is done, "1,871,011"
};

/// Reads a line that a run wrote to standard error; nothing when it is a message.
std::optional<ToolProgress> ReadProgress(std::string_view line);

/// How all ended, from the exit code of the last run that was made.
/// @param catalogIsNew a run before it has replaced the catalog
std::string EndOfRunsText(int exitCode, bool stopped, bool catalogIsNew);

}  // namespace vestrel
