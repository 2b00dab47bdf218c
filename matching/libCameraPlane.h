// Plates on the gnomonic plane of a camera, and their conversion from other planes.
//
// A camera maps the sky to a gnomonic plane (Calabretta & Greisen 2002, A&A 395, 1077, section
// 5.1.3); the solver's own plane is orthographic. Near the middle of the image both agree.
#pragma once

#include <cstdint>
#include <optional>

#include "astro/libPlateStar.h"
#include "astro/libSphericalMath.h"
#include "matching/libPlateFit.h"

namespace vestrel {

/// The camera's plane about a centre.
class CameraPlane {
 public:
    explicit CameraPlane(SkyPosition centre);
    /// Sets X and Y of a star from its position. False when it is more than 78° away.
    bool Place(PlateStar& star) const;

 private:
    Projection plane_;
};

/// The stars on the camera's plane about a centre, in the same order. X and Y are arcseconds and
/// grow west and north. Stars more than 78° away are left out.
PlateStarList OnCameraPlane(const PlateStarList& stars, SkyPosition centre);

enum class PlaneKind { Orthographic, Camera };

/// A plate whose tangent point is the middle of the image.
struct CentredPlate {
    SkyPosition Centre;  ///< of the image, radians
    PlateConstants Plate;
};

/// Converts a plate about any tangent point to one about the middle of the image. It is exact there
/// in position, scale and rotation, for both kinds of plane. Nothing when the plate has no inverse.
/// @param width, height of the image, pixels
std::optional<CentredPlate> PlateAboutMiddle(const PlateConstants& plate, SkyPosition tangent,
                                             PlaneKind kind, std::int32_t width,
                                             std::int32_t height);

}  // namespace vestrel
