// Stars out of FITS tables with named columns, as archives and VizieR export them.
#pragma once

#include <filesystem>
#include <string>

#include "catalogtool/libStarColumns.h"

namespace vestrel {

/// Hands every star of a FITS file to `sink`: those of its first table, binary or of text, that has
/// columns of positions and magnitudes. Columns of numbers and of text (sexagesimal) are taken.
/// @param name of the file, for messages
/// Throws a `ToolFailure` when the file is damaged, cut short, lacks a column or gives not one
/// star; the sink may have got stars by then.
StarTableResult ReadFitsStarTable(const std::filesystem::path& file, const std::string& name,
                                  const StarTableOptions& options, const StarSink& sink,
                                  ProgressLine& progress);

}  // namespace vestrel
