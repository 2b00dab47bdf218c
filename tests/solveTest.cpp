// The solve procedure on a small sky of its own.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <set>
#include <sstream>
#include <tuple>

#include "astro/libConversions.h"
#include "astro/libMath.h"
#include "astro/libStrings.h"
#include "catalog/libCatalogCells.h"
#include "program/mPlateMatch.h"
#include "tests/skySupport.h"
#include "tests/testSupport.h"

namespace vestrel {
namespace {

using Texts = std::vector<std::string>;

constexpr double arcsecond = 1 / SolveArcsecondsPerRadian;
constexpr int imageWidth = 300;
constexpr int imageHeight = 240;
constexpr double pixelScale = 2;  // arcseconds
constexpr double plateWidth = imageWidth * pixelScale * arcsecond;
constexpr double plateHeight = imageHeight * pixelScale * arcsecond;
// One step of the spiral, arcseconds.
constexpr double spiralStep = imageHeight * pixelScale / 2.5;
constexpr SkyPosition skyCentre{1.3, 0.4};

// The cells in their order, the starting one first.
const std::vector<std::pair<int, int>> spiral = {{0, 0},  {1, 0},  {1, -1}, {0, -1}, {-1, -1},
                                                 {-1, 0}, {-1, 1}, {0, 1},  {1, 1},  {2, 1},
                                                 {2, 0},  {2, -1}, {2, -2}, {1, -2}};

// Some 1,250 stars of magnitude 12.5 to 16 on 50' by 50', as catalog cells in a folder.
class SmallSky {
 public:
    SmallSky() {
        Random random(41);
        Projection plane;
        plane.SetProjectionCentre(skyCentre, SolveArcsecondsPerRadian);
        for (int i = 0; i < 1250; ++i) {
            const auto [ra, dec] =
                plane.PlaneToSky(random.Between(-1500, 1500), random.Between(-1500, 1500));
            Stars.push_back(
                {static_cast<float>(ra), static_cast<float>(dec),
                 static_cast<std::int16_t>(1600 - 350 * std::pow(random.Between(0, 1), 2))});
        }
        WriteCatalog(Folder.Path, Stars);
        std::sort(Stars.begin(), Stars.end(),
                  [](const CatalogStar& a, const CatalogStar& b) { return a.Mag < b.Mag; });
    }

    TemporaryFolder Folder;
    std::vector<CatalogStar> Stars;  ///< the brightest first
};

const SmallSky& Sky() {
    static const SmallSky sky;
    return sky;
}

// A program state with one image of the sky.
struct Observation {
    ProgramState State;
    RecordingPort Port{State};
    SkyPosition True;  ///< of the image centre

    /// The image centre lies (xi, eta) arcseconds from the middle of the sky. Only the `most`
    /// brightest stars are drawn.
    Observation(double xi, double eta, std::size_t most = 100000, bool mirrored = false) {
        Projection plane;
        plane.SetProjectionCentre(skyCentre, SolveArcsecondsPerRadian);
        True = plane.PlaneToSky(xi, eta);
        State.Catalog.Folder = Sky().Folder.Path;
        State.ImageLoaded = true;
        State.Image = EmptyImage(imageWidth, imageHeight, 200);
        Random random(42);
        for (int x = 0; x < imageWidth; ++x) {
            for (int y = 0; y < imageHeight; ++y) {
                State.Image.Pixels.Wide()(x, y) =
                    static_cast<std::int32_t>(700 + 0.5 * x - 0.3 * y + random.Normal(2));
            }
        }
        plane.SetProjectionCentre(True, SolveArcsecondsPerRadian);
        for (const CatalogStar& star : Sky().Stars) {
            double u = 0;
            double v = 0;
            plane.SkyToPlane(PositionOf(star), u, v);
            u /= pixelScale;
            v /= mirrored ? -pixelScale : pixelScale;
            const double x = (imageWidth - 1) / 2.0 + u * std::cos(0.6) - v * std::sin(0.6);
            const double y = (imageHeight - 1) / 2.0 + u * std::sin(0.6) + v * std::cos(0.6);
            if (most == 0 || std::abs(x - 150) > 140 || std::abs(y - 120) > 110) continue;
            AddStar(State.Image, x, y, std::pow(10, 0.4 * (24 - star.Mag / 100.0)), 1.3);
            --most;
        }
    }

