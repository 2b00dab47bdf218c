#include "catalogtool/libStarTable.h"

#include <string_view>
#include <vector>

#include "astro/libParallel.h"
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

std::vector<std::string> NamesIn(std::string_view header, const std::string& table) {
    FieldSplitter splitter(FieldSplitter::DelimiterOf(header));
    std::vector<std::string_view> names;
    if (!splitter.Split(header, names)) {
        throw ToolFailure(ToolExit::BadInput,
                          table + ": has an unclosed quote in its column names");
    }
    return {names.begin(), names.end()};
}

/// Whether a line is no row. Lines that are too long are rows.
bool IsSkipped(std::string_view line) {
    return line.size() <= LongestLine &&
           (line.starts_with('#') || line.find_first_not_of(' ') == std::string_view::npos);
}

/// A table of which the header was read.
class TextTable {
 public:
    TextTable(std::string_view header, const std::string& name, const StarTableOptions& options)
        : delimiter_(FieldSplitter::DelimiterOf(header)),
          columns_(NamesIn(header, name), name, options) {}

    /// Whether a line under the names holds dashes or units: units have words instead of a
    /// position.
    bool IsDecoration(std::string_view line) {
        if (line.find_first_not_of("-+=|,;\t ") == std::string_view::npos) return true;
        const auto isWord = [](std::string_view field) {
            return !field.empty() && field.find_first_of("0123456789") == std::string_view::npos;
        };
        FieldSplitter splitter(delimiter_);
        std::vector<std::string_view> fields;
        if (!splitter.Split(line, fields) || fields.size() != columns_.Count() ||
            !isWord(fields[columns_.RaColumn()]) || !isWord(fields[columns_.DecColumn()])) {
            return false;
        }
        columns_.SetUnits({fields.begin(), fields.end()});
        return true;
    }

    /// Appends the stars of some rows. Threads may read different rows at once.
    void ReadRows(std::string_view text, std::vector<SkyStar>& stars, RowCounts& counts) const {
        FieldSplitter splitter(delimiter_);
        TextRow row;
        for (std::string_view line; TakeLine(text, line);) {
            if (IsSkipped(line)) continue;
            ++counts.Rows;
            SkyStar star;
            if (line.size() > LongestLine) {
                counts.Refuse(RowFault::TooLong);
            } else if (!HasAllFields(splitter, line, row.Fields)) {
                counts.Refuse(RowFault::Malformed);
            } else if (columns_.ReadStar(row, star, counts)) {
                stars.push_back(star);
            }
        }
    }

    void Describe(StarTableResult& result) const { columns_.Describe(result); }

 private:
    bool HasAllFields(FieldSplitter& splitter, std::string_view line,
                      std::vector<std::string_view>& fields) const {
        if (!splitter.Split(line, fields)) return false;
        // Some programs end each row, but not the names, with a delimiter.
        if (fields.size() == columns_.Count() + 1 && fields.back().empty()) fields.pop_back();
        return fields.size() == columns_.Count();
    }

    char delimiter_;
    StarColumns columns_;
};

/// The stars of a piece of the table.
struct ParsedPiece {
    std::vector<SkyStar> Stars;
    RowCounts Counts;
};

/// Reads the rows of one text on all processors; the stars come in the order of the rows.
void ReadBlock(const TextTable& table, std::string_view text, std::size_t pieceBytes,
               std::vector<ParsedPiece>& parsed, StarTableResult& result, const StarSink& sink) {
    const std::vector<std::string_view> pieces = PiecesOfLines(text, pieceBytes);
    if (parsed.size() < pieces.size()) parsed.resize(pieces.size());
    ParallelFor(static_cast<int>(pieces.size()), [&](int i) {
        ParsedPiece& piece = parsed[static_cast<std::size_t>(i)];
        piece.Stars.clear();
        piece.Counts = {};
        table.ReadRows(pieces[static_cast<std::size_t>(i)], piece.Stars, piece.Counts);
    });
    for (std::size_t i = 0; i < pieces.size(); ++i) {
        result.Add(parsed[i].Counts);
        for (const SkyStar& star : parsed[i].Stars) sink(star);
    }
}

}  // namespace

StarTableResult ReadStarTable(UnpackedInput& input, const std::string& name, std::uint64_t length,
                              const StarTableOptions& options, const StarSink& sink,
                              ProgressLine& progress, std::size_t pieceBytes) {
    const auto fail = [&](const std::string& why) {
        throw ToolFailure(ToolExit::BadInput, name + ": " + why);
    };
    StarTableResult result;
    constexpr std::size_t piecesInBlock = 16;
    LineBlocks blocks(input, piecesInBlock * pieceBytes);
    std::string_view text;
    std::string_view line;
    // Takes the next line of names or rows; false at the end.
    const auto nextLine = [&] {
        do {
            if (text.empty()) text = blocks.Next();
            if (!TakeLine(text, line)) return false;
        } while (IsSkipped(line));
        return true;
    };
    const auto failIfCut = [&] {
        ThrowIfStopped();
        if (!input.Fault().empty()) fail(input.Fault());
    };

    if (!nextLine()) {
        failIfCut();
        fail("is empty");
    }
    if (line.size() > LongestLine) fail("starts with an endless line: not a table of text");
    TextTable table(line, name, options);
    constexpr int mostDecorations = 2;  // lines of units and dashes
    for (int i = 0; i < mostDecorations && nextLine(); ++i) {
        if (line.size() <= LongestLine && table.IsDecoration(line)) continue;
        // It is the first row.
        text = {line.data(), static_cast<std::size_t>(text.data() + text.size() - line.data())};
        break;
    }

    std::vector<ParsedPiece> parsed;
    do {
        progress.Show("Reading " + name, input.BytesRead(), length, result.Rows);
        ReadBlock(table, text, pieceBytes, parsed, result, sink);
        text = blocks.Next();
    } while (!text.empty());
    failIfCut();
    RequireStars(result, name);
    table.Describe(result);
    return result;
}

}  // namespace vestrel
