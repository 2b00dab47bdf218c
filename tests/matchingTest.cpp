// Triangles, votes, fit and alignment against plain procedures and independent solutions.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

#include "matching/libAlign.h"
#include "tests/testSupport.h"

namespace vestrel {
namespace {

double Side(const PlateStarList& list, int i, int j) {
    const double dx = static_cast<double>(list[i].X) - static_cast<double>(list[j].X);
    const double dy = static_cast<double>(list[i].Y) - static_cast<double>(list[j].Y);
    return std::sqrt(dx * dx + dy * dy);
}

StarTriangleList PlainTriangles(const PlateStarList& list, int m) {
    StarTriangleList triangles(1);
    for (int i = 1; i <= m; ++i) {
        for (int j = i + 1; j <= m; ++j) {
            for (int k = j + 1; k <= m; ++k) {
                double a = Side(list, i, j);
                double b = Side(list, i, k);
                double c = Side(list, j, k);
                int p = i;
                int q = j;
                int r = k;
                const auto order = [](double& first, double& second, int& one, int& other) {
                    if (first < second) {
                        std::swap(first, second);
                        std::swap(one, other);
                    }
                };
                order(a, b, q, r);
                order(b, c, p, q);
                order(a, b, q, r);
                if (!(a > 0)) continue;
                const double mid = b / a;
                const double small = c / a;
                if (mid < 0.95 && small < 0.95 && mid + small > 1.3 &&
                    std::abs(mid - small) > 0.05) {
                    triangles.push_back({a, mid, small, static_cast<std::int16_t>(p),
                                         static_cast<std::int16_t>(q),
                                         static_cast<std::int16_t>(r)});
                }
            }
        }
    }
    PlainCombSort(triangles, static_cast<int>(triangles.size()) - 1, &StarTriangle::ShortRatio);
    return triangles;
}

int PlainVotes(VoteTable& votes, const StarTriangleList& one, const StarTriangleList& two,
               double tolerance) {
    const bool swapped = two.size() < one.size();
    const StarTriangleList& outer = swapped ? two : one;
    const StarTriangleList& inner = swapped ? one : two;
    const std::size_t last = inner.size() - 1;
    std::size_t low = 1;
    std::size_t high = 1;
    int voted = 0;
    for (std::size_t o = 1; o < outer.size(); ++o) {
        const StarTriangle& triangle = outer[o];
        while (low < last && inner[low].ShortRatio < triangle.ShortRatio - 0.01) ++low;
        while (high < last && inner[high].ShortRatio < triangle.ShortRatio + 0.01) ++high;
        double least = 1e20;
        std::size_t best = 0;
        for (std::size_t k = low; k <= high; ++k) {
            const double ds = triangle.ShortRatio - inner[k].ShortRatio;
            const double dm = triangle.MidRatio - inner[k].MidRatio;
            const double distance = ds * ds + dm * dm;
            if (distance < least) {
                least = distance;
                best = k;
            }
        }
        if (!(least < tolerance * tolerance)) continue;
        ++voted;
        const StarTriangle& t1 = swapped ? inner[best] : triangle;
        const StarTriangle& t2 = swapped ? triangle : inner[best];
        ++votes(t1.Corner1, t2.Corner1);
        ++votes(t1.Corner2, t2.Corner2);
        ++votes(t1.Corner3, t2.Corner3);
    }
    return voted;
}

StarMatchList PlainMatches(VoteTable& votes, int m1, int m2, double divisor) {
    const double least = std::min(m1, m2);
    const double threshold = std::nearbyint(std::max((least - 2) * (least - 1) / divisor, 4.0));
    StarMatchList matches(1);
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
        matches.push_back({static_cast<std::int16_t>(i), static_cast<std::int16_t>(best),
                           static_cast<std::int16_t>(most), false});
        for (int j = 1; j <= m2; ++j) votes(i, j) = 0;
        for (int k = 1; k <= m1; ++k) votes(k, best) = 0;
    }
    PlainCombSort(matches, static_cast<int>(matches.size()) - 1, &StarMatch::Votes);
    std::reverse(matches.begin() + 1, matches.end());
    for (std::size_t k = 1; k < matches.size(); ++k) matches[k].InUse = true;
    return matches;
}

struct Outcome {
    bool Matched = false;
    std::int32_t Count1 = 0;
    std::int32_t Count2 = 0;
    StarMatchList Matches;
    std::int32_t MatchCount = -7;
    PlateConstants Constants;
    FitGeometry Geometry;
    double FitError = -7;
    std::int32_t UsedCount = -7;
};

// The whole alignment, step by step. The fit itself is the product's: it has its own judge.
class PlainAlignment {
 public:
    PlainAlignment(const PlateStarList& list1, int count1, const PlateStarList& list2, int count2,
                   double maxError, const AlignSettings& settings)
        : list1_(list1), list2_(list2), maxError_(maxError), settings_(settings) {
        out.Count1 = count1;
        out.Count2 = count2;
        out.Matched = Run();
    }

