// MORA: recognises quads (patterns of four stars) of the image in precomputed tables, without a
// starting centre.
#pragma once

#include <functional>

#include "program/mQuadTables.h"

namespace vestrel {

/// Matches the loaded image with the open quad tables and shows the outcome.
///
/// Each star of the image makes a quad with the first three others in the list within 1.5°. Table
/// quads of the same shape are tried in all 24 orderings. A plate that fits their four stars is
/// extended by the catalog stars around it, and is accepted when at least one more pair matches.
/// @param width, height field of view (radians)
/// @param maxError      match tolerance, pixels
/// @return Solved when `QuadMatch` holds a match with its `Centre`, which is not yet a solution of
///         the image. Else TooFewStars, NoMatch or Stopped
SolveCode MatchByQuads(ProgramState& state, Port& port, double width, double height,
                       double maxError);

/// Whether a match is sure, which means that chance does not give one as good. A field size other
/// than the given one does not count against it.
bool IsSure(const QuadSearch& search);

/// Judges a match of five or more pairs (in `QuadMatch`); false continues the search.
using QuadJudge = std::function<bool(const QuadSearch&)>;

/// The search of `MatchByQuads` with any list of image stars, without showing its outcome. Its
/// counts and messages are added to those in `QuadMatch`.
/// @return whether a match was found and accepted
bool SearchQuads(ProgramState& state, Port& port, const PlateStarList& imageStars, double width,
                 double height, double maxError, const QuadJudge& accept = {});

}  // namespace vestrel
