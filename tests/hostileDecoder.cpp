// A decoder as bad as one can be: a picture names what happens to the process that decodes it.

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <string_view>
#include <thread>

#include "image/libDecoder.h"

extern "C" const char* VestrelDecoderVersion() {
    return VESTREL_DECODER_VERSION;
}

extern "C" void VestrelDecode(const unsigned char* bytes, std::size_t length,
                              vestrel::PictureSink& /*sink*/, std::string& fault) {
    const std::string_view picture(reinterpret_cast<const char*>(bytes), length);
    if (picture.find("crash") != std::string_view::npos) std::raise(SIGSEGV);
    if (picture.find("abort") != std::string_view::npos) std::abort();
    if (picture.find("exit") != std::string_view::npos) std::_Exit(0);
    if (picture.find("sleep") != std::string_view::npos) {
        std::this_thread::sleep_for(std::chrono::seconds(2));
    }
    if (picture.find("throw") != std::string_view::npos) throw 5;
    if (picture.find("memory") != std::string_view::npos) {
        while (std::malloc(std::size_t{256} << 20) != nullptr) {
        }
        std::abort();
    }
    fault = "It is bad.";
}