    SolveCode Solve(int regionLimit) {
        Port.Statuses.clear();
        return SolvePlate(State, Port, {skyCentre, plateWidth, plateHeight, regionLimit, 2});
    }
};

Texts SpiralTexts(std::size_t count) {
    Texts texts;
    for (std::size_t k = 0; k < count; ++k) {
        texts.push_back("Spiral search " + std::to_string(k + 1) + " [" +
                        std::to_string(spiral[k].first) + "," + std::to_string(spiral[k].second) +
                        "]");
    }
    return texts;
}

Texts Joined(const std::vector<Texts>& parts) {
    Texts all;
    for (const Texts& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

const Texts background = {"Estimating Background", "Subtracting Background"};
const Texts attempt = {"Extracting Stars", "Attempting Match"};

TEST(Spiral, WalksEveryCellOnceRingByRing) {
    std::int16_t i = 0;
    std::int16_t j = 0;
    std::int16_t ring = 0;
    std::set<std::pair<int, int>> seen = {{0, 0}};
    for (int k = 1; k < 81 * 81; ++k) {
        NextSpiralCell(i, j, ring);
        if (k < 14) {
            EXPECT_EQ((std::pair<int, int>(i, j)), spiral[k]);
        }
        EXPECT_TRUE(seen.insert({i, j}).second);
        const auto side = static_cast<int>(std::ceil((std::sqrt(k + 1.0) - 1) / 2));
        ASSERT_EQ(std::max(std::abs(i), std::abs(j)), side) << k;
        ASSERT_EQ(ring, side);
    }
}

TEST(SolvePlate, StoresWhatItFoundAndShowsIt) {
    for (const bool mirrored : {false, true}) {
        Observation seen(30, -50, 100000, mirrored);
        ASSERT_EQ(seen.Solve(1), SolveCode::Solved);
        const ProgramState& state = seen.State;
        ASSERT_TRUE(state.Solution);
        const PlateSolution& found = *state.Solution;
        EXPECT_EQ(seen.Port.Statuses, Joined({background, attempt, {"Plate Match Found"}}));
        EXPECT_EQ(state.Display.Status.Colour, StatusColour::Green);
        EXPECT_EQ(state.Display.Status1.Text, "Searched 1 region");
        EXPECT_TRUE(state.Display.Status1.Visible);
        EXPECT_FALSE(state.Display.BusyIndicator);

        EXPECT_NEAR((found.CentreRA - seen.True.Ra) * std::cos(seen.True.Dec), 0, 0.2 * arcsecond);
        EXPECT_NEAR(found.CentreDec, seen.True.Dec, 0.2 * arcsecond);
        EXPECT_EQ(found.TangentRA, skyCentre.Ra);
        EXPECT_NEAR(found.Scale, 1 / pixelScale, 3e-4);
        EXPECT_NEAR(found.Stretch, mirrored ? -1 : 1, 1e-3);
        EXPECT_NEAR(found.Skew, 0, 1e-3);
        EXPECT_NEAR(found.Angle, mirrored ? -0.6 : 0.6, 2e-3);
        EXPECT_LT(found.Rms, 0.2);
        EXPECT_GE(found.MatchedCount, 12);
        EXPECT_EQ(found.ExtractedCount, state.Extraction.StarsFound);
        EXPECT_EQ(found.RegionsSearched, 1);
        EXPECT_NEAR(found.MagnitudeZeroPoint, -24, 0.3);

        // The solution in the header maps every matched star to the place where it was measured.
        const ImageHeader& header = state.Image.Header;
        EXPECT_TRUE(header.PlateMatched);
        EXPECT_EQ(header.PlateScale, 206264.81);
        EXPECT_NEAR(header.ImageSizeX, 10, 0.01);
        EXPECT_NEAR(header.ImageSizeY, 8, 0.01);
        Projection plane;
        plane.SetProjectionCentre({header.RaRef, header.DecRef}, header.PlateScale);
        const std::vector<MatchedStar> stars = MatchedStars(found);
        for (const auto& [catalog, plate] : stars) {
            double xi = 0;
            double eta = 0;
            plane.SkyToPlane(PositionOf(*catalog), xi, eta);
            const auto& t = header.PlateTransform;
            EXPECT_NEAR(t[0][0] * xi + t[0][1] * eta + t[0][2], plate->X, 1);
            EXPECT_NEAR(t[1][0] * xi + t[1][1] * eta + t[1][2], plate->Y, 1);
        }
        EXPECT_EQ(static_cast<int>(stars.size()), found.MatchedCount);

        EXPECT_EQ(state.Display.FoundInCatalog, std::to_string(found.CatalogCount()));
        EXPECT_EQ(state.Display.CentreCaption, "J2000 Image Center");
        EXPECT_EQ(state.Display.CentreRa, FormatRA(found.CentreRA, true, 2));
        EXPECT_EQ(state.Display.CentreDec, FormatDec(found.CentreDec, true, 1));
    }
}

TEST(SolvePlate, LimitCountsRegionsAndDiscardsTheMatchBeyondIt) {
    // The image is placed so that the ninth region, cell (1, 1), is the first one near enough to
    // match.
    const double place = 1.5 * spiralStep;
    Observation ninth(place, place);
    ASSERT_EQ(ninth.Solve(9), SolveCode::Solved);
    EXPECT_EQ(ninth.Port.Statuses,
              Joined({background, attempt, SpiralTexts(8), {"Plate Match Found"}}));
    EXPECT_EQ(ninth.State.Display.Status1.Text, "Searched 9 regions");
    EXPECT_NEAR(ninth.State.Solution->CentreDec, ninth.True.Dec, 0.5 * arcsecond);
    Projection plane;
    plane.SetProjectionCentre(skyCentre, SolveArcsecondsPerRadian);
    const SkyPosition tangent = plane.PlaneToSky(spiralStep, spiralStep);
    EXPECT_NEAR(ninth.State.Solution->TangentRA, tangent.Ra, 1e-12);
    EXPECT_NEAR(ninth.State.Image.Header.DecRef, tangent.Dec, 1e-12);

    Observation eighth(place, place);
    eighth.State.Image.Header.PlateMatched = true;
    EXPECT_EQ(eighth.Solve(8), SolveCode::NoMatch);
    EXPECT_EQ(eighth.Port.Statuses,
              Joined({background, attempt, SpiralTexts(8), {"No Match Found"}}));
    EXPECT_EQ(eighth.State.Report.RegionsTried, 8);
    EXPECT_TRUE(eighth.State.Image.Header.PlateMatched) << "the header is left as it was";
    EXPECT_FALSE(eighth.State.Solution);

    for (const int limit : {-5, 0, 1, 2}) {
        Observation beside(1.5 * spiralStep, 0);  // only cell (1, 0) is near enough
        EXPECT_EQ(beside.Solve(limit), limit == 2 ? SolveCode::Solved : SolveCode::NoMatch);
        EXPECT_EQ(beside.State.Report.RegionsTried, std::max(limit, 1));
        EXPECT_EQ(Observation(0, 0).Solve(limit), SolveCode::Solved);
    }
}

TEST(SolvePlate, StopIsSeenBetweenRegionsOnly) {
    Observation away(1.5 * spiralStep, 0);
    away.State.StopPatience = std::chrono::hours(1);
    away.State.Image.Header.PlateMatched = true;
    away.State.StopRequested = true;  // of an earlier solve
    away.Port.StopAtYield = 1;
    EXPECT_EQ(away.Solve(100), SolveCode::Stopped);
    EXPECT_EQ(away.Port.Statuses, Joined({background, attempt, {"Search Terminated"}}));
    EXPECT_EQ(away.State.Display.Status.Colour, StatusColour::Red);
    EXPECT_EQ(away.State.Report.RegionsTried, 1);
    EXPECT_FALSE(away.State.Image.Header.PlateMatched);
    away.Port.StopAtYield = -1;
    EXPECT_EQ(away.Solve(2), SolveCode::Solved) << "a new solve forgets the stop";

    Observation there(0, 0);
    there.State.StopPatience = std::chrono::hours(1);
    there.Port.StopAtYield = 1;
    EXPECT_EQ(there.Solve(100), SolveCode::Solved) << "a match is not thrown away";
}

TEST(SolvePlate, AKernelIsAbandonedOnceThePatienceIsOver) {
    Observation whole(0, 0);
    ASSERT_EQ(whole.Solve(1), SolveCode::Solved);

    Observation left(0, 0);
    left.State.Image.Header.PlateMatched = true;
    const auto pixels = left.State.Image.Pixels(5, 7);
    left.State.StopPatience = std::chrono::seconds(-1);
    left.Port.StopAtYield = 1;
    EXPECT_EQ(left.Solve(100), SolveCode::Stopped);
    EXPECT_LT(left.Port.Yields, whole.Port.Yields / 2);
    EXPECT_EQ(left.Port.Statuses.back(), "Search Terminated");
    EXPECT_EQ(left.State.Display.Status.Colour, StatusColour::Red);
    EXPECT_FALSE(left.State.Display.BusyIndicator);
    EXPECT_FALSE(left.State.Image.Header.PlateMatched);
    EXPECT_EQ(left.State.Image.Pixels(5, 7), pixels);
    EXPECT_FALSE(left.State.BackgroundRemoved);
    EXPECT_TRUE(left.State.PlateStars.Empty());

    left.Port.StopAtYield = -1;
    EXPECT_EQ(left.Solve(1), SolveCode::Solved) << "nothing of the abandoned solve is left";
    EXPECT_EQ(left.State.Solution->CentreRA, whole.State.Solution->CentreRA);
    EXPECT_EQ(left.State.Solution->Rms, whole.State.Solution->Rms);
}

/// The complete results of a search.
struct Outcome {
    SolveCode Code;
    Texts Statuses;
    std::string Found;  ///< solution, report and display
    std::vector<std::tuple<std::string, int, bool>> Cells;
    std::set<std::string> Files;
};

Outcome OutcomeOfSpiral(const TemporaryFolder& folder, double xi, int limit, int threads,
                        int acceptFrom, int endAfter) {
    std::filesystem::remove_all(folder.Path);
    std::filesystem::copy(Sky().Folder.Path, folder.Path);
    const ThreadLimit limited(threads);
    Observation at(xi, 0);
    at.State.Catalog.Folder = folder.Path;
    int asked = 0;
    PlateSearch search{skyCentre, plateWidth, plateHeight, limit, 2};
    search.Accept = [&](const PlateSolution& solution) {
        // A search that continues reads other cells meanwhile.
        at.State.Catalog.LoadRegion({skyCentre.Ra + 0.1 * ++asked, skyCentre.Dec}, 0.01);
        return solution.RegionsSearched >= acceptFrom;
    };
    search.MustEnd = [&, regions = 0]() mutable { return ++regions > endAfter; };
    Outcome outcome;
    outcome.Code = SolvePlate(at.State, at.Port, search);
    outcome.Statuses = at.Port.Statuses;
    const SolveReport& report = at.State.Report;
    std::ostringstream found;
    found << std::hexfloat << report.RegionsTried << ' ' << report.CatalogStarsAtStart << ' '
          << report.BestAttempt.Triangles1 << ' ' << report.BestAttempt.Triangles2 << ' '
          << report.BestAttempt.Voted << ' ' << report.BestAttempt.Selected << ' '
          << report.BestAttemptCentre.Ra << ' ' << at.State.Display.FoundInCatalog << ' '
          << at.State.Display.CentreRa << at.State.Display.CentreDec
          << at.State.Display.Status1.Text;
    if (at.State.Solution) {
        const PlateSolution& solution = *at.State.Solution;
        found << ' ' << solution.RegionsSearched << ' ' << solution.CatalogCount() << ' '
              << solution.Rms << ' ' << solution.Centre().Ra << ' ' << solution.Centre().Dec;
    }
    outcome.Found = found.str();
    for (const CachedCell& cell : at.State.Catalog.Cells) {
        outcome.Cells.emplace_back(cell.CellName, cell.Age, cell.InUse);
    }
    for (const auto& entry : std::filesystem::directory_iterator(folder.Path)) {
        outcome.Files.insert(entry.path().filename().string());
    }
    return outcome;
}

TEST(SolvePlate, ASpiralOfManyThreadsLeavesWhatTheSearchOfRegionAfterRegionLeaves) {
    const TemporaryFolder folder;
    struct Case {
        double Xi;  ///< of the image centre, in steps of the spiral
        int Limit;
        int AcceptFrom = 1;
        int EndAfter = 1000;
    };
    int matched = 0;
    int turnedDown = 0;
    for (const Case& c : {Case{2.1, 60},
                          {4.4, 90},
                          {40, 70},
                          {40, 0},
                          {40, 2},
                          {40, 9},
                          {2.9, 90, 22},
                          {2.1, 60, 1000},
                          {40, 70, 1, 17},
                          {3.1, 29, 28}}) {
        SCOPED_TRACE("at " + std::to_string(c.Xi) + ", limit " + std::to_string(c.Limit));
        const auto run = [&](int threads) {
            return OutcomeOfSpiral(folder, c.Xi * spiralStep, c.Limit, threads, c.AcceptFrom,
                                   c.EndAfter);
        };
        const Outcome alone = run(1);
        matched += alone.Code == SolveCode::Solved ? 1 : 0;
        turnedDown += alone.Cells.size() > 2 ? 1 : 0;
        for (const int threads : {2, 7}) {
            const Outcome together = run(threads);
            EXPECT_EQ(together.Code, alone.Code);
            EXPECT_EQ(together.Statuses, alone.Statuses);
            EXPECT_EQ(together.Found, alone.Found);
            EXPECT_EQ(together.Cells, alone.Cells);
            EXPECT_EQ(together.Files, alone.Files);
        }
    }
    EXPECT_GE(matched, 3);
    EXPECT_GE(turnedDown, 3);
}

TEST(SolvePlate, SmoothsOnceWhenStarsAreFewAndGivesUpBelowSix) {
    const Texts smoothed = {"Extracting Stars", "Gaussian Filter", "Extracting Stars"};
    Observation five(0, 0, 5);
    five.State.Display.BusyIndicator = true;
    five.State.PlateStars.Resize(77);
    five.State.Solution.emplace();
    EXPECT_EQ(five.Solve(9), SolveCode::TooFewStars);
    EXPECT_EQ(five.Port.Statuses, Joined({background, smoothed, {"Extracted 5 Stars"}}));
    EXPECT_EQ(five.State.Display.Status1.Text, "Insufficient Plate Stars");
    EXPECT_EQ(five.State.Display.Status1.Colour, StatusColour::Red);
    EXPECT_EQ(five.State.Display.Status.Colour, StatusColour::Red);
    EXPECT_FALSE(five.State.Display.BusyIndicator);
    EXPECT_EQ(five.State.PlateStars.Count(), 77) << "the last good list is kept";
    EXPECT_TRUE(five.State.Solution) << "with what was solved";
    EXPECT_EQ(five.State.Report.RegionsTried, 0);

    Observation eight(0, 0, 8);
    EXPECT_NE(eight.Solve(1), SolveCode::TooFewStars);
    EXPECT_TRUE(eight.State.Report.Smoothed);
    EXPECT_EQ(eight.State.PlateStars.Count(), 8);
}

TEST(SolvePlate, SecondSolveTakesTheImageAsItIsAndThreadsChangeNothing) {
    const auto numbers = [](const PlateSolution& s) {
        return std::vector<double>{s.Transform.a, s.Transform.f, s.Rms, s.CentreRA,
                                   s.MagnitudeZeroPoint};
    };
    std::vector<std::vector<double>> solutions;
    for (const int threads : {1, 5}) {
        const ThreadsForNow now(threads);
        Observation seen(20, 10);
        ASSERT_EQ(seen.Solve(1), SolveCode::Solved);
        solutions.push_back(numbers(*seen.State.Solution));
        ASSERT_EQ(seen.Solve(1), SolveCode::Solved);
        EXPECT_EQ(seen.Port.Statuses, Joined({attempt, {"Plate Match Found"}}));
        EXPECT_EQ(numbers(*seen.State.Solution), solutions[0]);
    }
    EXPECT_EQ(solutions[1], solutions[0]);
}

TEST(PlateTexts, UnitsSignsAndRangesOfWhatIsShown) {
    struct Case {
        double Scale;  // pixels per arcsecond
        int Height;
        double Degrees;
        double Parity;
        const char* Size;
        const char* Angle;
        const char* Stretch;
        const char* PerPixel;
    };
    const std::vector<Case> cases = {
        {0.5, 20, -0.5, 1, "200\" X 40\"", "359.5\xC2\xB0", "-1", "2\""},
        {0.5, 30, 0, -1, "3.33' X 1'", "0\xC2\xB0", "1", "2\""},
        {0.5, 1800, 45.678, 1, "3.33' X 60'", "45.68\xC2\xB0", "-1", "2\""},
        {1.0 / 128, 60, 180, 1, "3.56\xC2\xB0 X 2.13\xC2\xB0", "180\xC2\xB0", "-1", "128\""},
        {3, 200, -179.99, 1, "33.33\" X 66.67\"", "180.01\xC2\xB0", "-1", "0.3333\""}};
    for (const Case& wanted : cases) {
        ProgramState state;
        RecordingPort port(state);
        state.Image.Width = 100;
        state.Image.Height = wanted.Height;
        PlateSolution solution;
        const double turn = wanted.Degrees / 57.29577950560105;
        for (const auto& [x, y] :
             {std::pair{-500, -400}, {600, -300}, {50, 700}, {-300, 200}, {400, 100}}) {
            const double c = std::cos(turn) * wanted.Scale;
            const double s = std::sin(turn) * wanted.Scale;
            solution.CatalogStars.Add({static_cast<float>(x), static_cast<float>(y), 10, 0, 0.5});
            solution.PlateStars.Add({static_cast<float>(c * x - s * y),
                                     static_cast<float>(wanted.Parity * (s * x + c * y)), 1000, 0,
                                     0});
            const auto star = static_cast<std::int16_t>(solution.PlateStars.Count());
            solution.Pairs.Add({star, star, 3, star != 3});
        }
        FitSolution(solution, state.Image.Width, state.Image.Height);
        FinishPlateSolution(state, port, solution);
        EXPECT_EQ(state.Display.PlateSize, wanted.Size);
        EXPECT_EQ(state.Display.Angle, wanted.Angle);
        EXPECT_EQ(state.Display.Stretch, wanted.Stretch);
        EXPECT_EQ(state.Display.Scale, wanted.PerPixel);
        EXPECT_EQ(state.Display.Skew, "0");
        EXPECT_EQ(state.Display.RmsDifference, "0\"");
        EXPECT_EQ(state.Display.Matched, "4");
    }
}

}  // namespace
}  // namespace vestrel
