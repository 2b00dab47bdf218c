// The parts of the search plan: peaks of difficult images, plates from seeds and how sure they are,
// and the camera's plane.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>
#include <set>

#include "astro/libMath.h"
#include "extraction/libNegative.h"
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

    /// The surest of all confirmed plates, and its error in a corner, pixels.
    struct Outcome {
        double Log10FalseAlarm = 0;
        double CornerError = INFINITY;
    };
    Outcome Search() const {
        const ImageStars places(Image, columns, rows);
        SeedMatcher matcher(places, Settings());
        const SeededJudge judge(places);
        Outcome best;
        const auto accept = [&](const MatchedPlate& match) {
            const MatchConfidence confidence =
                judge.Judge(match, Catalog, 1, matcher.PlatesOf(Catalog));
            if (confidence.Log10FalseAlarm < best.Log10FalseAlarm) {
                best = {confidence.Log10FalseAlarm, ErrorOf(match.Plate)};
            }
            return IsSure(confidence);
        };
        matcher.Match(Catalog, accept, [] { return false; });
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

double LengthOf(const PlateStar& a, const PlateStar& b) {
    return std::hypot(double{a.X} - double{b.X}, double{a.Y} - double{b.Y});
}

TEST_F(SeededField, PlatesTriedAreThoseWithALengthInRangeThatWereNotTriedBefore) {
    Random random(43);
    Make(random, 60, 20, 20, false);
    const ImageStars places(Image, columns, rows);
    SeedSettings settings = Settings();
    for (const bool wider : {false, true}) {
        if (wider) {
            settings.TriedSmallest = settings.SmallestScale;
            settings.TriedLargest = settings.LargestScale;
            settings.SmallestScale /= 1.2;
            settings.LargestScale *= 1.3;
        }
        double expected = 0;
        for (int c1 = 1; c1 <= settings.CatalogSeeds; ++c1) {
            for (int c2 = 1; c2 < c1; ++c2) {
                for (int i = 1; i <= std::min(settings.ImageSeeds, Image.Count()); ++i) {
                    for (int j = 1; j <= std::min(settings.ImageSeeds, Image.Count()); ++j) {
                        const double pixels = LengthOf(Image[i], Image[j]);
                        const double scale = LengthOf(Catalog[c1], Catalog[c2]) / pixels;
                        const bool tried =
                            scale >= settings.TriedSmallest && scale <= settings.TriedLargest;
                        // Both sides of the sky for each order.
                        if (i != j && pixels >= 0.12 * std::hypot(columns, rows) && !tried &&
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
}

/// Whether catalog stars confirm a plate, by a plain search for each of them.
bool SpeaksFor(const PlateConstants& plate, const PlateStarList& catalog, const ImageStars& image,
               double tolerance) {
    std::set<int> met;
    double odds = 0;
    double best = 0;
    for (int c = 1; c <= std::min(120, catalog.Count()) && odds >= -4.5; ++c) {
        double x = 0;
        double y = 0;
        ApplyPlateFit(plate, double{catalog[c].X}, double{catalog[c].Y}, x, y);
        if (!image.InFrame(x, y)) continue;
        int nearest = 0;
        double closest = tolerance;
        for (int i = 1; i <= image.Count(); ++i) {
            const double distance = LengthOf(image.Stars()[i], At(x, y));
            if (distance < closest) {
                closest = distance;
                nearest = i;
            }
        }
        if (nearest == 0) {
            odds -= std::log(2);
        } else if (met.insert(nearest).second && met.size() > 2) {
            const double chance =
                std::min(image.DensityAt(x, y) * std::numbers::pi * tolerance * tolerance, 0.9);
            odds += std::log(0.5 / chance + 0.5);
            best = std::max(best, odds);
        }
    }
    return best > 7;
}

TEST_F(SeededField, PlatesShownAreThoseThatAPlainSearchFinds) {
    Random random(50);
    // Crowded, so that chance confirms many plates; with stars exactly at the edges.
    Make(random, 150, 60, 40, true);
    for (const auto& [x, y] : {std::pair(-0.45, -0.45), std::pair(columns - 0.55, rows - 0.55),
                               std::pair(0.0, rows / 2.0), std::pair(columns - 0.6, 3.0)}) {
        Image.Add(At(x, y, 1));
    }
    const ImageStars places(Image, columns, rows);
    SeedSettings settings = Settings();
    settings.CatalogSeeds = 12;
    settings.ImageSeeds = 16;
    settings.Tolerance = 4.5;
    std::set<std::array<int, 4>> shown;
    SeedMatcher matcher(places, settings);
    matcher.Match(
        Catalog,
        [&](const MatchedPlate& match) {
            shown.insert({match.Seed[1].Star1, match.Seed[1].Star2, match.Seed[2].Star1,
                          match.Seed[2].Star2});
            return false;
        },
        [] { return false; });
    std::set<std::array<int, 4>> expected;
    for (int c1 = 1; c1 <= settings.CatalogSeeds; ++c1) {
        for (int c2 = c1 + 1; c2 <= settings.CatalogSeeds; ++c2) {
            for (int i = 1; i <= settings.ImageSeeds; ++i) {
                for (int j = 1; j <= settings.ImageSeeds; ++j) {
                    const double pixels = LengthOf(Image[i], Image[j]);
                    const double scale = LengthOf(Catalog[c1], Catalog[c2]) / pixels;
                    if (i == j || pixels < 0.12 * std::hypot(columns, rows) ||
                        scale < settings.SmallestScale || scale > settings.LargestScale) {
                        continue;
                    }
                    for (const double side : {1.0, -1.0}) {
                        PlateStarList ends{Catalog[c1], Catalog[c2]};
                        PlateConstants plate{1, 0, 0, 0, side, 0};
                        const PlateStarList there{Image[i], Image[j]};
                        FitSimilarPlate(ends, there, {{1, 1, 0, true}, {2, 2, 0, true}}, plate);
                        MatchedPlate match;
                        match.Plate = plate;
                        if (SpeaksFor(plate, Catalog, places, settings.Tolerance) &&
                            RefinePlate(Catalog, places, settings.Tolerance, match)) {
                            expected.insert({c1, i, c2, j});
                        }
                    }
                }
            }
        }
    }
    EXPECT_GT(expected.size(), 3U);
    EXPECT_EQ(shown, expected);
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
            image.Pixels.Wide()(x, y) =
                static_cast<int>(std::lround(500 + cloud + random.Normal(8)));
        }
    }
    std::vector<PlateStar> stars;
    for (int i = 0; i < 40; ++i) {
        stars.push_back(At(40 + 100 * (i % 8) + random.Between(0, 20),
                           60 + 130 * (i / 8) + random.Between(0, 20), 60000 - 1200 * i));
        const PlateStar& star = stars.back();
        AddStar(image, double{star.X}, double{star.Y}, double{star.Flux}, 1.6);
    }
    // The brightest star is saturated: it has a flat top, which must not give a second peak.
    for (int y = 0; y < rows; ++y) {
        for (int x = 0; x < columns; ++x)
            image.Pixels.Wide()(x, y) = std::min(image.Pixels(x, y), 4000);
    }
    for (int i = 0; i < 30; ++i)
        image.Pixels.Wide()(15 + 29 * i, 350 + (i % 3) * 17) += 9000;            // hot
    for (int x = 10; x < columns; x += 14) image.Pixels.Wide()(x, 690) += 3000;  // a bad row
    for (const int binning : {1, 2}) {
        PeakSettings settings;
        settings.Binning = binning;
        const PlateStarList found = StarListOf(StarsAmong(FindPeaks(image, settings), image));
        for (const PlateStar& star : stars) {
            // After binning, the nebula is too steep within one cell of the noise map.
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

TEST(Peaks, HaveTheLightAndWidthOfTheirStarWhateverTheBinning) {
    constexpr double sigma = 8;
    constexpr double light = 3e6;
    PlateImage image = EmptyImage(columns, rows, 0);
    Random random(54);
    for (int y = 0; y < rows; ++y) {
        for (int x = 0; x < columns; ++x) {
            image.Pixels.Wide()(x, y) = static_cast<int>(std::lround(500 + random.Normal(4)));
        }
    }
    AddStar(image, 411.3, 302.8, light, sigma);
    // The part of a Gaussian's light that lies above a quarter of its height.
    const double above = light * (3 - std::log(4)) / 4;
    for (const int binning : {1, 2, 4}) {
        PeakSettings settings;
        settings.Binning = binning;
        const std::vector<Peak> peaks = FindPeaks(image, settings);
        ASSERT_FALSE(peaks.empty());
        EXPECT_NEAR(peaks[0].Flux / above, 1, 0.03) << binning;
        EXPECT_NEAR(peaks[0].X, 411.3, 0.1) << binning;
        EXPECT_NEAR(peaks[0].Y, 302.8, 0.1) << binning;
        // The smoothing and the binned pixels themselves add to the width.
        const double wide = std::sqrt(sigma * sigma + (1.17 * 1.17 + 1 / 12.0) * binning * binning);
        EXPECT_NEAR(peaks[0].HalfWidth / (wide * std::sqrt(2 * std::log(2))), 1, 0.03) << binning;
    }
}

TEST(Peaks, OfAFlatTopAreOneHoweverLongItIs) {
    for (const bool upright : {false, true}) {
        PlateImage image = EmptyImage(columns, rows, 0);
        for (int y = 0; y < rows; ++y) {
            for (int x = 0; x < columns; ++x)
                image.Pixels.Wide()(x, y) = 500 + (x * 7 + y * 13) % 5;
        }
        // A saturated star has bled along its column or its row.
        for (int along = 0; along < 160; ++along) {
            for (int across = 0; across < 9; ++across) {
                (upright ? image.Pixels.Wide()(400 + across, 300 + along)
                         : image.Pixels.Wide()(400 + along, 300 + across)) = 60000;
            }
        }
        const std::vector<Peak> peaks = FindPeaks(image, {});
        const auto bled = std::count_if(peaks.begin(), peaks.end(), [](const Peak& peak) {
            return peak.X > 380 && peak.X < 580 && peak.Y > 280 && peak.Y < 480;
        });
        EXPECT_EQ(bled, 1) << upright;
    }
}

TEST(Peaks, SpreadEvenlyComeFromEveryPartFirst) {
    Random random(46);
    PlateStarList stars;
    for (int i = 0; i < 300; ++i) {
        // Most of the bright stars crowd in a corner.
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

TEST(Peaks, OfANegativeAreThoseOfThePicture) {
    Random random(49);
    PlateImage image = EmptyImage(columns, rows, 300);
    for (int y = 0; y < rows; ++y) {
        for (int x = 0; x < columns; ++x) {
            image.Pixels.Wide()(x, y) += static_cast<std::int32_t>(std::lround(random.Normal(5)));
        }
    }
    for (int i = 0; i < 60; ++i) {
        AddStar(image, random.Between(20, columns - 20), random.Between(20, rows - 20),
                random.Between(1500, 5500), 1.6);
    }
    const auto turnOver = [&image] {
        for (int y = 0; y < rows; ++y) {
            for (int x = 0; x < columns; ++x) image.Pixels.Wide()(x, y) = 700 - image.Pixels(x, y);
        }
    };
    // One value far away makes no difference, nor do cells of 16 bits.
    const auto mayBeNegative = [&image] {
        const std::int32_t corner = image.Pixels(0, 0);
        const bool together = MayBeNegative(image);
        PlateImage narrow = EmptyImage(columns, rows, 0);
        narrow.Pixels = PixelGrid::Narrow(columns, rows, -9000);
        for (int y = 0; y < rows; ++y) {
            narrow.Pixels.Store(0, y, image.Pixels.Wide().Row(y).first(columns));
        }
        EXPECT_EQ(MayBeNegative(narrow), together);
        image.Pixels.Wide()(0, 0) = 100000;
        EXPECT_EQ(MayBeNegative(image), together);
        image.Pixels.Wide()(0, 0) = corner;
        return together;
    };
    EXPECT_FALSE(mayBeNegative());
    const std::vector<Peak> plain = StarsAmong(FindPeaks(image, {}), image);
    PeakSettings dark;
    dark.Dark = true;
    turnOver();
    EXPECT_TRUE(mayBeNegative());
    const std::vector<Peak> turned = StarsAmong(FindPeaks(image, dark), image);
    EXPECT_GT(plain.size(), 50U);
    ASSERT_EQ(turned.size(), plain.size());
    for (std::size_t i = 0; i < plain.size(); ++i) {
        const auto same = [&](const Peak& peak) {
            return std::hypot(peak.X - plain[i].X, peak.Y - plain[i].Y) < 0.2;
        };
        EXPECT_TRUE(std::any_of(turned.begin(), turned.end(), same)) << i;
    }
    // Hills in front of the sky are dark, but not stars.
    turnOver();
    for (int y = 0; y < rows / 3; ++y) {
        for (int x = 0; x < columns; ++x) image.Pixels.Wide()(x, y) = 20;
    }
    EXPECT_GT(StarsAmong(FindPeaks(image, {}), image).size(),
              StarsAmong(FindPeaks(image, dark), image).size());
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
    // Far more regions than the time allows.
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
