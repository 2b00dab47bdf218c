// Triangles, votes, fit and alignment compared with plain procedures and independent solutions.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numbers>
#include <numeric>
#include <tuple>

#include "matching/libAlign.h"
#include "program/mPlateMatch.h"
#include "tests/testSupport.h"
#include "tests/vectorsForNow.h"

namespace vestrel {
namespace {

double Side(const PlateStarList& list, int i, int j) {
    const double dx = static_cast<double>(list[i].X) - static_cast<double>(list[j].X);
    const double dy = static_cast<double>(list[i].Y) - static_cast<double>(list[j].Y);
    return std::sqrt(dx * dx + dy * dy);
}

StarTriangleList PlainTriangles(const PlateStarList& list, int m) {
    StarTriangleList triangles;
    for (int i = 1; i <= m; ++i) {
        for (int j = i + 1; j <= m; ++j) {
            for (int k = j + 1; k <= m; ++k) {
                // Each side with the opposite corner, the longest side first.
                std::array<std::pair<double, int>, 3> sides = {
                    {{Side(list, i, j), k}, {Side(list, i, k), j}, {Side(list, j, k), i}}};
                std::sort(sides.rbegin(), sides.rend());
                const double mid = sides[1].first / sides[0].first;
                const double small = sides[2].first / sides[0].first;
                if (mid < 0.95 && small < 0.95 && mid + small > 1.3 && mid - small > 0.05) {
                    triangles.Add({sides[0].first, mid, small,
                                   static_cast<std::int16_t>(sides[2].second),
                                   static_cast<std::int16_t>(sides[1].second),
                                   static_cast<std::int16_t>(sides[0].second)});
                }
            }
        }
    }
    PlainCombSort(triangles, triangles.Count(), &StarTriangle::ShortRatio);
    return triangles;
}

void PlainVotes(VoteTable& votes, const StarTriangleList& one, const StarTriangleList& two,
                double tolerance) {
    const bool swapped = two.Count() < one.Count();
    const StarTriangleList& outer = swapped ? two : one;
    const StarTriangleList& inner = swapped ? one : two;
    // The first triangle with at least this ratio, else the last one.
    const auto reach = [&](double ratio) {
        const auto found =
            std::partition_point(inner.begin(), inner.begin() + inner.Count() - 1,
                                 [&](const StarTriangle& t) { return t.ShortRatio < ratio; });
        return static_cast<std::size_t>(found - inner.begin()) + 1;
    };
    for (const StarTriangle& triangle : outer) {
        double least = 1e20;
        std::size_t best = 0;
        const std::size_t high = reach(triangle.ShortRatio + 0.01);
        for (std::size_t k = reach(triangle.ShortRatio - 0.01); k <= high; ++k) {
            const double ds = triangle.ShortRatio - inner[k].ShortRatio;
            const double dm = triangle.MidRatio - inner[k].MidRatio;
            const double distance = ds * ds + dm * dm;
            if (distance < least) {
                least = distance;
                best = k;
            }
        }
        if (!(least < tolerance * tolerance)) continue;
        for (const auto corner :
             {&StarTriangle::Corner1, &StarTriangle::Corner2, &StarTriangle::Corner3}) {
            const int star1 = swapped ? inner[best].*corner : triangle.*corner;
            const int star2 = swapped ? triangle.*corner : inner[best].*corner;
            ++votes(star1, star2);
        }
    }
}

StarMatchList PlainMatches(VoteTable& votes, int m1, int m2, double divisor) {
    const double least = std::min(m1, m2);
    const double threshold = std::nearbyint(std::max((least - 2) * (least - 1) / divisor, 4.0));
    StarMatchList matches;
    for (int i = 1; i <= m1; ++i) {
        int most = 0;
        int best = 0;
        for (int j = 1; j <= m2; ++j) {
            if (votes(i, j) > most) {
                most = votes(i, j);
                best = j;
            }
        }
        if (!(most >= threshold)) continue;
        matches.Add({static_cast<std::int16_t>(i), static_cast<std::int16_t>(best),
                     static_cast<std::int16_t>(most), false});
        for (int j = 1; j <= m2; ++j) votes(i, j) = 0;
        for (int k = 1; k <= m1; ++k) votes(k, best) = 0;
    }
    PlainCombSort(matches, matches.Count(), &StarMatch::Votes);
    std::reverse(matches.begin(), matches.end());
    for (StarMatch& match : matches) match.InUse = true;
    return matches;
}

// The whole alignment, step by step. The fit is that of the program, which has tests of its own.
struct PlainAlignment : Alignment {
    PlainAlignment(const PlateStarList& list1, const PlateStarList& list2, double maxError,
                   const AlignSettings& settings)
        : List1(list1), List2(list2), MaxError(maxError), Settings(settings) {
        Count1 = list1.Count();
        Count2 = list2.Count();
        Matched = Run();
    }

