// How sure a plate is that was found from two pairs of bright stars or from a quad.
#pragma once

#include "matching/libConfidence.h"
#include "matching/libSeededMatch.h"

namespace vestrel {

/// Judges the plates of one image.
class SeededJudge {
 public:
    /// @param image the list that the plates are matched with; must outlive this
    /// @param settings those of the match, for the numbers of its seeds
    explicit SeededJudge(const ImageStars& image, const SeedSettings& settings = {});

    /// Judges a refined plate by all stars, as if any two pairs of the seeds could have given
    /// it. When the result is not sure, the plate is judged by its own seed and charged for the
    /// plates that were actually tried, which suits images with few stars. Stars are counted only
    /// when the plate is sure.
    /// @param catalog the list that the plate was matched with
    /// @param trials searches made so far, including this one: regions, or quads that fitted
    /// @param plates plates that each search tries; 0 when no size restricts it
    MatchConfidence Judge(const MatchedPlate& match, const PlateStarList& catalog, double trials,
                          double plates) const;

    const ImageStars& Image() const { return image_; }

 private:
    const ImageStars& image_;
    SeedSettings settings_;
    ObservedField field_;
};

}  // namespace vestrel
