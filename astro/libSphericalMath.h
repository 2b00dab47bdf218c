// Positions on the sky, and the projection between the sky and a flat plate.
#pragma once

#include <array>

#include "astro/libPlateStar.h"

namespace vestrel {

/// A J2000 position, radians.
struct SkyPosition {
    double Ra = 0;
    double Dec = 0;
};
inline SkyPosition PositionOf(const PlateStar& star) {
    return {star.Ra, star.Dec};
}

/// A unit vector. Its axes point to right ascension 0° and 90° on the equator and to the north
/// pole.
using Direction = std::array<double, 3>;
Direction DirectionOf(SkyPosition position);
inline double Dot(const Direction& a, const Direction& b) {
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

/// The angular distance of two positions, radians in 0..π, by the haversine formula, which is
/// accurate for small distances.
double SkyDistance(const SkyPosition& a, const SkyPosition& b);

/// The projection of the sky onto a plane that touches it at a centre. It is orthographic
/// (direction cosines, not divided by the cosine of the distance): the SIN projection of Calabretta
/// & Greisen 2002 (A&A 395, 1077), section 5.1.5, with xi turned to grow toward decreasing right
/// ascension. Wide fields therefore differ from a gnomonic plate by about θ³/2.
struct Projection {
    double CentreRa = 0;   ///< radians
    double CentreDec = 0;  ///< radians
    double CosCentreRa = 1;
    double SinCentreRa = 0;
    double CosCentreDec = 1;
    double SinCentreDec = 0;
    double ProjectionScale = 1;  ///< plane units per radian

    /// Sets the centre and the scale (plane units per radian, arcseconds as a rule).
    void SetProjectionCentre(SkyPosition centre, double scale);

    /// Projects a position: `xi` grows west, `eta` north, both in plane units.
    /// @return the cosine of the angular distance from the centre; below 0 on the far hemisphere
    double SkyToPlane(SkyPosition sky, double& xi, double& eta) const;

    /// The position (`Ra` in 0..2π) of a point of the plane, on the near hemisphere. A point
    /// outside the unit circle is placed on its rim.
    SkyPosition PlaneToSky(double xi, double eta) const;
};

/// Four-quadrant arctangent (radians, −π..π) built from the one-argument one and the program's π;
/// 0 for (0, 0).
double Atan2(double y, double x);

/// The distance of two stars on their plane (plane units).
double PixelDistance(const PlateStar& a, const PlateStar& b);

}  // namespace vestrel
