// Matches that must not be sure, and skies that must be found: doubled stars, lines, few stars,
// poles, the meridian of 0 h, long frames, mirrors.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>

#include "astro/libMath.h"
#include "matching/libSeededRegions.h"
#include "program/mSearchPlan.h"
#include "tests/skySupport.h"
#include "tests/testSupport.h"

namespace vestrel {
namespace {

constexpr int columns = 900;
constexpr int rows = 700;
constexpr double arcseconds = 4;  // a pixel
constexpr double degree = std::numbers::pi / 180;

PlateStar At(double x, double y, double flux) {
    return {static_cast<float>(x), static_cast<float>(y), static_cast<float>(flux)};
}

SeedSettings Settings() {
    SeedSettings settings;
    settings.SmallestScale = arcseconds / 1.08;
    settings.LargestScale = arcseconds * 1.08;
    settings.Tolerance = 4.5;
    return settings;
}

/// Catalog stars of a circle that holds the frame, brightest first.
PlateStarList RandomCatalog(Random& random, int count) {
    const double reach = std::hypot(columns, rows) / 2 * arcseconds;
    PlateStarList catalog;
    for (int i = 0; i < count; ++i) {
        catalog.Add(At(random.Between(-reach, reach), random.Between(-reach, reach), 6 + 0.01 * i));
    }
    return catalog;
}

PlateStarList RandomImage(Random& random, int count) {
    PlateStarList image;
    for (int i = 0; i < count; ++i) {
        image.Add(At(random.Between(0, columns - 1), random.Between(0, rows - 1), 10000 - i));
    }
    return image;
}

/// The stars that a plate shows in the frame.
PlateStarList ImageOf(const PlateStarList& catalog, const PlateConstants& plate, Random& random) {
    PlateStarList image;
    for (const PlateStar& star : catalog) {
        double x = 0;
        double y = 0;
        ApplyPlateFit(plate, double{star.X}, double{star.Y}, x, y);
        if (x < 0 || y < 0 || x > columns - 1 || y > rows - 1) continue;
        image.Add(At(x + random.Normal(0.2), y + random.Normal(0.2),
                     10000 - static_cast<double>(image.Count())));
    }
    return image;
}

constexpr PlateConstants upright{1 / arcseconds, 0, columns / 2.0, 0, 1 / arcseconds, rows / 2.0};

/// The surest plate of a search.
double Surest(const PlateStarList& catalog, const PlateStarList& image) {
    const ImageStars places(image, columns, rows);
    const SeededJudge judge(places);
    SeedMatcher matcher(places, Settings());
    double surest = 0;
    const auto look = [&](const MatchedPlate& match) {
        surest = std::min(
            surest, judge.Judge(match, catalog, 1, matcher.PlatesOf(catalog)).Log10FalseAlarm);
        return false;
    };
    matcher.Match(catalog, look, [] { return false; });
    return surest;
}

/// Every star twice, a little apart: frames that were stacked badly, or two catalogs in one.
PlateStarList Doubled(const PlateStarList& stars, double dx, double dy) {
    PlateStarList both;
    for (PlateStar star : stars) {
        both.Add(star);
        star.X += static_cast<float>(dx);
        star.Y += static_cast<float>(dy);
        both.Add(star);
    }
    return both;
}

TEST(Certainty, StarsThatAreDoubleInBothListsProveNothingTwice) {
    Random random(61);
    for (int trial = 0; trial < 12; ++trial) {
        const PlateStarList catalog = Doubled(RandomCatalog(random, 100), 0.4, 0);
        const PlateStarList image = Doubled(RandomImage(random, random.Whole(15, 40)), 3, 2);
        EXPECT_GT(Surest(catalog, image), -4) << trial;
    }
}

TEST(Certainty, OfOtherStarsOnLinesAndLatticesIsNeverReached) {
    Random random(62);
    for (int trial = 0; trial < 8; ++trial) {
        PlateStarList catalog = RandomCatalog(random, 150);
        PlateStarList image = RandomImage(random, 40);
        for (std::size_t i = 1; i <= 40; ++i) {
            const auto n = static_cast<double>(i);
            // Trains of satellites and bad columns; lamps of a town.
            if (trial % 2 == 0) {
                image[i].Y = image[i].X / 3 + 100;
            } else {
                image[i].X = static_cast<float>(60 + 110 * std::fmod(n, 8));
                image[i].Y = static_cast<float>(60 + 110 * std::floor(n / 8));
            }
        }
        for (PlateStar& star : catalog) star.Flux = 8;  // as a catalog without magnitudes has
        EXPECT_GT(Surest(catalog, image), -4) << trial;
    }
}

TEST(Certainty, OfRightPlatesDoesNotNeedMagnitudes) {
    Random random(63);
    PlateStarList catalog = RandomCatalog(random, 60);
    PlateStarList image = ImageOf(catalog, upright, random);
    for (PlateStar& star : catalog) star.Flux = 8;
    for (PlateStar& star : image) star.Flux = 1000;
    EXPECT_LE(Surest(catalog, image), SureLog10FalseAlarm);
}

TEST(Certainty, IsOutOfReachOfThreeStars) {
    Random random(64);
    for (int stars = 0; stars <= 3; ++stars) {
        const PlateStarList catalog = RandomCatalog(random, 80);
        PlateStarList image = ImageOf(catalog, upright, random);
        image.Resize(std::min(stars, image.Count()));
        EXPECT_GT(Surest(catalog, image), SureLog10FalseAlarm) << stars;
    }
}

TEST(Certainty, IsTheSameWithAPreparedField) {
    Random random(65);
    for (int trial = 0; trial < 20; ++trial) {
        const PlateStarList catalog = RandomCatalog(random, 120);
        PlateStarList image = ImageOf(catalog, upright, random);
        if (trial % 2 == 0) image = RandomImage(random, 50);
        for (const PlateStar& star : RandomImage(random, 10)) image.Add(star);
        MatchEvidence evidence = EvidenceOf(upright, catalog, image, columns, rows);
        evidence.Trials = 7;
        const MatchConfidence plain = ConfidenceOf(evidence);
        ObservedField field(evidence.Image, columns, rows);
        field.KeepDensities();
        evidence.Field = &field;
        evidence.Image.clear();
        const MatchConfidence prepared = ConfidenceOf(evidence);
        EXPECT_EQ(prepared.Log10FalseAlarm, plain.Log10FalseAlarm);
        EXPECT_EQ(prepared.Log10LikelihoodRatio, plain.Log10LikelihoodRatio);
        EXPECT_EQ(prepared.Log10Trials, plain.Log10Trials);
        EXPECT_EQ(prepared.Matched, plain.Matched);
        EXPECT_EQ(prepared.ExpectedByChance, plain.ExpectedByChance);
        EXPECT_EQ(IsSure(plain), trial % 2 != 0);
    }
}

TEST(SeededRegions, GiveTheFirstPlateWhateverTheNumberOfThreads) {
    Random random(66);
    const PlateStarList right = RandomCatalog(random, 90);
    PlateStarList image = ImageOf(right, upright, random);
    for (const PlateStar& star : RandomImage(random, 10)) image.Add(star);
    const ImageStars places(image, columns, rows);
    const SeededJudge judge(places);
    PlateStarList turned = right;
    for (PlateStar& star : turned) {
        star.X = -star.X;
        star.Y = -star.Y;
    }
    std::vector<SeededRegion> regions;
    for (int i = 0; i < 6; ++i) {
        const bool has = i == 2 || i == 4;
        regions.push_back({{0, 0.1 * i},
                           has ? (i == 2 ? right : turned) : RandomCatalog(random, 90),
                           static_cast<double>(i + 1),
                           {},
                           {}});
    }
    std::vector<MatchedPlate> plates;
    for (const int threads : {1, 2, 5}) {
        const ThreadsForNow limit(threads);
        SeededRegions search(judge, Settings());
        std::vector<SeededRegion> searched = regions;
        // The second time with matchers that have been used.
        for (int time = 0; time < 2; ++time) {
            search.Match(searched, [] { return false; });
            for (std::size_t i = 0; i < searched.size(); ++i) {
                EXPECT_EQ(searched[i].Plate.has_value(), i == 2) << i << " " << threads;
            }
            ASSERT_TRUE(searched[2].Plate);
            EXPECT_TRUE(IsSure(searched[2].Confidence));
            plates.push_back(*searched[2].Plate);
        }
    }
    for (const MatchedPlate& plate : plates) {
        EXPECT_EQ(plate.Plate.a, plates[0].Plate.a);
        EXPECT_EQ(plate.Plate.f, plates[0].Plate.f);
        EXPECT_EQ(plate.Pairs.Count(), plates[0].Pairs.Count());
    }
    SeededRegions search(judge, Settings());
    std::vector<SeededRegion> none(3, regions[0]);
    int asked = 0;
    search.Match(none, [&asked] { return ++asked > 0; });
    for (const SeededRegion& region : none) EXPECT_FALSE(region.Plate);
    search.Match(regions, [] { return false; });
    EXPECT_TRUE(regions[2].Plate);  // a search that was stopped leaves nothing behind
}

/// A sky about a place, and a list of what a camera sees of it.
class WrappedSky : public testing::Test {
 protected:
    /// @param turn of the camera, radians
    void Make(SkyPosition about, int width, int height, double turn, bool mirrored) {
        Random random(67);
        std::vector<CatalogStar> sky;
        Projection plane;
        plane.SetProjectionCentre(about, SolveArcsecondsPerRadian);
        const double reach = std::hypot(width, height) / 2 * arcseconds * 1.4;
        Stars.Clear();
        const double c = std::cos(turn) / arcseconds;
        const double s = std::sin(turn) / arcseconds;
        const double sideways = mirrored ? -1 : 1;
        for (int i = 0; i < 700; ++i) {
            const double xi = random.Between(-reach, reach);
            const double eta = random.Between(-reach, reach);
            const SkyPosition there = plane.PlaneToSky(xi, eta);
            sky.push_back({static_cast<float>(there.Ra), static_cast<float>(there.Dec),
                           static_cast<std::int16_t>(700 + i)});
            const double x = (width - 1) / 2.0 + c * xi - sideways * s * eta;
            const double y = (height - 1) / 2.0 + s * xi + sideways * c * eta;
            if (x < 0 || y < 0 || x > width - 1 || y > height - 1) continue;
            Stars.Add(At(x + random.Normal(0.2), y + random.Normal(0.2), 90000 - 100 * i));
        }
        WriteCatalog(Folder / "catalog", sky);
        State.Catalog.Folder = Folder / "catalog";
        State.Image = EmptyImage(width, height, 0);
        State.ImageLoaded = true;
    }

