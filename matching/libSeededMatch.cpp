#include "matching/libSeededMatch.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>

#include "astro/libMath.h"
#include "matching/libStarPlaces.h"

namespace vestrel {

namespace {

constexpr double hitPart = 0.5;  // of the catalog stars that an image shows

/// The similarity that takes two catalog stars to two places, with one axis reversed when it is
/// mirrored.
PlateConstants SimilarPlate(const PlateStar& c1, const PlateStar& c2, const PlateStar& p1,
                            const PlateStar& p2, bool mirrored) {
    const double sign = mirrored ? -1 : 1;
    const double zx = XOf(c2) - XOf(c1);
    const double zy = sign * (YOf(c2) - YOf(c1));
    const double wx = XOf(p2) - XOf(p1);
    const double wy = YOf(p2) - YOf(p1);
    const double square = zx * zx + zy * zy;
    const double re = (wx * zx + wy * zy) / square;
    const double im = (wy * zx - wx * zy) / square;
    PlateConstants plate{re, -sign * im, 0, im, sign * re, 0};
    plate.c = XOf(p1) - plate.a * XOf(c1) - plate.b * YOf(c1);
    plate.f = YOf(p1) - plate.d * XOf(c1) - plate.e * YOf(c1);
    return plate;
}

StarMatch SeedPair(std::int32_t catalog, std::int32_t image) {
    return {static_cast<std::int16_t>(catalog), static_cast<std::int16_t>(image), 0, true};
}

}  // namespace

SeedMatcher::SeedMatcher(const ImageStars& image, const SeedSettings& settings)
    : image_(image), settings_(settings) {
    // Close pairs do not determine the corners of the frame.
    shortest_ = 0.12 * std::hypot(image.Width(), image.Height());
    const std::int32_t n = std::min(settings.ImageSeeds, image.Count());
    for (std::int32_t i = 1; i <= n; ++i) {
        for (std::int32_t j = i + 1; j <= n; ++j) {
            const double length = PixelDistanceOf(i, j);
            if (length >= shortest_) pairs_.push_back({length, i, j});
        }
    }
    std::sort(pairs_.begin(), pairs_.end(), [](const ImagePair& a, const ImagePair& b) {
        return a.Length != b.Length ? a.Length < b.Length
                                    : std::pair(a.First, a.Second) < std::pair(b.First, b.Second);
    });
    taken_.assign(static_cast<std::size_t>(image.Count()) + 1, 0);
    MarkCells();
    WeighHits();
}

double SeedMatcher::PixelDistanceOf(std::int32_t i, std::int32_t j) const {
    const PlateStar& a = image_.Stars()[i];
    const PlateStar& b = image_.Stars()[j];
    return std::hypot(XOf(a) - XOf(b), YOf(a) - YOf(b));
}

std::array<SeedMatcher::PairPlaces, 2> SeedMatcher::PairsLike(const PlateStar& star1,
                                                              const PlateStar& star2) const {
    const double length = std::hypot(XOf(star1) - XOf(star2), YOf(star1) - YOf(star2));
    const auto between = [&](double smallest, double largest) -> PairPlaces {
        const auto shorter = [](const ImagePair& pair, double value) {
            return pair.Length < value;
        };
        const auto longer = [](double value, const ImagePair& pair) { return value < pair.Length; };
        return {std::lower_bound(pairs_.begin(), pairs_.end(), length / largest, shorter),
                std::upper_bound(pairs_.begin(), pairs_.end(), length / smallest, longer)};
    };
    const PairPlaces all = between(settings_.SmallestScale, settings_.LargestScale);
    if (settings_.TriedLargest <= 0) return {all, PairPlaces{all.second, all.second}};
    const PairPlaces tried = between(settings_.TriedSmallest, settings_.TriedLargest);
    return {PairPlaces{all.first, std::clamp(tried.first, all.first, all.second)},
            PairPlaces{std::clamp(tried.second, all.first, all.second), all.second}};
}

double SeedMatcher::PlatesOf(const PlateStarList& catalog) const {
    const std::int32_t n = std::min(settings_.CatalogSeeds, catalog.Count());
    double plates = 0;
    for (std::int32_t c1 = 1; c1 <= n; ++c1) {
        for (std::int32_t c2 = c1 + 1; c2 <= n; ++c2) {
            for (const auto& [from, to] : PairsLike(catalog[c1], catalog[c2])) {
                plates += 4 * static_cast<double>(std::distance(from, to));
            }
        }
    }
    return plates;
}

void SeedMatcher::MarkCells() {
    cellsPerPixel_ = 2 / settings_.Tolerance;
    const auto cells = [this](std::int32_t pixels) {
        return static_cast<std::int32_t>(pixels * cellsPerPixel_) + 1;
    };
    columns_ = cells(image_.Width());
    rows_ = cells(image_.Height());
    cells_.assign(static_cast<std::size_t>(columns_ + 2) * static_cast<std::size_t>(rows_ + 2),
                  outside);
    for (std::int32_t row = 0; row < rows_; ++row) {
        for (std::int32_t column = 0; column < columns_; ++column) {
            // The frame may end within a cell.
            const bool edge = row == 0 || column == 0 || row == rows_ - 1 || column == columns_ - 1;
            CellAt(column, row) = edge ? unknown : empty;
        }
    }
    for (std::int32_t star = 1; star <= image_.Count(); ++star) MarkStar(star);
}

/// Marks the cells that a star can be near to.
void SeedMatcher::MarkStar(std::int32_t star) {
    // Two cells are a tolerance.
    constexpr double reach = 2.001;
    constexpr double within = 1.999;
    constexpr auto steps = static_cast<std::int32_t>(reach) + 1;
    const bool storable = star <= std::numeric_limits<Cell>::max();
    const double x = (XOf(image_.Stars()[star]) + 0.5) * cellsPerPixel_;
    const double y = (YOf(image_.Stars()[star]) + 0.5) * cellsPerPixel_;
    const auto column = static_cast<std::int32_t>(std::floor(x));
    const auto row = static_cast<std::int32_t>(std::floor(y));
    for (std::int32_t j = std::max(row - steps, 0); j <= std::min(row + steps, rows_ - 1); ++j) {
        for (std::int32_t i = std::max(column - steps, 0);
             i <= std::min(column + steps, columns_ - 1); ++i) {
            const double nearX = x - std::clamp(x, double(i), i + 1.0);
            const double nearY = y - std::clamp(y, double(j), j + 1.0);
            if (nearX * nearX + nearY * nearY > reach * reach) continue;
            const double farX = std::max(x - i, i + 1 - x);
            const double farY = std::max(y - j, j + 1 - y);
            const bool whole = farX * farX + farY * farY < within * within;
            Cell& cell = CellAt(i, j);
            cell = whole && storable && cell == empty ? static_cast<Cell>(star) : unknown;
        }
    }
}

std::int32_t SeedMatcher::StarIn(Cell cell, double x, double y) const {
    return cell > 0 ? cell : image_.Nearest(x, y, settings_.Tolerance);
}

void SeedMatcher::WeighHits() {
    const double area = Pi * settings_.Tolerance * settings_.Tolerance;
    for (const double density : image_.Densities()) {
        const double chance = std::min(density * area, 0.9);
        hitGains_.push_back(std::log(hitPart / chance + (1 - hitPart)));
    }
}

bool SeedMatcher::Promising(const std::vector<CatalogPlace>& checked, const PlateConstants& plate) {
    constexpr double hopeless = -4.5;  // of the logarithm of the odds
    constexpr double promising = 7;
    const double miss = std::log(1 - hitPart);
    const std::array<double, 2> change{miss, 0};  // in an empty cell, and outside the frame
    ++plateNumber_;
    double odds = 0;
    double best = 0;
    std::int32_t seeds = 2;  // they agree by construction
    for (const auto& [east, north] : checked) {
        const double x = plate.a * east + plate.b * north + plate.c;
        const double y = plate.d * east + plate.e * north + plate.f;
        const Cell cell = CellOf(x, y);
        if (cell == empty || cell == outside) {
            odds += change[static_cast<std::size_t>(cell - empty)];
        } else if (cell > 0 || image_.InFrame(x, y)) {
            const std::int32_t i = StarIn(cell, x, y);
            if (i == 0) {
                odds += miss;
            } else if (taken_[static_cast<std::size_t>(i)] != plateNumber_) {
                taken_[static_cast<std::size_t>(i)] = plateNumber_;
                if (seeds > 0) {
                    --seeds;
                    continue;
                }
                odds += hitGains_[image_.DensityCell(x, y)];
                best = std::max(best, odds);
            }
        }
        if (odds < hopeless) break;
    }
    return best > promising;
}

bool SeedMatcher::TryPair(const PlateStarList& catalog, const std::vector<CatalogPlace>& checked,
                          std::int32_t c1, std::int32_t c2, const ImagePair& pair,
                          const std::function<bool(const MatchedPlate&)>& accept) {
    for (int way = 0; way < 4; ++way) {
        const bool turned = way % 2 != 0;
        const std::int32_t first = turned ? pair.Second : pair.First;
        const std::int32_t second = turned ? pair.First : pair.Second;
        MatchedPlate match;
        match.Plate = SimilarPlate(catalog[c1], catalog[c2], image_.Stars()[first],
                                   image_.Stars()[second], way >= 2);
        ++tried_;
        if (!Promising(checked, match.Plate)) continue;
        match.Seed = {SeedPair(c1, first), SeedPair(c2, second)};
        if (RefinePlate(catalog, image_, settings_.Tolerance, match) && accept(match)) return true;
    }
    return false;
}

bool SeedMatcher::Match(const PlateStarList& catalog,
                        const std::function<bool(const MatchedPlate&)>& accept,
                        const std::function<bool()>& stop) {
    constexpr double betweenLooks = 20000;
    const std::int32_t n = std::min(settings_.CatalogSeeds, catalog.Count());
    std::vector<CatalogPlace> checked;
    for (std::int32_t c = 1; c <= std::min(settings_.CheckedStars, catalog.Count()); ++c) {
        checked.push_back({XOf(catalog[c]), YOf(catalog[c])});
    }
    double nextLook = tried_ + betweenLooks;
    // Pairs of bright stars come first: by the sum of their numbers.
    for (std::int32_t sum = 3; sum < 2 * n; ++sum) {
        for (std::int32_t c1 = std::max(1, sum - n); 2 * c1 < sum; ++c1) {
            const std::int32_t c2 = sum - c1;
            for (const auto& [from, to] : PairsLike(catalog[c1], catalog[c2])) {
                for (auto pair = from; pair != to; ++pair) {
                    if (TryPair(catalog, checked, c1, c2, *pair, accept)) return true;
                }
            }
            if (tried_ >= nextLook) {
                nextLook = tried_ + betweenLooks;
                if (stop()) return false;
            }
        }
    }
    return false;
}

}  // namespace vestrel
