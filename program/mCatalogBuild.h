// Building a catalog from a window: the command lines of vestrel-catalog and its answers.
//
// vestrel-catalog runs as a separate process, so that neither a failure nor closing the window
// harms a catalog: a build is complete or absent.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "matching/libQuadFile.h"

namespace vestrel {

/// A source from which a catalog can be made.
struct CatalogSourceChoice {
    std::string Text;                       ///< for the user
    std::vector<std::string> BuildOptions;  ///< the options of `vestrel-catalog build` that use it
};

/// The arguments after the program's name.
using ToolArguments = std::vector<std::string>;

/// The arguments that list the sources in the usual places, or in a folder.
ToolArguments SourcesQuestion(const std::string& folder = {});

/// Parses the answer (JSON); empty when it is not valid.
std::optional<std::vector<CatalogSourceChoice>> ReadSources(const std::string& text);

/// The source for a table that the user has chosen.
CatalogSourceChoice SourceOfTable(const std::string& path);

/// What the user wants to build.
struct CatalogWish {
    std::string Folder;
    std::vector<CatalogSourceChoice> Sources;  ///< empty: the catalog stays, only the tables are
                                               ///< made
    std::string FaintestMagnitude;             ///< empty: all stars
    bool Tables = true;
    double SmallestField = UsualSmallestField;  ///< diagonal of the fields that the tables are for,
                                                ///< degrees
    double LargestField = UsualLargestField;
};

/// The runs that are needed, one after another; a `Fault` and no runs when the inputs are not
/// valid.
struct CatalogRuns {
    std::vector<ToolArguments> Runs;
    std::string Fault;
};
CatalogRuns RunsFor(const CatalogWish& wish);

/// The progress of a run.
struct ToolProgress {
    std::string Task;            ///< "Reading d50"
    std::optional<int> Percent;  ///< 0..100
    std::string Count;           ///< processed items, "1,871,011"
};

/// Parses a line that a run wrote to standard error; empty when it is a message.
std::optional<ToolProgress> ReadProgress(std::string_view line);

/// The outcome in words, from the exit code of the last run.
/// @param catalogIsNew an earlier run has replaced the catalog
std::string EndOfRunsText(int exitCode, bool stopped, bool catalogIsNew);

}  // namespace vestrel
