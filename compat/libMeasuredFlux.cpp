#include "compat/libMeasuredFlux.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numeric>
#include <system_error>

#include "image/libFormats.h"

namespace vestrel {

namespace {

constexpr double apertureRadius = 3;
constexpr double ringInner = 5;
constexpr double ringOuter = 8;

double FluxAt(const PlateImage& image, double x, double y) {
    if (!(x >= 0 && y >= 0 && x <= image.Width - 1 && y <= image.Height - 1)) return 0;
    std::vector<std::int32_t> ring;
    double sum = 0;
    int pixels = 0;
    const auto low = [](double centre) {
        return std::max(0, static_cast<int>(std::ceil(centre - ringOuter)));
    };
    const auto high = [](double centre, std::int32_t size) {
        return std::min(size - 1, static_cast<int>(std::floor(centre + ringOuter)));
    };
    for (int row = low(y); row <= high(y, image.Height); ++row) {
        for (int column = low(x); column <= high(x, image.Width); ++column) {
            const double distance = std::hypot(column - x, row - y);
            if (distance <= apertureRadius) {
                sum += image.Pixels(column, row);
                ++pixels;
            } else if (distance >= ringInner && distance <= ringOuter) {
                ring.push_back(image.Pixels(column, row));
            }
        }
    }
    if (ring.empty() || pixels == 0) return 0;
    const auto middle = ring.begin() + static_cast<std::ptrdiff_t>(ring.size() / 2);
    std::nth_element(ring.begin(), middle, ring.end());
    return std::max(sum - pixels * static_cast<double>(*middle), 0.0);
}

std::vector<double> FluxOfAll(const PlateImage& image, const std::vector<ListedStar>& stars,
                              bool turned) {
    std::vector<double> flux;
    flux.reserve(stars.size());
    for (const ListedStar& star : stars) {
        flux.push_back(FluxAt(image, star.X - 1, turned ? image.Height - star.Y : star.Y - 1));
    }
    return flux;
}

}  // namespace

std::optional<std::filesystem::path> PictureBeside(const std::filesystem::path& table) {
    for (const char* extension :
         {".fit", ".fits", ".fts", ".FIT", ".FITS", ".fit.fz", ".fits.fz", ".fit.gz", ".fits.gz",
          ".tif", ".tiff", ".png", ".jpg", ".jpeg", ".xisf"}) {
        const std::filesystem::path path =
            table.parent_path() /
            (table.stem().native() + std::filesystem::path(extension).native());
        std::error_code ignored;
        if (path != table && std::filesystem::is_regular_file(path, ignored) &&
            !FormatsOfFile(path).empty()) {
            return path;
        }
    }
    return std::nullopt;
}

std::vector<double> MeasuredFlux(const PlateImage& image, const std::vector<ListedStar>& stars) {
    std::vector<double> one = FluxOfAll(image, stars, false);
    std::vector<double> other = FluxOfAll(image, stars, true);
    const auto total = [](const std::vector<double>& flux) {
        return std::accumulate(flux.begin(), flux.end(), 0.0);
    };
    return total(one) >= total(other) ? one : other;
}

std::vector<ListedStar> RankedStars(std::vector<ListedStar> stars) {
    std::stable_sort(stars.begin(), stars.end(),
                     [](const ListedStar& a, const ListedStar& b) { return a.Rank > b.Rank; });
    return stars;
}

std::vector<ListedStar> InterleavedStars(const std::vector<ListedStar>& ranked, double width,
                                         double height) {
    constexpr int cells = 4;
    std::array<std::vector<const ListedStar*>, cells * cells> grid;
    const auto cell = [](double place, double size) {
        const double part = size > 0 ? std::floor((place - 0.5) / size * cells) : 0;
        return static_cast<std::size_t>(std::clamp(part, 0.0, cells - 1.0));
    };
    for (const ListedStar& star : ranked) {
        grid[cell(star.Y, height) * cells + cell(star.X, width)].push_back(&star);
    }
    std::vector<ListedStar> result;
    for (std::size_t round = 0; result.size() < ranked.size(); ++round) {
        for (const auto& stars : grid) {
            if (round < stars.size()) result.push_back(*stars[round]);
        }
    }
    return result;
}

}  // namespace vestrel
