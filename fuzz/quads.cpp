// The file of quad tables: what is read is valid, and a search in tables of any content stays
// inside them.

#include <algorithm>
#include <cstring>
#include <memory>

#include "fuzz/fuzzSupport.h"
#include "matching/libQuadFile.h"
#include "program/mMORA.h"

namespace {

using namespace vestrel;

/// Makes a table from bytes: the number of stars, the stars, the quads. The writer adds the
/// checksums, which no mutation would get right.
void WriteTables(const std::filesystem::path& file, const std::uint8_t* data, std::size_t size) {
    constexpr std::size_t starBytes = 10;
    const auto stars = std::min<std::size_t>(data[0], (size - 1) / starBytes);
    const std::uint8_t* next = data + 1;
    QuadList list;
    for (std::size_t i = 1; i <= stars; ++i, next += starBytes) {
        list.Stars.push_back(DecodeCatalogStar(
            std::span<const unsigned char, CatalogRecordBytes>(next, CatalogRecordBytes)));
    }
    for (; stars > 0 && data + size - next >= 4; next += 4) {
        auto& quad = list.Quads.emplace_back();
        for (std::size_t k = 0; k < 4; ++k) quad[k] = static_cast<std::int32_t>(next[k] % stars);
    }
    QuadFileWriter writer(file, 1);
    writer.Add(0.01, 0.1, list);
    writer.Commit();
}

/// Puts bytes into the pages of a good file and corrects the checksums, as a forger would.
void Forge(const std::filesystem::path& file, const std::uint8_t* data, std::size_t size) {
    std::vector<unsigned char> bytes;
    Require(ReadWholeFile(file, 1U << 26, bytes), "the file is there");
    std::vector<QuadBand> bands;
    std::string fault;
    Require(ReadQuadBands(OpenFile(file, "rb").get(), bands, fault), "and good");
    PagedPart& part = bands.at(0).Part;
    // Three bytes each: two for the place, one for the new value.
    for (; size >= 3; data += 3, size -= 3) {
        const std::size_t place =
            (data[0] + std::size_t{256} * data[1]) * 2654435761U % part.Length;
        bytes[part.Offset + place] = data[2];
    }
    constexpr std::size_t headBytes = 24;
    std::vector<std::uint64_t> sums(part.PageCount());
    for (std::size_t i = 0; i < sums.size(); ++i) {
        sums[i] = FastChecksum(&bytes[part.Offset + i * PageBytes], PageBytes);
    }
    const std::size_t sumBytes = sums.size() * sizeof(std::uint64_t);
    std::memcpy(&bytes[part.Offset + part.Length], sums.data(), sumBytes);
    part.Checksum = FastChecksum(sums.data(), sumBytes);
    std::memcpy(&bytes[headBytes], bands.data(), sizeof(QuadBand));
    const std::uint64_t bandsSum = FastChecksum(bands.data(), sizeof(QuadBand));
    std::memcpy(&bytes[headBytes - 8], &bandsSum, sizeof bandsSum);
    WriteFile(file, TextOf(bytes.data(), bytes.size()));
}

void Search(ProgramState& state) {
    RecordingPort port(state);
    state.Image.Width = 1000;
    state.Image.Height = 800;
    const PlateStarList stars = {{100, 100}, {700, 150}, {300, 600}, {500, 420}, {20, 750}};
    SearchQuads(state, port, stars, 0.03, 0.024, 2);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::filesystem::path file = InputFolder() / QuadFileName;
    if (size > 1 && data[0] != 'V') {
        // Half of the bytes make a table, the others damage it.
        const std::size_t half = data[0] % 2 == 0 ? size : size / 2 + 1;
        WriteTables(file, data, half);
        if (half < size) Forge(file, data + half, size - half);
    } else {
        WriteFile(file, TextOf(data, size));
    }
    const auto state = std::make_unique<ProgramState>();
    std::vector<QuadBand> bands;
    std::string fault;
    if (!ReadQuadBands(OpenFile(file, "rb").get(), bands, fault)) {
        Require(bands.empty() && !fault.empty(), "a bad file gives nothing");
        return 0;
    }
    FaultOfQuadFile(file);
    for (const QuadBand& band : bands) {
        try {
            state->Quads.Tables = QuadTables(OpenFile(file, "rb"), band);
        } catch (const DamagedFile&) {
            continue;
        }
        Search(*state);
    }
    return 0;
}
