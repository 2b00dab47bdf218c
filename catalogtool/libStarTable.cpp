#include "catalogtool/libStarTable.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <initializer_list>
#include <limits>
#include <utility>

#include "astro/libConversions.h"
#include "astro/libMath.h"
#include "astro/libStrings.h"
#include "catalogtool/libTextLines.h"

namespace vestrel {

namespace {

constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();
constexpr std::size_t noColumn = static_cast<std::size_t>(-1);

// VizieR computes the columns with "_" for J2000 and in degrees, so they come before its others.
constexpr std::initializer_list<std::pair<const char*, const char*>> positionColumns = {
    {"_RAJ2000", "_DEJ2000"},
    {"RAJ2000", "DEJ2000"},
    {"ra", "dec"},
    {"RA_ICRS", "DE_ICRS"},
    {"_RA", "_DE"},
    {"RAdeg", "DEdeg"},
    {"ra_deg", "dec_deg"},
    {"ra_j2000", "dec_j2000"},
    {"raMean", "decMean"},
    {"RAICRS", "DEICRS"},
    {"alpha", "delta"},
    {"right_ascension", "declination"}};
constexpr std::initializer_list<const char*> magnitudeColumns = {
    "Vmag", "phot_g_mean_mag", "Gmag", "f.mag", "a.mag", "VTmag", "gmag", "rmag", "Rmag",
    "mag",  "magnitude",       "vmag"};

/// The value of a field that is a plain number; not-a-number when it is none. As fast as it gets,
/// for it is called hundreds of millions of times.
double FieldNumber(std::string_view field) {
    if (field.starts_with('+')) field.remove_prefix(1);
    double value = notANumber;
    const auto result = std::from_chars(field.data(), field.data() + field.size(), value);
    const bool good = result.ec == std::errc() && result.ptr == field.data() + field.size();
    return good && std::isfinite(value) ? value : notANumber;
}

bool SameText(std::string_view a, std::string_view b) {
    return a == b || UpperCase(a) == UpperCase(b);
}

/// One table being read: its columns are known, its rows come.
class TableRows {
 public:
    TableRows(std::string_view header, std::string tableName, const StarTableOptions& tableOptions,
              StarTableResult& tableResult)
        : Name(std::move(tableName)),
          Options(tableOptions),
          Splitter(FieldSplitter::DelimiterOf(header)),
          Result(tableResult) {
        std::vector<std::string_view> names;
        if (!Splitter.Split(header, names)) Fail("has an unclosed quote in its column names");
        Columns.assign(names.begin(), names.end());
        FindPositionColumns();
        FindMagnitudeColumn();
        for (const RowFilter& filter : Options.Filters) {
            FilterColumns.push_back(Require(filter.Column));
        }
        Result.Columns = Columns[Ra] + ", " + Columns[Dec] + ", " + Columns[Mag];
    }

    /// Whether a line under the names is one of dashes, or of units: words for a position.
    bool IsDecoration(std::string_view line) {
        if (line.find_first_not_of("-+=|,;\t ") == std::string_view::npos) return true;
        const auto isWord = [](std::string_view field) {
            return !field.empty() && field.find_first_of("0123456789") == std::string_view::npos;
        };
        return Splitter.Split(line, Fields) && Fields.size() == Columns.size() &&
               isWord(Fields[Ra]) && isWord(Fields[Dec]);
    }

    /// The star of a row; false and a reason when it gives none.
    bool ReadRow(std::string_view line, SkyStar& star, RowFault& fault) {
        if (!Splitter.Split(line, Fields)) return Refuse(RowFault::Malformed, fault);
        // Some programs end each row, but not the names, with a delimiter.
        if (Fields.size() == Columns.size() + 1 && Fields.back().empty()) Fields.pop_back();
        if (Fields.size() != Columns.size()) return Refuse(RowFault::Malformed, fault);
        if (!PassesFilters()) return Refuse(RowFault::Filtered, fault);
        if (Fields[Ra].empty() || Fields[Dec].empty()) return Refuse(RowFault::NoPosition, fault);
        if (!ReadPosition(star)) return Refuse(RowFault::BadPosition, fault);
        star.Mag = FieldNumber(Fields[Mag]);
        if (!StoredStar(star)) return Refuse(RowFault::NoMagnitude, fault);
        return true;
    }

