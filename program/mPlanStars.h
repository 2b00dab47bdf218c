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

/// The lists of the loaded image.
class PlanStars {
 public:
    /// @param given stars in place of those that the pixels show; like the state, they must outlive
    ///              this
    PlanStars(ProgramState& state, const std::optional<PlateStarList>& given)
        : state_(state), given_(given) {}

    void SetExtracted(const PlateStarList& stars) { ListOf(StarSource::Extracted) = stars; }

    /// Brightest first, but for the even ones; empty when there are none.
    const PlateStarList& Of(StarSource from);

 private:
    std::optional<PlateStarList>& ListOf(StarSource from) {
        return lists_[static_cast<std::size_t>(from)];
    }

    ProgramState& state_;
    const std::optional<PlateStarList>& given_;
    std::array<std::optional<PlateStarList>, 3> lists_;
};

}  // namespace vestrel