    const PlateStarList& List1;
    const PlateStarList& List2;
    double MaxError;
    const AlignSettings& Settings;
    NumberedList<double> Residuals;

    void Fit() {
        FitError = FitPlate(List1, List2, Matches, Constants, Residuals);
        Geometry = PlateGeometry(Constants);
    }
    bool GeometryPasses() const {
        return std::abs(std::abs(Geometry.Stretch) - 1) <= Settings.MaxGeometricError &&
               std::abs(Geometry.Skew) <= Settings.MaxGeometricError;
    }
    /// Removes the worst pair if the fit is bad, its residuals are uneven or, in the first
    /// cleaning, the geometry is wrong. @return false if all is well
    bool Clean(double sigmas, bool first) {
        Fit();
        double sum = 0;
        double squares = 0;
        int worst = 0;
        for (int k = 1; k <= Matches.Count(); ++k) {
            if (!Matches[k].InUse) continue;
            sum += Residuals[k];
            squares += Residuals[k] * Residuals[k];
            if (worst == 0 || Residuals[k] > Residuals[worst]) worst = k;
        }
        const double mean = sum / UsedCount;
        const double deviation = std::sqrt(std::max(squares / UsedCount - mean * mean, 0.0));
        if ((!first || GeometryPasses()) && !(mean + sigmas * deviation < Residuals[worst]) &&
            !(1 / Geometry.Scale * MaxError < FitError)) {
            return false;
        }
        Matches[worst].InUse = false;
        --UsedCount;
        return true;
    }
    bool Predicted(int i, int j, double distance) const {
        double x = 0;
        double y = 0;
        ApplyPlateFit(Constants, static_cast<double>(List1[i].X), static_cast<double>(List1[i].Y),
                      x, y);
        const double dx = static_cast<double>(List2[j].X) - x;
        const double dy = static_cast<double>(List2[j].Y) - y;
        return std::sqrt(dx * dx + dy * dy) < distance;
    }

