// What a plan leaves behind: which hint and attempt gave the solution, and all else as it was.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>
#include <optional>
#include <utility>
#include <vector>

#include "astro/libMath.h"
#include "catalog/libCatalogRegion.h"
#include "extraction/libNegative.h"
#include "extraction/libRobustStars.h"
#include "matching/libQuadFile.h"
#include "program/mFailureCause.h"
#include "program/mImageData.h"
#include "program/mMORA.h"
#include "program/mPlanAttempts.h"
#include "program/mSearchPlan.h"
#include "program/mSolutionTable.h"
#include "program/mSolveReport.h"
#include "tests/skySupport.h"
#include "tests/testSupport.h"

namespace vestrel {
namespace {

constexpr double field = side * scale / SolveArcsecondsPerRadian;  // radians
constexpr double away = 30 * field;

class PlanOfASmallSky : public testing::Test {
 protected:
    PlanOfASmallSky() {
        Stars = MakeSky(Folder / "catalog", Folder / "frame.fit");
        // Other stars where the frame is not.
        Random random(52);
        Projection plane;
        plane.SetProjectionCentre(Hint(away).Centre, SolveArcsecondsPerRadian);
        std::vector<CatalogStar> all = Stars;
        for (int i = 0; i < 120; ++i) {
            const auto [ra, dec] =
                plane.PlaneToSky(random.Between(-500, 500), random.Between(-500, 500));
            all.push_back({static_cast<float>(ra), static_cast<float>(dec),
                           static_cast<std::int16_t>(random.Whole(1200, 1500))});
        }
        std::stable_sort(all.begin(), all.end(),
                         [](const CatalogStar& a, const CatalogStar& b) { return a.Mag < b.Mag; });
        WriteCatalog(Folder / "catalog", all);
        State.Catalog.Folder = Folder / "catalog";
        OpenImage(State, Port, TextFromPath(Folder / "frame.fit"));
    }
    static SearchHint Hint(double offset, double size = field) {
        return {{centre.Ra + offset, centre.Dec}, size, size, 1};
    }
    SolveCode Solve(const SearchRequest& request) {
        return SolveByPlan(State, Port, request, Report);
    }
    std::vector<std::string> Attempts() const {
        std::vector<std::string> names;
        for (const PlanAttempt& attempt : Report.Attempts) names.push_back(attempt.Name);
        return names;
    }

