// What the catalog folder holds, for the user.
#pragma once

#include <string>

#include "program/mGeneral.h"

namespace vestrel {

/// The catalog and its quad tables in lines: where it is, how many stars in how much of the sky,
/// how deep, and for which fields a blind search can be made. Looks at the sizes of all cells and
/// into some of them.
std::string CatalogFacts(const ProgramState& state);

}  // namespace vestrel
