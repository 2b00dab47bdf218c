#include "astro/libSkyModel.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace vestrel {

namespace {

/// Calls `visit(u, v)` for a lattice over the image, its edges included; u and v are offsets from
/// the image centre in pixels.
template <typename Visit>
void OverImage(const SkyModel& model, int steps, Visit visit) {
    for (int j = 0; j <= steps; ++j) {
        for (int i = 0; i <= steps; ++i) {
            visit((static_cast<double>(i) / steps - 0.5) * model.Width,
                  (static_cast<double>(j) / steps - 0.5) * model.Height);
        }
    }
}

/// How far the distortion moves the point at an offset from the image centre; pixels.
PixelPoint Shift(const SkyModel& model, double u, double v) {
    if (!model.Distorted()) return {};
    const double halfWidth = model.Width / 2.0;
    const double halfHeight = model.Height / 2.0;
    u = std::clamp(u, -halfWidth, halfWidth);
    v = std::clamp(v, -halfHeight, halfHeight);
    return {model.Distortion[0](u, v), model.Distortion[1](u, v)};
}

/// The largest change of the distortion from one pixel to the next, over the image.
double SteepestDistortion(const SkyModel& model) {
    constexpr int steps = 16;
    double steepest = 0;
    OverImage(model, steps, [&](double u, double v) {
        // The neighbours lie inward, because the distortion is constant beyond the edge.
        const PixelPoint here = Shift(model, u, v);
        const PixelPoint inX = Shift(model, u > 0 ? u - 1 : u + 1, v);
        const PixelPoint inY = Shift(model, u, v > 0 ? v - 1 : v + 1);
        steepest = std::max({steepest, std::hypot(inX.X - here.X, inX.Y - here.Y),
                             std::hypot(inY.X - here.X, inY.Y - here.Y)});
        if (!std::isfinite(here.X + here.Y)) steepest = HUGE_VAL;
    });
    return steepest;
}

/// Fits the inverse polynomials. Returns their largest error over the image, pixels.
double FitInverse(SkyModel& model, int order) {
    constexpr int steps = 24;
    PolynomialFit fit(order, std::max(model.Width, model.Height) / 2.0);
    OverImage(model, steps, [&](double u, double v) {
        const PixelPoint shift = Shift(model, u, v);
        fit.Add(u + shift.X, v + shift.Y, -shift.X, -shift.Y);
    });
    if (!fit.Solve()) return HUGE_VAL;
    for (int axis = 0; axis < 2; ++axis) model.InverseDistortion[axis] = fit.Fitted(axis);
    double worst = 0;
    OverImage(model, steps + 1, [&](double u, double v) {
        const PixelPoint shift = Shift(model, u, v);
        const double x = model.InverseDistortion[0](u + shift.X, v + shift.Y);
        const double y = model.InverseDistortion[1](u + shift.X, v + shift.Y);
        worst = std::max(worst, std::hypot(shift.X + x, shift.Y + y));
    });
    return worst;
}

}  // namespace

std::optional<PlanePoint> GnomonicOf(const SkyPosition& tangent, const SkyPosition& sky) {
    constexpr double farthest = 1e-6;  // cosine
    const double sinCentre = std::sin(tangent.Dec);
    const double cosCentre = std::cos(tangent.Dec);
    const double sinDec = std::sin(sky.Dec);
    const double cosDec = std::cos(sky.Dec);
    const double cosRa = std::cos(sky.Ra - tangent.Ra);
    const double cosine = sinCentre * sinDec + cosCentre * cosDec * cosRa;
    if (!(cosine > farthest)) return std::nullopt;
    return PlanePoint{cosDec * std::sin(sky.Ra - tangent.Ra) / cosine,
                      (cosCentre * sinDec - sinCentre * cosDec * cosRa) / cosine};
}

