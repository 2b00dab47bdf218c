// FITS tables of stars: every row gives a valid star or counts as faulty, or the file is refused.

#include <numeric>

#include "catalogtool/libFitsTable.h"
#include "fuzz/fuzzSupport.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vestrel;
    static const std::filesystem::path file = InputFolder() / "table.fits";
    WriteFile(file, TextOf(data, size));
    std::uint64_t stars = 0;
    ProgressLine silent(stdout);
    try {
        const StarTableResult result = ReadFitsStarTable(
            file, "table", {},
            [&stars](const SkyStar& star) {
                ++stars;
                Require(StoredStar(star).has_value(), "every star can be stored");
            },
            silent);
        Require(result.Stars == stars, "every star counted is handed on");
        Require(result.Rows ==
                    std::accumulate(result.Faults.begin(), result.Faults.end(), result.Stars),
                "every row is a star or a fault");
    } catch (const ToolFailure&) {
        Require(stars <= size, "no more stars than bytes");
    }
    return 0;
}
