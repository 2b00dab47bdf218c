// What cameras write into pictures, and the cards that are made of it.

#include <cmath>

#include "fuzz/checkDecoder.h"
#include "image/libExif.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vestrel;
    const CameraFacts facts = ReadExif({data, size});
    Require(facts.Orientation >= 1 && facts.Orientation <= 8, "pictures have eight ways to lie");
    for (const double fact : {facts.ExposureTime, facts.FocalLength, facts.FocalLength35,
                              facts.FNumber, facts.IsoSpeed, facts.LongSide}) {
        Require(std::isfinite(fact) && fact >= 0, "a fact is a number");
    }
    Require(facts.Description.size() <= size && facts.Make.size() <= size,
            "texts are of the block");
    CheckingSink sink;
    PassCameraFacts(facts, 100, sink);
    return 0;
}
