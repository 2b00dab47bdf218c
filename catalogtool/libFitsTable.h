// Reads stars from FITS tables with named columns, as archives and VizieR export them.
#pragma once

#include <filesystem>
#include <string>

#include "catalogtool/libStarColumns.h"

namespace vestrel {

/// Passes the stars of a FITS file to `sink`: those of its first table, binary or ASCII, with
/// columns of positions and magnitudes. Columns may hold numbers or sexagesimal text.
/// @param name of the file, for messages Throws a `ToolFailure` when the file is damaged, cut
///   short, lacks a column or gives no star; the sink may have received stars by then.
StarTableResult ReadFitsStarTable(const std::filesystem::path& file, const std::string& name,
                                  const StarTableOptions& options, const StarSink& sink,
                                  ProgressLine& progress);

}  // namespace vestrel
