#include "display/libSkyOverlay.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <utility>

#include "astro/libConversions.h"
#include "astro/libMath.h"
#include "astro/libStrings.h"

namespace vestrel {

namespace {

/// A tolerance, so that rounding does not exclude points on the very rim of the projection.
constexpr double rim = 1e-12;

PixelPoint UnitVector(double x, double y) {
    const double length = std::hypot(x, y);
    return {x / length, y / length};
}

}  // namespace

std::optional<SkyMap> SkyMap::Of(const ImageHeader& header) {
    if (!header.PlateMatched) return std::nullopt;
    const auto& rows = header.PlateTransform;
    SkyMap map;
    map.xXi_ = rows[0][0] * header.PlateScale;
    map.xEta_ = rows[0][1] * header.PlateScale;
    map.yXi_ = rows[1][0] * header.PlateScale;
    map.yEta_ = rows[1][1] * header.PlateScale;
    map.tangent_ = {rows[0][2], rows[1][2]};
    map.determinant_ = map.xXi_ * map.yEta_ - map.xEta_ * map.yXi_;
    // Beyond these limits the image would be empty, or its two axes parallel.
    constexpr double farthest = 1e9;
    constexpr double largest = 1e15;
    constexpr double smallestAngle = 1e-6;
    const double size = std::hypot(map.xXi_, map.xEta_) * std::hypot(map.yXi_, map.yEta_);
    if (!std::isnormal(map.determinant_) || !(size < largest * largest) ||
        !(std::fabs(map.determinant_) > smallestAngle * size) ||
        !(std::fabs(header.RaRef) <= 100) || !(std::fabs(header.DecRef) <= 2) ||
        !(std::fabs(map.tangent_.X) < farthest) || !(std::fabs(map.tangent_.Y) < farthest)) {
        return std::nullopt;
    }
    map.plane_.SetProjectionCentre({header.RaRef, header.DecRef}, 1);
    return map;
}

SkyMap SkyMap::Of(const SkyModel& model) {
    SkyMap map;
    map.model_ = model;
    return map;
}

SkyMap SkyMap::PartFrom(const PixelPoint& corner) const {
    SkyMap part = *this;
    part.tangent_.X -= corner.X;
    part.tangent_.Y -= corner.Y;
    part.corner_.X += corner.X;
    part.corner_.Y += corner.Y;
    return part;
}

std::optional<PixelPoint> SkyMap::PixelOf(const SkyPosition& sky) const {
    if (model_) {
        std::optional<PixelPoint> pixel = model_->PixelOf(sky);
        if (pixel) *pixel = {pixel->X - corner_.X, pixel->Y - corner_.Y};
        return pixel;
    }
    double xi = 0;
    double eta = 0;
    if (!(plane_.SkyToPlane(sky, xi, eta) >= -rim)) return std::nullopt;
    return PixelPoint{xXi_ * xi + xEta_ * eta + tangent_.X, yXi_ * xi + yEta_ * eta + tangent_.Y};
}

std::optional<SkyPosition> SkyMap::SkyOf(const PixelPoint& pixel) const {
    if (model_) return model_->SkyOf({pixel.X + corner_.X, pixel.Y + corner_.Y});
    const double dx = pixel.X - tangent_.X;
    const double dy = pixel.Y - tangent_.Y;
    const double east = -(yEta_ * dx - xEta_ * dy) / determinant_;
    const double north = (xXi_ * dy - yXi_ * dx) / determinant_;
    const double square = 1 - (east * east + north * north);
    if (!(square >= -rim)) return std::nullopt;
    const double outward = std::sqrt(std::max(square, 0.0));
    const double q = plane_.CosCentreDec * outward - plane_.SinCentreDec * north;
    const double z = plane_.SinCentreDec * outward + plane_.CosCentreDec * north;
    const double x = plane_.CosCentreRa * q - plane_.SinCentreRa * east;
    const double y = plane_.SinCentreRa * q + plane_.CosCentreRa * east;
    double ra = std::atan2(y, x);
    if (ra < 0) ra += 2 * std::numbers::pi;
    return SkyPosition{ra, std::atan2(z, std::hypot(x, y))};
}

std::optional<SkyMap::Compass> SkyMap::CompassAt(const PixelPoint& pixel) const {
    const std::optional<SkyPosition> sky = SkyOf(pixel);
    if (!sky) return std::nullopt;
    if (model_) return CompassByStep(pixel, *sky);
    // The derivatives of the projection along a meridian and along a parallel, the latter divided
    // by cos(dec), so that they do not vanish at the poles.
    const double sinRa =
        std::sin(sky->Ra) * plane_.CosCentreRa - std::cos(sky->Ra) * plane_.SinCentreRa;
    const double cosRa =
        std::cos(sky->Ra) * plane_.CosCentreRa + std::sin(sky->Ra) * plane_.SinCentreRa;
    const double sinDec = std::sin(sky->Dec);
    const double cosDec = std::cos(sky->Dec);
    const double northXi = sinDec * sinRa;
    const double northEta = plane_.CosCentreDec * cosDec + plane_.SinCentreDec * sinDec * cosRa;
    const double eastXi = -cosRa;
    const double eastEta = plane_.SinCentreDec * sinRa;
    return Compass{UnitVector(xXi_ * northXi + xEta_ * northEta, yXi_ * northXi + yEta_ * northEta),
                   UnitVector(xXi_ * eastXi + xEta_ * eastEta, yXi_ * eastXi + yEta_ * eastEta)};
}

std::optional<SkyMap::Compass> SkyMap::CompassByStep(const PixelPoint& pixel,
                                                     const SkyPosition& sky) const {
    constexpr double step = 1e-6;  // radians; the model is accurate to 1e-9 pixels
    const double sinRa = std::sin(sky.Ra);
    const double cosRa = std::cos(sky.Ra);
    const double sinDec = std::sin(sky.Dec);
    const double cosDec = std::cos(sky.Dec);
    // The pixel after a small step in a direction, without angles, which fail at the poles.
    const auto toward = [&](double x, double y, double z) -> std::optional<PixelPoint> {
        x = cosDec * cosRa + step * x;
        y = cosDec * sinRa + step * y;
        z = sinDec + step * z;
        const auto there = PixelOf({std::atan2(y, x), std::atan2(z, std::hypot(x, y))});
        if (!there) return std::nullopt;
        return UnitVector(there->X - pixel.X, there->Y - pixel.Y);
    };
    const auto north = toward(-sinDec * cosRa, -sinDec * sinRa, cosDec);
    const auto east = toward(-sinRa, cosRa, 0);
    if (!north || !east) return std::nullopt;
    return Compass{*north, *east};
}

double SkyMap::PixelsPerRadian() const {
    if (model_) return 1 / model_->Scale();
    return std::sqrt(std::fabs(determinant_));
}

std::optional<ScaleBar> ScaleBarFor(const SkyMap& map, double longest) {
    constexpr double perMinute = 60;
    constexpr double perDegree = 3600;
    struct Unit {
        double Arcseconds;
        const char* Sign;
        double Steps[5];
    };
    // In descending order; 0 ends a row.
    const Unit units[] = {{perDegree, DegreeSign, {45, 30, 20, 10, 5}},
                          {perDegree, DegreeSign, {2, 1, 0}},
                          {perMinute, "'", {30, 20, 10, 5, 2}},
                          {perMinute, "'", {1, 0}},
                          {1, "\"", {30, 20, 10, 5, 2}},
                          {1, "\"", {1, 0.5, 0.2, 0.1, 0.05}},
                          {1, "\"", {0.02, 0.01, 0.005, 0.002, 0.001}}};
    const double pixelsPerArcsecond = map.PixelsPerRadian() / ExactArcsecondsPerRadian;
    for (const Unit& unit : units) {
        for (const double step : unit.Steps) {
            const double pixels = step * unit.Arcseconds * pixelsPerArcsecond;
            if (step == 0 || !(pixels <= longest)) continue;
            // In a field wider than the sky even the longest bar would be a dot.
            if (step == 45 && pixels < longest / 100) return std::nullopt;
            return ScaleBar{pixels, step * unit.Arcseconds, NumberText(step) + unit.Sign};
        }
    }
    return std::nullopt;
}

std::optional<NearestStar> NearestCatalogStar(const SkyMap& map, const PlateStarList& stars,
                                              const PixelPoint& pixel) {
    std::optional<NearestStar> nearest;
    for (std::int32_t i = 1; i <= stars.Count(); ++i) {
        const std::optional<PixelPoint> place = map.PixelOf(PositionOf(stars[i]));
        if (!place) continue;
        const double distance = std::hypot(place->X - pixel.X, place->Y - pixel.Y);
        if (distance < (nearest ? nearest->Distance : HUGE_VAL)) nearest = {i, distance};
    }
    return nearest;
}

}  // namespace vestrel
