// The cell grid, the cache and the region queries against plain loops.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <map>
#include <numeric>
#include <set>

#ifndef _WIN32
#include <sys/stat.h>
#endif

#include "astro/libMath.h"
#include "catalog/libCatalogRegion.h"
#include "catalog/libCellGrid.h"
#include "tests/testSupport.h"

namespace vestrel {
namespace {

namespace fs = std::filesystem;

TEST(CellName, GridHoldsEveryPlaceOnceAndAnEvenSpread) {
    constexpr double degree = 1 / 57.2957795131;
    std::vector<std::string> names;
    for (const CellPosition& cell : AllCells()) names.push_back(CellName(cell));
    const std::set<std::string> known(names.begin(), names.end());
    EXPECT_EQ(names.size(), 2U * (12 * 90 + 8 * 72 + 4 * 60 + 4 * 45 + 4 * 30 + 3 * 18 + 1));
    EXPECT_EQ(known.size(), names.size());
    std::set<std::string> hit;
    for (int zone = 0; zone < ZonesPerHemisphere; ++zone) {
        for (int slice = 0; slice < SlicesInZone(zone); ++slice) {
            // Close to all four sides, on either hemisphere.
            for (const double off : {1e-9, 1 - 1e-9}) {
                const double ra = (slice + off) * SliceWidth(zone) * degree;
                const std::string north = CellName(CellOf({ra, (zone + 1 - off) * 2.5 * degree}));
                const std::string south = CellName(CellOf({ra, -(zone + off) * 2.5 * degree}));
                EXPECT_EQ(north.substr(1), south.substr(1));
                hit.insert({north, south});
            }
        }
    }
    EXPECT_EQ(hit, known);
    for (const char* text : {"N00R90", "N35R01", "N36R00", "n00R00", "N0R000", "N00R00 ", "X00R00",
                             "N00R-1", "N00R0", ""}) {
        EXPECT_FALSE(IsCellName(text)) << text;
    }
    EXPECT_TRUE(std::all_of(names.begin(), names.end(), IsCellName));
    EXPECT_EQ(CellName(CellOf({0, 0})), "N00R00");
    EXPECT_EQ(CellName(CellOf({0, -0.1 * degree})), "S00R00");
    EXPECT_EQ(CellName(CellOf({50 * degree, 14 * degree})), "N05R12");
    EXPECT_EQ(CellName(CellOf({-1e-9, 0.1})), "N02R89");
    EXPECT_EQ(CellName(CellOf({365 * degree, -0.1})), "S02R01");
    EXPECT_EQ(CellName(CellOf({-365 * degree, 0.1})), "N02R-2");
    EXPECT_EQ(CellName(CellOf({359.9 * degree, -89 * degree})), "S35R00");
    EXPECT_EQ(CellName(CellOf({1, 1.7})), "N35R00");
}

// A catalog in memory; the cache and the queries are plain loops over it.
struct PlainCatalog {
    struct Entry {
        std::string Name;
        std::vector<CatalogStar> Stars;
        bool InUse = false;
        int Age = 0;
    };
    std::map<std::string, std::vector<CatalogStar>> Files;
    std::vector<Entry> Cells;
    std::int64_t CachedStars = 0;
    std::size_t MaxCells = 999;
    std::int64_t MaxStars = 5000000;

    void Forget() {
        Cells.clear();
        CachedStars = 0;
        MaxCells = 999;
        MaxStars = 5000000;
    }

    std::size_t Oldest() const {
        std::size_t oldest = 0;
        int age = 0;
        for (std::size_t i = 0; i < Cells.size(); ++i) {
            if (Cells[i].Age > age) {
                age = Cells[i].Age;
                oldest = i;
            }
        }
        return oldest;
    }

    void LoadCell(const std::string& name) {
        for (Entry& entry : Cells) {
            if (entry.Name != name) continue;
            entry.InUse = true;
            entry.Age = 0;
            return;
        }
        std::size_t place = Cells.size();
        if (Cells.size() >= MaxCells || CachedStars >= MaxStars) {
            place = Oldest();
            CachedStars -= static_cast<std::int64_t>(Cells[place].Stars.size());
        } else {
            Cells.emplace_back();
        }
        Cells[place] = {name, Files[name], true, 1};
        CachedStars += static_cast<std::int64_t>(Cells[place].Stars.size());
    }

