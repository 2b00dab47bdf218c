// The table of image formats, and reading a file in any of them.
#pragma once

#include <filesystem>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "astro/libParallel.h"
#include "image/libImage.h"

namespace vestrel {

/// Reads a file; says what to show when the result is false.
using ImageReader = bool (*)(const std::filesystem::path&, PlateImage&, const Progress&,
                             ReadFailure&);

/// What the program can do with a format. To add one, write its decoder and add a row to the table.
struct ImageFormat {
    const char* Name;        ///< "TIFF"
    const char* Extensions;  ///< usual extensions, in capitals, each between blanks
    bool (*Recognises)(std::string_view start);  ///< by the first `RecognisedLength` bytes
    /// The program's own reader, null when there is none, the same in a child process, and the
    /// extensions that lead to it whatever the content is.
    ImageReader Read;
    ImageReader ReadApart;
    const char* OwnExtensions;
    ImageType Type;       ///< of an image that `Read` has read
    const char* Decoder;  ///< the module that reads the format, or the rest of it; null: none
};

inline constexpr std::size_t RecognisedLength = 512;

std::span<const ImageFormat> ImageFormats();

/// The formats that a file may have, the likeliest first: those that match content and name, then
/// those that match the content. The name alone decides only when no content matches.
std::vector<const ImageFormat*> FormatsOfFile(const std::filesystem::path& path);

/// Why a file cannot be opened, or what it is that none of them reads and what to do about it, in a
/// sentence or two; empty when its first bytes are of nothing that is known.
std::string RefusalCauseOf(const std::filesystem::path& path);

/// The format whose own reader a file name leads to; null when there is none.
const ImageFormat* OwnFormatOfName(std::string_view path);

/// Reads an image file of any format into `image`.
///
/// The reader that the name leads to comes first. What it refuses, and files of other names, go to
/// the formats that `FormatsOfFile` tells, one after the other, until one reads it. A
/// floating-point FITS image with hardly a count above 2, or of which nearly all pixels lie below
/// 0, was no image of counts: it is decoded anew, with its range brought to 0..65535.
/// @param failure what to show when the result is false: the message of the reader that the name
///        leads to, and as its cause the first failure of the others
/// @param apart   own readers that call a library (of JPEG) do so in a child process, as decoders
///        always do: for programs that run for days and take pictures from anywhere
bool ReadImageFile(const std::filesystem::path& path, PlateImage& image, const Progress& progress,
                   ReadFailure& failure, bool apart = false);

/// The names of the formats that this installation can read, separated by commas.
std::string ReadableFormats();

}  // namespace vestrel
