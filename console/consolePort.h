// The port of the console program: messages and progress go to stderr, and Ctrl-C means Stop.
#pragma once

#include <cstdio>
#include <string>

#include "program/mGeneral.h"

namespace vestrel {

class ConsolePort : public Port {
 public:
    /// @param quiet shows messages but no progress
    ConsolePort(ProgramState& state, bool quiet);
    ~ConsolePort() override;
    ConsolePort(const ConsolePort&) = delete;
    ConsolePort& operator=(const ConsolePort&) = delete;

    void ShowMessage(const std::string& text, const std::string& title) override;
    std::optional<std::string> AskForFile(const FileDialog& /*dialog*/) override { return {}; }
    void DisplayChanged() override;
    void ImageChanged() override {}
    void ShowProgress(int percent) override;
    void Yield() override;
    void ShowBusyPointer(bool /*busy*/) override {}

    /// Erases the progress line, so that other text can follow.
    void EndProgressLine();

 private:
    void Redraw();

    ProgramState& state_;
    bool drawsProgress_;
    int percent_ = 0;
    std::string drawn_;
};

/// Whether output to a stream may carry colours: a terminal, and NO_COLOR unset or empty.
bool MayUseColour(std::FILE* stream);

}  // namespace vestrel
