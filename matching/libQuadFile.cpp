#include "matching/libQuadFile.h"

#include <algorithm>
#include <bit>
#include <cassert>
#include <cerrno>
#include <numeric>
#include <system_error>
#include <utility>

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

/// The stars that a table gets, in the order in which it has them.
struct OrderedStars {
    std::vector<std::uint32_t> Starts;   ///< the first star of each cell, and the end
    std::vector<std::uint32_t> Order;    ///< their indices in the draft
    std::vector<std::uint32_t> Numbers;  ///< of all stars of the draft: where they come in `Order`
};

/// Orders the stars by their cells; stars of the same cell keep their order.
OrderedStars OrderByPlace(const QuadDraft& draft, const SkyCells& cells) {
    OrderedStars ordered;
    std::vector<std::uint32_t> cellOf(draft.Stars.size());
    ordered.Starts.assign(std::size_t{cells.Count()} + 1, 0);
    for (std::size_t star = 0; star < draft.Stars.size(); ++star) {
        if (!draft.InTable[star]) continue;
        cellOf[star] = cells.CellOf(PositionOf(draft.Stars[star]));
        ++ordered.Starts[cellOf[star] + 1];
    }
    std::partial_sum(ordered.Starts.begin(), ordered.Starts.end(), ordered.Starts.begin());
    ordered.Order.resize(ordered.Starts.back());
    std::vector<std::uint32_t> next(ordered.Starts.begin(), ordered.Starts.end() - 1);
    ordered.Numbers = std::move(cellOf);
    for (std::size_t star = 0; star < draft.Stars.size(); ++star) {
        if (!draft.InTable[star]) continue;
        const std::uint32_t number = next[ordered.Numbers[star]]++;
        ordered.Order[number] = static_cast<std::uint32_t>(star);
        ordered.Numbers[star] = number;
    }
    return ordered;
}

[[noreturn]] void ThrowLastError(const char* what) {
    throw std::system_error(errno != 0 ? errno : EIO, std::generic_category(), what);
}

}  // namespace

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

void QuadFileWriter::Add(double smallestDiagonal, double largestDiagonal, QuadDraft draft) {
    QuadBand band;
    band.SmallestDiagonal = smallestDiagonal;
    band.LargestDiagonal = largestDiagonal;
    // About as large as a field, so that a search reads few cells.
    band.CellSize = std::clamp((smallestDiagonal + largestDiagonal) / 2, 1e-3, 0.3);
    OrderedStars stars = OrderByPlace(draft, SkyCells(band.CellSize));
    draft.Quads.Finish(stars.Numbers);
    stars.Numbers = {};
    band.StarCount = static_cast<std::uint32_t>(stars.Order.size());
    band.QuadCount = draft.Quads.Count();
    band.LastQuad = draft.Quads.Last();
    band.PlaceBits = BitsFor(band.StarCount);
    band.OffsetBits = BitsFor(draft.Quads.Farthest());

    Append(stars.Starts.data(), stars.Starts.size() * 4);
    EndList();
    for (const std::uint32_t star : stars.Order) {
        const auto record = EncodeCatalogStar(draft.Stars[star]);
        Append(record.data(), record.size());
    }
    EndList();
    Append(draft.Quads.Starts().data(), draft.Quads.Starts().size() * 4);
    EndList();
    draft.Quads.ForEach([this](const QuadEntry& quad) { Append(&quad.Shape, 4); });
    EndList();
    const QuadLayout layout = LayoutOf(band);
    draft.Quads.ForEach([&](const QuadEntry& quad) {
        std::array<unsigned char, 16> bytes{};
        BitWriter bits(bytes.data());
        bits.Put(quad.Stars[0], band.PlaceBits);
        for (std::size_t k = 1; k < quad.Stars.size(); ++k) {
            bits.Put(quad.Stars[k] - quad.Stars[0], band.OffsetBits);
        }
        bits.End();
        Append(bytes.data(), layout.QuadStarBytes);
    });
    EndList();
    assert(partLength_ == layout.End);
    band.Part = EndPart();
    bands_.push_back(band);
}

void QuadFileWriter::Add(double smallestDiagonal, double largestDiagonal, const QuadList& list) {
    const auto count = static_cast<std::uint32_t>(list.Stars.size());
    QuadDraft draft{list.Stars, std::vector<bool>(count, true), PackedQuads(count)};
    for (const auto& quad : list.Quads) {
        std::array<std::uint32_t, 4> stars{};
        std::array<Direction, 4> directions{};
        for (std::size_t k = 0; k < quad.size(); ++k) {
            stars[k] = static_cast<std::uint32_t>(quad[k]);
            directions[k] = DirectionOf(PositionOf(list.Stars[stars[k]]));
        }
        if (const auto entry = QuadEntryOf(stars, directions)) draft.Quads.Add({&*entry, 1});
    }
    Add(smallestDiagonal, largestDiagonal, std::move(draft));
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
