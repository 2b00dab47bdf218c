// vestrel-catalog: sources, the building of cells, the exchange of folders and the program itself.
#include <gtest/gtest.h>
#ifndef _WIN32
#include <sys/wait.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <numbers>
#include <random>
#include <set>
#include <tuple>

#include "astro/libMath.h"
#include "astro/libParallel.h"
#include "catalog/libCellGrid.h"
#include "catalogtool/libAstap.h"
#include "catalogtool/libBrightStars.h"
#include "catalogtool/libCatalogBuilder.h"
#include "catalogtool/libCatalogCoverage.h"
#include "catalogtool/libCatalogFolder.h"
#include "catalogtool/libCatalogSurvey.h"
#include "catalogtool/libFastStars.h"
#include "catalogtool/libFitsTable.h"
#include "catalogtool/libIndexFile.h"
#include "catalogtool/libKStars.h"
#include "catalogtool/libSources.h"
#include "catalogtool/libStarTable.h"
#include "catalogtool/libSyntheticSky.h"
#include "catalogtool/libTextLines.h"
#include "platform/libFiles.h"
#include "platform/libPlatform.h"
#include "tests/judge.h"
#include "tests/starSources.h"
#include "tests/testSupport.h"

namespace vestrel {
namespace {
namespace fs = std::filesystem;

constexpr double degree = std::numbers::pi / 180;
constexpr double arcsecond = degree / 3600;

/// The angle between two positions (radians), by the haversine formula.
double Separation(const SkyStar& a, const SkyStar& b) {
    const double height = std::sin((a.Dec - b.Dec) / 2);
    const double width = std::sin((a.Ra - b.Ra) / 2);
    const double chord = height * height + std::cos(a.Dec) * std::cos(b.Dec) * width * width;
    return 2 * std::asin(std::min(1.0, std::sqrt(chord)));
}

std::vector<SkyStar> RandomSky(int count, unsigned seed) {
    Random random(seed);
    std::vector<SkyStar> stars;
    for (int i = 0; i < count; ++i) {
        const double ra = random.Between(0, 2 * std::numbers::pi);
        const double dec = std::asin(random.Between(-1, 1));
        stars.push_back({ra, dec, random.Whole(-200, 1800) / 100.0});
    }
    return stars;
}

// ---- Storing ----

TEST(CellGrid, EveryPositionIsStoredInACellThatExists) {
    const double circle = 2 * std::numbers::pi;
    std::vector<double> ras = {0, -0.0, 1e-300, circle, std::nextafter(circle, 0), circle - 1e-7};
    std::vector<double> decs = {-0.0, -1e-300, 90 * degree, -90 * degree};
    for (int zone = -35; zone <= 35; ++zone) {
        for (const double off : {-1e-9, 0.0, 1e-9}) decs.push_back((zone * 2.5 + off) * degree);
    }
    for (int ra = 1; ra < 360; ++ra) ras.push_back(ra * degree);
    for (const double ra : ras) {
        for (const double dec : decs) {
            const auto stored = StoredStar({ra, dec, 5});
            ASSERT_TRUE(stored) << ra << " " << dec;
            ASSERT_TRUE(IsCellName(CellName(CellOf({stored->Ra, stored->Dec}))))
                << ra << " " << dec;
            ASSERT_EQ(AllCells().at(CellNumber(CellOfStored(*stored))), CellOfStored(*stored));
            ASSERT_LT(Separation({ra, dec, 0}, {stored->Ra, stored->Dec, 0}), 0.1 * arcsecond);
        }
    }
    double area = 0;
    for (const CellPosition& cell : AllCells()) area += CellAreaFraction(cell);
    EXPECT_NEAR(area, 1, 1e-12);
    const double nan = std::nan("");
    for (const SkyStar& bad : {SkyStar{nan, 0, 5}, SkyStar{0, nan, 5}, SkyStar{0, 0, nan},
                               SkyStar{-0.1, 0, 5}, SkyStar{6.3, 0, 5}, SkyStar{0, 1.58, 5},
                               SkyStar{0, 0, 99.99}, SkyStar{0, 0, -99}, SkyStar{0, 0, 1e300}}) {
        EXPECT_FALSE(StoredStar(bad)) << bad.Ra << " " << bad.Dec << " " << bad.Mag;
    }
    // Halves go to even; the sign of a magnitude must survive.
    EXPECT_EQ(StoredStar({0, 0, 0.125})->Mag, 12);
    EXPECT_EQ(StoredStar({0, 0, -1.375})->Mag, -138);
}

// ---- Building and checking ----

/// A catalog built from stars, with its manifest.
void BuildCatalog(const fs::path& folder, const std::vector<SkyStar>& stars,
                  std::size_t gatheredStars) {
    fs::create_directories(folder);
    CatalogBuilder builder(folder, gatheredStars);
    for (const SkyStar& star : stars) builder.Add(*StoredStar(star));
    ProgressLine silent(stdout);
    builder.Finish(silent);
    CatalogManifest manifest;
    manifest.Cells = builder.Cells();
    ASSERT_TRUE(WriteManifest(folder, manifest));
}

CatalogSurvey Survey(const fs::path& folder) {
    CatalogManifest manifest;
    EXPECT_EQ(ReadManifest(folder, manifest), ManifestState::Good);
    ProgressLine silent(stdout);
    return SurveyCatalog(folder, &manifest, silent);
}

TEST(CatalogBuilder, CellsDependNeitherOnTheOrderOfStarsNorOnMemoryNorOnThreads) {
    const TemporaryFolder folder;
    // Enough for several sorted runs in memory, and for two of each block that goes to the disk.
    std::vector<SkyStar> stars = RandomSky(280000, 1);
    // Crowded cells with equal magnitudes, so that ties are many.
    for (int i = 0; i < 300; ++i) stars.push_back({0.2, 0.1 + 1e-5 * (i % 150), 7});
    for (int i = 0; i < 3000; ++i) stars.push_back({4, 0.2 + 1e-5 * (i % 1500), 6.0 + i % 7});
    {
        const ThreadLimit one(1);
        BuildCatalog(folder / "plenty", stars, 1U << 20);
    }
    const ThreadLimit several(5);
    std::shuffle(stars.begin(), stars.end(), std::mt19937(2));
    BuildCatalog(folder / "scant", stars, 135000);

    std::set<std::tuple<float, float, int>> expected;
    for (const SkyStar& star : stars) {
        const CatalogStar stored = *StoredStar(star);
        expected.insert({stored.Ra, stored.Dec, stored.Mag});
    }
    for (const CellPosition& position : AllCells()) {
        const std::string name = CellName(position);
        ASSERT_TRUE(fs::exists(folder / "scant" / name)) << name;
        ASSERT_EQ(ReadFile(folder / "plenty" / name), ReadFile(folder / "scant" / name)) << name;
        std::vector<CatalogStar> cell;
        ASSERT_TRUE(ReadCellFile(folder / "scant" / name, cell));
        ASSERT_TRUE(std::is_sorted(cell.begin(), cell.end(), [](const auto& a, const auto& b) {
            return a.Mag < b.Mag;
        })) << name;
        for (const CatalogStar& star : cell) {
            ASSERT_EQ(CellName(CellOf({star.Ra, star.Dec})), name);
            ASSERT_EQ(expected.erase({star.Ra, star.Dec, int{star.Mag}}), 1U) << name;
        }
    }
    EXPECT_TRUE(expected.empty());
    EXPECT_EQ(Survey(folder / "scant").FaultCount, 0U);
}

TEST(Verify, EveryKindOfDamageIsFoundAndNothingElse) {
    const TemporaryFolder folder;
    const fs::path good = folder / "good";
    const std::vector<SkyStar> stars = RandomSky(40000, 3);
    BuildCatalog(good, stars, 1U << 20);
    const std::string cell = CellName(CellOf({stars[0].Ra, stars[0].Dec}));
    const std::string other = CellName(CellOf({stars[0].Ra, -stars[0].Dec}));
    const std::string bytes = ReadFile(good / cell);
    const std::string first = bytes.substr(0, CatalogRecordBytes);
    ASSERT_GT(bytes.size(), 2 * first.size());

    std::vector<std::pair<std::string, std::string>> damages = {
        {cell, bytes.substr(0, bytes.size() - 1)},
        {cell, bytes.substr(first.size())},
        {cell, ""},
        {cell, bytes + first},
        {cell, bytes.substr(10, 10) + first + bytes.substr(20)},
        {other, bytes}};
    for (std::size_t at = 0; at < 2 * first.size(); ++at) {
        damages.emplace_back(cell, bytes);
        damages.back().second[at] ^= 1;
    }
    for (const auto& [name, content] : damages) {
        const std::string before = ReadFile(good / name);
        WriteFile(good / name, content);
        const CatalogSurvey survey = Survey(good);
        WriteFile(good / name, before);
        EXPECT_GT(survey.FaultCount, 0U) << name << " of " << content.size();
        EXPECT_TRUE(survey.Faults.at(0).starts_with(name));
    }

    WriteFile(good / "notes.txt", "mine");
    const CatalogSurvey stray = Survey(good);
    EXPECT_EQ(stray.FaultCount, 0U);
    EXPECT_EQ(stray.Strays, std::vector<std::string>{"notes.txt"});
    fs::remove(good / cell);
    EXPECT_EQ(Survey(good).FaultCount, 1U);

    // A file that only looks large costs nothing.
    WriteFile(good / cell, "");
    fs::resize_file(good / cell, std::uintmax_t{1} << 30);
    EXPECT_EQ(Survey(good).Faults.at(0), cell + " is longer than a cell can be, and was not read");
    std::vector<CatalogStar> none;
    EXPECT_FALSE(ReadCellFile(good / cell, none));
    fs::remove(good / cell);

    // Without a manifest, the check of places still finds stars in the wrong cell.
    ProgressLine silent(stdout);
    WriteFile(good / other, bytes);
    EXPECT_EQ(SurveyCatalog(good, nullptr, silent).FaultCount, 1U);
}

TEST(Coverage, HolesAreFoundAndFieldsAreAsSmallAsTheStarsAllow) {
    Random random(31);
    std::vector<std::uint64_t> stars;
    for (const CellPosition& cell : AllCells()) {
        // A sky that is three times denser on one side.
        const double density =
            40 + 80 * std::pow(std::sin(static_cast<double>(cell.Slice) * 0.03), 2);
        const double mean = density * 41253 * CellAreaFraction(cell);
        stars.push_back(static_cast<std::uint64_t>(mean * random.Between(0.7, 1.3)));
    }
    EXPECT_TRUE(FindHoles(stars).empty());
    std::vector<std::size_t> dug = {CellNumber({false, 35, 0}), CellNumber({true, 34, 17}),
                                    CellNumber({false, 0, 89}), CellNumber({true, 12, 0}), 1234};
    std::sort(dug.begin(), dug.end());
    for (const std::size_t cell : dug) stars[cell] = stars[cell] / 20;
    std::vector<std::size_t> found;
    for (const CatalogHole& hole : FindHoles(stars)) found.push_back(hole.Cell);
    EXPECT_EQ(found, dug);
    // The edge of a catalog that covers part of the sky is not a hole.
    for (std::size_t i = 0; i < stars.size(); ++i) {
        const double ra = static_cast<double>(AllCells()[i].Slice) * SliceWidth(AllCells()[i].Zone);
        if (AllCells()[i].South || ra > 120 || AllCells()[i].Zone > 30) stars[i] = 0;
    }
    for (const CatalogHole& hole : FindHoles(stars))
        EXPECT_TRUE(std::count(dug.begin(), dug.end(), hole.Cell)) << hole.Cell;

    constexpr double area = 10;  // square degrees
    for (const int count : {100, 1000, 50000}) {
        const double enough = std::sqrt(StarsToSolveWith * area / (0.48 * count));
        const std::vector<std::int16_t> bright(static_cast<std::size_t>(count), 500);
        EXPECT_NEAR(SmallestField(bright, area), std::max(enough, 0.05), 0.03 * enough) << count;
        // A field of 44.4' and more is compared with stars brighter than magnitude 14 only.
        const std::vector<std::int16_t> faint(static_cast<std::size_t>(count), 1400);
        EXPECT_EQ(std::isfinite(SmallestField(faint, area)), enough < 0.74) << count;
    }
}

TEST(Manifest, ChecksumIsTheUsualOneAndWhatIsNoCountIsRefused) {
    const TemporaryFolder folder;
    Checksum checksum;
    const std::array<unsigned char, 9> text = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
    checksum.Add(text);
    EXPECT_EQ(checksum.Value(), 0xCBF43926U);  // the check value that the CRC-32 is published with

    BuildCatalog(folder.Path, {}, 1000);
    const std::string good = ReadFile(folder / ManifestName);
    const std::size_t at = good.find("\"crc32\": ") + 9;
    for (const char* count : {"-1", "0.5", "1E300", "4294967296", "true"}) {
        CatalogManifest manifest;
        const std::size_t end = good.find_first_not_of("0123456789", at);
        WriteFile(folder / ManifestName, good.substr(0, at) + count + good.substr(end));
        EXPECT_EQ(ReadManifest(folder.Path, manifest), ManifestState::Unreadable) << count;
    }
}

// ---- Index files ----

std::string Table(const char* column, std::size_t rowBytes, std::string data) {
    const std::string header =
        FitsHeader({"XTENSION= 'BINTABLE'", "BITPIX  = 8", "NAXIS   = 2",
                    "NAXIS1  = " + std::to_string(rowBytes),
                    "NAXIS2  = " + std::to_string(data.size() / rowBytes), "PCOUNT  = 0",
                    "GCOUNT  = 1", "TFIELDS = 1",
                    "TFORM1  = '" + (rowBytes == 4 ? "1E" : std::to_string(rowBytes) + "A") + "'",
                    std::string("TTYPE1  = '") + column + "'"});
    data.resize((data.size() + 2879) / 2880 * 2880, '\0');
    return header + data;
}

/// An index file after the description of the format, written without the code under test.
std::string IndexFile(const std::vector<SkyStar>& stars, std::size_t magnitudes,
                      const std::string& endian = "04:03:02:01", double reach = 1) {
    std::string range;
    for (const double number :
         {-reach, -reach, -reach, reach, reach, reach, 4294967295.0 / (2 * reach)}) {
        range += LittleEndian(number);
    }
    std::string positions;
    for (const auto& [ra, dec, mag] : stars) {
        for (const double value :
             {std::cos(dec) * std::cos(ra), std::cos(dec) * std::sin(ra), std::sin(dec)}) {
            positions += LittleEndian(
                static_cast<std::uint32_t>(std::round((value + 1) / 2 * 4294967295.0)));
        }
    }
    std::vector<double> mags;
    for (std::size_t i = 0; i < magnitudes; ++i) mags.push_back(stars[i % stars.size()].Mag);
    return FitsHeader({"SIMPLE  = T", "BITPIX  = 8", "NAXIS   = 0", "EXTEND  = T",
                       "ENDIAN  = '" + endian + "'"}) +
           Table("quads", 16, std::string(160, 'q')) + Table("kdtree_range_stars", 8, range) +
           Table("kdtree_data_stars", 12, positions) + Table("MAG_VT", 4, FitsPixels(-32, mags));
}

std::vector<SkyStar> ReadIndex(const fs::path& file, const IndexOptions& options = {}) {
    std::vector<SkyStar> stars;
    ProgressLine silent(stdout);
    ReadIndexFile(
        file, options, [&](const SkyStar& star) { stars.push_back(star); }, silent);
    return stars;
}

TEST(IndexFile, StarsComeBackAsTheyWereWritten) {
    const TemporaryFolder folder;
    std::vector<SkyStar> stars = RandomSky(70000, 6);  // more than one block
    stars.insert(stars.end(), {{0, 90 * degree, 1}, {3, -90 * degree, 2}, {0, 0, 3}});
    WriteFile(folder / "index", IndexFile(stars, stars.size()));
    const std::vector<SkyStar> read = ReadIndex(folder / "index");
    ASSERT_EQ(read.size(), stars.size());
    for (std::size_t i = 0; i < stars.size(); ++i) {
        ASSERT_TRUE(StoredStar(read[i])) << i;
        ASSERT_LT(Separation(read[i], stars[i]), 0.001 * arcsecond) << i;
        ASSERT_FLOAT_EQ(static_cast<float>(read[i].Mag), static_cast<float>(stars[i].Mag)) << i;
    }
}

TEST(IndexFile, AFileCutAnywhereOrContradictingItselfIsRefused) {
    const TemporaryFolder folder;
    const std::vector<SkyStar> stars = RandomSky(500, 7);
    const std::string whole = IndexFile(stars, stars.size());
    std::vector<std::string> bad = {"",
                                    "SIMPLE  =",
                                    std::string(5000, '\0'),
                                    IndexFile(stars, 499),
                                    IndexFile(stars, 501),
                                    IndexFile(stars, 500, "01:02:03:04"),
                                    IndexFile(stars, 500, "04:03:02:01", 0.9),
                                    IndexFile({}, 0)};
    // Names that the library would write beyond its memory.
    for (const std::string start : {"TTYPE1  = ", "TTYPE1  =!'"}) {
        bad.push_back(whole);
        bad.back().replace(whole.find("TTYPE1  = 'quads'"), 80,
                           start + std::string(80 - start.size(), 'z'));
    }
    for (std::size_t length = 100; length + 2880 < whole.size(); length += 1000) {
        bad.push_back(whole.substr(0, length));
    }
    for (std::size_t i = 0; i < bad.size(); ++i) {
        WriteFile(folder / "index", bad[i]);
        try {
            ReadIndex(folder / "index");
            ADD_FAILURE() << "taken: " << i;
        } catch (const ToolFailure& failure) {
            EXPECT_EQ(failure.Code, ToolExit::BadInput) << i;
        }
    }
}

TEST(IndexFile, DoublesAreReadAndStarsWithoutMagnitudesRankedLikeTheSky) {
    const TemporaryFolder folder;
    const std::vector<SkyStar> stars = RandomSky(3000, 8);
    std::string positions;
    std::string ranks;
    for (std::size_t i = 0; i < stars.size(); ++i) {
        const auto& [ra, dec, mag] = stars[i];
        positions += LittleEndian(std::cos(dec) * std::cos(ra)) +
                     LittleEndian(std::cos(dec) * std::sin(ra)) + LittleEndian(std::sin(dec));
        ranks += static_cast<char>(i / 300);
    }
    const std::string head = FitsHeader(
        {"SIMPLE  = T", "BITPIX  = 8", "NAXIS   = 0", "EXTEND  = T", "ENDIAN  = '04:03:02:01'"});
    std::string rankTable = Table("sweep", 1, ranks);
    rankTable.replace(rankTable.find("'1A'"), 4, "'1B'");
    WriteFile(folder / "ranked", head + Table("kdtree_data_stars", 24, positions) + rankTable);
    const std::vector<SkyStar> read = ReadIndex(folder / "ranked");
    ASSERT_EQ(read.size(), stars.size());
    for (std::size_t i = 0; i < stars.size(); ++i) {
        ASSERT_LT(Separation(read[i], stars[i]), 1e-4 * arcsecond);
        if (i >= 300) {
            EXPECT_EQ(read[i].Mag > read[i - 300].Mag, true);
        }
    }
    // The middle of the first rank is the 150th star of the sky, that of the last one the 2,850th.
    EXPECT_NEAR(read.front().Mag, 2.2, 0.5);
    EXPECT_NEAR(read.back().Mag, 5.2, 0.5);
    WriteFile(folder / "neither", head + Table("kdtree_data_stars", 24, positions));
    EXPECT_THROW(ReadIndex(folder / "neither"), ToolFailure);
}

/// Where a star is after its motion (arcseconds) along the tangents of the parallel and of the
/// meridian.
SkyStar Displaced(const SkyStar& star, double east, double north) {
    const auto& [ra, dec, mag] = star;
    east *= arcsecond;
    north *= arcsecond;
    const double x =
        std::cos(dec) * std::cos(ra) - east * std::sin(ra) - north * std::sin(dec) * std::cos(ra);
    const double y =
        std::cos(dec) * std::sin(ra) + east * std::cos(ra) - north * std::sin(dec) * std::sin(ra);
    const double z = std::sin(dec) + north * std::cos(dec);
    return {std::atan2(y, x), std::atan2(z, std::hypot(x, y)), mag};
}

TEST(IndexFile, StarsWithProperMotionsAreTakenFromTheirOwnEpochToThatAskedFor) {
    const TemporaryFolder folder;
    const std::vector<SkyStar> stars = RandomSky(2000, 9);
    Random random(10);
    std::vector<double> motionsRa;
    std::vector<double> motionsDec;
    std::vector<double> epochs;
    for (std::size_t i = 0; i < stars.size(); ++i) {
        motionsRa.push_back(i % 10 == 0 ? NAN : random.Normal(300));
        motionsDec.push_back(i % 10 == 5 ? 99999 : random.Normal(300));
        epochs.push_back(i % 10 == 1 ? 0 : random.Between(1990, 2020));
    }
    struct Motions {
        std::string Ra, Dec, Unit;
        double Milliarcseconds;  ///< the unit; 0 when it is not known
    };
    const auto tables = [&](const Motions& names) {
        std::string made;
        for (const auto& [name, motions] :
             {std::pair{names.Ra, motionsRa}, {names.Dec, motionsDec}}) {
            std::vector<double> numbers = motions;
            for (double& number : numbers) number /= std::max(1.0, names.Milliarcseconds);
            std::string table = Table(name.c_str(), 4, FitsPixels(-32, numbers));
            if (!names.Unit.empty()) {
                std::string card = "TUNIT1  = '" + names.Unit + "'";
                card.resize(80, ' ');
                table.replace(table.find("END   "), 80, card);
                table.replace(table.find(card) + 80, 3, "END");
            }
            made += table;
        }
        return made;
    };
    const auto check = [&](std::string file, const Motions& names,
                           const std::optional<double>& fileEpoch, double from) {
        file += tables(names);
        WriteFile(folder / "index", file);
        const std::vector<SkyStar> read = ReadIndex(folder / "index", {"", 2040.5, fileEpoch});
        ASSERT_EQ(read.size(), stars.size());
        for (std::size_t i = 0; i < stars.size(); ++i) {
            const double start = from > 0 ? from : epochs[i];
            const bool known =
                i % 10 != 0 && i % 10 != 5 && start > 1800 && names.Milliarcseconds > 0;
            const double seconds = known ? (2040.5 - start) / 1000 : 0;
            const SkyStar wanted =
                seconds == 0 ? stars[i]
                             : Displaced(stars[i], motionsRa[i] * seconds, motionsDec[i] * seconds);
            ASSERT_LT(Separation(read[i], wanted), 0.004 * arcsecond) << i << names.Ra;
        }
    };
    const std::string other = IndexFile(stars, stars.size());
    std::string gaia = other;
    gaia.replace(gaia.find("'MAG_VT'"), 17, "'phot_g_mean_mag'");
    const std::string withEpochs = Table("ref_epoch", 4, FitsPixels(-32, epochs));
    const Motions usual{"pmra", "PMDEC", "", 1};
    check(gaia, usual, {}, GaiaIndexEpoch);
    check(other, usual, {}, OtherIndexEpoch);
    check(gaia, usual, 2016, 2016);
    check(gaia + withEpochs, usual, {}, 0);
    check(gaia + withEpochs, usual, 2000, 2000);
    check(other, {"pmRA", "pmDE", "arcsec/yr", 1000}, 2040, 2040);
    check(other, {"PM_RA", "PM_DEC", "mas/yr", 1}, {}, OtherIndexEpoch);
    check(other, {"PM_RA", "PM_DEC", "furlong", 0}, {}, OtherIndexEpoch);

    // Fewer motions than stars are no motions.
    motionsRa.pop_back();
    WriteFile(folder / "index", other + tables(usual));
    EXPECT_THROW(ReadIndex(folder / "index"), ToolFailure);
}

// ---- Star databases of ASTAP ----

std::vector<SkyStar> ReadAstap(const fs::path& file) {
    std::vector<SkyStar> stars;
    ReadAstapFile(file, [&](const SkyStar& star) { stars.push_back(star); });
    return stars;
}

TEST(Astap, StarsComeBackAndWhatIsDamagedIsRefused) {
    const TemporaryFolder folder;
    std::vector<SkyStar> stars = RandomSky(2000, 9);
    stars.insert(stars.end(), {{0, -90 * degree, 1}, {3, 90 * degree, 1.1}, {0.1, -1e-7, -1.5}});
    for (SkyStar& star : stars) star.Mag = std::max(std::round(star.Mag * 10) / 10, -1.6);
    std::sort(stars.begin(), stars.end(),
              [](const SkyStar& a, const SkyStar& b) { return a.Mag < b.Mag; });
    for (const int recordBytes : {5, 6}) {
        const fs::path file = folder / "d05_0101.1476";
        const std::string bytes = AstapFile(stars, recordBytes);
        WriteFile(file, bytes);
        const std::vector<SkyStar> read = ReadAstap(file);
        ASSERT_EQ(read.size(), stars.size());
        for (std::size_t i = 0; i < stars.size(); ++i) {
            // Half a step of 24 bits.
            ASSERT_LT(Separation(read[i], stars[i]), 0.06 * arcsecond) << i;
            ASSERT_NEAR(read[i].Mag, stars[i].Mag, 1e-9);
        }
        std::string other = bytes;
        other[109] = 7;
        const std::string star = bytes.substr(110 + recordBytes, recordBytes);
        for (const std::string& bad :
             {std::string(), bytes.substr(0, 109), other, bytes.substr(0, bytes.size() - 1),
              bytes.substr(0, 110) + star}) {
            WriteFile(file, bad);
            EXPECT_THROW(ReadAstap(file), ToolFailure) << bad.size();
        }
    }
    const std::string floats = LittleEndian(std::uint32_t{2}) + LittleEndian(51.0F) +
                               LittleEndian(1.5F) + LittleEndian(-0.5F) + LittleEndian(60.0F) +
                               LittleEndian(6.0F) + LittleEndian(0.25F);
    WriteFile(folder / "w08_0101.001", floats);
    const std::vector<SkyStar> wide = ReadAstap(folder / "w08_0101.001");
    ASSERT_EQ(wide.size(), 2U);
    EXPECT_NEAR(wide[0].Mag, 5.1, 1e-6);
    EXPECT_EQ(wide[1].Dec, 0.25);
    WriteFile(folder / "w08_0101.001", floats + "x");
    EXPECT_THROW(ReadAstap(folder / "w08_0101.001"), ToolFailure);

    // Which database is meant must be clear.
    WriteFile(folder / "d05_0102.1476", AstapFile(stars, 5));
    EXPECT_THROW(ChosenAstapDatabase(folder.Path), ToolFailure);
    EXPECT_EQ(ChosenAstapDatabase(folder / "d05").Files.size(), 2U);
    EXPECT_THROW(ChosenAstapDatabase(folder / "d50"), ToolFailure);
    WriteFile(folder / "index-4107.fits", "x");
    const CatalogSources found = FindCatalogSources({folder.Path, folder / "none"});
    ASSERT_EQ(found.Astap.size(), 2U);
    EXPECT_EQ(found.Astap[0].Place, folder / "d05");
    EXPECT_EQ(found.Indexes.at(0).Files.size(), 1U);
}

// ---- Stars of KStars ----

std::vector<SkyStar> ReadKStars(const fs::path& file, double epoch = 2000) {
    std::vector<SkyStar> stars;
    ProgressLine silent(stdout);
    ReadKStarsFile(
        file, epoch, [&](const SkyStar& star) { stars.push_back(star); }, silent);
    return stars;
}

TEST(KStars, BrightAndDeepFilesGiveTheirStarsWhereTheyAreAtTheEpoch) {
    const TemporaryFolder folder;
    std::vector<MovingStar> stars;
    Random random(21);
    for (const SkyStar& star : RandomSky(3000, 20)) {
        stars.push_back({star, 1.0 * random.Whole(-900, 900), 1.0 * random.Whole(-900, 900)});
    }
    for (const bool deep : {false, true}) {
        const fs::path file = folder / (deep ? "deepstars.dat" : "namedstars.dat");
        WriteFile(file, KStarsFile(stars, deep));
        const std::vector<SkyStar> still = ReadKStars(file, 2000);
        const std::vector<SkyStar> later = ReadKStars(file, 2025);
        ASSERT_EQ(still.size(), stars.size());
        for (std::size_t i = 0; i < stars.size(); ++i) {
            const auto& [star, motionRa, motionDec] = stars[i];
            // Half a millionth of an hour, half a hundred-thousandth of a degree.
            ASSERT_LT(Separation(still[i], star), 0.04 * arcsecond) << i;
            ASSERT_NEAR(still[i].Mag, star.Mag, 0.0051);
            const double moved = std::hypot(motionRa, motionDec) * 25 / 1000 * arcsecond;
            ASSERT_NEAR(Separation(later[i], still[i]), moved, 0.01 * arcsecond) << i;
            if (std::fabs(star.Dec) < 80 * degree && motionDec != 0) {
                ASSERT_EQ(later[i].Dec > still[i].Dec, motionDec > 0) << i;
            }
        }
        EXPECT_EQ(HasBrightStarsOnly(file), !deep);
    }
    // Without a visual magnitude the blue one serves; without any the star cannot be stored.
    WriteFile(folder / "deepstars.dat",
              KStarsFile({{{1, 0.5, 10}, 0, 0}}, true, /*blueOnly=*/true));
    EXPECT_NEAR(ReadKStars(folder / "deepstars.dat").at(0).Mag, 8.4, 1e-9);

    // The bright stars come first; other files in that folder are not star files.
    WriteFile(folder / "starnames.dat", std::string(200, ' '));
    WriteFile(folder / "stars.dat", "text");
    EXPECT_EQ(KStarsFilesIn(folder.Path),
              (std::vector<fs::path>{folder / "namedstars.dat", folder / "deepstars.dat"}));
    EXPECT_EQ(FindCatalogSources({folder.Path}).KStars.at(0).Files, 2U);
}

TEST(KStars, AFileCutAnywhereOrContradictingItselfIsRefusedByName) {
    const TemporaryFolder folder;
    const fs::path file = folder / "namedstars.dat";
    const std::string bytes = KStarsFile({{{1, 0.5, 3}, 10, 20}, {{2, -0.5, 4}, 0, 0}}, false);
    const auto isRefused = [&](const std::string& content) {
        WriteFile(file, content);
        try {
            ReadKStars(file);
        } catch (const ToolFailure& failure) {
            return std::string(failure.what()).find("namedstars.dat") != std::string::npos;
        }
        return false;
    };
    ASSERT_FALSE(isRefused(bytes));
    for (std::size_t length = 0; length < bytes.size(); ++length) {
        ASSERT_TRUE(isRefused(bytes.substr(0, length))) << length;
    }
    EXPECT_TRUE(isRefused(bytes + "x"));
    // The bytes that define the layout: the mark, the number and sizes of the fields, the parts.
    for (const std::size_t at : {124U, 125U, 127U, 128U, 129U, 139U, 155U}) {
        std::string bad = bytes;
        bad[at] ^= 0x40;
        EXPECT_TRUE(isRefused(bad)) << at;
    }
    const std::size_t parts = 129 + 11 * 16;
    for (std::size_t at = parts; at < parts + 4 + 2 * 12; ++at) {
        std::string bad = bytes;
        bad[at] ^= 1;
        EXPECT_TRUE(isRefused(bad)) << at;
    }
}

TEST(KStars, TheFilesOfDebianAreTheBrightSky) {
    const fs::path folder = "/usr/share/kstars";
    if (!fs::exists(folder / "namedstars.dat")) {
        SKIP_OR_FAIL("kstars-data is not installed");
    }
    std::vector<SkyStar> stars;
    for (const fs::path& file : KStarsFilesIn(folder)) {
        const std::vector<SkyStar> some = ReadKStars(file, 2000);
        stars.insert(stars.end(), some.begin(), some.end());
    }
    // Of a sky complete to magnitude 6.5 there are about 9,000 so bright (Yale Bright Star
    // Catalog).
    const auto count = std::count_if(stars.begin(), stars.end(),
                                     [](const SkyStar& star) { return star.Mag <= 6.5; });
    EXPECT_TRUE(count > 8000 && count < 10000) << count;
    // Places of 2000 in the Hipparcos Catalogue: Vega (which stands where it was in 1991), Canopus,
    // Rigil Kentaurus (which moves fast).
    for (const SkyStar& known : {SkyStar{279.234735 * degree, 38.783689 * degree, 0.03},
                                 SkyStar{95.987958 * degree, -52.695661 * degree, -0.62},
                                 SkyStar{219.902066 * degree, -60.833975 * degree, -0.01}}) {
        const auto found = std::find_if(stars.begin(), stars.end(), [&](const SkyStar& star) {
            return Separation(star, known) < 4 * arcsecond && std::fabs(star.Mag - known.Mag) < 0.1;
        });
        EXPECT_NE(found, stars.end()) << known.Ra / degree;
    }
}

// ---- Several sources ----

TEST(CatalogBuilder, AStarOfSeveralSourcesIsTakenOnceAlsoAcrossTheEdgesOfCells) {
    const TemporaryFolder folder;
    std::vector<SkyStar> stars = RandomSky(30000, 20);
    // At the edges of cells, where two measurements fall into different ones.
    for (int i = 0; i < 3000; ++i) {
        stars.push_back({(i % 90) * 4 * degree, (i / 90 - 15) * 1.7 * degree, 9});
        stars.push_back({1e-4 * i, (i % 33) * 2.5 * degree, 9});
    }
    Random random(21);
    for (const std::size_t gathered : {1U << 20, 9000U}) {
        const fs::path place = folder / std::to_string(gathered);
        fs::create_directories(place);
        CatalogBuilder builder(place, gathered);
        std::set<std::string> kept;
        for (unsigned char source = 0; source < 3; ++source) {
            for (const SkyStar& star : stars) {
                SkyStar seen = star;
                seen.Mag += source * 0.3;
                seen.Dec += source * random.Between(-0.4, 0.4) * arcsecond;
                seen.Ra += source * random.Between(-0.4, 0.4) * arcsecond / std::cos(star.Dec);
                if (seen.Ra < 0) seen.Ra += 2 * std::numbers::pi;
                if (seen.Ra >= 2 * std::numbers::pi) seen.Ra -= 2 * std::numbers::pi;
                if (const auto stored = StoredStar(seen)) builder.Add(*stored, source);
            }
            // Neighbours that are other stars: farther away, or of very different brightness.
            builder.Add(*StoredStar({2, 0.5 + source * 3 * arcsecond, 8}), source);
            builder.Add(*StoredStar({3, 0.5, 8.0 + 2 * source}), source);
        }
        ProgressLine silent(stdout);
        builder.Finish(silent);
        std::uint64_t count = 0;
        for (const auto& [name, cell] : builder.Cells()) count += cell.Stars;
        EXPECT_EQ(count + builder.Merged() + builder.Duplicates(), 3 * stars.size() + 6);
        EXPECT_EQ(count, stars.size() + 6 - builder.Duplicates());
    }
}

TEST(SyntheticSky, APartHasTheStarsOfTheWholeAndTheNumbersAskedFor) {
    SyntheticSky sky;
    sky.Density = 3;
    std::set<std::tuple<double, double, double>> whole;
    int faint = 0;
    MakeSyntheticSky(sky, [&](const SkyStar& star) {
        whole.insert({star.Ra, star.Dec, star.Mag});
        if (star.Mag > 17) ++faint;
    });
    EXPECT_NEAR(static_cast<double>(whole.size()), 3 * 41253, 0.03 * 3 * 41253);
    EXPECT_NEAR(faint / static_cast<double>(whole.size()), 1 - std::pow(10, -0.42), 0.01);
    for (const auto& [ra, dec] : {std::pair{266.0, -29.0}, {192.9, 27.1}, {0.5, 89.0}}) {
        sky.CentreRa = ra;
        sky.CentreDec = dec;
        sky.Radius = 6;
        std::size_t expected = 0;
        const SkyStar centre{ra * degree, dec * degree, 0};
        for (const auto& [starRa, starDec, mag] : whole) {
            if (Separation({starRa, starDec, mag}, centre) < 6 * degree) ++expected;
        }
        std::size_t count = 0;
        MakeSyntheticSky(sky, [&](const SkyStar& star) {
            ++count;
            EXPECT_TRUE(whole.contains({star.Ra, star.Dec, star.Mag}));
        });
        EXPECT_EQ(count, expected);
    }
}

// ---- The brightest stars ----

TEST(BrightStars, NeitherLackingNorDoubled) {
    struct Case {
        double Arcseconds;  ///< from the bright star to the survey's star
        double Mag;         ///< of the survey's star; the bright one has 0
        bool Same;
    };
    const Case cases[] = {{0, 0.3, true},  {30, 1.35, false},  // a companion is another star
                          {55, 0.2, true}, {5, 1.6, true},     // it moved; a resolved pair
                          {70, 0, false},  {1, 9, false}};     // a faint neighbour
    const std::vector<SkyStar> bright = RandomSky(20000, 10);
    for (const Case& one : cases) {
        BrightStarFinder finder(bright);
        EXPECT_EQ(finder.Missing().size(), bright.size());
        Random random(11);
        for (const SkyStar& star : bright) {
            // In any direction from the star, whichever nodes of the tree the two fall into.
            const double angle = random.Between(0, 2 * std::numbers::pi);
            const double distance = one.Arcseconds * arcsecond;
            finder.Visit({star.Ra + distance * std::sin(angle) / std::cos(star.Dec),
                          star.Dec + distance * std::cos(angle), star.Mag + one.Mag});
        }
        // Close to a pole a step along the parallel is longer than it says.
        const auto missing = finder.Missing();
        const auto far = std::count_if(missing.begin(), missing.end(), [](const SkyStar& star) {
            return std::fabs(star.Dec) < 1.5;
        });
        EXPECT_EQ(far > 19000, !one.Same) << one.Arcseconds << ", " << one.Mag;
        EXPECT_EQ(far == 0, one.Same) << one.Arcseconds << ", " << one.Mag;
    }
}

TEST(BrightStars, OnlyStarsAreReadFromGeoJson) {
    const TemporaryFolder folder;
    const auto feature = [](const std::string& coordinates, const std::string& mag) {
        return R"({"geometry":{"coordinates":)" + coordinates + R"(},"properties":{"mag":)" + mag +
               "}},";
    };
    WriteFile(folder / "stars", R"({"features":[)" + feature("[-80.7653,38.7837]", "0.03") +
                                    feature("[10]", "1") + feature("[10,91]", "1") +
                                    feature("[10,9]", "\"1\"") + feature("7", "1") + "3,{}]}");
    std::size_t unusable = 0;
    const auto stars = ReadBrightStars(folder / "stars", unusable);
    ASSERT_EQ(stars.size(), 1U);
    EXPECT_EQ(unusable, 6U);
    EXPECT_NEAR(stars[0].Ra / degree, 279.2347, 1e-9);
    for (const char* bad : {"", "[]", "[[[[", R"({"features":[]})"}) {
        WriteFile(folder / "stars", bad);
        EXPECT_THROW(ReadBrightStars(folder / "stars", unusable), ToolFailure) << bad;
    }
}

// ---- Tables ----

struct TableOutcome {
    std::vector<SkyStar> Stars;
    StarTableResult Result;
};

TableOutcome ReadTable(const std::string& text, const StarTableOptions& options = {},
                       std::size_t pieceBytes = std::size_t{1} << 18) {
#ifdef _WIN32
    const TemporaryFolder folder;
    WriteFile(folder / "table", text);
    const FileHandle file = OpenFile(folder / "table", "rb");
#else
    std::string copy = text;
    const FileHandle file(fmemopen(copy.data(), copy.size(), "r"));
#endif
    TableOutcome outcome;
    ProgressLine silent(stdout);
    UnpackedInput input(file.get());
    outcome.Result = ReadStarTable(
        input, "table", text.size(), options,
        [&](const SkyStar& star) { outcome.Stars.push_back(star); }, silent, pieceBytes);
    return outcome;
}

TEST(StarTable, TheSameStarsComeOutOfEveryDialect) {
    StarTableOptions hours;
    hours.RaUnit = AngleUnit::Hours;
    StarTableOptions named;
    named.RaColumn = "X";
    named.DecColumn = "y";
    named.MagColumn = "W1";
    const std::vector<std::pair<std::string, StarTableOptions>> dialects = {
        {"source_id,ra,dec,phot_g_mean_mag\n1,81.25,-0.5,7.25\n2,359.875,60.25,-1.5\n", {}},
        {"\xEF\xBB\xBF\"dec\" , \"a,b\",\"RA\",Mag\r\n-0.5,\"x, \"\"y\"\"\",81.25,7.25\r\n"
         "60.25,\"\",-0.125,-1.50\r\n",
         {}},
        {"#\n# VizieR\n\n_RAJ2000\tRAJ2000\tVmag\t_DEJ2000\tDEJ2000\ndeg\t\"h:m:s\"\tmag\tdeg\td\n"
         "-----\t---\t---\t---\t---\n081.2500\t05\t 7.250\t-00.500\t9\n359.875\t1\t-1.5\t+60.25\t0",
         {}},
        {"RAJ2000;DEJ2000;Vmag;\n05 25 00.0;-00 30 00.0;7.25;\n23:59:30.00;+60:15:00;-1.5;\n", {}},
        {"recno | alpha | delta | mag\n------+-------+-------+----\n"
         "1 | 5.4166666666666667 | -0.5 | 7.25\n2 | 23.9916666666666667 | 60.25 | -1.5\n",
         hours},
        {"ra,dec,mag,x,y,w1\n0,0,0,8.125e1,-5e-1,7.25\n0,0,0,359.875,60.25,-1.5", named}};
    for (const auto& [text, options] : dialects) {
        SCOPED_TRACE(text);
        const TableOutcome outcome = ReadTable(text, options);
        ASSERT_EQ(outcome.Stars.size(), 2U);
        EXPECT_EQ(outcome.Result.Rows, 2U);
        const SkyStar first{81.25 * degree, -0.5 * degree, 0};
        const SkyStar second{359.875 * degree, 60.25 * degree, 0};
        EXPECT_LT(Separation(outcome.Stars[0], first), 0.001 * arcsecond);
        EXPECT_LT(Separation(outcome.Stars[1], second), 0.001 * arcsecond);
        EXPECT_EQ(outcome.Stars[0].Mag, 7.25);
        EXPECT_EQ(outcome.Stars[1].Mag, -1.5);
    }
}

TEST(StarTable, NumbersAreThoseOfTheStandardLibrary) {
    Random random(12);
    const auto plain = [](std::string_view text) {
        if (text.starts_with('+')) text.remove_prefix(1);
        double value = 0;
        const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
        const bool good = result.ec == std::errc() && result.ptr == text.data() + text.size();
        return good && std::isfinite(value) ? value : NAN;
    };
    std::vector<std::string> texts = {"",
                                      "-",
                                      "+",
                                      ".",
                                      "-.",
                                      "1.",
                                      ".5",
                                      "-0",
                                      "-0.0",
                                      "+-1",
                                      "1.2.3",
                                      "1e5",
                                      "1e999",
                                      "x",
                                      "1x",
                                      "nan",
                                      "-inf",
                                      "0x10",
                                      " 1",
                                      "1 ",
                                      "\xFF",
                                      "--1",
                                      "9007199254740991",
                                      "9007199254740993",
                                      "0.000000000000001",
                                      "123456789012345",
                                      "-999999999999999",
                                      "0.1234567890123456",
                                      "99999999999999999999",
                                      "00000000000000000000001.5"};
    for (int trial = 0; trial < 20000; ++trial) {
        std::string text = trial % 3 == 0 ? "-" : "";
        const int digits = random.Whole(1, 20);
        const int point = random.Whole(-3, digits);
        for (int i = 0; i < digits; ++i) {
            if (i == point) text += '.';
            text += static_cast<char>('0' + random.Whole(0, 9));
        }
        if (trial % 50 == 0) text[static_cast<std::size_t>(random.Whole(0, digits - 1))] = 'e';
        texts.push_back(text);
    }
    for (const std::string& text : texts) {
        const double value = FieldNumber(text);
        const double wanted = plain(text);
        ASSERT_EQ(std::isnan(value), std::isnan(wanted)) << text;
        if (std::isnan(wanted)) continue;
        ASSERT_EQ(std::memcmp(&value, &wanted, sizeof value), 0) << text;
    }
}

TEST(StarTable, RowsThatAreNoStarsAreCountedByReason) {
    StarTableOptions options;
    for (const char* text : {"ruwe<1.4", "class=STAR", "n=2"}) {
        options.Filters.emplace_back();
        ASSERT_TRUE(ParseRowFilter(text, options.Filters.back()));
    }
    const std::string good = ",5,1.0,STAR,2.0\n";
    const std::string text =
        "ra,dec,mag,ruwe,class,n\n10,1" + good +                                   // used
        "10,1,5,1.0,STAR\n10,1,5,1,STAR,2,3\n\"10,1" + good +                      // malformed
        std::string(LongestLine + 1, '1') + "\n" +                                 // too long
        "10,1,5,1.4,STAR,2\n10,1,5,,STAR,2\n10,1,5,1,star,2\n10,1,5,1,STAR,3\n" +  // filtered
        ",1" + good + "10," + good +                                               // no position
        "361,1" + good + "nan,1" + good + "10,90.1" + good + "1e999,1" + good +    // bad
        "25:00:00,1" + good + "10x,1" + good + "10,1:2:x" + good +                 // bad
        "10,1,,1,STAR,2\n10,1,99.99,1,STAR,2\n10,1,inf,1,STAR,2\n" +               // no magnitude
        std::string(LongestLine * 40, '2');                                        // too long
    const auto result = ReadTable(text, options).Result;
    EXPECT_EQ(result.Stars, 1U);
    const auto count = [&](RowFault fault) { return result.Faults[static_cast<int>(fault)]; };
    EXPECT_EQ(count(RowFault::Malformed), 3U);
    EXPECT_EQ(count(RowFault::TooLong), 2U);
    EXPECT_EQ(count(RowFault::Filtered), 4U);
    EXPECT_EQ(count(RowFault::NoPosition), 2U);
    EXPECT_EQ(count(RowFault::BadPosition), 7U);
    EXPECT_EQ(count(RowFault::NoMagnitude), 3U);
    EXPECT_EQ(result.Rows, 22U);

    RowFilter filter;
    for (const char* bad : {"", "ra", "=1", "ra<", "ra<x", "ra>nan"}) {
        EXPECT_FALSE(ParseRowFilter(bad, filter)) << bad;
    }
}

TEST(StarTable, NoLineIsLostOrCutWhereverTheBufferEnds) {
    // Lines of all lengths around the buffer's size, each with a star of its own.
    Random random(8);
    std::string text = "mag,ra,dec,remark\n";
    constexpr int rows = 400;
    for (int i = 0; i < rows; ++i) {
        const auto padding = static_cast<std::size_t>(random.Whole(0, LongestLine - 41));
        text += "5," + std::to_string(i % 360) + "," + std::to_string(i % 90) + "," +
                std::string(padding, 'x') + (i % 2 == 0 ? "\n" : "\r\n");
    }
    for (const std::size_t pieceBytes : {std::size_t{1}, std::size_t{1} << 18}) {
        const TableOutcome outcome = ReadTable(text, {}, pieceBytes);
        ASSERT_EQ(outcome.Stars.size(), static_cast<std::size_t>(rows));
        for (int i = 0; i < rows; ++i) {
            EXPECT_NEAR(outcome.Stars[i].Ra, i % 360 * degree, 1e-12) << i;
            EXPECT_NEAR(outcome.Stars[i].Dec, i % 90 * degree, 1e-12) << i;
        }
    }
}

TEST(StarTable, RowsGiveTheSameInPiecesOfAnySizeOnAnyNumberOfThreads) {
    Random random(41);
    // The units come after a comment; each star has a magnitude of its own.
    std::string text = "\xEF\xBB\xBF# made here\nname;ra;dec;mag\r\n\n;deg;deg;mag\n";
    std::vector<double> magnitudes;
    RowCounts expected;
    constexpr int lines = 700;
    for (int i = 0; i < lines; ++i) {
        const std::string star = ";10.5;-20.25;" + std::to_string(i / 100.0);
        const auto longName = [](std::size_t length) { return std::string(length, 'n'); };
        std::string line;
        switch (i % 70 == 0 ? 7 : i % 70 == 33 ? 8 : random.Whole(0, 6)) {
            case 0:
                line = "# 5;5;5;5";
                break;
            case 1:
                line = i % 2 == 0 ? "" : "  ";
                break;
            case 2:
                line = "too;few;fields";
                ++expected.Rows;
                expected.Refuse(RowFault::Malformed);
                break;
            case 3:
                line = "x;361;0;5";
                ++expected.Rows;
                expected.Refuse(RowFault::BadPosition);
                break;
            case 7:  // some are longer than any block
                line = longName(LongestLine + 1 + random.Whole(0, 1 << 18));
                ++expected.Rows;
                expected.Refuse(RowFault::TooLong);
                break;
            case 8:
                line = longName(LongestLine - star.size()) + star;
                break;
            default:
                line = (i % 2 == 0 ? "\"a;b \"\"c\"\"\" " : "d") + star;
        }
        if (line.ends_with(star)) {
            ++expected.Rows;
            magnitudes.push_back(i / 100.0);
        }
        text += line + (i == lines - 1 ? "" : random.Whole(0, 1) == 0 ? "\n" : "\r\n");
    }
    for (const std::size_t pieceBytes : {1, 777, 20000, 1 << 18}) {
        for (const int threads : {1, 2, 7}) {
            const ThreadLimit limit(threads);
            const TableOutcome outcome = ReadTable(text, {}, pieceBytes);
            std::vector<double> read;
            for (const SkyStar& star : outcome.Stars) read.push_back(star.Mag);
            ASSERT_EQ(read, magnitudes) << pieceBytes << " bytes, threads: " << threads;
            EXPECT_EQ(outcome.Result.Rows, expected.Rows);
            EXPECT_EQ(outcome.Result.Faults, expected.Faults);
            EXPECT_EQ(outcome.Result.GreatestRa, 10.5);
        }
    }
}

TEST(StarTable, WhatIsNoTableIsRefusedAndHoursAreNoticed) {
    for (const char* bad : {"", "# only\n", "ra,dec,mag", "ra,dec\n1,2\n", "x,y,mag\n1,2,3\n"}) {
        EXPECT_THROW(ReadTable(bad), ToolFailure) << bad;
    }
    std::string sweep = "ra,dec,mag\n";
    for (int i = 0; i <= 2400; ++i) sweep += std::to_string(i / 100.0) + ",0,5\n";
    EXPECT_TRUE(ReadTable(sweep).Result.LooksLikeHours);
}

/// A gzip file of stored blocks, made without zlib, which reads it.
std::string Gzip(const std::string& text) {
    std::string packed = {'\x1F', '\x8B', 8, 0, 0, 0, 0, 0, 0, 3};
    for (std::size_t at = 0; at < text.size() || at == 0; at += 60000) {
        const std::string piece = text.substr(at, 60000);
        const auto length = static_cast<std::uint16_t>(piece.size());
        packed += at + piece.size() == text.size() ? '\1' : '\0';
        packed += LittleEndian(length) + LittleEndian(static_cast<std::uint16_t>(~length)) + piece;
    }
    Checksum checksum;
    checksum.Add({reinterpret_cast<const unsigned char*>(text.data()), text.size()});
    return packed + LittleEndian(checksum.Value()) +
           LittleEndian(static_cast<std::uint32_t>(text.size()));
}

TEST(StarTable, PackedTextIsThePlainTextAndWhatIsCutOrDamagedIsRefused) {
    std::string text = "ra,dec,mag\n";
    for (int i = 0; i < 20000; ++i) text += std::to_string(i % 360) + ",5," + "7.25\n";
    const std::size_t half = text.find('\n', text.size() / 2) + 1;
    const std::string packed = Gzip(text);
    ASSERT_EQ(ReadTable(text).Result.Rows, 20000U);
    for (const std::string& same : {packed, packed + std::string(512, '\0'),
                                    Gzip(text.substr(0, half)) + Gzip(text.substr(half))}) {
        EXPECT_EQ(ReadTable(same).Result.Stars, 20000U);
    }
    std::string damaged = packed;
    damaged[packed.size() / 2] ^= 1;  // a digit, noticed by the checksum alone
    for (const std::string& bad : {packed.substr(0, 5), packed.substr(0, packed.size() / 2),
                                   packed.substr(0, packed.size() - 1), damaged, packed + "x"}) {
        EXPECT_THROW(ReadTable(bad), ToolFailure) << bad.size();
    }
}

template <typename Number>
std::string BigEndian(Number value) {
    std::string bytes = LittleEndian(value);
    std::reverse(bytes.begin(), bytes.end());
    return bytes;
}

/// A FITS file with an image and a table as VizieR writes Gaia's, without the code under test.
std::string FitsStars(const std::vector<SkyStar>& stars, float motionDec, const char* unit) {
    std::string rows;
    for (const SkyStar& star : stars) {
        rows += "star" + BigEndian(star.Ra / degree) + BigEndian(star.Dec / degree) +
                BigEndian(static_cast<float>(star.Mag)) + BigEndian(0.0F) + BigEndian(motionDec);
    }
    std::vector<std::string> cards = {"XTENSION= 'BINTABLE'",
                                      "BITPIX  = 8",
                                      "NAXIS   = 2",
                                      "NAXIS1  = 32",
                                      "NAXIS2  = " + std::to_string(stars.size()),
                                      "PCOUNT  = 0",
                                      "GCOUNT  = 1",
                                      "TFIELDS = 6"};
    const std::array<std::array<const char*, 3>, 6> columns = {{{"kind", "4A", ""},
                                                                {"RA_ICRS", "1D", "deg"},
                                                                {"DE_ICRS", "1D", "deg"},
                                                                {"Gmag", "1E", "mag"},
                                                                {"pmRA", "1E", unit},
                                                                {"pmDE", "1E", unit}}};
    for (std::size_t i = 0; i < columns.size(); ++i) {
        const std::string number = std::to_string(i + 1) + "  = '";
        cards.push_back("TTYPE" + number + columns[i][0] + "'");
        cards.push_back("TFORM" + number + columns[i][1] + "'");
        cards.push_back("TUNIT" + number + columns[i][2] + "'");
    }
    rows.resize((rows.size() + 2879) / 2880 * 2880, '\0');
    return FitsHeader({"SIMPLE  = T", "BITPIX  = 8", "NAXIS   = 0", "EXTEND  = T"}) +
           FitsHeader(cards) + rows;
}

TEST(StarTable, FitsTablesGiveTheirStarsAtTheEpochAndAreRefusedWhenCut) {
    const TemporaryFolder folder;
    ProgressLine silent(stdout);
    std::vector<SkyStar> stars = RandomSky(20000, 12);
    const auto read = [&](const std::string& bytes, const StarTableOptions& options,
                          std::vector<SkyStar>& found) {
        WriteFile(folder / "table", bytes);
        return ReadFitsStarTable(
            folder / "table", "table", options,
            [&found](const SkyStar& star) { found.push_back(star); }, silent);
    };
    StarTableOptions options;
    options.Epoch = 2026;
    for (const auto& [unit, factor] : {std::pair{"mas/yr", 1.0}, {"arcsec.yr**-1", 1000.0}}) {
        std::vector<SkyStar> found;
        const auto result = read(FitsStars(stars, 10, unit), options, found);
        ASSERT_EQ(found.size(), stars.size());
        EXPECT_EQ(result.Moved, stars.size());
        for (std::size_t i = 0; i < stars.size(); ++i) {
            // Ten years northward, across the pole where it is near enough.
            const double moved = 0.1 * factor * arcsecond;
            ASSERT_NEAR(Separation(found[i], stars[i]), moved, 1e-4 * arcsecond) << i;
            ASSERT_LT(std::fabs(found[i].Dec - stars[i].Dec - moved), 1e-4 * arcsecond) << i;
        }
    }
    StarTableOptions filtered;
    ASSERT_TRUE(ParseRowFilter("Gmag<5", filtered.Filters.emplace_back()));
    ASSERT_TRUE(ParseRowFilter("kind=star", filtered.Filters.emplace_back()));
    std::vector<SkyStar> found;
    read(FitsStars(stars, 0, ""), filtered, found);
    EXPECT_EQ(found.size(), std::count_if(stars.begin(), stars.end(), [](const SkyStar& star) {
                  return static_cast<float>(star.Mag) < 5;
              }));
    std::vector<SkyStar> withoutOne = stars;
    withoutOne[5].Mag = std::numeric_limits<double>::quiet_NaN();
    found.clear();
    read(FitsStars(withoutOne, 0, ""), {}, found);
    EXPECT_EQ(found.size(), stars.size() - 1) << "one has no magnitude";
    const std::string whole = FitsStars(stars, 0, "");
    for (std::size_t length = 0; length < whole.size() - 2880; length += 30011) {
        EXPECT_THROW(read(whole.substr(0, length), {}, found), ToolFailure) << length;
    }
    std::string renamed = whole;
    renamed.replace(renamed.find("RA_ICRS"), 7, "longitu");
    try {
        read(renamed, {}, found);
        ADD_FAILURE();
    } catch (const ToolFailure& failure) {
        EXPECT_NE(std::string(failure.what()).find("_RAJ2000/_DEJ2000"), std::string::npos);
    }
}

TEST(ProperMotion, CarriesStarsToWhereOtherCatalogsHaveThem) {
    // Barnard's star in Gaia (2016), and its place for 2000 from Hipparcos.
    const SkyStar barnard{269.44850 * degree, 4.73942 * degree, 9.5};
    const SkyStar at2000 = MovedStar(barnard, {-801.55, 10362.39}, -16);
    EXPECT_LT(Separation(at2000, {269.45208 * degree, 4.69336 * degree, 0}), 0.1 * arcsecond);
    StarTableOptions options;
    options.Epoch = 2000;
    const std::string row = "269.44850,4.73942,9.5,-801.55,10362.39,2016\n";
    const TableOutcome read = ReadTable("ra,dec,mag,pmra,pmdec,ref_epoch\n" + row, options);
    EXPECT_LT(Separation(read.Stars.at(0), at2000), 0.001 * arcsecond);
    // Values for "none" move nothing.
    const TableOutcome null = ReadTable("ra,dec,mag,pmra,pmdec\n9,5,6,99999,99999\n9,5,6,,\n");
    EXPECT_EQ(null.Result.Moved, 0U);

    // Arcturus from the Tycho-2 index (1991) and from the list of bright stars (2000) become one
    // star.
    const auto old = FastStarAt({213.9181 * degree, 19.1873 * degree, 0.16}, 2026);
    const auto recent = FastStarAt({213.9153 * degree, 19.1824 * degree, -0.05}, 2026);
    ASSERT_TRUE(old && recent);
    EXPECT_LT(Separation(*old, *recent), 0.001 * arcsecond);
    EXPECT_NEAR(Separation(*recent, {213.9153 * degree, 19.1824 * degree, 0}) / arcsecond,
                26 * 2.279, 1);
    EXPECT_FALSE(FastStarAt({213.9181 * degree, 19.1893 * degree, 0.16}, 2026));
    EXPECT_FALSE(FastStarAt({213.9181 * degree, 19.1873 * degree, 8}, 2026));
}

// ---- Folders ----

std::set<std::string> Listing(const fs::path& folder) {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) {
        names.insert(entry.path().filename().string());
    }
    return names;
}

TEST(CatalogFolder, TheOldCatalogStaysUntilTheNewOneTakesItsPlace) {
    const TemporaryFolder folder;
    for (const bool inOneStep : {true, false}) {
        const fs::path catalog = folder / (inOneStep ? "one" : "two");
        for (const std::string generation : {"first", "second", "third"}) {
            const bool existed = fs::exists(catalog);
            const std::string before = ReadFile(catalog / "N00R00");
            {
                const BuildingFolder abandoned(catalog);
                WriteFile(abandoned.Path() / "N00R00", "unfinished");
                EXPECT_EQ(ReadFile(catalog / "N00R00"), before);
            }
            EXPECT_EQ(fs::exists(catalog), existed);
            BuildingFolder building(catalog / "");  // a trailing slash changes nothing
            WriteFile(building.Path() / "N00R00", generation);
            building.Publish(inOneStep);
            EXPECT_EQ(ReadFile(catalog / "N00R00"), generation);
        }
    }
    EXPECT_EQ(Listing(folder.Path), (std::set<std::string>{"one", "two"}));
}

TEST(CatalogFolder, WhatADeadBuildLeftIsRepaired) {
    const TemporaryFolder folder;
    const std::string dead = "999999999";  // beyond any process number
    const std::string alive = std::to_string(OtherProcess());
    // In a container the next process often has the number of the last one.
    const std::string own = std::to_string(ProcessNumber());
    for (const std::string& name :
         {"KEL.building-" + dead, "KEL.building-" + own, "KEL.replaced-" + dead,
          "KEL.building-" + alive, "KEL.building-" + dead + "x"}) {
        fs::create_directory(folder / name);
        WriteFile(folder / name / "N00R00", name);
    }
    {
        const BuildingFolder building(folder / "KEL");
        EXPECT_TRUE(fs::is_empty(building.Path()));
#ifndef _WIN32
        WriteFile(building.Path() / "N00R00", "in work");
        EXPECT_THROW(BuildingFolder{folder / "KEL"}, ToolFailure) << "of two with this number";
        EXPECT_EQ(ReadFile(building.Path() / "N00R00"), "in work");
#endif
    }
    // The catalog that had been set aside when the power failed is restored.
    EXPECT_EQ(ReadFile(folder / "KEL" / "N00R00"), "KEL.replaced-" + dead);
    EXPECT_EQ(Listing(folder.Path), (std::set<std::string>{"KEL", "KEL.building-" + dead + "x",
                                                           "KEL.building-" + alive}));
}

TEST(CatalogFolder, FilesThatAreNoCatalogAreNeverReplaced) {
    const TemporaryFolder folder;
    struct Case {
        const char* File;
        const char* Content;
        bool Refused;
    };
    for (const auto& [file, content, refused] :
         {Case{"thesis.txt", "years of work", true}, Case{"N00R00.txt", "", true},
          Case{"N99R00", "", true}, Case{"catalog.json", "{\"goods\": []}", true},
          Case{"N00R00", "", false}, Case{"S35R00", "foreign but a cell", false}}) {
        const fs::path target = folder / (std::string("t") + file);
        fs::create_directories(target);
        WriteFile(target / file, content);
        ToolExit code = ToolExit::Good;
        try {
            const BuildingFolder building(target);
        } catch (const ToolFailure& failure) {
            code = failure.Code;
        }
        EXPECT_EQ(code, refused ? ToolExit::CannotWrite : ToolExit::Good) << file;
        EXPECT_EQ(ReadFile(target / file), content);
    }
#ifndef _WIN32
    // A link to a catalog stays a link.
    fs::create_directory_symlink("tN00R00", folder / "link");
    BuildingFolder building(folder / "link");
    WriteFile(building.Path() / "N00R00", "new");
    building.Publish();
    EXPECT_TRUE(fs::is_symlink(folder / "link"));
    EXPECT_EQ(ReadFile(folder / "tN00R00" / "N00R00"), "new");
#endif
}

// ---- The program ----

#ifdef _WIN32
constexpr const char* nowhere = "NUL";
#else
constexpr const char* nowhere = "/dev/null";
#endif

ToolExit RunTool(const std::string& arguments, const fs::path& output = nowhere) {
    const std::string program = TextFromPath(ProgramFolder() / "vestrel-catalog");
    const std::string command =
        "\"" + program + "\" " + arguments + " >\"" + TextFromPath(output) + "\" 2>" + nowhere;
#ifdef _WIN32
    // The shell removes the outermost quotes.
    return static_cast<ToolExit>(_wsystem(PathFromText("\"" + command + "\"").c_str()));
#else
    const int status = std::system(command.c_str());
    return static_cast<ToolExit>(WIFEXITED(status) ? WEXITSTATUS(status) : -1);
#endif
}

TEST(CatalogTool, BuildInfoAndVerifyAgreeAndExitCodesHold) {
    const TemporaryFolder folder;
    const std::string catalog = " --catalog \"" + (folder / "KEL").string() + "\" ";
    const std::string table = "\"" + (folder / "stars.csv").string() + "\"";
    const std::string bright = "\"" + (folder / "bright.json").string() + "\"";
    WriteFile(folder / "stars.csv", "ra,dec,Vmag\n10,41,8.25\n10,41,8.25\n280,-89.9,12\n5,5,14\n");
    WriteFile(folder / "bright.json", R"({"features":[{"properties":{"mag":-1.44},
        "geometry":{"coordinates":[101.2872,-16.7161]}}]})");
    EXPECT_EQ(RunTool("info" + catalog), ToolExit::BadInput);
    ASSERT_EQ(RunTool("build --mag-max 13 --csv " + table + " --bright " + bright + catalog),
              ToolExit::Good);
    EXPECT_EQ(RunTool("verify" + catalog), ToolExit::Good);
    ASSERT_EQ(RunTool("info --json" + catalog, folder / "info"), ToolExit::Good);
    const std::string info = ReadFile(folder / "info");
    // Two of four rows (one a repetition, one too faint) and Sirius; three cells of 4502.
    for (const char* fact : {"\"stars\": 3,", "\"withStars\": 3", "\"empty\": 4499",
                             "\"brightGapFilled\": true", "\"left out by magnitude\": 1"}) {
        EXPECT_NE(info.find(fact), std::string::npos) << fact;
    }
    EXPECT_EQ(fs::file_size(folder / "KEL" / "S06R25"), CatalogRecordBytes);

    const std::string before = ReadFile(folder / "KEL" / ManifestName);
    const std::vector<std::pair<std::string, ToolExit>> refused = {
        {"--csv " + bright + catalog, ToolExit::BadInput},
        {"--tycho2 " + table + catalog, ToolExit::BadInput},
        {"--mag-max -9 --csv " + table + catalog, ToolExit::BadInput},
        {catalog, ToolExit::WrongUsage},
        {"--csv " + table + " --tycho2 x" + catalog, ToolExit::BadInput},
        {"--index x --mag-column y --astap" + catalog, ToolExit::WrongUsage},
        {"--csv " + table + " --where ra~1" + catalog, ToolExit::WrongUsage},
        {"--csv " + table + " --catalog " + table, ToolExit::CannotWrite}};
    for (const auto& [arguments, code] : refused) {
        EXPECT_EQ(RunTool("build " + arguments), code) << arguments;
    }
#ifndef _WIN32
    EXPECT_EQ(RunTool("info" + catalog, "/dev/full"), ToolExit::CannotWrite);
#endif
    EXPECT_EQ(ReadFile(folder / "KEL" / ManifestName), before);
    EXPECT_EQ(Listing(folder.Path).size(), 4U);  // no half-built catalog is left

    WriteFile(folder / "KEL" / "N00R00", "0123456789");
    EXPECT_EQ(RunTool("verify" + catalog), ToolExit::FaultsFound);
}

}  // namespace
}  // namespace vestrel
