// Plates on the plane of a camera, and from one plane to another.
//
// A camera draws the sky on a gnomonic plane (Calabretta & Greisen 2002, A&A 395, 1077, section
// 5.1.3); the solver's own plane is orthographic. About the middle of the image both agree.
#pragma once

#include <cstdint>
#include <optional>

#include "astro/libPlateStar.h"
#include "astro/libSphericalMath.h"
#include "matching/libPlateFit.h"

namespace vestrel {

/// The stars on the camera's plane about a centre, in their order: X and Y arcseconds, growing west
/// and north. Stars more than 78° away are left out.
PlateStarList OnCameraPlane(const PlateStarList& stars, SkyPosition centre);

enum class PlaneKind { Orthographic, Camera };

/// A plate whose tangent point is the middle of the image.
struct CentredPlate {
    SkyPosition Centre;  ///< of the image, radians
    PlateConstants Plate;
};

/// What a plate about any tangent point is in the middle of an image: exact there in place, scale
/// and turn, on both kinds of plane. Nothing when the plate has no inverse.
/// @param width, height of the image, pixels
std::optional<CentredPlate> PlateAboutMiddle(const PlateConstants& plate, SkyPosition tangent,
                                             PlaneKind kind, std::int32_t width,
                                             std::int32_t height);

}  // namespace vestrel
