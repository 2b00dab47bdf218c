// The frames that are laid all over the sky, and the brightest stars of each: quads are made of
// them.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "catalog/libCatalogCells.h"
#include "catalogtool/libQuadPlans.h"
#include "matching/libSkyCells.h"

namespace vestrel {

/// The cells in which the brightest stars of a plan's frames are searched: of about half a frame.
SkyCells HalfFrames(const QuadPlan& plan);

/// A star as a frame shows it.
struct StarInFrame {
    std::uint32_t Star = 0;  ///< index in the sky's list; fainter stars have larger ones
    Direction At{};
    double X = 0;  ///< radians on the gnomonic plane
    double Y = 0;
};

/// The frames of a plan, by number from north to south: of all sizes of its range, with sides
/// 1 : 1, 4 : 3 and 3 : 2, at all angles.
class SkyFrames {
 public:
    /// @param sky brightest first; it and the plan must stay alive
    SkyFrames(const std::vector<CatalogStar>& sky, const QuadPlan& plan);
    ~SkyFrames();
    SkyFrames(const SkyFrames&) = delete;
    SkyFrames& operator=(const SkyFrames&) = delete;

    std::int64_t Count() const { return count_; }

    /// Calls `visit` with the plan's number of brightest stars, brightest first, of each frame from
    /// `begin` to `end`. They come by right ascension, so that neighbours on the sky, which share
    /// stars and most of their quads, follow each other closely. Several threads may do so at once.
    void ForEach(std::int64_t begin, std::int64_t end,
                 const std::function<void(const std::vector<StarInFrame>&)>& visit) const;

 private:
    class BrightStars;
    class Belt;
    struct Room;

    static std::vector<std::int64_t> AlongTheSky(std::int64_t begin, std::int64_t end);
    void StarsOf(std::int64_t number, const Belt& belt, Room& room) const;
    static double RaOf(std::int64_t number);
    double DecOf(std::int64_t number) const;

    const QuadPlan& plan_;
    std::unique_ptr<const BrightStars> stars_;
    std::int64_t count_ = 0;
};

}  // namespace vestrel
