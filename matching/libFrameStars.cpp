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

std::size_t PlaceIn(const std::vector<std::size_t>& order, std::size_t given) {
    return static_cast<std::size_t>(std::find(order.begin(), order.end(), given) - order.begin());
}

}  // namespace

ObservedField::ObservedField(const std::vector<ObservedStar>& image, int width, int height)
    : order_(OrderBy(image, mostImageStars, [](const ObservedStar& s) { return -s.Flux; })) {
    for (const std::size_t place : order_) stars_.push_back(image[place]);
    if (stars_.size() > 1) evenDensity_ = 1 / UsedArea(width, height);
}

std::size_t ObservedField::PlaceOf(std::size_t given) const {
    return PlaceIn(order_, given);
}

double ObservedField::MeasureLogDensity(std::size_t place) const {
    return std::log(DensityAt(stars_[place].X, stars_[place].Y, place));
}

double ObservedField::LogDensityAround(std::size_t place) const {
    return logDensities_.empty() ? MeasureLogDensity(place) : logDensities_[place];
}

void ObservedField::KeepDensities() {
    logDensities_.clear();
    for (std::size_t i = 0; i < stars_.size(); ++i) logDensities_.push_back(MeasureLogDensity(i));
}

FrameStars::FrameStars(const std::vector<PredictedStar>& catalog, const ObservedField& field,
                       double reach)
    : Reach(reach),
      field_(field),
      catalogOrder_(
          OrderBy(catalog, mostCatalogStars, [](const PredictedStar& s) { return s.Magnitude; })) {
    for (const std::size_t place : catalogOrder_) {
        Catalog.push_back(catalog[place]);
        logRanks_.push_back(std::log(static_cast<double>(Catalog.size())));
    }
    for (const ObservedStar& star : field.Stars()) Image.push_back({star, {}, 0});
    FindNear();
}

bool FrameStars::Find(const StarPlaces& given, StarPlaces& found) const {
    found = {PlaceIn(catalogOrder_, given.Catalog), field_.PlaceOf(given.Image)};
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
        star.LogDensity = field_.LogDensityAround(i);
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

double ObservedField::DensityAt(double x, double y, std::size_t except) const {
    constexpr std::size_t neighbours = 6;
    const std::size_t others = stars_.size() - (except < stars_.size() ? 1 : 0);
    const std::size_t k = std::min(neighbours, others / 2);
    if (k < 2) return evenDensity_;
    std::vector<double> squares;
    squares.reserve(stars_.size());
    for (std::size_t i = 0; i < stars_.size(); ++i) {
        if (i == except) continue;
        const double dx = stars_[i].X - x;
        const double dy = stars_[i].Y - y;
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
double ObservedField::UsedArea(int width, int height) const {
    const auto extent = [this](auto coordinate, double whole) {
        double low = INFINITY;
        double high = -INFINITY;
        for (const ObservedStar& star : stars_) {
            low = std::min(low, coordinate(star));
            high = std::max(high, coordinate(star));
        }
        const auto n = static_cast<double>(stars_.size());
        return std::clamp((high - low) * (n + 1) / (n - 1), 1.0, std::max(whole, 1.0));
    };
    return extent([](const ObservedStar& s) { return s.X; }, width) *
           extent([](const ObservedStar& s) { return s.Y; }, height);
}

}  // namespace vestrel
