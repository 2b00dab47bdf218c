#include "matching/libFrameStars.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "astro/libMath.h"

namespace vestrel {

namespace {

constexpr std::size_t mostCatalogStars = 1000;
constexpr std::size_t mostImageStars = 400;

/// The order of a list by a rising key; equal keys keep their order. Stars without a finite
/// position are left out.
template <typename List, typename Key>
std::vector<std::size_t> OrderBy(const List& list, std::size_t most, Key key) {
    std::vector<std::size_t> order;
    for (std::size_t i = 0; i < list.size(); ++i) {
        if (std::isfinite(list[i].X + list[i].Y + key(list[i]))) order.push_back(i);
    }
    std::stable_sort(order.begin(), order.end(),
                     [&](std::size_t a, std::size_t b) { return key(list[a]) < key(list[b]); });
    order.resize(std::min(order.size(), most));
    return order;
}

}  // namespace

FrameStars::FrameStars(const std::vector<PredictedStar>& catalog,
                       const std::vector<ObservedStar>& image, int width, int height, double reach)
    : Reach(reach),
      catalogOrder_(
          OrderBy(catalog, mostCatalogStars, [](const PredictedStar& s) { return s.Magnitude; })),
      imageOrder_(OrderBy(image, mostImageStars, [](const ObservedStar& s) { return -s.Flux; })) {
    for (const std::size_t place : catalogOrder_) {
        Catalog.push_back(catalog[place]);
        logRanks_.push_back(std::log(static_cast<double>(Catalog.size())));
    }
    for (const std::size_t place : imageOrder_) Image.push_back({image[place], {}, 0});
    if (Image.size() > 1) evenDensity_ = 1 / UsedArea(width, height);
    FindNear();
}

bool FrameStars::Find(const StarPlaces& given, StarPlaces& found) const {
    const auto placeOf = [](const std::vector<std::size_t>& order, std::size_t place) {
        return static_cast<std::size_t>(std::find(order.begin(), order.end(), place) -
                                        order.begin());
    };
    found = {placeOf(catalogOrder_, given.Catalog), placeOf(imageOrder_, given.Image)};
    return found.Catalog < Catalog.size() && found.Image < Image.size();
}

double FrameStars::Distance(const StarPlaces& pair) const {
    const PredictedStar& star = Catalog[pair.Catalog];
    const ObservedStar& seen = Image[pair.Image].Star;
    return std::hypot(seen.X - star.X, seen.Y - star.Y);
}

void FrameStars::FindNear() {
    std::vector<std::size_t> columns(Catalog.size());
    std::iota(columns.begin(), columns.end(), std::size_t{0});
    std::sort(columns.begin(), columns.end(),
              [this](std::size_t a, std::size_t b) { return Catalog[a].X < Catalog[b].X; });
    for (std::size_t i = 0; i < Image.size(); ++i) {
        Observed& star = Image[i];
        auto column =
            std::lower_bound(columns.begin(), columns.end(), star.Star.X - Reach,
                             [this](std::size_t j, double x) { return Catalog[j].X < x; });
        for (; column != columns.end() && Catalog[*column].X <= star.Star.X + Reach; ++column) {
            if (Distance({*column, i}) < Reach) star.Near.push_back({*column, 0});
        }
        if (star.Near.empty()) continue;
        std::sort(star.Near.begin(), star.Near.end(),
                  [](const Candidate& a, const Candidate& b) { return a.Catalog < b.Catalog; });
        Weigh(star, i);
        star.LogDensity = std::log(DensityAt(star.Star.X, star.Star.Y, i));
    }
}

/// Stars of the same brightness rank are likelier to be the same. Colours, clouds, saturation and
/// false stars change ranks, so the law has long tails, and a tenth of the weight ignores ranks.
void FrameStars::Weigh(Observed& star, std::size_t place) {
    const double logRank = std::log(static_cast<double>(place + 1));
    const auto likeness = [logRank](double other) {
        return 1 / (1 + (other - logRank) * (other - logRank));
    };
    double sum = 0;
    for (const double other : logRanks_) sum += likeness(other);
    for (Candidate& candidate : star.Near) {
        candidate.Weight = 0.9 * likeness(logRanks_[candidate.Catalog]) / sum +
                           0.1 / static_cast<double>(logRanks_.size());
    }
}

double FrameStars::DensityAt(double x, double y, std::size_t except) const {
    constexpr std::size_t neighbours = 6;
    const std::size_t others = Image.size() - (except < Image.size() ? 1 : 0);
    const std::size_t k = std::min(neighbours, others / 2);
    if (k < 2) return evenDensity_;
    std::vector<double> squares;
    squares.reserve(Image.size());
    for (std::size_t i = 0; i < Image.size(); ++i) {
        if (i == except) continue;
        const double dx = Image[i].Star.X - x;
        const double dy = Image[i].Star.Y - y;
        squares.push_back(dx * dx + dy * dy);
    }
    const auto kth = squares.begin() + static_cast<std::ptrdiff_t>(k - 1);
    std::nth_element(squares.begin(), kth, squares.end());
    // k − 1 makes the estimate unbiased (Loftsgaarden & Quesenberry 1965).
    const double local =
        static_cast<double>(k - 1) / (Pi * std::max(*kth, 1.0) * static_cast<double>(others));
    return std::max(evenDensity_, local);
}

/// The area of the part of the frame that has image stars, square pixels.
double FrameStars::UsedArea(int width, int height) const {
    const auto extent = [this](auto coordinate, double whole) {
        double low = INFINITY;
        double high = -INFINITY;
        for (const Observed& star : Image) {
            low = std::min(low, coordinate(star.Star));
            high = std::max(high, coordinate(star.Star));
        }
        const auto n = static_cast<double>(Image.size());
        return std::clamp((high - low) * (n + 1) / (n - 1), 1.0, std::max(whole, 1.0));
    };
    return extent([](const ObservedStar& s) { return s.X; }, width) *
           extent([](const ObservedStar& s) { return s.Y; }, height);
}

}  // namespace vestrel
