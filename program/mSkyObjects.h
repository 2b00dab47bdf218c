// Named objects of the sky: as input for the centre, and under the mouse pointer.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "display/libSkyObjects.h"
#include "program/mGeneral.h"

namespace vestrel {

/// The tables of objects, read when they are first needed. They lie in $VESTREL_DATA, or in
/// share/vestrel beside the program's folder. Without them there are no names.
class SkyNames {
 public:
    const std::vector<SkyObject>& Objects();

 private:
    std::optional<std::vector<SkyObject>> objects_;
};

/// The whole position that one box of the centre holds; nothing when it may be a slip in the
/// coordinate of that box alone, and the other one holds something.
std::optional<SkyPosition> WholePosition(const SolveInputs& inputs, std::string SolveInputs::*box);

/// Completes the centre inputs when one of them holds something other than a plain angle: a whole
/// position, an angle with typographic signs, or the name of an object.
/// @return whether they have changed
bool CompleteCentre(SolveInputs& inputs, SkyNames& names);

/// Puts a position into the inputs as approximate centre.
void SetCentre(SolveInputs& inputs, const SkyPosition& centre);

/// Describes a place of the image: the catalog star there and the objects around it, one line each.
/// @param reach how near a star or an object without a size has to be, pixels
std::string IdentityAt(const ProgramState& state, const std::vector<ObjectOnImage>& objects,
                       const PixelPoint& pixel, double reach);

}  // namespace vestrel
