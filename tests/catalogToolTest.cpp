// vestrel-catalog: sources, the building of cells, the exchange of folders and the program itself.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <csignal>
#include <cstring>
#include <numbers>
#include <random>
#include <set>
#include <tuple>

#include "astro/libMath.h"
#include "platform/libFiles.h"
#include "platform/libPlatform.h"
#include "tests/testSupport.h"
#include "tools/libBrightStars.h"
#include "tools/libCatalogBuilder.h"
#include "tools/libCatalogFolder.h"
#include "tools/libCatalogSurvey.h"
#include "tools/libCellGrid.h"
#include "tools/libStarTable.h"
#include "tools/libTextLines.h"
#include "tools/libTycho2.h"

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
    std::mt19937 random(seed);
    std::uniform_real_distribution<double> unit(0, 1);
    std::vector<SkyStar> stars;
    stars.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        stars.push_back({2 * std::numbers::pi * unit(random), std::asin(2 * unit(random) - 1),
                         std::floor(100 * (20 * unit(random) - 2)) / 100});
    }
    return stars;
}

// ---- Storing ----

TEST(CellGrid, EveryPositionIsStoredInACellThatExists) {
    const auto names = AllCellNames();
    const std::set<std::string> grid(names.begin(), names.end());
    const double circle = 2 * std::numbers::pi;
    std::vector<double> ras = {
        0, -0.0, 1e-300, circle, std::nextafter(circle, 0), circle - 1e-8, circle - 1e-7};
    std::vector<double> decs = {-0.0, -1e-300, -1e-9, 90 * degree, -90 * degree};
    for (int zone = -36; zone <= 36; ++zone) {
        for (const double off : {-1e-9, 0.0, 1e-9}) {
            const double dec = (zone * 2.5 + off) * degree;
            if (std::fabs(dec) <= 90 * degree) decs.push_back(dec);
        }
    }
    for (int ra = 1; ra < 360; ++ra) ras.push_back(ra * degree);
    for (const double ra : ras) {
        for (const double dec : decs) {
            const auto stored = StoredStar({ra, dec, 5});
            ASSERT_TRUE(stored) << ra << " " << dec;
            ASSERT_TRUE(grid.contains(CellName(stored->Ra, stored->Dec))) << ra << " " << dec;
            ASSERT_EQ(AllCells().at(CellNumber(CellOfStored(*stored))), CellOfStored(*stored));
            ASSERT_LT(Separation({ra, dec, 0}, {stored->Ra, stored->Dec, 0}), 0.1 * arcsecond);
        }
    }
    double area = 0;
    for (const CellPosition& cell : AllCells()) area += CellAreaFraction(cell);
    EXPECT_NEAR(area, 1, 1e-12);
}

