// vestrel-catalog synthesize: makes a catalog of artificial stars, for tests and benchmarks.
#include <CLI/App.hpp>
#include <cstdio>
#include <system_error>

#include "astro/libStrings.h"
#include "catalogtool/commands.h"
#include "catalogtool/libCatalogBuilder.h"
#include "catalogtool/libCatalogFolder.h"
#include "catalogtool/libSyntheticSky.h"
#include "platform/libFiles.h"
#include "platform/libPlatform.h"

namespace vestrel {

namespace {

struct Request {
    std::string Catalog;
    SyntheticSky Sky;
};

void Synthesize(const Request& request) {
    BuildingFolder folder(ChosenCatalog(request.Catalog));
    CatalogBuilder builder(folder.Path());
    ProgressLine progress(stderr);
    std::uint64_t stars = 0;
    MakeSyntheticSky(request.Sky, [&](const SkyStar& star) {
        if (++stars % 65536 == 0) progress.Show("Making stars", 0, 0, stars);
        if (const auto stored = StoredStar(star)) builder.Add(*stored);
    });
    builder.Finish(progress);
    CatalogManifest manifest;
    manifest.Tool = "vestrel-catalog " VESTREL_VERSION;
    manifest.Created = CurrentTimeText();
    CatalogSource source;
    source.Kind = "synthetic";
    source.File = "seed " + std::to_string(request.Sky.Seed);
    source.Rows = source.Used = stars;
    manifest.Sources.push_back(source);
    manifest.Remarks.emplace_back("these stars are nowhere in the sky");
    manifest.BrightGapFilled = true;
    manifest.Cells = builder.Cells();
    manifest.Magnitudes = builder.Magnitudes().Steps();
    manifest.Duplicates = builder.Duplicates();
    if (manifest.StarCount() == 0) throw ToolFailure(ToolExit::WrongUsage, "not one star");
    if (!WriteManifest(folder.Path(), manifest)) {
        throw ToolFailure(ToolExit::CannotWrite,
                          TextFromPath(folder.Path() / ManifestName) + ": " + SystemErrorText());
    }
    ThrowIfStopped();
    folder.Publish();
    progress.Clear();
    std::printf("%s stars that are nowhere in %s\n", GroupedText(manifest.StarCount()).c_str(),
                TextFromPath(ChosenCatalog(request.Catalog)).c_str());
}

}  // namespace

void AddSynthesizeCommand(CLI::App& program, ToolExit& exitCode) {
    CLI::App& command = *program.add_subcommand(
        "synthesize", "Make a catalog of random stars, for tests only: it solves rendered frames");
    const auto request = std::make_shared<Request>();
    // There is no default folder: that holds the real catalog, which must not be replaced.
    command.add_option("--catalog", request->Catalog, "Folder of the new catalog")
        ->type_name("DIR")
        ->required();
    command
        .add_option("--density", request->Sky.Density,
                    "Stars per square degree down to the limit, mean of the sky")
        ->check(CLI::Range(0.1, 50000.0))
        ->check(CheckFinite)
        ->capture_default_str();
    command.add_option("--mag-max", request->Sky.FaintestMagnitude, "The faintest magnitude")
        ->check(CLI::Range(6.0, 25.0))
        ->check(CheckFinite)
        ->capture_default_str();
    command.add_option("--seed", request->Sky.Seed, "Another number, other stars")
        ->capture_default_str();
    command.add_option("--ra", request->Sky.CentreRa, "Part of the sky: centre, degrees")
        ->check(CLI::Range(0.0, 360.0))
        ->check(CheckFinite);
    command.add_option("--dec", request->Sky.CentreDec, "Part of the sky: centre, degrees")
        ->check(CLI::Range(-90.0, 90.0))
        ->check(CheckFinite);
    command.add_option("--radius", request->Sky.Radius, "Part of the sky: radius, degrees")
        ->check(CLI::Range(0.01, 180.0))
        ->check(CheckFinite);
    command.callback([request, &exitCode] {
        Synthesize(*request);
        exitCode = ToolExit::Good;
    });
}

}  // namespace vestrel
