// Reads stars from delimited text with named columns: exports of Gaia, UCAC, VizieR and the like.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "catalogtool/libStarColumns.h"
#include "catalogtool/libUnpackedInput.h"

namespace vestrel {

/// Passes every star of a table to `sink`.
///
/// Lines that start with "#" and empty lines are skipped. The first other line has the column
/// names, delimited by comma, tab, semicolon or bar; lines of units and of dashes may follow it. A
/// row must have as many fields as there are names. Rows that give no star are counted by reason.
/// The processors share the rows; the stars come in their order, on the calling thread.
/// @param name of the input, for messages
/// @param length of the (compressed) input in bytes, for the progress; 0 when unknown
/// @param pieceBytes how much text a thread reads at a time; 16 times as much is held in memory
/// @throws ToolFailure when the input cannot be read, lacks a column or gives no star
StarTableResult ReadStarTable(UnpackedInput& input, const std::string& name, std::uint64_t length,
                              const StarTableOptions& options, const StarSink& sink,
                              ProgressLine& progress,
                              std::size_t pieceBytes = std::size_t{1} << 18);

}  // namespace vestrel
