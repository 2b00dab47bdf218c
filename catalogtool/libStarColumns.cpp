#include "catalogtool/libStarColumns.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <initializer_list>
#include <utility>

#include "astro/libConversions.h"
#include "astro/libMath.h"
#include "astro/libStrings.h"
#include "catalogtool/libTextLines.h"

namespace vestrel {

namespace {

constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();

using ColumnPairs = std::initializer_list<std::pair<const char*, const char*>>;

// VizieR computes the columns with "_" for J2000 and in degrees, so they come before its others.
constexpr ColumnPairs positionColumns = {{"_RAJ2000", "_DEJ2000"},
                                         {"RAJ2000", "DEJ2000"},
                                         {"ra", "dec"},
                                         {"RA_ICRS", "DE_ICRS"},
                                         {"_RA", "_DE"},
                                         {"RAdeg", "DEdeg"},
                                         {"radeg", "decdeg"},
                                         {"ra_deg", "dec_deg"},
                                         {"ra_j2000", "dec_j2000"},
                                         {"ALPHA_J2000", "DELTA_J2000"},
                                         {"raMean", "decMean"},
                                         {"RAICRS", "DEICRS"},
                                         {"_RA.icrs", "_DE.icrs"},
                                         {"ra", "decl"},
                                         {"alpha", "delta"},
                                         {"right_ascension", "declination"}};
constexpr ColumnPairs motionColumns = {
    {"pmra", "pmdec"}, {"pmRA", "pmDE"}, {"pm_ra", "pm_dec"}, {"pmRAcosDec", "pmDec"}};
constexpr std::initializer_list<const char*> epochColumns = {"ref_epoch"};
constexpr std::initializer_list<const char*> magnitudeColumns = {"Vmag",        "phot_g_mean_mag",
                                                                 "Gmag",        "f.mag",
                                                                 "a.mag",       "VTmag",
                                                                 "Johnson_V",   "Johnson_V (V)",
                                                                 "gmag",        "rmag",
                                                                 "Rmag",        "mag",
                                                                 "magnitude",   "vmag",
                                                                 "gMeanPSFMag", "rMeanPSFMag",
                                                                 "r2mag",       "Jmag",
                                                                 "j_m",         "Hpmag",
                                                                 "mag_auto"};

bool SameText(std::string_view a, std::string_view b) {
    return a == b || UpperCase(a) == UpperCase(b);
}

std::string Listed(std::initializer_list<const char*> names) {
    std::string list;
    for (const char* name : names) list += (list.empty() ? "" : ", ") + std::string(name);
    return list;
}

}  // namespace

double MotionUnitOf(const std::string& text) {
    const std::string unit = UpperCase(text);
    if (unit.empty() || unit.find("MAS") != std::string::npos) return 1;
    if (unit.find("ARCSEC") != std::string::npos || unit.starts_with('"')) return 1000;
    if (unit.find("DEG") != std::string::npos) return 3.6e6;
    return 0;
}

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

void RowCounts::Add(const RowCounts& other) {
    Rows += other.Rows;
    Stars += other.Stars;
    Moved += other.Moved;
    for (std::size_t i = 0; i < Faults.size(); ++i) Faults[i] += other.Faults[i];
    LeastRa = std::min(LeastRa, other.LeastRa);
    GreatestRa = std::max(GreatestRa, other.GreatestRa);
}

void RequireStars(const StarTableResult& result, const std::string& table) {
    if (result.Stars > 0) return;
    std::string why = table + ": gives no star";
    for (std::size_t i = 0; i < result.Faults.size(); ++i) {
        if (result.Faults[i] == 0) continue;
        why += "; " + GroupedText(result.Faults[i]) +
               " rows: " + RowFaultText(static_cast<RowFault>(i));
    }
    throw ToolFailure(ToolExit::BadInput, why);
}

StarColumns::StarColumns(std::vector<std::string> names, std::string table,
                         const StarTableOptions& options)
    : names_(std::move(names)), table_(std::move(table)), options_(options) {
    FindPositionColumns();
    FindMagnitudeColumn();
    FindMotionColumns();
    for (const RowFilter& filter : options_.Filters)
        filterColumns_.push_back(Require(filter.Column));
}

void StarColumns::Fail(const std::string& why) const {
    throw ToolFailure(ToolExit::BadInput, table_ + ": " + why);
}

/// An exact match comes first, because some tables have both "Gmag" and "gmag".
std::size_t StarColumns::Find(std::string_view column) const {
    auto found = std::find(names_.begin(), names_.end(), column);
    if (found == names_.end()) {
        found = std::find_if(names_.begin(), names_.end(),
                             [&](const auto& name) { return SameText(name, column); });
    }
    return found == names_.end() ? NoColumn : static_cast<std::size_t>(found - names_.begin());
}

std::size_t StarColumns::Require(const std::string& column) const {
    const std::size_t found = Find(column);
    if (found == NoColumn) Fail("has no column \"" + column + "\"; it has " + ColumnList());
    return found;
}

std::string StarColumns::ColumnList() const {
    constexpr std::size_t enough = 30;
    constexpr std::size_t longName = 40;
    std::string list;
    for (std::size_t i = 0; i < std::min(names_.size(), enough); ++i) {
        list += (i > 0 ? ", " : "") + names_[i].substr(0, longName);
    }
    // A file that is not a table may hold bytes that a terminal would obey.
    std::replace_if(
        list.begin(), list.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
    return names_.size() > enough ? list + ", ..." : list;
}

void StarColumns::FindPositionColumns() {
    std::string looked;
    for (const auto& [ra, dec] : positionColumns) {
        const std::string raName = options_.RaColumn.empty() ? ra : options_.RaColumn;
        const std::string decName = options_.DecColumn.empty() ? dec : options_.DecColumn;
        ra_ = Find(raName);
        dec_ = Find(decName);
        if (ra_ != NoColumn && dec_ != NoColumn) return;
        looked.append(looked.empty() ? "" : ", ").append(raName).append("/").append(decName);
    }
    if (!options_.RaColumn.empty()) Require(options_.RaColumn);
    if (!options_.DecColumn.empty()) Require(options_.DecColumn);
    Fail("has no position columns known by name (looked for " + looked +
         ", in any case; give --ra-column and --dec-column); it has " + ColumnList());
}

void StarColumns::FindMagnitudeColumn() {
    if (!options_.MagColumn.empty()) {
        mag_ = Require(options_.MagColumn);
        return;
    }
    for (const char* name : magnitudeColumns) {
        mag_ = Find(name);
        if (mag_ != NoColumn) return;
    }
    Fail("has no magnitude column known by name (looked for " + Listed(magnitudeColumns) +
         ", in any case; give --mag-column); it has " + ColumnList());
}

void StarColumns::FindMotionColumns() {
    for (const auto& [ra, dec] : motionColumns) {
        motionRa_ = Find(ra);
        motionDec_ = Find(dec);
        if (motionRa_ != NoColumn && motionDec_ != NoColumn) break;
        motionRa_ = motionDec_ = NoColumn;
    }
    const std::string& position = names_[ra_];
    if (options_.TableEpoch) {
        sourceEpoch_ = *options_.TableEpoch;
        return;
    }
    // VizieR's J2000 columns are for epoch 2000, whatever the other columns are.
    if (position.find("2000") != std::string::npos) return;
    for (const char* name : epochColumns) {
        epochColumn_ = Find(name);
        if (epochColumn_ != NoColumn) return;
    }
    if (SameText(position, "RA_ICRS")) {
        sourceEpoch_ = 2016;  // Gaia's third release
    } else if (SameText(position, "RAICRS")) {
        sourceEpoch_ = 1991.25;  // Hipparcos
    }
    epochIsAssumed_ = true;
}

void StarColumns::SetUnits(const std::vector<std::string>& units) {
    if (motionRa_ == NoColumn || motionRa_ >= units.size() || motionDec_ >= units.size()) return;
    motionUnit_ = MotionUnitOf(units[motionRa_]);
    // Different units mean seconds of time and of arc, as in old tables: then the motions are not
    // used.
    if (MotionUnitOf(units[motionDec_]) != motionUnit_) motionUnit_ = 0;
}

bool StarColumns::IsUsed(std::size_t column) const {
    return column == ra_ || column == dec_ || column == mag_ || column == motionRa_ ||
           column == motionDec_ || column == epochColumn_ ||
           std::find(filterColumns_.begin(), filterColumns_.end(), column) != filterColumns_.end();
}

bool StarColumns::PassesFilters(const TableRow& row) const {
    for (std::size_t i = 0; i < filterColumns_.size(); ++i) {
        const RowFilter& filter = options_.Filters[i];
        const double number =
            std::isnan(filter.Number) ? notANumber : row.Number(filterColumns_[i]);
        bool passes = false;
        if (filter.Comparison == '<') passes = number < filter.Number;
        if (filter.Comparison == '>') passes = number > filter.Number;
        if (filter.Comparison == '=') {
            passes = std::isnan(number) ? row.Text(filterColumns_[i]) == filter.Value
                                        : number == filter.Number;
        }
        if (!passes) return false;
    }
    return true;
}

bool StarColumns::ReadPosition(const TableRow& row, SkyStar& star, RowCounts& counts) const {
    const double ra = row.Number(ra_);
    if (std::isnan(ra)) {
        const std::string_view text = row.Text(ra_);
        if (text.find_first_of(":hH ") == std::string_view::npos) return false;
        star.Ra = ParseRA(text);
    } else if (options_.RaUnit == AngleUnit::Hours) {
        if (ra < 0 || ra > 24) return false;
        star.Ra = ra * 15 * RadiansPerDegree;
    } else {
        if (ra < -180 || ra > 360) return false;
        counts.LeastRa = std::min(counts.LeastRa, ra);
        counts.GreatestRa = std::max(counts.GreatestRa, ra);
        star.Ra = (ra < 0 ? ra + 360 : ra) * RadiansPerDegree;
    }
    const double dec = row.Number(dec_);
    star.Dec = std::isnan(dec) ? ParseDec(row.Text(dec_)) : dec * RadiansPerDegree;
    return star.Ra != InvalidAngle && IsStoredPosition(0, static_cast<float>(star.Dec));
}

void StarColumns::Move(const TableRow& row, SkyStar& star, RowCounts& counts) const {
    if (motionRa_ == NoColumn || motionUnit_ == 0) return;
    const ProperMotion motion{row.Number(motionRa_) * motionUnit_,
                              row.Number(motionDec_) * motionUnit_};
    const bool known =
        std::fabs(motion.Ra) <= LargestMotion && std::fabs(motion.Dec) <= LargestMotion;
    const double epoch = epochColumn_ == NoColumn ? sourceEpoch_ : row.Number(epochColumn_);
    if (!known || !(epoch > 1800 && epoch < 2200)) return;
    star = MovedStar(star, motion, options_.Epoch - epoch);
    ++counts.Moved;
}

bool StarColumns::ReadStar(const TableRow& row, SkyStar& star, RowCounts& counts) const {
    const auto refuse = [&counts](RowFault reason) {
        counts.Refuse(reason);
        return false;
    };
    if (!PassesFilters(row)) return refuse(RowFault::Filtered);
    if (row.Text(ra_).empty() || row.Text(dec_).empty()) return refuse(RowFault::NoPosition);
    if (!ReadPosition(row, star, counts)) return refuse(RowFault::BadPosition);
    star.Mag = row.Number(mag_);
    if (!(star.Mag >= BrightestMagnitude && star.Mag <= FaintestMagnitude)) {
        return refuse(RowFault::NoMagnitude);
    }
    Move(row, star, counts);
    ++counts.Stars;
    return true;
}

void StarColumns::Describe(StarTableResult& result) const {
    result.Columns = names_[ra_] + ", " + names_[dec_] + ", " + names_[mag_];
    // Right ascensions that span 0..24 and no more do not occur in surveys in degrees.
    result.LooksLikeHours = options_.RaUnit == AngleUnit::Automatic && result.LeastRa < 0.1 &&
                            result.GreatestRa > 23.9 && result.GreatestRa <= 24;
    if (motionRa_ == NoColumn) {
        result.Motions = "no proper motions: positions as listed";
    } else if (motionUnit_ == 0) {
        result.Motions = "its proper motions, which are in units not known, were not applied";
    } else {
        result.Motions =
            "proper motions " + names_[motionRa_] + ", " + names_[motionDec_] + " applied from " +
            (epochColumn_ != NoColumn ? names_[epochColumn_] : NumberText(sourceEpoch_));
        if (epochIsAssumed_) result.Motions += " (supposed: --table-epoch YEAR says otherwise)";
    }
}

}  // namespace vestrel