TEST(CellGrid, WhatIsNoStarIsNotStored) {
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

TEST(CatalogBuilder, CellsDependNeitherOnTheOrderOfStarsNorOnMemory) {
    const TemporaryFolder folder;
    std::vector<SkyStar> stars = RandomSky(20000, 1);
    // One crowded cell with equal magnitudes, so that ties are many.
    for (int i = 0; i < 300; ++i) stars.push_back({0.2, 0.1 + 1e-5 * (i % 150), 7});
    BuildCatalog(folder / "plenty", stars, 1U << 20);
    std::shuffle(stars.begin(), stars.end(), std::mt19937(2));
    BuildCatalog(folder / "scant", stars, 6000);

    std::multiset<std::tuple<float, float, int>> expected;
    for (const SkyStar& star : stars) {
        const CatalogStar stored = *StoredStar(star);
        const auto key = std::tuple(stored.Ra, stored.Dec, int{stored.Mag});
        if (!expected.contains(key)) expected.insert(key);
    }
    for (const std::string& name : AllCellNames()) {
        ASSERT_TRUE(fs::exists(folder / "scant" / name)) << name;
        ASSERT_EQ(ReadFile(folder / "plenty" / name), ReadFile(folder / "scant" / name)) << name;
        std::vector<CatalogStar> cell;
        ASSERT_TRUE(ReadCellFile(folder / "scant" / name, cell));
        ASSERT_TRUE(std::is_sorted(cell.begin(), cell.end(), [](const auto& a, const auto& b) {
            return a.Mag < b.Mag;
        })) << name;
        for (const CatalogStar& star : cell) {
            ASSERT_EQ(CellName(star.Ra, star.Dec), name);
            ASSERT_EQ(expected.erase({star.Ra, star.Dec, int{star.Mag}}), 1U) << name;
        }
    }
    EXPECT_TRUE(expected.empty());
    EXPECT_EQ(Survey(folder / "scant").FaultCount, 0U);
}

TEST(Verify, EveryKindOfDamageIsFoundAndNothingElse) {
    const TemporaryFolder folder;
    const std::vector<SkyStar> stars = RandomSky(40000, 3);
    BuildCatalog(folder / "good", stars, 1U << 20);
    const std::string cell = CellName(stars[0].Ra, stars[0].Dec);
    const std::string other = CellName(stars[0].Ra, -stars[0].Dec);
    const std::string bytes = ReadFile(folder / "good" / cell);
    ASSERT_GT(bytes.size(), 2 * CatalogRecordBytes);

    const auto faultsWith = [&](const std::string& name, const std::string& content) {
        const std::string before = ReadFile(folder / "good" / name);
        WriteFile(folder / "good" / name, content);
        const CatalogSurvey survey = Survey(folder / "good");
        WriteFile(folder / "good" / name, before);
        EXPECT_TRUE(survey.FaultCount == 0 || survey.Faults.at(0).starts_with(name));
        return survey.FaultCount;
    };
    EXPECT_EQ(faultsWith(cell, bytes), 0U);
    for (std::size_t at = 0; at < 2 * CatalogRecordBytes; ++at) {
        std::string flipped = bytes;
        flipped[at] = static_cast<char>(flipped[at] ^ 1);
        EXPECT_GT(faultsWith(cell, flipped), 0U) << "byte " << at;
    }
    std::string exchanged = bytes;
    std::swap_ranges(exchanged.begin(), exchanged.begin() + CatalogRecordBytes,
                     exchanged.begin() + CatalogRecordBytes);
    EXPECT_GT(faultsWith(cell, exchanged), 0U);
    EXPECT_GT(faultsWith(cell, bytes.substr(0, bytes.size() - 1)), 0U);
    EXPECT_GT(faultsWith(cell, bytes.substr(CatalogRecordBytes)), 0U);
    EXPECT_GT(faultsWith(cell, ""), 0U);
    EXPECT_GT(faultsWith(cell, bytes + bytes.substr(0, CatalogRecordBytes)), 0U);
    EXPECT_GT(faultsWith(other, bytes), 0U);

    WriteFile(folder / "good" / "notes.txt", "mine");
    const CatalogSurvey stray = Survey(folder / "good");
    EXPECT_EQ(stray.FaultCount, 0U);
    EXPECT_EQ(stray.Strays, std::vector<std::string>{"notes.txt"});
    fs::remove(folder / "good" / cell);
    EXPECT_EQ(Survey(folder / "good").FaultCount, 1U);

    // Without a manifest the cells still tell which stars are not theirs.
    ProgressLine silent(stdout);
    WriteFile(folder / "good" / other, bytes);
    EXPECT_EQ(SurveyCatalog(folder / "good", nullptr, silent).FaultCount, 1U);
}

TEST(Manifest, ADamagedOneIsNeverTaken) {
    const TemporaryFolder folder;
    Checksum checksum;
    const std::string_view text = "123456789";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        checksum.Add({&byte, 1});
    }
    EXPECT_EQ(checksum.Value(), 0xCBF43926U);  // the check value that the CRC-32 is published with

    BuildCatalog(folder / "c", RandomSky(100, 4), 1000);
    const std::string good = ReadFile(folder / "c" / ManifestName);
    CatalogManifest manifest;
    for (std::size_t length = 0; length + 2 < good.size(); length += 97) {
        WriteFile(folder / "c" / ManifestName, good.substr(0, length));
        EXPECT_EQ(ReadManifest(folder / "c", manifest), ManifestState::Unreadable) << length;
    }
    for (const char* count : {"-1", "0.5", "1E300", "4294967296", "true"}) {
        std::string bad = good;
        const std::size_t at = bad.find("\"crc32\": ") + 9;
        bad.replace(at, bad.find_first_not_of("0123456789", at) - at, count);
        WriteFile(folder / "c" / ManifestName, bad);
        EXPECT_EQ(ReadManifest(folder / "c", manifest), ManifestState::Unreadable) << count;
    }
}

