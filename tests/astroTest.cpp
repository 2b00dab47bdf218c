// Numbers, texts, angles, the projection, the comb sort and ParallelFor.

#include <gtest/gtest.h>

#if defined(__unix__)
#include <sys/wait.h>
#include <unistd.h>
#endif

#include <array>
#include <atomic>
#include <bit>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <numbers>
#include <stdexcept>
#include <thread>

#include "astro/libConversions.h"
#include "astro/libIntegerOrder.h"
#include "astro/libMath.h"
#include "astro/libParallel.h"
#include "astro/libSphericalMath.h"
#include "astro/libStrings.h"
#include "tests/testSupport.h"
#include "tests/vectorsForNow.h"

namespace vestrel {
namespace {

double Degrees(double degrees) {
    return degrees * Pi / 180;
}

TEST(Sexagesimal, PaddingCarryWrapAndSigns) {
    const auto hours = [](double h, double m, double s) {
        return (h + m / 60 + s / 3600) * Pi / 12;
    };
    EXPECT_EQ(FormatRA(hours(5, 32, 7.5), true, 2), "05h32m7.5s");
    EXPECT_EQ(FormatRA(hours(5, 32, 7.0001), false, 2), "05 32 07");
    EXPECT_EQ(FormatRA(hours(12, 34, 10.25), false, 1), "12 34 10.2");
    EXPECT_EQ(FormatRA(hours(1, 59, 59.996), false, 2), "02 00 00");
    EXPECT_EQ(FormatRA(hours(23, 59, 59.996), true, 2), "00h00m00s");
    EXPECT_EQ(FormatRA(hours(0, 0, 0.00004), false, 5), "00 00 4E-05");
    EXPECT_EQ(FormatDec(Degrees(-0.5), false, 0), "-00 30 00");
    EXPECT_EQ(FormatDec(Degrees(-0.5), true, 1), "-00\xC2\xB0 30' 00\"");
    EXPECT_EQ(FormatDec(Degrees(89.9999999), false, 1), "90 00 00");
    EXPECT_EQ(FormatDec(-1e-12, false, 1), "-00 00 00");
}

TEST(Sexagesimal, EveryFormThatIsReadAndEveryFormThatIsNot) {
    const auto readRa = [](double hours, std::initializer_list<const char*> texts) {
        for (const char* text : texts) {
            EXPECT_NEAR(ParseRA(text) * 12 / Pi, hours, 1e-13) << text;
        }
    };
    readRa(5 + 30 / 60.0 + 15 / 3600.0, {"5h30m15s", "5:30:15", "5 30 15", "5H30M15S junk",
                                         " 5 : 30 : 15 ", "5h30.25", "5.25h15.25m"});
    readRa(12, {"12 00", "12h", "180", "12:"});
    readRa(0.8, {"12", "1.2E1"});  // degrees
    readRa(0.5, {"1h-30m", "0 30"});
    EXPECT_EQ(ParseRA("24 00 00"), TwoPi);
    for (const char* text : {"24 00 01", "-1 0 0", "360.001", "", "h", "5h x", "5 30s", "\t12",
                             "5h:30", "nan", "inf h", "5:30:15xyz", "1d1"}) {
        EXPECT_EQ(ParseRA(text), InvalidAngle) << text;
    }

    const auto readDec = [](double degrees, std::initializer_list<const char*> texts) {
        for (const char* text : texts) {
            EXPECT_NEAR(ParseDec(text) * 180 / Pi, degrees, 1e-13) << text;
        }
    };
    readDec(45.5, {"+45 30 00", "45d30m", "45D 30' 0\"", "45.5", "4.55E1", "45\xC2\xB0 30'0\"",
                   "45 : 30 : 0\"junk"});
    readDec(-10.5, {"10 -30 00", "-10 30", "-10.5"});
    readDec(10.5, {"-10 -30 00", "-10:-30"});
    readDec(-10.51, {"-10 -30 -36", "-10 30 36"});
    readDec(-0.5, {"-0:30", "-d30m", "0 -30"});
    readDec(-90, {"-90", "-90 00 00"});
    for (const char* text :
         {"91 00 00", "90:00:00.01", "--5 0 0", "5 --30 0", "5 x", "", "  ", "x", "1:2:3junk"}) {
        EXPECT_EQ(ParseDec(text), InvalidAngle) << text;
    }
}

TEST(Numbers, TextKeepsFifteenDigitsAndOneForm) {
    for (const char* text :
         {"0", "0.5", "-12.25", "0.333333333333333", "123456789012345", "1E+15", "100000000000000",
          "0.0001", "1.2E-05", "1E+100", "-2.5E-07", "999999999999999"}) {
        EXPECT_EQ(NumberText(std::strtod(text, nullptr)), text);
    }
    EXPECT_EQ(NumberText(-0.0), "0");
    EXPECT_EQ(NumberText(0.1 + 0.2), "0.3");
    EXPECT_EQ(NumberText(999999999999999.9), "1E+15");
    EXPECT_EQ(RoundedText(-0.004, 2), "0");
    EXPECT_EQ(RoundedText(0.125, 2), "0.12");
    EXPECT_EQ(RoundedText(0.375, 2), "0.38");

    Random random(2);
    for (int trial = 0; trial < 20000; ++trial) {
        const std::uint64_t bits =
            static_cast<std::uint64_t>(random.Engine()()) << 32 | random.Engine()();
        const double value = std::bit_cast<double>(bits);
        if (!std::isfinite(value)) continue;
        std::array<char, 64> judge{};
        std::snprintf(judge.data(), judge.size(), "%.14e", value);
        const std::string text = NumberText(value);
        ASSERT_EQ(ParseNumber(text).value(), std::strtod(judge.data(), nullptr)) << text;
        if (std::abs(value) < 1e300) {
            const std::string plain = PlainNumberText(value);
            ASSERT_EQ(plain.find('E'), std::string::npos);
            ASSERT_EQ(ParseNumber(plain).value(), ParseNumber(text).value()) << plain;
        }
    }
    for (const char* text : {"", ".", "-", "1.2.3", "0x10", "inf", "nan", "1e", "+-1", "1 2", "1,5",
                             "1e+", "\t1", "e5", "--1", "1d1", "1D1"}) {
        EXPECT_FALSE(ParseNumber(text)) << text;
    }
    EXPECT_EQ(ParseNumber(" +.5 "), 0.5);
    EXPECT_EQ(ParseFitsNumber("5.D-1"), 0.5);
    EXPECT_FALSE(ParseFitsNumber("1d1d1"));
    EXPECT_EQ(ParseNumber("1e400"), std::numeric_limits<double>::infinity());
    EXPECT_EQ(ParseNumber("-1e-400"), 0);
}

TEST(Numbers, RoundingHoldsAtTheBoundsOfItsType) {
    EXPECT_EQ(RoundToNearestInt32(2.5), 2);
    EXPECT_EQ(RoundToNearestInt32(-3.5), -4);
    EXPECT_EQ(RoundToNearestInt32(1e300), 2147483647);
    EXPECT_EQ(RoundToNearestInt32(-1e300), -2147483647 - 1);
    EXPECT_EQ(RoundToNearestInt32(std::nan("")), 0);
    std::int16_t small = 7;
    EXPECT_FALSE(RoundToInt16(32767.5, small));
    EXPECT_FALSE(RoundToInt16(std::nan(""), small));
    EXPECT_EQ(small, 7);
    EXPECT_TRUE(RoundToInt16(-32768.5, small));
    EXPECT_EQ(small, -32768);
    std::int32_t wide = 7;
    EXPECT_FALSE(RoundToInt32(2147483647.5, wide));
    EXPECT_TRUE(RoundToInt32(2147483647.25, wide));
    EXPECT_EQ(wide, 2147483647);
}

TEST(CombSort, EqualKeysLieAsThePlainLoopLeavesThem) {
    Random random(3);
    using Tagged = std::pair<double, int>;
    for (int trial = 0; trial < 3000; ++trial) {
        const int n = trial < 200 ? trial % 12 : random.Whole(2, 300);
        const int keys = random.Whole(1, trial % 3 == 0 ? 1000 : 8);
        std::vector<Tagged> list(n + 1);
        for (int i = 1; i <= n; ++i) list[i] = {1.0 * random.Whole(0, keys), i};
        std::vector<Tagged> plain = list;
        PlainCombSort(plain, n, &Tagged::first);
        const std::vector<std::int32_t> order =
            CombSortedOrder(n, [&](std::int32_t i) { return list[i].first; });
        CombSort(list, n, [](const Tagged& a, const Tagged& b) { return a.first > b.first; });
        ASSERT_EQ(list, plain) << n;
        for (int i = 1; i <= n; ++i) ASSERT_EQ(order[i], plain[i].second);
        ASSERT_TRUE(std::is_sorted(plain.begin() + 1, plain.end(),
                                   [](const auto& a, const auto& b) { return a.first < b.first; }));
    }
}

TEST(CombSort, OfIntegersLeavesEqualOnesWhereThePlainLoopDoes) {
    Random random(8);
    using Tagged = std::pair<int, int>;
    for (int trial = 0; trial < 600; ++trial) {
        const VectorsForNow vectors(trial % 2 == 0);
        const int n = trial < 40 ? trial / 2 : random.Whole(2, trial % 50 == 0 ? 20000 : 400);
        // Mostly equal, as the pixel counts of hot pixels are, or few of them.
        const int other = random.Whole(1, 100);
        const int most = trial % 3 == 0 ? 2147483647 : 9;
        std::vector<Tagged> plain(n + 1);
        std::vector<std::int32_t> keys(n + 1);
        for (int i = 1; i <= n; ++i) {
            keys[i] = random.Whole(1, 100) > other ? 1 : random.Whole(-most, most);
            plain[i] = {keys[i], i};
        }
        PlainCombSort(plain, n, &Tagged::first);
        const std::vector<std::int32_t> order = CombSortedIntegers(keys);
        ASSERT_EQ(order.size(), keys.size());
        for (int i = 1; i <= n; ++i) ASSERT_EQ(order[i], plain[i].second) << n << ", " << i;
    }
}

TEST(Projection, IsOrthographicAndGrowsTowardWestAndNorth) {
    Random random(4);
    Projection plane;
    for (int trial = 0; trial < 20000; ++trial) {
        const double ra0 = random.Between(0, 6.28);
        const double dec0 = random.Between(-1.57, 1.57);
        const double ra = random.Between(0, 6.28);
        const double dec = random.Between(-1.57, 1.57);
        plane.SetProjectionCentre({ra0, dec0}, 1000);
        double xi = 0;
        double eta = 0;
        const double cosine = plane.SkyToPlane({ra, dec}, xi, eta);
        const double part = std::cos(dec) * std::cos(ra - ra0);
        ASSERT_NEAR(xi, -1000 * std::cos(dec) * std::sin(ra - ra0), 1e-9);
        ASSERT_NEAR(eta, 1000 * (std::cos(dec0) * std::sin(dec) - std::sin(dec0) * part), 1e-9);
        ASSERT_NEAR(cosine, std::sin(dec0) * std::sin(dec) + std::cos(dec0) * part, 1e-12);
    }
}

TEST(Projection, PlaneToSkyUndoesSkyToPlaneApartFromTheDecimalPi) {
    Random random(5);
    Projection plane;
    for (int trial = 0; trial < 20000; ++trial) {
        const double dec0 = trial % 5 == 0 ? std::copysign(std::numbers::pi / 2, trial % 2 - 0.5)
                                           : random.Between(-1.57, 1.57);
        plane.SetProjectionCentre({random.Between(0, 6.28), dec0}, SolveArcsecondsPerRadian);
        const double distance = random.Between(0, 1.2) * plane.ProjectionScale * 0.7;
        const double turn = random.Between(0, 6.3);
        const double xi = distance * std::cos(turn);
        const double eta = distance * std::sin(turn);
        const auto [ra, dec] = plane.PlaneToSky(xi, eta);
        ASSERT_GE(ra, 0);
        ASSERT_LE(ra, TwoPi);
        // The arctangent uses a decimal π with a small error: it turns the second and third
        // quadrants by this error, the fourth by twice as much.
        const double error = Pi - std::numbers::pi;
        const double exact = ra < Pi / 2 ? ra : ra < 1.5 * Pi ? ra - error : ra - 2 * error;
        double xiBack = 0;
        double etaBack = 0;
        const double cosine = plane.SkyToPlane({exact, dec}, xiBack, etaBack);
        // Near the rim the inverse is ill-conditioned.
        const double tolerance = 1e-9 + 1e-9 / cosine / cosine;
        ASSERT_NEAR(xiBack, xi, tolerance);
        ASSERT_NEAR(etaBack, eta, tolerance);
        ASSERT_NEAR(cosine, std::sqrt(1 - std::pow(distance / plane.ProjectionScale, 2)), 1e-9);
    }
    plane.SetProjectionCentre({1, 0.5}, 1000);
    // Beyond the rim w is 0, and the distance is not shortened.
    EXPECT_NEAR(plane.PlaneToSky(0, 5000).Dec, std::atan2(5 * std::cos(0.5), 5 * std::sin(0.5)),
                1e-12);
    plane.SetProjectionCentre({1, 0.5}, 0);
    const SkyPosition same = plane.PlaneToSky(123, 456);
    EXPECT_NEAR(same.Ra, 1, 1e-12);
    EXPECT_NEAR(same.Dec, 0.5, 1e-12);
}

TEST(Atan2, HasTheDecimalPiOnTheAxes) {
    EXPECT_EQ(Atan2(0, -1), 3.141592654);
    EXPECT_EQ(Atan2(-0.0, -1), 3.141592654);
    EXPECT_EQ(Atan2(-1, 0), -1.570796327);
    EXPECT_EQ(Atan2(0, 0), 0);
}

TEST(ParallelFor, CallsEveryPieceOnceAndReportsToItsCaller) {
    for (const int threads : {1, 2, 7}) {
        const ThreadsForNow now(threads);
        EXPECT_EQ(ParallelThreads(), threads);
        const auto caller = std::this_thread::get_id();
        int reports = 0;
        int last = 0;
        std::vector<int> calls(500);
        ParallelFor(
            500, [&](int i) { ++calls[i]; },
            [&](int done, int total) {
                EXPECT_EQ(std::this_thread::get_id(), caller);
                EXPECT_EQ(total, 500);
                EXPECT_GT(done, last);
                last = done;
                ++reports;
            });
        EXPECT_EQ(calls, std::vector<int>(500, 1));
        EXPECT_TRUE(threads > 1 || reports == 500);
        // Other threads may do all of something short; the caller must hear of it nevertheless.
        for (int round = 0; round < 300; ++round) {
            int heard = 0;
            ParallelFor(
                2, [&](int i) { ASSERT_TRUE(i == 1 || std::this_thread::get_id() == caller); },
                [&](int, int) { ++heard; });
            ASSERT_GE(heard, 1);
        }
        std::atomic<int> begun{0};
        EXPECT_THROW(ParallelFor(100000,
                                 [&](int i) {
                                     ++begun;
                                     if (i == 20) throw std::runtime_error("piece");
                                     std::this_thread::sleep_for(std::chrono::microseconds(20));
                                 }),
                     std::runtime_error);
        EXPECT_LT(begun, 100000) << "pieces go on being begun after a failure";
    }
    ParallelFor(0, [](int) { FAIL(); });
    ParallelFor(-1, [](int) { FAIL(); });
    const ThreadsForNow alone(1);
    EXPECT_THROW(ParallelFor(
                     3, [](int) {}, [](int, int) { throw std::runtime_error("progress"); }),
                 std::runtime_error);
}

TEST(ParallelFor, InsideItselfAndOfSeveralThreadsAtOnceDoesAllAndEnds) {
    const ThreadsForNow now(3);
    std::array<std::atomic<int>, 4> done{};
    std::vector<std::jthread> callers;
    for (std::atomic<int>& mine : done) {
        callers.emplace_back([&mine] {
            for (int round = 0; round < 100; ++round) {
                ParallelFor(5, [&mine](int) { ParallelFor(3, [&mine](int) { ++mine; }); });
            }
        });
    }
    callers.clear();
    for (const std::atomic<int>& all : done) EXPECT_EQ(all, 1500);
}

#if defined(__unix__)
TEST(ParallelFor, HasHelpersInAChildProcessToo) {
    const ThreadsForNow now(2);
    ParallelFor(2, [](int) {});
    const pid_t child = fork();
    if (child == 0) {
        alarm(20);
        std::atomic<int> begun{0};
        ParallelFor(2, [&begun](int) {
            ++begun;
            while (begun < 2) std::this_thread::yield();
        });
        _exit(0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}
#endif

}  // namespace
}  // namespace vestrel
