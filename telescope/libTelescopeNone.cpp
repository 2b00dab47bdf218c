// A system that no telescope can be driven from.

#include "telescope/libTelescopeDriver.h"

namespace vestrel {

std::unique_ptr<TelescopeDriver> CreateTelescopeDriver() {
    return nullptr;
}

}  // namespace vestrel
