// The objects of the sky that have names: in the inputs, and under the pointer.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "display/libSkyObjects.h"
#include "program/mGeneral.h"

namespace vestrel {

/// The tables of objects, read when they are asked for first. They lie in $VESTREL_DATA, or in
/// share/vestrel beside the folder of the program; without them there are no names.
class SkyNames {
 public:
    const std::vector<SkyObject>& Objects();

 private:
    std::optional<std::vector<SkyObject>> objects_;
};

/// Fills both centre inputs from what one of them holds that is no angle by itself: a whole
/// position, an angle with typographic signs, or the name of an object.
/// @return whether they have changed
bool CompleteCentre(SolveInputs& inputs, SkyNames& names);

/// Makes a position the approximate centre.
void SetCentre(SolveInputs& inputs, const SkyPosition& centre);

/// What is known about a place of the image: the catalog star there and the objects around it, a
/// line each.
/// @param reach how near a star or an object without a size has to be, pixels
std::string IdentityAt(const ProgramState& state, const std::vector<ObjectOnImage>& objects,
                       const PixelPoint& pixel, double reach);

}  // namespace vestrel
