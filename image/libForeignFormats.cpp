#include "image/libForeignFormats.h"

namespace vestrel {

namespace {

using namespace std::literals;

/// How the bytes of a format begin, from a place on.
struct ForeignFormat {
    std::size_t At;
    std::string_view Bytes;
    const char* Name;
    const char* Cure;
};

constexpr const char* resave = "save it as TIFF, PNG or JPEG";
constexpr const char* oneFrame = "save one frame of it as FITS, TIFF or PNG";
constexpr const char* unpack = "unpack it first";

constexpr ForeignFormat formats[] = {
    {4, "ftypavi"sv, "an AVIF picture", resave},
    {4, "ftypheic"sv, "a HEIC picture",
     "let the phone save JPEG (\"most compatible\"), or save it as JPEG"},
    {4, "ftyphei"sv, "a HEIF picture", resave},
    {4, "ftyphev"sv, "a HEIF picture", resave},
    {4, "ftypmif1"sv, "a HEIF picture", resave},
    {4, "ftypmsf1"sv, "a HEIF picture", resave},
    {4, "ftypqt"sv, "a video", oneFrame},
    {4, "ftypmp4"sv, "a video", oneFrame},
    {4, "ftypiso"sv, "a video", oneFrame},
    {0, "\0\0\0\x0CjP  "sv, "a JPEG 2000 picture", resave},
    {0, "\0\0\0\x0CJXL "sv, "a JPEG XL picture", resave},
    {0, "\xFF\x0A"sv, "a JPEG XL picture", resave},
    {8, "WEBP"sv, "a WebP picture", resave},
    {8, "AVI "sv, "a video", oneFrame},
    {0, "LUCAM-RECORDER"sv, "a SER video", oneFrame},
    {0, "GIF8"sv, "a GIF picture", resave},
    {0, "BM"sv, "a BMP picture", resave},
    {0, "8BPS"sv, "a Photoshop picture", "save it as TIFF with 16 bits"},
    {0, "gimp xcf"sv, "a GIMP picture", "export it as TIFF or PNG with 16 bits"},
    {0, "P5"sv, "a PGM picture", resave},
    {0, "P6"sv, "a PPM picture", resave},
    {0, "Pf"sv, "a PFM picture", "save it as FITS or as TIFF of floating point"},
    {0, "PF"sv, "a PFM picture", "save it as FITS or as TIFF of floating point"},
    {0, "v/1\x01"sv, "an OpenEXR picture", "save it as FITS or as TIFF of floating point"},
    {0, "#ASDF"sv, "an ASDF file", "save its image as FITS"},
    {0, "\x89HDF"sv, "an HDF5 file", "save its image as FITS"},
    {0, "PK\x03\x04"sv, "a ZIP archive", unpack},
    {0, "BZh"sv, "packed by bzip2", unpack},
    {0,
     "\xFD"
     "7zXZ"sv,
     "packed by xz", unpack},
    {0, "\x28\xB5\x2F\xFD"sv, "packed by Zstandard", unpack},
    {0, "FOVb"sv, "an X3F picture of a camera", "convert it to TIFF with the camera's software"},
    {0, "%PDF"sv, "a PDF document", "save its picture as TIFF, PNG or JPEG"},
};

}  // namespace

std::string ForeignFormatCause(std::string_view start) {
    for (const ForeignFormat& format : formats) {
        if (start.size() < format.At || !start.substr(format.At).starts_with(format.Bytes))
            continue;
        return std::string("This is ") + format.Name + ", which is not read here: " + format.Cure +
               ".";
    }
    return {};
}

}  // namespace vestrel
