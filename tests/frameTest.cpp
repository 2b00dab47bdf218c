// How stars of a frame are found, paired and weighed, and what a plate learns from its pairs.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <set>

#include "matching/libFrameStars.h"
#include "matching/libImageStars.h"
#include "matching/libMatchedPlate.h"
#include "matching/libPlatePosterior.h"
#include "tests/testSupport.h"

namespace vestrel {
namespace {

constexpr int columns = 800;
constexpr int rows = 600;

PlateStar At(double x, double y) {
    return {static_cast<float>(x), static_cast<float>(y), 0, 0, 0};
}

PlateStarList RandomStars(Random& random, int count) {
    PlateStarList stars;
    for (int i = 0; i < count; ++i) {
        const double x = random.Between(-0.5, columns - 0.5);
        stars.Add(At(x, random.Between(-0.5, rows - 0.5)));
    }
    return stars;
}

TEST(ImageStars, NearestIsThatOfALookAtAllStars) {
    Random random(41);
    for (const int count : {0, 1, 5, 60, 1500}) {
        PlateStarList stars = RandomStars(random, count);
        if (count == 60) {
            for (int i = 0; i < 20; ++i) stars.Add(At(799.4, 10 * i));  // on the border
        }
        const ImageStars image(stars, columns, rows);
        EXPECT_EQ(image.Count(), stars.Count());
        for (int trial = 0; trial < 1000; ++trial) {
            const double x = random.Between(-60, columns + 60);
            const double y = random.Between(-60, rows + 60);
            const double reach = std::pow(10, random.Between(-1, 3));
            std::int32_t nearest = 0;
            double best = reach;
            for (std::int32_t i = 1; i <= stars.Count(); ++i) {
                const double distance = std::hypot(double{stars[i].X} - x, double{stars[i].Y} - y);
                if (distance < best) {
                    best = distance;
                    nearest = i;
                }
            }
            ASSERT_EQ(image.Nearest(x, y, reach), nearest) << x << " " << y << " " << reach;
            ASSERT_GE(image.DensityAt(x, y), count / (1.0 * columns * rows) * (1 - 1e-12));
        }
    }
}

// Each star of either list is in one pair at most, with the counterpart that the plate puts
// nearest.
TEST(RefinePlate, OfTwoThatClaimOneStarTheNearerOneGetsIt) {
    Random random(42);
    int contested = 0;
    for (int trial = 0; trial < 200; ++trial) {
        const double turn = random.Between(0, 6.28);
        const double c = 0.5 * std::cos(turn);
        const double s = 0.5 * std::sin(turn);
        const PlateConstants truth{c, -s, 400, s, c, 300};
        PlateStarList catalog;
        PlateStarList seen;
        for (int i = 0; i < 60; ++i) {
            const PlateStar star = At(random.Between(-700, 700), random.Between(-500, 500));
            double x = 0;
            double y = 0;
            ApplyPlateFit(truth, double{star.X}, double{star.Y}, x, y);
            const bool companion = i % 3 == 0;
            const PlateStar other = At(double{star.X} + random.Between(1, 5), double{star.Y});
            // The companion comes before or after its star and has no star of its own.
            if (companion && i % 2 == 0) catalog.Add(other);
            catalog.Add(star);
            if (companion && i % 2 != 0) catalog.Add(other);
            seen.Add(At(x + random.Normal(0.05), y + random.Normal(0.05)));
        }
        const ImageStars image(seen, columns, rows);
        MatchedPlate match;
        match.Plate = truth;
        match.Plate.c += 1;
        ASSERT_TRUE(RefinePlate(catalog, image, 5, match));
        std::set<int> first;
        std::set<int> second;
        for (const StarMatch& pair : match.Pairs) {
            ASSERT_TRUE(first.insert(pair.Star1).second);
            ASSERT_TRUE(second.insert(pair.Star2).second);
            const PlateStar& there = seen[pair.Star2];
            // How far a catalog star that claims this star is from it.
            const auto claim = [&](const PlateStar& star) {
                double x = 0;
                double y = 0;
                ApplyPlateFit(match.Plate, double{star.X}, double{star.Y}, x, y);
                const bool inside = image.InFrame(x - 1, y - 1) && image.InFrame(x + 1, y + 1);
                return inside && image.Nearest(x, y, 5) == pair.Star2
                           ? std::hypot(x - double{there.X}, y - double{there.Y})
                           : INFINITY;
            };
            const double own = claim(catalog[pair.Star1]);
            if (std::isinf(own)) continue;  // at the border, where the last round may differ
            for (const PlateStar& star : catalog) {
                const double other = claim(star);
                contested += other < 3 && other != own;
                ASSERT_GT(other, own - 0.2);
            }
        }
        EXPECT_GE(match.Pairs.Count(), 40);
        EXPECT_LT(match.Rms, 0.2);
    }
    EXPECT_GT(contested, 500);
}

TEST(FrameStars, CandidatesAreThoseInReachAndTheWeightsOfAllSumUpToOne) {
    Random random(43);
    std::vector<PredictedStar> catalog;
    std::vector<ObservedStar> image;
    for (int i = 0; i < 150; ++i) {
        catalog.push_back(
            {random.Between(0, columns), random.Between(0, rows), random.Between(6, 12), 0});
        image.push_back(
            {random.Between(0, columns), random.Between(0, rows), random.Between(10, 1000), 0});
    }
    catalog[7].X = std::numeric_limits<double>::quiet_NaN();
    image[9].Y = std::numeric_limits<double>::infinity();
    catalog[11].Magnitude = std::numeric_limits<double>::quiet_NaN();
    const ObservedField field(image, columns, rows);
    for (const double reach : {15.0, 5000.0}) {
        const FrameStars frame(catalog, field, reach);
        ASSERT_EQ(frame.Catalog.size(), 148U);
        ASSERT_EQ(frame.Image.size(), 149U);
        EXPECT_TRUE(
            std::is_sorted(frame.Catalog.begin(), frame.Catalog.end(),
                           [](const auto& a, const auto& b) { return a.Magnitude < b.Magnitude; }));
        std::size_t near = 0;
        for (std::size_t i = 0; i < frame.Image.size(); ++i) {
            const auto& star = frame.Image[i];
            if (i > 0) {
                ASSERT_GE(frame.Image[i - 1].Star.Flux, star.Star.Flux);
            }
            std::vector<std::size_t> expected;
            for (std::size_t j = 0; j < frame.Catalog.size(); ++j) {
                if (std::hypot(frame.Catalog[j].X - star.Star.X, frame.Catalog[j].Y - star.Star.Y) <
                    reach) {
                    expected.push_back(j);
                }
            }
            ASSERT_EQ(star.Near.size(), expected.size());
            double sum = 0;
            double heaviest = 0;
            std::size_t likeliest = 0;
            for (std::size_t k = 0; k < expected.size(); ++k) {
                ASSERT_EQ(star.Near[k].Catalog, expected[k]);
                sum += star.Near[k].Weight;
                if (star.Near[k].Weight > heaviest) {
                    heaviest = star.Near[k].Weight;
                    likeliest = expected[k];
                }
            }
            near += expected.size();
            if (reach > 1000) {
                ASSERT_NEAR(sum, 1, 1e-9);
                ASSERT_EQ(likeliest, std::min(i, frame.Catalog.size() - 1)) << "the same rank";
            } else {
                ASSERT_LT(sum, 1);
            }
        }
        EXPECT_GT(near, 15U);
        StarPlaces found;
        EXPECT_FALSE(frame.Find({7, 0}, found));
        EXPECT_FALSE(frame.Find({0, 9}, found));
        ASSERT_TRUE(frame.Find({20, 30}, found));
        EXPECT_EQ(frame.Catalog[found.Catalog].X, catalog[20].X);
        EXPECT_EQ(frame.Image[found.Image].Star.X, image[30].X);
    }
}

// Half of the stars lie in a square of 100 pixels: in its middle the density is 0.5 / 100².
TEST(FrameStars, DensityOfAClusterIsTrueInTheMean) {
    Random random(44);
    double ratio = 0;
    double elsewhere = 0;
    constexpr int trials = 300;
    for (int trial = 0; trial < trials; ++trial) {
        std::vector<ObservedStar> image;
        for (int i = 0; i < 200; ++i) {
            const bool cluster = i % 2 == 0;
            const double x = cluster ? random.Between(500, 600) : random.Between(0, columns);
            const double y = cluster ? random.Between(200, 300) : random.Between(0, rows);
            image.push_back({x, y, 1, 0});
        }
        const ObservedField frame(image, columns, rows);
        ratio += frame.DensityAt(550, 250, 1000) / (0.5 / 1e4 + 0.5 / (1.0 * columns * rows));
        elsewhere += frame.DensityAt(100, 500, 1000) * columns * rows;
    }
    EXPECT_NEAR(ratio / trials, 1, 0.07);
    EXPECT_GE(elsewhere / trials, 1 - 0.05) << "never below that of evenly spread stars";
}

/// A plate that differs from the predicted places by a similarity and a little stretch.
struct TruePlate {
    double Shift[2];
    double Scale;
    double Turn;
    double Stretch;
    double Skew;
    double HalfDiagonal = std::hypot(columns, rows) / 2;

