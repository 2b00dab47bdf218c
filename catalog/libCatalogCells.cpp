#include "catalog/libCatalogCells.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <system_error>

#include "astro/libMath.h"
#include "platform/libFiles.h"

namespace vestrel {

namespace {

std::string TwoDigits(std::int64_t number) {
    std::string text = std::to_string(number);
    return text.size() < 2 ? "0" + text : text;
}

std::uint32_t ReadLittleEndian32(const unsigned char* bytes) {
    return bytes[0] | std::uint32_t{bytes[1]} << 8 | std::uint32_t{bytes[2]} << 16 |
           std::uint32_t{bytes[3]} << 24;
}

void WriteLittleEndian32(std::uint32_t value, unsigned char* bytes) {
    for (int i = 0; i < 4; ++i) bytes[i] = static_cast<unsigned char>(value >> (8 * i));
}

}  // namespace

CellPosition CellOf(SkyPosition position) {
    CellPosition cell;
    cell.South = !(position.Dec >= 0);
    const double declination = std::fabs(position.Dec) * DegreesPerRadian;
    // The comparison also catches NaN.
    cell.Zone =
        declination < 90 ? static_cast<int>(std::floor(declination / 2.5)) : ZonesPerHemisphere - 1;
    double degrees = position.Ra * DegreesPerRadian;
    if (degrees < 0) degrees += 360;
    if (degrees > 360) degrees -= 360;
    const double slice = std::floor(degrees / SliceWidth(cell.Zone));
    constexpr double largest = 1e15;
    cell.Slice = std::fabs(slice) < largest ? static_cast<std::int64_t>(slice)
                                            : std::numeric_limits<std::int64_t>::max();
    return cell;
}

std::string CellName(const CellPosition& cell) {
    return (cell.South ? "S" : "N") + TwoDigits(cell.Zone) + "R" + TwoDigits(cell.Slice);
}

double SliceWidth(int zone) {
    // A table, because stars come in no order of zones and comparisons would be mispredicted.
    static constexpr std::array<double, ZonesPerHemisphere> widths = {
        4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4,  4,  5,  5,  5,  5,  5,  5,
        5, 5, 6, 6, 6, 6, 8, 8, 8, 8, 12, 12, 12, 12, 20, 20, 20, 360};
    return widths[static_cast<std::size_t>(zone)];
}

int SlicesInZone(int zone) {
    return static_cast<int>(360 / SliceWidth(zone));
}

bool IsCellName(std::string_view name) {
    const auto digit = [&](std::size_t i) { return name[i] >= '0' && name[i] <= '9'; };
    if (name.size() != 6 || (name[0] != 'N' && name[0] != 'S') || name[3] != 'R') return false;
    if (!digit(1) || !digit(2) || !digit(4) || !digit(5)) return false;
    const int zone = (name[1] - '0') * 10 + (name[2] - '0');
    const int slice = (name[4] - '0') * 10 + (name[5] - '0');
    return zone < ZonesPerHemisphere && slice < SlicesInZone(zone);
}

std::array<unsigned char, CatalogRecordBytes> EncodeCatalogStar(const CatalogStar& star) {
    std::array<unsigned char, CatalogRecordBytes> record{};
    WriteLittleEndian32(std::bit_cast<std::uint32_t>(star.Ra), record.data());
    WriteLittleEndian32(std::bit_cast<std::uint32_t>(star.Dec), record.data() + 4);
    const auto magnitude = static_cast<std::uint16_t>(star.Mag);
    record[8] = static_cast<unsigned char>(magnitude & 0xFF);
    record[9] = static_cast<unsigned char>(magnitude >> 8);
    return record;
}

CatalogStar DecodeCatalogStar(std::span<const unsigned char, CatalogRecordBytes> record) {
    CatalogStar star;
    star.Ra = std::bit_cast<float>(ReadLittleEndian32(record.data()));
    star.Dec = std::bit_cast<float>(ReadLittleEndian32(record.data() + 4));
    star.Mag = static_cast<std::int16_t>(record[8] | record[9] << 8);
    return star;
}

bool ReadDeepCell(const std::filesystem::path& file, const DeepCellFile& found, std::size_t first,
                  std::size_t count, std::vector<CatalogStar>& stars) {
    const FileHandle handle = OpenFile(file, "rb");
    if (!handle) return false;
    std::error_code error;
    DeepCellFile now;
    now.Length = std::filesystem::file_size(file, error);
    if (!error) now.Written = std::filesystem::last_write_time(file, error);
    if (error || !(now == found)) return false;
    const std::size_t all = static_cast<std::size_t>(found.Length) / CatalogRecordBytes;
    count = std::min(count, all - std::min(first, all));
    std::vector<unsigned char> bytes(count * CatalogRecordBytes);
    if (!SeekFile(handle.get(), std::uint64_t{first} * CatalogRecordBytes) ||
        std::fread(bytes.data(), 1, bytes.size(), handle.get()) != bytes.size()) {
        return false;
    }
    for (std::size_t i = 0; i < count; ++i) {
        stars.push_back(DecodeCatalogStar(std::span<const unsigned char, CatalogRecordBytes>(
            bytes.data() + i * CatalogRecordBytes, CatalogRecordBytes)));
    }
    return true;
}

bool IsDeepCell(const std::filesystem::path& file, DeepCellFile& found) {
    constexpr std::size_t fewStars = 8192;  // faster to read whole
    std::error_code error;
    found.Length = std::filesystem::file_size(file, error);
    if (error || found.Length < fewStars * CatalogRecordBytes ||
        found.Length >= (MostStarsInCell + 1) * CatalogRecordBytes) {
        return false;
    }
    found.Written = std::filesystem::last_write_time(file, error);
    if (error) return false;
    const auto built = std::filesystem::last_write_time(file.parent_path() / ManifestName, error);
    if (error || found.Written > built) return false;
    // The last star is checked too: one that was appended later would never be found.
    constexpr std::size_t looks = 16;
    const std::size_t last = static_cast<std::size_t>(found.Length) / CatalogRecordBytes - 1;
    std::vector<CatalogStar> stars;
    for (std::size_t i = 0; i <= looks; ++i) {
        if (!ReadDeepCell(file, found, last * i / looks, 1, stars)) return false;
    }
    return std::is_sorted(stars.begin(), stars.end(),
                          [](const auto& a, const auto& b) { return a.Mag < b.Mag; });
}

bool ReadCellFile(const std::filesystem::path& file, std::vector<CatalogStar>& stars) {
    stars.clear();
    constexpr std::size_t largestCell =
        MostStarsInCell * CatalogRecordBytes + CatalogRecordBytes - 1;
    std::error_code error;
    const std::uintmax_t length = std::filesystem::file_size(file, error);
    if (error || length > largestCell) return false;
    std::vector<unsigned char> bytes;
    if (!ReadWholeFile(file, largestCell, bytes)) return false;
    const std::size_t count = bytes.size() / CatalogRecordBytes;
    stars.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        stars.push_back(DecodeCatalogStar(std::span<const unsigned char, CatalogRecordBytes>(
            bytes.data() + i * CatalogRecordBytes, CatalogRecordBytes)));
    }
    return true;
}

}  // namespace vestrel