    void LoadRegion(double ra0, double dec0, double radius) {
        for (Entry& entry : Cells) {
            entry.InUse = false;
            ++entry.Age;
        }
        const double q =
            std::abs(dec0) * (180 / 3.141592654) < 80 ? radius / std::cos(dec0) : 6.283185308;
        for (int i = -30; i <= 30; ++i) {
            for (int j = -5; j <= 5; ++j) {
                LoadCell(CellName(CellOf({i * q / 30 + ra0, j * radius / 5 + dec0})));
            }
        }
        if (CachedStars <= MaxStars) return;
        while (CachedStars >= MaxStars + 1) {
            const std::size_t oldest = Oldest();
            CachedStars -= static_cast<std::int64_t>(Cells[oldest].Stars.size());
            Cells.erase(Cells.begin() + static_cast<std::ptrdiff_t>(oldest));
        }
    }

    PlateStarList Query(const Projection& plane, double limit2, double magLimit, bool field) const {
        PlateStarList list;
        for (const Entry& entry : Cells) {
            if (field && !entry.InUse) continue;
            for (const CatalogStar& star : entry.Stars) {
                const double magnitude = star.Mag / 100.0;
                if (field ? !(magnitude <= magLimit) : !(magnitude < magLimit)) continue;
                const auto ra = static_cast<double>(star.Ra);
                const auto dec = static_cast<double>(star.Dec);
                double xi = 0;
                double eta = 0;
                const double cosine = plane.SkyToPlane({ra, dec}, xi, eta);
                const bool near = field ? std::sqrt(xi * xi + eta * eta) <= limit2 && cosine >= 0
                                        : xi * xi + eta * eta <= limit2;
                if (list.Count() < (field ? 1000 : 10000) && near) {
                    list.Add({static_cast<float>(xi), static_cast<float>(eta),
                              static_cast<float>(magnitude), ra, dec});
                }
            }
        }
        PlainCombSort(list, list.Count(), &PlateStar::Flux);
        return list;
    }
};

void WriteCells(const fs::path& folder, const PlainCatalog& plain) {
    for (const auto& [name, stars] : plain.Files) {
        std::string bytes;
        for (const CatalogStar& star : stars) {
            const auto record = EncodeCatalogStar(star);
            bytes.append(record.begin(), record.end());
        }
        bytes.append(name.back() % 10, '!');  // a tail that makes no record
        WriteFile(folder / name, bytes);
    }
}

void AddStar(PlainCatalog& plain, double ra, double dec, double magnitude) {
    plain.Files[CellName(CellOf({ra, dec}))].push_back(
        {static_cast<float>(ra), static_cast<float>(dec),
         static_cast<std::int16_t>(std::lround(magnitude * 100))});
}

void ExpectSameList(const PlateStarList& stars, const PlateStarList& plain) {
    ASSERT_EQ(stars.Count(), plain.Count());
    for (int i = 1; i <= plain.Count(); ++i) {
        const PlateStar& one = stars[i];
        const PlateStar& other = plain[i];
        ASSERT_TRUE(one.X == other.X && one.Y == other.Y && one.Flux == other.Flux &&
                    one.Ra == other.Ra && one.Dec == other.Dec)
            << "star " << i << " of " << stars.Count();
    }
}

// Loads and queries one region both ways; the plane's centre lies `away` (radians) from the
// region's.
void ExpectSameRegion(CatalogCache& cache, PlainCatalog& plain, double ra0, double dec0,
                      double radius, double magLimit, double away = 0) {
    Projection plane;
    plane.SetProjectionCentre({ra0 + away, dec0 * (1 - away)}, 206264.81 * (1 - away));
    const std::uint64_t changes = cache.Changes;
    const auto inMemory = RegionStarsInMemory(cache, plane, {ra0, dec0}, radius, magLimit);
    const PlateStarList stars = RegionStars(cache, plane, {ra0, dec0}, radius, magLimit);
    if (inMemory) {
        ExpectSameList(*inMemory, stars);
        EXPECT_EQ(cache.Changes, changes) << "cells were read that were said to be there";
    }
    // After reading, a cell is in memory unless there was no room for it.
    const auto readBefore = RegionStarsInMemory(cache, plane, {ra0, dec0}, radius, magLimit);
    if (cache.MaxCells > 900) {
        ASSERT_TRUE(readBefore);
        ExpectSameList(*readBefore, stars);
    }
    plain.LoadRegion(ra0, dec0, radius);
    ASSERT_EQ(cache.Cells.size(), plain.Cells.size());
    ASSERT_EQ(cache.CachedStars, plain.CachedStars);
    for (std::size_t i = 0; i < plain.Cells.size(); ++i) {
        ASSERT_EQ(cache.Cells[i].CellName, plain.Cells[i].Name) << i;
        ASSERT_EQ(cache.Cells[i].Age, plain.Cells[i].Age) << plain.Cells[i].Name;
        ASSERT_EQ(cache.Cells[i].InUse, plain.Cells[i].InUse) << plain.Cells[i].Name;
    }
    const double limit = radius * 206264.81;
    ExpectSameList(stars, plain.Query(plane, limit * limit, magLimit, false));
    // Seen from the opposite point, all of the region's stars are on the far hemisphere.
    for (const double side : {1.0, -1.0}) {
        Projection fieldPlane;
        const PlateStarList field = FieldStars(
            cache, fieldPlane, {ra0 + (side < 0 ? Pi : 0), side * dec0}, radius, magLimit);
        EXPECT_EQ(fieldPlane.ProjectionScale, 206264.8062);
        ExpectSameList(field, plain.Query(fieldPlane, radius * 206264.8062, magLimit, true));
    }
}

// Stars all over the sky, denser near the places that are searched; magnitudes with many ties.
PlainCatalog RandomCatalog(Random& random, int stars) {
    PlainCatalog plain;
    for (int i = 0; i < stars; ++i) {
        double ra = random.Between(0, 6.2831);
        double dec = std::asin(random.Between(-1, 1));
        if (i % 40 > 0) ra = std::fmod(random.Between(6.2, 6.4), 6.2831853);
        if (i % 40 > 0) dec = random.Between(-0.1, 0.1);
        if (i % 40 > 25) dec = std::copysign(random.Between(1.5, 1.5707), random.Between(-1, 1));
        AddStar(plain, ra, dec, random.Whole(-15, 150) / 10.0);
    }
    for (auto& [name, list] : plain.Files) {
        if (random.Whole(0, 2) == 0) {
            std::sort(list.begin(), list.end(),
                      [](const CatalogStar& a, const CatalogStar& b) { return a.Mag < b.Mag; });
        }
        if (random.Whole(0, 9) == 0) list.front().Ra = std::nanf("");
        if (random.Whole(0, 9) == 0) list.back().Dec = std::numeric_limits<float>::infinity();
    }
    return plain;
}

TEST(Region, CacheAndStarsAreThoseOfThePlainLoops) {
    Random random(22);
    PlainCatalog plain = RandomCatalog(random, 40000);
    const TemporaryFolder folder;
    WriteCells(folder.Path, plain);
    // With room for three cells, a region drops its own cells while it is read.
    for (const std::size_t room : {999, 70, 3}) {
        CatalogCache cache;
        cache.Folder = folder.Path;
        plain.Forget();
        if (room < 999) {
            cache.MaxCells = plain.MaxCells = room;
            cache.MaxStars = plain.MaxStars = 3000;
        }
        double ra0 = 0;
        double dec0 = 0;
        for (int trial = 0; trial < 120; ++trial) {
            const double radius = std::pow(10, random.Between(-3, -0.4));
            if (trial % 6 == 5) {  // the antipode of the region before
                ra0 = ra0 > 3.1415 ? ra0 - 3.141592654 : ra0 + 3.141592654;
                dec0 = -dec0;
            } else {
                ra0 = trial % 3 == 0 ? random.Between(0, 0.01) : random.Between(0, 6.28);
                dec0 = trial % 5 == 1   ? random.Between(1.38, 1.5707963)
                       : trial % 5 == 2 ? random.Between(-1.5707963, -1.38)
                                        : random.Between(-0.1, 0.1);
            }
            SCOPED_TRACE("trial " + std::to_string(trial) + ", room " + std::to_string(room));
            const double magLimit = trial % 7 == 0 ? std::nan("") : random.Whole(-10, 170) / 10.0;
            ExpectSameRegion(cache, plain, ra0, dec0, radius, magLimit, trial % 4 == 3 ? 0.4 : 0);
            ASSERT_FALSE(HasFatalFailure());
        }
    }
    // Other programs that share the catalog expect a file for every cell that was requested.
    for (const auto& [name, stars] : plain.Files) {
        EXPECT_EQ(fs::exists(folder / name), IsCellName(name)) << name;
    }
}

TEST(Region, AWholeOneMissesNoStarAndHasNoneOfTheOppositeSky) {
    Random random(23);
    const PlainCatalog plain = RandomCatalog(random, 30000);
    const TemporaryFolder folder;
    WriteCells(folder.Path, plain);
    // Wide regions have more cells, and here more stars, than fit the second cache.
    CatalogCache usual;
    CatalogCache small;
    small.MaxCells = 50;
    small.MaxStars = 3000;
    usual.Folder = small.Folder = folder.Path;
    for (int trial = 0; trial < 60; ++trial) {
        const SkyPosition centre{random.Between(0, 6.28), random.Between(-1.57, 1.57)};
        const double radius = trial % 20 == 0 ? 1 : random.Between(0.05, 1);  // on the plane
        std::int64_t there = 0;
        for (const auto& [name, stars] : plain.Files) {
            there += std::count_if(stars.begin(), stars.end(), [&](const CatalogStar& star) {
                return SkyDistance(PositionOf(star), centre) < std::asin(radius);
            });
        }
        // Rounding may decide about a star at the rim.
        there = std::min<std::int64_t>(there, 10000);
        for (CatalogCache* cache : {&usual, &small}) {
            if (cache == &small && !IsWideRegion(radius)) continue;
            const std::int64_t found = WholeRegionStars(*cache, centre, radius, 99).Count();
            EXPECT_NEAR(static_cast<double>(found), static_cast<double>(there), 1)
                << "about " << centre.Ra << ", " << centre.Dec << " within " << radius;
            EXPECT_LE(cache->Cells.size(), cache->MaxCells);
            EXPECT_LE(cache->CachedStars, cache->MaxStars);
        }
    }
}

#ifndef _WIN32
TEST(Region, CellsThatAreNoFilesHoldNoStarsAndLeadToNoOtherFile) {
    const TemporaryFolder folder;
    CatalogCache cache;
    cache.Folder = folder / "catalog";
    fs::create_directory(cache.Folder);
    const std::string name = CellName(CellOf({1.01, 0.51}));
    fs::create_symlink(folder / "elsewhere", cache.Folder / name);
    PlainCatalog none;
    ExpectSameRegion(cache, none, 1.01, 0.51, 0.001, 20);
    EXPECT_FALSE(fs::exists(folder / "elsewhere"));
    fs::remove(cache.Folder / name);
    ASSERT_EQ(mkfifo((cache.Folder / name).c_str(), 0600), 0);
    CatalogCache again;
    again.Folder = cache.Folder;
    ExpectSameRegion(again, none, 1.01, 0.51, 0.001, 20);  // without waiting for its other end
}
#endif

TEST(Region, DropsTheStarsBeyondTheTenThousandthAndNeedsNoFolder) {
    Random random(24);
    PlainCatalog plain;
    for (int i = 0; i < 12000; ++i) {
        AddStar(plain, random.Between(1, 1.02), random.Between(0.5, 0.52), random.Whole(5, 12));
    }
    const TemporaryFolder folder;
    WriteCells(folder.Path, plain);
    CatalogCache cache;
    cache.Folder = folder.Path;
    ExpectSameRegion(cache, plain, 1.01, 0.51, 0.1, 20);
    ExpectSameRegion(cache, plain, 1.01, 0.51, 0.1, 12);  // a star exactly at the limit is left out
    for (const fs::path& nowhere : {folder / "not there", fs::path()}) {
        CatalogCache empty;
        empty.Folder = nowhere;
        PlainCatalog none;
        ExpectSameRegion(empty, none, 1.01, 0.51, 0.1, 20);
    }
    EXPECT_FALSE(fs::exists(folder / "not there"));
}

TEST(Region, OfADeepCellReadsItsBrightestStarsOnlyAndMissesNoneOfAnyFile) {
    Random random(25);
    PlainCatalog plain;
    // Four cells that meet in a corner.
    for (int i = 0; i < 120000; ++i) {
        AddStar(plain, random.Between(0.10, 0.18), random.Between(0.02, 0.07),
                18 + std::log10(random.Between(1e-5, 1)) / 0.42);
    }
    const TemporaryFolder folder;
    const auto brighter = [](const CatalogStar& a, const CatalogStar& b) { return a.Mag < b.Mag; };
    for (auto& [name, stars] : plain.Files) std::sort(stars.begin(), stars.end(), brighter);
    enum class Fault { None, FaintFirst, AddedLater, AddedUnnoticed };
    for (const Fault fault :
         {Fault::None, Fault::FaintFirst, Fault::AddedLater, Fault::AddedUnnoticed}) {
        SCOPED_TRACE(static_cast<int>(fault));
        for (auto& [name, stars] : plain.Files) {
            if (fault == Fault::FaintFirst) std::reverse(stars.begin(), stars.end());
            if (fault == Fault::AddedLater) std::sort(stars.begin(), stars.end(), brighter);
            if (fault == Fault::AddedLater) std::swap(stars[7], stars[stars.size() - 9]);
            if (fault == Fault::AddedUnnoticed) stars.push_back(stars.front());
        }
        WriteCells(folder.Path, plain);
        WriteFile(folder / ManifestName, "{}");
        const auto hour = std::chrono::hours(fault == Fault::AddedLater ? -1 : 1);
        fs::last_write_time(folder / ManifestName, fs::file_time_type::clock::now() + hour);
        CatalogCache cache;
        cache.Folder = folder.Path;
        plain.Forget();
        for (const double magLimit : {9.0, 12.0, std::nan(""), 10.0, 16.0, 30.0}) {
            for (const double radius : {0.003, 0.02}) {
                ExpectSameRegion(cache, plain, 0.1396, 0.0436, radius, magLimit);
                ASSERT_FALSE(HasFatalFailure()) << magLimit;
            }
            if (magLimit == 9.0) {
                const auto inMemory = [](std::size_t sum, const CachedCell& cell) {
                    return sum + cell.Stars.size();
                };
                const std::size_t read = std::accumulate(cache.Cells.begin(), cache.Cells.end(),
                                                         std::size_t{0}, inMemory);
                EXPECT_EQ(read < 20000, fault == Fault::None) << read;
            }
        }
    }
    // A file that is replaced between two regions is read anew, not mixed.
    CatalogCache cache;
    cache.Folder = folder.Path;
    for (auto& [name, stars] : plain.Files) std::sort(stars.begin(), stars.end(), brighter);
    WriteCells(folder.Path, plain);
    fs::last_write_time(folder / ManifestName,
                        fs::file_time_type::clock::now() + std::chrono::hours(1));
    plain.Forget();
    ExpectSameRegion(cache, plain, 0.1396, 0.0436, 0.01, 9);
    for (auto& [name, stars] : plain.Files) {
        WriteFile(folder / name, std::string(20, '\0'));
        fs::last_write_time(folder / name,
                            fs::file_time_type::clock::now() - std::chrono::hours(2));
    }
    Projection plane;
    plane.SetProjectionCentre({0.1396, 0.0436}, SolveArcsecondsPerRadian);
    EXPECT_EQ(RegionStars(cache, plane, {0.1396, 0.0436}, 0.01, 30).Count(), 0);
}

}  // namespace
}  // namespace vestrel
