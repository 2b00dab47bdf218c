// Output of a solved image for other programs: a file of world coordinates, and a standard FITS
// copy.
#pragma once

#include <string>

#include "program/mGeneral.h"

namespace vestrel {

/// The file of world coordinates that belongs to an image: its path with the extension ".wcs".
std::string WorldCoordinatePath(const std::string& imagePath);

/// Writes a FITS header with the world coordinates of the loaded image's solution beside it, whole
/// or not at all. Shows a message when that fails.
bool WriteWorldCoordinates(const ProgramState& state, Port& port);
/// The same, into any file (UTF-8 path).
bool WriteWorldCoordinates(const ProgramState& state, Port& port, const std::string& path);

/// Writes the loaded image, with the pixels of its file, and its solution as a standard FITS file
/// (UTF-8 path), whole or not at all. Shows a message when that fails.
bool ExportImage(const ProgramState& state, Port& port, const std::string& path);

}  // namespace vestrel
