#include "catalogtool/libCatalogBuilder.h"

#include <algorithm>
#include <system_error>
#include <tuple>
#include <utility>

#include "platform/libFiles.h"
#include "platform/libPlatform.h"

namespace vestrel {

namespace {

/// Beyond this a cell would need gigabytes to order, and no solver could use it.
constexpr std::uint64_t largestCell = 50'000'000;

std::vector<unsigned char> Encode(const std::vector<CatalogStar>& stars) {
    std::vector<unsigned char> bytes(stars.size() * CatalogRecordBytes);
    for (std::size_t i = 0; i < stars.size(); ++i) {
        const auto record = EncodeCatalogStar(stars[i]);
        std::copy(record.begin(), record.end(), bytes.begin() + i * CatalogRecordBytes);
    }
    return bytes;
}

void WriteBytes(const std::filesystem::path& path, const char* mode,
                const std::vector<unsigned char>& bytes) {
    FileHandle file = OpenFile(path, mode);
    bool good = file != nullptr;
    // An empty list may have no address, which fwrite does not allow.
    good = good && (bytes.empty() ||
                    std::fwrite(bytes.data(), 1, bytes.size(), file.get()) == bytes.size());
    // Closing writes what is still buffered, and so may find the disk full.
    good = good && std::fclose(file.release()) == 0;
    if (!good) {
        throw ToolFailure(ExitCannotWrite, TextFromPath(path) + ": " + SystemErrorText());
    }
}

auto OrderKey(const CatalogStar& star) {
    return std::tuple(star.Mag, star.Dec, star.Ra);
}

}  // namespace

CatalogBuilder::CatalogBuilder(std::filesystem::path folder, std::size_t gatheredStars)
    : Folder(std::move(folder)), Limit(gatheredStars), Gatherings(AllCells().size()) {}

std::filesystem::path CatalogBuilder::FileOf(std::size_t cell) const {
    return Folder / CellName(AllCells()[cell]);
}

void CatalogBuilder::Add(const CatalogStar& star) {
    Gatherings[CellNumber(CellOfStored(star))].Stars.push_back(star);
    if (++Gathered >= Limit) Spill();
}

void CatalogBuilder::Spill() {
    for (std::size_t cell = 0; cell < Gatherings.size(); ++cell) {
        Gathering& gathering = Gatherings[cell];
        if (gathering.Stars.empty()) continue;
        ThrowIfStopped();
        WriteBytes(FileOf(cell), "ab", Encode(gathering.Stars));
        gathering.OnDisk += gathering.Stars.size();
        // Capacity is given back too: an export ordered by position fills other cells next.
        gathering.Stars = {};
    }
    Gathered = 0;
}

std::vector<CatalogStar> CatalogBuilder::TakeCell(std::size_t cell) {
    Gathering& gathering = Gatherings[cell];
    if (gathering.OnDisk + gathering.Stars.size() > largestCell) {
        throw ToolFailure(ExitBadInput, "cell " + CellName(AllCells()[cell]) + " would hold " +
                                            GroupedText(gathering.OnDisk + gathering.Stars.size()) +
                                            " stars, more than a catalog can; try --mag-max");
    }
    std::vector<CatalogStar> stars = std::exchange(gathering.Stars, {});
    if (gathering.OnDisk > 0) {
        const auto path = FileOf(cell);
        std::vector<CatalogStar> spilled;
        if (!ReadCellFile(path, spilled) || spilled.size() != gathering.OnDisk) {
            throw ToolFailure(ExitCannotWrite, TextFromPath(path) + ": changed while in use");
        }
        // Written anew rather than over: ext4 waits for the disk when a file's content is replaced.
        std::error_code ignored;
        std::filesystem::remove(path, ignored);
        spilled.insert(spilled.end(), stars.begin(), stars.end());
        stars.swap(spilled);
    }
    return stars;
}

void CatalogBuilder::Finish(ProgressLine& progress) {
    std::uint64_t written = 0;
    for (std::size_t cell = 0; cell < Gatherings.size(); ++cell) {
        progress.Show("Writing cells", cell, Gatherings.size(), written);
        std::vector<CatalogStar> stars = TakeCell(cell);
        std::sort(stars.begin(), stars.end(), [](const CatalogStar& a, const CatalogStar& b) {
            return OrderKey(a) < OrderKey(b);
        });
        const auto end = std::unique(
            stars.begin(), stars.end(),
            [](const CatalogStar& a, const CatalogStar& b) { return OrderKey(a) == OrderKey(b); });
        DuplicateCount += static_cast<std::uint64_t>(stars.end() - end);
        stars.erase(end, stars.end());

        const std::vector<unsigned char> bytes = Encode(stars);
        WriteBytes(FileOf(cell), "wb", bytes);
        Checksum checksum;
        checksum.Add(bytes);
        Contents[CellName(AllCells()[cell])] = {stars.size(), checksum.Value()};
        for (const CatalogStar& star : stars) Counts.Add(star.Mag);
        written += stars.size();
    }
}

}  // namespace vestrel
