// Named objects of the sky: bright stars, clusters, nebulae and galaxies.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "astro/libSphericalMath.h"
#include "display/libSkyOverlay.h"

namespace vestrel {

struct SkyObject {
    std::string Name;                     ///< such as "M 31" or "Vega"
    std::vector<std::string> OtherNames;  ///< such as "NGC 224", "Andromeda Galaxy"
    std::string Kind;                     ///< such as "galaxy"
    SkyPosition Position;                 ///< J2000, radians
    std::optional<double> Magnitude;
    double Major = 0;  ///< diameters, radians; 0 when unknown
    double Minor = 0;
    double PositionAngle = 0;  ///< of the longer axis, radians east of north

    bool IsStar() const { return Kind == "star"; }
    /// Its label in a picture: a common name and the designation.
    std::string Label() const;
};

/// Reads a table of objects in the form of data/: nine columns separated by tabs, with captions in
/// the first line. Malformed lines and lines with impossible numbers are left out. Empty for a file
/// that cannot be read or is longer than 16 MiB.
std::vector<SkyObject> ReadSkyObjects(const std::filesystem::path& file);

/// Finds an object by name; upper and lower case and the number of blanks do not matter: "m31",
/// "NGC 224", "andromeda galaxy", "Vega". Null when there is none.
const SkyObject* FindSkyObject(const std::vector<SkyObject>& objects, std::string_view name);

/// An object on an image.
struct ObjectOnImage {
    const SkyObject* Object = nullptr;
    PixelPoint Place;
    std::vector<PixelPoint> Outline;  ///< a closed line; empty for stars and objects without size
    double Reach = 0;                 ///< of the outline from the place, pixels
};

/// The objects on an image, the most conspicuous first.
/// @param width, height of the image, pixels
/// @param most the largest number of objects
std::vector<ObjectOnImage> ObjectsOnImage(const std::vector<SkyObject>& objects, const SkyMap& map,
                                          std::int32_t width, std::int32_t height,
                                          std::size_t most = 400);

}  // namespace vestrel
