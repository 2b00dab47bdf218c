#include "catalogtool/libFitsTable.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <optional>
#include <utility>
#include <vector>

#include "astro/libStrings.h"
#include "catalogtool/libFitsFile.h"
#include "catalogtool/libTextLines.h"
#include "platform/libPlatform.h"

namespace vestrel {

namespace {

constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();
constexpr LONGLONG blockRows = 8192;
constexpr long widestText = 256;  ///< of a position or a filter column

/// The type of a column and, for columns in use, a block of its values.
struct Column {
    bool IsText = false;
    long Width = 0;  ///< of a text
    bool IsUsable = false;
    std::vector<double> Numbers;
    std::vector<std::string> Texts;
};

/// A row of the block in memory.
class BlockRow final : public TableRow {
 public:
    double Number(std::size_t column) const override {
        const Column& values = Columns[column];
        return values.IsText ? FieldNumber(values.Texts[Row]) : values.Numbers[Row];
    }
    std::string_view Text(std::size_t column) const override {
        const Column& values = Columns[column];
        if (values.IsText) return values.Texts[Row];
        return std::isnan(values.Numbers[Row]) ? "" : "a number";
    }

    std::vector<Column> Columns;
    std::size_t Row = 0;
};

class FitsTable : public FitsFile {
 public:
    using FitsFile::FitsFile;

    /// Moves to the first table from which stars can be read.
    StarColumns FindColumns(const StarTableOptions& options) {
        int count = 0;
        int status = 0;
        fits_get_num_hdus(Handle(), &count, &status);
        Check(status, "list its tables");
        std::optional<ToolFailure> firstFailure;
        for (int number = 2; number <= count; ++number) {
            int type = 0;
            fits_movabs_hdu(Handle(), number, &type, &status);
            Check(status, "read header " + std::to_string(number));
            if (type == IMAGE_HDU) continue;
            try {
                StarColumns columns(ReadNames(), Name(), options);
                for (std::size_t i = 0; i < Row.Columns.size(); ++i) {
                    if (columns.IsUsed(i) && !Row.Columns[i].IsUsable) {
                        Fail("column " + std::to_string(i + 1) +
                             " holds neither one number a row nor a short text");
                    }
                }
                columns.SetUnits(units_);
                return columns;
            } catch (const ToolFailure& failure) {
                if (!firstFailure) firstFailure = failure;
            }
        }
        if (firstFailure) throw ToolFailure(*firstFailure);
        Fail("has no table");
    }

    std::uint64_t RowCount() {
        LONGLONG rows = 0;
        int status = 0;
        fits_get_num_rowsll(Handle(), &rows, &status);
        Check(status, "count its rows");
        if (rows < 0) Fail("has a table of an impossible size");
        return static_cast<std::uint64_t>(rows);
    }

    /// Reads the columns that are used, `rows` rows from `first` (0-based) on.
    void ReadBlock(const StarColumns& columns, std::uint64_t first, std::size_t rows) {
        for (std::size_t i = 0; i < Row.Columns.size(); ++i) {
            if (!columns.IsUsed(i)) continue;
            Column& column = Row.Columns[i];
            int status = 0;
            if (column.IsText) {
                ReadTexts(static_cast<int>(i) + 1, first, rows, column, status);
            } else {
                double none = notANumber;
                int anyNone = 0;  // the library writes it at each NaN without asking
                column.Numbers.assign(rows, notANumber);
                fits_read_col(Handle(), TDOUBLE, static_cast<int>(i) + 1,
                              static_cast<LONGLONG>(first) + 1, 1, static_cast<LONGLONG>(rows),
                              &none, column.Numbers.data(), &anyNone, &status);
            }
            // A number that does not fit is ignored; the library leaves the old value.
            if (status == NUM_OVERFLOW) status = 0;
            Check(status, "read its rows");
        }
    }

    BlockRow Row;

 private:
    /// The names of the columns of the current table. Also records their types.
    std::vector<std::string> ReadNames() {
        int count = 0;
        int status = 0;
        fits_get_num_cols(Handle(), &count, &status);
        Check(status, "list its columns");
        std::vector<std::string> names;
        Row.Columns.assign(static_cast<std::size_t>(std::max(count, 0)), {});
        units_.clear();
        for (int i = 1; i <= count; ++i) {
            names.push_back(Trimmed("TTYPE" + std::to_string(i)));
            units_.push_back(Trimmed("TUNIT" + std::to_string(i)));
            int type = 0;
            long repeat = 0;
            long width = 0;
            fits_get_coltype(Handle(), i, &type, &repeat, &width, &status);
            Column& column = Row.Columns[static_cast<std::size_t>(i) - 1];
            column.IsText = type == TSTRING;
            // A text in a binary table may be an array of pieces, which belong together.
            column.Width = column.IsText ? std::max(repeat, width) : 0;
            const bool isNumber = type == TBYTE || type == TSHORT || type == TLONG ||
                                  type == TLONGLONG || type == TFLOAT || type == TDOUBLE ||
                                  type == TSBYTE || type == TUSHORT || type == TULONG ||
                                  type == TINT;
            column.IsUsable = status == 0 && (column.IsText ? width == column.Width && width > 0 &&
                                                                  width <= widestText
                                                            : isNumber && repeat == 1);
            status = 0;
        }
        fits_clear_errmsg();
        return names;
    }

    /// The text of a header card; empty when it lacks it.
    std::string Trimmed(const std::string& keyword) {
        std::array<char, FLEN_VALUE> value{};
        int status = 0;
        fits_read_key(Handle(), TSTRING, keyword.c_str(), value.data(), nullptr, &status);
        return status == 0 ? std::string(Trim(value.data())) : "";
    }

    void ReadTexts(int number, std::uint64_t first, std::size_t rows, Column& column, int& status) {
        const auto length = static_cast<std::size_t>(column.Width) + 1;
        std::vector<char> bytes(rows * length);
        std::vector<char*> starts(rows);
        for (std::size_t i = 0; i < rows; ++i) starts[i] = &bytes[i * length];
        std::array<char, 1> none{};
        fits_read_col(Handle(), TSTRING, number, static_cast<LONGLONG>(first) + 1, 1,
                      static_cast<LONGLONG>(rows), none.data(), starts.data(), nullptr, &status);
        column.Texts.resize(rows);
        for (std::size_t i = 0; i < rows; ++i) {
            bytes[(i + 1) * length - 1] = '\0';
            column.Texts[i] = Trim(starts[i]);
        }
    }

    std::vector<std::string> units_;
};

}  // namespace

StarTableResult ReadFitsStarTable(const std::filesystem::path& file, const std::string& name,
                                  const StarTableOptions& options, const StarSink& sink,
                                  ProgressLine& progress) {
    FitsTable table(file, name);
    const StarColumns columns = table.FindColumns(options);
    StarTableResult result;
    result.Rows = table.RowCount();
    for (std::uint64_t first = 0; first < result.Rows; first += blockRows) {
        progress.Show("Reading " + name, first, result.Rows, first);
        const auto rows =
            static_cast<std::size_t>(std::min<std::uint64_t>(blockRows, result.Rows - first));
        table.ReadBlock(columns, first, rows);
        for (std::size_t i = 0; i < rows; ++i) {
            table.Row.Row = i;
            SkyStar star;
            if (columns.ReadStar(table.Row, star, result)) sink(star);
        }
    }
    RequireStars(result, name);
    columns.Describe(result);
    return result;
}

}  // namespace vestrel
