#include "matching/libQuadFile.h"

#include <algorithm>
#include <bit>
#include <cassert>
#include <cerrno>
#include <cmath>
#include <system_error>

#include "astro/libParallel.h"
#include "matching/libQuadTables.h"
#include "matching/libSkyCells.h"

namespace vestrel {

namespace {

// Numbers are read and written as they are in memory.
static_assert(std::endian::native == std::endian::little, "the file is little-endian");

constexpr std::array<char, 8> magic = {'V', 'Q', 'U', 'A', 'D', 'S', '\r', '\n'};
constexpr std::uint32_t formatVersion = 2;
constexpr std::uint32_t mostBands = 64;

struct FileHead {
    std::array<char, 8> Magic = magic;
    std::uint32_t Version = formatVersion;
    std::uint32_t BandCount = 0;
    std::uint64_t BandsChecksum = 0;
};
static_assert(sizeof(FileHead) == 24 && sizeof(QuadBand) == 64);

std::uint64_t BandsChecksum(const std::vector<QuadBand>& bands) {
    return FastChecksum(bands.data(), bands.size() * sizeof(QuadBand));
}

bool Read(std::FILE* file, void* bytes, std::size_t length) {
    return length == 0 || std::fread(bytes, 1, length, file) == length;
}

/// Whether a band's numbers are consistent and its part lies within a file of this length.
bool IsSound(const QuadBand& band, std::uint64_t fileLength) {
    constexpr std::uint32_t mostRecords = 0x7FFFFFFE;
    constexpr double smallestCell = 2e-4;  // 80 million cells
    if (!(band.CellSize >= smallestCell && band.CellSize <= 4) || band.StarCount > mostRecords ||
        band.QuadCount > mostRecords || band.PlaceBits > 32 || band.OffsetBits > 32) {
        return false;
    }
    const PagedPart& part = band.Part;
    return part.Offset <= fileLength && part.Length <= fileLength &&
           part.Stored() <= fileLength - part.Offset && part.Length == LayoutOf(band).End;
}

std::uint16_t BitsFor(std::uint32_t largest) {
    return static_cast<std::uint16_t>(std::bit_width(largest));
}

/// The step of a ratio, of 1024.
std::uint32_t FineStep(float ratio) {
    return static_cast<std::uint32_t>(std::clamp(static_cast<double>(ratio) * 1024, 0.0, 1023.0));
}

/// The cell of a quad and, in its packed form, the rest of its shape: the last four bits of the
/// ratios 1, 3 and 5, ten bits of the ratios 2 and 4.
struct StoredShape {
    std::uint32_t Cell = 0;
    std::uint32_t Packed = 0;

    explicit StoredShape(const Quad& shape) {
        const std::uint32_t r1 = FineStep(shape.Ratio1);
        const std::uint32_t r3 = FineStep(shape.Ratio3);
        const std::uint32_t r5 = FineStep(shape.Ratio5);
        Cell = ShapeCell(r1 / 16, r3 / 16, r5 / 16);
        Packed = (r1 & 15) | (r3 & 15) << 4 | (r5 & 15) << 8 | FineStep(shape.Ratio2) << 12 |
                 FineStep(shape.Ratio4) << 22;
    }
};

/// Writes the lowest `bits` bits of a number from bit `at` on; they must be 0 before.
void PutBits(unsigned char* bytes, std::size_t at, std::size_t bits, std::uint32_t value) {
    while (bits > 0) {
        const std::size_t piece = std::min(8 - at % 8, bits);
        const std::uint32_t part = value & ((1U << piece) - 1);
        bytes[at / 8] = static_cast<unsigned char>(bytes[at / 8] | part << at % 8);
        value >>= piece;
        at += piece;
        bits -= piece;
    }
}

/// Sorts the numbers 0..count−1 by their cell, `cellOf(number)`; numbers of the same cell keep
/// their order.
template <typename CellOf>
void SortByCell(std::size_t count, std::uint32_t cells, CellOf cellOf,
                std::vector<std::uint32_t>& starts, std::vector<std::uint32_t>& order) {
    starts.assign(std::size_t{cells} + 1, 0);
    for (std::size_t i = 0; i < count; ++i) ++starts[cellOf(i) + 1];
    for (std::size_t cell = 0; cell < cells; ++cell) starts[cell + 1] += starts[cell];
    order.resize(count);
    std::vector<std::uint32_t> next(starts.begin(), starts.end() - 1);
    for (std::size_t i = 0; i < count; ++i) {
        order[next[cellOf(i)]++] = static_cast<std::uint32_t>(i);
    }
}

/// Orders the stars by their cells, and puts their new indices, rising, into the quads.
/// @return the first star of each cell, and the end
std::vector<std::uint32_t> OrderByPlace(QuadList& list, const SkyCells& cells) {
    std::vector<std::uint32_t> starts;
    std::vector<std::uint32_t> order;
    SortByCell(
        list.Stars.size(), cells.Count(),
        [&](std::size_t i) { return cells.CellOf(PositionOf(list.Stars[i])); }, starts, order);
    std::vector<std::int32_t> places(order.size());
    std::vector<CatalogStar> stars;
    stars.reserve(order.size());
    for (const std::uint32_t star : order) {
        places[star] = static_cast<std::int32_t>(stars.size());
        stars.push_back(list.Stars[star]);
    }
    list.Stars = std::move(stars);
    for (auto& quad : list.Quads) {
        for (std::int32_t& star : quad) star = places[static_cast<std::size_t>(star)];
        std::sort(quad.begin(), quad.end());
    }
    return starts;
}

/// The shapes of a list's quads. Quads without a shape belong to a cell beyond the last.
struct ListShapes {
    std::vector<std::uint32_t> Cells;
    std::vector<std::uint32_t> Packed;
    std::size_t Last = 0;        ///< the quad with the greatest key
    std::uint32_t Farthest = 0;  ///< the largest distance of a star's index from that of its quad's
                                 ///< first star

