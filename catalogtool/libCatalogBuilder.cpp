#include "catalogtool/libCatalogBuilder.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <span>
#include <system_error>
#include <tuple>
#include <utility>

#include "astro/libMath.h"
#include "platform/libFiles.h"
#include "platform/libPlatform.h"

namespace vestrel {

namespace {

/// A spilled star: its record and its source.
constexpr std::size_t spillBytes = CatalogRecordBytes + 1;

constexpr double sameStar = 2 / 3600.0 * RadiansPerDegree;
constexpr int sameMagnitude = 100;  // hundredths

double RaOf(const CatalogStar& star) {
    return static_cast<double>(star.Ra);
}
double DecOf(const CatalogStar& star) {
    return static_cast<double>(star.Dec);
}

bool AreSameStar(const CatalogStar& a, const CatalogStar& b) {
    if (std::abs(a.Mag - b.Mag) >= sameMagnitude) return false;
    // The haversine formula holds at the poles too, where right ascensions differ by any amount.
    const double height = std::sin((DecOf(a) - DecOf(b)) / 2);
    const double width = std::sin((RaOf(a) - RaOf(b)) / 2);
    const double haversine =
        height * height + std::cos(DecOf(a)) * std::cos(DecOf(b)) * width * width;
    return 4 * haversine < sameStar * sameStar;
}

/// Whether a star that may be the same as this one can be in another cell. It is called for every
/// star, so it uses only the place in the cell and the cosine at the cell's end.
bool IsAtAnEdge(const CatalogStar& star, const CellPosition& cell) {
    static const auto cosines = [] {
        std::array<double, ZonesPerHemisphere> atEnd{};
        for (std::size_t zone = 0; zone < atEnd.size(); ++zone) {
            atEnd[zone] = std::cos(2.5 * static_cast<double>(zone + 1) * RadiansPerDegree);
        }
        return atEnd;
    }();
    constexpr double reach = 1.01 * sameStar * ExactDegreesPerRadian;
    const double inZone = std::fabs(DecOf(star)) * DegreesPerRadian - 2.5 * cell.Zone;
    if (inZone < reach || inZone > 2.5 - reach) return true;
    if (cell.Zone == ZonesPerHemisphere - 1) return false;
    const double width = SliceWidth(cell.Zone);
    const double inSlice = RaOf(star) * DegreesPerRadian - static_cast<double>(cell.Slice) * width;
    const double aside = reach / cosines[static_cast<std::size_t>(cell.Zone)];
    return inSlice < aside || inSlice > width - aside;
}

/// The box of space that contains a star, moved by `shift` boxes. Boxes are larger than the
/// distance of stars that count as the same, and avoid special cases at the poles.
std::uint64_t BoxOf(const CatalogStar& star, const std::array<int, 3>& shift) {
    constexpr double boxesInUnit = 1 / (2 * sameStar);
    const auto box = [](double value, int by) {
        return static_cast<std::uint64_t>(
            static_cast<std::int64_t>(std::floor((value + 1.5) * boxesInUnit)) + by);
    };
    const double cosDec = std::cos(DecOf(star));
    return (box(cosDec * std::cos(RaOf(star)), shift[0]) << 42) +
           (box(cosDec * std::sin(RaOf(star)), shift[1]) << 21) +
           box(std::sin(DecOf(star)), shift[2]);
}

void WriteBytes(const std::filesystem::path& path, const std::vector<unsigned char>& bytes) {
    FileHandle file = OpenFile(path, "wb");
    bool good = file != nullptr;
    // An empty list may have no address, which fwrite does not allow.
    good = good && (bytes.empty() ||
                    std::fwrite(bytes.data(), 1, bytes.size(), file.get()) == bytes.size());
    // Closing writes what is still buffered, so it may fail on a full disk.
    good = good && std::fclose(file.release()) == 0;
    if (!good) {
        throw ToolFailure(ToolExit::CannotWrite, TextFromPath(path) + ": " + SystemErrorText());
    }
}

auto OrderKey(const CatalogStar& star) {
    return std::tuple(star.Mag, star.Dec, star.Ra);
}

}  // namespace

CatalogBuilder::CatalogBuilder(std::filesystem::path folder, std::size_t gatheredStars)
    : folder_(std::move(folder)), limit_(gatheredStars) {
    gathered_.reserve(limit_);
}

std::filesystem::path CatalogBuilder::FileOf(std::size_t cell) const {
    return folder_ / CellName(AllCells()[cell]);
}

void CatalogBuilder::Add(const CatalogStar& star, unsigned char source) {
    severalSources_ = severalSources_ || source > 0;
    const CellPosition cell = CellOfStored(star);
    if (IsAtAnEdge(star, cell) && IsKnownBeyondTheEdge(star, source)) {
        ++mergedCount_;
        return;
    }
    // Stars are appended to one list: an access to the cell's own list for every star would wait
    // for memory.
    gathered_.push_back({star, source, static_cast<std::uint16_t>(CellNumber(cell))});
    if (gathered_.size() >= limit_) {
        Sort();
        Spill();
    }
}

bool CatalogBuilder::IsKnownBeyondTheEdge(const CatalogStar& star, unsigned char source) {
    const CellPosition cell = CellOfStored(star);
    for (int box = 0; box < 27; ++box) {
        const auto near = edgeStars_.find(BoxOf(star, {box % 3 - 1, box / 3 % 3 - 1, box / 9 - 1}));
        if (near == edgeStars_.end()) continue;
        for (const SourceStar& other : near->second) {
            if (other.Source < source && !(CellOfStored(other.Star) == cell) &&
                AreSameStar(other.Star, star)) {
                return true;
            }
        }
    }
    edgeStars_[BoxOf(star, {0, 0, 0})].push_back({star, source});
    return false;
}

/// Removes the stars that an earlier source has.
void CatalogBuilder::Merge(std::vector<SourceStar>& stars) {
    std::sort(stars.begin(), stars.end(),
              [](const SourceStar& a, const SourceStar& b) { return a.Star.Dec < b.Star.Dec; });
    std::vector<bool> same(stars.size());
    for (std::size_t i = 0; i < stars.size(); ++i) {
        for (std::size_t j = i + 1;
             j < stars.size() && DecOf(stars[j].Star) - DecOf(stars[i].Star) < sameStar; ++j) {
            if (stars[i].Source == stars[j].Source || !AreSameStar(stars[i].Star, stars[j].Star)) {
                continue;
            }
            same[stars[i].Source > stars[j].Source ? i : j] = true;
        }
    }
    std::size_t kept = 0;
    for (std::size_t i = 0; i < stars.size(); ++i) {
        if (!same[i]) stars[kept++] = stars[i];
    }
    mergedCount_ += stars.size() - kept;
    stars.resize(kept);
}

std::filesystem::path CatalogBuilder::SpillFile() const {
    return folder_ / (std::string(ManifestName) + ".stars.tmp");
}

void CatalogBuilder::FailToSpill() const {
    throw ToolFailure(ToolExit::CannotWrite, TextFromPath(SpillFile()) + ": " + SystemErrorText());
}

/// Sorts the gathered stars by cell, in place: each star is swapped into its cell ("American flag
/// sort": McIlroy, Bostic & McIlroy 1993, Computing Systems 6, 5).
void CatalogBuilder::Sort() {
    const std::size_t cells = AllCells().size();
    starts_.assign(cells + 1, 0);
    for (const SourceStar& star : gathered_) ++starts_[star.Cell + 1U];
    for (std::size_t cell = 1; cell <= cells; ++cell) starts_[cell] += starts_[cell - 1];
    std::vector<std::size_t> next(starts_.begin(), starts_.end() - 1);
    for (std::size_t cell = 0; cell < cells; ++cell) {
        while (next[cell] < starts_[cell + 1]) {
            SourceStar& star = gathered_[next[cell]];
            const std::size_t place = next[star.Cell]++;
            if (star.Cell != cell) std::swap(star, gathered_[place]);
        }
    }
}

void CatalogBuilder::Spill() {
    if (!spilled_) spilled_ = OpenFile(SpillFile(), "w+b");
    const std::uint64_t before = blocks_.empty() ? 0 : blocks_.back().back();
    if (!spilled_ || !SeekFile(spilled_.get(), before * spillBytes)) FailToSpill();
    constexpr std::size_t atOnce = 1 << 16;
    std::vector<unsigned char> bytes;
    for (std::size_t first = 0; first < gathered_.size(); first += atOnce) {
        ThrowIfStopped();
        bytes.clear();
        const std::size_t end = std::min(first + atOnce, gathered_.size());
        for (std::size_t i = first; i < end; ++i) {
            const auto record = EncodeCatalogStar(gathered_[i].Star);
            bytes.insert(bytes.end(), record.begin(), record.end());
            bytes.push_back(gathered_[i].Source);
        }
        if (std::fwrite(bytes.data(), 1, bytes.size(), spilled_.get()) != bytes.size()) {
            FailToSpill();
        }
    }
    if (std::fflush(spilled_.get()) != 0) FailToSpill();
    std::vector<std::uint64_t>& block = blocks_.emplace_back();
    for (const std::size_t start : starts_) block.push_back(before + start);
    gathered_.clear();
}

/// Appends `count` stars of the file of spilled ones, from number `first` on.
void CatalogBuilder::ReadSpilled(std::uint64_t first, std::size_t count,
                                 std::vector<SourceStar>& stars) {
    std::vector<unsigned char> bytes(count * spillBytes);
    if (!SeekFile(spilled_.get(), first * spillBytes) ||
        std::fread(bytes.data(), 1, bytes.size(), spilled_.get()) != bytes.size()) {
        throw ToolFailure(ToolExit::CannotWrite,
                          TextFromPath(SpillFile()) + ": changed while in use");
    }
    for (std::size_t at = 0; at < bytes.size(); at += spillBytes) {
        stars.push_back({DecodeCatalogStar(std::span<const unsigned char, CatalogRecordBytes>(
                             &bytes[at], CatalogRecordBytes)),
                         bytes[at + CatalogRecordBytes]});
    }
}

std::vector<CatalogBuilder::SourceStar> CatalogBuilder::TakeCell(std::size_t cell) {
    const auto inBlock = [cell](const std::vector<std::uint64_t>& block) {
        return block[cell + 1] - block[cell];
    };
    std::uint64_t count = starts_[cell + 1] - starts_[cell];
    for (const auto& block : blocks_) count += inBlock(block);
    if (count > MostStarsInCell) {
        throw ToolFailure(ToolExit::BadInput, "cell " + CellName(AllCells()[cell]) +
                                                  " would hold " + GroupedText(count) +
                                                  " stars, more than a catalog can; try --mag-max");
    }
    std::vector<SourceStar> stars;
    stars.reserve(static_cast<std::size_t>(count));
    const auto first = gathered_.begin();
    stars.assign(first + static_cast<std::ptrdiff_t>(starts_[cell]),
                 first + static_cast<std::ptrdiff_t>(starts_[cell + 1]));
    for (const auto& block : blocks_) {
        if (inBlock(block) > 0) {
            ReadSpilled(block[cell], static_cast<std::size_t>(inBlock(block)), stars);
        }
    }
    return stars;
}

void CatalogBuilder::Finish(ProgressLine& progress) {
    std::uint64_t written = 0;
    Sort();
    const std::size_t cells = AllCells().size();
    for (std::size_t cell = 0; cell < cells; ++cell) {
        progress.Show("Writing cells", cell, cells, written);
        std::vector<SourceStar> stars = TakeCell(cell);
        if (severalSources_) Merge(stars);
        std::sort(stars.begin(), stars.end(), [](const SourceStar& a, const SourceStar& b) {
            return OrderKey(a.Star) < OrderKey(b.Star);
        });
        const auto end =
            std::unique(stars.begin(), stars.end(), [](const SourceStar& a, const SourceStar& b) {
                return OrderKey(a.Star) == OrderKey(b.Star);
            });
        duplicateCount_ += static_cast<std::uint64_t>(stars.end() - end);
        stars.erase(end, stars.end());

        std::vector<unsigned char> bytes;
        bytes.reserve(stars.size() * CatalogRecordBytes);
        for (const SourceStar& star : stars) {
            const auto record = EncodeCatalogStar(star.Star);
            bytes.insert(bytes.end(), record.begin(), record.end());
        }
        WriteBytes(FileOf(cell), bytes);
        Checksum checksum;
        checksum.Add(bytes);
        contents_[CellName(AllCells()[cell])] = {stars.size(), checksum.Value()};
        for (const SourceStar& star : stars) counts_.Add(star.Star.Mag);
        written += stars.size();
    }
    if (!spilled_) return;
    // An open file cannot be removed everywhere.
    spilled_.reset();
    std::error_code ignored;
    std::filesystem::remove(SpillFile(), ignored);
}

}  // namespace vestrel
