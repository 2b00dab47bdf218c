#include "program/mCatalogBuild.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>

#include "astro/libStrings.h"
#include "display/libReadout.h"
#include "platform/libConsole.h"

namespace vestrel {

namespace {

using nlohmann::json;

/// Combines the options of several sources into one command line; options with a list occur once.
ToolArguments MergedOptions(const std::vector<CatalogSourceChoice>& sources) {
    std::map<std::string, ToolArguments> values;
    std::vector<std::string> order;
    for (const CatalogSourceChoice& source : sources) {
        if (source.BuildOptions.empty()) continue;
        const std::string& option = source.BuildOptions.front();
        if (values.find(option) == values.end()) order.push_back(option);
        ToolArguments& all = values[option];
        for (std::size_t i = 1; i < source.BuildOptions.size(); ++i) {
            const std::string& value = source.BuildOptions[i];
            if (std::find(all.begin(), all.end(), value) == all.end()) all.push_back(value);
        }
    }
    ToolArguments merged;
    for (const std::string& option : order) {
        for (const std::string& value : values[option]) {
            merged.push_back(option);
            merged.push_back(value);
        }
    }
    return merged;
}

std::string Grouped(std::uint64_t number) {
    std::string text = std::to_string(number);
    for (auto at = static_cast<std::ptrdiff_t>(text.size()) - 3; at > 0; at -= 3) {
        text.insert(static_cast<std::size_t>(at), 1, ',');
    }
    return text;
}

}  // namespace

ToolArguments SourcesQuestion(const std::string& folder) {
    ToolArguments arguments = {"sources", "--json"};
    if (!folder.empty()) arguments.push_back(folder);
    return arguments;
}

std::optional<std::vector<CatalogSourceChoice>> ReadSources(const std::string& text) {
    const json document = json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (!document.is_object() || !document.contains("sources") || !document["sources"].is_array()) {
        return std::nullopt;
    }
    std::vector<CatalogSourceChoice> choices;
    for (const json& source : document["sources"]) {
        CatalogSourceChoice choice;
        if (!source.is_object() || !source.contains("text") || !source["text"].is_string() ||
            !source.contains("buildOptions") || !source["buildOptions"].is_array()) {
            return std::nullopt;
        }
        choice.Text = source["text"].get<std::string>();
        for (const json& option : source["buildOptions"]) {
            if (!option.is_string()) return std::nullopt;
            choice.BuildOptions.push_back(option.get<std::string>());
        }
        choices.push_back(std::move(choice));
    }
    return choices;
}

CatalogSourceChoice SourceOfTable(const std::string& path) {
    return {path + ": table", {"--csv", path}};
}

CatalogRuns RunsFor(const CatalogWish& wish) {
    CatalogRuns runs;
    const auto fail = [](const char* why) { return CatalogRuns{{}, why}; };
    if (wish.Sources.empty() && !wish.Tables) return fail("Choose a source, or tables to make.");
    if (wish.Folder.empty()) return fail("Name the folder of the catalog in the settings.");
    if (!wish.Sources.empty()) {
        ToolArguments build = {"build", "--progress-json", "--catalog", wish.Folder};
        const ToolArguments sources = MergedOptions(wish.Sources);
        build.insert(build.end(), sources.begin(), sources.end());
        const std::string faintest(Trim(wish.FaintestMagnitude));
        if (!faintest.empty()) {
            constexpr const char* digits = "0123456789.";
            if (faintest.find_first_not_of(digits) != std::string::npos || faintest.size() > 5 ||
                std::count(faintest.begin(), faintest.end(), '.') > 1 || faintest == ".") {
                return fail("The faintest magnitude is a number like 16.5, or empty.");
            }
            build.insert(build.end(), {"--mag-max", faintest});
        }
        runs.Runs.push_back(build);
    }
    if (wish.Tables) {
        if (!(wish.SmallestField < wish.LargestField)) {
            return fail("The fields of the tables must grow from left to right.");
        }
        runs.Runs.push_back({"quads", "--progress-json", "--catalog", wish.Folder, "--from",
                             FixedText(wish.SmallestField, 2), "--to",
                             FixedText(wish.LargestField, 2)});
    }
    return runs;
}

std::optional<ToolProgress> ReadProgress(std::string_view line) {
    if (!line.starts_with('{')) return std::nullopt;
    const json document = json::parse(line, nullptr, /*allow_exceptions=*/false);
    if (!document.is_object() || !document.contains("task") || !document["task"].is_string()) {
        return std::nullopt;
    }
    ToolProgress progress;
    progress.Task = WithoutControls(document["task"].get<std::string>());
    if (document.contains("percent") && document["percent"].is_number_integer()) {
        progress.Percent = static_cast<int>(
            std::clamp<std::int64_t>(document["percent"].get<std::int64_t>(), 0, 100));
    }
    if (document.contains("count") && document["count"].is_number_unsigned()) {
        progress.Count = Grouped(document["count"].get<std::uint64_t>());
    }
    return progress;
}

std::string EndOfRunsText(int exitCode, bool stopped, bool catalogIsNew) {
    constexpr int badInput = 3;
    constexpr int cannotWrite = 4;
    std::string text = "Failed";
    if (stopped) {
        text = "Stopped";
    } else if (exitCode == 0) {
        return "Done";
    } else if (exitCode == badInput) {
        text = "Failed: something to be read is missing or damaged";
    } else if (exitCode == cannotWrite) {
        text = "Failed: it cannot be written";
    }
    return text + (catalogIsNew ? ". The catalog is new, without tables"
                                : ". The catalog is as it was before");
}

}  // namespace vestrel
