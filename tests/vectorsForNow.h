// Kernels as on any processor of the kind, although this one has more.
#pragma once

#include "tests/testSupport.h"

namespace vestrel {

/// Keeps the kernels, when `plain`, from the vectors that only newer processors have.
class VectorsForNow {
 public:
    explicit VectorsForNow(bool plain) { SetVariable("VESTREL_VECTORS", plain ? "plain" : "best"); }
    ~VectorsForNow() { UnsetVariable("VESTREL_VECTORS"); }
    VectorsForNow(const VectorsForNow&) = delete;
    VectorsForNow& operator=(const VectorsForNow&) = delete;
};

}  // namespace vestrel