    Outcome out;

 private:
    void Fit() {
        out.FitError =
            FitPlate(list1_, list2_, out.Matches, out.MatchCount, out.Constants, residuals_);
        out.Geometry = PlateGeometry(out.Constants);
    }
    bool GeometryFails() const {
        const double stretch = std::abs(std::abs(out.Geometry.Stretch) - 1);
        const double skew = std::abs(out.Geometry.Skew);
        return std::isnan(stretch) || std::isnan(skew) || stretch > settings_.MaxGeometricError ||
               skew > settings_.MaxGeometricError;
    }
    // Whether the residuals are uneven; gives the worst pair.
    bool Uneven(double sigmas, int& worst) const {
        double n = 0;
        double sum = 0;
        double squares = 0;
        double largest = 0;
        worst = 0;
        for (int k = 1; k <= out.MatchCount; ++k) {
            if (!out.Matches[k].InUse) continue;
            n += 1;
            sum += residuals_[k];
            squares += residuals_[k] * residuals_[k];
            if (worst == 0 || residuals_[k] > largest) {
                largest = residuals_[k];
                worst = k;
            }
        }
        const double mean = sum / n;
        const double deviation = std::sqrt(std::max(squares / n - mean * mean, 0.0));
        return mean + sigmas * deviation < largest;
    }

    bool Run() {
        int m1 = out.Count1;
        int m2 = out.Count2;
        if (out.Count2 + 15 < out.Count1) m1 = out.Count2 + 15;
        if (out.Count1 + 15 < out.Count2) m2 = out.Count1 + 15;
        m1 = std::min<int>(m1, settings_.MaxStars);
        m2 = std::min<int>(m2, settings_.MaxStars);
        if (!(m1 > 4 && m2 > 4)) return false;
        VoteTable votes(m1, m2);
        PlainVotes(votes, PlainTriangles(list1_, m1), PlainTriangles(list2_, m2),
                   settings_.MatchTolerance);
        out.Matches = PlainMatches(votes, m1, m2, settings_.MatchDivisor);
        out.MatchCount = out.UsedCount = static_cast<std::int32_t>(out.Matches.size()) - 1;
        if (out.UsedCount < 3) return false;

        bool ok = false;
        double invScale = 0;
        int worst = 0;
        while (out.UsedCount >= 3 && !ok) {
            Fit();
            invScale = 1 / out.Geometry.Scale;
            ok = !GeometryFails();
            if (Uneven(2.5, worst) || invScale * maxError_ < out.FitError) ok = false;
            if (ok) continue;
            --out.UsedCount;
            out.Matches[worst].InUse = false;
        }
        if (out.UsedCount < 3 || !ok) return false;

        const int n1 = out.Count1 = std::min<int>(out.Count1, settings_.MaxStars);
        const int n2 = out.Count2 = std::min<int>(out.Count2, settings_.MaxStars);
        StarMatchList kept(1);
        std::vector<bool> taken1(500);
        std::vector<bool> taken2(500);
        for (std::size_t k = 1; k < out.Matches.size(); ++k) {
            if (!out.Matches[k].InUse) continue;
            kept.push_back(out.Matches[k]);
            taken1[out.Matches[k].Star1] = true;
            taken2[out.Matches[k].Star2] = true;
        }
        out.Matches = kept;
        out.MatchCount = static_cast<std::int32_t>(kept.size()) - 1;
        const double savedError = out.FitError;
        for (int i = 1; i <= n1; ++i) {
            if (taken1[i]) continue;
            for (int j = 1; j <= n2; ++j) {
                if (taken2[j]) continue;
                const auto x1 = static_cast<double>(list1_[i].X);
                const auto y1 = static_cast<double>(list1_[i].Y);
                const PlateConstants& t = out.Constants;
                const double dx = static_cast<double>(list2_[j].X) - (t.a * x1 + t.b * y1 + t.c);
                const double dy = static_cast<double>(list2_[j].Y) - (t.d * x1 + t.e * y1 + t.f);
                if (!(std::sqrt(dx * dx + dy * dy) < invScale * maxError_)) continue;
                out.Matches.push_back(
                    {static_cast<std::int16_t>(i), static_cast<std::int16_t>(j), 0, true});
                ++out.MatchCount;
                Fit();
                if ((out.MatchCount > 4 && out.FitError > 2.5 * savedError) || GeometryFails()) {
                    out.Matches.pop_back();
                    --out.MatchCount;
                } else {
                    taken1[i] = taken2[j] = true;
                }
            }
        }
        if (out.MatchCount < 5) return false;
        out.UsedCount = out.MatchCount;
        for (bool removed = true; out.UsedCount > 5 && removed;) {
            Fit();
            invScale = 1 / out.Geometry.Scale;
            removed = Uneven(2, worst) || invScale * maxError_ < out.FitError;
            if (!removed) continue;
            out.Matches[worst].InUse = false;
            --out.UsedCount;
        }
        return out.UsedCount >= 5;
    }

