// Makes an HTML page of the journal of a night: what was solved, what was not and why, and how
// pointing, scale and rotation changed.
#pragma once

#include <filesystem>

namespace vestrel {

/// Writes the page, whole or not at all. It needs no other file and no network.
/// @throws std::runtime_error when that fails
void WriteNightReport(const std::filesystem::path& journal, const std::filesystem::path& page);

}  // namespace vestrel
