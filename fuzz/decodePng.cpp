// The decoder of PNG pictures in this process, so that mutations are led by what they reach.

#include "fuzz/checkDecoder.h"

namespace vestrel {
PictureDecoder DecodePng;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return vestrel::CheckDecoder(vestrel::DecodePng, data, size);
}
