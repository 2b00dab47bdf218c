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
#include "astro/libParallel.h"
#include "platform/libFiles.h"
#include "platform/libPlatform.h"

namespace vestrel {

namespace {

/// A spilled star: its record and its source.
constexpr std::size_t spillBytes = CatalogRecordBytes + 1;

/// Stars that are sorted by cell together. 4 MB of them fit the cache, where they can go to all
/// cells in turn without waiting for memory; fewer would make many reads of few stars.
constexpr std::size_t runStars = 1 << 17;

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

auto OrderKey(const PlacedStar& star) {
    return std::tuple(star.Star.Mag, star.Star.Dec, star.Star.Ra);
}

bool AreEqual(const PlacedStar& a, const PlacedStar& b) {
    return OrderKey(a) == OrderKey(b);
}

/// Sorts stars into `buckets` buckets, in place: each star is swapped into its own one ("American
/// flag sort": McIlroy, Bostic & McIlroy 1993, Computing Systems 6, 5). Returns the first star of
/// each bucket, and the end.
template <typename BucketOf>
std::vector<std::uint32_t> SortByBucket(std::span<PlacedStar> stars, std::size_t buckets,
                                        BucketOf bucketOf) {
    std::vector<std::uint32_t> starts(buckets + 1, 0);
    for (const PlacedStar& star : stars) ++starts[bucketOf(star) + 1];
    for (std::size_t i = 1; i <= buckets; ++i) starts[i] += starts[i - 1];
    std::vector<std::uint32_t> next(starts.begin(), starts.end() - 1);
    for (std::size_t bucket = 0; bucket < buckets; ++bucket) {
        while (next[bucket] < starts[bucket + 1]) {
            PlacedStar& star = stars[next[bucket]];
            const std::size_t home = bucketOf(star);
            const std::size_t place = next[home]++;
            if (home != bucket) std::swap(star, stars[place]);
        }
    }
    return starts;
}

/// Sorts stars by magnitude, equal magnitudes by position. Even of many stars few have the same
/// magnitude, so sorting them into one bucket for each leaves little to compare.
void SortByBrightness(std::vector<PlacedStar>& stars) {
    const auto sort = [&stars](std::size_t first, std::size_t end) {
        std::sort(stars.begin() + static_cast<std::ptrdiff_t>(first),
                  stars.begin() + static_cast<std::ptrdiff_t>(end),
                  [](const auto& a, const auto& b) { return OrderKey(a) < OrderKey(b); });
    };
    constexpr std::size_t fewStars = 1000;
    if (stars.size() <= fewStars) return sort(0, stars.size());
    const auto [brightest, faintest] =
        std::minmax_element(stars.begin(), stars.end(),
                            [](const auto& a, const auto& b) { return a.Star.Mag < b.Star.Mag; });
    const int first = brightest->Star.Mag;
    const auto buckets = static_cast<std::size_t>(faintest->Star.Mag - first) + 1;
    const std::vector<std::uint32_t> starts =
        SortByBucket(std::span(stars), buckets, [first](const PlacedStar& star) {
            return static_cast<std::size_t>(star.Star.Mag - first);
        });
    for (std::size_t i = 0; i < buckets; ++i) sort(starts[i], starts[i + 1]);
}

/// Removes the stars that an earlier source has; returns their number.
std::size_t Merge(std::vector<PlacedStar>& stars) {
    std::sort(stars.begin(), stars.end(),
              [](const PlacedStar& a, const PlacedStar& b) { return a.Star.Dec < b.Star.Dec; });
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
    const std::size_t merged = stars.size() - kept;
    stars.resize(kept);
    return merged;
}

}  // namespace

PlacedStar PlaceOf(const CatalogStar& star, unsigned char source) {
    const CellPosition cell = CellOfStored(star);
    return {star, source, IsAtAnEdge(star, cell), static_cast<std::uint16_t>(CellNumber(cell))};
}

CatalogBuilder::CatalogBuilder(std::filesystem::path folder, std::size_t gatheredStars)
    : folder_(std::move(folder)), limit_(gatheredStars) {
    gathered_.reserve(limit_);
}

std::filesystem::path CatalogBuilder::FileOf(std::size_t cell) const {
    return folder_ / CellName(AllCells()[cell]);
}

void CatalogBuilder::Add(const PlacedStar& star) {
    severalSources_ = severalSources_ || star.Source > 0;
    if (star.IsAtEdge && IsKnownBeyondTheEdge(star)) {
        ++mergedCount_;
        return;
    }
    // Stars are appended to one list: an access to the cell's own list for every star would wait
    // for memory.
    gathered_.push_back(star);
    if (gathered_.size() >= limit_) {
        Sort();
        Spill();
    }
}

bool CatalogBuilder::IsKnownBeyondTheEdge(const PlacedStar& star) {
    for (int box = 0; box < 27; ++box) {
        const auto near =
            edgeStars_.find(BoxOf(star.Star, {box % 3 - 1, box / 3 % 3 - 1, box / 9 - 1}));
        if (near == edgeStars_.end()) continue;
        for (const PlacedStar& other : near->second) {
            if (other.Source < star.Source && other.Cell != star.Cell &&
                AreSameStar(other.Star, star.Star)) {
                return true;
            }
        }
    }
    edgeStars_[BoxOf(star.Star, {0, 0, 0})].push_back(star);
    return false;
}

std::filesystem::path CatalogBuilder::SpillFile() const {
    return folder_ / (std::string(ManifestName) + ".stars.tmp");
}

void CatalogBuilder::FailToSpill() const {
    throw ToolFailure(ToolExit::CannotWrite, TextFromPath(SpillFile()) + ": " + SystemErrorText());
}

/// Sorts the gathered stars by cell, in runs that the processors share.
void CatalogBuilder::Sort() {
    gatheredRuns_.resize((gathered_.size() + runStars - 1) / runStars);
    ParallelFor(static_cast<int>(gatheredRuns_.size()), [&](int number) {
        SortedRun& run = gatheredRuns_[static_cast<std::size_t>(number)];
        run.First = static_cast<std::size_t>(number) * runStars;
        const auto stars = std::span(gathered_).subspan(static_cast<std::size_t>(run.First));
        run.Starts = SortByBucket(stars.first(std::min(runStars, stars.size())), AllCells().size(),
                                  [](const PlacedStar& star) { return std::size_t{star.Cell}; });
    });
}

void CatalogBuilder::Spill() {
    if (!spilled_) spilled_ = OpenFile(SpillFile(), "w+b");
    if (!spilled_ || !SeekFile(spilled_.get(), spilledStars_ * spillBytes)) FailToSpill();
    constexpr std::size_t atOnce = 1 << 16;
    std::vector<unsigned char> bytes(atOnce * spillBytes);
    for (std::size_t first = 0; first < gathered_.size(); first += atOnce) {
        ThrowIfStopped();
        auto at = bytes.begin();
        const std::size_t end = std::min(first + atOnce, gathered_.size());
        for (std::size_t i = first; i < end; ++i) {
            const auto record = EncodeCatalogStar(gathered_[i].Star);
            at = std::copy(record.begin(), record.end(), at);
            *at++ = gathered_[i].Source;
        }
        const std::size_t length = (end - first) * spillBytes;
        if (std::fwrite(bytes.data(), 1, length, spilled_.get()) != length) FailToSpill();
    }
    if (std::fflush(spilled_.get()) != 0) FailToSpill();
    for (SortedRun& run : gatheredRuns_) {
        run.First += spilledStars_;
        spilledRuns_.push_back(std::move(run));
    }
    spilledStars_ += gathered_.size();
    gatheredRuns_.clear();
    gathered_.clear();
}

/// Appends the stars that a spilled run has of consecutive cells.
void CatalogBuilder::ReadSpilled(const SortedRun& run, std::size_t firstCell, CellStars& cells) {
    const std::uint64_t first = run.First + run.Starts[firstCell];
    const std::size_t count =
        run.Starts[firstCell + cells.size()] - std::size_t{run.Starts[firstCell]};
    if (count == 0) return;
    std::vector<unsigned char> bytes(count * spillBytes);
    if (!SeekFile(spilled_.get(), first * spillBytes) ||
        std::fread(bytes.data(), 1, bytes.size(), spilled_.get()) != bytes.size()) {
        throw ToolFailure(ToolExit::CannotWrite,
                          TextFromPath(SpillFile()) + ": changed while in use");
    }
    const unsigned char* at = bytes.data();
    for (std::size_t i = 0; i < cells.size(); ++i) {
        for (std::size_t left = run.StarsIn(firstCell + i); left > 0; --left, at += spillBytes) {
            PlacedStar& added = cells[i].emplace_back();
            added.Star = DecodeCatalogStar(
                std::span<const unsigned char, CatalogRecordBytes>(at, CatalogRecordBytes));
            added.Source = at[CatalogRecordBytes];
        }
    }
}

std::uint64_t CatalogBuilder::StarsIn(std::size_t cell) const {
    std::uint64_t count = 0;
    for (const SortedRun& run : gatheredRuns_) count += run.StarsIn(cell);
    for (const SortedRun& run : spilledRuns_) count += run.StarsIn(cell);
    if (count > MostStarsInCell) {
        throw ToolFailure(ToolExit::BadInput, "cell " + CellName(AllCells()[cell]) +
                                                  " would hold " + GroupedText(count) +
                                                  " stars, more than a catalog can; try --mag-max");
    }
    return count;
}

/// The stars of as many cells, from one cell on, as may be in memory at a time.
CatalogBuilder::CellStars CatalogBuilder::TakeCells(std::size_t firstCell) {
    constexpr std::uint64_t mostStars = 1 << 18;  // unless the first cell has more
    constexpr std::size_t mostCells = 128;
    CellStars cells;
    std::uint64_t stars = 0;
    for (std::size_t cell = firstCell; cell < AllCells().size() && cells.size() < mostCells;
         ++cell) {
        const std::uint64_t inCell = StarsIn(cell);
        if (!cells.empty() && stars + inCell > mostStars) break;
        stars += inCell;
        std::vector<PlacedStar>& taken = cells.emplace_back();
        taken.reserve(static_cast<std::size_t>(inCell));
        for (const SortedRun& run : gatheredRuns_) {
            const auto first = gathered_.begin() + static_cast<std::ptrdiff_t>(run.First);
            taken.insert(taken.end(), first + run.Starts[cell], first + run.Starts[cell + 1]);
        }
    }
    for (const SortedRun& run : spilledRuns_) ReadSpilled(run, firstCell, cells);
    return cells;
}

/// Sorts the stars of a cell, removes those that are repeated and writes its file.
CatalogBuilder::WrittenCell CatalogBuilder::WriteCell(std::size_t cell,
                                                      std::vector<PlacedStar>& stars) const {
    WrittenCell written;
    if (severalSources_) written.Merged = Merge(stars);
    SortByBrightness(stars);
    const auto end = std::unique(stars.begin(), stars.end(), AreEqual);
    written.Duplicates = static_cast<std::uint64_t>(stars.end() - end);
    stars.erase(end, stars.end());

    std::vector<unsigned char> bytes(stars.size() * CatalogRecordBytes);
    auto at = bytes.begin();
    for (const PlacedStar& star : stars) {
        const auto record = EncodeCatalogStar(star.Star);
        at = std::copy(record.begin(), record.end(), at);
    }
    WriteBytes(FileOf(cell), bytes);
    Checksum checksum;
    checksum.Add(bytes);
    written.Content = {stars.size(), checksum.Value()};
    return written;
}

void CatalogBuilder::Finish(ProgressLine& progress) {
    std::uint64_t starsWritten = 0;
    Sort();
    const std::size_t cells = AllCells().size();
    for (std::size_t first = 0; first < cells;) {
        progress.Show("Writing cells", first, cells, starsWritten);
        CellStars stars = TakeCells(first);
        std::vector<WrittenCell> written(stars.size());
        ParallelFor(static_cast<int>(stars.size()), [&](int i) {
            const auto number = static_cast<std::size_t>(i);
            written[number] = WriteCell(first + number, stars[number]);
        });
        for (std::size_t i = 0; i < stars.size(); ++i) {
            contents_[CellName(AllCells()[first + i])] = written[i].Content;
            duplicateCount_ += written[i].Duplicates;
            mergedCount_ += written[i].Merged;
            starsWritten += stars[i].size();
            for (const PlacedStar& star : stars[i]) counts_.Add(star.Star.Mag);
        }
        first += stars.size();
    }
    if (!spilled_) return;
    // An open file cannot be removed everywhere.
    spilled_.reset();
    std::error_code ignored;
    std::filesystem::remove(SpillFile(), ignored);
}

}  // namespace vestrel
