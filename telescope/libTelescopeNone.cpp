// For systems without telescope drivers.

#include "telescope/libTelescopeDriver.h"

namespace vestrel {

std::unique_ptr<TelescopeDriver> CreateTelescopeDriver() {
    return nullptr;
}

std::unique_ptr<TelescopeDriver> CreateTelescopeDriverAt(const std::string& /*address*/) {
    return CreateTelescopeDriver();
}

}  // namespace vestrel
