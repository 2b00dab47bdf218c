// The decoder of XISF pictures in this process, so that mutations are led by what they reach.

#include "fuzz/checkDecoder.h"

namespace vestrel {
PictureDecoder DecodeXisf;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return vestrel::CheckDecoder(vestrel::DecodeXisf, data, size);
}
