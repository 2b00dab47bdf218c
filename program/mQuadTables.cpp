#include "program/mQuadTables.h"

#include <algorithm>
#include <cmath>
#include <new>
#include <optional>

#include "astro/libMath.h"
#include "astro/libParallel.h"
#include "astro/libStrings.h"
#include "platform/libPlatform.h"

namespace vestrel {

namespace {

/// Opens the file of the tables. Null when there is none; `Quads.Fault` then has the reason.
FileHandle OpenTables(ProgramState& state) {
    LoadedQuadTables& tables = state.Quads;
    tables = {};
    tables.File = QuadFilePath(state);
    FileHandle file = OpenQuadFile(tables.File);
    if (!file) {
        tables.Fault = "there are no quad tables (" + TextFromPath(tables.File) +
                       "): vestrel-catalog quads makes them";
    }
    return file;
}

std::vector<QuadBand> ReadBands(std::FILE* file, LoadedQuadTables& tables) {
    std::vector<QuadBand> bands;
    std::string fault;
    if (!ReadQuadBands(file, bands, fault)) {
        tables.Fault = TextFromPath(tables.File) + " " + fault;
        bands.clear();
    }
    return bands;
}

/// The band for a field with this diagonal (radians). Nothing when the file has none;
/// `tables.Fault` then has the reason.
std::optional<QuadBand> BandFor(std::FILE* file, double diagonal, LoadedQuadTables& tables) {
    const std::vector<QuadBand> bands = ReadBands(file, tables);
    if (!tables.Fault.empty()) return std::nullopt;
    const auto band = std::find_if(bands.begin(), bands.end(), [diagonal](const QuadBand& b) {
        return diagonal >= b.SmallestDiagonal && diagonal < b.LargestDiagonal;
    });
    if (band != bands.end()) return *band;
    const auto degrees = [](double radians) { return RoundedText(radians * 180 / Pi, 2); };
    tables.Fault = "the quad tables have nothing for fields of this size";
    tables.OtherSizes = !bands.empty();
    if (tables.OtherSizes) {
        tables.Fault += ", only for " + degrees(bands.front().SmallestDiagonal) + " to " +
                        degrees(bands.back().LargestDiagonal) + " degrees across";
    }
    return std::nullopt;
}

/// Opens a table into `table`. @return false when it is damaged: `tables.Fault` then says so
bool OpenBand(LoadedQuadTables& tables, FileHandle file, const QuadBand& band, QuadTables& table,
              std::shared_ptr<PagePool> pool = nullptr) {
    try {
        table = QuadTables(std::move(file), band, std::move(pool));
    } catch (const DamagedFile& damage) {
        tables.Fault = TextFromPath(tables.File) + " " + damage.what();
    } catch (const std::bad_alloc&) {
        tables.Fault = "there is not enough memory for the quad tables";
    }
    return tables.Fault.empty();
}

}  // namespace

std::filesystem::path QuadFilePath(const ProgramState& state) {
    return state.Catalog.Folder / QuadFileName;
}

bool HaveQuadTables(const ProgramState& state) {
    const FileHandle file = OpenQuadFile(QuadFilePath(state));
    std::vector<QuadBand> bands;
    std::string fault;
    return file && ReadQuadBands(file.get(), bands, fault) && !bands.empty();
}

std::vector<QuadBand> QuadBandsOf(ProgramState& state) {
    const FileHandle file = OpenTables(state);
    return file ? ReadBands(file.get(), state.Quads) : std::vector<QuadBand>{};
}

QuadTablesOfBands::QuadTablesOfBands() {
    constexpr int mostPools = 4;
    const int pools = std::clamp(ParallelThreads(), 1, mostPools);
    for (int i = 0; i < pools; ++i) {
        pools_.push_back(
            std::make_shared<PagePool>(PagePool::UsualPages / static_cast<std::size_t>(pools)));
    }
}

QuadTablesOfBands::Opened* QuadTablesOfBands::Open(ProgramState& state, const QuadBand& band) {
    state.Quads.Fault.clear();
    const auto found = opened_.find(band.Part.Offset);
    if (found != opened_.end()) return &found->second;
    FileHandle file = OpenTables(state);
    Opened opened;
    // In turn: neighbouring bands, which cost about the same, belong to different pools.
    opened.Pool = opened_.size() % pools_.size();
    if (!file ||
        !OpenBand(state.Quads, std::move(file), band, opened.Tables, pools_[opened.Pool])) {
        return nullptr;
    }
    return &opened_.emplace(band.Part.Offset, std::move(opened)).first->second;
}

void CloseQuadTables(ProgramState& state) {
    state.Quads.Tables = {};
}

bool LoadQuadTables(ProgramState& state, double width, double height) {
    FileHandle file = OpenTables(state);
    if (!file) return false;
    const auto band = BandFor(file.get(), std::sqrt(width * width + height * height), state.Quads);
    return band && OpenBand(state.Quads, std::move(file), *band, state.Quads.Tables);
}

}  // namespace vestrel
