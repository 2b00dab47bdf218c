// Reads the rows of a picture whose samples lie in its file as they are.
#pragma once

#include <cstdint>
#include <functional>
#include <span>

#include "image/libDecoder.h"

namespace vestrel {

/// Reads bytes of a file from a place on until `to` is full. False when the file ends before.
using FileReader = std::function<bool(std::uint64_t place, std::span<unsigned char> to)>;

/// Passes every row to `sink`, in pieces that stay in the processor's cache.
/// @throws DecodeFault when the file ends too early, and what `sink` throws
void PassStoredRows(const PictureShape& shape, const StoredSamples& samples, const FileReader& read,
                    PictureSink& sink);

}  // namespace vestrel
