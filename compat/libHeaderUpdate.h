// World coordinates put into the header of an image file.
#pragma once

#include <span>
#include <string>
#include <vector>

namespace vestrel {

/// What the comment of a solution begins with.
inline constexpr const char* SolvedByVestrel = "Solved by Vestrel: ";

/// The bytes of a FITS file with other coordinates in its first header. Of the header's own cards
/// those go that speak of older coordinates, and its checksum; all others and everything behind the
/// header stay byte for byte.
/// @param coordinates cards of 80 characters
/// @param width, height of the picture that they belong to, pixels
/// @throws std::runtime_error, with a text to show, when the first header is not that picture's
std::vector<unsigned char> WithCoordinates(std::span<const unsigned char> file,
                                           const std::vector<std::string>& coordinates, int width,
                                           int height);

}  // namespace vestrel
