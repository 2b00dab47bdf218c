// Finds the columns of a star table by name, and makes the star of a row, whatever kind of file the
// table is in.
#pragma once

#include <array>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "catalog/libCellGrid.h"
#include "catalogtool/libFastStars.h"
#include "catalogtool/libToolReport.h"

namespace vestrel {

/// A condition on one column. `=` compares numbers when both sides are numbers, else texts.
struct RowFilter {
    std::string Column;
    char Comparison = '=';  ///< one of = < >
    std::string Value;
    double Number = 0;  ///< the value as a number; NaN when it is not one
};

/// Reads a filter like "ruwe<1.4"; false when it is not valid. `<` and `>` need a number.
bool ParseRowFilter(std::string_view text, RowFilter& filter);

/// The unit of a proper motion, in milliarcseconds per year: 1 when the text is empty, 0 when it is
/// not known.
double MotionUnitOf(const std::string& text);

enum class AngleUnit { Automatic, Degrees, Hours };

struct StarTableOptions {
    // Names of columns, upper or lower case; empty to search for the usual ones.
    std::string RaColumn;
    std::string DecColumn;
    std::string MagColumn;
    /// Unit of right ascensions that are plain numbers: degrees when automatic. Sexagesimal ones
    /// ("05:23:12.3", "05 23 12.3") are always hours.
    AngleUnit RaUnit = AngleUnit::Automatic;
    std::vector<RowFilter> Filters;
    /// The epoch of the positions (years), when the table does not give it.
    std::optional<double> TableEpoch;
    /// The epoch (years) to which stars with proper motions are moved.
    double Epoch = 2000;
};

/// Why a row gave no star.
enum class RowFault { Malformed, TooLong, Filtered, NoPosition, BadPosition, NoMagnitude, Count };

/// The text of a fault, as in "12 rows: no magnitude".
const char* RowFaultText(RowFault fault);

/// What the rows of a table, or of a piece of one, gave.
struct RowCounts {
    std::uint64_t Rows = 0;
    std::uint64_t Stars = 0;
    std::uint64_t Moved = 0;  ///< stars whose proper motion was applied
    std::array<std::uint64_t, static_cast<std::size_t>(RowFault::Count)> Faults{};
    /// The range of the right ascensions that were read as degrees.
    double LeastRa = 360;
    double GreatestRa = -180;

    void Refuse(RowFault fault) { ++Faults[static_cast<std::size_t>(fault)]; }
    void Add(const RowCounts& other);
};

struct StarTableResult : RowCounts {
    std::string Columns;  ///< the columns used, for the manifest: "ra, dec, phot_g_mean_mag"
    std::string Motions;  ///< how proper motions were treated, for the manifest
    /// The right ascensions, read as degrees, fill 0..24 and no more: they are probably hours.
    bool LooksLikeHours = false;
};

/// Throws a `ToolFailure` with the reason when a table that was read to its end gave no star.
void RequireStars(const StarTableResult& result, const std::string& table);

/// One row of a table.
class TableRow {
 public:
    virtual ~TableRow() = default;
    /// The value of a column, counted from 0; NaN when it has none.
    virtual double Number(std::size_t column) const = 0;
    /// The text of a column. For a column of numbers it is empty when there is no value, else any
    /// text.
    virtual std::string_view Text(std::size_t column) const = 0;
};

/// The columns from which stars are read.
class StarColumns {
 public:
    /// Searches for the columns by the names that surveys use; exact matches come first.
    /// @param table its name, for messages Throws a `ToolFailure` with the names that were searched
    ///   when a column is missing.
    StarColumns(std::vector<std::string> names, std::string table, const StarTableOptions& options);

    /// Sets the units of all columns, as far as known. Must be called before the first row.
    void SetUnits(const std::vector<std::string>& units);

    std::size_t Count() const { return names_.size(); }
    /// Whether `ReadStar` uses this column.
    bool IsUsed(std::size_t column) const;
    std::size_t RaColumn() const { return ra_; }
    std::size_t DecColumn() const { return dec_; }

    /// Makes the star of a row at the requested epoch; false when the row gives none. Counts the
    /// star or the reason, but not the row. Threads may read different rows at once, each with
    /// counts of its own.
    bool ReadStar(const TableRow& row, SkyStar& star, RowCounts& counts) const;

    /// Completes the record of a table.
    void Describe(StarTableResult& result) const;

 private:
    static constexpr std::size_t NoColumn = static_cast<std::size_t>(-1);

    std::size_t Find(std::string_view column) const;
    std::size_t Require(const std::string& column) const;
    void FindPositionColumns();
    void FindMagnitudeColumn();
    void FindMotionColumns();
    std::string ColumnList() const;
    [[noreturn]] void Fail(const std::string& why) const;
    bool PassesFilters(const TableRow& row) const;
    bool ReadPosition(const TableRow& row, SkyStar& star, RowCounts& counts) const;
    void Move(const TableRow& row, SkyStar& star, RowCounts& counts) const;

    std::vector<std::string> names_;
    std::string table_;
    const StarTableOptions& options_;
    std::vector<std::size_t> filterColumns_;
    std::size_t ra_ = NoColumn;
    std::size_t dec_ = NoColumn;
    std::size_t mag_ = NoColumn;
    std::size_t motionRa_ = NoColumn;  ///< proper motions, both or neither
    std::size_t motionDec_ = NoColumn;
    std::size_t epochColumn_ = NoColumn;
    double motionUnit_ = 1;      ///< milliarcseconds
    double sourceEpoch_ = 2000;  ///< of rows without their own epoch
    bool epochIsAssumed_ = false;
};

}  // namespace vestrel
