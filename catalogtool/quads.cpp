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
#include "platform/libPlatform.h"

namespace vestrel {

namespace {

std::vector<CatalogStar> ReadAllStars(const std::filesystem::path& folder, ProgressLine& progress) {
    std::vector<CatalogStar> all;
    std::vector<CatalogStar> cell;
    const std::vector<CellPosition>& cells = AllCells();
    for (std::size_t i = 0; i < cells.size(); ++i) {
        progress.Show("Reading cells", i, cells.size(), all.size());
        const std::filesystem::path file = folder / CellName(cells[i]);
        std::error_code ignored;
        if (!ReadCellFile(file, cell) && std::filesystem::exists(file, ignored)) {
            throw ToolFailure(ExitBadInput, TextFromPath(file) + ": cannot be read");
        }
        for (const CatalogStar& star : cell) {
            if (IsStoredPosition(star.Ra, star.Dec)) all.push_back(star);
        }
    }
    if (all.empty()) {
        throw ToolFailure(ExitBadInput, TextFromPath(folder) + ": the catalog has no stars");
    }
    return all;
}

void MakeTables(const std::filesystem::path& folder) {
    ProgressLine progress(stderr);
    const QuadSky sky = MakeQuadSky(ReadAllStars(folder, progress));
    const std::filesystem::path path = folder / QuadFileName;
    const std::vector<QuadPlan>& plans = QuadPlans();
    std::uint64_t quads = 0;
    try {
        QuadFileWriter writer(path, static_cast<std::uint32_t>(plans.size()));
        for (const QuadPlan& plan : plans) {
            const QuadTables tables = BuildQuadTables(sky, plan, [&](int done, int total) {
                progress.Show("Fields of " + RoundedText(plan.SmallestDiagonal, 2) + " to " +
                                  RoundedText(plan.LargestDiagonal, 2) + " degrees",
                              static_cast<std::uint64_t>(done), static_cast<std::uint64_t>(total),
                              quads);
            });
            writer.Add(plan.SmallestDiagonal * Pi / 180, plan.LargestDiagonal * Pi / 180, tables);
            quads += static_cast<std::uint64_t>(tables.QuadCount);
        }
        ThrowIfStopped();
        writer.Commit();
        progress.Clear();
        for (const QuadBand& band : writer.Bands()) {
            std::printf("fields of %5s to %5s degrees across: %11s quads of %10s stars\n",
                        RoundedText(band.SmallestDiagonal * 180 / Pi, 2).c_str(),
                        RoundedText(band.LargestDiagonal * 180 / Pi, 2).c_str(),
                        GroupedText(band.QuadCount).c_str(), GroupedText(band.StarCount).c_str());
        }
    } catch (const std::system_error& error) {
        throw ToolFailure(ExitCannotWrite, error.what());
    }
    std::printf("%s quads in %s\n", GroupedText(quads).c_str(), TextFromPath(path).c_str());
}

}  // namespace

void AddQuadsCommand(CLI::App& program, int& exitCode) {
    CLI::App& command = *program.add_subcommand(
        "quads",
        "Make the quad tables of the catalog, for solving without a starting centre; the old ones "
        "stay until the new ones are complete");
    const auto folder = std::make_shared<std::string>();
    AddCatalogOption(command, *folder);
    command.callback([folder, &exitCode] {
        MakeTables(ExistingCatalog(*folder));
        exitCode = ExitGood;
    });
}

}  // namespace vestrel
