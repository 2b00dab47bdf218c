// What the search plan is made of: peaks of difficult images, plates from seeds and how sure they
// are, and the camera's plane.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <set>

#include "astro/libMath.h"
#include "extraction/libRobustStars.h"
#include "matching/libCameraPlane.h"
#include "matching/libSeededConfidence.h"
#include "program/mSearchPlan.h"
#include "tests/testSupport.h"

namespace vestrel {
namespace {

constexpr int columns = 900;
constexpr int rows = 700;
constexpr double arcseconds = 4;  // a pixel

PlateStar At(double x, double y, double flux = 0) {
    return {static_cast<float>(x), static_cast<float>(y), static_cast<float>(flux)};
}

/// Catalog stars about a place, brightest first, and an image of them: turned, mirrored or not, and
/// in part false.
class SeededField : public testing::Test {
 protected:
    void Make(Random& random, int catalogStars, int trueStars, int falseStars, bool mirrored) {
        const double turn = random.Between(0, 2 * std::numbers::pi);
        const double side = mirrored ? -1 : 1;
        const double c = std::cos(turn) / arcseconds;
        const double s = std::sin(turn) / arcseconds;
        Truth = {c, -side * s, columns / 2.0, s, side * c, rows / 2.0};
        Catalog.Clear();
        Image.Clear();
        const double reach = std::hypot(columns, rows) / 2 * arcseconds;
        std::vector<PlateStar> seen;
        for (int i = 0; i < catalogStars; ++i) {
            const PlateStar star =
                At(random.Between(-reach, reach), random.Between(-reach, reach), 6 + 0.05 * i);
            Catalog.Add(star);
            double x = 0;
            double y = 0;
            ApplyPlateFit(Truth, double{star.X}, double{star.Y}, x, y);
            const bool inside = x >= 0 && y >= 0 && x <= columns - 1 && y <= rows - 1;
            if (inside && static_cast<int>(seen.size()) < trueStars) {
                seen.push_back(At(x + random.Normal(0.2), y + random.Normal(0.2)));
            }
        }
        for (int i = 0; i < falseStars; ++i) {
            seen.insert(seen.begin() + random.Whole(0, static_cast<int>(seen.size())),
                        At(random.Between(0, columns - 1), random.Between(0, rows - 1)));
        }
        float flux = 10000;
        for (PlateStar star : seen) {
            star.Flux = flux -= 10;
            Image.Add(star);
        }
    }

    static SeedSettings Settings() {
        SeedSettings settings;
        settings.SmallestScale = arcseconds / 1.08;
        settings.LargestScale = arcseconds * 1.08;
        return settings;
    }

    /// The surest plate of all that are confirmed, and how far off it puts a corner, pixels.
    struct Outcome {
        double Log10FalseAlarm = 0;
        double CornerError = INFINITY;
    };
    Outcome Search() const {
        const ImageStars places(Image, columns, rows);
        SeedMatcher matcher(places, Settings());
        Outcome best;
        const auto judge = [&](const MatchedPlate& match) {
            const double log =
                ConfidenceOf(match, Catalog, places, 1, matcher.PlatesOf(Catalog)).Log10FalseAlarm;
            if (log < best.Log10FalseAlarm) best = {log, ErrorOf(match.Plate)};
            return IsSure(ConfidenceOf(match, Catalog, places, 1, matcher.PlatesOf(Catalog)));
        };
        matcher.Match(Catalog, judge, [] { return false; });
        return best;
    }

    double ErrorOf(const PlateConstants& plate) const {
        double worst = 0;
        for (const double x : {0.0, columns - 1.0}) {
            for (const double y : {0.0, rows - 1.0}) {
                double xi = 0;
                double eta = 0;
                InvertPlateFit(Truth, x, y, xi, eta);
                double u = 0;
                double v = 0;
                ApplyPlateFit(plate, xi, eta, u, v);
                worst = std::max(worst, std::hypot(u - x, v - y));
            }
        }
        return worst;
    }