    TemporaryFolder Folder;
    ProgramState State;
    PlateStarList Stars;
};

struct Pointing {
    const char* Name;
    double Ra;   ///< degrees
    double Dec;  ///< degrees
    int Width;
    int Height;
    bool Mirrored;
};

class Pointings : public WrappedSky, public testing::WithParamInterface<Pointing> {};

TEST_P(Pointings, AreFoundFromANearbyCentreBySearchAndBySeeds) {
    const Pointing& pointing = GetParam();
    const SkyPosition about{pointing.Ra * degree, pointing.Dec * degree};
    Make(about, pointing.Width, pointing.Height, 0.8, pointing.Mirrored);
    ASSERT_GT(Stars.Count(), 20);
    for (const bool seeds : {false, true}) {
        PlateStarList list;
        Random random(68);
        // The brightest are lost and others are false: triangles of the brightest fail.
        for (int i = seeds ? 1 : 0; i < Stars.Count() && i < 40; i += seeds ? 2 : 1) {
            list.Add(Stars[i + 1]);
            if (seeds) {
                list.Add(At(random.Between(0, pointing.Width - 1),
                            random.Between(0, pointing.Height - 1), double{list[1].Flux} - i));
            }
        }
        // A fifth of the shorter side off, on the plane, so that it may lie across a pole.
        Projection plane;
        plane.SetProjectionCentre(about, SolveArcsecondsPerRadian);
        const double off = 0.2 * std::min(pointing.Width, pointing.Height) * arcseconds;
        const double radians = arcseconds / 3600 * degree;
        SearchRequest request;
        request.Stars = list;
        request.Around = {{plane.PlaneToSky(0.6 * off, -0.8 * off), pointing.Width * radians,
                           pointing.Height * radians, 9}};
        request.TimeLimit = 600;
        State.ImageLoaded = true;
        RecordingPort port(State);
        PlanReport report;
        ASSERT_EQ(SolveByPlan(State, port, request, report), SolveCode::Solved) << seeds;
        const SkyPosition found = State.Solution->Centre();
        const double apart = std::acos(std::clamp(
            std::sin(found.Dec) * std::sin(about.Dec) +
                std::cos(found.Dec) * std::cos(about.Dec) * std::cos(found.Ra - about.Ra),
            -1.0, 1.0));
        EXPECT_LT(apart / radians, 0.5) << report.SolvedBy;
        EXPECT_TRUE(IsSure(State.Solution->Confidence));
        EXPECT_NEAR(State.Solution->WidthArcmin, pointing.Width * arcseconds / 60,
                    0.002 * pointing.Width);
    }
}

INSTANTIATE_TEST_SUITE_P(Sky, Pointings,
                         testing::Values(Pointing{"NorthPole", 40, 89.95, 900, 700, false},
                                         Pointing{"ExactNorthPole", 0, 90, 900, 700, true},
                                         Pointing{"SouthPole", 200, -89.8, 900, 700, false},
                                         Pointing{"ZeroHoursFromAbove", 0.05, 12, 900, 700, true},
                                         Pointing{"ZeroHoursFromBelow", 359.9, -60, 900, 700,
                                                  false},
                                         Pointing{"WideStrip", 120, 30, 2400, 300, false},
                                         Pointing{"TallStrip", 359.99, 5, 300, 2400, true}),
                         [](const auto& test) { return std::string(test.param.Name); });

}  // namespace
}  // namespace vestrel
