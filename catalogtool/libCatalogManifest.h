// The manifest beside the cells of a catalog: where the stars are from, and what every cell file
// should contain.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "catalog/libCatalogCells.h"

namespace vestrel {

/// The CRC-32 of zip and gzip, so that cells can be checked with common programs.
class Checksum {
 public:
    void Add(std::span<const unsigned char> bytes);
    std::uint32_t Value() const { return value_; }

 private:
    std::uint32_t value_ = 0;
};

/// Counts stars by magnitude, in steps of half a magnitude.
class MagnitudeCounts {
 public:
    struct Step {
        double From = 0;          ///< magnitudes; the step ends below From + 0.5
        std::uint64_t Stars = 0;  ///< in this step
        std::uint64_t Total = 0;  ///< in this step and all brighter ones
    };

    void Add(std::int16_t hundredths);
    /// The steps from the first to the last that has stars.
    std::vector<Step> Steps() const;

 private:
    static constexpr int stepSize_ = 50;
    static constexpr int firstStep_ = -656;  // contains the smallest 16-bit number
    std::array<std::uint64_t, 1312> stars_{};
};

/// The contents of a cell file.
struct CellContent {
    std::uint64_t Stars = 0;
    std::uint32_t Crc = 0;

    friend bool operator==(const CellContent&, const CellContent&) = default;
};

/// A file from which stars were read.
struct CatalogSource {
    std::string
        Kind;  ///< "tycho2", "csv", "fits", "index", "astap", "kstars", "bright", "synthetic"
    std::string File;      ///< its name without the folder
    std::string Modified;  ///< time of its last change, UTC; empty when unknown (a pipe)
    std::uint64_t Rows = 0;
    std::uint64_t Used = 0;   ///< rows that became catalog stars
    std::uint64_t Moved = 0;  ///< stars that were carried to the catalog's epoch
    std::vector<std::pair<std::string, std::uint64_t>> LeftOut;  ///< reason, number of rows
};

struct CatalogManifest {
    std::string Tool;     ///< program and version that built the catalog
    std::string Created;  ///< UTC, "2025-01-31T12:00:00Z"
    std::vector<CatalogSource> Sources;
    std::vector<std::string> Filters;  ///< the filters, as the user wrote them
    std::vector<std::string> Remarks;  ///< what a user of the catalog should know
    /// The year to which stars with proper motions were moved. Older builds applied no proper
    /// motions.
    std::optional<double> Epoch;
    bool BrightGapFilled = false;
    std::uint64_t Duplicates = 0;
    std::vector<MagnitudeCounts::Step> Magnitudes;
    std::map<std::string, CellContent> Cells;

    std::uint64_t StarCount() const;
};

/// Writes the manifest into a catalog folder. False when that fails.
bool WriteManifest(const std::filesystem::path& folder, const CatalogManifest& manifest);

enum class ManifestState { Good, Absent, Unreadable };

/// Reads the manifest of a catalog folder. `Unreadable` when there is a file of that name that is
/// not a manifest in the present format or whose numbers contradict each other.
ManifestState ReadManifest(const std::filesystem::path& folder, CatalogManifest& manifest);

/// A source in the form of the manifest.
nlohmann::json SourceJson(const CatalogSource& source);

/// A time, and the present time, in the form of the manifest.
std::string TimeText(std::filesystem::file_time_type time);
std::string CurrentTimeText();

}  // namespace vestrel
