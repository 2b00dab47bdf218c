#include "matching/libQuadFile.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cassert>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <span>
#include <system_error>

namespace vestrel {

namespace {

// Tables are read and written as they stand in memory.
static_assert(std::endian::native == std::endian::little, "the file is little-endian");

/// A record of the quad star table, without the gap at its end that could hold anything.
struct StoredStar {
    float Ra = 0;
    float Dec = 0;
    std::int16_t Mag = 0;
    std::int16_t Unused = 0;
};
static_assert(sizeof(StoredStar) == 12);

constexpr std::array<char, 8> magic = {'V', 'Q', 'U', 'A', 'D', 'S', '\r', '\n'};
constexpr std::uint32_t formatVersion = 1;
constexpr std::uint32_t mostBands = 64;

struct FileHead {
    std::array<char, 8> Magic = magic;
    std::uint32_t Version = formatVersion;
    std::uint32_t BandCount = 0;
    std::uint64_t BandsChecksum = 0;
};
static_assert(sizeof(FileHead) == 24 && sizeof(QuadBand) == 40);

/// A 64-bit checksum that keeps up with the disk: eight bytes at a time in four lanes, each turned
/// and multiplied (the scheme of the xxHash family). It finds damage, not forgery.
std::uint64_t FastChecksum(const void* data, std::size_t length) {
    constexpr std::uint64_t first = 0x9E3779B185EBCA87;
    constexpr std::uint64_t second = 0xC2B2AE3D27D4EB4F;
    std::array<std::uint64_t, 4> lanes = {first + second, second, 1, length};
    const auto* bytes = static_cast<const unsigned char*>(data);
    const auto mix = [&](std::uint64_t& lane, std::size_t part) {
        std::uint64_t word = 0;
        std::memcpy(&word, bytes, part);
        lane = std::rotl(lane + word * second, 31) * first;
        bytes += part;
        length -= part;
    };
    while (length >= 32) {
        for (std::uint64_t& lane : lanes) mix(lane, 8);
    }
    for (std::size_t lane = 0; length > 0; ++lane)
        mix(lanes[lane], std::min<std::size_t>(length, 8));
    std::uint64_t sum = 0;
    for (const std::uint64_t lane : lanes) sum = (std::rotl(sum, 17) * second) ^ lane;
    return sum ^ (sum >> 32);
}

/// Of the stars and quads that follow each other in the file.
std::uint64_t TablesChecksum(std::span<const StoredStar> stars, std::span<const Quad> quads) {
    return std::rotl(FastChecksum(stars.data(), stars.size_bytes()), 1) ^
           FastChecksum(quads.data(), quads.size_bytes());
}

std::uint64_t BandsChecksum(const std::vector<QuadBand>& bands) {
    return FastChecksum(bands.data(), bands.size() * sizeof(QuadBand));
}

std::uint64_t BandBytes(const QuadBand& band) {
    return std::uint64_t{band.StarCount} * sizeof(StoredStar) +
           std::uint64_t{band.QuadCount} * sizeof(Quad);
}

bool Read(std::FILE* file, void* bytes, std::size_t length) {
    return length == 0 || std::fread(bytes, 1, length, file) == length;
}

/// Whether a search can rely on the tables: keys in rising order, positions that are numbers.
bool AreInOrder(const QuadTables& tables) {
    for (std::size_t i = 1; i < tables.Quads.size(); ++i) {
        const float key = tables.Quads[i].QuadKey;
        if (!(key >= 0) || (i > 1 && !(key >= tables.Quads[i - 1].QuadKey))) return false;
    }
    for (std::size_t i = 1; i < tables.Stars.size(); ++i) {
        if (!std::isfinite(tables.Stars[i].Ra) || !std::isfinite(tables.Stars[i].Dec)) return false;
    }
    return true;
}

[[noreturn]] void ThrowLastError(const char* what) {
    throw std::system_error(errno != 0 ? errno : EIO, std::generic_category(), what);
}

}  // namespace

FileHandle OpenQuadFile(const std::filesystem::path& path) {
    // A pipe would keep its reader waiting.
    std::error_code ignored;
    return std::filesystem::is_regular_file(path, ignored) ? OpenFile(path, "rb") : nullptr;
}

bool ReadQuadBands(std::FILE* file, std::vector<QuadBand>& bands, std::string& fault) {
    bands.clear();
    const std::int64_t length = FileLength(file);
    FileHead head;
    if (length < 0 || !Read(file, &head, sizeof head) || head.Magic != magic) {
        fault = "is no file of quad tables";
        return false;
    }
    if (head.Version != formatVersion) {
        fault = "is of another version: make it again";
        return false;
    }
    std::vector<QuadBand> read(std::min(head.BandCount, mostBands));
    bool good = head.BandCount <= mostBands &&
                Read(file, read.data(), read.size() * sizeof(QuadBand)) &&
                BandsChecksum(read) == head.BandsChecksum;
    for (const QuadBand& band : read) {
        constexpr std::uint32_t mostRecords = 0x7FFFFFFE;
        good = good && band.StarCount <= mostRecords && band.QuadCount <= mostRecords &&
               band.Offset <= static_cast<std::uint64_t>(length) &&
               BandBytes(band) <= static_cast<std::uint64_t>(length) - band.Offset;
    }
    if (!good) {
        fault = "is damaged";
        return false;
    }
    bands = std::move(read);
    return true;
}

bool ReadQuadBand(std::FILE* file, const QuadBand& band, QuadTables& tables, std::string& fault) {
    tables = {};
    QuadTables read;
    std::vector<StoredStar> stars(band.StarCount);
    read.Quads.resize(std::size_t{band.QuadCount} + 1);
    const std::span<Quad> quads = std::span(read.Quads).subspan(1);
    bool good = SeekFile(file, band.Offset) &&
                Read(file, stars.data(), stars.size() * sizeof(StoredStar)) &&
                Read(file, quads.data(), quads.size_bytes()) &&
                TablesChecksum(stars, quads) == band.Checksum;
    if (good) {
        read.Stars.resize(1);
        read.Stars.reserve(stars.size() + 1);
        for (const StoredStar& star : stars) read.Stars.push_back({star.Ra, star.Dec, star.Mag});
        read.StarCount = static_cast<std::int32_t>(band.StarCount);
        read.QuadCount = static_cast<std::int32_t>(band.QuadCount);
        good = AreInOrder(read);
    }
    if (!good) {
        fault = "is damaged";
        return false;
    }
    IndexTables(read);
    tables = std::move(read);
    return true;
}

std::string FaultOfQuadFile(const std::filesystem::path& path) {
    std::error_code ignored;
    if (!std::filesystem::exists(path, ignored)) return {};
    const FileHandle file = OpenQuadFile(path);
    if (!file) return "cannot be read";
    std::vector<QuadBand> bands;
    QuadTables tables;
    std::string fault;
    if (!ReadQuadBands(file.get(), bands, fault)) return fault;
    for (const QuadBand& band : bands) {
        if (!ReadQuadBand(file.get(), band, tables, fault)) return fault;
        const auto lacksStar = [&tables](const Quad& quad) {
            const auto [low, high] = std::minmax({quad.Star1, quad.Star2, quad.Star3, quad.Star4});
            return low < 1 || high > tables.StarCount;
        };
        if (std::any_of(tables.Quads.begin() + 1, tables.Quads.end(), lacksStar)) {
            return "has quads of stars that it lacks";
        }
    }
    return {};
}

QuadFileWriter::QuadFileWriter(const std::filesystem::path& path, std::uint32_t bandCount)
    : file_(path), bandCount_(bandCount), end_(sizeof(FileHead) + bandCount * sizeof(QuadBand)) {
    // The head is known last: until then its place is filled.
    const std::vector<char> place(end_);
    Write(place.data(), place.size());
}

void QuadFileWriter::Add(double smallestDiagonal, double largestDiagonal,
                         const QuadTables& tables) {
    std::vector<StoredStar> stars;
    stars.reserve(static_cast<std::size_t>(tables.StarCount));
    for (const CatalogStar& star : std::span(tables.Stars).subspan(1)) {
        stars.push_back({star.Ra, star.Dec, star.Mag});
    }
    const std::span<const Quad> quads = std::span(tables.Quads).subspan(1);
    QuadBand band;
    band.SmallestDiagonal = smallestDiagonal;
    band.LargestDiagonal = largestDiagonal;
    band.StarCount = static_cast<std::uint32_t>(stars.size());
    band.QuadCount = static_cast<std::uint32_t>(quads.size());
    band.Offset = end_;
    band.Checksum = TablesChecksum(stars, quads);
    Write(stars.data(), stars.size() * sizeof(StoredStar));
    Write(quads.data(), quads.size_bytes());
    end_ += BandBytes(band);
    bands_.push_back(band);
}

void QuadFileWriter::Commit() {
    assert(bands_.size() == bandCount_);
    FileHead head;
    head.BandCount = bandCount_;
    head.BandsChecksum = BandsChecksum(bands_);
    if (!SeekFile(file_.Stream(), 0)) ThrowLastError("Cannot write");
    Write(&head, sizeof head);
    Write(bands_.data(), bands_.size() * sizeof(QuadBand));
    file_.Commit();
}

void QuadFileWriter::Write(const void* bytes, std::size_t length) {
    if (length == 0) return;
    errno = 0;
    if (std::fwrite(bytes, 1, length, file_.Stream()) != length) ThrowLastError("Cannot write");
}

}  // namespace vestrel
