// The sky model: conversion in both directions, its fit to stars of which some are wrong, the
// errors that it states, and the plates that it replaces.

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <set>
#include <utility>

#include "matching/libSkyMatch.h"
#include "tests/testSupport.h"

namespace vestrel {
namespace {

constexpr double pi = std::numbers::pi;
constexpr double arcsecond = pi / 180 / 3600;

SkyPosition PlaceNumber(Random& random, int number) {
    const SkyPosition odd[] = {
        {0.00001, 0.3}, {6.2831, -1.1}, {2, pi / 2}, {4, -pi / 2}, {1, 1.56}};
    if (number % 2 == 0) return odd[number / 2 % 5];
    return {random.Between(0, 2 * pi), std::asin(random.Between(-1, 1))};
}

/// A photograph through a lens that moves the corners by `corner` pixels; its axis may lie off the
/// image centre.
SkyModel RandomModel(Random& random, int number, double arcsecondsPerPixel, double corner,
                     double offAxis = 0.1) {
    SkyModel model;
    model.Width = random.Whole(600, 1600);
    model.Height = random.Whole(500, 1000);
    model.Tangent = PlaceNumber(random, number);
    const double scale = arcsecondsPerPixel * arcsecond;
    const double turn = random.Between(0, 2 * pi);
    const double parity = number % 3 == 0 ? 1 : -1;
    model.Cd[0][0] = scale * std::cos(turn);
    model.Cd[0][1] = scale * std::sin(turn) * 1.002;
    model.Cd[1][0] = -parity * scale * std::sin(turn + 0.001);
    model.Cd[1][1] = parity * scale * std::cos(turn + 0.001);
    if (corner == 0) return model;
    const double half = std::hypot(model.Width, model.Height) / 2;
    const double cubic = corner / (half * half * half);
    const double tilt = random.Between(-offAxis, offAxis) * corner / (half * half);
    for (Polynomial& axis : model.Distortion) axis.Order = 3;
    model.Distortion[0].At(3, 0) = model.Distortion[0].At(1, 2) = cubic;
    model.Distortion[1].At(0, 3) = model.Distortion[1].At(2, 1) = cubic;
    model.Distortion[0].At(2, 0) = 3 * tilt;
    model.Distortion[0].At(0, 2) = tilt;
    model.Distortion[1].At(1, 1) = 2 * tilt;
    return model;
}

double Apart(const PixelPoint& a, const PixelPoint& b) {
    return std::hypot(a.X - b.X, a.Y - b.Y);
}

std::vector<PixelPoint> Corners(const SkyModel& model) {
    const double right = model.Width - 0.5;
    const double last = model.Height - 0.5;
    return {{-0.5, -0.5}, {right, -0.5}, {-0.5, last}, {right, last}};
}

/// A frame of stars and the catalog of its place; the true pairs are known.
struct Stars {
    std::vector<SkyPosition> Catalog;
    std::vector<PixelPoint> Plate;
    std::vector<int> Truth;  ///< the catalog star of each star of the picture, −1 for none
    std::vector<SkyPair> Start;

