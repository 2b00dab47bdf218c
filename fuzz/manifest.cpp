// The manifest of a catalog: a valid one is written again as it was.

#include "catalog/libCatalogCells.h"
#include "catalogtool/libCatalogManifest.h"
#include "fuzz/fuzzSupport.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vestrel;
    static const std::filesystem::path file = InputFolder() / ManifestName;
    WriteFile(file, TextOf(data, size));
    CatalogManifest manifest;
    const ManifestState state = ReadManifest(InputFolder(), manifest);
    Require(state != ManifestState::Absent, "the file is seen");
    if (state != ManifestState::Good) {
        Require(manifest.Tool.empty() && manifest.Cells.empty(), "a bad manifest gives nothing");
        return 0;
    }
    for (const auto& [name, cell] : manifest.Cells) {
        Require(IsCellName(name), "cells have names of the grid");
    }
    Require(WriteManifest(InputFolder(), manifest), "it can be written");
    const std::string written = ReadFile(file);
    CatalogManifest again;
    Require(ReadManifest(InputFolder(), again) == ManifestState::Good, "and read again");
    Require(again.Cells == manifest.Cells && again.Tool == manifest.Tool &&
                again.Sources.size() == manifest.Sources.size() &&
                again.Magnitudes.size() == manifest.Magnitudes.size(),
            "nothing is lost");
    Require(WriteManifest(InputFolder(), again) && ReadFile(file) == written,
            "writing again changes nothing");
    return 0;
}