    /// Right ascensions all over 0..24 and none beyond: no survey of the sky in degrees has that.
    bool LooksLikeHours() const { return LeastRa < 0.1 && GreatestRa > 23.9 && GreatestRa <= 24; }

    [[noreturn]] void Fail(const std::string& why) const {
        throw ToolFailure(ToolExit::BadInput, Name + ": " + why);
    }

 private:
    static bool Refuse(RowFault reason, RowFault& fault) {
        fault = reason;
        return false;
    }

    /// An exact match comes first, for some tables have both "Gmag" and "gmag".
    std::size_t Find(std::string_view column) const {
        auto found = std::find(Columns.begin(), Columns.end(), column);
        if (found == Columns.end()) {
            found = std::find_if(Columns.begin(), Columns.end(),
                                 [&](const auto& name) { return SameText(name, column); });
        }
        return found == Columns.end() ? noColumn
                                      : static_cast<std::size_t>(found - Columns.begin());
    }

    std::size_t Require(const std::string& column) const {
        const std::size_t found = Find(column);
        if (found == noColumn) Fail("has no column \"" + column + "\"; it has " + ColumnList());
        return found;
    }

    std::string ColumnList() const {
        constexpr std::size_t enough = 30;
        constexpr std::size_t longName = 40;
        std::string list;
        for (std::size_t i = 0; i < std::min(Columns.size(), enough); ++i) {
            list += (i > 0 ? ", " : "") + Columns[i].substr(0, longName);
        }
        // What is no table may hold bytes that a terminal would obey.
        std::replace_if(
            list.begin(), list.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
        return Columns.size() > enough ? list + ", ..." : list;
    }

    void FindPositionColumns() {
        for (const auto& [ra, dec] : positionColumns) {
            const std::string raName = Options.RaColumn.empty() ? ra : Options.RaColumn;
            const std::string decName = Options.DecColumn.empty() ? dec : Options.DecColumn;
            Ra = Find(raName);
            Dec = Find(decName);
            if (Ra != noColumn && Dec != noColumn) return;
        }
        if (!Options.RaColumn.empty()) Require(Options.RaColumn);
        if (!Options.DecColumn.empty()) Require(Options.DecColumn);
        Fail("has no position columns known by name (give --ra-column and --dec-column); it has " +
             ColumnList());
    }

    void FindMagnitudeColumn() {
        if (!Options.MagColumn.empty()) {
            Mag = Require(Options.MagColumn);
            return;
        }
        for (const char* name : magnitudeColumns) {
            Mag = Find(name);
            if (Mag != noColumn) return;
        }
        Fail("has no magnitude column known by name (give --mag-column); it has " + ColumnList());
    }

    bool PassesFilters() const {
        for (std::size_t i = 0; i < FilterColumns.size(); ++i) {
            const RowFilter& filter = Options.Filters[i];
            const std::string_view field = Fields[FilterColumns[i]];
            const double number = std::isnan(filter.Number) ? notANumber : FieldNumber(field);
            bool passes = false;
            if (filter.Comparison == '<') passes = number < filter.Number;
            if (filter.Comparison == '>') passes = number > filter.Number;
            if (filter.Comparison == '=') {
                passes = std::isnan(number) ? field == filter.Value : number == filter.Number;
            }
            if (!passes) return false;
        }
        return true;
    }

    bool ReadPosition(SkyStar& star) {
        const double ra = FieldNumber(Fields[Ra]);
        if (std::isnan(ra)) {
            if (Fields[Ra].find_first_of(":hH ") == std::string_view::npos) return false;
            star.Ra = ParseRA(Fields[Ra]);
        } else if (Options.RaUnit == AngleUnit::Hours) {
            if (ra < 0 || ra > 24) return false;
            star.Ra = ra * 15 * RadiansPerDegree;
        } else {
            if (ra < -180 || ra > 360) return false;
            LeastRa = std::min(LeastRa, ra);
            GreatestRa = std::max(GreatestRa, ra);
            star.Ra = (ra < 0 ? ra + 360 : ra) * RadiansPerDegree;
        }
        const double dec = FieldNumber(Fields[Dec]);
        star.Dec = std::isnan(dec) ? ParseDec(Fields[Dec]) : dec * RadiansPerDegree;
        return star.Ra != InvalidAngle && IsStoredPosition(0, static_cast<float>(star.Dec));
    }

    std::string Name;
    const StarTableOptions& Options;
    FieldSplitter Splitter;
    StarTableResult& Result;
    std::vector<std::string> Columns;
    std::vector<std::size_t> FilterColumns;
    std::size_t Ra = noColumn;
    std::size_t Dec = noColumn;
    std::size_t Mag = noColumn;
    std::vector<std::string_view> Fields;
    double LeastRa = 360;
    double GreatestRa = -180;
};

}  // namespace

bool ParseRowFilter(std::string_view text, RowFilter& filter) {
    const std::size_t at = text.find_first_of("=<>");
    if (at == std::string_view::npos) return false;
    filter.Column = Trim(text.substr(0, at));
    filter.Comparison = text[at];
    filter.Value = Trim(text.substr(at + 1));
    filter.Number = FieldNumber(filter.Value);
    return !filter.Column.empty() && (filter.Comparison == '=' || !std::isnan(filter.Number));
}

const char* RowFaultText(RowFault fault) {
    switch (fault) {
        case RowFault::Malformed:
            return "wrong number of fields, or an unclosed quote";
        case RowFault::TooLong:
            return "line too long";
        case RowFault::Filtered:
            return "left out by --where";
        case RowFault::NoPosition:
            return "no position";
        case RowFault::BadPosition:
            return "position unreadable or out of range";
        case RowFault::NoMagnitude:
            return "no magnitude, or one out of range";
        case RowFault::Count:
            break;
    }
    return "";
}

StarTableResult ReadStarTable(std::FILE* input, const std::string& name, std::uint64_t length,
                              const StarTableOptions& options, const StarSink& sink,
                              ProgressLine& progress) {
    const auto fail = [&](const std::string& why) {
        throw ToolFailure(ToolExit::BadInput, name + ": " + why);
    };
    StarTableResult result;
    LineReader reader(input);
    std::string_view line;
    // The whole reading loop, for the names and the rows alike; false at the end.
    const auto nextLine = [&](bool& tooLong) {
        for (;;) {
            const LineReader::Outcome outcome = reader.Next(line);
            if (outcome == LineReader::Outcome::Failed) {
                ThrowIfStopped();
                fail(SystemErrorText());
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
    TableRows table(line, name, options, result);

    constexpr std::uint64_t rowsBetweenReports = 4096;
    int decorations = 2;  // lines of units and dashes that may still come
    while (nextLine(tooLong)) {
        if (!tooLong && decorations > 0) {
            --decorations;
            if (table.IsDecoration(line)) continue;
            decorations = 0;
        }
        if (result.Rows++ % rowsBetweenReports == 0) {
            progress.Show("Reading " + name, reader.BytesRead(), length, result.Rows);
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
    if (result.Stars == 0) {
        std::string why = "gives no star";
        for (std::size_t i = 0; i < result.Faults.size(); ++i) {
            if (result.Faults[i] == 0) continue;
            why += "; " + GroupedText(result.Faults[i]) +
                   " rows: " + RowFaultText(static_cast<RowFault>(i));
        }
        fail(why);
    }
    result.LooksLikeHours = options.RaUnit == AngleUnit::Automatic && table.LooksLikeHours();
    return result;
}

}  // namespace vestrel
