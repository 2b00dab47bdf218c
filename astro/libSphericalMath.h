// Between the sky and a flat plate: the projection about a chosen centre, and angle helpers.
#pragma once

#include "astro/libPlateStar.h"

namespace vestrel {

/// A J2000 position, radians.
struct SkyPosition {
    double Ra = 0;
    double Dec = 0;
};

/// The projection of the sky onto a plane that touches it at a centre. It is the orthographic one
/// (direction cosines, no division by the distance cosine): the SIN projection of Calabretta &
/// Greisen 2002 (A&A 395, 1077), section 5.1.5, with xi turned to grow toward decreasing right
/// ascension. Wide fields therefore differ from a gnomonic plate by about θ³/2.
struct Projection {
    double CentreRa = 0;   ///< radians
    double CentreDec = 0;  ///< radians
    double CosCentreRa = 1;
    double SinCentreRa = 0;
    double CosCentreDec = 1;
    double SinCentreDec = 0;
    double ProjectionScale = 1;  ///< plane units per radian

    /// Sets the centre (radians) and the scale (plane units per radian, arcseconds as a rule).
    void SetProjectionCentre(double ra0, double dec0, double scale);

    /// Projects a position (radians): `xi` grows west, `eta` north, both in plane units.
    /// @return the cosine of the angular distance from the centre; below 0 on the far hemisphere
    double SkyToPlane(double ra, double dec, double& xi, double& eta) const;

    /// The position (radians, `ra` in 0..2π) of a point of the plane, on the near hemisphere. A
    /// point outside the unit circle is placed on its rim.
    void PlaneToSky(double xi, double eta, double& ra, double& dec) const;
};

/// Four-quadrant arctangent (radians, −π..π) built from the one-argument one and the program's π;
/// 0 for (0, 0).
double Atan2(double y, double x);

/// The distance of two stars on their plane (plane units).
double PixelDistance(const PlateStar& a, const PlateStar& b);

}  // namespace vestrel
