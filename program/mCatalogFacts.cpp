#include "program/mCatalogFacts.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <system_error>
#include <vector>

#include "astro/libMath.h"
#include "astro/libStrings.h"
#include "catalog/libCellGrid.h"
#include "display/libReadout.h"
#include "matching/libQuadFile.h"
#include "platform/libPlatform.h"
#include "program/mMORA.h"

namespace vestrel {

namespace {

struct Cell {
    std::filesystem::path File;
    std::uint64_t Stars = 0;
};

std::vector<Cell> CellsIn(const std::filesystem::path& folder) {
    constexpr std::size_t most = 100000;
    std::vector<Cell> cells;
    std::error_code error;
    std::filesystem::directory_iterator entry(folder, error);
    for (; !error && entry != std::filesystem::directory_iterator() && cells.size() < most;
         entry.increment(error)) {
        const std::string name = TextFromPath(entry->path().filename());
        std::error_code ignored;
        const std::uint64_t bytes = IsCellName(name) ? entry->file_size(ignored) : 0;
        if (!ignored && bytes >= CatalogRecordBytes) {
            cells.push_back({entry->path(), bytes / CatalogRecordBytes});
        }
    }
    std::sort(cells.begin(), cells.end(),
              [](const Cell& a, const Cell& b) { return a.File < b.File; });
    return cells;
}

/// The magnitude that 99 % of the stars in some of the cells do not exceed.
double DepthOf(const std::vector<Cell>& cells) {
    constexpr std::size_t wanted = 24;
    std::vector<std::int16_t> magnitudes;
    const std::size_t step = std::max<std::size_t>(cells.size() / wanted, 1);
    for (std::size_t i = 0; i < cells.size(); i += step) {
        std::vector<CatalogStar> stars;
        if (!ReadCellFile(cells[i].File, stars)) continue;
        for (const CatalogStar& star : stars) magnitudes.push_back(star.Mag);
    }
    if (magnitudes.empty()) return 0;
    const auto place =
        magnitudes.begin() + static_cast<std::ptrdiff_t>((magnitudes.size() - 1) * 99 / 100);
    std::nth_element(magnitudes.begin(), place, magnitudes.end());
    return *place / 100.0;
}

std::string TableFacts(const ProgramState& state) {
    const FileHandle file = OpenQuadFile(QuadFilePath(state));
    std::vector<QuadBand> bands;
    std::string fault;
    if (!file || !ReadQuadBands(file.get(), bands, fault) || bands.empty()) {
        return "Quad tables: none. \"vestrel-catalog quads\" makes them; without them a search "
               "needs "
               "an approximate centre.\n";
    }
    double smallest = HUGE_VAL;
    double largest = 0;
    for (const QuadBand& band : bands) {
        smallest = std::min(smallest, band.SmallestDiagonal);
        largest = std::max(largest, band.LargestDiagonal);
    }
    return "Quad tables: for fields with diagonals of " +
           FixedText(smallest * ExactDegreesPerRadian, 2) + " to " +
           FixedText(largest * ExactDegreesPerRadian, 1) + " degrees\n";
}

}  // namespace

std::string CatalogFacts(const ProgramState& state) {
    const std::filesystem::path& folder = state.Catalog.Folder;
    std::string text = "Folder: " + TextFromPath(folder) + "\n";
    std::error_code ignored;
    if (!std::filesystem::is_directory(folder, ignored)) {
        return text + "There is no such folder. \"vestrel-catalog build\" makes a catalog.\n";
    }
    const std::vector<Cell> cells = CellsIn(folder);
    if (cells.empty()) return text + "It holds no stars. \"vestrel-catalog build\" makes them.\n";
    std::uint64_t stars = 0;
    for (const Cell& cell : cells) stars += cell.Stars;
    text += "Stars: " + std::to_string(stars) + " in " + std::to_string(cells.size()) + " of " +
            std::to_string(AllCells().size()) + " cells of the sky\n";
    text += "Depth: about magnitude " + FixedText(DepthOf(cells), 1) + "\n";
    return text + TableFacts(state);
}

}  // namespace vestrel
