#include "catalogtool/libTycho2.h"

#include <fitsio.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <memory>
#include <numbers>
#include <string>
#include <vector>

#include "platform/libFiles.h"
#include "platform/libPlatform.h"

namespace vestrel {

namespace {

struct FitsCloser {
    void operator()(fitsfile* file) const noexcept {
        int status = 0;
        fits_close_file(file, &status);
    }
};
using FitsHandle = std::unique_ptr<fitsfile, FitsCloser>;

constexpr std::size_t starBytes = 12;  // three 32-bit integers
constexpr std::size_t rangeBytes = 8;  // a double

std::uint64_t LittleEndian(const unsigned char* bytes, std::size_t count) {
    std::uint64_t value = 0;
    for (std::size_t i = count; i-- > 0;) value = value << 8 | bytes[i];
    return value;
}

/// The index file, with every failure of the FITS library turned into one message.
class IndexFile {
 public:
    explicit IndexFile(const std::filesystem::path& path) : Name(TextFromPath(path)) {
        // The library would unpack a compressed file into memory, however large it becomes.
        const FileHandle plain = OpenFile(path, "rb");
        if (!plain) Fail("cannot be opened: " + SystemErrorText());
        std::array<char, 10> start{};
        if (std::fread(start.data(), 1, start.size(), plain.get()) != start.size() ||
            std::string_view(start.data(), 9) != "SIMPLE  =") {
            Fail("is not a FITS file");
        }
        fitsfile* opened = nullptr;
        int status = 0;
        // The "disk file" form reads the name as it stands, brackets and all.
        fits_open_diskfile(&opened, Name.c_str(), READONLY, &status);
        File.reset(opened);
        Check(status, "open it");
        fits_get_num_hdus(File.get(), &TableCount, &status);
        Check(status, "list its tables");
    }

    [[noreturn]] void Fail(const std::string& why) const {
        throw ToolFailure(ExitBadInput, Name + ": " + why);
    }

    /// The text of a header card of the first header; empty when it lacks it.
    std::string Card(const char* keyword) {
        std::array<char, FLEN_VALUE> value{};
        int status = 0;
        fits_movabs_hdu(File.get(), 1, nullptr, &status);
        fits_read_key(File.get(), TSTRING, keyword, value.data(), nullptr, &status);
        return status == 0 ? value.data() : "";
    }

    /// The number of the table whose first column has this name.
    int TableNumber(const std::string& column) {
        for (int number = 2; number <= TableCount; ++number) {
            std::array<char, FLEN_VALUE> value{};
            int status = 0;
            fits_movabs_hdu(File.get(), number, nullptr, &status);
            Check(status, "read header " + std::to_string(number));
            fits_read_key(File.get(), TSTRING, "TTYPE1", value.data(), nullptr, &status);
            if (status == 0 && column == value.data()) return number;
        }
        Fail("has no table \"" + column + "\"; is it a Tycho-2 index?");
    }

    /// Goes to a table and returns its number of rows, which must be `rowBytes` long.
    std::uint64_t OpenTable(int number, std::size_t rowBytes) {
        LONGLONG length = 0;
        LONGLONG rows = 0;
        int status = 0;
        fits_movabs_hdu(File.get(), number, nullptr, &status);
        fits_read_key(File.get(), TLONGLONG, "NAXIS1", &length, nullptr, &status);
        fits_get_num_rowsll(File.get(), &rows, &status);
        Check(status, "open table " + std::to_string(number));
        if (length != static_cast<LONGLONG>(rowBytes) || rows < 0) {
            Fail("table " + std::to_string(number) + " has rows of " + std::to_string(length) +
                 " bytes, not " + std::to_string(rowBytes));
        }
        return static_cast<std::uint64_t>(rows);
    }

    /// Bytes of the current table as they stand in the file, from a row (0-based) on.
    void ReadBytes(std::uint64_t row, std::vector<unsigned char>& bytes) {
        int status = 0;
        fits_read_tblbytes(File.get(), static_cast<LONGLONG>(row) + 1, 1,
                           static_cast<LONGLONG>(bytes.size()), bytes.data(), &status);
        Check(status, "read its stars");
    }