    TemporaryFolder Folder;
    std::vector<CatalogStar> Stars;
    ProgramState State;
    RecordingPort Port{State};
    PlanReport Report;
};

TEST_F(PlanOfASmallSky, TheHintAndTheAttemptThatGaveItAreNamed) {
    SearchRequest request;
    request.Around = {Hint(away), Hint(0)};
    std::vector<std::string> told;
    request.OnAttempt = [&](const std::string& name) { told.push_back(name); };
    ASSERT_EQ(Solve(request), SolveCode::Solved);
    EXPECT_EQ(Report.Start, 1U);
    EXPECT_EQ(Report.SolvedBy, "search");
    EXPECT_EQ(Attempts(), (std::vector<std::string>{"search", "short side", "search"}));
    EXPECT_EQ(told, Attempts());
    EXPECT_TRUE(Report.Attempts.back().Sure);
    EXPECT_FALSE(Report.Attempts.front().Sure);
    EXPECT_FALSE(Report.Candidate);
    EXPECT_NEAR(State.Solution->CentreDec, centre.Dec, 1e-5);
    const double trials = State.Solution->Confidence.Log10Trials;

    request.Around = {Hint(0)};
    request.Around[0].Briefly = true;
    ASSERT_EQ(Solve(request), SolveCode::Solved);
    EXPECT_GT(trials, State.Solution->Confidence.Log10Trials + 1)
        << "the regions around the first hint are charged too";
    EXPECT_EQ(Report.Start, 0U) << "nothing of the plan before is left";
    EXPECT_EQ(Attempts().size(), 1U);
}

TEST_F(PlanOfASmallSky, AFailureReportsThePlainSearchAndKeepsTheStars) {
    SearchRequest request;
    request.Around = {Hint(away)};
    ASSERT_EQ(Solve(request), SolveCode::NoMatch);
    EXPECT_GT(Report.Attempts.size(), 3U) << "seeds were tried too";
    EXPECT_FALSE(State.Solution);
    EXPECT_FALSE(Report.Start);
    EXPECT_TRUE(Report.SolvedBy.empty());
    EXPECT_NEAR(State.Report.SearchRadius, field / std::sqrt(2), 1e-12)
        << "not that of the search of a part of the field";
    EXPECT_EQ(State.Report.MagnitudeLimit, MagnitudeLimitFor(State.Report.SearchRadius));
    EXPECT_FALSE(State.Report.Blind);
    const auto& extracted = Report.Lists[static_cast<std::size_t>(StarSource::Extracted)];
    ASSERT_TRUE(extracted);
    EXPECT_EQ(State.PlateStars.Count(), extracted->Count());
    EXPECT_EQ(State.Display.Status.Text, "No Match Found");
    EXPECT_EQ(State.Display.Status.Colour, StatusColour::Red);
}

TEST_F(PlanOfASmallSky, GivenStarsAreThoseOfTheSolutionAndOnlyTheBrightestAreUsed) {
    SearchRequest request;
    request.Around = {Hint(0)};
    Projection plane;
    plane.SetProjectionCentre(centre, SolveArcsecondsPerRadian);
    PlateStarList given;
    for (const CatalogStar& star : Stars) {
        double xi = 0;
        double eta = 0;
        plane.SkyToPlane(PositionOf(star), xi, eta);
        given.Add({static_cast<float>((side - 1) / 2.0 + xi / scale),
                   static_cast<float>((side - 1) / 2.0 + eta / scale),
                   static_cast<float>(std::pow(10, 0.4 * (21.5 - star.Mag / 100.0))), 0, 0});
    }
    Random random(51);
    while (given.Count() < 400) {
        const auto x = static_cast<float>(random.Between(0, side));
        given.Add({x, static_cast<float>(random.Between(0, side)), 1, 0, 0});
    }
    request.Stars = given;
    ASSERT_EQ(Solve(request), SolveCode::Solved);
    EXPECT_EQ(State.PlateStars.Count(), MaxExtractedStars);
    EXPECT_EQ(State.Extraction.StarsFound, 400);
    EXPECT_EQ(State.Solution->ExtractedCount, 400);
    EXPECT_LT(State.Solution->Rms, 0.1) << "the pixels were not asked";
    EXPECT_FALSE(State.BackgroundRemoved);
    // Sizes and places within the lists stay: a replay has the same outcome.
    SearchRequest again = request;
    again.Lists = Report.Lists;
    again.Stars.reset();
    ASSERT_EQ(Solve(again), SolveCode::Solved);
    EXPECT_LT(State.Solution->Rms, 0.1);

    request.Stars->Resize(3);
    EXPECT_EQ(Solve(request), SolveCode::TooFewStars);
    EXPECT_EQ(State.Display.Status1.Text, "Insufficient Plate Stars");
}

TEST_F(PlanOfASmallSky, AStripIsFoundByStarsAtItsEnds) {
    constexpr int length = 1800;
    constexpr int breadth = 200;
    Random random(57);
    SearchRequest request;
    request.Around = {Hint(away)};
    SearchHint& hint = request.Around[0];
    hint.Width = length * scale / SolveArcsecondsPerRadian;
    hint.Height = breadth * scale / SolveArcsecondsPerRadian;
    Projection plane;
    plane.SetProjectionCentre(hint.Centre, SolveArcsecondsPerRadian);
    std::vector<CatalogStar> catalog;
    std::vector<PlateStar> seen;
    const auto add = [&](double x, double y) {
        const auto [ra, dec] = plane.PlaneToSky(x * scale, y * scale);
        catalog.push_back({static_cast<float>(ra), static_cast<float>(dec),
                           static_cast<std::int16_t>(random.Whole(900, 1100))});
    };
    for (const double end : {-1.0, 1.0}) {
        for (int i = 0; i < 4; ++i) {
            const double x = end * random.Between(0.35, 0.49) * length;
            const double y = random.Between(-0.45, 0.45) * breadth;
            add(x, y);
            seen.push_back({static_cast<float>(length / 2.0 + x + random.Normal(0.2)),
                            static_cast<float>(breadth / 2.0 + y + random.Normal(0.2))});
        }
    }
    while (catalog.size() < 60) {
        const double x = random.Between(-0.5, 0.5) * length;
        const double y = random.Between(-0.5, 0.5) * length;
        if (std::fabs(y) > breadth && std::hypot(x, y) < length / 2.0) add(x, y);
    }
    for (int i = 0; i < 12; ++i) {
        const auto x = static_cast<float>(random.Between(0, length));
        seen.push_back({x, static_cast<float>(random.Between(0, breadth))});
    }
    std::stable_sort(catalog.begin(), catalog.end(),
                     [](const CatalogStar& a, const CatalogStar& b) { return a.Mag < b.Mag; });
    State.Catalog = {};
    State.Catalog.Folder = Folder / "strip catalog";
    WriteCatalog(State.Catalog.Folder, catalog);
    State.Image = EmptyImage(length, breadth, 0);
    request.Stars.emplace();
    for (PlateStar star : seen) {
        star.Flux = 1000;
        request.Stars->Add(star);
    }
    ASSERT_EQ(Solve(request), SolveCode::Solved);
    EXPECT_EQ(Report.SolvedBy, "seeds along a strip");
    EXPECT_NEAR(State.Solution->CentreRA, hint.Centre.Ra, 2 * scale / SolveArcsecondsPerRadian);
    EXPECT_NEAR(State.Solution->CentreDec, hint.Centre.Dec, 2 * scale / SolveArcsecondsPerRadian);
}

// The pairs of seeds grow with their square, and those of a narrow strip took all the time.
TEST_F(PlanOfASmallSky, StripsHaveAsManySeedsAsTheyNeedUnlessTheyAreVeryNarrow) {
    const auto attempt = std::find_if(SeedAttempts.begin(), SeedAttempts.end(),
                                      [](const SeedAttempt& one) { return one.AlongStrip; });
    ASSERT_NE(attempt, SeedAttempts.end());
    const auto perArea = [&](double ratio) {
        const double area = std::numbers::pi / 4 * (ratio * ratio + 1) / ratio;
        return SettingsOf(*attempt, State.Image, ratio * 0.001, 0.001).CatalogSeeds / area;
    };
    EXPECT_NEAR(perArea(15), perArea(3), 0.2);
    EXPECT_LT(perArea(50), perArea(3) / 2);
}

TEST_F(PlanOfASmallSky, FewStarsAreNotTriedAgainInAnotherOrder) {
    Random random(56);
    for (const auto& [stars, attempts] : {std::pair(40, 4U), std::pair(41, 6U)}) {
        SearchRequest request;
        request.Around = {Hint(away)};
        request.Stars.emplace();
        while (request.Stars->Count() < stars) {
            const auto x = static_cast<float>(random.Between(0, side));
            request.Stars->Add({x, static_cast<float>(random.Between(0, side)), 9, 0, 0});
        }
        ASSERT_EQ(Solve(request), SolveCode::NoMatch);
        EXPECT_EQ(Attempts().size(), attempts) << stars;
    }
}

TEST_F(PlanOfASmallSky, AMatchThatIsNotSureIsACandidateAndSolvesNothing) {
    // Ten of sixteen stars, two pixels off, and so far from the start that chance had many trials.
    constexpr int stars = 16;
    constexpr double middle = (side - 1) / 2.0;
    constexpr double step = field / 2.5;
    Random random(94);
    SearchRequest request;
    request.Around = {Hint(away)};
    request.Around[0].Regions = 600;
    request.Around[0].Briefly = true;
    const SkyPosition there{centre.Ra + away + 10 * step, centre.Dec};
    Projection plane;
    plane.SetProjectionCentre(there, SolveArcsecondsPerRadian);
    request.Stars.emplace();
    std::vector<CatalogStar> catalog;
    for (int i = 0; i < stars; ++i) {
        const double x = random.Between(5, side - 5);
        const double y = random.Between(5, side - 5);
        request.Stars->Add({static_cast<float>(x), static_cast<float>(y),
                            static_cast<float>(5000 - 100 * i), 0, 0});
        const bool same = i < 10;
        const double u = same ? x + random.Normal(2) : random.Between(0, side);
        const double v = same ? y + random.Normal(2) : random.Between(0, side);
        const auto [ra, dec] = plane.PlaneToSky((u - middle) * scale, (v - middle) * scale);
        catalog.push_back({static_cast<float>(ra), static_cast<float>(dec),
                           static_cast<std::int16_t>(1200 + 10 * i)});
    }
    State.Catalog = {};
    State.Catalog.Folder = Folder / "doubtful catalog";
    WriteCatalog(State.Catalog.Folder, catalog);
    EXPECT_EQ(Solve(request), SolveCode::NoMatch);
    ASSERT_TRUE(Report.Candidate);
    EXPECT_LT(Report.Candidate->Confidence.Log10FalseAlarm, -1);
    EXPECT_GT(Report.Candidate->RegionsSearched, 200);
    EXPECT_NEAR(Report.Candidate->CentreRA, there.Ra, 10 * scale / SolveArcsecondsPerRadian);
    EXPECT_FALSE(State.Solution);
    EXPECT_FALSE(State.Image.Header.PlateMatched);
    EXPECT_EQ(State.Display.Status.Text, "No Sure Match Found");
}

TEST(PlanStars, AreThoseOfANegativeThatItsNoiseHides) {
    constexpr int columns = 600;
    constexpr int rows = 400;
    constexpr int stars = 40;
    constexpr int sky = 500;
    Random random(55);
    ProgramState state;
    state.ImageLoaded = true;
    state.Image = EmptyImage(columns, rows, 0);
    std::vector<std::pair<double, double>> places;
    for (int i = 0; i < stars; ++i) {
        places.emplace_back(random.Between(20, columns - 20), random.Between(20, rows - 20));
        // At most five times the noise of a pixel.
        AddStar(state.Image, places.back().first, places.back().second, random.Between(900, 1300),
                1.6);
    }
    for (int y = 0; y < rows; ++y) {
        for (int x = 0; x < columns; ++x) {
            state.Image.Pixels.Wide()(x, y) +=
                sky + static_cast<int>(std::lround(random.Normal(16)));
        }
    }
    for (const bool negative : {false, true}) {
        if (negative) {
            for (int y = 0; y < rows; ++y) {
                for (int x = 0; x < columns; ++x) {
                    state.Image.Pixels.Wide()(x, y) = 2 * sky - state.Image.Pixels(x, y);
                }
            }
        }
        EXPECT_FALSE(MayBeNegative(state.Image));
        const std::optional<PlateStarList> given;
        const std::optional<StarLists> kept;
        PlanStars lists(state, given, kept);
        const PlateStarList& found = lists.Of(StarSource::Peaks);
        int right = 0;
        for (const auto& [x, y] : places) {
            right += std::any_of(found.begin(), found.end(), [&](const PlateStar& star) {
                return std::hypot(double{star.X} - x, double{star.Y} - y) < 1.5;
            });
        }
        EXPECT_GE(right, stars * 9 / 10) << negative;
        EXPECT_LE(found.Count(), stars * 11 / 10) << negative;
    }
}

TEST(PlanStars, AreThoseOfANegativeThatEightBitsCutOff) {
    constexpr int size = 400;
    constexpr int sky = 90;
    constexpr int white = 255;
    Random random(57);
    ProgramState state;
    state.ImageLoaded = true;
    state.Image = EmptyImage(size, size, 0);
    PlateImage& image = state.Image;
    for (int i = 0; i < 30; ++i) {
        AddStar(image, random.Between(20, size - 20), random.Between(20, size - 20), 8000, 1.6);
    }
    const auto forAll = [&](const auto& change) {
        for (int y = 0; y < size; ++y) {
            for (std::int32_t& pixel : image.Pixels.Wide().Row(y).first(size)) {
                pixel = std::clamp(change(pixel), 0, white);
            }
        }
    };
    forAll([&](int pixel) {
        return pixel + sky + static_cast<int>(std::lround(random.Normal(sky / 2.0)));
    });
    EXPECT_FALSE(MayBeNegative(image));
    forAll([](int pixel) { return white - pixel; });
    const std::optional<PlateStarList> given;
    const std::optional<StarLists> kept;
    PlanStars lists(state, given, kept);
    lists.LookForNegative();
    // The plain extraction cuts off counts below the sky.
    forAll([](int pixel) { return pixel - (white - sky); });
    EXPECT_GE(lists.Of(StarSource::Peaks).Count(), 25);
}

TEST(Candidate, IsTheLikeliestMatchWhateverTheOrder) {
    std::vector<double> logs{-5, -1, -3, -2};
    std::sort(logs.begin(), logs.end());
    do {
        std::optional<PlateSolution> kept;
        for (const double log : logs) {
            PlateSolution match;
            match.Confidence.Log10FalseAlarm = log;
            KeepLikelier(kept, match);
        }
        ASSERT_TRUE(kept);
        EXPECT_EQ(kept->Confidence.Log10FalseAlarm, -5);
    } while (std::next_permutation(logs.begin(), logs.end()));
}

TEST_F(PlanOfASmallSky, LookingForTheCauseLeavesTheStateAsItWas) {
    WriteQuadTables(Folder / "catalog", Stars, 40, 0.003, 0.006);
    SearchRequest request;
    request.Around = {Hint(away)};
    request.TimeLimit = 60;
    request.Diagonals = {field * std::sqrt(2)};
    const SolveCode code = Solve(request);
    ASSERT_EQ(code, SolveCode::NoMatch);
    const SolveReport report = State.Report;
    const PlateStarList stars = State.PlateStars;
    const std::int32_t found = State.Extraction.StarsFound;
    const std::string status = State.Display.Status.Text;
    const auto cause = CauseOfFailure(State, Port, code, request);
    ASSERT_TRUE(cause);
    EXPECT_EQ(cause->Kind, FailureKind::WrongCentre) << cause->Text;
    ASSERT_TRUE(cause->Evidence.Elsewhere) << "the whole sky was looked at";
    EXPECT_NEAR(cause->Evidence.Elsewhere->CentreRA, centre.Ra, 1e-5);
    EXPECT_NEAR(cause->Evidence.Separation, away, 0.01 * field);
    EXPECT_FALSE(State.Solution);
    EXPECT_FALSE(State.Image.Header.PlateMatched);
    EXPECT_EQ(State.PlateStars.Count(), stars.Count());
    EXPECT_EQ(State.PlateStars[1].X, stars[1].X);
    EXPECT_EQ(State.Extraction.StarsFound, found);
    EXPECT_EQ(State.Display.Status.Text, status);
    EXPECT_EQ(State.Report.RegionsTried, report.RegionsTried);
    EXPECT_EQ(State.Report.SearchRadius, report.SearchRadius);
    EXPECT_EQ(State.Report.Blind, report.Blind);
    EXPECT_EQ(State.QuadMatch.Searched, 0);
    EXPECT_EQ(State.QuadMatch.Code, QuadSearch().Code);
}

TEST_F(PlanOfASmallSky, OnlyASizeThatWasGivenIsComparedWithTheSolution) {
    WriteQuadTables(Folder / "catalog", Stars, 40, 0.003, 0.006);
    SearchHint remembered = Hint(away, 0.3 * field);
    remembered.SizeRemembered = true;
    SearchRequest request;
    request.Everywhere = true;
    request.TimeLimit = 60;
    const auto cautions = [&](std::vector<SearchHint> around) {
        request.Around = std::move(around);
        EXPECT_EQ(Solve(request), SolveCode::Solved);
        return Cautions(State).size();
    };
    EXPECT_EQ(cautions({remembered}), 0U);
    EXPECT_TRUE(State.Report.Blind);
    EXPECT_EQ(cautions({Hint(away), remembered}), 0U) << "the centre was wrong, but not the size";
    EXPECT_EQ(cautions({Hint(away, 0.3 * field), remembered}), 1U);
    remembered = Hint(0, 0.75 * field);
    remembered.SizeRemembered = true;
    EXPECT_EQ(cautions({remembered}), 0U);
    EXPECT_FALSE(State.Report.Blind);
    EXPECT_EQ(cautions({Hint(0, 0.75 * field)}), 1U);
}

TEST_F(PlanOfASmallSky, ThePlateOfAllStarsReplacesOneThatFalsePairsHaveDrawnAway) {
    SearchRequest request;
    request.Around = {Hint(0)};
    ASSERT_EQ(Solve(request), SolveCode::Solved);
    const PlateSolution solved = *State.Solution;
    StarMatchList& pairs = State.Solution->Pairs;
    std::swap(pairs[1].Star2, pairs[2].Star2);
    for (double(&row)[3] : State.Image.Header.PlateTransform) {
        row[0] *= 1.03;
        row[1] *= 1.03;
    }
    const ImageStars places(State.PlateStars, side, side);
    const auto settled = SolutionOfModel(State, places);
    ASSERT_TRUE(settled);
    EXPECT_LT(settled->Rms, 1);
    EXPECT_GE(settled->MatchedCount, solved.MatchedCount);
    EXPECT_NEAR(settled->WidthArcmin, solved.WidthArcmin, 1e-3 * solved.WidthArcmin);
    EXPECT_LT(SkyDistance(settled->Centre(), solved.Centre()),
              0.2 * scale / SolveArcsecondsPerRadian);
    State.Parameters.MaxError = settled->Rms / 2;
    EXPECT_FALSE(SolutionOfModel(State, places)) << "no better than what there is";
}

TEST_F(PlanOfASmallSky, ARowOfTheTableBringsItsSolutionBack) {
    SearchRequest request;
    request.Around = {Hint(0)};
    ASSERT_EQ(Solve(request), SolveCode::Solved);
    const SolvedPicture row = PictureOf(State);
    EXPECT_EQ(row.Verdict.Level, TrustLevel::Sure);
    EXPECT_TRUE(row.Failure.empty());
    const PlateSolution solved = *State.Solution;

    MakeSky(Folder / "other catalog", Folder / "other.fit");
    ASSERT_TRUE(OpenImage(State, Port, TextFromPath(Folder / "other.fit")));
    EXPECT_FALSE(State.Solution);
    EXPECT_FALSE(PictureOf(State).Solution);
    RestoreSolution(State, Port, row);
    ASSERT_TRUE(State.Solution);
    EXPECT_EQ(State.Image.FileName, row.Path);
    EXPECT_EQ(State.Solution->CentreRA, solved.CentreRA);
    EXPECT_EQ(State.PlateStars.Count(), solved.PlateStars.Count());
    EXPECT_TRUE(State.Image.Header.PlateMatched);
    EXPECT_EQ(MatchedStars(*State.Solution).size(), MatchedStars(solved).size());

    std::filesystem::remove(Folder / "frame.fit");
    RestoreSolution(State, Port, row);
    EXPECT_FALSE(State.Solution) << "the picture is gone, and the solution belonged to it";
}

TEST_F(PlanOfASmallSky, AFieldAtTheLowerEndOfItsBandIsFoundByTheQuadsOfSmallerFrames) {
    QuadList none;
    none.Stars.assign(Stars.begin(), Stars.begin() + 40);
    std::sort(none.Stars.begin(), none.Stars.end(), ComesBefore);
    QuadList quads = none;
    for (std::int32_t c = 2; c < 8; ++c) {
        for (std::int32_t d = c + 1; d < 40; ++d) quads.Quads.push_back({c - 2, c - 1, c, d});
    }
    const double diagonal = field * std::numbers::sqrt2;
    SearchRequest request;
    request.Everywhere = true;
    request.Diagonals = {diagonal};
    const auto solve = [&](double smallerEnd, double begin) {
        QuadFileWriter writer(Folder / "catalog" / QuadFileName, 2);
        writer.Add(0.8 * diagonal, smallerEnd, quads);
        writer.Add(begin, 1.3 * diagonal, none);
        writer.Commit();
        State.Solution = {};
        const SolveCode code = Solve(request);
#ifdef __linux__
        // Windows could not replace them.
        for (const auto& file : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code ignored;
            EXPECT_NE(std::filesystem::read_symlink(file, ignored).filename(), QuadFileName);
        }
#endif
        return code;
    };
    const double begin = 0.93 * diagonal;
    ASSERT_EQ(solve(begin, begin), SolveCode::Solved);
    EXPECT_EQ(Report.SolvedBy, "quads of smaller fields");
    EXPECT_NEAR(State.Solution->CentreRA, centre.Ra, 1e-5);
    EXPECT_NEAR(State.Solution->CentreDec, centre.Dec, 1e-5);
    // Frames much smaller than the field have too few of its stars.
    EXPECT_NE(solve(0.9 * diagonal, begin), SolveCode::Solved);
}

TEST_F(PlanOfASmallSky, BandsOfOtherSizesAreSearchedWhenAllOfTheGivenSizeWereInVain) {
    QuadList quads;
    quads.Stars.assign(Stars.begin(), Stars.begin() + 40);
    std::sort(quads.Stars.begin(), quads.Stars.end(), ComesBefore);
    QuadList none = quads;
    for (std::int32_t c = 2; c < 8; ++c) {
        for (std::int32_t d = c + 1; d < 40; ++d) quads.Quads.push_back({c - 2, c - 1, c, d});
    }
    const double diagonal = field * std::numbers::sqrt2;
    const std::filesystem::path file = Folder / "catalog" / QuadFileName;
    {
        QuadFileWriter writer(file, 3);
        writer.Add(0.1 * diagonal, 0.3 * diagonal, none);
        writer.Add(0.8 * diagonal, 1.2 * diagonal, quads);
        writer.Add(2 * diagonal, 3 * diagonal, none);
        writer.Commit();
    }
    SearchRequest request;
    request.Everywhere = true;
    const auto solve = [&](std::vector<double> diagonals) {
        request.Diagonals = std::move(diagonals);
        State.Solution = {};
        EXPECT_EQ(Solve(request), SolveCode::Solved);
        return Report.SolvedBy;
    };
    EXPECT_EQ(solve({}), "quads");
    EXPECT_LE(State.QuadMatch.Searched, 64)
        << "the first quads of a band come before the rest of the one before it";
    EXPECT_EQ(solve({diagonal}), "quads");
    ASSERT_EQ(Report.Attempts.size(), 1U);
    EXPECT_EQ(solve({0.2 * diagonal}), "quads of other sizes");
    for (const PlanAttempt& attempt : Report.Attempts) {
        const bool last = &attempt == &Report.Attempts.back();
        EXPECT_EQ(attempt.Name.ends_with(" of other sizes"), last) << attempt.Name;
    }
    EXPECT_GT(Report.Attempts.size(), 3U);

    // A damaged band hides no other one, and is not mentioned when the image is solved all the
    // same.
    std::vector<QuadBand> bands;
    std::string fault;
    ASSERT_TRUE(ReadQuadBands(OpenQuadFile(file).get(), bands, fault));
    std::string bytes = ReadFile(file);
    bytes[bands[2].Part.Offset + bands[2].Part.Length] ^= 1;  // a checksum of its pages
    WriteFile(file, bytes);
    EXPECT_EQ(solve({}), "quads");
    EXPECT_EQ(State.Quads.Fault, "");
    bytes[bands[1].Part.Offset + bands[1].Part.Length] ^= 1;
    WriteFile(file, bytes);
    State.Solution = {};
    EXPECT_NE(Solve(request), SolveCode::Solved);
    EXPECT_NE(State.Quads.Fault.find("is damaged"), std::string::npos) << State.Quads.Fault;
}

TEST(QuadAttempts, LookUpEveryQuadOfAListOnce) {
    // Those of the same list and the same leading stars follow each other without a gap.
    const auto isSame = [](const QuadAttempt& a, const QuadAttempt& b) {
        return a.From == b.From && a.FirstStars == b.FirstStars && a.LookedUp == b.LookedUp &&
               a.InSmallerFields == b.InSmallerFields;
    };
    for (const QuadAttempt& attempt : QuadAttempts) {
        std::int32_t next = 0;
        for (const QuadAttempt& other : QuadAttempts) {
            if (!isSame(attempt, other)) continue;
            EXPECT_EQ(other.FirstQuad, next) << other.Name;
            EXPECT_STREQ(other.Name, attempt.Name);
            next = other.LastQuad;
        }
        EXPECT_EQ(next, std::numeric_limits<std::int32_t>::max()) << attempt.Name;
    }
}

TEST(QuadBands, ThoseOfTheSizeComeFirstAndElseTheLargest) {
    const TemporaryFolder folder;
    const std::vector<CatalogStar> stars = MakeSky(folder / "catalog", folder / "frame.fit");
    QuadList list;
    list.Stars.assign(stars.begin(), stars.begin() + 8);
    std::sort(list.Stars.begin(), list.Stars.end(), ComesBefore);
    list.Quads = {{0, 1, 2, 3}, {0, 1, 2, 4}, {1, 2, 3, 5}};
    ProgramState state;
    state.Catalog.Folder = folder / "catalog";
    const double edges[] = {0.01, 0.02, 0.04, 0.08, 0.16};
    {
        QuadFileWriter writer(folder / "catalog" / QuadFileName, 4);
        for (int band = 0; band < 4; ++band) writer.Add(edges[band], edges[band + 1], list);
        writer.Commit();
    }
    ASSERT_TRUE(HaveQuadTables(state));
    const auto order = [&](const std::vector<double>& diagonals) {
        std::string names;
        const RankedBands bands = LikelyBands(state, diagonals);
        for (const auto* half : {&bands.OfSize, &bands.Others}) {
            for (const QuadBand& band : *half) {
                for (int i = 0; i < 4; ++i) {
                    if (band.SmallestDiagonal == edges[i]) names += static_cast<char>('1' + i);
                }
            }
            if (half == &bands.OfSize) names += '|';
        }
        return names;
    };
    EXPECT_EQ(order({}), "4321|");
    EXPECT_EQ(order({0.03}), "2|431");
    EXPECT_EQ(order({0.038}), "32|41") << "30 % too large or too small";
    EXPECT_EQ(order({0.021}), "21|43");
    EXPECT_EQ(order({0.15, 0.012}), "41|32");
    EXPECT_EQ(order({5}), "4321|");

    // The table for a size, and why there is none for others.
    EXPECT_TRUE(LoadQuadTables(state, 0.03, 0.04));
    EXPECT_TRUE(state.Quads.Fault.empty());
    EXPECT_FALSE(LoadQuadTables(state, 0.3, 0.4));
    EXPECT_TRUE(state.Quads.OtherSizes);
    EXPECT_NE(state.Quads.Fault.find("only for 0.57 to 9.17 degrees across"), std::string::npos)
        << state.Quads.Fault;
    std::filesystem::remove(folder / "catalog" / QuadFileName);
    EXPECT_FALSE(LoadQuadTables(state, 0.03, 0.04));
    EXPECT_FALSE(state.Quads.OtherSizes);
    EXPECT_NE(state.Quads.Fault.find("vestrel-catalog quads makes them"), std::string::npos);
    EXPECT_TRUE(LikelyBands(state, {0.03}).OfSize.empty());
}

}  // namespace
}  // namespace vestrel
