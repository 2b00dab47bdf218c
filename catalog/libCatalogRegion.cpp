#include "catalog/libCatalogRegion.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "astro/libMath.h"

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

/// Collects the stars of a region, cell by cell.
class RegionCollector {
 public:
    RegionCollector(const Projection& projection, double radius, double magLimit, SkySides sides)
        : projection_(projection),
          limit_(radius * SolveArcsecondsPerRadian),
          magLimit_(magLimit),
          sides_(sides),
          reach_(projection, limit_) {}

    /// Whether a cell may hold stars of the region.
    bool Needs(const CachedCell& cell) const { return !reach_.Excludes(cell); }

    /// Adds the stars of a cell, which must be in memory down to the limit.
    void Add(const CachedCell& cell) {
        constexpr std::int32_t mostStars = 10000;
        const double limitSquared = limit_ * limit_;
        const bool near = reach_.IsOnThisSide(cell);
        for (std::size_t i = 1; i < cell.Stars.size(); ++i) {
            const CatalogStar& star = cell.Stars[i];
            const double magnitude = Magnitude(star);
            if (!(magnitude < magLimit_)) {
                if (cell.BrightestFirst) break;  // only fainter ones follow
                continue;
            }
            if (near && reach_.Excludes(star)) continue;
            double xi = 0;
            double eta = 0;
            const double cosine = projection_.SkyToPlane(PositionOf(star), xi, eta);
            if (sides_ == SkySides::This && !(cosine >= 0)) continue;
            if (stars_.Count() < mostStars && xi * xi + eta * eta <= limitSquared) {
                stars_.Add(ProjectedStar(star, xi, eta, magnitude));
            }
        }
    }

    /// The stars, brightest first.
    PlateStarList Take() {
        SortByMagnitude(stars_);
        return std::move(stars_);
    }

 private:
    const Projection& projection_;
    double limit_;  ///< arcseconds
    double magLimit_;
    SkySides sides_;
    RegionReach reach_;
    PlateStarList stars_;
};

}  // namespace

PlateStarList RegionStars(CatalogCache& cache, const Projection& projection, SkyPosition centre,
                          double radius, double magLimit, SkySides sides) {
    cache.LoadRegion(centre, radius);
    RegionCollector region(projection, radius, magLimit, sides);
    for (CachedCell& cell : cache.Cells) {
        if (!region.Needs(cell)) continue;
        cache.ReadDownTo(cell, magLimit);
        region.Add(cell);
    }
    return region.Take();
}

std::optional<PlateStarList> RegionStarsInMemory(const CatalogCache& cache,
                                                 const Projection& projection, SkyPosition centre,
                                                 double radius, double magLimit, SkySides sides) {
    if (!cache.HoldsRegion(centre, radius)) return std::nullopt;
    RegionCollector region(projection, radius, magLimit, sides);
    for (const CachedCell& cell : cache.Cells) {
        if (!region.Needs(cell)) continue;
        if (!CatalogCache::HoldsDownTo(cell, magLimit)) return std::nullopt;
        region.Add(cell);
    }
    return region.Take();
}

bool IsWideRegion(double radius) {
    constexpr double wide = 0.17;
    return radius > wide;
}

PlateStarList WholeRegionStars(CatalogCache& cache, SkyPosition centre, double radius,
                               double magLimit) {
    Projection plane;
    plane.SetProjectionCentre(centre, SolveArcsecondsPerRadian);
    if (!IsWideRegion(radius)) {
        return RegionStars(cache, plane, centre, radius, magLimit, SkySides::This);
    }
    RegionCollector region(plane, radius, magLimit, SkySides::This);
    cache.VisitRegion(centre, std::asin(std::min(radius, 1.0)), magLimit,
                      [&](const CachedCell& cell) {
                          if (region.Needs(cell)) region.Add(cell);
                      });
    return region.Take();
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
