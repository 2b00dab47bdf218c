#include "catalogtool/libIndexFile.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <numbers>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "astro/libStrings.h"
#include "catalogtool/libFastStars.h"
#include "catalogtool/libFitsFile.h"
#include "catalogtool/libStarColumns.h"
#include "platform/libFiles.h"
#include "platform/libPlatform.h"

namespace vestrel {

namespace {

constexpr std::size_t packedBytes = 12;  // three 32-bit integers
constexpr std::size_t doubleBytes = 24;  // three doubles
constexpr std::size_t rangeBytes = 8;    // a double

/// The names of proper motions in surveys; upper and lower case are the same.
constexpr std::array motionColumns = {std::pair{"pmra", "pmdec"}, std::pair{"pmra", "pmde"},
                                      std::pair{"pm_ra", "pm_dec"}};

/// The names of magnitudes in surveys, those of visual bands first.
constexpr std::array magnitudeColumns = {"MAG_VT", "phot_g_mean_mag", "mag",  "mag_g", "VMAG",
                                         "RMAG",   "R_MAG",           "JMAG", "J_MAG", "J"};

std::uint64_t LittleEndian(const unsigned char* bytes, std::size_t count) {
    std::uint64_t value = 0;
    for (std::size_t i = count; i-- > 0;) value = value << 8 | bytes[i];
    return value;
}

/// Requires that a file is not compressed, as the library would unpack it into memory, however
/// large it is. @return its path
const std::filesystem::path& RequirePlain(const std::filesystem::path& path) {
    const auto fail = [&](const std::string& why) {
        throw ToolFailure(ToolExit::BadInput, TextFromPath(path) + ": " + why);
    };
    const FileHandle plain = OpenFile(path, "rb");
    if (!plain) fail("cannot be opened: " + SystemErrorText());
    std::array<char, 10> start{};
    if (std::fread(start.data(), 1, start.size(), plain.get()) != start.size() ||
        std::string_view(start.data(), 9) != "SIMPLE  =") {
        fail("is not a FITS file");
    }
    return path;
}

class IndexFile : public FitsFile {
 public:
    explicit IndexFile(const std::filesystem::path& path)
        : FitsFile(RequirePlain(path), TextFromPath(path)) {
        int status = 0;
        fits_get_num_hdus(Handle(), &tableCount_, &status);
        Check(status, "list its tables");
    }

    /// The text of a card of the first header; empty when it is missing.
    std::string Card(const char* keyword) {
        std::array<char, FLEN_VALUE> value{};
        int status = 0;
        fits_movabs_hdu(Handle(), 1, nullptr, &status);
        fits_read_key(Handle(), TSTRING, keyword, value.data(), nullptr, &status);
        return status == 0 ? value.data() : "";
    }

    /// A whole number of the first header; `otherwise` when it is missing.
    int Number(const char* keyword, int otherwise) {
        int value = 0;
        int status = 0;
        fits_movabs_hdu(Handle(), 1, nullptr, &status);
        fits_read_key(Handle(), TINT, keyword, &value, nullptr, &status);
        return status == 0 ? value : otherwise;
    }

    /// The table of a column and its number there, from 1. Table 0 when there is none.
    struct Column {
        int Table = 0;
        int Number = 0;
    };
    Column Find(const char* name) {
        for (int table = 2; table <= tableCount_; ++table) {
            int status = 0;
            fits_movabs_hdu(Handle(), table, nullptr, &status);
            Check(status, "read header " + std::to_string(table));
            Column column{table, 0};
            std::array<char, FLEN_VALUE> copy{};
            std::string(name).copy(copy.data(), copy.size() - 1);
            fits_get_colnum(Handle(), CASEINSEN, copy.data(), &column.Number, &status);
            fits_clear_errmsg();
            if (status == 0) return column;
        }
        return {};
    }

    /// The name and the unit of a column, as the file has them.
    std::string NameOf(const Column& column) { return ColumnCard("TTYPE", column); }
    std::string UnitOf(const Column& column) { return ColumnCard("TUNIT", column); }

    int TableNumber(const char* column) {
        const Column found = Find(column);
        if (found.Table == 0) {
            Fail("has no table \"" + std::string(column) +
                 "\"; is it an index file of Astrometry.net?");
        }
        return found.Table;
    }

