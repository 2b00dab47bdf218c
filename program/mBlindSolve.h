// A solve without a starting centre: quads find it, the star-list matcher measures.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "program/mGeneral.h"

namespace vestrel {

/// The list, and the list without some of its brightest stars, in the order in which a search by
/// quads tries them: in a narrow field all quads share the three brightest, and one that the
/// catalog lacks spoils them all.
std::vector<PlateStarList> ThinnedLists(const PlateStarList& stars);

/// Searches the open quad tables with the plate stars until a match is sure (`QuadMatch`).
///
/// All of `ThinnedLists` are tried.
/// @param confirm asked about every sure match: false lets the search go on with the next list
bool FindCentreByQuads(ProgramState& state, Port& port, double width, double height,
                       double tolerance, const std::function<bool()>& confirm = {});

/// Solves the loaded image from the size of its field alone.
///
/// Finds the centre by quads, and solves from there like `SolvePlate`: the result is that solve's,
/// in every respect.
/// @param useStars take the plate stars of a solve that has just failed
/// @return as of `SolvePlate`; `Quads.Fault` tells when there are no tables
SolveCode SolveBlind(ProgramState& state, Port& port, double plateWidth, double plateHeight,
                     double matchTolerance, bool useStars);

}  // namespace vestrel
