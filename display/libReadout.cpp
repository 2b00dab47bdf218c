#include "display/libReadout.h"

#include <charconv>
#include <cmath>

#include "astro/libConversions.h"
#include "photometry/libAperture.h"

namespace vestrel {

std::string FixedText(double value, int decimals) {
    if (!std::isfinite(value) || std::fabs(value) > 1e15) return "?";
    char text[40];
    const auto end =
        std::to_chars(std::begin(text), std::end(text), value, std::chars_format::fixed, decimals);
    const std::string result(std::begin(text), end.ptr);
    // A number that rounds to 0 has no sign.
    return result.find_first_not_of("-0.") == std::string::npos && value < 0 ? result.substr(1)
                                                                             : result;
}

std::string SkyText(const SkyPosition& sky) {
    return FormatRA(sky.Ra, true, 2) + "  " + FormatDec(sky.Dec, true, 1);
}

Readout ReadoutAt(const PlateImage& image, const std::optional<SkyMap>& map,
                  const PixelPoint& pixel) {
    if (!(pixel.X >= -0.5 && pixel.Y >= -0.5 && pixel.X < image.Width - 0.5 &&
          pixel.Y < image.Height - 0.5)) {
        return {};
    }
    const auto x = static_cast<std::int32_t>(std::floor(pixel.X + 0.5));
    const auto y = static_cast<std::int32_t>(std::floor(pixel.Y + 0.5));
    Readout readout;
    readout.Pixel = "x " + FixedText(pixel.X, 1) + "  y " + FixedText(pixel.Y, 1);
    readout.Count = FixedText(PhysicalCount(image, x, y), 0);
    if (map) {
        if (const auto sky = map->SkyOf(pixel)) readout.Sky = SkyText(*sky);
    }
    return readout;
}

}  // namespace vestrel