    std::optional<SkySolution> Match(const SkyModel& model) const {
        return MatchSky(Catalog, Plate, model.Width, model.Height, Start);
    }
};

/// Every fifth star of the picture is in no catalog, and every fifth catalog star is not in the
/// picture. The start has the pairs that a flat plate through the middle would match, and two wrong
/// ones.
Stars MakeStars(Random& random, const SkyModel& model, int count, double noise,
                double rightPart = 1) {
    Stars stars;
    const double half = std::hypot(model.Width, model.Height) / 2;
    for (int i = 0; i < 2 * count; ++i) {
        const PixelPoint pixel{random.Between(-0.1 * model.Width, (0.1 + rightPart) * model.Width),
                               random.Between(-0.1 * model.Height, 1.1 * model.Height)};
        const SkyPosition sky = model.SkyOf(pixel);
        stars.Catalog.push_back(sky);
        PixelPoint seen{pixel.X + random.Normal(noise), pixel.Y + random.Normal(noise)};
        const bool stranger = i % 5 == 1;
        if (stranger) {
            seen = {random.Between(0, rightPart * model.Width), random.Between(0, model.Height)};
        }
        if (seen.X < 0 || seen.Y < 0 || seen.X > rightPart * model.Width - 1 ||
            seen.Y > model.Height - 1 || i % 5 == 2 ||
            std::cmp_greater_equal(stars.Plate.size(), count)) {
            continue;
        }
        stars.Plate.push_back(seen);
        stars.Truth.push_back(stranger ? -1 : i);
        const bool inMiddle = Apart(pixel, model.Centre()) < 0.6 * half;
        if (inMiddle && !stranger && stars.Start.size() < 30) {
            stars.Start.push_back({static_cast<std::size_t>(i), stars.Plate.size() - 1});
        }
    }
    if (stars.Start.size() > 12) std::swap(stars.Start[3].PlateStar, stars.Start[9].PlateStar);
    return stars;
}

}  // namespace

TEST(SkyModel, ThereAndBackIsTheSamePixelWithinTheImageAndBeyond) {
    Random random(1);
    for (int number = 0; number < 60; ++number) {
        SkyModel model =
            RandomModel(random, number, random.Between(0.5, 60), random.Between(-12, 12));
        ASSERT_TRUE(CompleteSkyModel(model));
        for (int k = 0; k < 50; ++k) {
            const PixelPoint pixel{random.Between(-1, 2) * model.Width,
                                   random.Between(-1, 2) * model.Height};
            const auto back = model.PixelOf(model.SkyOf(pixel));
            ASSERT_TRUE(back);
            EXPECT_LT(Apart(*back, pixel), 1e-6) << number;
        }
        EXPECT_LT(Apart(*model.PixelOf(model.Tangent), model.Centre()), 1e-9);
        const double opposite = model.Tangent.Ra + pi;
        EXPECT_FALSE(model.PixelOf(SkyPosition{opposite, -model.Tangent.Dec}));
    }
    SkyModel folded = RandomModel(random, 1, 2, -400);
    EXPECT_FALSE(CompleteSkyModel(folded));
}

TEST(SkyModel, TheFTestIsRightAsOftenAsItSays) {
    Random random(2);
    constexpr int trials = 250;
    using Shape = SkyModelShape;
    for (const auto& [order, higher, count] : {std::tuple{Shape{1, 0}, Shape{1, 1}, 12},
                                               {Shape{1, 1}, Shape{1, 3, true}, 25},
                                               {Shape{1, 1}, Shape{3, 0}, 25},
                                               {Shape{2, 0}, Shape{4, 0}, 40}}) {
        std::vector<double> chances;
        for (int trial = 0; trial < trials; ++trial) {
            std::vector<SkyPoint> points;
            for (int i = 0; i < count; ++i) {
                points.push_back({{random.Between(0, 999), random.Between(0, 799)},
                                  {random.Normal(1e-4), random.Normal(1e-4)}});
            }
            // Pixels with noise about a plane, east to the right.
            for (SkyPoint& point : points) {
                point.Sky.Ra += (point.Pixel.X - 499.5) * 1e-3;
                point.Sky.Dec += (point.Pixel.Y - 399.5) * 1e-3;
                point.Sky = SkyOfGnomonic({1, 0.5}, {point.Sky.Ra, point.Sky.Dec});
            }
            const auto lower = FitSkyModel(points, order, 1000, 800, {1, 0.5});
            const auto more = FitSkyModel(points, higher, 1000, 800, {1, 0.5});
            ASSERT_TRUE(lower && more);
            chances.push_back(
                ChanceOfImprovement(lower->Squares, more->Squares, points.size(), order, higher));
        }
        for (const double level : {0.02, 0.1, 0.5, 0.9}) {
            const auto below = std::count_if(chances.begin(), chances.end(),
                                             [=](double chance) { return chance < level; });
            EXPECT_NEAR(static_cast<double>(below) / trials, level,
                        4 * std::sqrt(level * (1 - level) / trials))
                << count;
        }
    }
}

TEST(SkyModel, ErrorsAreAsClaimedAlsoWhenFewStarsAreLeft) {
    Random random(5);
    constexpr int trials = 400;
    constexpr double noise = 0.1;  // pixels
    constexpr double pixel = 1e-3;
    const SkyPosition tangent{1, 0.5};
    for (const auto& [shape, count] :
         {std::pair{SkyModelShape{1, 0}, 5}, {SkyModelShape{1, 1}, 6}, {SkyModelShape{2, 0}, 8}}) {
        const double freedom = 2.0 * count - static_cast<double>(shape.Constants());
        double variance = 0;
        double ofCentre = 0;
        double centreSquares = 0;
        for (int trial = 0; trial < trials; ++trial) {
            std::vector<SkyPoint> points;
            for (int i = 0; i < count; ++i) {
                const PixelPoint place{random.Between(0, 999), random.Between(0, 799)};
                const PlanePoint plane{(place.X - 499.5 + random.Normal(noise)) * pixel,
                                       (place.Y - 399.5 + random.Normal(noise)) * pixel};
                points.push_back({place, SkyOfGnomonic(tangent, plane)});
            }
            const auto fit = FitSkyModel(points, shape, 1000, 800, tangent);
            if (!fit || fit->EdgeLeverage > 5) {  // points that leave a side of the image out
                --trial;
                continue;
            }
            variance += fit->Sigma * fit->Sigma / trials;
            ofCentre += fit->CentreSigma * fit->CentreSigma / trials;
            const auto middle = fit->Model.PixelOf(tangent);
            ASSERT_TRUE(middle);
            centreSquares +=
                (std::pow(middle->X - 499.5, 2) + std::pow(middle->Y - 399.5, 2)) / 2 / trials;
        }
        EXPECT_NEAR(variance / (noise * noise), 1, 4 * std::sqrt(2 / (freedom * trials))) << count;
        EXPECT_NEAR(centreSquares / ofCentre, 1, 0.35) << count;
    }
}

TEST(SkyMatch, CornersAreTrueWhateverTheLensAndErrorsAreAsClaimed) {
    Random random(3);
    constexpr int trials = 80;
    double corners = 0;
    double centres = 0;
    double scales = 0;
    double turns = 0;
    int wrongPairs = 0;
    int pairs = 0;
    int solved = 0;
    for (int trial = 0; trial < trials; ++trial) {
        const double noise = random.Between(0.05, 0.2);
        SkyModel truth =
            RandomModel(random, trial, random.Between(3, 40),
                        trial % 4 == 0 ? 0 : random.Between(1, 12), trial % 2 == 0 ? 0.1 : 0);
        ASSERT_TRUE(CompleteSkyModel(truth));
        const Stars stars = MakeStars(random, truth, random.Whole(60, 100), noise);
        const auto solution = stars.Match(truth);
        if (!solution) continue;
        ++solved;
        const SkyModel& model = solution->Fit.Model;
        for (const PixelPoint& corner : Corners(truth)) {
            const double error = Apart(*model.PixelOf(truth.SkyOf(corner)), corner);
            EXPECT_LT(error, 8 * noise) << trial;
            corners += error * error / 2 / 4 / (solution->Fit.EdgeSigma * solution->Fit.EdgeSigma);
        }
        const double centre = Apart(*model.PixelOf(truth.Tangent), truth.Centre());
        centres += centre * centre / 2 / (solution->Fit.CentreSigma * solution->Fit.CentreSigma);
        const double scale = std::log(model.Scale() / truth.Scale()) / solution->Fit.ScaleSigma;
        scales += scale * scale;
        const auto turnOf = [](const SkyModel& one) {
            const double parity =
                one.Cd[0][0] * one.Cd[1][1] < one.Cd[0][1] * one.Cd[1][0] ? -1 : 1;
            return std::atan2(parity * one.Cd[1][0] - one.Cd[0][1],
                              parity * one.Cd[0][0] + one.Cd[1][1]);
        };
        // At a pole the rotation also depends on the meridian.
        if (std::fabs(truth.Tangent.Dec) < 1.5) {
            const double turn = std::remainder(turnOf(model) - turnOf(truth), 2 * pi);
            turns += std::pow(turn / solution->Fit.RotationSigma, 2);
        } else {
            turns += 1;
        }
        std::set<std::size_t> once[2];
        for (const SkyPair& pair : solution->Pairs) {
            EXPECT_TRUE(once[0].insert(pair.CatalogStar).second);
            EXPECT_TRUE(once[1].insert(pair.PlateStar).second);
            ++pairs;
            if (std::cmp_not_equal(stars.Truth[pair.PlateStar], pair.CatalogStar)) {
                ++wrongPairs;
            }
        }
        int inRings = 0;
        for (const SkyRing& ring : solution->Rings) inRings += ring.Stars;
        EXPECT_EQ(inRings, static_cast<int>(solution->Pairs.size()));
        EXPECT_NEAR(solution->Fit.Sigma / noise, 1, 0.4) << trial;
    }
    EXPECT_EQ(solved, trials);
    EXPECT_LT(wrongPairs, pairs / 200);
    // The error stated for the corners is that of the worst one.
    EXPECT_GT(std::sqrt(corners / solved), 0.5);
    EXPECT_LT(std::sqrt(corners / solved), 1.2);
    EXPECT_NEAR(std::sqrt(centres / solved), 1, 0.25);
    EXPECT_NEAR(std::sqrt(scales / solved), 1, 0.25);
    EXPECT_NEAR(std::sqrt(turns / solved), 1, 0.25);
}

TEST(SkyMatch, AStrongLensIsFollowedIntoTheCornersAndWhatIsNotReachedIsSaid) {
    Random random(5);
    for (const double strength : {-0.08, -0.05, -0.03, 0.03, 0.05, 0.08}) {
        double squares = 0;
        constexpr int trials = 3;
        for (int trial = 0; trial < trials; ++trial) {
            SkyModel truth = RandomModel(random, trial, 20, 0);
            const double half = std::hypot(truth.Width, truth.Height) / 2;
            // The inverse of a lens that moves a star at r half-diagonals by `strength`·r³.
            const double third = -strength / std::pow(half, 2);
            const double fifth = 3 * std::pow(strength, 2) / std::pow(half, 4);
            const double seventh = -12 * std::pow(strength, 3) / std::pow(half, 6);
            for (Polynomial& axis : truth.Distortion) axis.Order = 7;
            const auto set = [&truth](int p, int q, double value) {
                truth.Distortion[0].At(p + 1, q) = truth.Distortion[1].At(p, q + 1) = value;
            };
            set(2, 0, third), set(0, 2, third);
            set(4, 0, fifth), set(2, 2, 2 * fifth), set(0, 4, fifth);
            set(6, 0, seventh), set(4, 2, 3 * seventh), set(2, 4, 3 * seventh), set(0, 6, seventh);
            ASSERT_TRUE(CompleteSkyModel(truth));
            Stars stars = MakeStars(random, truth, 120, 0.1);
            const auto solution = stars.Match(truth);
            ASSERT_TRUE(solution) << strength;
            EXPECT_TRUE(solution->ReachesEdges) << strength;
            double worst = 0;
            for (const PixelPoint& corner : Corners(truth)) {
                const auto found = solution->Fit.Model.PixelOf(truth.SkyOf(corner));
                worst = std::max(worst, Apart(*found, corner));
            }
            EXPECT_LT(worst, 3) << strength;
            squares += std::pow(worst / solution->Fit.EdgeSigma, 2) / trials;

            // Half of the picture behind trees: of the outer stars none is seen.
            for (std::size_t i = 0; i < stars.Plate.size(); ++i) {
                if (Apart(stars.Plate[i], truth.Centre()) > 0.6 * half) stars.Plate[i] = {-99, -99};
            }
            const auto middle = stars.Match(truth);
            EXPECT_TRUE(!middle || !middle->ReachesEdges) << strength;
        }
        // The worst of four corners, in both coordinates.
        EXPECT_LT(std::sqrt(squares), 3) << strength;
    }
}

TEST(SkyMatch, DistortionIsOnlyClaimedWhereTheStarsBearIt) {
    Random random(4);
    int claimed = 0;
    int noticed = 0;
    for (int trial = 0; trial < 20; ++trial) {
        const auto orderOf = [&](double corner, int count, double rightPart) {
            SkyModel truth = RandomModel(random, trial, 10, corner, 0);
            EXPECT_TRUE(CompleteSkyModel(truth));
            const auto solution = MakeStars(random, truth, count, 0.1, rightPart).Match(truth);
            if (!solution) return -1;
            const int order = solution->Fit.Model.Distortion[0].Order;
            if (order > 0) {
                EXPECT_LE(solution->Fit.EdgeLeverage, 3);
                for (const PixelPoint& place : Corners(truth)) {
                    const auto found = solution->Fit.Model.PixelOf(truth.SkyOf(place));
                    EXPECT_LT(Apart(*found, place), 6 * solution->Fit.EdgeSigma);
                }
            }
            return order;
        };
        if (orderOf(0, 80, 1) > 0) ++claimed;
        if (orderOf(4, 80, 1) > 0) ++noticed;
        EXPECT_LE(orderOf(4, 6, 1), 0) << "six stars";
        orderOf(4, 80, 0.4);  // all of them on one side
    }
    EXPECT_LE(claimed, 3);
    EXPECT_EQ(noticed, 20);
}

TEST(SkyMatch, CommonErrorsOfCentroidsDoNotRunAwayInTheCorners) {
    // Centroids drift to and fro by a third of a pixel over the frame, as trails, stacks and tilted
    // optics make them, and no star near the corners is right: a polynomial of the fourth order
    // would follow the drift outward, to 2 pixels.
    Random random(6);
    double worst = 0;
    for (int trial = 0; trial < 12; ++trial) {
        SkyModel truth = RandomModel(random, trial, 10, 2, 0);
        EXPECT_TRUE(CompleteSkyModel(truth));
        Stars stars = MakeStars(random, truth, 110, 0.08);
        const double half = std::hypot(truth.Width, truth.Height) / 2;
        for (PixelPoint& star : stars.Plate) {
            const double along = (star.X - truth.Centre().X) / half;
            const double across = (star.Y - truth.Centre().Y) / half;
            if (std::hypot(along, across) > 0.82) {
                star = {random.Between(0, truth.Width), random.Between(0, truth.Height)};
                continue;
            }
            star.X += 0.3 * std::sin(9 * along + trial);
            star.Y += 0.3 * std::cos(9 * across + 2 * along + trial);
        }
        const auto solution = stars.Match(truth);
        ASSERT_TRUE(solution) << trial;
        for (const PixelPoint& place : Corners(truth)) {
            const auto found = solution->Fit.Model.PixelOf(truth.SkyOf(place));
            worst = std::max(worst, Apart(*found, place));
        }
    }
    EXPECT_LT(worst, 1.4);
}

TEST(SkyMatch, StarsOfAnotherPlaceGiveNoModelAndNoCrash) {
    Random random(5);
    SkyModel model = RandomModel(random, 1, 5, 0);
    const Stars stars = MakeStars(random, model, 60, 0.1);
    const Stars others = MakeStars(random, RandomModel(random, 3, 5, 0), 60, 0.1);
    Stars mixed = stars;
    mixed.Plate = others.Plate;
    // It may find a chance plate through a few stars, but never through many.
    const auto accident = mixed.Match(model);
    EXPECT_LT(accident ? accident->Pairs.size() : 0, 25U);
    mixed.Catalog.clear();
    mixed.Plate.clear();
    mixed.Start.clear();
    EXPECT_FALSE(mixed.Match(model));
    Stars same = stars;
    for (PixelPoint& star : same.Plate) star = {3, 4};
    EXPECT_FALSE(same.Match(model));
    for (SkyPosition& star : same.Catalog) star.Ra = star.Dec = std::nan("");
    EXPECT_FALSE(same.Match(model));
}

TEST(SkyModel, APlateIsReplacedWithoutLossByTheModelOfAnOrdinaryPhotograph) {
    Random random(6);
    for (int number = 0; number < 60; ++number) {
        const int width = random.Whole(400, 2000);
        const int height = random.Whole(300, 1500);
        const double degrees = random.Between(0.2, 20);  // along the diagonal
        const double scale = std::hypot(width, height) / (degrees * 3600);
        const double turn = random.Between(0, 2 * pi);
        const double sign = number % 2 == 0 ? 1 : -1;
        const PlateConstants plate{scale * std::cos(turn),
                                   scale * std::sin(turn),
                                   random.Between(-0.2, 1.2) * width,
                                   sign * 1.01 * scale * std::sin(turn + 0.01),
                                   -sign * 1.01 * scale * std::cos(turn + 0.01),
                                   random.Between(-0.2, 1.2) * height};
        const SkyPosition tangent = PlaceNumber(random, number);
        const auto model = SkyModelOfPlate(plate, tangent, 206264.81, width, height);
        ASSERT_TRUE(model) << degrees;
        Projection plane;
        plane.SetProjectionCentre(tangent, 206264.81);
        double worst = 0;
        for (int k = 0; k < 200; ++k) {
            const PixelPoint pixel{random.Between(-0.5, width - 0.5),
                                   random.Between(-0.5, height - 0.5)};
            const SkyPosition sky = model->SkyOf(pixel);
            double xi = 0;
            double eta = 0;
            plane.SkyToPlane(sky, xi, eta);
            PixelPoint back;
            ApplyPlateFit(plate, xi, eta, back.X, back.Y);
            worst = std::max(worst, Apart(back, pixel));
        }
        EXPECT_LT(worst, 0.05) << degrees;
    }
    EXPECT_FALSE(SkyModelOfPlate({1, 0, 0, 0, 0, 0}, {1, 1}, 206264.81, 10, 10));
    EXPECT_FALSE(SkyModelOfPlate({1, 0, 5, 0, 1, 5}, {1, 1}, 1, 10, 10));
    EXPECT_FALSE(SkyModelOfPlate({1, 0, 5, 0, 1, 5}, {1, 1}, 206264.81, 0, 10));
    EXPECT_FALSE(SkyModelOfPlate({1e-3, 0, 5, 0, 1e-3, 5}, {1, 1}, 206264.81, 900, 800));
    EXPECT_FALSE(SkyModelOfPlate({1, 0, 5, 0, 1, 5}, {NAN, 1}, 206264.81, 10, 10));
}

}  // namespace vestrel
