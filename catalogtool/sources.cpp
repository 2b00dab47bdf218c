// vestrel-catalog sources: lists catalogs of other programs from which a catalog can be made.
#include <CLI/App.hpp>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "astro/libStrings.h"
#include "catalogtool/commands.h"
#include "catalogtool/libSources.h"
#include "catalogtool/libToolReport.h"
#include "platform/libConsole.h"
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

/// Describes a source in words, with the options of `build` that use it.
struct SourceEntry {
    std::string Text;
    std::vector<std::string> Options;
};

std::vector<SourceEntry> EntriesOf(const CatalogSources& found) {
    const auto words = [](const std::filesystem::path& place, const std::string& what,
                          std::size_t files, std::uint64_t bytes) {
        return TextFromPath(place) + ": " + what + ", " + GroupedText(files) + " files, " +
               GroupedText((bytes + 500'000) / 1'000'000) + " MB";
    };
    std::vector<SourceEntry> entries;
    for (const AstapSource& source : found.Astap) {
        entries.push_back(
            {words(source.Place, "star database of ASTAP", source.Files, source.Bytes),
             {"--astap", TextFromPath(source.Place)}});
    }
    for (const IndexSource& source : found.Indexes) {
        entries.push_back({words(source.Folder, "index files of Astrometry.net",
                                 source.Files.size(), source.Bytes),
                           {"--index"}});
        for (const auto& file : source.Files) entries.back().Options.push_back(TextFromPath(file));
    }
    for (const KStarsSource& source : found.KStars) {
        entries.push_back({words(source.Folder, "stars of KStars", source.Files, source.Bytes),
                           {"--kstars", TextFromPath(source.Folder)}});
    }
    return entries;
}

void Print(const CatalogSources& found) {
    const std::vector<SourceEntry> entries = EntriesOf(found);
    for (const SourceEntry& entry : entries) {
        std::printf("%s\n    vestrel-catalog build", WithoutControls(entry.Text).c_str());
        for (const std::string& option : entry.Options) std::printf(" %s", Quoted(option).c_str());
        std::printf("\n");
    }
    if (!entries.empty()) return;
    std::printf("nothing that a catalog can be made from was found in\n");
    for (const auto& folder : found.LookedIn) {
        std::printf("    %s\n", TextFromPath(folder).c_str());
    }
}

void PrintJson(const CatalogSources& found) {
    nlohmann::ordered_json document = {{"sources", nlohmann::json::array()},
                                       {"lookedIn", nlohmann::json::array()}};
    for (const SourceEntry& entry : EntriesOf(found)) {
        document["sources"].push_back({{"text", entry.Text}, {"buildOptions", entry.Options}});
    }
    for (const auto& folder : found.LookedIn) {
        document["lookedIn"].push_back(TextFromPath(folder));
    }
    const std::string text = document.dump(2, ' ', false, nlohmann::json::error_handler_t::replace);
    std::printf("%s\n", WithEscapedControls(text).c_str());
}

}  // namespace

void AddSourcesCommand(CLI::App& program, ToolExit& exitCode) {
    CLI::App& command = *program.add_subcommand(
        "sources", "List what other programs have installed that a catalog can be made from");
    const auto folders = std::make_shared<std::vector<std::string>>();
    const auto asJson = std::make_shared<bool>(false);
    command.add_option("FOLDER", *folders, "Look in these folders instead of those that are usual");
    command.add_flag("--json", *asJson, "List them as JSON, for other programs");
    command.callback([folders, asJson, &exitCode] {
        std::vector<std::filesystem::path> places;
        for (const std::string& folder : *folders) places.push_back(PathFromText(folder));
        const CatalogSources found =
            FindCatalogSources(places.empty() ? UsualSourceFolders() : places);
        *asJson ? PrintJson(found) : Print(found);
        exitCode = ToolExit::Good;
    });
}

}  // namespace vestrel
