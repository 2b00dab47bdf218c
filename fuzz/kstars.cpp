// Star files of KStars: any content gives valid stars or is refused.

#include "catalogtool/libKStars.h"
#include "fuzz/fuzzSupport.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vestrel;
    static const std::filesystem::path folder = InputFolder();
    const std::filesystem::path file = folder / "namedstars.dat";
    WriteFile(file, TextOf(data, size));
    ProgressLine silent(stdout);
    std::uint64_t stars = 0;
    try {
        const KStarsStars read = ReadKStarsFile(
            file, 2025,
            [&](const SkyStar& star) {
                ++stars;
                StoredStar(star);
            },
            silent);
        Require(read.Rows == stars && stars > 0, "every star counted is handed on");
    } catch (const ToolFailure&) {
        Require(stars == 0, "a file is looked at as a whole before the first star");
    }
    return 0;
}
