// The file of quad tables: what is read is in order, and a search in tables of any content stays
// inside them.

#include <algorithm>
#include <cstring>
#include <memory>

#include "fuzz/fuzzSupport.h"
#include "matching/libQuadFile.h"
#include "program/mMORA.h"

namespace {

using namespace vestrel;

/// Tables from bytes: how many stars, the stars, the quads. Checksums, which no mutation would get
/// right, are put in by the writer.
void WriteTables(const std::filesystem::path& file, const std::uint8_t* data, std::size_t size) {
    constexpr std::size_t starBytes = 10;
    const auto stars = std::min<std::size_t>(data[0], (size - 1) / starBytes);
    const std::uint8_t* next = data + 1;
    QuadTables tables;
    tables.Stars.resize(stars + 1);
    for (std::size_t i = 1; i <= stars; ++i, next += starBytes) {
        tables.Stars[i] = DecodeCatalogStar(
            std::span<const unsigned char, CatalogRecordBytes>(next, CatalogRecordBytes));
    }
    const auto quads = static_cast<std::size_t>(data + size - next) / sizeof(Quad);
    tables.Quads.resize(quads + 1);
    if (quads > 0) std::memcpy(tables.Quads.data() + 1, next, quads * sizeof(Quad));
    tables.StarCount = static_cast<std::int32_t>(stars);
    tables.QuadCount = static_cast<std::int32_t>(quads);
    QuadFileWriter writer(file, 1);
    writer.Add(0.01, 0.1, tables);
    writer.Commit();
}

void Search(ProgramState& state) {
    RecordingPort port(state);
    state.Image.Width = 1000;
    state.Image.Height = 800;
    const PlateStarList stars = {{}, {100, 100}, {700, 150}, {300, 600}, {500, 420}, {20, 750}};
    SearchQuads(state, port, stars, 5, 0.03, 0.024, 2);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::filesystem::path file = InputFolder() / QuadFileName;
    if (size > 0 && data[0] != 'V') {
        WriteTables(file, data, size);
    } else {
        WriteFile(file, TextOf(data, size));
    }
    const auto state = std::make_unique<ProgramState>();
    const FileHandle stream = OpenFile(file, "rb");
    std::vector<QuadBand> bands;
    std::string fault;
    if (!ReadQuadBands(stream.get(), bands, fault)) {
        Require(bands.empty() && !fault.empty(), "a bad file gives nothing");
        return 0;
    }
    for (const QuadBand& band : bands) {
        QuadTables& tables = state->Quads.Tables;
        if (ReadQuadBand(stream.get(), band, tables, fault)) {
            Require(tables.Quads.size() == std::size_t{band.QuadCount} + 1, "the quads are there");
            Search(*state);
        } else {
            Require(tables.QuadCount == 0 && !fault.empty(), "a bad band gives nothing");
        }
    }
    return 0;
}
