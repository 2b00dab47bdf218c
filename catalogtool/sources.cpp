// vestrel-catalog sources: what other programs have installed that a catalog can be made from.
#include <CLI/App.hpp>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "catalogtool/commands.h"
#include "catalogtool/libSources.h"
#include "catalogtool/libToolReport.h"
#include "platform/libPlatform.h"

namespace vestrel {

namespace {

/// A text as one word of a shell's command line.
std::string Quoted(const std::string& text) {
    constexpr const char* plain =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-+=.,:/@%";
    if (text.find_first_not_of(plain) == std::string::npos) return text;
    std::string quoted = "'";
    for (const char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

void Print(const CatalogSources& found) {
    for (const AstapSource& source : found.Astap) {
        std::printf(
            "%s: star database of ASTAP, %s files, %s MB\n    vestrel-catalog build --astap %s\n",
            TextFromPath(source.Place).c_str(), GroupedText(source.Files).c_str(),
            GroupedText(source.Bytes / 1'000'000).c_str(),
            Quoted(TextFromPath(source.Place)).c_str());
    }
    for (const IndexSource& source : found.Indexes) {
        std::printf(
            "%s: %s index files of Astrometry.net, %s MB\n    vestrel-catalog build --index",
            TextFromPath(source.Folder).c_str(), GroupedText(source.Files.size()).c_str(),
            GroupedText(source.Bytes / 1'000'000).c_str());
        for (const auto& file : source.Files)
            std::printf(" %s", Quoted(TextFromPath(file)).c_str());
        std::printf("\n");
    }
    if (found.Astap.empty() && found.Indexes.empty()) {
        std::printf("nothing that a catalog can be made from was found in\n");
        for (const auto& folder : found.LookedIn) {
            std::printf("    %s\n", TextFromPath(folder).c_str());
        }
    }
}

}  // namespace

void AddSourcesCommand(CLI::App& program, ToolExit& exitCode) {
    CLI::App& command = *program.add_subcommand(
        "sources", "List what other programs have installed that a catalog can be made from");
    const auto folders = std::make_shared<std::vector<std::string>>();
    command.add_option("FOLDER", *folders, "Look in these folders instead of those that are usual");
    command.callback([folders, &exitCode] {
        std::vector<std::filesystem::path> places;
        for (const std::string& folder : *folders) places.push_back(PathFromText(folder));
        Print(FindCatalogSources(places.empty() ? UsualSourceFolders() : places));
        exitCode = ToolExit::Good;
    });
}

}  // namespace vestrel