// ---- The Tycho-2 index ----

template <typename Number>
std::string Bytes(Number value, bool littleEndian) {
    std::array<char, sizeof(Number)> bytes{};
    std::memcpy(bytes.data(), &value, sizeof value);
    if (littleEndian != (std::endian::native == std::endian::little)) {
        std::reverse(bytes.begin(), bytes.end());
    }
    return {bytes.begin(), bytes.end()};
}

std::string Table(const char* column, const char* form, std::size_t rowBytes, std::string data) {
    const std::string header =
        FitsHeader({"XTENSION= 'BINTABLE'", "BITPIX  = 8", "NAXIS   = 2",
                    "NAXIS1  = " + std::to_string(rowBytes),
                    "NAXIS2  = " + std::to_string(data.size() / rowBytes), "PCOUNT  = 0",
                    "GCOUNT  = 1", "TFIELDS = 1", std::string("TFORM1  = '") + form + "'",
                    std::string("TTYPE1  = '") + column + "'"});
    data.resize((data.size() + 2879) / 2880 * 2880, '\0');
    return header + data;
}

/// An index file as the format's description has it, written without the code under test.
std::string IndexFile(const std::vector<SkyStar>& stars, std::size_t magnitudes,
                      const char* endian = "04:03:02:01", double reach = 1) {
    const double scale = 4294967295.0 / (2 * reach);
    std::string range;
    for (const double number : {-reach, -reach, -reach, reach, reach, reach, scale}) {
        range += Bytes(number, true);
    }
    std::string positions;
    std::string mags;
    for (const auto& [ra, dec, mag] : stars) {
        for (const double value :
             {std::cos(dec) * std::cos(ra), std::cos(dec) * std::sin(ra), std::sin(dec)}) {
            const double integer = std::round((value + 1) / 2 * 4294967295.0);
            positions += Bytes(static_cast<std::uint32_t>(integer), true);
        }
    }
    for (std::size_t i = 0; i < magnitudes; ++i) {
        mags += Bytes(static_cast<float>(stars[i % stars.size()].Mag), false);
    }
    return FitsHeader({"SIMPLE  = T", "BITPIX  = 8", "NAXIS   = 0", "EXTEND  = T",
                       std::string("ENDIAN  = '") + endian + "'"}) +
           Table("quads", "16A", 16, std::string(160, 'q')) +
           Table("kdtree_range_stars", "8A", 8, range) +
           Table("kdtree_data_stars", "12A", 12, positions) + Table("MAG_VT", "1E", 4, mags);
}

std::vector<SkyStar> ReadIndex(const fs::path& file) {
    std::vector<SkyStar> stars;
    ProgressLine silent(stdout);
    ReadTycho2Index(
        file, [&](const SkyStar& star) { stars.push_back(star); }, silent);
    return stars;
}

