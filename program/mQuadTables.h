// The quad tables of the catalog: finds and opens the one for a size of the field.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <vector>

#include "program/mGeneral.h"

namespace vestrel {

/// The file of quad tables that belongs to the catalog.
std::filesystem::path QuadFilePath(const ProgramState& state);

/// Whether there are quad tables. Reads only their head.
bool HaveQuadTables(const ProgramState& state);

/// Opens the table for a field of this size (radians). Damage inside is found when a search reads
/// it: the search then ends without a match and sets `Quads.Fault`.
/// @return false when there is no table: `Quads.Fault` then has the reason, and the table is empty
bool LoadQuadTables(ProgramState& state, double width, double height);

/// The bands of the catalog's quad tables, smallest fields first. When there are no tables, it is
/// empty and `Quads.Fault` has the reason.
std::vector<QuadBand> QuadBandsOf(ProgramState& state);

/// The tables of all bands for a search that comes back to them. Each stays open, and together they
/// keep no more pages in memory than a single one may. So that several threads can search, every
/// table belongs to one of as many pools of pages.
class QuadTablesOfBands {
 public:
    struct Opened {
        QuadTables Tables;
        std::size_t Pool = 0;  ///< tables with the same number share their pages
    };

    QuadTablesOfBands();
    /// The table of a band; null when it cannot be opened: `Quads.Fault` then has the reason.
    Opened* Open(ProgramState& state, const QuadBand& band);

 private:
    std::vector<std::shared_ptr<PagePool>> pools_;
    std::map<std::uint64_t, Opened> opened_;  ///< by their places in the file
};

/// Closes the table after a search, because Windows replaces no catalog of which a file is open.
/// Its name and fault stay.
void CloseQuadTables(ProgramState& state);

}  // namespace vestrel
