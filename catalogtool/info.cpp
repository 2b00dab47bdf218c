// vestrel-catalog info: shows what a catalog holds and where it is from.
#include <CLI/App.hpp>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <utility>

#include "astro/libMath.h"
#include "astro/libStrings.h"
#include "catalog/libCellGrid.h"
#include "catalogtool/commands.h"
#include "catalogtool/libCatalogSurvey.h"
#include "matching/libQuadFile.h"
#include "platform/libConsole.h"
#include "platform/libPlatform.h"

namespace vestrel {

namespace {

using nlohmann::json;

struct CatalogFacts {
    std::filesystem::path Folder;
    ManifestState State = ManifestState::Absent;
    CatalogManifest Manifest;
    CatalogSurvey Survey;
    std::vector<MagnitudeCounts::Step> Steps;
    double FaintLimit = 0;        ///< magnitude where the counts stop growing
    std::vector<QuadBand> Bands;  ///< of the quad tables; none when there are no tables
    std::string QuadFault;        ///< why the quad tables cannot be used
};

CatalogFacts GatherFacts(const std::filesystem::path& folder) {
    CatalogFacts facts;
    facts.Folder = folder;
    facts.State = ReadManifest(folder, facts.Manifest);
    ProgressLine progress(stderr);
    const bool known = facts.State == ManifestState::Good;
    facts.Survey = SurveyCatalog(folder, known ? &facts.Manifest : nullptr, progress);
    facts.Steps = facts.Survey.Magnitudes.Steps();
    const auto peak =
        std::max_element(facts.Steps.begin(), facts.Steps.end(),
                         [](const auto& a, const auto& b) { return a.Stars < b.Stars; });
    // Star counts grow with magnitude; where those of a survey stop growing, it misses stars.
    if (peak != facts.Steps.end()) facts.FaintLimit = peak->From + 0.5;
    const FileHandle quads = OpenQuadFile(folder / QuadFileName);
    if (quads) ReadQuadBands(quads.get(), facts.Bands, facts.QuadFault);
    return facts;
}

std::uint64_t QuadCount(const CatalogFacts& facts) {
    std::uint64_t quads = 0;
    for (const QuadBand& band : facts.Bands) quads += band.QuadCount;
    return quads;
}

std::string DegreesText(double radians) {
    return RoundedText(radians * 180 / Pi, 2);
}

/// Cells without stars, with runs along right ascension combined: "N35R00", "S10R03-R07".
std::vector<std::string> Gaps(const CatalogSurvey& survey) {
    std::vector<std::string> cells = survey.EmptyCells;
    cells.insert(cells.end(), survey.MissingCells.begin(), survey.MissingCells.end());
    std::sort(cells.begin(), cells.end());
    const auto zone = [](const std::string& name) { return name.substr(0, 3); };
    const auto slice = [](const std::string& name) {
        return (name[4] - '0') * 10 + (name[5] - '0');
    };
    std::vector<std::string> gaps;
    for (std::size_t first = 0; first < cells.size();) {
        std::size_t next = first + 1;
        while (next < cells.size() && zone(cells[next]) == zone(cells[first]) &&
               slice(cells[next]) == slice(cells[next - 1]) + 1) {
            ++next;
        }
        gaps.push_back(cells[first]);
        if (next - first > 1) gaps.back() += "-" + cells[next - 1].substr(3);
        first = next;
    }
    return gaps;
}

/// The smallest field (degrees) that can be solved in a given share of an area of the sky; infinite
/// when none can.
double FieldForShare(const std::vector<std::pair<double, double>>& fieldsAndAreas, double share) {
    std::vector<std::pair<double, double>> sorted = fieldsAndAreas;
    std::sort(sorted.begin(), sorted.end());
    double whole = 0;
    for (const auto& [field, area] : sorted) whole += area;
    double sum = 0;
    for (const auto& [field, area] : sorted) {
        sum += area;
        if (sum >= share * whole * (1 - 1e-9)) return field;
    }
    return std::numeric_limits<double>::infinity();
}

constexpr std::size_t partsInDec = 6;  // of 30° each
constexpr std::size_t partsInRa = 6;   // of 4 h each

/// The smallest field that can be solved in nine tenths of each part of the sky. Parts are ordered
/// from north to south, and within a zone from right ascension 0 on.
std::vector<double> FieldsByPart(const CatalogSurvey& survey) {
    std::vector<std::vector<std::pair<double, double>>> parts(partsInDec * partsInRa);
    for (std::size_t i = 0; i < AllCells().size(); ++i) {
        const CellPosition& cell = AllCells()[i];
        const double dec = (cell.South ? -1 : 1) * 2.5 * (cell.Zone + 0.5);
        const double ra = (static_cast<double>(cell.Slice) + 0.5) * SliceWidth(cell.Zone);
        const auto band = static_cast<std::size_t>((90 - dec) / 30);
        const std::size_t part = band * partsInRa + static_cast<std::size_t>(ra / 60) % partsInRa;
        parts[part].emplace_back(survey.SmallestFields[i], CellAreaFraction(cell));
    }
    std::vector<double> fields;
    fields.reserve(parts.size());
    for (const auto& part : parts) fields.push_back(FieldForShare(part, 0.9));
    return fields;
}

/// Degrees, or "-" when no field can be solved.
std::string FieldText(double degrees) {
    return std::isfinite(degrees) ? RoundedText(degrees, 2) : "-";
}

void PrintFields(const CatalogSurvey& survey) {
    std::vector<std::pair<double, double>> sky;
    for (std::size_t i = 0; i < AllCells().size(); ++i) {
        sky.emplace_back(survey.SmallestFields[i], CellAreaFraction(AllCells()[i]));
    }
    std::printf(
        "Fields:     %s degrees across or more in a tenth of the sky, %s in half, %s in nine "
        "tenths,\n            where they have %s stars or more to be solved with\n",
        FieldText(FieldForShare(sky, 0.1)).c_str(), FieldText(FieldForShare(sky, 0.5)).c_str(),
        FieldText(FieldForShare(sky, 0.9)).c_str(), NumberText(StarsToSolveWith).c_str());
    std::printf("\n  Declination    RA 0-4h   4-8h  8-12h 12-16h 16-20h 20-24h   degrees across\n");
    const std::vector<double> fields = FieldsByPart(survey);
    for (std::size_t band = 0; band < partsInDec; ++band) {
        const int north = 90 - 30 * static_cast<int>(band);
        std::printf("  %+3d to %+3d   ", north, north - 30);
        for (std::size_t part = 0; part < partsInRa; ++part) {
            std::printf("%7s", FieldText(fields[band * partsInRa + part]).c_str());
        }
        std::printf("\n");
    }
}

/// Says whether the catalog has the brightest stars, as far as is known.
std::string BrightStatement(const CatalogFacts& facts) {
    if (facts.State != ManifestState::Good) return "unknown: there is no record of the build";
    std::string statement;
    for (const CatalogSource& source : facts.Manifest.Sources) {
        if (source.Kind != "bright" && source.Kind != "kstars") continue;
        if (!statement.empty()) statement += "; ";
        statement +=
            GroupedText(source.Used) + " that no other source has were added from " + source.File;
    }
    return statement.empty() ? "lacking: build with --kstars FOLDER or --bright FILE to add them"
                             : statement;
}

void PrintJson(const CatalogFacts& facts) {
    const CatalogSurvey& survey = facts.Survey;
    json document = {{"folder", TextFromPath(facts.Folder)},
                     {"manifest", facts.State == ManifestState::Good     ? "good"
                                  : facts.State == ManifestState::Absent ? "absent"
                                                                         : "unreadable"},
                     {"stars", survey.Stars},
                     {"cells",
                      {{"grid", AllCells().size()},
                       {"withStars", survey.CellsWithStars},
                       {"empty", survey.EmptyCells.size()},
                       {"missing", survey.MissingCells.size()}}},
                     {"coverage", survey.Coverage},
                     {"gaps", Gaps(survey)},
                     {"magnitudes", json::array()},
                     {"brightGapFilled", facts.Manifest.BrightGapFilled},
                     {"quadTables", json::array()},
                     {"quadTablesFault", facts.QuadFault},
                     {"smallestFields", json::array()},
                     {"holes", json::array()},
                     {"faults", survey.FaultCount}};
    const std::vector<double> fields = FieldsByPart(survey);
    for (std::size_t i = 0; i < fields.size(); ++i) {
        const auto band = static_cast<int>(i / partsInRa);
        const auto part = static_cast<int>(i % partsInRa);
        document["smallestFields"].push_back(
            {{"decDegrees", {60 - 30 * band, 90 - 30 * band}},
             {"raHours", {4 * part, 4 * part + 4}},
             {"degrees", std::isfinite(fields[i]) ? json(fields[i]) : json()}});
    }
    for (const CatalogHole& hole : survey.Holes) {
        document["holes"].push_back(CellName(AllCells()[hole.Cell]));
    }
    for (const QuadBand& band : facts.Bands) {
        document["quadTables"].push_back({{"fromDegrees", band.SmallestDiagonal * 180 / Pi},
                                          {"toDegrees", band.LargestDiagonal * 180 / Pi},
                                          {"quads", band.QuadCount},
                                          {"stars", band.StarCount}});
    }
    for (const auto& step : facts.Steps) {
        document["magnitudes"].push_back(
            {{"from", step.From}, {"stars", step.Stars}, {"total", step.Total}});
    }
    if (!facts.Steps.empty()) document["completeTo"] = facts.FaintLimit;
    if (facts.State == ManifestState::Good) {
        document["tool"] = facts.Manifest.Tool;
        document["created"] = facts.Manifest.Created;
        if (facts.Manifest.Epoch) document["epoch"] = *facts.Manifest.Epoch;
        document["filters"] = facts.Manifest.Filters;
        document["remarks"] = facts.Manifest.Remarks;
        for (const CatalogSource& source : facts.Manifest.Sources) {
            document["sources"].push_back(SourceJson(source));
        }
    }
    const std::string text = document.dump(2, ' ', false, json::error_handler_t::replace);
    std::printf("%s\n", WithEscapedControls(text).c_str());
}

void PrintSources(const CatalogManifest& manifest) {
    std::printf("Built:      %s by %s\n", WithoutControls(manifest.Created).c_str(),
                WithoutControls(manifest.Tool).c_str());
    for (const CatalogSource& source : manifest.Sources) {
        std::printf("Source:     %s (%s%s%s), %s of %s rows used\n",
                    WithoutControls(source.File).c_str(), WithoutControls(source.Kind).c_str(),
                    source.Modified.empty() ? "" : ", of ",
                    WithoutControls(source.Modified).c_str(), GroupedText(source.Used).c_str(),
                    GroupedText(source.Rows).c_str());
        if (source.Moved > 0) {
            std::printf("            moved to the epoch: %s\n", GroupedText(source.Moved).c_str());
        }
        for (const auto& [reason, rows] : source.LeftOut) {
            std::printf("            %s: %s\n", WithoutControls(reason).c_str(),
                        GroupedText(rows).c_str());
        }
    }
    std::printf("Epoch:      %s\n",
                manifest.Epoch
                    ? (NumberText(*manifest.Epoch) + ", of the stars with proper motions").c_str()
                    : "as in the sources: no proper motion was applied");
    for (const std::string& filter : manifest.Filters) {
        std::printf("Filter:     %s\n", WithoutControls(filter).c_str());
    }
    for (const std::string& remark : manifest.Remarks) {
        std::printf("Remark:     %s\n", WithoutControls(remark).c_str());
    }
}

void PrintText(const CatalogFacts& facts) {
    const CatalogSurvey& survey = facts.Survey;
    std::printf("Catalog:    %s\n", WithoutControls(TextFromPath(facts.Folder)).c_str());
    if (facts.State == ManifestState::Good) {
        PrintSources(facts.Manifest);
    } else {
        std::printf("Built:      unknown, %s is %s\n", ManifestName,
                    facts.State == ManifestState::Absent ? "absent" : "damaged");
    }
    std::printf("Bright end: %s\n", WithoutControls(BrightStatement(facts)).c_str());
    std::printf("Stars:      %s\n", GroupedText(survey.Stars).c_str());
    std::printf("Cells:      %zu with stars, %zu empty, %zu missing, of %zu\n",
                survey.CellsWithStars, survey.EmptyCells.size(), survey.MissingCells.size(),
                AllCells().size());
    std::printf("Coverage:   %s %% of the sky\n", RoundedText(100 * survey.Coverage, 2).c_str());
    if (facts.Bands.empty()) {
        const std::string what =
            facts.QuadFault.empty() ? "none" : std::string(QuadFileName) + " " + facts.QuadFault;
        std::printf("Quads:      %s; \"vestrel-catalog quads\" makes them\n",
                    WithoutControls(what).c_str());
    } else {
        std::printf("Quads:      %s, for fields of %s to %s degrees across\n",
                    GroupedText(QuadCount(facts)).c_str(),
                    DegreesText(facts.Bands.front().SmallestDiagonal).c_str(),
                    DegreesText(facts.Bands.back().LargestDiagonal).c_str());
    }
    const std::vector<std::string> gaps = Gaps(survey);
    if (!gaps.empty()) {
        constexpr std::size_t shown = 10;
        std::string list;
        for (std::size_t i = 0; i < std::min(gaps.size(), shown); ++i) list += " " + gaps[i];
        if (gaps.size() > shown) list += " and " + GroupedText(gaps.size() - shown) + " more";
        std::printf("Gaps:      %s\n", list.c_str());
    }
    if (!facts.Steps.empty()) {
        std::printf("Depth:      about complete to magnitude %s, where the counts peak\n",
                    NumberText(facts.FaintLimit).c_str());
        PrintFields(survey);
        std::printf("\n  Magnitude            Stars       So far\n");
    }
    for (const auto& step : facts.Steps) {
        std::printf("%5s to %5s %16s %12s\n", NumberText(step.From).c_str(),
                    NumberText(step.From + 0.5).c_str(), GroupedText(step.Stars).c_str(),
                    GroupedText(step.Total).c_str());
    }
    if (survey.FaultCount > 0) {
        std::printf("\n%s faults; \"vestrel-catalog verify\" names them\n",
                    GroupedText(survey.FaultCount).c_str());
    }
}

}  // namespace

void AddInfoCommand(CLI::App& program, ToolExit& exitCode) {
    CLI::App& command = *program.add_subcommand(
        "info", "Describe the catalog: sources, stars, depth, sky coverage and gaps");
    const auto folder = std::make_shared<std::string>();
    const auto asJson = std::make_shared<bool>(false);
    AddCatalogOption(command, *folder);
    command.add_flag("--json", *asJson, "Describe it as JSON, for other programs");
    command.callback([folder, asJson, &exitCode] {
        const CatalogFacts facts = GatherFacts(ExistingCatalog(*folder));
        *asJson ? PrintJson(facts) : PrintText(facts);
        exitCode = ToolExit::Good;
    });
}

}  // namespace vestrel
