// The files from which hosts read a solution.
#pragma once

#include <string>
#include <vector>

#include "solver/solver.h"

namespace vestrel {

/// Removes a result of an earlier run, so that nobody takes it for one of this run. Where the
/// folder lets nothing be removed, the file becomes empty. False when its content stays.
bool ClearResult(const std::string& path);

/// The `.ini` file of a solution. `coordinates` must have no distortion, for which the file has no
/// keys.
/// @param command the command line, for human readers
/// @param warning what the user should do, or empty: hosts show it in a window
std::string SolvedIniText(const SolverCoordinates& coordinates, const std::string& command,
                          const std::string& warning);

/// The `.ini` file of a failed solve.
std::string FailedIniText(const std::string& command, const std::string& error);

/// The geometry of coordinates in the older keywords, degrees, with the signs that hosts expect:
/// the first scale is below 0 when the determinant is.
struct ClassicGeometry {
    double Cdelt[2] = {};
    double Crota[2] = {};
};
ClassicGeometry ClassicGeometryOf(const SolverCoordinates& coordinates);

/// The contents of a `.wcs` header.
struct HeaderContents {
    SolverCoordinates Coordinates;
    int Width = 0;
    int Height = 0;
    std::vector<std::string> PictureCards;  ///< header cards of the image, to be kept
    bool Classic = false;                   ///< with CDELT and CROTA, and PLTSOLVD
    std::string Warning;
    std::vector<std::string> Comments;
};

/// The cards of a header without data, 80 characters each, without END. It omits cards of the
/// picture about its layout or older coordinates, and cards that continue in the next one.
std::vector<std::string> HeaderCards(const HeaderContents& contents);

/// The part of such a header that speaks of the coordinates, from WCSAXES on.
std::vector<std::string> CoordinateCards(const HeaderContents& contents);

/// Cards and END as lines of text.
std::string HeaderLinesText(const std::vector<std::string>& cards);

}  // namespace vestrel
