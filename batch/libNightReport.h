// Makes an HTML page of the journal of a night: what was solved, what was not and why, and how
// pointing, scale and rotation changed.
#pragma once

#include <filesystem>

namespace vestrel {

/// Whether a page may be written here: nothing is lost but an older page, and it is not the
/// journal.
bool MayHoldReport(const std::filesystem::path& page, const std::filesystem::path& journal);

/// Writes the page, whole or not at all. It needs no other file and no network.
/// @throws std::runtime_error when that fails, or when the page may not be there
void WriteNightReport(const std::filesystem::path& journal, const std::filesystem::path& page);

}  // namespace vestrel
