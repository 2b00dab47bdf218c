// Where a frame points: the optics of a camera, from the sky to pixels and back.
#pragma once

#include <optional>

#include "astro/libSphericalMath.h"

namespace vestrel {

/// Where a frame points and how it lies on the sky. The optics are gnomonic about the middle of
/// the frame, pixel ((Width − 1) / 2, (Height − 1) / 2).
struct FrameGeometry {
    SkyPosition Centre;
    double RadiansPerPixel = 0;  ///< at the centre
    int Width = 0;               ///< pixels
    int Height = 0;
    double UpPositionAngle = 0;  ///< of the picture's upward direction, radians east of north
    bool Mirrored = false;       ///< with north up, east is on the right
    /// How far the lens moves a corner outward, pixels. The shift grows with the third power of the
    /// distance from the lens axis, which lies (AxisX, AxisY) pixels from the middle of the frame.
    double Distortion = 0;
    double AxisX = 0;
    double AxisY = 0;

    /// The radius of a circle on the sky about the centre that contains the frame, radians.
    double Radius() const;
    double HalfDiagonal() const;  ///< pixels
};

/// A place in the frame: columns from the left and rows from the *bottom* of the picture, as FITS
/// files order them; both from 0 and whole at pixel centres.
struct FramePoint {
    double X = 0;
    double Y = 0;
};

/// The place of a position; nothing when it lies 90° or more from the centre, or far outside a
/// distorted frame.
std::optional<FramePoint> SkyToFrame(const FrameGeometry& geometry, SkyPosition sky);
/// The position (`Ra` in 0..2π) at a place in the frame.
SkyPosition FrameToSky(const FrameGeometry& geometry, FramePoint point);

}  // namespace vestrel
