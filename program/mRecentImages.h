// The images opened last, remembered between runs.
#pragma once

#include <string>

#include "program/mGeneral.h"

namespace vestrel {

/// Puts an image first; of a path that was there already the older entry goes.
void AddRecentImage(ProgramState& state, const std::string& path);

/// Reads the list. Whatever the file holds, the list is short and its entries are single lines.
void LoadRecentImages(ProgramState& state);

/// Writes the list, whole or not at all.
bool SaveRecentImages(const ProgramState& state);

}  // namespace vestrel