    const PlateStarList& list1_;
    const PlateStarList& list2_;
    double maxError_;
    const AlignSettings& settings_;
    std::vector<double> residuals_;
};

Outcome Align(const PlateStarList& list1, const PlateStarList& list2, double maxError = 2,
              const AlignSettings& settings = {}) {
    Outcome out;
    out.Count1 = static_cast<std::int32_t>(list1.size()) - 1;
    out.Count2 = static_cast<std::int32_t>(list2.size()) - 1;
    KeptTriangles kept;
    AlignReport report;
    out.Matched = AlignImages(list1, out.Count1, list2, out.Count2, out.Matches, out.MatchCount,
                              out.Constants, out.Geometry, out.FitError, out.UsedCount, maxError,
                              settings, kept, report);
    return out;
}

PlateStarList RandomStars(Random& random, int n, double size) {
    PlateStarList list(1);
    for (int i = 0; i < n; ++i) {
        list.push_back({static_cast<float>(random.Between(0, size)),
                        static_cast<float>(random.Between(0, size)), 0, 0, 0});
    }
    return list;
}

// Whole numbers on a small square: many equal sides, equal ratios, stars in one place.
PlateStarList StarsOnAGrid(Random& random, int n) {
    PlateStarList list(1);
    for (int i = 0; i < n; ++i) {
        list.push_back({static_cast<float>(random.Whole(0, 12)),
                        static_cast<float>(random.Whole(0, 12)), 0, 0, 0});
    }
    return list;
}

struct Plate {
    double Turn = 0;
    double Scale = 1;
    bool Mirrored = false;
    double Noise = 0;
    int Outliers = 0;
    int Astray = 0;  ///< stars some way off their place
};

// What a camera makes of list 1: turned, scaled, mirrored, with noise and with strangers.
PlateStarList Photograph(Random& random, const PlateStarList& list1, const Plate& plate) {
    PlateStarList list2(1);
    for (std::size_t i = 1; i < list1.size(); ++i) {
        const double x = static_cast<double>(list1[i].X) * (plate.Mirrored ? -1 : 1);
        const auto y = static_cast<double>(list1[i].Y);
        const double cosine = plate.Scale * std::cos(plate.Turn);
        const double sine = plate.Scale * std::sin(plate.Turn);
        list2.push_back({static_cast<float>(x * cosine - y * sine + random.Normal(plate.Noise)),
                         static_cast<float>(x * sine + y * cosine + random.Normal(plate.Noise)), 0,
                         0, 0});
    }
    for (int i = 0; i < plate.Outliers; ++i) {
        list2[random.Whole(1, static_cast<int>(list1.size()) - 1)] = {
            static_cast<float>(random.Between(-800, 800) * plate.Scale),
            static_cast<float>(random.Between(-800, 800) * plate.Scale), 0, 0, 0};
    }
    for (int i = 0; i < plate.Astray; ++i) {
        list2[random.Whole(1, static_cast<int>(list1.size()) - 1)].X +=
            static_cast<float>(random.Normal(60 * plate.Scale));
    }
    std::shuffle(list2.begin() + 1, list2.end(), random.Engine());
    return list2;
}

bool SameTriangle(const StarTriangle& one, const StarTriangle& other) {
    return one.LongSide == other.LongSide && one.MidRatio == other.MidRatio &&
           one.ShortRatio == other.ShortRatio && one.Corner1 == other.Corner1 &&
           one.Corner2 == other.Corner2 && one.Corner3 == other.Corner3;
}

bool SameMatch(const StarMatch& one, const StarMatch& other) {
    return one.Star1 == other.Star1 && one.Star2 == other.Star2 && one.Votes == other.Votes &&
           one.InUse == other.InUse;
}

TEST(Triangles, TrianglesVotesAndPairsAreThoseOfThePlainProcedures) {
    Random random(31);
    int pairs = 0;
    for (int trial = 0; trial < 150; ++trial) {
        const int m1 = random.Whole(0, trial % 10 == 0 ? 45 : 25);
        const int m2 = random.Whole(0, 25);
        const bool grid = trial % 3 == 0;
        const PlateStarList list1 = grid ? StarsOnAGrid(random, m1) : RandomStars(random, m1, 500);
        PlateStarList list2 = grid ? StarsOnAGrid(random, m2) : RandomStars(random, m2, 500);
        if (trial % 3 == 1) list2 = Photograph(random, list1, {.Turn = 1, .Noise = 0.2});
        const int n2 = static_cast<int>(list2.size()) - 1;

        const StarTriangleList plain1 = PlainTriangles(list1, m1);
        const StarTriangleList plain2 = PlainTriangles(list2, n2);
        StarTriangleList triangles1;
        StarTriangleList triangles2;
        const std::int32_t count1 = BuildTriangles(list1, m1, triangles1);
        const std::int32_t count2 = BuildTriangles(list2, n2, triangles2);
        ASSERT_EQ(count1 + 1U, plain1.size());
        ASSERT_EQ(count2 + 1U, plain2.size());
        for (int k = 1; k <= count1; ++k) ASSERT_TRUE(SameTriangle(triangles1[k], plain1[k])) << k;

        const double tolerance = trial % 4 == 0 ? 0.05 : trial % 4 == 1 ? 0.002 : 0.01;
        VoteTable votes(m1, n2);
        VoteTable plainVotes(m1, n2);
        ASSERT_EQ(VoteTriangles(votes, triangles1, count1, triangles2, count2, tolerance),
                  PlainVotes(plainVotes, plain1, plain2, tolerance));
        ASSERT_EQ(votes.Votes, plainVotes.Votes);

        StarMatchList matches;
        const double divisor = trial % 5 == 0 ? 20 : 150;
        const StarMatchList plain = PlainMatches(plainVotes, m1, n2, divisor);
        ASSERT_EQ(SelectMatches(votes, m1, n2, divisor, matches) + 1U, plain.size());
        ASSERT_TRUE(std::equal(plain.begin() + 1, plain.end(), matches.begin() + 1, SameMatch));
        pairs += static_cast<int>(plain.size()) - 1;
    }
    EXPECT_GT(pairs, 500);
}

TEST(FitPlate, ResidualsOfThePairsInUseAreOrthogonalToTheModel) {
    // That is what least squares means, and no other constants have it.
    Random random(32);
    for (int trial = 0; trial < 300; ++trial) {
        const int n = random.Whole(4, 60);
        const double size = trial % 2 == 0 ? 5000 : 0.5;
        const PlateStarList list1 = RandomStars(random, n, size);
        const PlateStarList list2 = RandomStars(random, n, 4000);
        StarMatchList matches(1);
        for (int i = 1; i <= n; ++i) {
            const auto star = static_cast<std::int16_t>(i);
            matches.push_back({star, star, 0, i <= 4 || random.Whole(0, 3) > 0});
        }
        PlateConstants fit;
        std::vector<double> residuals;
        const double error = FitPlate(list1, list2, matches, n, fit, residuals);
        long double products[6] = {};
        long double squares = 0;
        int used = 0;
        for (int i = 1; i <= n; ++i) {
            const auto x1 = static_cast<long double>(list1[i].X);
            const auto y1 = static_cast<long double>(list1[i].Y);
            const auto dx = fit.a * x1 + fit.b * y1 + fit.c - static_cast<long double>(list2[i].X);
            const auto dy = fit.d * x1 + fit.e * y1 + fit.f - static_cast<long double>(list2[i].Y);
            ASSERT_NEAR(residuals[i], static_cast<double>(std::hypot(dx, dy)), 1e-9);
            if (!matches[i].InUse) continue;
            ++used;
            squares += dx * dx + dy * dy;
            const long double model[3] = {x1 / size, y1 / size, 1};
            for (int k = 0; k < 3; ++k) {
                products[k] += model[k] * dx;
                products[k + 3] += model[k] * dy;
            }
        }
        for (const long double product : products) {
            ASSERT_NEAR(static_cast<double>(product), 0, 1e-7) << n;
        }
        ASSERT_NEAR(error, static_cast<double>(std::sqrt(squares / used)), 1e-9);
    }
}

TEST(FitPlate, SingularSetsNeverPassAndTheInverseUndoesTheModel) {
    Random random(33);
    const PlateStarList list2 = RandomStars(random, 8, 100);
    for (int kind = 0; kind < 4; ++kind) {
        PlateStarList line(1);
        StarMatchList matches(1);
        for (int i = 0; i < 8; ++i) {
            const double place = kind == 0 ? 7 : random.Between(-900, 900);
            line.push_back({static_cast<float>(kind == 1 ? 3.3 : place),
                            static_cast<float>(kind == 3 ? 2 * place + 1 : place), 0, 0, 0});
            const auto star = static_cast<std::int16_t>(i + 1);
            matches.push_back({star, star, 9, true});
        }
        if (kind == 3) {
            for (PlateStar& star : line) star.Y = 2 * star.X;
        }
        PlateConstants fit;
        std::vector<double> residuals;
        EXPECT_TRUE(std::isnan(FitPlate(line, list2, matches, 8, fit, residuals))) << kind;
        const FitGeometry geometry = PlateGeometry(fit);
        EXPECT_FALSE(std::abs(std::abs(geometry.Stretch) - 1) < 1e300);
        EXPECT_FALSE(Align(line, list2).Matched);
        EXPECT_FALSE(Align(line, line).Matched);
    }
    const PlateConstants model{1.5, -0.25, 10, 0.3, 2, -40};
    double x2 = 0;
    double y2 = 0;
    ApplyPlateFit(model, 12, -7, x2, y2);
    EXPECT_EQ(x2, 1.5 * 12 + 0.25 * 7 + 10);
    EXPECT_EQ(y2, 0.3 * 12 - 2 * 7 - 40);
    double x1 = 1;
    double y1 = 1;
    InvertPlateFit(model, x2, y2, x1, y1);
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

TEST(AlignImages, FindsTurnedScaledAndMirroredListsAmongStrangers) {
    Random random(34);
    int found = 0;
    for (int trial = 0; trial < 200; ++trial) {
        const PlateStarList list1 = RandomStars(random, random.Whole(20, 60), 800);
        const Plate plate{.Turn = random.Between(-3.1, 3.1),
                          .Scale = random.Between(0.5, 2),
                          .Mirrored = trial % 2 == 0,
                          .Noise = 0.2,
                          .Outliers = trial % 8};
        const PlateStarList list2 = Photograph(random, list1, plate);
        const Outcome out = Align(list1, list2);
        if (!out.Matched) continue;
        ++found;
        EXPECT_NEAR(out.Geometry.Scale, plate.Scale, 0.01);
        EXPECT_NEAR(out.Geometry.Stretch, plate.Mirrored ? -1 : 1, 0.01);
        EXPECT_NEAR(out.Geometry.Skew, 0, 0.01);
        EXPECT_LE(out.Count1, 45);
    }
    EXPECT_GE(found, 196);
    const PlateStarList list = RandomStars(random, 30, 500);
    const Outcome same = Align(list, list);
    ASSERT_TRUE(same.Matched);
    EXPECT_EQ(same.UsedCount, 30);
    EXPECT_NEAR(same.Geometry.Scale, 1, 1e-9);
    EXPECT_NEAR(same.Geometry.Angle, 0, 1e-9);
    const Outcome turned =
        Align(list, Photograph(random, list, {.Turn = std::numbers::pi / 2, .Scale = 2}));
    ASSERT_TRUE(turned.Matched);
    EXPECT_NEAR(turned.Geometry.Angle, std::numbers::pi / 2, 1e-6);
    EXPECT_NEAR(turned.Geometry.Skew, 0, 1e-6);
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
        if (trial % 7 == 0) list2.resize(list2.size() * 2 / 3);
        if (trial % 7 == 1) list2.insert(list2.end(), list1.begin() + 1, list1.end());
        if (trial % 7 == 2) {  // close companions, which the extension may take twice
            for (std::size_t i = list1.size(); i-- > 1;) {
                list1.push_back(list1[i]);
                list1.back().X += 1;
            }
        }
        AlignSettings settings;
        if (trial % 4 == 1) settings.MaxStars = static_cast<std::int16_t>(random.Whole(4, 20));
        if (trial % 4 == 2) settings.MaxGeometricError = random.Between(0.001, 0.05);
        if (loose) settings.MaxGeometricError = 0.6;
        if (trial % 4 == 3) settings.MatchTolerance = random.Between(0.001, 0.03);
        const double maxError = random.Between(0.2, 6) * (loose ? 30 : 1);
        const Outcome plain = PlainAlignment(list1, static_cast<int>(list1.size()) - 1, list2,
                                             static_cast<int>(list2.size()) - 1, maxError, settings)
                                  .out;
        const Outcome out = Align(list1, list2, maxError, settings);
        SCOPED_TRACE("trial " + std::to_string(trial));
        ASSERT_EQ(out.Matched, plain.Matched);
        ASSERT_EQ(out.Count1, plain.Count1);
        ASSERT_EQ(out.Count2, plain.Count2);
        ASSERT_EQ(out.MatchCount, plain.MatchCount);
        ASSERT_EQ(out.UsedCount, plain.UsedCount);
        for (int k = 1; k <= plain.MatchCount; ++k) {
            ASSERT_TRUE(SameMatch(out.Matches[k], plain.Matches[k])) << k;
        }
        matched += plain.Matched;
        differing += plain.Matched && plain.UsedCount < plain.MatchCount;
        if (std::isnan(plain.FitError)) continue;
        ASSERT_EQ(out.FitError, plain.FitError);
        ASSERT_EQ(out.Constants.a, plain.Constants.a);
        ASSERT_EQ(out.Constants.f, plain.Constants.f);
        ASSERT_EQ(out.Geometry.Skew, plain.Geometry.Skew);
    }
    EXPECT_GT(matched, 200);
    EXPECT_GT(differing, 30) << "the last cleaning was hardly at work";
}

TEST(AlignImages, FewAndEquilateralStarsLeaveTheOutputsUntouched) {
    Random random(36);
    const PlateStarList four = RandomStars(random, 4, 100);
    const PlateStarList many = RandomStars(random, 40, 100);
    for (const auto& [list1, list2] : {std::pair(four, many), std::pair(many, four)}) {
        const Outcome out = Align(list1, list2);
        EXPECT_FALSE(out.Matched);
        EXPECT_EQ(out.MatchCount, -7);
        EXPECT_EQ(out.FitError, -7);
    }
    PlateStarList square(1);
    for (int i = 0; i < 9; ++i) {
        square.push_back(
            {static_cast<float>(i % 3), static_cast<float>(std::floor(i / 3.0)), 0, 0, 0});
    }
    const Outcome out = Align(square, square);
    EXPECT_FALSE(out.Matched);
    EXPECT_EQ(out.MatchCount, 0);
}

TEST(AlignImages, ChanceDoesNotMatch) {
    Random random(37);
    for (const int stars : {12, 20, 30, 45}) {
        int matched = 0;
        for (int trial = 0; trial < 500; ++trial) {
            const PlateStarList list1 = RandomStars(random, stars + 10, 1200);
            const PlateStarList list2 = RandomStars(random, stars, 1000);
            matched += Align(list1, list2).Matched;
        }
        // None was seen in 10,000 of each: a single one in these 500 means that a limit is gone.
        EXPECT_EQ(matched, 0) << stars << " stars";
    }
}

}  // namespace
}  // namespace vestrel