    /// Moves to a table.
    struct Table {
        std::size_t RowBytes = 0;
        std::uint64_t Rows = 0;
    };
    Table Open(int number) {
        LONGLONG length = 0;
        LONGLONG rows = 0;
        int status = 0;
        fits_movabs_hdu(Handle(), number, nullptr, &status);
        fits_read_key(Handle(), TLONGLONG, "NAXIS1", &length, nullptr, &status);
        fits_get_num_rowsll(Handle(), &rows, &status);
        Check(status, "open table " + std::to_string(number));
        if (length < 0 || rows < 0) Fail("has a table of an impossible size");
        return {static_cast<std::size_t>(length), static_cast<std::uint64_t>(rows)};
    }

    /// Raw bytes of the current table, from a row (0-based) on.
    void ReadBytes(std::uint64_t row, std::vector<unsigned char>& bytes) {
        int status = 0;
        fits_read_tblbytes(Handle(), static_cast<LONGLONG>(row) + 1, 1,
                           static_cast<LONGLONG>(bytes.size()), bytes.data(), &status);
        Check(status, "read its stars");
    }

    /// Numbers of a column of the current table; NaN where none is stored.
    void ReadFloats(int column, std::uint64_t row, std::vector<float>& values) {
        int status = 0;
        fits_read_col(Handle(), TFLOAT, column, static_cast<LONGLONG>(row) + 1, 1,
                      static_cast<LONGLONG>(values.size()), nullptr, values.data(), nullptr,
                      &status);
        Check(status, "read its columns");
    }

 private:
    std::string ColumnCard(const char* keyword, const Column& column) {
        std::array<char, FLEN_VALUE> value{};
        int status = 0;
        fits_movabs_hdu(Handle(), column.Table, nullptr, &status);
        fits_read_key(Handle(), TSTRING, (keyword + std::to_string(column.Number)).c_str(),
                      value.data(), nullptr, &status);
        fits_clear_errmsg();
        return status == 0 ? std::string(Trim(value.data())) : "";
    }

    int tableCount_ = 0;
};

/// How the stars are stored: as doubles, or as integers with coordinate = Minimum + integer /
/// Scale.
struct Coordinates {
    bool Doubles = false;
    std::array<double, 3> Minimum{};
    double Scale = 0;

    double Read(const unsigned char* star, std::size_t axis) const {
        if (Doubles) return std::bit_cast<double>(LittleEndian(star + 8 * axis, 8));
        return Minimum[axis] + static_cast<double>(LittleEndian(star + 4 * axis, 4)) / Scale;
    }
};

void ReadRange(IndexFile& file, Coordinates& coordinates) {
    constexpr std::size_t numbers = 7;  // three minima, three maxima, the scale
    const IndexFile::Table table = file.Open(file.TableNumber("kdtree_range_stars"));
    if (table.RowBytes != rangeBytes || table.Rows != numbers) {
        file.Fail("does not give the range of three coordinates");
    }
    std::vector<unsigned char> bytes(numbers * rangeBytes);
    file.ReadBytes(0, bytes);
    std::array<double, numbers> values{};
    for (std::size_t i = 0; i < numbers; ++i) {
        values[i] = std::bit_cast<double>(LittleEndian(&bytes[i * rangeBytes], rangeBytes));
        if (!std::isfinite(values[i])) file.Fail("gives a coordinate range that is no number");
    }
    if (!(values[6] > 0)) file.Fail("gives a coordinate scale that is not above 0");
    coordinates.Minimum = {values[0], values[1], values[2]};
    coordinates.Scale = values[6];
}

/// The position of one star; false when it does not lie on the unit sphere.
bool ReadPosition(const unsigned char* bytes, const Coordinates& coordinates, SkyStar& star) {
    std::array<double, 3> vector{};
    for (std::size_t axis = 0; axis < 3; ++axis) vector[axis] = coordinates.Read(bytes, axis);
    const double equatorial = std::hypot(vector[0], vector[1]);
    const double length = std::hypot(equatorial, vector[2]);
    if (!(std::fabs(length - 1) < 1e-3)) return false;
    // Both arctangents use ratios, so the vector need not be normalised.
    star.Ra = std::atan2(vector[1], vector[0]);
    if (star.Ra < 0) star.Ra += 2 * std::numbers::pi;
    star.Dec = std::atan2(vector[2], equatorial);
    return true;
}

/// The column of magnitudes: the one with the given name, else with a usual name, else none.
IndexFile::Column MagnitudeColumn(IndexFile& file, const std::string& wanted, std::string& name) {
    if (!wanted.empty()) {
        name = wanted;
        const IndexFile::Column column = file.Find(wanted.c_str());
        if (column.Table == 0) file.Fail("has no column \"" + wanted + "\"");
        return column;
    }
    for (const char* usual : magnitudeColumns) {
        name = usual;
        const IndexFile::Column column = file.Find(usual);
        if (column.Table != 0) return column;
    }
    name.clear();
    return {};
}

/// Makes magnitudes from ranks: an index lists the brightest star of each cell of the sky, then the
/// second ones, and so on ("sweep").
class RankMagnitudes {
 public:
    RankMagnitudes(IndexFile& file, std::uint64_t count) : column_(file.Find("sweep")) {
        if (column_.Table == 0) file.Fail("has neither magnitudes known by name nor ranks");
        if (file.Open(column_.Table).Rows != count) file.Fail("has not as many ranks as stars");
        std::vector<std::uint64_t> stars(256);
        Read(file, count, [&](std::size_t rank) { ++stars[rank]; });
        const int sides = file.Number("HPNSIDE", 0);
        const bool whole = file.Number("HEALPIX", -1) < 0 || sides < 1;
        constexpr double skyDegrees = 41253;
        const double area = whole ? skyDegrees : skyDegrees / 12 / sides / sides;
        double before = 0;
        for (const std::uint64_t n : stars) {
            const auto here = static_cast<double>(n);
            // A square degree has about 30 stars down to magnitude 11.5, and the logarithm of their
            // number grows by 0.42 per magnitude.
            const double density = std::max(before + here / 2, 0.5) / area;
            magnitudes_.push_back(static_cast<float>(11.5 + std::log10(density / 30) / 0.42));
            before += here;
        }
    }

