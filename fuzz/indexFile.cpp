// Index files: any content gives stars on the sphere or is refused.

#include <cmath>

#include "catalogtool/libIndexFile.h"
#include "fuzz/fuzzSupport.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vestrel;
    static const std::filesystem::path file = InputFolder() / "index.fits";
    WriteFile(file, TextOf(data, size));
    std::uint64_t stars = 0;
    ProgressLine silent(stdout);
    try {
        const IndexStars result = ReadIndexFile(
            file, {"", 2026, {}},
            [&](const SkyStar& star) {
                ++stars;
                Require(std::isfinite(star.Ra) && std::fabs(star.Dec) < 1.6, "on the sphere");
            },
            silent);
        Require(result.Count == stars, "every star counted is handed on");
    } catch (const ToolFailure&) {
        Require(stars <= size, "no more stars than bytes");
    }
    return 0;
}
