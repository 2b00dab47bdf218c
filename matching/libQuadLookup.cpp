#include "matching/libQuadLookup.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "astro/libMath.h"
#include "matching/libMatchedPlate.h"

namespace vestrel {

namespace {

constexpr double neighbourRadius = 1.5 * Pi / 180;
/// The quads of fields up to this diagonal (radians) are three stars with one between them.
constexpr double narrow = 3.501 * Pi / 180;

double XOf(const PlateStar& star) {
    return static_cast<double>(star.X);
}
double YOf(const PlateStar& star) {
    return static_cast<double>(star.Y);
}

double SquaredDistance(const PlateStar& a, const PlateStar& b) {
    const double dx = XOf(a) - XOf(b);
    const double dy = YOf(a) - YOf(b);
    return dx * dx + dy * dy;
}

/// Three of the first stars, with each of the brightest stars in the circle over their longest
/// side.
void AddNarrowQuads(const PlateStarList& stars, double neighbours,
                    const QuadLookupSettings& settings, std::vector<ImageQuad>& quads) {
    constexpr int mostBetween = 3;
    const std::int32_t n = std::min(settings.FirstStars, stars.Count());
    for (std::int32_t c = std::max(3, settings.LookedUp + 1); c <= n; ++c) {
        for (std::int32_t b = 2; b < c; ++b) {
            for (std::int32_t a = 1; a < b; ++a) {
                std::array<std::int32_t, 3> triple{a, b, c};
                double longest = 0;
                double x = 0;
                double y = 0;
                for (std::size_t i = 0; i < triple.size(); ++i) {
                    const PlateStar& one = stars[triple[i]];
                    const PlateStar& other = stars[triple[(i + 1) % triple.size()]];
                    const double square = SquaredDistance(one, other);
                    if (square <= longest) continue;
                    longest = square;
                    x = (XOf(one) + XOf(other)) / 2;
                    y = (YOf(one) + YOf(other)) / 2;
                }
                if (longest > neighbours * neighbours) continue;
                int between = 0;
                for (std::int32_t d = b + 1; d <= stars.Count() && between < mostBetween; ++d) {
                    if (d == c) continue;
                    const double dx = XOf(stars[d]) - x;
                    const double dy = YOf(stars[d]) - y;
                    if (dx * dx + dy * dy > longest / 4) continue;
                    ++between;
                    ImageQuad quad{a, b, c, d};
                    std::sort(quad.begin(), quad.end());
                    quads.push_back(quad);
                }
            }
        }
    }
}

/// Each of the first stars with three of its brightest neighbours.
void AddWideQuads(const PlateStarList& stars, double neighbours, const QuadLookupSettings& settings,
                  std::vector<ImageQuad>& quads) {
    constexpr std::size_t mostNeighbours = 7;
    std::vector<std::int32_t> near;
    const std::int32_t n = std::min(settings.FirstStars, stars.Count());
    for (std::int32_t s = settings.LookedUp + 1; s <= n; ++s) {
        near.clear();
        for (std::int32_t j = 1; j <= stars.Count() && near.size() < mostNeighbours; ++j) {
            if (j != s && SquaredDistance(stars[s], stars[j]) < neighbours * neighbours) {
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
}

/// The six distances between four stars; `distance` takes their two indices.
template <typename Distance>
std::array<double, 6> SixDistances(Distance distance) {
    return {distance(0, 1), distance(0, 2), distance(0, 3),
            distance(1, 2), distance(1, 3), distance(2, 3)};
}

}  // namespace

bool IsNarrowBand(const QuadBand& band) {
    return band.LargestDiagonal < narrow;
}

std::vector<ImageQuad> QuadsOfImage(const PlateStarList& stars, double diagonal,
                                    const QuadLookupSettings& settings) {
    std::vector<ImageQuad> quads;
    // The neighbourhood covers the most pixels in the smallest field of the band.
    const double neighbours = neighbourRadius / settings.SmallestDiagonal * diagonal;
    const bool triples = settings.LargestDiagonal < narrow;
    (triples ? AddNarrowQuads : AddWideQuads)(stars, neighbours, settings, quads);
    std::sort(quads.begin(), quads.end());
    quads.erase(std::unique(quads.begin(), quads.end()), quads.end());
    const auto places = [](const ImageQuad& q) { return std::accumulate(q.begin(), q.end(), 0); };
    std::stable_sort(quads.begin(), quads.end(),
                     [&](const ImageQuad& a, const ImageQuad& b) { return places(a) < places(b); });
    return quads;
}

QuadLookup::QuadLookup(QuadTables& tables, const ImageStars& image,
                       const QuadLookupSettings& settings)
    : tables_(tables),
      image_(image),
      settings_(settings),
      diagonal_(std::hypot(image.Width(), image.Height())),
      radiansPerPixel_(
          2 * std::tan(std::sqrt(settings.SmallestDiagonal * settings.LargestDiagonal) / 2) /
          diagonal_) {}

Direction QuadLookup::DirectionAt(std::int32_t star) const {
    const PlateStar& at = image_.Stars()[star];
    const double x = (XOf(at) - (image_.Width() - 1) / 2.0) * radiansPerPixel_;
    const double y = (YOf(at) - (image_.Height() - 1) / 2.0) * radiansPerPixel_;
    const double length = std::sqrt(1 + x * x + y * y);
    return {x / length, y / length, 1 / length};
}

Quad QuadLookup::ShapeOf(const ImageQuad& quad) const {
    return QuadOfDirections(
        {DirectionAt(quad[0]), DirectionAt(quad[1]), DirectionAt(quad[2]), DirectionAt(quad[3])});
}

bool QuadLookup::Search(const Accept& accept, const std::function<bool()>& stop) {
    for (const ImageQuad& quad : QuadsOfImage(image_.Stars(), diagonal_, settings_)) {
        if (stop()) return false;
        double longest = 0;
        for (std::size_t a = 0; a < 4; ++a) {
            for (std::size_t b = a + 1; b < 4; ++b) {
                longest = std::max(
                    longest, SquaredDistance(image_.Stars()[quad[a]], image_.Stars()[quad[b]]));
            }
        }
        const double pixels = std::sqrt(longest);
        constexpr double shortest = 0.03;  // of the diagonal
        if (pixels < shortest * diagonal_) continue;
        const double tolerance = std::clamp(3 * settings_.PlaceError / pixels, 0.002, 0.01);
        const Quad shape = ShapeOf(quad);
        if (!std::isfinite(shape.QuadKey)) continue;
        ++searched_;
        for (const CatalogQuad& candidate : tables_.QuadsLike(shape, tolerance)) {
            ++candidates_;
            if (Try(quad, candidate, tolerance, accept)) return true;
        }
    }
    return false;
}

bool QuadLookup::Try(const ImageQuad& quad, const CatalogQuad& candidate, double tolerance,
                     const Accept& accept) {
    std::array<Direction, 4> here{};
    std::array<Direction, 4> there{};
    for (std::size_t i = 0; i < 4; ++i) {
        here[i] = DirectionAt(quad[i]);
        there[i] = DirectionOf(PositionOf(candidate.Stars[i]));
    }
    const auto chord = [](const Direction& a, const Direction& b) {
        return std::hypot(a[0] - b[0], a[1] - b[1], a[2] - b[2]);
    };
    const auto own =
        SixDistances([&](std::size_t a, std::size_t b) { return chord(here[a], here[b]); });
    const double longest = *std::max_element(own.begin(), own.end());
    std::array<std::size_t, 4> order{0, 1, 2, 3};
    const auto theirs = [&] {
        return SixDistances(
            [&](std::size_t a, std::size_t b) { return chord(there[order[a]], there[order[b]]); });
    };
    const auto first = theirs();
    const double scale = *std::max_element(first.begin(), first.end()) / longest;
    // The resulting field must belong to the band, with some margin.
    constexpr double margin = 1.06;
    const double middle = std::sqrt(settings_.SmallestDiagonal * settings_.LargestDiagonal);
    if (scale * middle < settings_.SmallestDiagonal / margin ||
        scale * middle > settings_.LargestDiagonal * margin) {
        return false;
    }
    do {
        const auto other = theirs();
        double sum = 0;
        for (std::size_t i = 0; i < own.size(); ++i) {
            const double difference = other[i] / scale - own[i];
            sum += difference * difference;
        }
        constexpr double wider = 1.5;
        if (std::sqrt(sum) > wider * tolerance * longest) continue;
        std::array<CatalogStar, 4> stars{};
        for (std::size_t i = 0; i < 4; ++i) stars[i] = candidate.Stars[order[i]];
        CentredPlate plate;
        if (!FitFour(quad, stars, plate)) continue;
        ++fitted_;
        if (Confirmed(quad, plate) && accept(plate)) return true;
    } while (std::next_permutation(order.begin(), order.end()));
    return false;
}

/// Fits the camera plate that takes four catalog stars to four image stars. False when no fit is
/// good.
bool QuadLookup::FitFour(const ImageQuad& quad, const std::array<CatalogStar, 4>& stars,
                         CentredPlate& plate) const {
    PlateStarList catalog;
    for (const CatalogStar& star : stars) {
        catalog.Add({0, 0, 0, static_cast<double>(star.Ra), static_cast<double>(star.Dec)});
    }
    StarMatchList pairs;
    for (std::int16_t i = 1; i <= 4; ++i) {
        pairs.Add({i, static_cast<std::int16_t>(quad[static_cast<std::size_t>(i - 1)]), 0, true});
    }
    double least = std::max(2.0, 4 * settings_.PlaceError);  // the largest fit error allowed,
                                                             // pixels
    bool found = false;
    for (const double side : {1.0, -1.0}) {
        // The tangent point is the first star at first, later the middle of the image.
        CentredPlate centred{{catalog[1].Ra, catalog[1].Dec}, {1, 0, 0, 0, side, 0}};
        double error = INFINITY;
        constexpr int rounds = 3;
        for (int round = 0; round < rounds; ++round) {
            const PlateStarList plane = OnCameraPlane(catalog, centred.Centre);
            if (plane.Count() < 4) return false;
            FitSimilarPlate(plane, image_.Stars(), pairs, centred.Plate);
            double squares = 0;
            for (const StarMatch& pair : pairs) {
                const PlateStar& star = image_.Stars()[pair.Star2];
                double x = 0;
                double y = 0;
                ApplyPlateFit(centred.Plate, XOf(plane[pair.Star1]), YOf(plane[pair.Star1]), x, y);
                squares += (XOf(star) - x) * (XOf(star) - x) + (YOf(star) - y) * (YOf(star) - y);
            }
            error = std::sqrt(squares / 4);
            const auto next = PlateAboutMiddle(centred.Plate, centred.Centre, PlaneKind::Camera,
                                               image_.Width(), image_.Height());
            if (!next) return false;
            centred = *next;
        }
        if (error < least) {
            least = error;
            plate = centred;
            found = true;
        }
    }
    return found;
}

/// Whether more of the table's stars match image stars than chance would give.
bool QuadLookup::Confirmed(const ImageQuad& quad, const CentredPlate& plate) {
    constexpr double hitPart = 0.5;    // of the catalog stars that an image shows
    constexpr double hopeless = -4.5;  // of the logarithm of the odds
    constexpr double promising = 6;
    constexpr std::int32_t mostChecked = 60;
    const double scale = PlateGeometry(plate.Plate).Scale;  // pixels per arcsecond
    const double reach = std::atan(diagonal_ / 2 / scale / SolveArcsecondsPerRadian);
    PlateStarList around;
    for (const CatalogStar& star : tables_.StarsAround(plate.Centre, reach)) {
        around.Add({0, 0, 0, static_cast<double>(star.Ra), static_cast<double>(star.Dec)});
    }
    double x0 = 0;
    double y0 = 0;
    double longest = 0;
    for (const std::int32_t i : quad) {
        const PlateStar& star = image_.Stars()[i];
        x0 += XOf(star) / 4;
        y0 += YOf(star) / 4;
        longest = std::max(longest, std::sqrt(SquaredDistance(image_.Stars()[quad[0]], star)));
    }
    double odds = 0;
    std::int32_t checked = 0;
    for (const PlateStar& star : OnCameraPlane(around, plate.Centre)) {
        double x = 0;
        double y = 0;
        ApplyPlateFit(plate.Plate, XOf(star), YOf(star), x, y);
        if (!image_.InFrame(x, y)) continue;
        if (++checked > mostChecked) break;
        // The plate gets less exact with the distance from the quad.
        const double lever = std::hypot(x - x0, y - y0) / longest;
        const double tolerance =
            std::min(1.5 + 2 * settings_.PlaceError * (1 + lever), 0.015 * diagonal_);
        const std::int32_t i = image_.Nearest(x, y, tolerance);
        if (std::find(quad.begin(), quad.end(), i) != quad.end()) continue;
        const double chance = std::min(image_.DensityAt(x, y) * Pi * tolerance * tolerance, 0.9);
        odds += i != 0 ? std::log(hitPart / chance + (1 - hitPart)) : std::log(1 - hitPart);
        if (odds > promising) return true;
        if (odds < hopeless) return false;
    }
    return false;
}

}  // namespace vestrel
