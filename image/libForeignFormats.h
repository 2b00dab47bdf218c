// Pictures that are not read here: what they are, and what to do about it.
#pragma once

#include <string>
#include <string_view>

namespace vestrel {

/// The first bytes of a file that are looked at.
inline constexpr std::size_t ForeignLength = 64;

/// "This is a HEIC picture, which is not read here: save it as ...", by the first bytes of a file;
/// empty when they are of no such format.
std::string ForeignFormatCause(std::string_view start);

}  // namespace vestrel
