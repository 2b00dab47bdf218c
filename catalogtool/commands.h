// The subcommands of vestrel-catalog, one file each.
#pragma once

#include <CLI/App.hpp>
#include <filesystem>
#include <string>

#include "catalogtool/libToolReport.h"

namespace vestrel {

// Each adds its subcommand and options to the program. When the subcommand is chosen, it does its
// work while the command line is parsed and sets `exitCode`, or throws a `ToolFailure`.
void AddBuildCommand(CLI::App& program, ToolExit& exitCode);
void AddInfoCommand(CLI::App& program, ToolExit& exitCode);
void AddQuadsCommand(CLI::App& program, ToolExit& exitCode);
void AddRenderCommand(CLI::App& program, ToolExit& exitCode);
void AddSourcesCommand(CLI::App& program, ToolExit& exitCode);
void AddSynthesizeCommand(CLI::App& program, ToolExit& exitCode);
void AddVerifyCommand(CLI::App& program, ToolExit& exitCode);

/// Adds `--catalog DIR` to a subcommand.
void AddCatalogOption(CLI::App& command, std::string& folder);

/// Adds `--progress-json` to a subcommand. The style must live while the line is parsed.
void AddProgressOption(CLI::App& command, ProgressStyle& style);

/// A check for options that take a number: "nan" lies within every range of the command line's
/// library.
std::string CheckFinite(const std::string& text);

/// The folder that `--catalog` names, or the default one when it was not given.
std::filesystem::path ChosenCatalog(const std::string& folder);

/// As `ChosenCatalog`, for reading: throws a `ToolFailure` when there is no such folder.
std::filesystem::path ExistingCatalog(const std::string& folder);

}  // namespace vestrel
