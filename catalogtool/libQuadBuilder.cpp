#include "catalogtool/libQuadBuilder.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <span>
#include <unordered_map>

#include "astro/libMath.h"
#include "catalogtool/libSkyFrames.h"

namespace vestrel {

namespace {

/// How far the stars of a quad may lie from its central one, on the plane of a frame.
constexpr double neighbourRadius = 1.5 * RadiansPerDegree;

double SquaredDistance(const StarInFrame& a, const StarInFrame& b) {
    return (a.X - b.X) * (a.X - b.X) + (a.Y - b.Y) * (a.Y - b.Y);
}

/// The places of a quad's stars in the list of a frame, rising.
using FrameQuad = std::array<std::size_t, 4>;

/// The place of the brightest star after the last one of the triple that lies in the circle over
/// the triple's longest side: every frame that shows the triple shows that star too. Beyond the end
/// when there is none, or the triple is too wide.
std::size_t StarBetween(const std::vector<StarInFrame>& stars, std::size_t r1, std::size_t r2,
                        std::size_t r3) {
    std::size_t from = r1;
    std::size_t to = r2;
    double longest = SquaredDistance(stars[r1], stars[r2]);
    const auto compare = [&](std::size_t a, std::size_t b) {
        const double length = SquaredDistance(stars[a], stars[b]);
        if (length < longest) return;
        longest = length;
        from = a;
        to = b;
    };
    compare(r1, r3);
    compare(r2, r3);
    if (longest > neighbourRadius * neighbourRadius) return stars.size();
    StarInFrame middle;
    middle.X = (stars[from].X + stars[to].X) / 2;
    middle.Y = (stars[from].Y + stars[to].Y) / 2;
    std::size_t i = r3 + 1;
    while (i < stars.size() && !(SquaredDistance(stars[i], middle) <= longest / 4)) ++i;
    return i;
}

template <typename Take>
void TakeNarrowQuads(const std::vector<StarInFrame>& stars, const QuadPlan& plan, Take take) {
    for (int lost = 0; lost <= plan.BrightestLost; ++lost) {
        for (int gaps = 0; gaps <= plan.Gaps; ++gaps) {
            for (int early = 0; early <= gaps; ++early) {
                const auto r1 = static_cast<std::size_t>(lost);
                const std::size_t r2 = r1 + 1 + static_cast<std::size_t>(early);
                const std::size_t r3 = r1 + 2 + static_cast<std::size_t>(gaps);
                if (r3 >= stars.size()) continue;
                const std::size_t between = StarBetween(stars, r1, r2, r3);
                if (between < stars.size()) take(FrameQuad{r1, r2, r3, between});
            }
        }
    }
}

template <typename Take>
void TakeWideQuads(const std::vector<StarInFrame>& stars, const QuadPlan& plan, Take take) {
    const std::size_t central = std::min(stars.size(), static_cast<std::size_t>(plan.CentralStars));
    std::vector<std::size_t> near;
    for (std::size_t s = 0; s < central; ++s) {
        near.clear();
        for (std::size_t j = 0;
             j < stars.size() && near.size() < static_cast<std::size_t>(plan.Neighbours); ++j) {
            if (j != s && SquaredDistance(stars[j], stars[s]) < neighbourRadius * neighbourRadius) {
                near.push_back(j);
            }
        }
        for (std::size_t a = 0; a < near.size(); ++a) {
            for (std::size_t b = a + 1; b < near.size(); ++b) {
                for (std::size_t c = b + 1; c < near.size(); ++c) {
                    FrameQuad quad{s, near[a], near[b], near[c]};
                    std::sort(quad.begin(), quad.end());
                    take(quad);
                }
            }
        }
    }
}

/// Marks the stars that any frame contains; threads set the marks in any order.
using StarMarks = std::vector<std::atomic<bool>>;

/// Recognizes most of the quads that occurred shortly before.
class RecentQuads {
 public:
    bool IsNew(const std::array<std::uint32_t, 4>& stars) {
        const auto [first, second] = InTwo(stars);
        const std::uint64_t mixed = (first * 0x9E3779B97F4A7C15U ^ second) * 0xD1B54A32D192ED03U;
        auto& known = quads_[mixed >> (64 - sizeBits)];
        if (known[0] == first && known[1] == second) return false;
        known = {first, second};
        return true;
    }

