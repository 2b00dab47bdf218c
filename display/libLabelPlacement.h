// Finds places for labels on a drawing, so that none covers another label or a mark.
//
// The method is greedy, as is usual for maps (Imhof 1975, The American Cartographer 2, 128): in
// order of importance, each label gets the first free one of eight places around its mark, or is
// omitted when none is free.
#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include "display/libViewGeometry.h"

namespace vestrel {

/// A rectangle of a drawing, pixels; its right and lower sides do not belong to it.
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

/// A label that needs a place beside its mark; lengths are pixels.
struct LabelWish {
    ScreenPoint Mark;
    double Radius = 0;  ///< of the mark
    double Width = 0;   ///< of the label
    double Height = 0;
    bool Fixed = false;  ///< its lower left corner must be at `Mark`
};

/// Finds places for labels.
/// @param wishes the most important first
/// @param obstacles boxes that no label may cover
/// @return for each wish its place within 0..width, 0..height; nothing when there is none
std::vector<std::optional<ScreenBox>> PlaceLabels(const std::vector<LabelWish>& wishes,
                                                  const std::vector<ScreenBox>& obstacles,
                                                  double width, double height);

}  // namespace vestrel
