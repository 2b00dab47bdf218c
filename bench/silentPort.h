// A port for benchmarks, which show nothing.
#pragma once

#include <optional>
#include <string>

#include "program/mPort.h"

namespace vestrel {

/// Shows nothing.
class SilentPort : public Port {
 public:
    void ShowMessage(const std::string& /*text*/, const std::string& /*title*/) override {}
    std::optional<std::string> AskForFile(const FileDialog& /*dialog*/) override { return {}; }
    void DisplayChanged() override {}
    void ImageChanged() override {}
    void ShowProgress(int /*percent*/) override {}
    void Yield() override {}
    void ShowBusyPointer(bool /*busy*/) override {}
};

}  // namespace vestrel