    PlateConstants Truth;
    PlateStarList Catalog;
    PlateStarList Image;
};

TEST_F(SeededField, IsFoundAmongFalseStarsAndSureFromSix) {
    Random random(41);
    for (const bool mirrored : {false, true}) {
        for (const auto& [trueStars, falseStars] :
             {std::pair(30, 30), std::pair(15, 5), std::pair(6, 0)}) {
            for (int trial = 0; trial < 3; ++trial) {
                Make(random, 200, trueStars, falseStars, mirrored);
                const Outcome outcome = Search();
                EXPECT_LT(outcome.CornerError, 2.5) << trueStars << " " << mirrored;
                EXPECT_LE(outcome.Log10FalseAlarm, SureLog10FalseAlarm) << trueStars;
            }
        }
    }
}

TEST_F(SeededField, OfOtherStarsIsNeverSure) {
    Random random(42);
    for (int trial = 0; trial < 40; ++trial) {
        Make(random, 150, 0, random.Whole(4, 30), false);
        EXPECT_GT(Search().Log10FalseAlarm, -3);
    }
}

TEST_F(SeededField, PlatesTriedAreThoseWithALengthInRange) {
    Random random(43);
    Make(random, 60, 20, 20, false);
    const ImageStars places(Image, columns, rows);
    const SeedSettings settings = Settings();
    const auto length = [](const PlateStar& a, const PlateStar& b) {
        return std::hypot(double{a.X} - double{b.X}, double{a.Y} - double{b.Y});
    };
    double expected = 0;
    for (int c1 = 1; c1 <= settings.CatalogSeeds; ++c1) {
        for (int c2 = 1; c2 < c1; ++c2) {
            for (int i = 1; i <= std::min(settings.ImageSeeds, Image.Count()); ++i) {
                for (int j = 1; j <= std::min(settings.ImageSeeds, Image.Count()); ++j) {
                    const double pixels = length(Image[i], Image[j]);
                    const double scale = length(Catalog[c1], Catalog[c2]) / pixels;
                    // Both sides of the sky for each order.
                    if (i != j && pixels >= 0.12 * std::hypot(columns, rows) &&
                        scale >= settings.SmallestScale && scale <= settings.LargestScale) {
                        expected += 2;
                    }
                }
            }
        }
    }
    EXPECT_GT(expected, 1000);
    EXPECT_EQ(SeedMatcher(places, settings).PlatesOf(Catalog), expected);
}

TEST(CameraPlane, IsGnomonicAndAPlateAboutTheMiddleIsTheSamePlate) {
    const SkyPosition tangent{1.2, 0.9};
    Random random(44);
    PlateStarList stars;
    for (int i = 0; i < 200; ++i) {
        stars.Add({0, 0, 0, random.Between(0, 2 * Pi), std::asin(random.Between(-1, 1))});
    }
    const auto angle = [](SkyPosition a, double ra, double dec) {
        return std::acos(std::clamp(
            std::sin(a.Dec) * std::sin(dec) + std::cos(a.Dec) * std::cos(dec) * std::cos(a.Ra - ra),
            -1.0, 1.0));
    };
    const PlateStarList plane = OnCameraPlane(stars, tangent);
    int near = 0;
    for (const PlateStar& star : stars) near += std::cos(angle(tangent, star.Ra, star.Dec)) >= 0.2;
    EXPECT_EQ(plane.Count(), near);
    for (const PlateStar& star : plane) {
        const double radius =
            std::tan(angle(tangent, star.Ra, star.Dec)) * SolveArcsecondsPerRadian;
        EXPECT_NEAR(std::hypot(double{star.X}, double{star.Y}) / radius, 1, 1e-5);
    }

    // A camera pointed 6° from where its plate is known: the same sky at the same pixels.
    const PlateConstants plate{0.05, 0.02, columns / 2.0 + 260, -0.02, 0.05, rows / 2.0 - 120};
    const auto centred = PlateAboutMiddle(plate, tangent, PlaneKind::Camera, columns, rows);
    ASSERT_TRUE(centred);
    EXPECT_NEAR(angle(tangent, centred->Centre.Ra, centred->Centre.Dec), 0.0258, 0.002);
    PlateStarList field;
    for (int i = 0; i < 100; ++i) {
        field.Add({0, 0, 0, tangent.Ra + random.Between(-0.06, 0.06),
                   tangent.Dec + random.Between(-0.04, 0.04)});
    }
    const PlateStarList before = OnCameraPlane(field, tangent);
    const PlateStarList after = OnCameraPlane(field, centred->Centre);
    for (int i = 1; i <= field.Count(); ++i) {
        double x = 0;
        double y = 0;
        double u = 0;
        double v = 0;
        ApplyPlateFit(plate, double{before[i].X}, double{before[i].Y}, x, y);
        ApplyPlateFit(centred->Plate, double{after[i].X}, double{after[i].Y}, u, v);
        // Both planes agree in the middle, and part with the square of the distance from it.
        const double off = std::hypot(x - (columns - 1) / 2.0, y - (rows - 1) / 2.0);
        EXPECT_LT(std::hypot(u - x, v - y), 0.01 + 8e-6 * off * off);
    }
    EXPECT_FALSE(PlateAboutMiddle({1, 1, 0, 1, 1, 0}, tangent, PlaneKind::Camera, columns, rows));
}

TEST(Peaks, AreTheStarsInANebulaWithoutHotPixelsRowsAndLowerSummits) {
    PlateImage image = EmptyImage(columns, rows, 0);
    Random random(45);
    for (int y = 0; y < rows; ++y) {
        for (int x = 0; x < columns; ++x) {
            const double cloud =
                2000 * std::exp(-((x - 300.0) * (x - 300) + (y - 400.0) * (y - 400)) / 2e4);
            image.Pixels(x, y) = static_cast<int>(std::lround(500 + cloud + random.Normal(8)));
        }
    }
    std::vector<PlateStar> stars;
    for (int i = 0; i < 40; ++i) {
        stars.push_back(At(40 + 100 * (i % 8) + random.Between(0, 20),
                           60 + 130 * (i / 8) + random.Between(0, 20), 60000 - 1200 * i));
        const PlateStar& star = stars.back();
        AddStar(image, double{star.X}, double{star.Y}, double{star.Flux}, 1.6);
    }
    // The brightest is saturated: a flat top, no second summit on it.
    for (int y = 0; y < rows; ++y) {
        for (int x = 0; x < columns; ++x) image.Pixels(x, y) = std::min(image.Pixels(x, y), 4000);
    }
    for (int i = 0; i < 30; ++i) image.Pixels(15 + 29 * i, 350 + (i % 3) * 17) += 9000;  // hot
    for (int x = 10; x < columns; x += 14) image.Pixels(x, 690) += 3000;  // a bad row
    for (const int binning : {1, 2}) {
        PeakSettings settings;
        settings.Binning = binning;
        const PlateStarList found = StarListOf(StarsAmong(FindPeaks(image, settings), image));
        for (const PlateStar& star : stars) {
            // Binned, the nebula is steep within a cell of the noise.
            if (binning > 1 && std::hypot(star.X - 300, star.Y - 400) < 300) continue;
            double nearest = INFINITY;
            for (const PlateStar& peak : found) {
                nearest = std::min(nearest, std::hypot(double{peak.X} - double{star.X},
                                                       double{peak.Y} - double{star.Y}));
            }
            EXPECT_LT(nearest, 0.5) << star.X << " " << star.Y << " binned by " << binning;
        }
        if (binning > 1) continue;
        EXPECT_EQ(found.Count(), static_cast<int>(stars.size()));
    }
}

TEST(Peaks, SpreadEvenlyComeFromEveryPartFirst) {
    Random random(46);
    PlateStarList stars;
    for (int i = 0; i < 300; ++i) {
        // Most of the bright ones crowd in a corner.
        stars.Add(i % 4 != 0 ? At(random.Between(0, 60), random.Between(0, 60), 1000 - i)
                             : At(random.Between(0, columns), random.Between(0, rows), 1000 - i));
    }
    const PlateStarList even = SpreadEvenly(stars, columns, rows);
    ASSERT_EQ(even.Count(), stars.Count());
    std::set<int> cells;
    std::set<float> fluxes;
    for (int i = 1; i <= even.Count(); ++i) {
        const PlateStar& star = even[i];
        fluxes.insert(star.Flux);
        if (i > 16) continue;
        cells.insert(static_cast<int>(star.X / columns * 4) +
                     10 * static_cast<int>(star.Y / rows * 4));
    }
    EXPECT_EQ(fluxes.size(), 300U);
    EXPECT_EQ(cells.size(), 16U);
}

TEST(SearchPlan, EndsWithinItsTimeLimitAndWhenItIsStopped) {
    const TemporaryFolder folder;
    ProgramState state;
    state.Catalog.Folder = folder.Path;
    state.Image = EmptyImage(columns, rows, 0);
    state.ImageLoaded = true;
    Random random(47);
    SearchRequest request;
    request.Stars.emplace();
    for (int i = 0; i < 60; ++i) {
        request.Stars->Add(At(random.Between(0, columns), random.Between(0, rows), 1000 - i));
    }
    // Far more regions than can be looked at.
    request.Around = {{{1, 0.5}, 0.02, 0.015, 2'000'000'000}};
    request.Everywhere = true;
    request.TimeLimit = 0.2;
    RecordingPort port(state);
    PlanReport report;
    EXPECT_EQ(SolveByPlan(state, port, request, report), SolveCode::NoMatch);
    EXPECT_TRUE(report.TimeLimitReached);
    ASSERT_EQ(report.Attempts.size(), 1U);
    EXPECT_LT(report.Attempts.front().Seconds, 5);

    request.TimeLimit = 600;
    port.StopAtYield = port.Yields + 10;
    EXPECT_EQ(SolveByPlan(state, port, request, report), SolveCode::Stopped);
    EXPECT_FALSE(report.TimeLimitReached);
}

}  // namespace
}  // namespace vestrel