    std::pair<double, double> At(double x, double y) const {
        const double u = x - (columns - 1) / 2.0;
        const double v = y - (rows - 1) / 2.0;
        return {Shift[0] + Scale * u - Turn * v + Stretch / 2 * u + Skew / 2 * v,
                Shift[1] + Scale * v + Turn * u - Stretch / 2 * v + Skew / 2 * u};
    }
};

TEST(PlatePosterior, IsAsWrongAsItSaysWhateverTheOrderOfThePairs) {
    Random random(45);
    const PlateSpread spread{0.4, 0.004, 0};
    constexpr int trials = 1500;
    const int pairs[] = {2, 3, 6, 20};
    double normalised[4] = {};
    double outside[4] = {};
    for (int trial = 0; trial < trials; ++trial) {
        const TruePlate truth{{random.Normal(40), random.Normal(40)},
                              random.Normal(0.02),
                              random.Normal(0.02),
                              random.Normal(spread.Stretch),
                              random.Normal(spread.Stretch)};
        PlatePosterior plate(spread, columns, rows, 0, 0);
        PlatePosterior reversed = plate;
        struct Pair {
            double X, Y, Dx, Dy;
        };
        std::vector<Pair> learnt;
        for (int i = 0, k = 0; i < 20; ++i) {
            const double x = random.Between(0, columns);
            const double y = random.Between(0, rows);
            const auto [dx, dy] = truth.At(x, y);
            learnt.push_back(
                {x, y, dx + random.Normal(spread.Noise), dy + random.Normal(spread.Noise)});
            const double before = plate.Predict(100, 100).VarianceX;
            plate.Learn(x, y, learnt.back().Dx, learnt.back().Dy, spread.Noise * spread.Noise);
            ASSERT_LE(plate.Predict(100, 100).VarianceX, before * (1 + 1e-9));
            if (i + 1 != pairs[k]) continue;
            const double px = random.Between(0, columns);
            const double py = random.Between(0, rows);
            const auto there = plate.Predict(px, py);
            const auto [tx, ty] = truth.At(px, py);
            const double ex = tx - there.Dx;
            const double ey = ty - there.Dy;
            const double det =
                there.VarianceX * there.VarianceY - there.Covariance * there.Covariance;
            ASSERT_GT(det, 0);
            normalised[k] += (ex * ex * there.VarianceY - 2 * ex * ey * there.Covariance +
                              ey * ey * there.VarianceX) /
                             det / 2 / trials;
            outside[k] += plate.Predict(3 * columns, py).VarianceX / there.VarianceX / trials;
            ++k;
        }
        std::reverse(learnt.begin(), learnt.end());
        for (const Pair& pair : learnt) {
            reversed.Learn(pair.X, pair.Y, pair.Dx, pair.Dy, spread.Noise * spread.Noise);
        }
        const auto one = plate.Predict(700, 20);
        const auto other = reversed.Predict(700, 20);
        ASSERT_NEAR(one.Dx, other.Dx, 1e-4);
        ASSERT_NEAR(one.Dy, other.Dy, 1e-4);
        ASSERT_NEAR(one.VarianceX, other.VarianceX, 1e-4);
    }
    for (int k = 0; k < 4; ++k) {
        EXPECT_NEAR(normalised[k], 1, 0.1) << "after " << pairs[k] << " pairs";
        EXPECT_GT(outside[k], 2) << "after " << pairs[k] << " pairs";
    }
}

}  // namespace
}  // namespace vestrel