    /// Numbers of the current table's first column, not-a-number where none is stored.
    void ReadFloats(std::uint64_t row, std::vector<float>& values) {
        int status = 0;
        fits_read_col(File.get(), TFLOAT, 1, static_cast<LONGLONG>(row) + 1, 1,
                      static_cast<LONGLONG>(values.size()), nullptr, values.data(), nullptr,
                      &status);
        Check(status, "read its magnitudes");
    }

 private:
    void Check(int status, const std::string& task) const {
        if (status == 0) return;
        std::array<char, FLEN_STATUS> text{};
        fits_get_errstatus(status, text.data());
        fits_clear_errmsg();
        Fail("could not " + task + " (" + text.data() + "); the file may be cut short");
    }

    std::string Name;
    FitsHandle File;
    int TableCount = 0;
};

/// How the integers stand for coordinates: coordinate = Minimum + integer / Scale.
struct CoordinateRange {
    std::array<double, 3> Minimum{};
    double Scale = 0;
};

CoordinateRange ReadRange(IndexFile& file) {
    constexpr std::size_t numbers = 7;  // three minima, three maxima, the scale
    if (file.OpenTable(file.TableNumber("kdtree_range_stars"), rangeBytes) != numbers) {
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
    return {{values[0], values[1], values[2]}, values[6]};
}

/// The position of one star; false when it does not lie on the unit sphere.
bool ReadPosition(const unsigned char* bytes, const CoordinateRange& range, SkyStar& star) {
    std::array<double, 3> vector{};
    for (std::size_t axis = 0; axis < 3; ++axis) {
        const auto integer = static_cast<double>(LittleEndian(bytes + 4 * axis, 4));
        vector[axis] = range.Minimum[axis] + integer / range.Scale;
    }
    const double equatorial = std::hypot(vector[0], vector[1]);
    const double length = std::hypot(equatorial, vector[2]);
    if (!(std::fabs(length - 1) < 1e-3)) return false;
    // Both arctangents take ratios, so that the vector need not be brought to length 1 first.
    star.Ra = std::atan2(vector[1], vector[0]);
    if (star.Ra < 0) star.Ra += 2 * std::numbers::pi;
    star.Dec = std::atan2(vector[2], equatorial);
    return true;
}

}  // namespace

std::uint64_t ReadTycho2Index(const std::filesystem::path& file, const StarSink& sink,
                              ProgressLine& progress) {
    IndexFile index(file);
    // The bytes of 0x01020304 in the order in which the writing machine stored them.
    if (index.Card("ENDIAN") != "04:03:02:01") {
        index.Fail("is not a little-endian Astrometry.net index");
    }
    const CoordinateRange range = ReadRange(index);
    const int starTable = index.TableNumber("kdtree_data_stars");
    const int magnitudeTable = index.TableNumber("MAG_VT");
    const std::uint64_t count = index.OpenTable(starTable, starBytes);
    if (count == 0) index.Fail("holds no stars");
    if (index.OpenTable(magnitudeTable, sizeof(float)) != count) {
        index.Fail("has not as many magnitudes as stars");
    }

    constexpr std::uint64_t blockRows = 65536;
    std::vector<unsigned char> positions;
    std::vector<float> magnitudes;
    for (std::uint64_t first = 0; first < count; first += blockRows) {
        progress.Show("Reading Tycho-2", first, count, first);
        const auto rows = static_cast<std::size_t>(std::min(blockRows, count - first));
        positions.resize(rows * starBytes);
        magnitudes.resize(rows);
        index.OpenTable(starTable, starBytes);
        index.ReadBytes(first, positions);
        index.OpenTable(magnitudeTable, sizeof(float));
        index.ReadFloats(first, magnitudes);
        for (std::size_t i = 0; i < rows; ++i) {
            SkyStar star;
            if (!ReadPosition(&positions[i * starBytes], range, star)) {
                index.Fail("star " + std::to_string(first + i) + " is not on the unit sphere");
            }
            star.Mag = magnitudes[i];
            sink(star);
        }
    }
    return count;
}

}  // namespace vestrel
