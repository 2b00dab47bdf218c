#include "astro/libProcessor.h"

#include <cstdlib>
#include <string_view>

namespace vestrel {

bool HasAvx2() {
#if defined(__x86_64__)
    const char* wanted = std::getenv("VESTREL_VECTORS");
    if (wanted != nullptr && std::string_view(wanted) == "plain") return false;
    return __builtin_cpu_supports("avx2") != 0;
#else
    return false;
#endif
}

}  // namespace vestrel
