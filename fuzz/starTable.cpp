// Tables of stars: every row is accounted for, and the stars are the same however the text is
// divided among threads, and after writing and reading a table of them.
//
// The first byte chooses the options, the rest is the table.

#include <algorithm>
#include <cmath>
#include <numbers>
#include <numeric>

#include "astro/libStrings.h"
#include "catalogtool/libStarTable.h"
#include "fuzz/fuzzSupport.h"
#include "platform/libFiles.h"

namespace vestrel {
namespace {

StarTableOptions OptionsOf(unsigned char choice) {
    StarTableOptions options;
    if ((choice & 1) != 0) options.RaUnit = AngleUnit::Hours;
    if ((choice & 2) != 0) options.MagColumn = "b";
    if ((choice & 4) != 0) options.Filters.push_back({"c", '<', "2", 2});
    if ((choice & 8) != 0) options.Filters.push_back({"a", '=', "x", std::nan("")});
    return options;
}

/// No input is longer than such a piece.
constexpr std::size_t onePiece = std::size_t{1} << 15;

/// False when the table was refused.
bool ReadText(std::string_view text, const StarTableOptions& options, StarTableResult& result,
              std::vector<SkyStar>& stars, std::size_t pieceBytes = onePiece) {
    static const std::filesystem::path file = InputFolder() / "table.csv";
    WriteFile(file, text);
    const FileHandle opened = OpenFile(file, "rb");
    UnpackedInput input(opened.get());
    static const FileHandle nowhere = OpenFile("/dev/null", "wb");
    ProgressLine silent(nowhere.get());
    try {
        result = ReadStarTable(
            input, "table", text.size(), options,
            [&stars](const SkyStar& star) { stars.push_back(star); }, silent, pieceBytes);
        return true;
    } catch (const ToolFailure& failure) {
        Require(failure.what() != std::string_view("table: "), "a refused table has a reason");
        return false;
    }
}

/// Small pieces are read by many threads.
void CheckPieces(std::string_view text, const StarTableOptions& options,
                 const StarTableResult& whole, const std::vector<SkyStar>& stars) {
    constexpr std::size_t aFewRows = 64;
    StarTableResult result;
    std::vector<SkyStar> again;
    Require(ReadText(text, options, result, again, aFewRows), "pieces are read as the whole is");
    Require(result.Rows == whole.Rows && result.Faults == whole.Faults, "rows are counted once");
    Require(std::equal(again.begin(), again.end(), stars.begin(), stars.end(),
                       [](const SkyStar& a, const SkyStar& b) {
                           return a.Ra == b.Ra && a.Dec == b.Dec && a.Mag == b.Mag;
                       }),
            "pieces give the same stars in the same order");
}

void CheckAgain(const std::vector<SkyStar>& stars) {
    constexpr double degree = std::numbers::pi / 180;
    constexpr double tolerance = 1e-9;
    std::string text = "ra,dec,mag\n";
    for (const SkyStar& star : stars) {
        // 24 hours are a little more than 360 degrees with the program's π.
        const double ra = std::min(star.Ra / degree, 360.0);
        text += NumberText(ra) + "," + NumberText(star.Dec / degree) + "," + NumberText(star.Mag) +
                "\n";
    }
    StarTableResult result;
    std::vector<SkyStar> again;
    Require(ReadText(text, {}, result, again), "a plain table is read");
    Require(again.size() == stars.size(), "no star is lost");
    for (std::size_t i = 0; i < stars.size(); ++i) {
        Require(std::fabs(again[i].Ra - stars[i].Ra) < tolerance &&
                    std::fabs(again[i].Dec - stars[i].Dec) < tolerance &&
                    std::fabs(again[i].Mag - stars[i].Mag) < tolerance,
                "stars stay where they are");
    }
}

}  // namespace
}  // namespace vestrel

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vestrel;
    if (size == 0) return 0;
    StarTableResult result;
    std::vector<SkyStar> stars;
    const std::string_view text = TextOf(data, size).substr(1);
    const StarTableOptions options = OptionsOf(data[0]);
    if (!ReadText(text, options, result, stars)) return 0;
    Require(result.Stars == stars.size() && !stars.empty(), "every star is handed over");
    Require(
        result.Rows == std::accumulate(result.Faults.begin(), result.Faults.end(), result.Stars),
        "every row is a star or a fault");
    for (const SkyStar& star : stars) {
        Require(StoredStar(star).has_value(), "every star can be stored");
    }
    CheckPieces(text, options, result, stars);
    CheckAgain(stars);
    return 0;
}
