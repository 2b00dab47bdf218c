// The files in which hosts read a solution.
#pragma once

#include <string>
#include <vector>

#include "solver/solver.h"

namespace vestrel {

/// The `.ini` of a solution. `coordinates` without distortion: there is no room for it.
/// @param command the command line, for people
/// @param warning what the user has to do, else empty: hosts open a window for it
std::string SolvedIniText(const SolverCoordinates& coordinates, const std::string& command,
                          const std::string& warning);

/// The `.ini` of a solve that failed.
std::string FailedIniText(const std::string& command, const std::string& error);

/// The geometry of coordinates in the older keywords, degrees: signs as hosts know them, the first
/// scale below 0 when the determinant is.
struct ClassicGeometry {
    double Cdelt[2] = {};
    double Crota[2] = {};
};
ClassicGeometry ClassicGeometryOf(const SolverCoordinates& coordinates);

/// What a `.wcs` header is made of.
struct HeaderContents {
    SolverCoordinates Coordinates;
    int Width = 0;
    int Height = 0;
    std::vector<std::string> PictureCards;  ///< of the image, to hand on
    bool Classic = false;                   ///< with CDELT and CROTA, and PLTSOLVD
    std::string Warning;
    std::vector<std::string> Comments;
};

/// The cards of a header without data, 80 characters each, without END. Of the picture's cards
/// those stay out that speak of its layout, of older coordinates, or go on in the next card.
std::vector<std::string> HeaderCards(const HeaderContents& contents);

/// The part of such a header that speaks of the coordinates, from WCSAXES on.
std::vector<std::string> CoordinateCards(const HeaderContents& contents);

/// Cards and END as lines of text.
std::string HeaderLinesText(const std::vector<std::string>& cards);

}  // namespace vestrel
