// The desktop program: the solve window, or an unattended solve, which also works without a
// display.

#include <QApplication>
#include <QIcon>
#include <QSocketNotifier>
#include <QTimer>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#ifndef _WIN32
#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#endif

#include "astro/libStrings.h"
#include "console/consolePort.h"
#include "console/exitCodes.h"
#include "desktop/desktopOptions.h"
#include "desktop/fKELInfo.h"
#include "platform/libConsole.h"
#include "platform/libPlatform.h"
#include "program/mCommandLine.h"
#include "program/mPreferences.h"
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
    InitSettings(state, port, SettingsNotUsed);
    LoadPreferences(state);
    state.Catalog.Folder = CatalogFolderOf(state, state.Catalog.Folder);
    const UnattendedOutcome outcome = RunUnattended(state, port, start.Text);
    return ExitCodeOf(outcome, state, port);
}

#ifndef _WIN32
int endPipe[2] = {-1, -1};

extern "C" void OnEndSignal(int /*signal*/) {
    EndWithin(2, NumberOf(ExitCode::Stopped));
    const char byte = 0;
    (void)!write(endPipe[1], &byte, 1);
}
#endif

/// Ends the program in good order at a signal, as when the user logs out. A second signal ends it
/// at once.
void CatchEndSignals([[maybe_unused]] SolveWindow& window) {
#ifndef _WIN32
    if (pipe(endPipe) != 0) return;
    for (const int end : endPipe) fcntl(end, F_SETFD, FD_CLOEXEC);
    auto* notifier = new QSocketNotifier(endPipe[0], QSocketNotifier::Read, &window);
    QObject::connect(notifier, &QSocketNotifier::activated, &window, [&window, notifier] {
        notifier->setEnabled(false);
        window.EndNow();
    });
    struct sigaction action {};
    action.sa_handler = OnEndSignal;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction before {};
        sigaction(signal, nullptr, &before);
        // A program that was started to outlive its terminal goes on.
        if (before.sa_handler != SIG_IGN) sigaction(signal, &action, nullptr);
    }
#endif
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
    const bool unattended = start.What == DesktopStart::Kind::Unattended;
    // Before anything takes time, as a host may look for the result at once.
    if (unattended) RemoveOldResultOf(start.Text);
    SolveWindow window(*state, unattended);
    window.TelescopeAt = CreateTelescopeDriverAt;
    window.ApplySettings();
    window.show();
    CatchEndSignals(window);
    QTimer::singleShot(0, &window, [&] {
        if (start.What == DesktopStart::Kind::OpenImage) window.OpenFile(start.Text);
        if (start.What == DesktopStart::Kind::Complain) window.Complain(start.Text);
        if (!start.Notice.empty()) window.Complain(start.Notice);
        if (unattended) window.StartUnattended(start.Text);
    });
    QApplication::exec();
    return window.EndsWith();
}

}  // namespace
}  // namespace vestrel

int main(int argc, char** argv) {
    vestrel::PrepareProcess();
    try {
        return NumberOf(vestrel::Run(argc, argv));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "vestrel: %s\n", vestrel::WithoutControls(error.what()).c_str());
        return NumberOf(vestrel::ExitCode::Usage);
    }
}
