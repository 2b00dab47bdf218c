// Describes the contents of the catalog folder to the user.
#pragma once

#include <string>

#include "program/mGeneral.h"

namespace vestrel {

/// The catalog and its quad tables as lines of text: where the catalog lies, how many stars it has
/// in how much of the sky, how deep it is, and which field sizes a blind search can handle. Reads
/// the sizes of all cells and the contents of some.
std::string CatalogFacts(const ProgramState& state);

}  // namespace vestrel