    explicit ListShapes(const QuadList& list)
        : Cells(list.Quads.size(), ShapeCells), Packed(list.Quads.size()) {
        std::vector<Direction> directions;
        directions.reserve(list.Stars.size());
        for (const CatalogStar& star : list.Stars) {
            directions.push_back(DirectionOf(PositionOf(star)));
        }
        const auto at = [&](std::int32_t place) {
            return directions[static_cast<std::size_t>(place)];
        };
        constexpr int pieces = 64;
        struct Extremes {
            std::size_t Last = 0;
            float GreatestKey = -1;
            std::uint32_t Farthest = 0;
        };
        std::array<Extremes, pieces> extremes{};
        ParallelFor(pieces, [&](int piece) {
            const auto n = static_cast<std::size_t>(piece);
            Extremes& own = extremes[n];
            const std::size_t end = list.Quads.size() * (n + 1) / pieces;
            for (std::size_t i = list.Quads.size() * n / pieces; i < end; ++i) {
                const auto& quad = list.Quads[i];
                const Quad shape =
                    QuadOfDirections({at(quad[0]), at(quad[1]), at(quad[2]), at(quad[3])});
                if (!(shape.QuadKey >= 0)) continue;
                const StoredShape stored(shape);
                Cells[i] = stored.Cell;
                Packed[i] = stored.Packed;
                own.Farthest =
                    std::max(own.Farthest, static_cast<std::uint32_t>(quad[3] - quad[0]));
                if (shape.QuadKey >= own.GreatestKey) {
                    own.GreatestKey = shape.QuadKey;
                    own.Last = i;
                }
            }
        });
        float greatest = -1;
        for (const Extremes& own : extremes) {
            Farthest = std::max(Farthest, own.Farthest);
            if (own.GreatestKey < 0 || own.GreatestKey < greatest) continue;
            greatest = own.GreatestKey;
            Last = own.Last;
        }
    }
};

[[noreturn]] void ThrowLastError(const char* what) {
    throw std::system_error(errno != 0 ? errno : EIO, std::generic_category(), what);
}

}  // namespace

std::uint32_t ShapeStep(double ratio) {
    return static_cast<std::uint32_t>(std::clamp(ratio * ShapeSteps, 0.0, ShapeSteps - 1.0));
}

QuadLayout LayoutOf(const QuadBand& band) {
    const auto pages = [](std::uint64_t bytes) {
        return (bytes + PageBytes - 1) / PageBytes * PageBytes;
    };
    QuadLayout layout;
    layout.QuadStarBytes = (band.PlaceBits + 3U * band.OffsetBits + 7) / 8;
    layout.Stars = pages((std::uint64_t{SkyCells(band.CellSize).Count()} + 1) * 4);
    layout.QuadStarts = layout.Stars + pages(std::uint64_t{band.StarCount} * CatalogRecordBytes);
    layout.Shapes = layout.QuadStarts + pages((std::uint64_t{ShapeCells} + 1) * 4);
    layout.QuadStars = layout.Shapes + pages(std::uint64_t{band.QuadCount} * 4);
    layout.End = layout.QuadStars + pages(std::uint64_t{band.QuadCount} * layout.QuadStarBytes);
    return layout;
}

FileHandle OpenQuadFile(const std::filesystem::path& path) {
    // Opening a pipe would block.
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
        fault = "is of another version: vestrel-catalog quads makes it anew";
        return false;
    }
    std::vector<QuadBand> read(std::min(head.BandCount, mostBands));
    const bool good = head.BandCount <= mostBands &&
                      Read(file, read.data(), read.size() * sizeof(QuadBand)) &&
                      BandsChecksum(read) == head.BandsChecksum &&
                      std::all_of(read.begin(), read.end(), [length](const QuadBand& band) {
                          return IsSound(band, static_cast<std::uint64_t>(length));
                      });
    if (!good) {
        fault = "is damaged";
        return false;
    }
    bands = std::move(read);
    return true;
}

