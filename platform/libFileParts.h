// Reading parts of a file, several threads at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace vestrel {

/// The position in an open file, counted from its start; −1 when it has none (a pipe).
std::int64_t FilePosition(std::FILE* file);

/// Reads up to `length` bytes from `position`, without the stream's buffer; several threads may do
/// so at once.
/// @return the number of bytes read: fewer than `length` where the file ends or cannot be read
std::size_t ReadAt(std::FILE* file, std::uint64_t position, void* bytes, std::size_t length);

}  // namespace vestrel