TEST(Tycho2, StarsComeBackAsTheyWereWritten) {
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

TEST(Tycho2, AFileCutAnywhereOrContradictingItselfIsRefused) {
    const TemporaryFolder folder;
    const std::vector<SkyStar> stars = RandomSky(500, 7);
    const std::string whole = IndexFile(stars, stars.size());
    std::vector<std::string> bad = {"",
                                    "SIMPLE  =",
                                    "not FITS at all",
                                    std::string(5000, '\0'),
                                    IndexFile(stars, 499),
                                    IndexFile(stars, 501),
                                    IndexFile(stars, 0),
                                    IndexFile(stars, 500, "01:02:03:04"),
                                    IndexFile(stars, 500, "04:03:02:01", 0.9),
                                    IndexFile({}, 0)};
    for (std::size_t length = 100; length + 2880 < whole.size(); length += 1000) {
        bad.push_back(whole.substr(0, length));
    }
    for (std::size_t i = 0; i < bad.size(); ++i) {
        WriteFile(folder / "index", bad[i]);
        try {
            ReadIndex(folder / "index");
            ADD_FAILURE() << "taken: " << i;
        } catch (const ToolFailure& failure) {
            EXPECT_EQ(failure.Code, ExitBadInput) << i;
        }
    }
}

TEST(Tycho2, TheInstalledIndexHasTheSkyTheRightWayRound) {
    const fs::path index = "/usr/share/astrometry/index-tycho2-07.littleendian.fits";
    if (!fs::exists(index)) GTEST_SKIP() << "astrometry-data-tycho2-07-littleendian is absent";
    const std::vector<SkyStar> read = ReadIndex(index);
    EXPECT_EQ(read.size(), 1871011U);
    // Deneb, Rigel, Antares, Spica: hardly moving stars, J2000 positions and V as in any almanac.
    for (const auto& [ra, dec, mag] :
         {SkyStar{310.35798, 45.28034, 1.25}, SkyStar{78.63447, -8.20164, 0.13},
          SkyStar{247.35192, -26.43200, 0.96}, SkyStar{201.29825, -11.16132, 0.97}}) {
        const SkyStar known{ra * degree, dec * degree, mag};
        EXPECT_TRUE(std::any_of(read.begin(), read.end(), [&](const SkyStar& star) {
            return Separation(star, known) < 2 * arcsecond && std::fabs(star.Mag - known.Mag) < 0.5;
        })) << ra;
    }
}

// ---- The brightest stars ----

TEST(BrightStars, NeitherLackingNorDoubled) {
    const auto missing = [](const SkyStar& bright, const std::vector<SkyStar>& survey) {
        BrightStarFinder finder({bright});
        for (const SkyStar& star : survey) finder.Visit(star);
        return finder.Missing().size();
    };
    // All over the sky, with the seam at 0 h and both poles.
    for (const double ra : {0.0, 1e-6, 2.0, 2 * std::numbers::pi - 1e-7}) {
        for (const double dec : {-90.0, -89.99, -60.8, 0.0, 19.8, 89.999}) {
            const SkyStar star{ra, dec * degree, 0};
            const auto north = [&](double arcseconds, double mag) {
                const double up = dec > 0 ? -arcseconds : arcseconds;
                return SkyStar{star.Ra, star.Dec + up * arcsecond, mag};
            };
            EXPECT_EQ(missing(star, {}), 1U);
            EXPECT_EQ(missing(star, {north(0, 0.3)}), 0U);
            EXPECT_EQ(missing(star, {north(30, 1.35)}), 1U) << "a companion is another star";
            EXPECT_EQ(missing(star, {north(55, 0.2)}), 0U) << "a star that moved";
            EXPECT_EQ(missing(star, {north(5, 1.6), north(3, 0.3)}), 0U) << "a pair told apart";
            EXPECT_EQ(missing(star, {north(70, 0)}), 1U);
            EXPECT_EQ(missing(star, {north(1, 9)}), 1U) << "a faint neighbour";
            const SkyStar west{star.Ra - 50 * arcsecond / std::cos(star.Dec), star.Dec, 0.1};
            EXPECT_TRUE(std::fabs(dec) > 89 || missing(star, {west}) == 0) << "across the seam";
        }
    }
}

TEST(BrightStars, TheDivisionOfSpaceHidesNoNeighbour) {
    const std::vector<SkyStar> bright = RandomSky(20000, 10);
    BrightStarFinder finder(bright);
    std::mt19937 random(11);
    std::uniform_real_distribution<double> direction(0, 2 * std::numbers::pi);
    for (const SkyStar& star : bright) {
        const double angle = direction(random);
        finder.Visit({star.Ra + 59 * arcsecond * std::sin(angle) / std::cos(star.Dec),
                      star.Dec + 59 * arcsecond * std::cos(angle), star.Mag});
    }
    // Close to a pole a step along the parallel is longer than it says.
    const auto missing = finder.Missing();
    EXPECT_EQ(std::count_if(missing.begin(), missing.end(),
                            [](const SkyStar& star) { return std::fabs(star.Dec) < 1.5; }),
              0);
}

TEST(BrightStars, OnlyStarsAreReadFromGeoJson) {
    const TemporaryFolder folder;
    const auto feature = [](const std::string& coordinates, const std::string& mag) {
        return R"({"geometry":{"coordinates":)" + coordinates + R"(},"properties":{"mag":)" + mag +
               "}}";
    };
    WriteFile(folder / "stars", R"({"features":[)" + feature("[-80.7653,38.7837]", "0.03") + "," +
                                    feature("[10]", "1") + "," + feature("[10,91]", "1") + "," +
                                    feature("[10,9]", "\"1\"") + "," + feature("7", "1") +
                                    ",3,{}]}");
    std::size_t unusable = 0;
    const auto stars = ReadBrightStars(folder / "stars", unusable);
    ASSERT_EQ(stars.size(), 1U);
    EXPECT_EQ(unusable, 6U);
    EXPECT_NEAR(stars[0].Ra / degree, 279.2347, 1e-9);
    const std::string nested = std::string(300000, '[') + std::string(300000, ']');
    for (const std::string& bad :
         {std::string(), std::string("[]"), std::string(100000, '['),
          std::string(R"({"features":[]})"), R"({"features":[)" + feature(nested, "1") + "]}"}) {
        WriteFile(folder / "stars", bad);
        EXPECT_THROW(ReadBrightStars(folder / "stars", unusable), ToolFailure);
    }
}

// ---- Tables ----

struct TableOutcome {
    std::vector<SkyStar> Stars;
    StarTableResult Result;
};

TableOutcome ReadTable(const std::string& text, const StarTableOptions& options = {}) {
    std::string copy = text;
    const FileHandle file(fmemopen(copy.data(), copy.size(), "r"));
    TableOutcome outcome;
    ProgressLine silent(stdout);
    outcome.Result = ReadStarTable(
        file.get(), "table", text.size(), options,
        [&](const SkyStar& star) { outcome.Stars.push_back(star); }, silent);
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
        std::string(LineReader::LongestLine + 1, '1') + "\n" +                     // too long
        "10,1,5,1.4,STAR,2\n10,1,5,,STAR,2\n10,1,5,1,star,2\n10,1,5,1,STAR,3\n" +  // filtered
        ",1" + good + "10," + good +                                               // no position
        "361,1" + good + "nan,1" + good + "10,90.1" + good + "1e999,1" + good +    // bad
        "25:00:00,1" + good + "10x,1" + good + "10,1:2:x" + good +                 // bad
        "10,1,,1,STAR,2\n10,1,99.99,1,STAR,2\n10,1,inf,1,STAR,2\n" +               // no magnitude
        std::string(LineReader::LongestLine * 40, '2');                            // too long
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
    // Lines of every length around the buffer's size, each with its own star.
    std::mt19937 random(8);
    std::string text = "mag,ra,dec,remark\n";
    constexpr int rows = 400;
    for (int i = 0; i < rows; ++i) {
        const std::size_t padding = random() % (LineReader::LongestLine - 40);
        text += "5," + std::to_string(i % 360) + "," + std::to_string(i % 90) + "," +
                std::string(padding, 'x') + (i % 2 == 0 ? "\n" : "\r\n");
    }
    const TableOutcome outcome = ReadTable(text);
    ASSERT_EQ(outcome.Stars.size(), static_cast<std::size_t>(rows));
    for (int i = 0; i < rows; ++i) {
        EXPECT_NEAR(outcome.Stars[i].Ra, i % 360 * degree, 1e-12) << i;
        EXPECT_NEAR(outcome.Stars[i].Dec, i % 90 * degree, 1e-12) << i;
    }
}

TEST(StarTable, WhatIsNoTableIsRefusedAndHoursAreNoticed) {
    for (const char* bad :
         {"", "\n\n", "# only\n", "ra,dec,mag", "ra,dec\n1,2\n", "x,y,mag\n1,2,3\n"}) {
        EXPECT_THROW(ReadTable(bad), ToolFailure) << bad;
    }
    std::string sweep = "ra,dec,mag\n";
    for (int i = 0; i <= 2400; ++i) sweep += std::to_string(i / 100.0) + ",0,5\n";
    EXPECT_TRUE(ReadTable(sweep).Result.LooksLikeHours);
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
            BuildingFolder building(catalog / "");  // a closing slash changes nothing
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
    const std::string alive = std::to_string(getppid());
    for (const std::string& name : {"KEL.building-" + dead, "KEL.replaced-" + dead,
                                    "KEL.building-" + alive, "KEL.building-" + dead + "x"}) {
        fs::create_directory(folder / name);
        WriteFile(folder / name / "N00R00", name);
    }
    { const BuildingFolder building(folder / "KEL"); }
    // The catalog that was set aside when the power failed is back.
    EXPECT_EQ(ReadFile(folder / "KEL" / "N00R00"), "KEL.replaced-" + dead);
    EXPECT_EQ(Listing(folder.Path), (std::set<std::string>{"KEL", "KEL.building-" + dead + "x",
                                                           "KEL.building-" + alive}));
}

TEST(CatalogFolder, FilesThatAreNoCatalogAreNeverReplaced) {
    const TemporaryFolder folder;
    const auto refused = [&](const std::string& file, const std::string& content) {
        const fs::path target = folder / ("t" + file);
        fs::create_directories((target / file).parent_path());
        WriteFile(target / file, content);
        bool thrown = false;
        try {
            const BuildingFolder building(target);
        } catch (const ToolFailure& failure) {
            thrown = failure.Code == ExitCannotWrite;
        }
        EXPECT_EQ(ReadFile(target / file), content);
        return thrown;
    };
    EXPECT_TRUE(refused("thesis.txt", "years of work"));
    EXPECT_TRUE(refused("N00R00.txt", ""));
    EXPECT_TRUE(refused("N99R00", ""));
    EXPECT_TRUE(refused("catalog.json", "{\"goods\": []}"));
    EXPECT_FALSE(refused("N00R00", ""));
    EXPECT_FALSE(refused("S35R00", "foreign but a cell"));
    // A link to a catalog stays a link.
    fs::create_directory_symlink("tN00R00", folder / "link");
    BuildingFolder building(folder / "link");
    WriteFile(building.Path() / "N00R00", "new");
    building.Publish();
    EXPECT_TRUE(fs::is_symlink(folder / "link"));
    EXPECT_EQ(ReadFile(folder / "tN00R00" / "N00R00"), "new");
}

// ---- The program ----

std::string ToolCommand(const std::string& arguments) {
    return "'" + (ProgramFolder() / "vestrel-catalog").string() + "' " + arguments;
}

int RunTool(const std::string& arguments, const fs::path& output = "/dev/null") {
    const int status =
        std::system((ToolCommand(arguments) + " >'" + output.string() + "' 2>/dev/null").c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(CatalogTool, BuildInfoAndVerifyAgreeAndExitCodesHold) {
    const TemporaryFolder folder;
    const std::string catalog = " --catalog '" + (folder / "KEL").string() + "' ";
    const std::string table = "'" + (folder / "stars.csv").string() + "'";
    const std::string bright = "'" + (folder / "bright.json").string() + "'";
    WriteFile(folder / "stars.csv", "ra,dec,Vmag\n10,41,8.25\n10,41,8.25\n280,-89.9,12\n5,5,14\n");
    WriteFile(folder / "bright.json", R"({"features":[{"properties":{"mag":-1.44},
        "geometry":{"coordinates":[101.2872,-16.7161]}}]})");
    EXPECT_EQ(RunTool("info" + catalog), ExitBadInput);
    ASSERT_EQ(RunTool("build --mag-max 13 --csv " + table + " --bright " + bright + catalog), 0);
    EXPECT_EQ(RunTool("verify" + catalog), ExitGood);
    ASSERT_EQ(RunTool("info --json" + catalog, folder / "info"), ExitGood);
    const std::string info = ReadFile(folder / "info");
    // Two of four rows (one a repetition, one too faint) and Sirius; three cells of 4502.
    for (const char* fact : {"\"stars\": 3,", "\"withStars\": 3", "\"empty\": 4499",
                             "\"brightGapFilled\": true", "\"left out by magnitude\": 1"}) {
        EXPECT_NE(info.find(fact), std::string::npos) << fact;
    }
    EXPECT_EQ(fs::file_size(folder / "KEL" / "S06R25"), CatalogRecordBytes);

    const std::string before = ReadFile(folder / "KEL" / ManifestName);
    EXPECT_EQ(RunTool("build --csv " + bright + catalog), ExitBadInput);
    EXPECT_EQ(RunTool("build --tycho2 " + table + catalog), ExitBadInput);
    EXPECT_EQ(RunTool("build --mag-max -9 --csv " + table + catalog), ExitBadInput);
    EXPECT_EQ(RunTool("build" + catalog), ExitWrongUsage);
    EXPECT_EQ(RunTool("build --csv " + table + " --tycho2 x" + catalog), ExitWrongUsage);
    EXPECT_EQ(RunTool("build --csv " + table + " --where ra~1" + catalog), ExitWrongUsage);
    EXPECT_EQ(RunTool("build --csv " + table + " --catalog /proc/KEL"), ExitCannotWrite);
    EXPECT_EQ(RunTool("info" + catalog, "/dev/full"), ExitCannotWrite);
    EXPECT_EQ(ReadFile(folder / "KEL" / ManifestName), before);
    EXPECT_EQ(Listing(folder.Path).size(), 4U);  // nothing half built is left

    WriteFile(folder / "KEL" / "N00R00", "0123456789");
    EXPECT_EQ(RunTool("verify" + catalog), ExitFaultsFound);
}

