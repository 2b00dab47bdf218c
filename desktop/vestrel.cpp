// The desktop program: the solve window, or an unattended solve, which also works without a
// display.

#include <QApplication>
#include <QIcon>
#include <QTimer>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "astro/libStrings.h"
#include "console/consolePort.h"
#include "console/exitCodes.h"
#include "desktop/desktopOptions.h"
#include "desktop/fKELInfo.h"
#include "platform/libConsole.h"
#include "platform/libPlatform.h"
#include "program/mCommandLine.h"
#include "program/mSettings.h"
#include "telescope/libTelescopeDriver.h"

namespace vestrel {
namespace {

ExitCode RunWithoutWindow(const DesktopStart& start, ProgramState& state) {
    if (start.What == DesktopStart::Kind::Complain) {
        std::fputs(("vestrel: " + WithoutControls(start.Text) + "\n").c_str(), stderr);
        return ExitCode::Usage;
    }
    if (start.What != DesktopStart::Kind::Unattended) {
        std::fputs(
            "vestrel: there is no display to open a window on; vestrel-solve solves without one\n",
            stderr);
        return ExitCode::Usage;
    }
    ConsolePort port(state, true);
    InitSettings(state, port);
    const UnattendedOutcome outcome = RunUnattended(state, port, start.Text);
    return ExitCodeOf(outcome, state, port);
}

ExitCode Run(int argc, char** argv) {
    // Desktops connect the windows with the installed icon by this name.
    constexpr const char* applicationId = "org.vestrel.Vestrel";
    const auto state = std::make_unique<ProgramState>();
    state->Catalog.Folder = DefaultCatalogFolder();
    state->CreateTelescope = CreateTelescopeDriver;
    const auto readArguments = [&] {
        return ReadDesktopArguments(
            std::vector<std::string>(argv + (argc > 0 ? 1 : 0), argv + argc));
    };
    DesktopStart start = readArguments();
    if (start.What == DesktopStart::Kind::Print) {
        std::fputs(WithoutControls(start.Text, "\n").c_str(), stdout);
        return ExitCode::Solved;
    }
    auto probe = std::make_unique<DisplayProbe>(argc, argv);
    if (!probe->CanOpenWindows()) return RunWithoutWindow(start, *state);

    QApplication application(argc, argv);
    probe.reset();
    QApplication::setDesktopFileName(applicationId);
    QApplication::setWindowIcon(QIcon::fromTheme(applicationId));
    start = readArguments();  // without Qt's own arguments
    SolveWindow window(*state);
    window.TelescopeAt = CreateTelescopeDriverAt;
    window.ApplySettings();
    window.show();
    QTimer::singleShot(0, &window, [&] {
        if (start.What == DesktopStart::Kind::OpenImage) window.OpenFile(start.Text);
        if (start.What == DesktopStart::Kind::Complain) window.Complain(start.Text);
        if (!start.Notice.empty()) window.Complain(start.Notice);
        if (start.What == DesktopStart::Kind::Unattended) window.StartUnattended(start.Text);
    });
    QApplication::exec();
    return window.EndsWith();
}

}  // namespace
}  // namespace vestrel

int main(int argc, char** argv) {
    try {
        return NumberOf(vestrel::Run(argc, argv));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "vestrel: %s\n", vestrel::WithoutControls(error.what()).c_str());
        return NumberOf(vestrel::ExitCode::Usage);
    }
}
