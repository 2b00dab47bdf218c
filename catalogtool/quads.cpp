// vestrel-catalog quads: makes the tables for solving without a starting centre.
#include <CLI/App.hpp>
#include <cstdio>
#include <memory>
#include <system_error>

#include "astro/libMath.h"
#include "astro/libStrings.h"
#include "catalog/libCellGrid.h"
#include "catalogtool/commands.h"
#include "catalogtool/libQuadBuilder.h"
#include "catalogtool/libToolReport.h"
#include "matching/libQuadFile.h"
#include "platform/libConsole.h"
#include "platform/libPlatform.h"

namespace vestrel {

namespace {

QuadSky ReadSky(const std::filesystem::path& folder, const std::vector<QuadPlan>& plans,
                ProgressLine& progress) {
    QuadSky sky(plans);
    std::vector<CatalogStar> cell;
    const std::vector<CellPosition>& cells = AllCells();
    for (std::size_t i = 0; i < cells.size(); ++i) {
        progress.Show("Reading cells", i, cells.size(), sky.Stars().size());
        const std::filesystem::path file = folder / CellName(cells[i]);
        std::error_code ignored;
        if (!ReadCellFile(file, cell) && std::filesystem::exists(file, ignored)) {
            throw ToolFailure(ToolExit::BadInput, TextFromPath(file) + ": cannot be read");
        }
        std::erase_if(cell,
                      [](const CatalogStar& star) { return !IsStoredPosition(star.Ra, star.Dec); });
        sky.Add(cell);
    }
    if (sky.Stars().empty()) {
        throw ToolFailure(ToolExit::BadInput, TextFromPath(folder) + ": the catalog has no stars");
    }
    sky.Finish();
    return sky;
}

struct QuadOptions {
    std::string Catalog;
    double From = UsualSmallestField;  ///< degrees
    double To = UsualLargestField;
    ProgressStyle Progress = ProgressStyle::Terminal;
};

void MakeTables(const QuadOptions& options) {
    const std::filesystem::path folder = ExistingCatalog(options.Catalog);
    const std::vector<QuadPlan> plans = PlansFor(options.From, options.To);
    if (plans.empty()) {
        throw ToolFailure(ToolExit::WrongUsage,
                          "--from must be less than --to, and both in the range for which there "
                          "are quads: fields of " +
                              NumberText(QuadPlans().front().SmallestDiagonal) + " to " +
                              NumberText(QuadPlans().back().LargestDiagonal) + " degrees across");
    }
    ProgressLine progress(stderr, options.Progress);
    const QuadSky sky = ReadSky(folder, plans, progress);
    const std::filesystem::path path = folder / QuadFileName;
    std::filesystem::path overflow = path;
    overflow += ".overflow";
    std::uint64_t quads = 0;
    try {
        QuadFileWriter writer(path, static_cast<std::uint32_t>(plans.size()));
        for (const QuadPlan& plan : plans) {
            const std::string fields = "ields of " + RoundedText(plan.SmallestDiagonal, 2) +
                                       " to " + RoundedText(plan.LargestDiagonal, 2) + " degrees";
            writer.Add(plan.SmallestDiagonal * Pi / 180, plan.LargestDiagonal * Pi / 180,
                       BuildQuads(sky, plan, overflow, [&](int done, int total) {
                           progress.Show("F" + fields, static_cast<std::uint64_t>(done),
                                         static_cast<std::uint64_t>(total), quads);
                       }));
            const QuadBand& band = writer.Bands().back();
            quads += band.QuadCount;
            progress.Clear();
            std::printf("f%s across: %s quads of %s stars, %s MB\n", fields.c_str(),
                        GroupedText(band.QuadCount).c_str(), GroupedText(band.StarCount).c_str(),
                        GroupedText((band.Part.Stored() + 500'000) / 1'000'000).c_str());
        }
        ThrowIfStopped();
        writer.Commit();
    } catch (const std::system_error& error) {
        throw ToolFailure(ToolExit::CannotWrite, error.what());
    }
    std::printf("%s quads in %s\n", GroupedText(quads).c_str(),
                WithoutControls(TextFromPath(path)).c_str());
}

}  // namespace

void AddQuadsCommand(CLI::App& program, ToolExit& exitCode) {
    CLI::App& command = *program.add_subcommand(
        "quads",
        "Make the quad tables of the catalog, for solving without a starting centre; the old ones "
        "stay until the new ones are complete");
    const auto options = std::make_shared<QuadOptions>();
    AddCatalogOption(command, options->Catalog);
    command
        .add_option(
            "--from", options->From,
            "Diagonal of the smallest fields, degrees, 0.2 or more. Fields below 0.9 need a "
            "catalog deeper than Tycho-2")
        ->check(CheckFinite)
        ->type_name("DEGREES")
        ->capture_default_str();
    command.add_option("--to", options->To, "Diagonal of the largest fields, degrees, 30 or less")
        ->check(CheckFinite)
        ->type_name("DEGREES")
        ->capture_default_str();
    AddProgressOption(command, options->Progress);
    command.callback([options, &exitCode] {
        MakeTables(*options);
        exitCode = ToolExit::Good;
    });
}

}  // namespace vestrel
