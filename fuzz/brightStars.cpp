// The table of bright stars, and the finder that uses it.

#include <algorithm>

#include "catalogtool/libBrightStars.h"
#include "catalogtool/libToolReport.h"
#include "fuzz/fuzzSupport.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vestrel;
    static const std::filesystem::path file = InputFolder() / "stars.json";
    WriteFile(file, TextOf(data, size));
    std::size_t unusable = 0;
    std::vector<SkyStar> stars;
    try {
        stars = ReadBrightStars(file, unusable);
    } catch (const ToolFailure&) {
        return 0;
    }
    Require(!stars.empty(), "a good table has stars");
    Require(std::all_of(stars.begin(), stars.end(),
                        [](const SkyStar& star) { return StoredStar(star).has_value(); }),
            "every star can be stored");
    BrightStarFinder finder(stars);
    Require(finder.Missing().size() == stars.size(), "a survey without stars lacks all");
    for (const SkyStar& star : stars) finder.Visit(star);
    Require(finder.Missing().empty(), "a survey of the same stars lacks none");
    return 0;
}
