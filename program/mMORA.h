// The second matcher: recognises four-star patterns of the image in precomputed tables, without a
// starting centre.
#pragma once

#include <functional>
#include <vector>

#include "program/mGeneral.h"

namespace vestrel {

/// The file of quad tables that belongs to the catalog.
std::filesystem::path QuadFilePath(const ProgramState& state);

/// Whether there are quad tables, without reading more than their head.
bool HaveQuadTables(const ProgramState& state);

/// Opens the tables for a field of this size (radians). What is damaged within them is found when
/// a search comes to it, which then ends without a match and leaves `Quads.Fault`.
/// @return false, `Quads.Fault` with the reason and the tables empty, when there are none
bool LoadQuadTables(ProgramState& state, double width, double height);

/// The bands of the catalog's quad tables, the smallest fields first; none, and `Quads.Fault` with
/// the reason, when there are no tables.
std::vector<QuadBand> QuadBandsOf(ProgramState& state);

/// Opens the table of a band. @return as of `LoadQuadTables`
bool OpenQuadBand(ProgramState& state, const QuadBand& band);

/// Matches the loaded image with the open quad tables and shows the outcome.
///
/// Each star of the image and the first three others in the list within 1.5° make a quad. Table
/// quads of the same shape are tried in all 24 orderings; a plate that fits their four stars is
/// extended by the catalog stars around, and one more pair decides.
/// @param width, height field of view (radians)
/// @param maxError      match tolerance, pixels
/// @return Solved when `QuadMatch` holds a match, its `Centre` among it; the image has no solution
///         by that. Else TooFewStars, NoMatch or Stopped
SolveCode MatchByQuads(ProgramState& state, Port& port, double width, double height,
                       double maxError);

/// Whether a match can be relied on: chance does not give one like it. That the field is of another
/// size than was said makes it no less sure.
bool IsSure(const QuadSearch& search);

/// Looks at a match of five or more pairs (in `QuadMatch`): false lets the search go on.
using QuadJudge = std::function<bool(const QuadSearch&)>;

/// The search of `MatchByQuads` with any list of image stars, without showing its outcome. What it
/// counts and says adds to what is in `QuadMatch`.
/// @return whether a match was found and accepted
bool SearchQuads(ProgramState& state, Port& port, const PlateStarList& imageStars, double width,
                 double height, double maxError, const QuadJudge& accept = {});

}  // namespace vestrel
