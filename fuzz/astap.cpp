// Files of ASTAP's star databases: any content gives valid stars or is refused.

#include <cmath>

#include "catalogtool/libAstap.h"
#include "fuzz/fuzzSupport.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vestrel;
    static const std::filesystem::path folder = InputFolder();
    for (const char* name : {"d05_0101.1476", "w08_0101.001"}) {
        WriteFile(folder / name, TextOf(data, size));
        std::uint64_t stars = 0;
        try {
            const std::uint64_t count = ReadAstapFile(folder / name, [&](const SkyStar& star) {
                ++stars;
                StoredStar(star);
            });
            Require(count == stars, "every star counted is handed on");
        } catch (const ToolFailure&) {
            Require(stars <= size, "no more stars than bytes");
        }
    }
    return 0;
}
