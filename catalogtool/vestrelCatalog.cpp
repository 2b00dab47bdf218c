// vestrel-catalog: makes, describes and checks the star catalog for solving.
#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <sstream>
#include <system_error>

#include "astro/libStrings.h"
#include "catalogtool/commands.h"
#include "catalogtool/libToolReport.h"
#include "platform/libConsole.h"
#include "platform/libPlatform.h"

namespace vestrel {

void AddCatalogOption(CLI::App& command, std::string& folder) {
    command
        .add_option("--catalog", folder,
                    "Catalog folder (default: $VESTREL_CATALOG, else the user's or the system's "
                    "data folder)")
        ->type_name("DIR");
}

void AddProgressOption(CLI::App& command, ProgressStyle& style) {
    command.add_flag_callback(
        "--progress-json", [&style] { style = ProgressStyle::Json; },
        "Say how far the work is in lines of JSON on standard error, for other programs");
}

std::string CheckFinite(const std::string& text) {
    // Of what is no number at all, the option itself tells that.
    return std::isfinite(std::strtod(text.c_str(), nullptr)) ? "" : text + " is no finite number";
}

std::filesystem::path ChosenCatalog(const std::string& folder) {
    return folder.empty() ? DefaultCatalogFolder() : PathFromText(folder);
}

std::filesystem::path ExistingCatalog(const std::string& folder) {
    std::filesystem::path chosen = ChosenCatalog(folder);
    std::error_code ignored;
    if (!std::filesystem::is_directory(chosen, ignored)) {
        throw ToolFailure(ToolExit::BadInput,
                          TextFromPath(chosen) +
                              ": there is no catalog; \"vestrel-catalog build\" "
                              "makes one");
    }
    return chosen;
}

namespace {

int Run(int argc, const char* const* argv) {
    CLI::App program("Makes, describes and checks the star catalog of Vestrel.", "vestrel-catalog");
    program.allow_windows_style_options(false);  // a path may begin with "/" on Windows too
    program.set_version_flag("--version", "vestrel-catalog " VESTREL_VERSION);
    program.require_subcommand(1);
    program.footer(
        "Results go to standard output, everything else to standard error.\n"
        "Exit codes: 0 good, 1 verify found faults, 2 wrong usage, 3 input missing or invalid,\n"
        "4 cannot write, 130 stopped by Ctrl-C.");

    ToolExit exitCode = ToolExit::Good;
    AddBuildCommand(program, exitCode);
    AddInfoCommand(program, exitCode);
    AddQuadsCommand(program, exitCode);
    AddRenderCommand(program, exitCode);
    AddSourcesCommand(program, exitCode);
    AddSynthesizeCommand(program, exitCode);
    AddVerifyCommand(program, exitCode);
    try {
        CatchStopSignals();
        program.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        // Help and version come this way too, with code 0.
        std::ostringstream out;
        std::ostringstream errors;
        const bool good = program.exit(error, out, errors) == 0;
        std::fputs(WithoutControls(out.str(), "\n").c_str(), stdout);
        std::fputs(WithoutControls(errors.str(), "\n").c_str(), stderr);
        return NumberOf(good ? ToolExit::Good : ToolExit::WrongUsage);
    }
    // When the output could not be written, the run has failed.
    if (std::fflush(stdout) != 0) {
        throw ToolFailure(ToolExit::CannotWrite, "standard output: " + SystemErrorText());
    }
    return NumberOf(exitCode);
}

int CodeOf(const std::exception& failure) {
    const auto* known = dynamic_cast<const ToolFailure*>(&failure);
    return NumberOf(known != nullptr ? ExitCodeAfter(known->Code) : ToolExit::BadInput);
}

}  // namespace
}  // namespace vestrel

int main(int argc, char** argv) {
    return vestrel::RunProgram("vestrel-catalog", argc, argv, vestrel::Run, vestrel::CodeOf);
}
