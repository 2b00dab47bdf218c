// The codes with which a solve ends. Other programs read them, so their meaning never changes.
#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace vestrel {

enum class SolveCode : std::int16_t {
    Solved = 1,
    TooFewStars = 0,  ///< fewer than 6; also when memory runs out
    NoMatch = -1,     ///< within the region limit
    Stopped = -2,     ///< by the user
    NoImage = -10     ///< the image file could not be opened
};
inline constexpr std::array SolveCodes = {SolveCode::Solved, SolveCode::TooFewStars,
                                          SolveCode::NoMatch, SolveCode::Stopped,
                                          SolveCode::NoImage};

/// The number of a code in files and reports.
inline constexpr std::int16_t NumberOf(SolveCode code) {
    return static_cast<std::int16_t>(code);
}

/// The message of a code.
std::string ResultMessage(SolveCode code);

}  // namespace vestrel
