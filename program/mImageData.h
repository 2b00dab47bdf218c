// Opening and saving images, and what is remembered and shown afterwards.
#pragma once

#include <string>

#include "program/mGeneral.h"

namespace vestrel {

/// Loads an image file (UTF-8 path) of any format that can be read into the program's one image.
/// Shows the reader's message when that fails; `Display.Details` may say more.
/// @return true on success; after a reader's failure no image is loaded
bool OpenImage(ProgramState& state, Port& port, const std::string& path);

/// Loads an image that the user has chosen. A file of an unknown format leaves the loaded image as
/// it was.
bool OpenChosenImage(ProgramState& state, Port& port, const std::string& path);

/// Asks the user for an image and loads it. Cancelling changes nothing.
/// @return whether it was loaded
bool OpenImageDialog(ProgramState& state, Port& port);

/// Writes the image with its solution as a FITS file (UTF-8 path), whole or not at all. Shows the
/// system's error when that fails.
bool SaveImage(ProgramState& state, Port& port, const std::string& path);

/// Why the image that was to be opened last could not be, in a sentence or two; empty when nothing
/// more is known than the message.
std::string CauseOfRefusal(const ProgramState& state);

/// Asks the user for a file name and saves the image there. Cancelling changes nothing.
void SaveImageDialog(ProgramState& state, Port& port);

/// A path shortened from its start for a label: leading folders are removed until it has fewer than
/// 51 characters; empty when no folder is left to remove.
std::string ShortenedPath(const std::string& path);

}  // namespace vestrel
