// What every decoder module offers: its decoder, which is named at compile time.
#include <new>

#include "image/libDecoder.h"

namespace vestrel {

PictureDecoder VESTREL_DECODER;

}  // namespace vestrel

/// Nothing is thrown out of a module.
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
