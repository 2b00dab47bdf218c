// A system that no telescope can be driven from.

#include "platform/libTelescopeDriver.h"

namespace vestrel {

std::unique_ptr<TelescopeDriver> CreateTelescopeDriver() {
    return nullptr;
}

}  // namespace vestrel
