// Stars out of delimited text with named columns: exports of Gaia, UCAC, VizieR and the like.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "catalog/libCellGrid.h"
#include "catalogtool/libToolReport.h"

namespace vestrel {

/// A condition on one column. `=` compares numbers when both sides are numbers, else texts.
struct RowFilter {
    std::string Column;
    char Comparison = '=';  ///< one of = < >
    std::string Value;
    double Number = 0;  ///< the value as a number; not-a-number when it is none
};

/// Reads a filter like "ruwe<1.4"; false when it is none. `<` and `>` need a number.
bool ParseRowFilter(std::string_view text, RowFilter& filter);

enum class AngleUnit { Automatic, Degrees, Hours };

struct StarTableOptions {
    // Names of columns, any case; empty to look for the usual ones.
    std::string RaColumn;
    std::string DecColumn;
    std::string MagColumn;
    /// Unit of right ascensions that are plain numbers: degrees when automatic. Sexagesimal ones
    /// ("05:23:12.3", "05 23 12.3") are always hours.
    AngleUnit RaUnit = AngleUnit::Automatic;
    std::vector<RowFilter> Filters;
};

/// Why a row gave no star.
enum class RowFault { Malformed, TooLong, Filtered, NoPosition, BadPosition, NoMagnitude, Count };

/// Words for a fault, as in "12 rows: no magnitude".
const char* RowFaultText(RowFault fault);

struct StarTableResult {
    std::uint64_t Rows = 0;
    std::uint64_t Stars = 0;
    std::array<std::uint64_t, static_cast<std::size_t>(RowFault::Count)> Faults{};
    std::string Columns;  ///< the columns used, for the record: "ra, dec, phot_g_mean_mag"
    /// The right ascensions read as degrees fill 0..24 and nothing beyond: they are hours.
    bool LooksLikeHours = false;
};

/// Hands every star of a table to `sink`.
///
/// Lines that start with "#" and empty lines are skipped, then comes the line of column names,
/// delimited by comma, tab, semicolon or bar; lines of units and of dashes may follow it. A row
/// must have as many fields as there are names. Rows that give no star are counted by reason.
/// @param name of the input, for messages
/// @param length of the input in bytes for the progress shown, 0 when unknown
/// Throws a `ToolFailure` when the input cannot be read, lacks a column or gives not one star.
StarTableResult ReadStarTable(std::FILE* input, const std::string& name, std::uint64_t length,
                              const StarTableOptions& options, const StarSink& sink,
                              ProgressLine& progress);

}  // namespace vestrel