    /// The magnitudes of the rows from `row` on.
    void ReadFloats(IndexFile& file, std::uint64_t row, std::vector<float>& values) const {
        file.Open(column_.Table);
        file.ReadFloats(column_.Number, row, values);
        for (float& value : values) value = magnitudes_[Rank(value)];
    }

 private:
    static std::size_t Rank(float value) {
        return value >= 0 && value < 256 ? static_cast<std::size_t>(value) : 255;
    }
    template <typename Take>
    void Read(IndexFile& file, std::uint64_t count, Take take) const {
        constexpr std::uint64_t block = 1 << 16;
        std::vector<float> ranks;
        for (std::uint64_t first = 0; first < count; first += block) {
            ranks.resize(static_cast<std::size_t>(std::min(block, count - first)));
            file.ReadFloats(column_.Number, first, ranks);
            for (const float rank : ranks) take(Rank(rank));
        }
    }

    IndexFile::Column column_;
    std::vector<float> magnitudes_;
};

/// The proper motions of an index, if it has any.
class IndexMotions {
 public:
    /// @param gaia whether its magnitudes are Gaia's
    IndexMotions(IndexFile& file, std::uint64_t count, const IndexOptions& options, bool gaia)
        : options_(options) {
        for (const auto& [ra, dec] : motionColumns) {
            columns_ = {file.Find(ra), file.Find(dec), {}};
            if (AreThere()) break;
        }
        if (!AreThere()) return;
        description_ =
            "proper motions " + file.NameOf(columns_[0]) + ", " + file.NameOf(columns_[1]);
        unit_ = MotionUnitOf(file.UnitOf(columns_[0]));
        if (unit_ == 0 || MotionUnitOf(file.UnitOf(columns_[1])) != unit_) {
            description_ += ", in units not known, were not applied";
            columns_ = {};
            return;
        }
        description_ += " applied from ";
        if (!options.FileEpoch) columns_[2] = file.Find("ref_epoch");
        epoch_ = options.FileEpoch.value_or(gaia ? GaiaIndexEpoch : OtherIndexEpoch);
        if (columns_[2].Table != 0) {
            description_ += "ref_epoch";
        } else {
            description_ += NumberText(epoch_);
            if (!options.FileEpoch) {
                description_ += " (supposed: --table-epoch YEAR says otherwise)";
            }
        }
        for (const IndexFile::Column& column : columns_) {
            if (column.Table != 0 && file.Open(column.Table).Rows != count) {
                file.Fail("has not as many proper motions as stars");
            }
        }
    }

    /// What was found, in words; empty when there are none.
    const std::string& Description() const { return description_; }

