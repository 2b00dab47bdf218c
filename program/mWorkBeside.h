// Long work that cannot stop to let the windows go on.
#pragma once

#include <functional>

#include "program/mPort.h"

namespace vestrel {

/// Does work that touches no window on a thread of its own, while the windows go on. What it reads
/// is not to change meanwhile. It uses as many threads as the calling thread would. Throws what the
/// work throws.
void WorkBeside(Port& port, const std::function<void()>& work);

}  // namespace vestrel
