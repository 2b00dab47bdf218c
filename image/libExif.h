// Reads what cameras write about an exposure: EXIF (version 2.32, CIPA DC-008-2019), a TIFF
// directory that points to a second one.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "image/libDecoder.h"

namespace vestrel {

/// An exposure as its camera describes it. 0 or an empty text: not stated.
struct CameraFacts {
    std::string Make;
    std::string Model;
    std::string Lens;
    std::string Taken;               ///< "2024:05:03 21:04:05", by the camera's clock
    std::string Description;         ///< some programs store a FITS header here
    double ExposureTime = 0;         ///< seconds
    double FocalLength = 0;          ///< millimetres
    double FocalLength35 = 0;        ///< equivalent for a 35 mm camera, millimetres
    double FNumber = 0;              ///< focal length / aperture
    double IsoSpeed = 0;             ///< ISO speed of the sensor
    double PixelsPerMillimetre = 0;  ///< pixels of the sensor per millimetre, for a picture with
                                     ///< `LongSide`
    double LongSide = 0;             ///< longer side of the original picture, pixels
    int Orientation = 1;             ///< EXIF orientation for display, 1 to 8
};

/// Parses a block that begins with a TIFF header. Damaged or missing entries are left out.
CameraFacts ReadExif(std::span<const unsigned char> bytes);

/// How the stored picture must be turned for display, in a sentence; empty when not at all.
/// @param orientation EXIF orientation, 1 to 8
std::string OrientationRemark(int orientation);

/// Passes the facts to a sink as header cards. The picture's present longer side (pixels) is needed
/// because the pixels of a reduced picture are larger than the sensor's.
void PassCameraFacts(const CameraFacts& facts, std::int64_t longSide, CardSink& sink);

}  // namespace vestrel
