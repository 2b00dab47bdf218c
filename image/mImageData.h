// Opening images: the choice of reader, and what is remembered and shown afterwards.
#pragma once

#include <string>

#include "app/mGeneral.h"

namespace vestrel {

/// Loads an image file (UTF-8 path) into the program's one image, by its extension: FIT, FITS,
/// FTS; JPG and, as it has always been accepted, JEPG. Shows the reader's message when that fails.
/// @return true on success; after a reader's failure no image is loaded
bool OpenImage(ProgramState& state, Port& port, const std::string& path);

/// A path shortened from its start for a label: leading folders go until it has under 51
/// characters; empty when no folder is left to go.
std::string ShortenedPath(const std::string& path);

}  // namespace vestrel
