// The star lists that the attempts of a search plan use, each made when it is first needed.
#pragma once

#include <array>
#include <optional>

#include "program/mGeneral.h"

namespace vestrel {

enum class StarSource {
    Extracted,  ///< the list of the plain solve
    Peaks,      ///< peaks above the noise around them
    EvenPeaks   ///< the same peaks, ranked within each part of the frame
};

/// The lists that were made, by `StarSource`.
using StarLists = std::array<std::optional<PlateStarList>, 3>;

/// The lists of the loaded image.
class PlanStars {
 public:
    /// @param given stars to use instead of those in the pixels; they and the state must outlive
    ///              this
    /// @param kept all lists of an earlier plan; no others are made then
    PlanStars(ProgramState& state, const std::optional<PlateStarList>& given,
              const std::optional<StarLists>& kept)
        : state_(state), given_(given), pixels_(!kept) {
        if (kept) lists_ = *kept;
    }

    const StarLists& Made() const { return lists_; }

    /// From now on, finds peaks in the sums of two by two pixels of a mosaic, with the present
    /// counts. Must be called before the plain extraction, which changes the counts and leaves
    /// little of the darker colours.
    void KeepMosaicSums();

    /// Finds the stars of a negative. Like `KeepMosaicSums`, it must be called before the plain
    /// extraction, which cuts off counts far below the sky.
    void LookForNegative();

    void SetExtracted(const PlateStarList& stars) { ListOf(StarSource::Extracted) = stars; }

    /// The list of a source, brightest first except `EvenPeaks`; empty when there are no stars.
    const PlateStarList& Of(StarSource from);

 private:
    std::optional<PlateStarList>& ListOf(StarSource from) {
        return lists_[static_cast<std::size_t>(from)];
    }

    void FindDarkStars();

    ProgramState& state_;
    const std::optional<PlateStarList>& given_;
    bool pixels_;  ///< whether lists may be made from the pixels
    StarLists lists_;
    std::optional<PlateImage> mosaicSums_;
    PlateStarList darkStars_;
};

}  // namespace vestrel
