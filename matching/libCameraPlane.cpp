#include "matching/libCameraPlane.h"

#include <algorithm>
#include <cmath>

#include "astro/libMath.h"

namespace vestrel {

namespace {

Projection PlaneAbout(SkyPosition centre) {
    Projection plane;
    plane.SetProjectionCentre(centre, SolveArcsecondsPerRadian);
    return plane;
}

SkyPosition PositionOf(const PlateConstants& plate, const Projection& plane, PlaneKind kind,
                       double x, double y) {
    double xi = 0;
    double eta = 0;
    InvertPlateFit(plate, x, y, xi, eta);
    if (kind == PlaneKind::Camera) {
        const double secant = std::hypot(1.0, std::hypot(xi, eta) / SolveArcsecondsPerRadian);
        xi /= secant;
        eta /= secant;
    }
    const SkyPosition position = plane.PlaneToSky(xi, eta);
    return position;
}

}  // namespace

CameraPlane::CameraPlane(SkyPosition centre) : plane_(PlaneAbout(centre)) {}

bool CameraPlane::Place(PlateStar& star) const {
    constexpr double leastCosine = 0.2;
    double xi = 0;
    double eta = 0;
    const double cosine = plane_.SkyToPlane(PositionOf(star), xi, eta);
    if (cosine < leastCosine) return false;
    star.X = static_cast<float>(xi / cosine);
    star.Y = static_cast<float>(eta / cosine);
    return true;
}

PlateStarList OnCameraPlane(const PlateStarList& stars, SkyPosition centre) {
    const CameraPlane plane(centre);
    PlateStarList list;
    for (PlateStar star : stars) {
        if (plane.Place(star)) list.Add(star);
    }
    return list;
}

std::optional<CentredPlate> PlateAboutMiddle(const PlateConstants& plate, SkyPosition tangent,
                                             PlaneKind kind, std::int32_t width,
                                             std::int32_t height) {
    const Projection before = PlaneAbout(tangent);
    const double x = (width - 1) / 2.0;
    const double y = (height - 1) / 2.0;
    // Short enough for the planes to agree, long enough to keep rounding errors small.
    const double arm = std::max(std::min(width, height) / 32.0, 1.0);
    CentredPlate centred;
    centred.Centre = PositionOf(plate, before, kind, x, y);
    const Projection after = PlaneAbout(centred.Centre);
    struct Step {
        double Xi = 0;
        double Eta = 0;
    };
    // Steps both ways, so that quadratic terms cancel.
    const auto step = [&](double dx, double dy) {
        Step sum;
        for (const double sign : {1.0, -1.0}) {
            const SkyPosition there = PositionOf(plate, before, kind, x + sign * dx, y + sign * dy);
            double xi = 0;
            double eta = 0;
            after.SkyToPlane(there, xi, eta);
            sum.Xi += sign * xi / (2 * arm);
            sum.Eta += sign * eta / (2 * arm);
        }
        return sum;
    };
    const Step right = step(arm, 0);
    const Step up = step(0, arm);
    const double determinant = right.Xi * up.Eta - up.Xi * right.Eta;
    if (!(std::fabs(determinant) > 0) || !std::isfinite(determinant)) return std::nullopt;
    centred.Plate = {up.Eta / determinant,     -up.Xi / determinant,   x,
                     -right.Eta / determinant, right.Xi / determinant, y};
    return centred;
}

}  // namespace vestrel