    bool Run() {
        const int m1 = std::min<int>({Count1, Count2 + 15, Settings.MaxStars});
        const int m2 = std::min<int>({Count2, Count1 + 15, Settings.MaxStars});
        if (m1 < 5 || m2 < 5) return false;
        VoteTable votes(m1, m2);
        PlainVotes(votes, PlainTriangles(List1, m1), PlainTriangles(List2, m2),
                   Settings.MatchTolerance);
        Matches = PlainMatches(votes, m1, m2, Settings.MatchDivisor);
        UsedCount = Matches.Count();
        if (UsedCount < 3) return false;
        while (Clean(2.5, true)) {
            if (UsedCount < 3) return false;
        }

        Count1 = std::min<int>(Count1, Settings.MaxStars);
        Count2 = std::min<int>(Count2, Settings.MaxStars);
        Matches.RemoveIf([](const StarMatch& match) { return !match.InUse; });
        const double savedError = FitError;
        const double distance = 1 / Geometry.Scale * MaxError;
        const auto taken = [&](std::int16_t StarMatch::*star, int number) {
            return std::any_of(Matches.begin(), Matches.end(),
                               [&](const StarMatch& match) { return match.*star == number; });
        };
        for (int i = 1; i <= Count1; ++i) {
            if (taken(&StarMatch::Star1, i)) continue;
            for (int j = 1; j <= Count2; ++j) {
                // A star of list 1 that had no pair may still get several.
                if (taken(&StarMatch::Star2, j) || !Predicted(i, j, distance)) continue;
                Matches.Add({static_cast<std::int16_t>(i), static_cast<std::int16_t>(j), 0, true});
                Fit();
                if (!(Matches.Count() > 4 && FitError > 2.5 * savedError) && GeometryPasses())
                    continue;
                Matches.Resize(Matches.Count() - 1);
            }
        }
        UsedCount = Matches.Count();
        if (UsedCount < 5) return false;
        while (UsedCount > 5 && Clean(2, false)) {
        }
        return true;
    }
};

Alignment Align(const PlateStarList& list1, const PlateStarList& list2, double maxError = 2,
                const AlignSettings& settings = AlignSettingsOf(SolveParameters())) {
    KeptTriangles kept;
    return AlignImages(list1, list2, maxError, settings, kept);
}

PlateStar StarAt(double x, double y) {
    return {static_cast<float>(x), static_cast<float>(y), 0, 0, 0};
}

PlateStarList RandomStars(Random& random, int n, double size) {
    PlateStarList list;
    for (int i = 0; i < n; ++i) {
        const double x = random.Between(0, size);
        list.Add(StarAt(x, random.Between(0, size)));
    }
    return list;
}

// Whole numbers on a small square: many equal sides, equal ratios, stars in one place.
PlateStarList StarsOnAGrid(Random& random, int n) {
    PlateStarList list = RandomStars(random, n, 12);
    for (PlateStar& star : list) star = StarAt(std::round(star.X), std::round(star.Y));
    return list;
}

struct Plate {
    double Turn = 0;
    double Scale = 1;
    bool Mirrored = false;
    double Noise = 0;
    int Outliers = 0;
    int Astray = 0;  ///< stars that lie off their place
};

// List 1 as a camera would record it: turned, scaled, mirrored, with noise and stars that are not
// in the list.
PlateStarList Photograph(Random& random, const PlateStarList& list1, const Plate& plate) {
    PlateStarList list2;
    for (const PlateStar& star : list1) {
        const double x = star.X * (plate.Mirrored ? -1.0 : 1.0);
        const double y = star.Y;
        const double cosine = plate.Scale * std::cos(plate.Turn);
        const double sine = plate.Scale * std::sin(plate.Turn);
        list2.Add(StarAt(x * cosine - y * sine + random.Normal(plate.Noise),
                         x * sine + y * cosine + random.Normal(plate.Noise)));
    }
    for (int i = 0; i < plate.Outliers; ++i) {
        list2[random.Whole(1, list1.Count())] = StarAt(random.Between(-800, 800) * plate.Scale,
                                                       random.Between(-800, 800) * plate.Scale);
    }
    for (int i = 0; i < plate.Astray; ++i) {
        list2[random.Whole(1, list1.Count())].X +=
            static_cast<float>(random.Normal(60 * plate.Scale));
    }
    std::shuffle(list2.begin(), list2.end(), random.Engine());
    return list2;
}

/// The parts of all pairs, to be compared in one expectation.
auto PartsOf(const StarMatchList& list) {
    std::vector<std::tuple<int, int, int, bool>> all;
    for (const StarMatch& m : list) all.emplace_back(m.Star1, m.Star2, m.Votes, m.InUse);
    return all;
}

TEST(FitPlate, ResidualsOfThePairsInUseAreOrthogonalToTheModel) {
    // This property defines least squares; no other constants have it.
    Random random(32);
    for (int trial = 0; trial < 300; ++trial) {
        const int n = random.Whole(4, 60);
        const double size = trial % 2 == 0 ? 5000 : 0.5;
        const PlateStarList list1 = RandomStars(random, n, size);
        const PlateStarList list2 = RandomStars(random, n, 4000);
        StarMatchList matches;
        for (std::int16_t i = 1; i <= n; ++i) {
            matches.Add({i, i, 0, i <= 4 || random.Whole(0, 3) > 0});
        }
        PlateConstants fit;
        NumberedList<double> residuals;
        const double error = FitPlate(list1, list2, matches, fit, residuals);
        std::array<double, 6> products{};
        double squares = 0;
        int used = 0;
        for (int i = 1; i <= n; ++i) {
            const auto x1 = static_cast<double>(list1[i].X);
            const auto y1 = static_cast<double>(list1[i].Y);
            const auto dx = fit.a * x1 + fit.b * y1 + fit.c - static_cast<double>(list2[i].X);
            const auto dy = fit.d * x1 + fit.e * y1 + fit.f - static_cast<double>(list2[i].Y);
            ASSERT_NEAR(residuals[i], std::hypot(dx, dy), 1e-9);
            if (!matches[i].InUse) continue;
            ++used;
            squares += dx * dx + dy * dy;
            const double terms[] = {x1 / size * dx, y1 / size * dx, dx,
                                    x1 / size * dy, y1 / size * dy, dy};
            for (std::size_t k = 0; k < 6; ++k) products[k] += terms[k];
        }
        for (const double product : products) ASSERT_NEAR(product, 0, 1e-7) << n;
        ASSERT_NEAR(error, std::sqrt(squares / used), 1e-9);
    }
}

TEST(FitPlate, SingularSetsNeverPassAndTheInverseUndoesTheModel) {
    Random random(33);
    const PlateStarList list2 = RandomStars(random, 8, 100);
    for (const auto& [alongX, alongY] : {std::pair(0.F, 0.F), {0, 1}, {1, 0}, {1, 1}, {1, 2}}) {
        PlateStarList line;
        StarMatchList matches;
        for (std::int16_t i = 1; i <= 8; ++i) {
            const auto place = static_cast<float>(random.Between(-900, 900));
            const auto along = [&](float times) { return times == 0 ? 3.3F : times * place; };
            line.Add({along(alongX), along(alongY), 0, 0, 0});
            matches.Add({i, i, 9, true});
        }
        PlateConstants fit;
        NumberedList<double> residuals;
        EXPECT_TRUE(std::isnan(FitPlate(line, list2, matches, fit, residuals)));
        EXPECT_FALSE(std::abs(PlateGeometry(fit).Stretch) < 1e300);
        EXPECT_FALSE(Align(line, list2).Matched);
        EXPECT_FALSE(Align(line, line).Matched);
    }
    const PlateConstants model{1.5, -0.25, 10, 0.3, 2, -40};
    double x1 = 1;
    double y1 = 1;
    InvertPlateFit(model, 1.5 * 12 + 0.25 * 7 + 10, 0.3 * 12 - 2 * 7 - 40, x1, y1);
    EXPECT_NEAR(x1, 12, 1e-12);
    EXPECT_NEAR(y1, -7, 1e-12);
    InvertPlateFit({1, 2, 3, 2, 4, 6}, 1, 1, x1, y1);
    EXPECT_EQ(x1, 0);
    EXPECT_EQ(y1, 0);
}

TEST(PlateGeometry, RecoversScaleStretchSkewAndAngleInEveryQuadrant) {
    for (int step = -31; step <= 31; ++step) {
        const double turn = step / 10.0;
        for (const double stretch : {1.0, 1.02, -1.0, -0.97}) {
            for (const double skew : {0.0, 0.013}) {
                // x2 = S (x cos − y sin); y2 = S·stretch ((sin + skew cos) x + (cos − skew sin) y)
                const double c = std::cos(turn);
                const double s = std::sin(turn);
                const double t = 0.7 * stretch;
                const FitGeometry found = PlateGeometry(
                    {0.7 * c, -0.7 * s, 5, t * (s + skew * c), t * (c - skew * s), 6});
                EXPECT_NEAR(found.Scale, 0.7, 1e-12);
                EXPECT_NEAR(found.Stretch, stretch, 1e-12);
                EXPECT_NEAR(found.Skew, skew, 1e-9) << turn;  // the decimal pi in the angle
                EXPECT_NEAR(found.Angle, turn, 1e-9);
                EXPECT_EQ(found.OffsetX, 5);
                EXPECT_EQ(found.OffsetY, 6);
            }
        }
    }
}

TEST(AlignImages, IsThePlainProcedureInWhatTrianglesAndGridsSay) {
    using Triangle = std::tuple<double, double, int, int, int>;
    Random random(36);
    int clear = 0;
    int unclear = 0;
    int clearNearTies = 0;
    // Kept from trial to trial, as in a search, so that what is left of larger lists must not
    // count.
    std::array<TriangleColumns, 2> columns;
    std::array<TriangleGrid, 2> grids;
    for (int trial = 0; trial < 400; ++trial) {
        SCOPED_TRACE("trial " + std::to_string(trial));
        const VectorsForNow vectors(trial % 2 == 0);
        const bool ties = trial % 10 == 9;
        // Many triangles of nearly the same shapes, which single precision does not tell apart.
        const bool nearTies = trial % 10 == 7;
        const int n = random.Whole(3, trial % 20 == 0 ? 90 : 40);
        PlateStarList list1 =
            ties || nearTies ? StarsOnAGrid(random, n) : RandomStars(random, n, 600);
        for (PlateStar& star : list1) {
            if (nearTies) star = StarAt(star.X + random.Normal(2e-6), star.Y + random.Normal(2e-6));
        }
        PlateStarList list2 = Photograph(random, list1,
                                         {.Turn = random.Between(-3, 3),
                                          .Scale = random.Between(0.3, 3),
                                          .Noise = nearTies ? 2e-6 : random.Between(0, 2),
                                          .Outliers = random.Whole(0, n / 2)});
        if (trial % 3 == 0) list2.Resize(std::max(list2.Count() / 2, 3));
        if (trial % 11 == 10) list1[random.Whole(1, n)].X = std::nanf("");
        if (trial % 11 == 9) list2[1].Y = std::numeric_limits<float>::infinity();
        const std::array<const PlateStarList*, 2> lists = {&list1, &list2};
        std::array<StarTriangleList, 2> plain;
        for (std::size_t k = 0; k < 2; ++k) {
            plain[k] = PlainTriangles(*lists[k], lists[k]->Count());
            BuildTriangleColumns(*lists[k], lists[k]->Count(), columns[k]);
            grids[k].Build(*lists[k], lists[k]->Count());
            std::vector<Triangle> expected;
            std::vector<Triangle> made;
            for (const StarTriangle& t : plain[k]) {
                expected.emplace_back(t.ShortRatio, t.MidRatio, t.Corner1, t.Corner2, t.Corner3);
            }
            for (std::size_t i = 0; i < static_cast<std::size_t>(columns[k].Count); ++i) {
                const TriangleCorners corners = columns[k].Corners[i];
                made.emplace_back(columns[k].Short[i], columns[k].Mid[i], StarAtCorner(corners, 0),
                                  StarAtCorner(corners, 1), StarAtCorner(corners, 2));
            }
            std::sort(expected.begin(), expected.end());
            std::sort(made.begin(), made.end());
            ASSERT_EQ(made, expected);
        }
        const bool wide = trial % 13 == 12;
        const double tolerance =
            wide ? 0.02 : (trial % 4 == 0 ? 0.01 : random.Between(0.0001, 0.01));
        VoteTable expected(list1.Count(), list2.Count());
        PlainVotes(expected, plain[0], plain[1], tolerance);
        VoteTable votes(list1.Count(), list2.Count());
        const bool firstIsOuter = grids[0].Count() <= grids[1].Count();
        const std::size_t outer = firstIsOuter ? 0 : 1;
        const auto voted =
            VoteByGrid(votes, grids[outer], grids[1 - outer], firstIsOuter, tolerance);
        if (!voted) {
            // Only in cases where the order of sorting decides.
            EXPECT_TRUE(ties || nearTies || wide);
            ++unclear;
            continue;
        }
        ASSERT_EQ(votes.Votes, expected.Votes);
        const int sum = std::accumulate(votes.Votes.begin(), votes.Votes.end(), 0);
        ASSERT_EQ(*voted * 3, sum);
        clear += sum > 0 ? 1 : 0;
        clearNearTies += nearTies && sum > 0 ? 1 : 0;
    }
    EXPECT_GT(clear, 270);
    EXPECT_GT(clearNearTies, 15);
    EXPECT_GT(unclear, 20);
}

// Six stars on a line and one beside it, in whole numbers, so that only rounding is left over. When
// the cleaning takes the one beside the line, the others fix no plate.
TEST(AlignImages, StarsOnOneLineAreNoMatch) {
    Random random(77);
    int singular = 0;
    int matched = 0;
    for (int trial = 0; trial < 10000; ++trial) {
        PlateStarList list1;
        PlateStarList list2;
        const int slope = random.Whole(-1, 1);
        for (int k = 0; k < 7; ++k) {
            const int x = random.Whole(0, 1000);
            const int y = slope * x + (k == 3 ? random.Whole(200, 900) : 0);
            list1.Add(StarAt(x, y));
            list2.Add(StarAt(1000 - 2 * y, 50 + 2 * x));
        }
        const Alignment out = Align(list1, list2);
        matched += out.Matched;
        singular += out.UsedCount >= 5 && !std::isfinite(out.FitError);
        if (out.Matched) {
            ASSERT_TRUE(std::isfinite(out.FitError + out.Constants.a)) << trial;
        }
    }
    EXPECT_GT(singular, 10) << "the case was hardly met";
    EXPECT_GT(matched, 60);
}

TEST(AlignImages, IsThePlainProcedureStepByStep) {
    Random random(35);
    int matched = 0;
    int differing = 0;
    for (int trial = 0; trial < 600; ++trial) {
        // With loose limits the scale moves as pairs are added.
        const bool loose = trial % 5 == 4;
        const int n = random.Whole(trial % 6 == 0 ? 3 : 8, trial % 10 == 0 ? 60 : 28);
        PlateStarList list1 =
            trial % 9 == 0 ? StarsOnAGrid(random, n) : RandomStars(random, n, 600);
        PlateStarList list2 = Photograph(random, list1,
                                         {.Turn = random.Between(-3, 3),
                                          .Scale = random.Between(0.3, 3),
                                          .Mirrored = trial % 2 == 0,
                                          .Noise = random.Between(0, loose ? 0.5 : 4),
                                          .Outliers = random.Whole(0, n / (loose ? 8 : 2)),
                                          .Astray = loose ? n / 3 : 0});
        if (trial % 7 == 0) list2.Resize(list2.Count() * 2 / 3);
        if (trial % 7 == 1) {
            for (const PlateStar& star : list1) list2.Add(star);
        }
        if (trial % 7 == 2) {  // close companions, which the extension may take twice
            for (std::int32_t i = list1.Count(); i >= 1; --i) {
                list1.Add(list1[i]);
                list1[list1.Count()].X += 1;
            }
        }
        AlignSettings settings = AlignSettingsOf(SolveParameters());
        if (trial % 5 == 0) settings.MatchDivisor = 20;
        if (trial % 4 == 1) settings.MaxStars = static_cast<std::int16_t>(random.Whole(4, 20));
        if (trial % 4 == 2) settings.MaxGeometricError = random.Between(0.001, 0.05);
        if (loose) settings.MaxGeometricError = 0.6;
        if (trial % 4 == 3) settings.MatchTolerance = random.Between(0.001, 0.03);
        const double maxError = random.Between(0.2, 6) * (loose ? 30 : 1);
        const VectorsForNow vectors(trial % 3 == 0);
        const PlainAlignment plain(list1, list2, maxError, settings);
        const Alignment out = Align(list1, list2, maxError, settings);
        SCOPED_TRACE("trial " + std::to_string(trial));
        ASSERT_EQ(out.Matched, plain.Matched);
        ASSERT_EQ(out.Count1, plain.Count1);
        ASSERT_EQ(out.Count2, plain.Count2);
        ASSERT_EQ(out.UsedCount, plain.UsedCount);
        ASSERT_EQ(PartsOf(out.Matches), PartsOf(plain.Matches));
        matched += plain.Matched;
        differing += plain.Matched && plain.UsedCount < plain.Matches.Count();
        if (std::isnan(plain.FitError)) continue;
        ASSERT_EQ(out.FitError, plain.FitError);
        ASSERT_EQ(out.Constants.a, plain.Constants.a);
        ASSERT_EQ(out.Constants.f, plain.Constants.f);
        ASSERT_EQ(out.Geometry.Skew, plain.Geometry.Skew);
    }
    EXPECT_GT(matched, 200);
    EXPECT_GT(differing, 30) << "the last cleaning was hardly at work";
}

}  // namespace
}  // namespace vestrel
