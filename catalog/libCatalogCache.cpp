#include "catalog/libCatalogCache.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <iterator>
#include <limits>
#include <span>
#include <system_error>

#include "astro/libMath.h"
#include "catalog/libCellGrid.h"
#include "platform/libFiles.h"

namespace vestrel {
namespace fs = std::filesystem;

namespace {

/// Reads a cell into a 1-based list.
std::vector<CatalogStar> ReadCell(const fs::path& file) {
    std::vector<CatalogStar> stars;
    // Other programs that share the catalog expect a cell to exist once it was requested. A link
    // that leads nowhere is none to write through.
    std::error_code ignored;
    if (!ReadCellFile(file, stars) &&
        fs::symlink_status(file, ignored).type() == fs::file_type::not_found) {
        (void)OpenFile(file, "ab");
    }
    stars.insert(stars.begin(), CatalogStar());
    return stars;
}

/// Sets the fields that let a region skip the cell.
void Describe(CachedCell& cell) {
    const auto first = cell.Stars.begin() + 1;
    cell.BrightestFirst =
        std::is_sorted(first, cell.Stars.end(),
                       [](const CatalogStar& a, const CatalogStar& b) { return a.Mag < b.Mag; });

    std::vector<Direction> directions;
    directions.reserve(cell.Stars.size());
    Direction sum{};
    for (auto star = first; star != cell.Stars.end(); ++star) {
        const Direction& direction = directions.emplace_back(DirectionOf(PositionOf(*star)));
        for (std::size_t i = 0; i < sum.size(); ++i) sum[i] += direction[i];
    }
    const double length = std::sqrt(Dot(sum, sum));
    // A circle around the whole sky excludes nothing, which also suits damaged positions.
    cell.Radius = Pi;
    if (!(length > 0)) return;
    cell.Centre = {sum[0] / length, sum[1] / length, sum[2] / length};
    double smallestCosine = 1;
    for (const Direction& direction : directions) {
        const double cosine = Dot(cell.Centre, direction);
        if (!(cosine >= smallestCosine)) smallestCosine = cosine;
    }
    if (smallestCosine >= -1) cell.Radius = std::acos(smallestCosine);
}

/// Sets a circle around a whole grid cell, for a cell whose stars are not all read.
void DescribeByGrid(CachedCell& cell) {
    cell.BrightestFirst = true;
    cell.Radius = Pi;
    const int zone = (cell.CellName[1] - '0') * 10 + (cell.CellName[2] - '0');
    const int slice = (cell.CellName[4] - '0') * 10 + (cell.CellName[5] - '0');
    const double side = cell.CellName[0] == 'S' ? -1 : 1;
    const double width = SliceWidth(zone) * RadiansPerDegree;
    if (width > 1) return;  // the polar caps
    const double low = 2.5 * zone * RadiansPerDegree;
    const double high = low + 2.5 * RadiansPerDegree;
    const double ra = (slice + 0.5) * width;
    const double dec = (low + high) / 2;
    cell.Centre = DirectionOf({ra, side * dec});
    // The farthest points are the corners nearer to the equator; the margin outweighs all rounding.
    const double cosine =
        std::sin(dec) * std::sin(low) + std::cos(dec) * std::cos(low) * std::cos(width / 2);
    cell.Radius = std::acos(cosine) + 1e-3;
}

/// The entry with the largest age, the first one on ties and when no entry has an age.
std::size_t OldestCell(const std::vector<CachedCell>& cells) {
    std::size_t oldest = 0;
    std::int32_t age = 0;
    for (std::size_t i = 0; i < cells.size(); ++i) {
        if (cells[i].Age > age) {
            age = cells[i].Age;
            oldest = i;
        }
    }
    return oldest;
}

}  // namespace

CachedCell& CatalogCache::LoadCell(const std::string& name) {
    if (const auto known = Index.find(name); known != Index.end()) {
        CachedCell& cell = Cells[known->second];
        cell.InUse = true;
        cell.Age = 0;
        return cell;
    }
    CachedCell cell;
    // A right ascension out of range does not give the name of a cell. Without a folder, the file
    // would be searched for and created in the current folder.
    const bool readable = IsCellName(name) && !Folder.empty();
    cell.CellName = name;
    cell.Stars.resize(1);
    cell.IsWhole = !readable || !IsDeepCell(Folder / name, cell.File);
    if (!cell.IsWhole) {
        cell.StarCount = static_cast<std::int32_t>(cell.File.Length / CatalogRecordBytes);
        DescribeByGrid(cell);
    } else {
        if (readable) cell.Stars = ReadCell(Folder / name);
        cell.StarCount = static_cast<std::int32_t>(cell.Stars.size()) - 1;
        Describe(cell);
    }
    cell.InUse = true;
    cell.Age = 1;

    ++Changes;
    CachedStars += cell.StarCount;
    std::size_t place = Cells.size();
    if (!Cells.empty() && (Cells.size() >= MaxCells || CachedStars - cell.StarCount >= MaxStars)) {
        place = OldestCell(Cells);
        CachedStars -= Cells[place].StarCount;
        Index.erase(Cells[place].CellName);
        Cells[place] = std::move(cell);
    } else {
        Cells.push_back(std::move(cell));
    }
    Index[name] = place;
    return Cells[place];
}

void CatalogCache::ReadDownTo(CachedCell& cell, double magnitude) const {
    constexpr std::size_t pieceOfStars = 4096;
    const auto all = static_cast<std::size_t>(cell.StarCount);
    while (!HoldsDownTo(cell, magnitude)) {
        if (!ReadDeepCell(Folder / cell.CellName, cell.File, cell.Stars.size() - 1, pieceOfStars,
                          cell.Stars)) {
            // The file was replaced meanwhile. `StarCount` keeps the number that the cache has
            // counted.
            cell.Stars = ReadCell(Folder / cell.CellName);
            cell.IsWhole = true;
            Describe(cell);
            return;
        }
        cell.IsWhole = cell.Stars.size() - 1 >= all;
    }
}

namespace {

/// Calls visit(cell) for the cells that a region touches, in order; a cell may be visited twice.
/// Ends when `visit` returns false.
template <typename Visit>
bool ForCellsOfRegion(SkyPosition centre, double radius, Visit visit) {
    constexpr int raSteps = 30;
    constexpr int decSteps = 5;
    // Near a pole a small circle spans all right ascensions.
    const bool nearPole = !(std::fabs(centre.Dec * (180 / Pi)) < 80);
    const double q = nearPole ? TwoPi : radius / std::cos(centre.Dec);
    const auto place = [](int j) {
        const int number = j + decSteps;
        return static_cast<std::size_t>(number);
    };
    const auto decOf = [&](int j) { return j * radius / decSteps + centre.Dec; };
    // Whether step j lies in the zone of the step before it, so that the cells are the same too.
    std::array<bool, 2 * decSteps + 1> inSameZone{};
    CellPosition last;
    for (int j = -decSteps; j <= decSteps; ++j) {
        const CellPosition cell = CellOf({centre.Ra, decOf(j)});
        inSameZone[place(j)] = j > -decSteps && cell.South == last.South && cell.Zone == last.Zone;
        last = cell;
    }
    last = {};
    int timesInARow = 0;
    for (int i = -raSteps; i <= raSteps; ++i) {
        for (int j = -decSteps; j <= decSteps; ++j) {
            const CellPosition cell =
                inSameZone[place(j)] ? last : CellOf({i * q / raSteps + centre.Ra, decOf(j)});
            timesInARow = cell == last ? timesInARow + 1 : 1;
            last = cell;
            // The second touch resets the age of a cell just read; further ones change nothing.
            if (timesInARow <= 2 && !visit(cell)) return false;
        }
    }
    return true;
}

/// Cells that need no further visit. A region touches the same few cells in turn, and making
/// their names and searching for them takes time.
class SettledCells {
 public:
    bool Contain(const CellPosition& cell) const {
        return std::find(cells_.rbegin(), cells_.rend(), cell) != cells_.rend();
    }
    void Add(const CellPosition& cell) {
        constexpr std::size_t enough = 16;
        if (cells_.size() == enough) cells_.clear();
        cells_.push_back(cell);
    }
    void Clear() { cells_.clear(); }

