#include "matching/libQuadLookup.h"

#include <algorithm>
#include <cmath>

#include "astro/libMath.h"
#include "matching/libMatchedPlate.h"
#include "matching/libStarPlaces.h"

namespace vestrel {

namespace {

constexpr double placeError = 0.5;  // of a star in the image, per axis, pixels

/// The six distances between four stars; `distance` takes their two indices.
template <typename Distance>
std::array<double, 6> SixDistances(Distance distance) {
    return {distance(0, 1), distance(0, 2), distance(0, 3),
            distance(1, 2), distance(1, 3), distance(2, 3)};
}

}  // namespace

QuadLookup::QuadLookup(QuadTables& tables, const ImageStars& image, const QuadBand& band)
    : tables_(tables),
      image_(image),
      band_(band),
      diagonal_(std::hypot(image.Width(), image.Height())),
      radiansPerPixel_(2 * std::tan(std::sqrt(band.SmallestDiagonal * band.LargestDiagonal) / 2) /
                       diagonal_) {
    directions_.resize(static_cast<std::size_t>(image.Count()) + 1);
    for (std::int32_t star = 1; star <= image.Count(); ++star) {
        const PlateStar& at = image.Stars()[star];
        const double x = (XOf(at) - (image.Width() - 1) / 2.0) * radiansPerPixel_;
        const double y = (YOf(at) - (image.Height() - 1) / 2.0) * radiansPerPixel_;
        const double length = std::sqrt(1 + x * x + y * y);
        directions_[static_cast<std::size_t>(star)] = {x / length, y / length, 1 / length};
    }
}

Quad QuadLookup::ShapeOf(const ImageQuad& quad) const {
    return QuadOfDirections(
        {DirectionAt(quad[0]), DirectionAt(quad[1]), DirectionAt(quad[2]), DirectionAt(quad[3])});
}

bool QuadLookup::Search(const std::vector<ImageQuad>& quads, const Accept& accept,
                        const std::function<bool()>& stop) {
    for (const ImageQuad& quad : quads) {
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
        const double tolerance = std::clamp(3 * placeError / pixels, 0.002, 0.01);
        const Quad shape = ShapeOf(quad);
        if (!std::isfinite(shape.QuadKey)) continue;
        ++counts_.Searched;
        for (const CatalogQuad& candidate : tables_.QuadsLike(shape, tolerance)) {
            ++counts_.Candidates;
            if (Try(quad, candidate, tolerance, accept)) return true;
        }
    }
    return false;
}

bool QuadLookup::Try(const ImageQuad& quad, const CatalogQuad& candidate, double tolerance,
                     const Accept& accept) {
    const auto chord = [](const Direction& a, const Direction& b) {
        return std::hypot(a[0] - b[0], a[1] - b[1], a[2] - b[2]);
    };
    const auto own = SixDistances([&](std::size_t a, std::size_t b) {
        return chord(DirectionAt(quad[a]), DirectionAt(quad[b]));
    });
    const double longest = *std::max_element(own.begin(), own.end());
    std::array<std::array<double, 4>, 4> between{};
    for (std::size_t a = 0; a < 4; ++a) {
        for (std::size_t b = a + 1; b < 4; ++b) {
            between[a][b] = between[b][a] = chord(candidate.At[a], candidate.At[b]);
        }
    }
    std::array<std::size_t, 4> order{0, 1, 2, 3};
    const auto theirs = [&] {
        return SixDistances(
            [&](std::size_t a, std::size_t b) { return between[order[a]][order[b]]; });
    };
    const auto first = theirs();
    const double scale = *std::max_element(first.begin(), first.end()) / longest;
    // The resulting field must belong to the band, with some margin.
    constexpr double margin = 1.06;
    const double middle = std::sqrt(band_.SmallestDiagonal * band_.LargestDiagonal);
    if (scale * middle < band_.SmallestDiagonal / margin ||
        scale * middle > band_.LargestDiagonal * margin) {
        return false;
    }
    for (auto& row : between) {
        for (double& distance : row) distance /= scale;
    }
    do {
        const auto other = theirs();
        double sum = 0;
        for (std::size_t i = 0; i < own.size(); ++i) {
            const double difference = other[i] - own[i];
            sum += difference * difference;
        }
        constexpr double wider = 1.5;
        if (std::sqrt(sum) > wider * tolerance * longest) continue;
        std::array<CatalogStar, 4> stars{};
        for (std::size_t i = 0; i < 4; ++i) stars[i] = candidate.Stars[order[i]];
        CentredPlate plate;
        if (!FitFour(quad, stars, plate)) continue;
        ++counts_.Fitted;
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
    double least = std::max(2.0, 4 * placeError);  // the largest fit error allowed,
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
    bool confirmed = false;
    std::int32_t checked = 0;
    const CameraPlane plane(plate.Centre);
    tables_.VisitStarsAround(plate.Centre, reach, [&](const CatalogStar& at) {
        PlateStar star{0, 0, 0, static_cast<double>(at.Ra), static_cast<double>(at.Dec)};
        if (!plane.Place(star)) return true;
        double x = 0;
        double y = 0;
        ApplyPlateFit(plate.Plate, XOf(star), YOf(star), x, y);
        if (!image_.InFrame(x, y)) return true;
        if (++checked > mostChecked) return false;
        // The plate gets less exact with the distance from the quad.
        const double lever = std::hypot(x - x0, y - y0) / longest;
        const double tolerance = std::min(1.5 + 2 * placeError * (1 + lever), 0.015 * diagonal_);
        const std::int32_t i = image_.Nearest(x, y, tolerance);
        if (std::find(quad.begin(), quad.end(), i) != quad.end()) return true;
        const double chance = std::min(image_.DensityAt(x, y) * Pi * tolerance * tolerance, 0.9);
        odds += i != 0 ? std::log(hitPart / chance + (1 - hitPart)) : std::log(1 - hitPart);
        confirmed = odds > promising;
        return !confirmed && odds >= hopeless;
    });
    return confirmed;
}

}  // namespace vestrel
