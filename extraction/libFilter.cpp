#include "extraction/libFilter.h"

#include <algorithm>
#include <vector>

#include "astro/libMath.h"

namespace vestrel {

namespace {

constexpr double centreWeight = 0.2042;
constexpr double sideWeight = 0.12385;
constexpr double cornerWeight = 0.0751;

/// Sums of whole numbers are exact in 64 bits, so only the step to 32 bits rounds.
float Sum(std::int32_t a, std::int32_t b, std::int32_t c, std::int32_t d) {
    return static_cast<float>(static_cast<double>(a) + b + c + d);
}

}  // namespace

void GaussianFilter(Grid<std::int32_t>& pixels, std::int32_t width, std::int32_t height,
                    const Progress& progress) {
    if (width < 3 || height < 3) return;
    // Every value comes from the unfiltered image: two rows of it outlive their overwriting.
    const auto copyOfRow = [&](std::int32_t y) {
        const auto row = pixels.Row(y);
        return std::vector<std::int32_t>(row.begin(), row.end());
    };
    std::vector<std::int32_t> above = copyOfRow(0);
    std::vector<std::int32_t> here = copyOfRow(1);
    for (std::int32_t y = 1; y <= height - 2; ++y) {
        const std::int32_t* up = above.data();
        const std::int32_t* row = here.data();
        const std::int32_t* down = pixels.Row(y + 1).data();
        std::int32_t* out = pixels.Row(y).data();
        for (std::int32_t x = 1; x <= width - 2; ++x) {
            const float sides = Sum(row[x + 1], row[x - 1], down[x], up[x]);
            const float corners = Sum(up[x + 1], up[x - 1], down[x + 1], down[x - 1]);
            const auto smoothed =
                static_cast<float>(sideWeight * static_cast<double>(sides) + centreWeight * row[x] +
                                   cornerWeight * static_cast<double>(corners));
            out[x] = static_cast<std::int32_t>(RoundHalfEven(static_cast<double>(smoothed)));
        }
        above.swap(here);
        std::copy_n(down, here.size(), here.begin());
        if (y % 20 == 0 && progress) progress(y, height);
    }
    if (progress) progress(0, height);
}

}  // namespace vestrel
