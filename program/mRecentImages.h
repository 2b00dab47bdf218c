// The list of recently opened images, remembered between runs.
#pragma once

#include <string>

#include "program/mGeneral.h"

namespace vestrel {

/// Puts a path first in the list, at most 8 long, and removes its older entry.
void AddRecentImage(ProgramState& state, const std::string& path);

/// Reads the list: at most 8 single lines, whatever the file holds.
void LoadRecentImages(ProgramState& state);

/// Writes the list, whole or not at all. False when that fails.
bool SaveRecentImages(const ProgramState& state);

}  // namespace vestrel