 private:
    std::vector<CellPosition> cells_;
};

}  // namespace

void CatalogCache::AgeCells() {
    for (CachedCell& cell : Cells) {
        cell.InUse = false;
        ++cell.Age;
    }
}

void CatalogCache::LoadRegion(SkyPosition centre, double radius) {
    AgeCells();
    // Until another cell is loaded, cells that were found in memory stay there with the age 0.
    SettledCells settled;
    ForCellsOfRegion(centre, radius, [&](const CellPosition& cell) {
        if (settled.Contain(cell)) return true;
        const std::uint64_t before = Changes;
        LoadCell(CellName(cell));
        if (Changes == before) {
            settled.Add(cell);
        } else {
            settled.Clear();
        }
        return true;
    });
    Trim();
}

void CatalogCache::VisitRegion(SkyPosition centre, double angle, double magLimit,
                               const std::function<void(const CachedCell&)>& visit) {
    AgeCells();
    for (const CellPosition& position : AllCells()) {
        if (!CellTouches(position, centre, angle)) continue;
        const std::string name = CellName(position);
        const auto kept = Bright.find(name);
        if (kept != Bright.end() && kept->second.MagLimit >= magLimit) {
            if (Index.find(name) != Index.end()) LoadCell(name);  // only marks it
            visit(kept->second.Cell);
            continue;
        }
        CachedCell& cell = LoadCell(name);
        ReadDownTo(cell, magLimit);
        visit(cell);
        KeepBright(cell, magLimit);
        Trim();
    }
}

void CatalogCache::KeepBright(const CachedCell& cell, double magLimit) {
    constexpr std::size_t few = 500;
    const auto isBright = [&](const CatalogStar& star) { return star.Mag / 100.0 < magLimit; };
    const auto first = cell.Stars.begin() + 1;
    if (static_cast<std::size_t>(std::count_if(first, cell.Stars.end(), isBright)) > few) return;
    CachedCell bright;
    bright.CellName = cell.CellName;
    bright.Stars.resize(1);
    std::copy_if(first, cell.Stars.end(), std::back_inserter(bright.Stars), isBright);
    bright.IsWhole = false;
    bright.BrightestFirst = cell.BrightestFirst;
    bright.Centre = cell.Centre;
    bright.Radius = cell.Radius;
    Bright[cell.CellName] = {std::move(bright), magLimit};
}

bool CatalogCache::HoldsRegion(SkyPosition centre, double radius) const {
    if (CachedStars > MaxStars) return false;
    SettledCells found;
    return ForCellsOfRegion(centre, radius, [&](const CellPosition& cell) {
        if (found.Contain(cell)) return true;
        found.Add(cell);
        return Index.find(CellName(cell)) != Index.end();
    });
}

bool CatalogCache::HoldsDownTo(const CachedCell& cell, double magnitude) {
    return cell.IsWhole || (cell.Stars.size() > 1 && !(cell.Stars.back().Mag / 100.0 <= magnitude));
}

void CatalogCache::Trim() {
    if (CachedStars <= MaxStars) return;
    ++Changes;
    while (CachedStars >= MaxStars + 1 && !Cells.empty()) {
        const std::size_t oldest = OldestCell(Cells);
        CachedStars -= Cells[oldest].StarCount;
        Cells.erase(Cells.begin() + static_cast<std::ptrdiff_t>(oldest));
    }
    Index.clear();
    for (std::size_t i = 0; i < Cells.size(); ++i) Index[Cells[i].CellName] = i;
}

CatalogPresence PresenceOfCatalog(const CatalogCache& cache) {
    std::error_code error;
    if (!fs::is_directory(cache.Folder, error)) return CatalogPresence::FolderMissing;
    const bool starsHere =
        std::any_of(cache.Cells.begin(), cache.Cells.end(),
                    [](const CachedCell& cell) { return cell.InUse && cell.StarCount > 0; });
    if (starsHere) return CatalogPresence::Present;
    for (fs::directory_iterator entry(cache.Folder, error), end; entry != end;
         entry.increment(error)) {
        if (error) break;
        if (IsCellName(entry->path().filename().string()) &&
            entry->file_size(error) >= CatalogRecordBytes && !error) {
            return CatalogPresence::NothingHere;
        }
    }
    return CatalogPresence::NoCells;
}

std::string OversizedCell(const CatalogCache& cache) {
    for (const CachedCell& cell : cache.Cells) {
        std::error_code error;
        if (!cell.InUse || cell.StarCount > 0 || !IsCellName(cell.CellName)) continue;
        const std::uintmax_t length = fs::file_size(cache.Folder / cell.CellName, error);
        if (!error && length >= (MostStarsInCell + 1) * CatalogRecordBytes) return cell.CellName;
    }
    return {};
}

std::string DamagedCell(const CatalogCache& cache) {
    for (const CachedCell& cell : cache.Cells) {
        if (!cell.InUse || !IsCellName(cell.CellName)) continue;
        const fs::path file = cache.Folder / cell.CellName;
        std::error_code error;
        const std::uintmax_t length = fs::file_size(file, error);
        if (error) continue;  // a cell without a file is one without stars
        const bool good = length % CatalogRecordBytes == 0 &&
                          length / CatalogRecordBytes <= MostStarsInCell && OpenFile(file, "rb");
        if (!good) return cell.CellName;
    }
    return {};
}

double FaintEnd(const CatalogCache& cache) {
    std::vector<std::int16_t> magnitudes;
    for (const CachedCell& cell : cache.Cells) {
        if (!cell.InUse) continue;
        std::vector<CatalogStar> whole;
        if (!cell.IsWhole) (void)ReadCellFile(cache.Folder / cell.CellName, whole);
        const std::span<const CatalogStar> stars =
            cell.IsWhole ? std::span(cell.Stars).subspan(1) : std::span(whole);
        for (const CatalogStar& star : stars) magnitudes.push_back(star.Mag);
    }
    if (magnitudes.empty()) return std::numeric_limits<double>::quiet_NaN();
    const auto place =
        magnitudes.begin() + static_cast<std::ptrdiff_t>((magnitudes.size() - 1) * 99 / 100);
    std::nth_element(magnitudes.begin(), place, magnitudes.end());
    return *place / 100.0;
}

}  // namespace vestrel
