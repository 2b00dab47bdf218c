// The entry of every decoder module. The build names the decoder that it calls.
#include <new>

#include "image/libDecoder.h"

namespace vestrel {

PictureDecoder VESTREL_DECODER;

}  // namespace vestrel

/// Must be that of the program, since what they call in each other has no other guard.
extern "C" __attribute__((visibility("default"))) const char* VestrelDecoderVersion() {
    return VESTREL_DECODER_VERSION;
}

/// Exceptions must not leave a module: they become `fault`.
extern "C" __attribute__((visibility("default"))) void VestrelDecode(const unsigned char* bytes,
                                                                     std::size_t length,
                                                                     vestrel::PictureSink& sink,
                                                                     std::string& fault) {
    try {
        vestrel::VESTREL_DECODER({bytes, length}, sink);
    } catch (const std::bad_alloc&) {
        fault = "There is not enough memory for it.";
    } catch (const std::exception& error) {
        fault = error.what();
        if (fault.empty()) fault = "It is damaged.";
    }
}