    /// Reads the motions of `count` rows from `row` on.
    void Read(IndexFile& file, std::uint64_t row, std::size_t count) {
        for (std::size_t i = 0; i < columns_.size(); ++i) {
            if (columns_[i].Table == 0) continue;
            values_[i].resize(count);
            file.Open(columns_[i].Table);
            file.ReadFloats(columns_[i].Number, row, values_[i]);
        }
    }

    /// The place at the epoch of the star in a row of those read; nothing when it has no motion.
    std::optional<SkyStar> Moved(const SkyStar& star, std::size_t i) const {
        if (!AreThere()) return FastStarAt(star, options_.Epoch);
        const ProperMotion motion{static_cast<double>(values_[0][i]) * unit_,
                                  static_cast<double>(values_[1][i]) * unit_};
        const double from = columns_[2].Table == 0 ? epoch_ : static_cast<double>(values_[2][i]);
        const bool known = std::fabs(motion.Ra) <= LargestMotion &&
                           std::fabs(motion.Dec) <= LargestMotion && from > 1800 && from < 2200;
        return known ? MovedStar(star, motion, options_.Epoch - from)
                     : FastStarAt(star, options_.Epoch);
    }

 private:
    bool AreThere() const { return columns_[0].Table != 0 && columns_[1].Table != 0; }

    const IndexOptions& options_;
    std::array<IndexFile::Column, 3> columns_;  ///< motions in both directions, epoch
    std::array<std::vector<float>, 3> values_;  ///< of the rows read
    double unit_ = 1;                           ///< milliarcseconds per year
    double epoch_ = 0;
    std::string description_;
};

}  // namespace

IndexStars ReadIndexFile(const std::filesystem::path& file, const IndexOptions& options,
                         const StarSink& sink, ProgressLine& progress) {
    IndexFile index(file);
    // The bytes of 0x01020304 in the order in which the writing machine stored them.
    if (index.Card("ENDIAN") != "04:03:02:01") {
        index.Fail("is not a little-endian Astrometry.net index");
    }
    const int starTable = index.TableNumber("kdtree_data_stars");
    const IndexFile::Table table = index.Open(starTable);
    Coordinates coordinates;
    coordinates.Doubles = table.RowBytes == doubleBytes;
    if (!coordinates.Doubles && table.RowBytes != packedBytes) {
        index.Fail("stores its stars in a way that is not known (" +
                   std::to_string(table.RowBytes) + " bytes each)");
    }
    if (table.Rows == 0) index.Fail("holds no stars");
    if (!coordinates.Doubles) ReadRange(index, coordinates);

    IndexStars result;
    result.Count = table.Rows;
    const IndexFile::Column column = MagnitudeColumn(index, options.MagColumn, result.MagColumn);
    std::optional<RankMagnitudes> ranks;
    if (column.Table == 0) ranks.emplace(index, table.Rows);
    if (!ranks && index.Open(column.Table).Rows != table.Rows) {
        index.Fail("has not as many magnitudes as stars");
    }
    IndexMotions motions(index, table.Rows, options,
                         UpperCase(result.MagColumn) == "PHOT_G_MEAN_MAG");
    result.Motions = motions.Description();

    const std::string task = "Reading " + TextFromPath(file.filename());
    constexpr std::uint64_t blockRows = 65536;
    std::vector<unsigned char> positions;
    std::vector<float> magnitudes;
    for (std::uint64_t first = 0; first < table.Rows; first += blockRows) {
        progress.Show(task, first, table.Rows, first);
        const auto rows = static_cast<std::size_t>(std::min(blockRows, table.Rows - first));
        positions.resize(rows * table.RowBytes);
        magnitudes.resize(rows);
        index.Open(starTable);
        index.ReadBytes(first, positions);
        if (ranks) {
            ranks->ReadFloats(index, first, magnitudes);
        } else {
            index.Open(column.Table);
            index.ReadFloats(column.Number, first, magnitudes);
        }
        motions.Read(index, first, rows);
        for (std::size_t i = 0; i < rows; ++i) {
            SkyStar star;
            if (!ReadPosition(&positions[i * table.RowBytes], coordinates, star)) {
                index.Fail("star " + std::to_string(first + i) + " is not on the unit sphere");
            }
            star.Mag = magnitudes[i];
            const std::optional<SkyStar> moved = motions.Moved(star, i);
            if (moved) ++result.Moved;
            sink(moved.value_or(star));
        }
    }
    return result;
}

}  // namespace vestrel
