// The lists of stars that the attempts of a search plan take, each made when it is first wanted.
#pragma once

#include <array>
#include <optional>

#include "program/mGeneral.h"

namespace vestrel {

enum class StarSource {
    Extracted,  ///< as the plain solve has them
    Peaks,      ///< peaks above the noise around them
    EvenPeaks   ///< these, ranked within each part of the frame
};

/// The lists that were made, by `StarSource`.
using StarLists = std::array<std::optional<PlateStarList>, 3>;

/// The lists of the loaded image.
class PlanStars {
 public:
    /// @param given stars in place of those that the pixels show; like the state, they must outlive
    ///              this
    /// @param kept  all lists of an earlier plan: none is made any more
    PlanStars(ProgramState& state, const std::optional<PlateStarList>& given,
              const std::optional<StarLists>& kept)
        : state_(state), given_(given), pixels_(!kept) {
        if (kept) lists_ = *kept;
    }

    const StarLists& Made() const { return lists_; }

    /// Peaks are to be looked for in the sums of two by two pixels of a mosaic as they are now: the
    /// plain extraction changes them, and leaves little of the darker colours.
    void KeepMosaicSums();

    /// Looks for the stars of a negative. As `KeepMosaicSums`, before the plain extraction cuts off
    /// what is far below the sky.
    void LookForNegative();

    void SetExtracted(const PlateStarList& stars) { ListOf(StarSource::Extracted) = stars; }

    /// Brightest first, but for the even ones; empty when there are none.
    const PlateStarList& Of(StarSource from);

 private:
    std::optional<PlateStarList>& ListOf(StarSource from) {
        return lists_[static_cast<std::size_t>(from)];
    }

    ProgramState& state_;
    const std::optional<PlateStarList>& given_;
    bool pixels_;  ///< may be looked at
    StarLists lists_;
    std::optional<PlateImage> mosaicSums_;
    PlateStarList darkStars_;
};

}  // namespace vestrel