std::string FaultOfQuadFile(const std::filesystem::path& path) {
    std::error_code ignored;
    if (!std::filesystem::exists(path, ignored)) return {};
    const FileHandle file = OpenQuadFile(path);
    if (!file) return "cannot be read";
    std::vector<QuadBand> bands;
    std::string fault;
    if (!ReadQuadBands(file.get(), bands, fault)) return fault;
    try {
        for (const QuadBand& band : bands) {
            FileHandle again = OpenQuadFile(path);
            if (!again) return "cannot be read";
            QuadTables(std::move(again), band).Check();
        }
    } catch (const DamagedFile& damage) {
        return damage.what();
    }
    return {};
}

QuadFileWriter::QuadFileWriter(const std::filesystem::path& path, std::uint32_t bandCount)
    : file_(path), bandCount_(bandCount), end_(sizeof(FileHead) + bandCount * sizeof(QuadBand)) {
    // The head is written last; until then zeros keep its place.
    const std::vector<char> place(end_);
    Write(place.data(), place.size());
}

void QuadFileWriter::Add(double smallestDiagonal, double largestDiagonal, QuadList list) {
    QuadBand band;
    band.SmallestDiagonal = smallestDiagonal;
    band.LargestDiagonal = largestDiagonal;
    // About as large as a field, so that a search reads few cells.
    band.CellSize = std::clamp((smallestDiagonal + largestDiagonal) / 2, 1e-3, 0.3);
    const std::vector<std::uint32_t> starStarts = OrderByPlace(list, SkyCells(band.CellSize));
    const ListShapes shapes(list);
    band.StarCount = static_cast<std::uint32_t>(list.Stars.size());
    band.PlaceBits = BitsFor(band.StarCount);
    band.OffsetBits = BitsFor(shapes.Farthest);

    std::vector<std::uint32_t> quadStarts;
    std::vector<std::uint32_t> quads;
    SortByCell(
        list.Quads.size(), ShapeCells + 1, [&](std::size_t i) { return shapes.Cells[i]; },
        quadStarts, quads);
    quadStarts.pop_back();
    quads.resize(quadStarts.back());
    band.QuadCount = quadStarts.back();
    const auto last = std::find(quads.begin(), quads.end(), shapes.Last);
    if (last != quads.end()) band.LastQuad = static_cast<std::uint32_t>(last - quads.begin()) + 1;

    Append(starStarts.data(), starStarts.size() * 4);
    EndList();
    for (const CatalogStar& star : list.Stars) {
        const auto record = EncodeCatalogStar(star);
        Append(record.data(), record.size());
    }
    EndList();
    Append(quadStarts.data(), quadStarts.size() * 4);
    EndList();
    for (const std::uint32_t quad : quads) Append(&shapes.Packed[quad], 4);
    EndList();
    const QuadLayout layout = LayoutOf(band);
    for (const std::uint32_t number : quads) {
        const auto& quad = list.Quads[number];
        std::array<unsigned char, 16> bytes{};
        PutBits(bytes.data(), 0, band.PlaceBits, static_cast<std::uint32_t>(quad[0]));
        for (std::size_t k = 1; k < quad.size(); ++k) {
            PutBits(bytes.data(), band.PlaceBits + (k - 1) * band.OffsetBits, band.OffsetBits,
                    static_cast<std::uint32_t>(quad[k] - quad[0]));
        }
        Append(bytes.data(), layout.QuadStarBytes);
    }
    EndList();
    assert(partLength_ == layout.End);
    band.Part = EndPart();
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

void QuadFileWriter::Append(const void* bytes, std::size_t length) {
    const auto* from = static_cast<const unsigned char*>(bytes);
    while (length > 0) {
        const std::size_t piece = std::min(length, PageBytes - page_.size());
        page_.insert(page_.end(), from, from + piece);
        from += piece;
        length -= piece;
        if (page_.size() == PageBytes) EndPage();
    }
}

void QuadFileWriter::EndPage() {
    checksums_.push_back(FastChecksum(page_.data(), page_.size()));
    Write(page_.data(), page_.size());
    partLength_ += page_.size();
    page_.clear();
}

void QuadFileWriter::EndList() {
    if (page_.empty()) return;
    page_.resize(PageBytes);
    EndPage();
}

PagedPart QuadFileWriter::EndPart() {
    const std::size_t bytes = checksums_.size() * sizeof(std::uint64_t);
    const PagedPart part{end_, partLength_, FastChecksum(checksums_.data(), bytes)};
    Write(checksums_.data(), bytes);
    end_ += part.Stored();
    checksums_.clear();
    partLength_ = 0;
    return part;
}

void QuadFileWriter::Write(const void* bytes, std::size_t length) {
    if (length == 0) return;
    errno = 0;
    if (std::fwrite(bytes, 1, length, file_.Stream()) != length) ThrowLastError("Cannot write");
}

}  // namespace vestrel