TEST(CatalogTool, CtrlCWhileWaitingForInputLeavesTheOldCatalog) {
    const TemporaryFolder folder;
    fs::create_directory(folder / "KEL");
    WriteFile(folder / "KEL" / "N00R00", "old");
    const std::string program = (ProgramFolder() / "vestrel-catalog").string();
    const std::string catalog = (folder / "KEL").string();
    std::array<int, 2> input{};
    ASSERT_EQ(pipe2(input.data(), O_CLOEXEC), 0);
    const pid_t child = fork();
    if (child == 0) {
        dup2(input[0], STDIN_FILENO);
        execl(program.c_str(), program.c_str(), "build", "--csv", "-", "--catalog", catalog.c_str(),
              nullptr);
        _exit(99);
    }
    constexpr std::string_view rows = "ra,dec,mag\n";
    ASSERT_EQ(write(input[1], rows.data(), rows.size()), std::ssize(rows));
    const fs::path building = catalog + ".building-" + std::to_string(child);
    for (int i = 0; i < 500 && !fs::exists(building); ++i) usleep(10000);
    EXPECT_TRUE(fs::exists(building));
    usleep(100000);  // until it waits in the read
    kill(child, SIGINT);
    int status = 0;
    bool ended = false;
    for (int i = 0; i < 1000 && !ended; ++i) {
        ended = waitpid(child, &status, WNOHANG) == child;
        usleep(10000);
    }
    if (!ended) {
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
    }
    EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -1, ExitStopped);
    EXPECT_EQ(ReadFile(folder / "KEL" / "N00R00"), "old");
    EXPECT_EQ(Listing(folder.Path), std::set<std::string>{"KEL"});
    close(input[0]);
    close(input[1]);
}

}  // namespace
}  // namespace vestrel
