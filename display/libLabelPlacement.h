// Places for labels on a drawing, so that none covers another one or a mark.
//
// Greedy, as maps have been labelled since Imhof 1975 (The American Cartographer 2, 128): labels
// are taken in the order of their worth, each gets the first of eight places around its mark that
// is free, and goes without when none is.
#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include "display/libViewGeometry.h"

namespace vestrel {

/// A rectangle of a drawing; its right and lower sides are outside.
struct ScreenBox {
    double Left = 0;
    double Top = 0;
    double Width = 0;
    double Height = 0;

    bool Overlaps(const ScreenBox& other) const {
        return Left < other.Left + other.Width && other.Left < Left + Width &&
               Top < other.Top + other.Height && other.Top < Top + Height;
    }
};

/// A label that wants a place beside its mark.
struct LabelWish {
    ScreenPoint Mark;
    double Radius = 0;  ///< of the mark
    double Width = 0;   ///< of the label
    double Height = 0;
    bool Fixed = false;  ///< only the place whose lower left corner is `Mark` will do
};

/// Finds places for labels.
/// @param wishes    the most worthy first
/// @param obstacles what no label may cover
/// @return for each wish its place within 0..width, 0..height; nothing where there is none
std::vector<std::optional<ScreenBox>> PlaceLabels(const std::vector<LabelWish>& wishes,
                                                  const std::vector<ScreenBox>& obstacles,
                                                  double width, double height);

}  // namespace vestrel
