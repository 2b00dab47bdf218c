// What hosts hand over, read piece by piece: the parts that no host's answer shows.
#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cstdint>
#include <stdexcept>

#include "compat/libFitsStars.h"
#include "compat/libHeaderHints.h"
#include "compat/libHeaderUpdate.h"
#include "compat/libShellScript.h"
#include "image/libFitsCards.h"

namespace vestrel {
namespace {

std::vector<std::string> Cards(const std::vector<std::string>& starts) {
    std::vector<std::string> cards = starts;
    for (std::string& card : cards) card.resize(FitsCardLength, ' ');
    return cards;
}

TEST(HostHeaders, TheFirstKeywordsThatHostsWriteAreBelievedFirst) {
    const std::vector<std::string> all =
        Cards({"CRVAL1  = 30.0", "CRVAL2  = -3", "OBJCTRA = '01 20 00.0'", "OBJCTDEC= '-02:30:00'",
               "RA      = 10.0 / degrees", "DEC     = '-1.5    '", "RA      = 99"});
    const auto centres = HeaderCentres(all);
    ASSERT_EQ(centres.size(), 4U);
    const double expected[4][2] = {{10, -1.5}, {20, -2.5}, {30, -3}, {150, -1.5}};
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_NEAR(centres[i].Ra, expected[i][0], 1e-7) << i;
        EXPECT_NEAR(centres[i].Dec, expected[i][1], 1e-7) << i;
    }
    // Both halves of the circle may be counted from its middle.
    const auto west = HeaderCentres(Cards({"CRVAL1  = -10", "CRVAL2  = 5"}));
    ASSERT_EQ(west.size(), 1U);
    EXPECT_EQ(west[0].Ra, 350);
    // What is half there, off the sky or no number at all is passed over.
    EXPECT_TRUE(HeaderCentres(Cards({"RA      = 10", "OBJCTRA = ''", "OBJCTDEC= ''",
                                     "CRVAL1  = 1E999", "CRVAL2  = 5"}))
                    .empty());
    EXPECT_TRUE(HeaderCentres(Cards({"RA      = 10", "DEC     = 95"})).empty());
}

TEST(HostHeaders, AMatrixAloneTellsTheScaleUnlessNobodyFilledItIn) {
    EXPECT_NEAR(*HeaderMatrixScale(Cards({"CD1_2   = 3E-4", "CD2_2   = -4E-4"})), 5e-4, 1e-12);
    EXPECT_NEAR(*HeaderMatrixScale(Cards({"CDELT2  = -7.4D-4"})), 7.4e-4, 1e-12);
    EXPECT_FALSE(HeaderMatrixScale(Cards({"CDELT2  = 1.0"})));
    EXPECT_FALSE(HeaderMatrixScale(Cards({"CDELT2  = 0"})));
    EXPECT_FALSE(HeaderMatrixScale({}));
    // Whole coordinates are read elsewhere.
    EXPECT_FALSE(
        HeaderMatrixScale(Cards({"CTYPE1  = 'RA---TAN'", "CRVAL1  = 1", "CD2_2   = 4E-4"})));
}

std::vector<unsigned char> Bytes(const std::string& text) {
    return {text.begin(), text.end()};
}

TEST(HostHeaders, AnUpdateTouchesNothingButTheCoordinates) {
    // Long texts go on in cards of their own, which belong to the card before.
    const std::vector<std::string> before =
        Cards({"SIMPLE  =                    T", "BITPIX  = 8", "NAXIS   = 2", "NAXIS1  = 5",
               "NAXIS2  = 4", "NOTE    = 'some &'", "CONTINUE  'text'", "CTYPE1  = 'RA---SIN&'",
               "CONTINUE  'old'", "A_2_0   = 1", "CHECKSUM= 'x'", "DATASUM = '5'", "odd card"});
    const std::vector<std::string> coordinates = Cards({"CTYPE1  = 'RA---TAN'", "CRVAL1  = 3"});
    const std::string data = "pixels" + std::string(3000, '\x80');
    const auto file = Bytes(FitsHeaderBlocks(before) + data);
    const auto updated = WithCoordinates(file, coordinates, 5, 4);
    std::vector<std::string> expected(before.begin(), before.begin() + 7);
    for (const std::size_t i : {11, 12}) expected.push_back(before[i]);
    expected.insert(expected.end(), coordinates.begin(), coordinates.end());
    EXPECT_EQ(updated, Bytes(FitsHeaderBlocks(expected) + data));
    EXPECT_EQ(WithCoordinates(updated, coordinates, 5, 4), updated);
    // A header that grows beyond its block moves the data, whole.
    const std::vector<std::string> many(60, coordinates[1]);
    const auto longer = WithCoordinates(file, many, 5, 4);
    EXPECT_EQ(longer.size(), file.size() + FitsBlockLength);
    const auto tail = Bytes(data);
    EXPECT_TRUE(std::equal(tail.rbegin(), tail.rend(), longer.rbegin()));

    // Another picture's header, one without end, one that is cut off, and no FITS at all.
    EXPECT_THROW(WithCoordinates(file, coordinates, 4, 5), std::runtime_error);
    std::string endless;
    for (const std::string& card : before) endless += card;
    EXPECT_THROW(WithCoordinates(Bytes(endless), coordinates, 5, 4), std::runtime_error);
    EXPECT_THROW(WithCoordinates(Bytes(endless + "END" + std::string(77, ' ')), coordinates, 5, 4),
                 std::runtime_error);
    EXPECT_THROW(WithCoordinates(Bytes("JPEG" + data), coordinates, 5, 4), std::runtime_error);
    EXPECT_THROW(WithCoordinates({}, coordinates, 5, 4), std::runtime_error);
}

/// A number as FITS stores it, the most significant byte first.
std::string BigEndian(std::uint64_t bits, int bytes) {
    std::string text;
    for (int i = bytes - 1; i >= 0; --i) text += static_cast<char>(bits >> (8 * i) & 0xFF);
    return text;
}

TEST(HostStars, EveryKindOfColumnIsReadWithItsScale) {
    struct Kind {
        const char* Form;
        std::string Stored;
        double Value;
    };
    const std::vector<Kind> kinds = {
        {"1B", BigEndian(200, 1), 200},
        {"1I", BigEndian(0xFFFF - 99, 2), -100},
        {"J", BigEndian(0xFFFFFFFF - 999, 4), -1000},
        {"1K", BigEndian(std::uint64_t{0} - 5, 8), -5},
        {"1E", BigEndian(std::bit_cast<std::uint32_t>(12.25F), 4), 12.25},
        {"1D", BigEndian(std::bit_cast<std::uint64_t>(-3.125), 8), -3.125}};
    for (const Kind& kind : kinds) {
        SCOPED_TRACE(kind.Form);
        // Columns that are passed over, of widths that have to be counted, and the number thrice.
        const std::string row = std::string(3, 'a') + std::string(2, '\0') + kind.Stored +
                                kind.Stored + std::string(16, '\0') + kind.Stored;
        std::vector<std::string> cards = {
            "XTENSION= 'BINTABLE'", "BITPIX  = 8",
            "NAXIS   = 2",          "NAXIS1  = " + std::to_string(row.size()),
            "NAXIS2  = 2",          "TFIELDS = 6",
            "TTYPE1  = 'NAME'",     "TFORM1  = '3A'",
            "TFORM2  = '9X'",       "TTYPE3  = 'x'",
            "TTYPE4  = 'Y'",        "TFORM5  = '1M'",
            "TTYPE6  = 'FLUX'",     "TSCAL3  = 0.5",
            "TZERO3  = 1000.0",     "TZERO4  = 32768"};
        for (const char* number : {"3", "4", "6"}) {
            cards.push_back(std::string("TFORM") + number + "  = '" + kind.Form + "'");
        }
        const std::string file = FitsHeaderBlocks(Cards({"SIMPLE  =                    T",
                                                         "BITPIX  = 8", "NAXIS   = 0"})) +
                                 FitsHeaderBlocks(Cards(cards)) + row + row;
        const auto read = [&](std::size_t length) {
            std::string fault;
            const std::string_view part = std::string_view(file).substr(0, length);
            return ReadFitsStars({reinterpret_cast<const unsigned char*>(part.data()), part.size()},
                                 {}, fault);
        };
        const auto stars = read(file.size());
        ASSERT_TRUE(stars);
        ASSERT_EQ(stars->Stars.size(), 2U);
        for (const ListedStar& star : stars->Stars) {
            EXPECT_EQ(star.X, 1000 + 0.5 * kind.Value);
            EXPECT_EQ(star.Y, 32768 + kind.Value);
            EXPECT_EQ(star.Rank, kind.Value);
        }
        EXPECT_FALSE(read(file.size() - 1));
    }
}

TEST(HostScripts, ScriptsThatEndInTheMiddleAreReadToTheirEnd) {
    using Commands = std::vector<ShellCommand>;
    std::map<std::string, std::string> variables;
    const auto read = [&](std::string_view script) { return CommandsOf(script, variables); };
    EXPECT_EQ(read(""), Commands{});
    EXPECT_EQ(read(" ;;\n# nothing"), Commands{});
    EXPECT_EQ(read("a 'b c"), (Commands{{"a", "b c"}}));
    EXPECT_EQ(read("a \"b;c\n"), (Commands{{"a", "b;c\n"}}));
    EXPECT_EQ(read("a b\\"), (Commands{{"a", "b\\"}}));
    EXPECT_EQ(read("a $"), (Commands{{"a", "$"}}));
    EXPECT_EQ(read("v=1\r\na ${v"), (Commands{{"a", "1"}}));
    EXPECT_EQ(read("a $v"), (Commands{{"a", "1"}}));  // what was assigned stays
}

}  // namespace
}  // namespace vestrel
