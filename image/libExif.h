// What cameras write about an exposure: EXIF (version 2.32, CIPA DC-008-2019), a TIFF directory
// with a second one behind it.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "image/libDecoder.h"

namespace vestrel {

/// An exposure as its camera describes it. 0 and an empty text: it does not say.
struct CameraFacts {
    std::string Make;
    std::string Model;
    std::string Lens;
    std::string Taken;               ///< "2024:05:03 21:04:05", by the camera's clock
    std::string Description;         ///< of the picture: some programs keep a FITS header there
    double ExposureTime = 0;         ///< seconds
    double FocalLength = 0;          ///< millimetres
    double FocalLength35 = 0;        ///< of an equal 35 mm camera, millimetres
    double FNumber = 0;              ///< focal length / aperture
    double IsoSpeed = 0;             ///< the sensor's gain
    double PixelsPerMillimetre = 0;  ///< of the sensor, of a picture with `LongSide`
    double LongSide = 0;             ///< of the picture as the camera took it, pixels
    int Orientation = 1;             ///< how to turn the picture for display, 1 to 8
};

/// The facts in a block that begins with a TIFF header. What is damaged or missing is left out.
CameraFacts ReadExif(std::span<const unsigned char> block);

/// What a camera wants done to the stored picture for display, in a sentence; empty when nothing.
/// @param orientation 1 to 8 as EXIF counts
std::string OrientationRemark(int orientation);

/// Hands on as header cards what a camera says of a picture whose longer side has now so many
/// pixels: the pixels of a reduced picture are larger than the sensor's.
void PassCameraFacts(const CameraFacts& facts, std::int64_t longSide, CardSink& sink);

}  // namespace vestrel
