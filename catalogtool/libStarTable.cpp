#include "catalogtool/libStarTable.h"

#include <algorithm>
#include <utility>

#include "astro/libStrings.h"
#include "catalogtool/libTextLines.h"

namespace vestrel {

namespace {

/// A row of text, split into its fields.
class TextRow final : public TableRow {
 public:
    double Number(std::size_t column) const override { return FieldNumber(Fields[column]); }
    std::string_view Text(std::size_t column) const override { return Fields[column]; }

    std::vector<std::string_view> Fields;
};

/// A table of which the header was read.
class TextTable {
 public:
    TextTable(std::string_view header, const std::string& name, const StarTableOptions& options)
        : splitter_(FieldSplitter::DelimiterOf(header)),
          columns_(NamesIn(header, name), name, options) {}

    /// Whether a line under the names holds dashes or units: units have words instead of a
    /// position.
    bool IsDecoration(std::string_view line) {
        if (line.find_first_not_of("-+=|,;\t ") == std::string_view::npos) return true;
        const auto isWord = [](std::string_view field) {
            return !field.empty() && field.find_first_of("0123456789") == std::string_view::npos;
        };
        if (!splitter_.Split(line, row_.Fields) || row_.Fields.size() != columns_.Count() ||
            !isWord(row_.Fields[columns_.RaColumn()]) ||
            !isWord(row_.Fields[columns_.DecColumn()])) {
            return false;
        }
        columns_.SetUnits({row_.Fields.begin(), row_.Fields.end()});
        return true;
    }

    /// Makes the star of a row; false, with a reason, when the row gives none.
    bool ReadRow(std::string_view line, SkyStar& star, RowFault& fault) {
        fault = RowFault::Malformed;
        if (!splitter_.Split(line, row_.Fields)) return false;
        // Some programs end each row, but not the names, with a delimiter.
        if (row_.Fields.size() == columns_.Count() + 1 && row_.Fields.back().empty()) {
            row_.Fields.pop_back();
        }
        return row_.Fields.size() == columns_.Count() && columns_.ReadStar(row_, star, fault);
    }

    void Describe(StarTableResult& result) const { columns_.Describe(result); }

 private:
    std::vector<std::string> NamesIn(std::string_view header, const std::string& table) {
        std::vector<std::string_view> names;
        if (!splitter_.Split(header, names)) {
            throw ToolFailure(ToolExit::BadInput,
                              table + ": has an unclosed quote in its column names");
        }
        return {names.begin(), names.end()};
    }

    FieldSplitter splitter_;
    StarColumns columns_;
    TextRow row_;
};

}  // namespace

StarTableResult ReadStarTable(UnpackedInput& input, const std::string& name, std::uint64_t length,
                              const StarTableOptions& options, const StarSink& sink,
                              ProgressLine& progress) {
    const auto fail = [&](const std::string& why) {
        throw ToolFailure(ToolExit::BadInput, name + ": " + why);
    };
    StarTableResult result;
    LineReader reader(input);
    std::string_view line;
    // Reads the next line of names or rows; false at the end.
    const auto nextLine = [&](bool& tooLong) {
        for (;;) {
            const LineReader::Outcome outcome = reader.Next(line);
            if (outcome == LineReader::Outcome::Failed) {
                ThrowIfStopped();
                fail(input.Fault());
            }
            if (outcome == LineReader::Outcome::End) return false;
            tooLong = outcome == LineReader::Outcome::TooLong;
            if (tooLong || !(line.starts_with('#') || Trim(line).empty())) return true;
        }
    };

    bool tooLong = false;
    if (!nextLine(tooLong)) {
        ThrowIfStopped();
        fail("is empty");
    }
    if (tooLong) fail("starts with an endless line: not a table of text");
    TextTable table(line, name, options);

    constexpr std::uint64_t rowsBetweenReports = 4096;
    int decorations = 2;  // lines of units and dashes that may still come
    while (nextLine(tooLong)) {
        if (!tooLong && decorations > 0) {
            --decorations;
            if (table.IsDecoration(line)) continue;
            decorations = 0;
        }
        if (result.Rows++ % rowsBetweenReports == 0) {
            progress.Show("Reading " + name, input.BytesRead(), length, result.Rows);
        }
        SkyStar star;
        RowFault fault = RowFault::TooLong;
        if (!tooLong && table.ReadRow(line, star, fault)) {
            ++result.Stars;
            sink(star);
        } else {
            ++result.Faults[static_cast<std::size_t>(fault)];
        }
    }
    ThrowIfStopped();
    RequireStars(result, name);
    table.Describe(result);
    return result;
}

}  // namespace vestrel
