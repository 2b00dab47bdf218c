#include "matching/libImageQuads.h"

#include <algorithm>
#include <numeric>

#include "astro/libMath.h"
#include "matching/libStarPlaces.h"

namespace vestrel {

namespace {

constexpr double neighbourRadius = 1.5 * Pi / 180;
/// The quads of fields up to this diagonal (radians) are three stars with one between them.
constexpr double narrow = 3.501 * Pi / 180;

/// Whether a quad has brighter stars, or else comes first by their numbers.
bool IsBrighter(const ImageQuad& a, const ImageQuad& b) {
    const auto places = [](const ImageQuad& q) { return std::accumulate(q.begin(), q.end(), 0); };
    const std::int32_t ofA = places(a);
    const std::int32_t ofB = places(b);
    return ofA != ofB ? ofA < ofB : a < b;
}

}  // namespace

bool IsNarrowBand(const QuadBand& band) {
    return band.LargestDiagonal < narrow;
}

ImageQuads::ImageQuads(const PlateStarList& stars, double diagonal, const LeadingStars& leading)
    : stars_(stars), diagonal_(diagonal), leading_(leading) {
    FormNarrow();
}

std::vector<ImageQuad> ImageQuads::For(const QuadBand& band) const {
    // The neighbourhood covers the most pixels in the smallest field of the band.
    const double neighbours = neighbourRadius / band.SmallestDiagonal * diagonal_;
    if (!IsNarrowBand(band)) return WideQuads(neighbours);
    std::vector<ImageQuad> quads;
    for (const SidedQuad& quad : narrow_) {
        if (quad.Longest <= neighbours * neighbours) quads.push_back(quad.Stars);
    }
    return quads;
}

void ImageQuads::FormNarrow() {
    const std::int32_t n = std::min(leading_.First, stars_.Count());
    for (std::int32_t c = std::max(3, leading_.LookedUp + 1); c <= n; ++c) {
        for (std::int32_t b = 2; b < c; ++b) {
            for (std::int32_t a = 1; a < b; ++a) AddQuadsOver({a, b, c, 0}, narrow_);
        }
    }
    // The same four stars may be over several sides; the shortest is in most tables.
    std::sort(narrow_.begin(), narrow_.end(), [](const SidedQuad& a, const SidedQuad& b) {
        return a.Stars != b.Stars ? IsBrighter(a.Stars, b.Stars) : a.Longest < b.Longest;
    });
    const auto isSame = [](const SidedQuad& a, const SidedQuad& b) { return a.Stars == b.Stars; };
    narrow_.erase(std::unique(narrow_.begin(), narrow_.end(), isSame), narrow_.end());
}

/// Adds three stars, rising, with each of the brightest stars in the circle over their longest
/// side.
void ImageQuads::AddQuadsOver(const ImageQuad& triple, std::vector<SidedQuad>& quads) const {
    constexpr int mostBetween = 3;
    double longest = 0;
    double x = 0;
    double y = 0;
    for (std::size_t i = 0; i < 3; ++i) {
        const PlateStar& one = stars_[triple[i]];
        const PlateStar& other = stars_[triple[(i + 1) % 3]];
        const double square = SquaredDistance(one, other);
        if (square <= longest) continue;
        longest = square;
        x = (XOf(one) + XOf(other)) / 2;
        y = (YOf(one) + YOf(other)) / 2;
    }
    int between = 0;
    for (std::int32_t d = triple[1] + 1; d <= stars_.Count() && between < mostBetween; ++d) {
        if (d == triple[2]) continue;
        const double dx = XOf(stars_[d]) - x;
        const double dy = YOf(stars_[d]) - y;
        if (dx * dx + dy * dy > longest / 4) continue;
        ++between;
        SidedQuad quad{triple, longest};
        quad.Stars[3] = d;
        std::sort(quad.Stars.begin(), quad.Stars.end());
        quads.push_back(quad);
    }
}

/// Each leading star with three of its brightest neighbours.
/// @param neighbours their largest distance, pixels
std::vector<ImageQuad> ImageQuads::WideQuads(double neighbours) const {
    constexpr std::size_t mostNeighbours = 7;
    constexpr std::int32_t more = 3;  // than in narrow fields
    std::vector<ImageQuad> quads;
    std::vector<std::int32_t> near;
    const std::int32_t n = std::min(more * leading_.First, stars_.Count());
    for (std::int32_t s = more * leading_.LookedUp + 1; s <= n; ++s) {
        near.clear();
        for (std::int32_t j = 1; j <= stars_.Count() && near.size() < mostNeighbours; ++j) {
            if (j != s && SquaredDistance(stars_[s], stars_[j]) < neighbours * neighbours) {
                near.push_back(j);
            }
        }
        for (std::size_t a = 0; a < near.size(); ++a) {
            for (std::size_t b = a + 1; b < near.size(); ++b) {
                for (std::size_t c = b + 1; c < near.size(); ++c) {
                    ImageQuad quad{s, near[a], near[b], near[c]};
                    std::sort(quad.begin(), quad.end());
                    quads.push_back(quad);
                }
            }
        }
    }
    std::sort(quads.begin(), quads.end(), IsBrighter);
    quads.erase(std::unique(quads.begin(), quads.end()), quads.end());
    return quads;
}

}  // namespace vestrel