SkyPosition SkyOfGnomonic(const SkyPosition& tangent, const PlanePoint& place) {
    const double sinCentre = std::sin(tangent.Dec);
    const double cosCentre = std::cos(tangent.Dec);
    const double towardPole = cosCentre - place.North * sinCentre;
    double ra = std::fmod(tangent.Ra + std::atan2(place.East, towardPole), 2 * std::numbers::pi);
    if (ra < 0) ra += 2 * std::numbers::pi;
    return {ra,
            std::atan2(sinCentre + place.North * cosCentre, std::hypot(place.East, towardPole))};
}

PlanePoint SkyModel::PlaneOf(const PixelPoint& pixel) const {
    const double u = pixel.X - Centre().X;
    const double v = pixel.Y - Centre().Y;
    const PixelPoint shift = Shift(*this, u, v);
    return {Cd[0][0] * (u + shift.X) + Cd[0][1] * (v + shift.Y),
            Cd[1][0] * (u + shift.X) + Cd[1][1] * (v + shift.Y)};
}

SkyPosition SkyModel::SkyOf(const PixelPoint& pixel) const {
    return SkyOfGnomonic(Tangent, PlaneOf(pixel));
}

PixelPoint SkyModel::PixelOf(const PlanePoint& place) const {
    const double determinant = Cd[0][0] * Cd[1][1] - Cd[0][1] * Cd[1][0];
    const double u = (Cd[1][1] * place.East - Cd[0][1] * place.North) / determinant;
    const double v = (Cd[0][0] * place.North - Cd[1][0] * place.East) / determinant;
    // The distortion changes slowly (see `CompleteSkyModel`), so each step usually adds
    // several correct decimal digits; in the corners of the strongest lenses eight add one.
    constexpr int mostSteps = 100;
    constexpr double close = 1e-10;
    PixelPoint found{u, v};
    for (int step = 0; step < mostSteps && Distorted(); ++step) {
        const PixelPoint shift = Shift(*this, found.X, found.Y);
        const PixelPoint next{u - shift.X, v - shift.Y};
        const bool done = std::fabs(next.X - found.X) + std::fabs(next.Y - found.Y) < close;
        found = next;
        if (done) break;
    }
    return {found.X + Centre().X, found.Y + Centre().Y};
}

std::optional<PixelPoint> SkyModel::PixelOf(const SkyPosition& sky) const {
    const std::optional<PlanePoint> place = GnomonicOf(Tangent, sky);
    if (!place) return std::nullopt;
    return PixelOf(*place);
}

double SkyModel::Scale() const {
    return std::sqrt(std::fabs(Cd[0][0] * Cd[1][1] - Cd[0][1] * Cd[1][0]));
}

bool CompleteSkyModel(SkyModel& model) {
    const auto& cd = model.Cd;
    const double determinant = cd[0][0] * cd[1][1] - cd[0][1] * cd[1][0];
    const double size = std::hypot(cd[0][0], cd[1][0]) * std::hypot(cd[0][1], cd[1][1]);
    constexpr double smallestAngle = 1e-6;
    if (!std::isnormal(determinant) || !std::isfinite(size) ||
        !(std::fabs(determinant) > smallestAngle * size) || !std::isfinite(model.Tangent.Ra) ||
        !std::isfinite(model.Tangent.Dec)) {
        return false;
    }
    model.InverseDistortion[0] = model.InverseDistortion[1] = {};
    if (!model.Distorted()) return true;
    // The iteration of `PixelOf` converges when this is below 1.
    constexpr double steepestUsable = 0.75;
    if (!(SteepestDistortion(model) < steepestUsable)) return false;
    constexpr double closeEnough = 0.01;
    const int order = model.Distortion[0].Order;
    const int most = std::clamp(order + 1, 5, Polynomial::MostOrder);
    for (int inverse = order; inverse <= most; ++inverse) {
        if (FitInverse(model, inverse) < closeEnough) break;
    }
    return true;
}

}  // namespace vestrel
