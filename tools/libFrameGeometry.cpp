#include "tools/libFrameGeometry.h"

#include <array>
#include <cmath>
#include <numbers>

namespace vestrel {

namespace {

constexpr double pi = std::numbers::pi;

/// The unit vectors of the picture's right and up, as (east, north) on the plane.
struct PictureAxes {
    explicit PictureAxes(const FrameGeometry& geometry)
        : Up{std::sin(geometry.UpPositionAngle), std::cos(geometry.UpPositionAngle)},
          Right{geometry.Mirrored ? Up[1] : -Up[1], geometry.Mirrored ? -Up[0] : Up[0]} {}
    std::array<double, 2> Up;
    std::array<double, 2> Right;
};

/// How far the lens moves a point at (u, v) pixels from the middle, which stays in place.
FramePoint LensShift(const FrameGeometry& geometry, double u, double v) {
    if (geometry.Distortion == 0) return {};
    const double half = geometry.HalfDiagonal();
    const double constant = geometry.Distortion / (half * half * half);
    const auto cube = [&](double x, double y) {
        const double square = constant * (x * x + y * y);
        return FramePoint{square * x, square * y};
    };
    const FramePoint here = cube(u - geometry.AxisX, v - geometry.AxisY);
    const FramePoint middle = cube(-geometry.AxisX, -geometry.AxisY);
    return {here.X - middle.X, here.Y - middle.Y};
}

}  // namespace

double FrameGeometry::HalfDiagonal() const {
    return std::hypot(Width, Height) / 2;
}

double FrameGeometry::Radius() const {
    return std::atan(RadiansPerPixel * HalfDiagonal());
}

std::optional<FramePoint> SkyToFrame(const FrameGeometry& geometry, SkyPosition sky) {
    const double sinCentre = std::sin(geometry.Centre.Dec);
    const double cosCentre = std::cos(geometry.Centre.Dec);
    const double sinDec = std::sin(sky.Dec);
    const double cosDec = std::cos(sky.Dec);
    const double cosRa = std::cos(sky.Ra - geometry.Centre.Ra);
    const double distanceCosine = sinCentre * sinDec + cosCentre * cosDec * cosRa;
    if (!(distanceCosine > 1e-6)) return std::nullopt;
    const double east = cosDec * std::sin(sky.Ra - geometry.Centre.Ra) / distanceCosine;
    const double north = (cosCentre * sinDec - sinCentre * cosDec * cosRa) / distanceCosine;
    const PictureAxes axes(geometry);
    const double right = east * axes.Right[0] + north * axes.Right[1];
    const double up = east * axes.Up[0] + north * axes.Up[1];
    const double u = right / geometry.RadiansPerPixel;
    const double v = up / geometry.RadiansPerPixel;
    // Far outside the frame the distortion would move stars back into it.
    if (geometry.Distortion != 0 && std::hypot(u, v) > 1.5 * geometry.HalfDiagonal()) {
        return std::nullopt;
    }
    const FramePoint shift = LensShift(geometry, u, v);
    return FramePoint{(geometry.Width - 1) / 2.0 + u + shift.X,
                      (geometry.Height - 1) / 2.0 + v + shift.Y};
}

SkyPosition FrameToSky(const FrameGeometry& geometry, FramePoint point) {
    const double x = point.X - (geometry.Width - 1) / 2.0;
    const double y = point.Y - (geometry.Height - 1) / 2.0;
    // The distortion changes slowly, so this converges quickly.
    constexpr int steps = 40;
    FramePoint ideal{x, y};
    for (int step = 0; step < steps && geometry.Distortion != 0; ++step) {
        const FramePoint shift = LensShift(geometry, ideal.X, ideal.Y);
        ideal = {x - shift.X, y - shift.Y};
    }
    const double right = ideal.X * geometry.RadiansPerPixel;
    const double up = ideal.Y * geometry.RadiansPerPixel;
    const PictureAxes axes(geometry);
    const double east = right * axes.Right[0] + up * axes.Up[0];
    const double north = right * axes.Right[1] + up * axes.Up[1];
    const double sinCentre = std::sin(geometry.Centre.Dec);
    const double cosCentre = std::cos(geometry.Centre.Dec);
    const double towardPole = cosCentre - north * sinCentre;
    double ra = geometry.Centre.Ra + std::atan2(east, towardPole);
    if (ra < 0) ra += 2 * pi;
    if (ra >= 2 * pi) ra -= 2 * pi;
    return {ra, std::atan2(sinCentre + north * cosCentre, std::hypot(east, towardPole))};
}

}  // namespace vestrel
