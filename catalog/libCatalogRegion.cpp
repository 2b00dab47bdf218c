#include "catalog/libCatalogRegion.h"

#include <algorithm>
#include <cmath>

#include "astro/libMath.h"
#include "catalog/libCellGrid.h"

namespace vestrel {

namespace {

PlateStar ProjectedStar(const CatalogStar& star, double xi, double eta, double magnitude) {
    return {static_cast<float>(xi), static_cast<float>(eta), static_cast<float>(magnitude),
            static_cast<double>(star.Ra), static_cast<double>(star.Dec)};
}

double Magnitude(const CatalogStar& star) {
    return star.Mag / 100.0;
}

void SortByMagnitude(PlateStarList& stars) {
    CombSort(stars, stars.Count(), [](const PlateStar& earlier, const PlateStar& later) {
        return earlier.Flux > later.Flux;
    });
}

/// Whether no star of a cell can lie within `limit` of the projection's centre on its plane. On the
/// orthographic plane, stars near the opposite point fall inside too.
class RegionReach {
 public:
    RegionReach(const Projection& projection, double limit)
        : centre_(DirectionOf({projection.CentreRa, projection.CentreDec})) {
        const double sine = std::fabs(limit / projection.ProjectionScale);
        // Beyond this the region covers the plane. The margin outweighs all rounding.
        if (sine < 0.99) reach_ = std::asin(sine) + 1e-4;
        dec_ = std::asin(std::fmin(std::fmax(centre_[2], -1.0), 1.0));
    }

    bool Excludes(const CachedCell& cell) const {
        const double cosine = Dot(centre_, cell.Centre);
        const double distance = std::acos(std::fmin(std::fmax(cosine, -1.0), 1.0));
        const double needed = reach_ + cell.Radius;
        return distance > needed && distance < Pi - needed;
    }

    /// Whether all stars of a cell lie on the hemisphere around the centre.
    bool IsOnThisSide(const CachedCell& cell) const {
        constexpr double farthest = 1.5;  // a right angle minus a margin
        const double cosine = Dot(centre_, cell.Centre);
        return std::acos(std::fmin(std::fmax(cosine, -1.0), 1.0)) + cell.Radius < farthest;
    }

    /// Whether a star of such a cell is too far north or south, which needs no projection.
    /// Declinations beyond the poles, from damaged files, are not excluded, because they mean
    /// another declination.
    bool Excludes(const CatalogStar& star) const {
        const auto dec = static_cast<double>(star.Dec);
        return std::fabs(dec - dec_) > reach_ && std::fabs(dec) <= Pi / 2;
    }

 private:
    Direction centre_;
    double dec_ = 0;     ///< radians
    double reach_ = Pi;  ///< radians
};

}  // namespace

double MagnitudeLimitFor(double halfDiagonal) {
    const double relative = halfDiagonal * (180 / Pi) * 60 / 14;
    return 15.0 - 2.5 * std::log10(relative * relative);
}

namespace {

/// The stars of a region from the cells of a cache. Before a cell is used, has(cell) makes sure
/// that its stars are in memory; when it returns false, there is no result.
template <typename Cache, typename Has>
std::optional<PlateStarList> CollectRegion(Cache& cache, const Projection& projection,
                                           double radius, double magLimit, SkySides sides,
                                           Has has) {
    constexpr std::int32_t mostStars = 10000;
    const double limit = radius * SolveArcsecondsPerRadian;
    const double limitSquared = limit * limit;
    const RegionReach reach(projection, limit);

    PlateStarList stars;
    for (auto& cell : cache.Cells) {
        if (reach.Excludes(cell)) continue;
        if (!has(cell)) return std::nullopt;
        const bool near = reach.IsOnThisSide(cell);
        for (std::size_t i = 1; i < cell.Stars.size(); ++i) {
            const CatalogStar& star = cell.Stars[i];
            const double magnitude = Magnitude(star);
            if (!(magnitude < magLimit)) {
                if (cell.BrightestFirst) break;  // only fainter ones follow
                continue;
            }
            if (near && reach.Excludes(star)) continue;
            double xi = 0;
            double eta = 0;
            const double cosine = projection.SkyToPlane(PositionOf(star), xi, eta);
            if (sides == SkySides::This && !(cosine >= 0)) continue;
            if (stars.Count() < mostStars && xi * xi + eta * eta <= limitSquared) {
                stars.Add(ProjectedStar(star, xi, eta, magnitude));
            }
        }
    }
    SortByMagnitude(stars);
    return stars;
}

}  // namespace

PlateStarList RegionStars(CatalogCache& cache, const Projection& projection, SkyPosition centre,
                          double radius, double magLimit, SkySides sides) {
    cache.LoadRegion(centre, radius);
    return *CollectRegion(cache, projection, radius, magLimit, sides, [&](CachedCell& cell) {
        cache.ReadDownTo(cell, magLimit);
        return true;
    });
}

std::optional<PlateStarList> RegionStarsInMemory(const CatalogCache& cache,
                                                 const Projection& projection, SkyPosition centre,
                                                 double radius, double magLimit, SkySides sides) {
    if (!cache.HoldsRegion(centre, radius)) return std::nullopt;
    return CollectRegion(cache, projection, radius, magLimit, sides, [&](const CachedCell& cell) {
        return CatalogCache::HoldsDownTo(cell, magLimit);
    });
}

PlateStarList WholeRegionStars(CatalogCache& cache, SkyPosition centre, double radius,
                               double magLimit) {
    constexpr double wide = 0.17;
    const double angle = std::asin(std::min(radius, 1.0));
    if (radius > wide) {
        for (const CellPosition& cell : AllCells()) {
            if (CellTouches(cell, centre, angle)) cache.LoadCell(CellName(cell));
        }
    }
    Projection plane;
    plane.SetProjectionCentre(centre, SolveArcsecondsPerRadian);
    return RegionStars(cache, plane, centre, radius, magLimit, SkySides::This);
}

PlateStarList OnThisSide(PlateStarList stars, SkyPosition centre) {
    Projection plane;
    plane.SetProjectionCentre(centre, 1);
    std::int32_t kept = 0;
    for (std::int32_t i = 1; i <= stars.Count(); ++i) {
        double xi = 0;
        double eta = 0;
        if (plane.SkyToPlane({stars[i].Ra, stars[i].Dec}, xi, eta) >= 0) stars[++kept] = stars[i];
    }
    stars.Resize(kept);
    return stars;
}

PlateStarList FieldStars(CatalogCache& cache, Projection& projection, SkyPosition centre,
                         double radius, double magLimit) {
    constexpr std::int32_t mostStars = 1000;
    const double limit = radius * ArcsecondsPerRadian;
    projection.SetProjectionCentre(centre, ArcsecondsPerRadian);
    PlateStarList stars;
    for (CachedCell& cell : cache.Cells) {
        if (!cell.InUse) continue;
        cache.ReadDownTo(cell, magLimit);
        for (std::size_t i = 1; i < cell.Stars.size(); ++i) {
            const CatalogStar& star = cell.Stars[i];
            const double magnitude = Magnitude(star);
            if (!(magnitude <= magLimit)) continue;
            double xi = 0;
            double eta = 0;
            const double cosine = projection.SkyToPlane(PositionOf(star), xi, eta);
            const double distance = std::sqrt(xi * xi + eta * eta);
            if (stars.Count() < mostStars && distance <= limit && cosine >= 0) {
                stars.Add(ProjectedStar(star, xi, eta, magnitude));
            }
        }
    }
    SortByMagnitude(stars);
    return stars;
}

}  // namespace vestrel