 private:
    static constexpr int sizeBits = 13;  // 128 KB
    std::vector<std::array<std::uint64_t, 2>> quads_ =
        std::vector<std::array<std::uint64_t, 2>>(std::size_t{1} << sizeBits);
};

/// Gathers the quads of a range of consecutive frames and hands them over in portions; a few come
/// several times.
void GatherRun(const SkyFrames& frames, const QuadPlan& plan, std::int64_t begin, std::int64_t end,
               StarMarks& marks, const std::function<void(std::span<const QuadEntry>)>& handOver) {
    constexpr std::size_t portion = 1U << 14;
    std::vector<QuadEntry> quads;
    RecentQuads recent;
    frames.ForEach(begin, end, [&](const std::vector<StarInFrame>& stars) {
        const auto take = [&](const FrameQuad& quad) {
            std::array<std::uint32_t, 4> numbers{};
            std::array<Direction, 4> directions{};
            for (std::size_t k = 0; k < quad.size(); ++k) numbers[k] = stars[quad[k]].Star;
            if (!recent.IsNew(numbers)) return;
            for (std::size_t k = 0; k < quad.size(); ++k) directions[k] = stars[quad[k]].At;
            if (const auto entry = QuadEntryOf(numbers, directions)) quads.push_back(*entry);
        };
        for (const StarInFrame& star : stars) {
            std::atomic<bool>& mark = marks[star.Star];
            // Not written when unchanged, as threads would compete for the cache line.
            if (!mark.load(std::memory_order_relaxed)) mark.store(true, std::memory_order_relaxed);
        }
        if (plan.SharedBrightest) {
            TakeNarrowQuads(stars, plan, take);
        } else {
            TakeWideQuads(stars, plan, take);
        }
        if (quads.size() < portion) return;
        handOver(quads);
        quads.clear();
    });
    handOver(quads);
}

}  // namespace

QuadSky::QuadSky(const std::vector<QuadPlan>& plans) : cells_(HalfFrames(plans.front())) {
    for (const QuadPlan& plan : plans) {
        mostInCell_ = std::max(mostInCell_, static_cast<std::size_t>(plan.StarsPerFrame));
    }
}

void QuadSky::Add(std::vector<CatalogStar> cell) {
    // Cells that a build wrote are in order already.
    if (!std::is_sorted(cell.begin(), cell.end(), ComesBefore)) {
        std::sort(cell.begin(), cell.end(), ComesBefore);
    }
    std::unordered_map<std::uint32_t, std::size_t> counts;
    for (const CatalogStar& star : cell) {
        std::size_t& count = counts[cells_.CellOf(PositionOf(star))];
        if (++count <= mostInCell_) stars_.push_back(star);
    }
}

void QuadSky::Finish() {
    std::sort(stars_.begin(), stars_.end(), ComesBefore);
}

QuadDraft BuildQuads(const QuadSky& sky, const QuadPlan& plan,
                     const std::filesystem::path& overflow, const Progress& progress) {
    constexpr int runCount = 32;
    const auto starCount = static_cast<std::uint32_t>(sky.Stars().size());
    QuadDraft draft{sky.Stars(), {}, PackedQuads(starCount, overflow)};
    StarMarks marks(starCount);
    const SkyFrames frames(sky.Stars(), plan);
    std::mutex oneAtATime;
    ParallelFor(
        runCount,
        [&](int run) {
            GatherRun(frames, plan, frames.Count() * run / runCount,
                      frames.Count() * (run + 1) / runCount, marks,
                      [&](std::span<const QuadEntry> quads) {
                          const std::lock_guard lock(oneAtATime);
                          draft.Quads.Add(quads);
                      });
        },
        progress);
    draft.InTable.assign(marks.begin(), marks.end());
    return draft;
}

}  // namespace vestrel
