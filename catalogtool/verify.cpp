// vestrel-catalog verify: checks a catalog against its manifest and itself.
#include <CLI/App.hpp>
#include <cstdio>
#include <memory>

#include "astro/libStrings.h"
#include "catalog/libCellGrid.h"
#include "catalogtool/commands.h"
#include "catalogtool/libCatalogSurvey.h"
#include "matching/libQuadFile.h"
#include "platform/libConsole.h"
#include "platform/libPlatform.h"

namespace vestrel {

namespace {

ToolExit Verify(const std::filesystem::path& folder) {
    CatalogManifest manifest;
    const ManifestState state = ReadManifest(folder, manifest);
    const bool hasManifest = state == ManifestState::Good;
    ProgressLine progress(stderr);
    CatalogSurvey survey = SurveyCatalog(folder, hasManifest ? &manifest : nullptr, progress);
    progress.Clear();

    const auto addFault = [&](const std::string& fault) {
        ++survey.FaultCount;
        survey.Faults.insert(survey.Faults.begin(), fault);
    };
    if (survey.Stars == 0) addFault("there is not one star");
    if (state == ManifestState::Unreadable) {
        addFault(std::string(ManifestName) + " is damaged or of another version");
    }

    const std::string quadFault = FaultOfQuadFile(folder / QuadFileName);
    if (!quadFault.empty()) addFault(std::string(QuadFileName) + " " + quadFault);

    // Holes are named first, because there may be many other faults.
    for (const CatalogHole& hole : survey.Holes) {
        addFault(CellName(AllCells()[hole.Cell]) + " is a hole: " + GroupedText(hole.Stars) +
                 " stars where its neighbours make one expect " +
                 GroupedText(static_cast<std::uint64_t>(hole.Expected)));
    }

    for (const std::string& stray : survey.Strays) {
        std::fprintf(stderr, "note: %s is no part of the catalog\n",
                     WithoutControls(stray).c_str());
    }
    if (state == ManifestState::Absent) {
        std::fprintf(stderr,
                     "note: there is no %s, so only the cells themselves were checked; %zu cells "
                     "have no file\n",
                     ManifestName, survey.MissingCells.size());
    }
    for (const std::string& fault : survey.Faults)
        std::printf("%s\n", WithoutControls(fault).c_str());
    if (survey.FaultCount > survey.Faults.size()) {
        std::printf("... and %s more\n",
                    GroupedText(survey.FaultCount - survey.Faults.size()).c_str());
    }
    std::printf(
        "%s: %s stars, %s\n", WithoutControls(TextFromPath(folder)).c_str(),
        GroupedText(survey.Stars).c_str(),
        survey.FaultCount == 0 ? "all good" : (GroupedText(survey.FaultCount) + " faults").c_str());
    return survey.FaultCount == 0 ? ToolExit::Good : ToolExit::FaultsFound;
}

}  // namespace

void AddVerifyCommand(CLI::App& program, ToolExit& exitCode) {
    CLI::App& command = *program.add_subcommand("verify",
                                                "Check every cell file (length, ranges, place, "
                                                "order, checksum), the sky for holes, and the "
                                                "quad tables");
    const auto folder = std::make_shared<std::string>();
    AddCatalogOption(command, *folder);
    command.callback([folder, &exitCode] { exitCode = Verify(ExistingCatalog(*folder)); });
}

}  // namespace vestrel
