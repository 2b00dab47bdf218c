// Runs the kernels without the vector instructions that only newer processors have.
#pragma once

#include "tests/testSupport.h"

namespace vestrel {

/// When `plain`, keeps the kernels from using AVX2 during its lifetime.
class VectorsForNow {
 public:
    explicit VectorsForNow(bool plain) { SetVariable("VESTREL_VECTORS", plain ? "plain" : "best"); }
    ~VectorsForNow() { UnsetVariable("VESTREL_VECTORS"); }
    VectorsForNow(const VectorsForNow&) = delete;
    VectorsForNow& operator=(const VectorsForNow&) = delete;
};

}  // namespace vestrel
