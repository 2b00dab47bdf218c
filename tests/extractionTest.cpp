// Background, filter and star detection compared bit for bit with plain procedures.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>

#include "extraction/libBackground.h"
#include "extraction/libBrightRuns.h"
#include "extraction/libFilter.h"
#include "extraction/libMosaic.h"
#include "extraction/libNearPercentiles.h"
#include "extraction/libRankPercentiles.h"
#include "extraction/libSlidingRows.h"
#include "extraction/libStarDetection.h"
#include "program/mStarExtraction.h"
#include "tests/testSupport.h"
#include "tests/vectorsForNow.h"

namespace vestrel {
namespace {

using Image = Grid<std::int32_t>;

const DetectionSettings usual = DetectionSettingsOf(SolveParameters());

template <typename Work>
void ForPixels(int width, int height, Work work) {
    for (int x = 0; x < width; ++x) {
        for (int y = 0; y < height; ++y) work(x, y);
    }
}

Image Copy(const Image& image, int width, int height) {
    Image copy(width, height);
    ForPixels(width + 1, height + 1, [&](int x, int y) { copy(x, y) = image(x, y); });
    return copy;
}

// The pixels in 32-bit cells, and also in 16-bit ones when all counts fit.
std::vector<PixelGrid> InAllWidths(const Image& image, int width, int height, int offset) {
    std::vector<PixelGrid> grids;
    grids.emplace_back(Copy(image, width, height));
    PixelGrid narrow = PixelGrid::Narrow(width, height, -std::clamp(offset, 0, 65535));
    for (int y = 0; y <= height; ++y) {
        if (!narrow.Fits(image.Row(y))) return grids;
        narrow.Store(0, y, image.Row(y));
    }
    grids.push_back(std::move(narrow));
    return grids;
}

// The first place where two images differ, as text; empty when they are the same.
template <typename Other>
std::string Difference(const Other& one, const Image& other, int width, int height) {
    std::string text;
    ForPixels(width + 1, height + 1, [&](int x, int y) {
        if (one(x, y) == other(x, y) || !text.empty()) return;
        text = "(" + std::to_string(x) + ", " + std::to_string(y) +
               "): " + std::to_string(one(x, y)) + " and " + std::to_string(other(x, y));
    });
    return text;
}

// Noise on a gradient with saturated blobs; `wild` throws in values outside the histogram.
Image Sky(Random& random, int width, int height, bool wild) {
    Image image(width, height);
    const double level = random.Between(0, 3000);
    const double slope = random.Between(-5, 5);
    const double noise = random.Between(0, 60);
    ForPixels(width, height, [&](int x, int y) {
        double value = std::abs(level + slope * (x - y) + random.Normal(noise));
        if (random.Whole(0, 60) == 0) value = 65535;
        if (wild && random.Whole(0, 4) == 0) value = random.Between(-3e5, 3e5);
        if (wild && random.Whole(0, 99) == 0) value = random.Whole(0, 1) == 0 ? 2.1e9 : -2.1e9;
        image(x, y) = static_cast<std::int32_t>(value);
    });
    return image;
}

struct PlainBackground {
    std::vector<std::int32_t> Histogram = std::vector<std::int32_t>(100001);
    int Low = 0;
    int High = 0;
    int Samples = 0;

    static bool Inside(int i, int size) { return 0 <= i && i < size; }
    static int Held(int value) { return std::clamp(value, 0, 100000); }
    int Counter(int value) const { return Inside(value, 100001) ? Histogram[value] : 0; }
    int Percentile(double percentile) const {
        const double target = std::nearbyint(Samples * percentile / 100);
        int value = Low - 1;
        for (double sum = 0; sum < target;) sum += Counter(++value);
        return value;
    }
    void Count(int value, int by) {
        Histogram[std::clamp(Held(value), Low, High)] += by;
        Samples += by;
    }

    Image Estimate(const Image& values, int width, int height, int h, double percentile) {
        int least = 100000;
        int most = 0;
        int all = 0;
        for (int x = 0; x <= width - 1; x += 3) {
            for (int y = 0; y <= height - 1; y += 3, ++all) {
                const int value = Held(values(x, y));
                ++Histogram[value];
                least = std::min(least, value);
                most = std::max(most, value);
            }
        }
        const double k = std::nearbyint(all / 500.0);
        Low = least - 1;
        for (double sum = 0; sum < k;) sum += Counter(++Low);
        High = most + 1;
        for (double sum = 0; sum < k;) sum += Counter(--High);

        Image map(width, height);
        const auto store = [&](int x0, int y0, int value) {
            ForPixels(std::min(3, width - x0), std::min(3, height - y0),
                      [&](int i, int j) { map(x0 + i, y0 + j) = value; });
        };
        for (int x0 = 0; x0 <= width - 1; x0 += 3) {
            for (int v = Low; v <= High; ++v) {
                if (Inside(v, 100001)) Histogram[v] = 0;
            }
            Samples = 0;
            for (int dx = -h; dx <= h; dx += 3) {
                for (int y = 1; y <= h && Inside(x0 + dx, width); y += 3) {
                    if (Inside(y, height)) Count(values(x0 + dx, y), 1);
                }
            }
            store(x0, 0, Percentile(percentile));
            for (int yc = 2; yc <= height - 1; yc += 3) {
                for (int dx = -h; dx <= h; dx += 3) {
                    if (!Inside(x0 + dx, width)) continue;
                    if (Inside(yc - h, height)) Count(values(x0 + dx, yc - h), -1);
                    if (Inside(yc + h, height)) Count(values(x0 + dx, yc + h), 1);
                }
                store(x0, yc, Percentile(percentile));
            }
        }
        return map;
    }
};

Image PlainlySubtracted(const Image& pixels, const Image& map, int offset, int width, int height) {
    Image result = Copy(pixels, width, height);
    ForPixels(width, height, [&](int x, int y) {
        const std::int64_t value = std::int64_t{pixels(x, y)} + offset + 100 - map(x, y);
        result(x, y) =
            static_cast<std::int32_t>(std::clamp<std::int64_t>(value, 0, 65535)) - offset;
    });
    return result;
}

/// The greatest ranks that are noted of a grid's rows are those of its cells.
void ExpectGreatestNoted(const PixelGrid& grid, int width, int height) {
    constexpr int length = PixelGrid::PartLength;
    for (int y = 0; y < height; ++y) {
        const std::uint16_t* greatest = grid.GreatestOfRow(y);
        ASSERT_NE(greatest, nullptr);
        for (int x = 0; x < width; x += length) {
            std::uint16_t most = 0;
            for (int i = x; i < std::min(x + length, width); ++i) {
                most = std::max(most, grid.NarrowRow(y).Rank(i));
            }
            ASSERT_EQ(greatest[x / length], most) << x << ", " << y;
        }
    }
}

TEST(Background, IsThePlainProceduresWhateverTheImageAndTheThreads) {
    Random random(11);
    const std::vector<std::pair<int, int>> sizes = {
        {1, 1}, {2, 5}, {3, 3}, {7, 1}, {1, 40}, {20, 21}, {61, 62}, {100, 91}, {200, 150}};
    for (int trial = 0; trial < 120; ++trial) {
        const auto [width, height] = sizes[trial % 9];
        const int half = std::vector{0, 1, 5, 30, 300}[random.Whole(0, 4)];
        const double percentile = std::vector{50.0, 0.0, 100.0, 3.7, 99.0}[random.Whole(0, 4)];
        const bool wild = trial % 3 == 2;
        const Image sky = Sky(random, width, height, wild);
        const Image plain = PlainBackground().Estimate(sky, width, height, half, percentile);
        // Stored values are lower by the offset; the spare column and row stay unchanged.
        const int offset = wild ? 0 : 20000;
        Image stored(width, height);
        ForPixels(width, height, [&](int x, int y) { stored(x, y) = sky(x, y) - offset; });
        const Image subtracted = PlainlySubtracted(stored, plain, offset, width, height);
        for (const int threads : {1, 2, 7}) {
            const ThreadsForNow now(threads);
            const VectorsForNow vectors(threads == 2);
            auto grids = InAllWidths(stored, width, height, offset);
            ASSERT_TRUE(grids.size() == 2 || wild);
            for (PixelGrid& cells : grids) {
                const BackgroundBlocks blocks = EstimateBackgroundBlocks(
                    cells, offset, width, height, static_cast<std::int16_t>(half), percentile);
                PixelGrid map(Image(width, height));
                ForPixels(width, height, [&](int x, int y) { map.Wide()(x, y) = blocks.At(x, y); });
                ASSERT_EQ(Difference(map, plain, width, height), "")
                    << width << " x " << height << ", half-size " << half << ", " << percentile
                    << " %, narrow: " << cells.IsNarrow();
                SubtractBackgroundBlocks(cells, offset, width, height, blocks);
                ASSERT_EQ(Difference(cells, subtracted, width, height), "");
                if (!cells.IsNarrow()) continue;
                ExpectGreatestNoted(cells, width, height);
                const std::int32_t other[] = {-offset};
                cells.Store(0, 0, other);
                ASSERT_EQ(cells.GreatestOfRow(0), nullptr) << "kept beyond a change";
            }
        }
    }
}

// Values over some range, spread evenly or mostly at its lower end. The top rows are brighter or
// darker than the rest: there the sliding box removes values that it never added.
Image Patches(Random& random, int width, int height) {
    Image image(width, height);
    const int range = std::vector{1, 15, 200, 4000, 65535, 100000}[random.Whole(0, 5)];
    const double power = std::vector{1.0, 1.0, 8.0}[random.Whole(0, 2)];
    const int top = random.Whole(0, 60);
    const double topLevel = random.Between(0, 1);
    const double rest = random.Between(0, 1);
    ForPixels(width, height, [&](int x, int y) {
        const double chance = random.Between(0, 1);
        const double level = y < top ? topLevel : x % 97 < 5 ? 1 - rest : rest;
        image(x, y) = static_cast<int>(range * (0.7 * std::pow(chance, power) + 0.3 * level));
    });
    return image;
}

TEST(Background, HasThePlainPercentileOfEveryBoxWhateverTheValues) {
    Random random(18);
    for (int trial = 0; trial < 60; ++trial) {
        const bool wide = trial % 12 == 5;  // then one piece of work has more columns of blocks
        const int width = wide             ? 5400
                          : trial % 8 == 0 ? random.Whole(400, 500)
                                           : random.Whole(1, 170);
        const int height = wide ? random.Whole(1, 30) : random.Whole(1, 230);
        const int half = std::vector{30, 30, 30, 3, 90}[random.Whole(0, 4)];
        const double percentile = std::vector{50.0, 50.0, 1.0, 97.0}[random.Whole(0, 3)];
        const Image image = Patches(random, width, height);
        const Image plain = PlainBackground().Estimate(image, width, height, half, percentile);
        for (const int threads : {1, 2}) {
            const ThreadsForNow now(threads);
            const VectorsForNow vectors(threads == 2);
            for (PixelGrid& map : InAllWidths(image, width, height, 0)) {
                EstimateBackground(map, width, height, static_cast<std::int16_t>(half), percentile);
                ASSERT_EQ(Difference(map, plain, width, height), "")
                    << "trial " << trial << ": " << width << " x " << height << ", half-size "
                    << half;
            }
        }
    }
}

// A narrow sky with hot and dark pixels, so that values spread over all of the range and the boxes'
// percentiles do not; rows at the top and a step or a slope may lead these away from each other.
Image SaltedSky(Random& random, int width, int height, double saltLevel) {
    Image image(width, height);
    const double level = random.Whole(0, 1) == 0 ? random.Between(0, 3000) : 30000;
    const double noise = std::vector{0.0, 3.0, 80.0, 700.0}[random.Whole(0, 3)];
    const double slope = std::vector{0.0, 1.0, 20.0}[random.Whole(0, 2)];
    const double step = std::vector{0.0, 0.0, 900.0, 1300.0, 5000.0}[random.Whole(0, 4)];
    const double top = std::vector{0.0, -1500.0, 1500.0, -9000.0}[random.Whole(0, 3)];
    const int topRows = random.Whole(0, 60);
    const int salt = random.Whole(1, 6);  // percent
    ForPixels(width, height, [&](int x, int y) {
        double value = level + slope * y + (y > height / 2 ? step : 0) + random.Normal(noise);
        if (y < topRows) value += top;
        if (random.Whole(0, 99) < salt)
            value = random.Whole(0, 3) == 0 ? 0 : random.Between(3000, saltLevel);
        // Without values below 0 or above 65535, it is an image for 16-bit cells.
        image(x, y) = static_cast<int>(saltLevel < 65535 ? std::clamp(value, 0.0, 65535.0) : value);
    });
    return image;
}

TEST(Background, IsThePlainProcedureUnderHotAndDarkPixels) {
    Random random(19);
    for (int trial = 0; trial < 40; ++trial) {
        const int width = trial % 9 == 0 ? random.Whole(300, 400) : random.Whole(20, 150);
        const int height = random.Whole(20, 250);
        const int half = std::vector{30, 30, 30, 3}[random.Whole(0, 3)];
        const double percentile = std::vector{50.0, 50.0, 50.0, 2.0, 99.0}[random.Whole(0, 4)];
        const double saltLevel = trial % 2 == 0 ? 65000 : 1e5;
        const Image image = SaltedSky(random, width, height, saltLevel);
        const Image plain = PlainBackground().Estimate(image, width, height, half, percentile);
        for (const int threads : {1, 2, 7}) {
            const ThreadsForNow now(threads);
            const VectorsForNow vectors(threads == 2);
            auto grids = InAllWidths(image, width, height, 0);
            ASSERT_TRUE(grids.size() == 2 || trial % 2 == 1);
            for (PixelGrid& map : grids) {
                EstimateBackground(map, width, height, static_cast<std::int16_t>(half), percentile);
                ASSERT_EQ(Difference(map, plain, width, height), "")
                    << "trial " << trial << ": " << width << " x " << height << ", half-size "
                    << half;
            }
        }
    }
}

// The rows of a box at block row k, counted by following its way down: how often each is in it.
std::map<int, int> PlainRows(int height, int reach, int k) {
    std::map<int, int> rows;
    for (int i = 0; i < reach && 1 + 3 * i < height; ++i) ++rows[1 + 3 * i];
    for (int centre = 2; centre <= 3 * k - 1; centre += 3) {
        if (centre + 3 * reach < height) ++rows[centre + 3 * reach];
        if (centre - 3 * reach >= 0) --rows[centre - 3 * reach];
    }
    return rows;
}

// The net number of samples at each value, in the box about a column of blocks.
std::map<int, int> PlainCounts(const BoxSamples& samples, int reach, int column, int k) {
    std::map<int, int> counts;
    for (const auto& [y, times] : PlainRows(samples.Height, reach, k)) {
        for (int i = column - reach; i <= column + reach; ++i) {
            if (i < 0 || 3 * i >= samples.Width) continue;
            counts[std::clamp(samples.Values(3 * i, y) + samples.Offset, samples.Darkest,
                              samples.Brightest)] += times;
        }
    }
    return counts;
}

struct SlopingSky {
    PixelGrid Pixels;
    BoxSamples Samples;
    int Reach;
    int Columns;
    int Rows;
    bool TopDiffers;

    SlopingSky(Random& random, int width, int height, int reach, bool narrow)
        : Samples{Pixels, random.Whole(0, 40000), width, height, 0, 65535, 100, 65000},
          Reach(reach),
          Columns((width + 2) / 3),
          Rows(height / 3 + 1),
          TopDiffers(random.Whole(0, 3) == 0) {
        const double noise = std::vector{0.0, 0.6, 8.0, 40.0}[random.Whole(0, 3)];
        const double across = random.Between(-0.1, 0.1);  // counts per pixel
        const double down = random.Between(-0.5, 0.5);
        const double top = TopDiffers ? random.Between(-300, 300) : 0;
        const int salt = random.Whole(0, 2);
        const double saltLevel = random.Whole(0, 1) == 0 ? 65000 : 70000;
        Image image(width, height);
        ForPixels(width, height, [&](int x, int y) {
            double value = 1500 + across * x + down * y + random.Normal(noise);
            if (y < 3 * Reach) value += top;
            if (random.Whole(0, 99) < salt) value = random.Between(0, saltLevel);
            image(x, y) = static_cast<int>(std::lround(value)) - Samples.Offset;
        });
        // In 16 bits where it fits, as salt may be above that, and only some of it.
        auto widths = InAllWidths(image, width, height, Samples.Offset);
        Pixels = std::move(narrow ? widths.back() : widths.front());
    }
};

// The percentile of a box, found by following its rows down and counting its samples one by one.
int PlainPercentile(const BoxSamples& samples, int reach, int column, int k, double percentile) {
    const auto counts = PlainCounts(samples, reach, column, k);
    int all = 0;
    for (const auto& [value, times] : counts) all += times;
    const double target = std::nearbyint(all * percentile / 100);
    if (target <= 0) return samples.Low - 1;
    int sum = 0;
    for (const auto& [value, times] : counts) {
        sum += times;
        if (sum >= target) return value;
    }
    return samples.High;
}

// Values that few boxes have in common: all of the range, few values many times, or a slope that
// leaves every window of ranks behind.
Image FarValues(Random& random, int width, int height) {
    if (random.Whole(0, 2) == 0) return Patches(random, width, height);
    Image image(width, height);
    const double across = random.Between(-60, 60);
    const double down = random.Between(-200, 200);
    const double noise = std::vector{0.0, 5.0, 20000.0}[random.Whole(0, 2)];
    const int grain = std::vector{1, 1, 40, 9000}[random.Whole(0, 3)];
    ForPixels(width, height, [&](int x, int y) {
        const double value = 30000 + across * x + down * y + random.Normal(noise);
        image(x, y) = static_cast<int>(std::clamp(value, 0.0, 65535.0)) / grain * grain;
    });
    return image;
}

// Rows that stay are darker at the top than those that are owed, and dark pixels begin farther
// down. Then a box reaches its percentile far below that of the box above it, and its sum falls
// again on the way.
Image DarkRowsThatStay(Random& random, int width, int height, int reach) {
    Image image(width, height);
    const int level = 50000;
    const double darkRows = std::pow(random.Between(0, 1), random.Whole(1, 3));
    const double darkPixels = random.Between(0, 0.5);
    const int darkFrom = random.Whole(3 * reach, std::max(height, 3 * reach));
    const int spread = random.Whole(1, 3000);
    ForPixels(width, height, [&](int x, int y) {
        const bool top = y < 3 * reach;
        const bool dark = top ? y % 3 == 1 : y >= darkFrom;
        const double share = top ? darkRows : darkPixels;
        if (dark && random.Between(0, 1) < share) {
            image(x, y) = random.Whole(500, 1000);
        } else {
            image(x, y) = top ? level : level + random.Whole(0, spread);
        }
    });
    return image;
}

TEST(RankPercentiles, AreWhatCountingEachBoxGivesWhateverTheValues) {
    Random random(23);
    for (int trial = 0; trial < 120; ++trial) {
        const int reach = std::vector{10, 10, 10, 1, 30}[trial % 5];
        const int width = random.Whole(1, trial % 3 == 0 ? 60 : 400);
        const int height = random.Whole(1, trial % 4 == 0 ? 90 : 420);
        const Image image = trial % 2 == 0 ? FarValues(random, width, height)
                                           : DarkRowsThatStay(random, width, height, reach);
        const double percentile =
            std::vector{50.0, 50.0, 1.0, 10.0, 10.0, 20.0, 97.0, 100.0}[random.Whole(0, 7)];
        const int columns = (width + 2) / 3;
        const int first = random.Whole(0, columns - 1);
        const int end = std::min(first + random.Whole(1, 64), columns);
        const int rows = height / 3 + 1;
        const int darkest = random.Whole(0, 1) == 0 ? 0 : random.Whole(0, 20000);
        const int brightest = random.Whole(0, 1) == 0 ? 100000 : random.Whole(30000, 60000);
        const VectorsForNow vectors(trial % 4 == 3);
        for (const PixelGrid& pixels : InAllWidths(image, width, height, 0)) {
            const BoxSamples samples{pixels,      0,         width,   height,
                                     darkest - 1, brightest, darkest, brightest};
            PixelGrid blocks(Grid<std::int32_t>(columns, rows));
            RankPercentiles(samples, 3 * reach, percentile, first, end, rows, blocks);
            for (int check = 0; check < 200; ++check) {
                const int column = random.Whole(first, end - 1);
                const int k = check < 60 ? std::min(check, rows - 1) : random.Whole(0, rows - 1);
                ASSERT_EQ(blocks(column, k), PlainPercentile(samples, reach, column, k, percentile))
                    << "trial " << trial << ": " << width << " x " << height << ", columns "
                    << first << " to " << end << ", reach " << reach << ", column " << column
                    << ", row " << k;
            }
        }
    }
}

TEST(NearPercentiles, FollowsASlopingSkyAndIsWhatCountingEachBoxGives) {
    Random random(20);
    int ordinary = 0;
    int ordinaryDone = 0;
    int compared = 0;
    int narrow = 0;
    for (int trial = 0; trial < 24; ++trial) {
        const int reach = std::vector{10, 10, 10, 1, 30}[trial % 5];
        const SlopingSky sky(random, random.Whole(60, 400),
                             trial % 4 == 0 ? random.Whole(1, 90) : random.Whole(100, 420), reach,
                             trial % 3 > 0);
        const double percentile = std::vector{50.0, 50.0, 20.0, 90.0}[random.Whole(0, 3)];
        const int first = random.Whole(0, sky.Columns - 20);
        const int end = std::min(first + (trial % 2 == 0 ? 64 : 128), sky.Columns);
        PixelGrid blocks(Grid<std::int32_t>(sky.Columns, sky.Rows));
        const bool done =
            NearPercentiles(sky.Samples, 3 * reach, percentile, first, end, sky.Rows, blocks);
        // The percentiles of few samples may lie too far apart, now and then those of more.
        if (reach == 10 && percentile == 50 && sky.Samples.Height >= 100 && !sky.TopDiffers) {
            ++ordinary;
            ordinaryDone += done ? 1 : 0;
        }
        if (!done) continue;
        ++compared;
        narrow += sky.Pixels.IsNarrow() ? 1 : 0;
        for (int check = 0; check < 300; ++check) {
            const int column = random.Whole(first, end - 1);
            const int k =
                check < 60 ? std::min(check, sky.Rows - 1) : random.Whole(0, sky.Rows - 1);
            const int found = PlainPercentile(sky.Samples, reach, column, k, percentile);
            ASSERT_EQ(blocks(column, k), found)
                << "trial " << trial << ": column " << column << ", row " << k;
            const SlidingRows sliding{sky.Samples.Height, reach};
            const int columns =
                std::min(column + reach + 1, sky.Columns) - std::max(column - reach, 0);
            const double target = std::nearbyint(sliding.Count(k) * columns * percentile / 100);
            ASSERT_EQ(SingleBox(sky.Samples, sliding).Find(column, k, static_cast<int>(target)),
                      found);
        }
    }
    EXPECT_GE(2 * ordinaryDone, ordinary);
    EXPECT_GE(compared, 5);
    EXPECT_GE(narrow, 1);
    EXPECT_LT(narrow, compared);
}

TEST(NearPercentiles, BoundsHowFarASumFallsByRowsThatLeaveWithoutHavingCome) {
    Random random(21);
    for (int trial = 0; trial < 12; ++trial) {
        const int reach = trial % 3 == 0 ? 30 : 10;
        const SlopingSky sky(random, random.Whole(30, 200), 3 * 2 * reach + 30, reach,
                             trial % 2 == 0);
        const auto falls = LargestFalls(sky.Samples, {sky.Samples.Height, reach}, 0, sky.Columns);
        for (int column = 0; column < sky.Columns; ++column) {
            // What remains when all rows are left out that come and leave.
            std::map<int, int> drift;
            for (int i = 0; i < reach; ++i) {
                for (int x = column - reach; x <= column + reach; ++x) {
                    if (x < 0 || x >= sky.Columns) continue;
                    for (const int y : {1 + 3 * i, 2 + 3 * i}) {
                        drift[std::clamp(sky.Pixels(3 * x, y) + sky.Samples.Offset, 100, 65000)] +=
                            y % 3 == 1 ? 1 : -1;
                    }
                }
            }
            int sum = 0;
            int most = 0;
            int fall = 0;
            for (const auto& [value, times] : drift) {
                sum += times;
                most = std::max(most, sum);
                fall = std::max(fall, most - sum);
            }
            const int bound = falls[static_cast<std::size_t>(column)];
            ASSERT_GE(bound, fall) << "trial " << trial << ", column " << column;
            // A looser bound would be safe too, but of no use: the samples number thousands.
            ASSERT_LE(bound, fall + (2 * reach + 1) * reach / 8) << trial << ", " << column;
        }
    }
}

Image PlainlyFiltered(const Image& pixels, int width, int height) {
    Image result = Copy(pixels, width, height);
    ForPixels(width - 2, height - 2, [&](int x, int y) {
        double sums[3] = {};  // of the centre, the sides and the corners
        for (int i = 0; i <= 2; ++i) {
            for (int j = 0; j <= 2; ++j) {
                sums[std::abs(i - 1) + std::abs(j - 1)] += pixels(x + i, y + j);
            }
        }
        const auto single = [](double value) { return double{static_cast<float>(value)}; };
        result(x + 1, y + 1) = static_cast<std::int32_t>(std::nearbyint(
            single(0.12385 * single(sums[1]) + 0.2042 * sums[0] + 0.0751 * single(sums[2]))));
    });
    return result;
}

TEST(GaussianFilter, IsThePlainProcedureAndSparesTheBorder) {
    Random random(12);
    for (int trial = 0; trial < 60; ++trial) {
        const int width = trial < 16 ? 1 + trial % 4 : random.Whole(3, 120);
        const int height = trial < 16        ? 1 + trial / 4
                           : trial % 10 == 9 ? random.Whole(500, 800)
                                             : random.Whole(3, 90);
        const Image image = Sky(random, width, height, trial % 2 == 1);
        const Image plain = PlainlyFiltered(image, width, height);
        const ThreadsForNow now(trial % 3 + 1);
        const VectorsForNow vectors(trial % 4 == 0);
        for (PixelGrid& cells : InAllWidths(image, width, height, 0)) {
            GaussianFilter(cells, width, height);
            ASSERT_EQ(Difference(cells, plain, width, height), "") << width << " x " << height;
        }
    }
}

struct PlainRegion {
    double FluxSum = 0;
    double SumXF = 0;
    double SumYF = 0;
    double VarX = 0;
    double VarY = 0;
    double Size = 0;
    double PixelCount = 0;
    double CentroidX = 0;
    double CentroidY = 0;
};

struct PlainExtraction {
    PlainExtraction(const PlateImage& image, const DetectionSettings& settings)
        : Source(image), Settings(settings), Labels(image.Width, image.Height) {
        Run();
    }

    const PlateImage& Source;
    const DetectionSettings& Settings;
    Image Labels;
    std::vector<PlateStar> Stars;
    ExtractionFacts Facts;

    double Value(int x, int y) const {
        return static_cast<double>(std::int64_t{Source.Pixels(x, y)} + Source.DataOffset);
    }

    void Fill(int x, int y, double threshold, int label, int depth) {
        const int width = Source.Width;
        const int height = Source.Height;
        ++depth;
        Facts.MaxFillDepth = std::max(Facts.MaxFillDepth, depth);
        if (depth >= 1001) return;
        const auto takes = [&](int column, int row) {
            return Labels(column, row) < 1 && Value(column, row) > threshold;
        };
        if (!takes(x, y)) return;
        int top = y;
        while (top >= 0 && takes(x, top)) Labels(x, top--) = label;
        top = std::max(top, 0);
        int bottom = y + 1;
        while (bottom <= height - 1 && takes(x, bottom)) Labels(x, bottom++) = label;
        bottom = std::min(bottom, height - 1);
        for (const int column : {x - 1, x + 1}) {
            for (int row = top; row <= bottom && column >= 0 && column < width; ++row) {
                if (takes(column, row)) Fill(column, row, threshold, label, depth);
            }
        }
    }

    static void SortDescending(std::vector<PlainRegion>& list, double PlainRegion::*key) {
        PlainCombSort(list, static_cast<int>(list.size()) - 1, key);
        std::reverse(list.begin() + 1, list.end());
    }

    struct MeanAndSigma {
        double Mean;
        double Sigma;
    };
    static MeanAndSigma Statistics(const std::vector<double>& numbers) {
        double sum = 0;
        double squares = 0;
        for (const double number : numbers) {
            sum += number;
            squares += number * number;
        }
        const auto n = static_cast<double>(numbers.size());
        return {sum / n, std::sqrt(std::max(squares / n - sum / n * (sum / n), 0.0))};
    }

    void Run() {
        const int width = Source.Width;
        const int height = Source.Height;
        if (width < 20 || height < 20) return;
        const int ex = static_cast<int>(std::nearbyint(width * Settings.EdgeExclusion));
        const int ey = static_cast<int>(std::nearbyint(height * Settings.EdgeExclusion));
        std::vector<double> samples;
        for (int x = ex; x <= width - ex; x += 3) {
            for (int y = ey; y <= height - ey; y += 3) samples.push_back(Value(x, y));
        }
        const auto [roughMean, roughSigma] = Statistics(samples);
        const double brightest = roughMean + 3 * roughSigma;
        std::erase_if(samples, [&](double value) { return value > brightest; });
        const MeanAndSigma sky = Statistics(samples);
        const double mean = sky.Mean;
        const double sigma = sky.Sigma;
        Facts.BackgroundSigma = sigma;
        Facts.SkyMean = mean;
        const double threshold = sigma < 1 ? mean + 4 : mean + Settings.DetectionThreshold * sigma;

        int count = 0;
        ForPixels(width, height, [&](int x, int y) {
            if (Labels(x, y) == 0 && Value(x, y) > threshold) Fill(x, y, threshold, ++count, 0);
        });
        std::vector<PlainRegion> regions(count + 1);
        ForPixels(width, height, [&](int x, int y) {
            if (Labels(x, y) == 0) return;
            PlainRegion& region = regions[Labels(x, y)];
            const double f = Value(x, y) - mean;
            region.FluxSum += f;
            region.PixelCount += 1;
            region.SumXF += x * f;
            region.SumYF += y * f;
            region.VarX += static_cast<double>(x * x) * f;
            region.VarY += static_cast<double>(y * y) * f;
        });
        for (int k = 1; k <= count; ++k) {
            PlainRegion& r = regions[k];
            if (r.FluxSum > 0) {
                r.CentroidX = r.SumXF / r.FluxSum;
                r.CentroidY = r.SumYF / r.FluxSum;
                r.VarX = (r.VarX - r.CentroidX * r.CentroidX * r.FluxSum) / r.FluxSum;
                r.VarY = (r.VarY - r.CentroidY * r.CentroidY * r.FluxSum) / r.FluxSum;
            }
            if (r.PixelCount > 1) r.Size = std::sqrt(std::max(r.VarX, 0.0) + std::max(r.VarY, 0.0));
            if (!(ex <= r.CentroidX && r.CentroidX <= width - ex && ey <= r.CentroidY &&
                  r.CentroidY <= height - ey)) {
                r.PixelCount = 0;
            }
            if (r.Size == 0) r.PixelCount = 1;
        }
        SortDescending(regions, &PlainRegion::PixelCount);
        const auto remove = [&regions](auto condition) {
            regions.erase(std::remove_if(regions.begin() + 1, regions.end(), condition),
                          regions.end());
        };
        remove([&](const PlainRegion& r) { return r.PixelCount < Settings.MinStarSize; });

        std::vector<double> sizes;
        for (std::size_t k = 1; k < regions.size(); ++k) sizes.push_back(regions[k].Size);
        double limit = 0;
        for (int round = 1; round <= 2; ++round) {
            if (round == 2) std::erase_if(sizes, [&](double size) { return !(size < limit); });
            const auto [meanSize, sizeSigma] = Statistics(sizes);
            limit = Settings.MaxStarSize * sizeSigma + meanSize;
        }
        remove([&](const PlainRegion& r) { return !(r.Size < limit); });
        SortDescending(regions, &PlainRegion::FluxSum);
        Facts.StarsFound = static_cast<int>(regions.size()) - 1;
        Stars.resize(std::min<std::size_t>(regions.size(), 101));
        for (std::size_t k = 1; k < Stars.size(); ++k) {
            Stars[k] = {static_cast<float>(regions[k].CentroidX),
                        static_cast<float>(regions[k].CentroidY),
                        static_cast<float>(regions[k].FluxSum), 0, 0};
        }
    }
};

// Requires that both extractions agree in everything, in all widths of cells that the image fits.
// @return the number of stars
int ExpectSameExtraction(const PlateImage& image, const DetectionSettings& settings) {
    const PlainExtraction plain(image, settings);
    PlateImage same = EmptyImage(image.Width, image.Height, image.DataOffset);
    for (PixelGrid& cells :
         InAllWidths(image.Pixels.Wide(), image.Width, image.Height, image.DataOffset)) {
        same.Pixels = std::move(cells);
        for (const int threads : {1, 2, 7}) {
            const ThreadsForNow now(threads);
            const VectorsForNow vectors(threads == 2);
            ExtractionFacts facts;
            const PlateStarList stars = ExtractStars(same, settings, facts);
            EXPECT_EQ(stars.Count(), std::max<int>(static_cast<int>(plain.Stars.size()) - 1, 0));
            EXPECT_EQ(facts.StarsFound, plain.Facts.StarsFound);
            EXPECT_EQ(facts.BackgroundSigma, plain.Facts.BackgroundSigma);
            EXPECT_EQ(facts.MaxFillDepth, plain.Facts.MaxFillDepth);
            for (std::size_t i = 1; i < plain.Stars.size() && stars.Has(i); ++i) {
                EXPECT_EQ(stars[i].X, plain.Stars[i].X) << i;
                EXPECT_EQ(stars[i].Y, plain.Stars[i].Y) << i;
                EXPECT_EQ(stars[i].Flux, plain.Stars[i].Flux) << i;
            }
        }
    }
    return plain.Facts.StarsFound;
}

// Stars of all sizes, some touching or across the edge, single hot pixels, diagonal lines.
PlateImage StarField(Random& random, int width, int height, int offset, double noise) {
    PlateImage image = EmptyImage(width, height, offset);
    ForPixels(width, height, [&](int x, int y) {
        image.Pixels.Wide()(x, y) =
            static_cast<std::int32_t>(std::lround(100 + random.Normal(noise)));
    });
    for (int star = width * height / 150; star > 0; --star) {
        AddStar(image, random.Between(-2, width + 2), random.Between(-2, height + 2),
                std::pow(10, random.Between(2.5, 5)), random.Between(0.4, 2.5));
    }
    for (int line = 0; line < 4; ++line) {
        const int x0 = random.Whole(0, width - 12);
        const int y0 = random.Whole(0, height - 1);
        for (int i = 0; i < random.Whole(1, 12); ++i) {
            const int y = y0 + (line % 2 == 0 ? i : -i);
            if (y >= 0 && y < height) image.Pixels.Wide()(x0 + i, y) = 3000;
        }
    }
    return image;
}

TEST(ExtractStars, IsThePlainProcedureOnRandomFields) {
    Random random(13);
    int stars = 0;
    for (int trial = 0; trial < 60; ++trial) {
        const int offset = std::vector{0, 32768, 2000000000}[trial % 3];
        const PlateImage image = StarField(random, random.Whole(20, 220), random.Whole(20, 160),
                                           offset, random.Between(0, 8));
        DetectionSettings settings = usual;
        settings.DetectionThreshold = random.Between(2, 8);
        settings.EdgeExclusion = trial % 4 == 0 ? 0 : random.Between(0, 0.2);
        settings.MinStarSize = static_cast<std::int16_t>(random.Whole(0, 6));
        settings.MaxStarSize = random.Between(0.5, 6);
        stars += ExpectSameExtraction(image, settings);
        ASSERT_FALSE(HasFailure()) << "trial " << trial;
    }
    EXPECT_GT(stars, 700) << "the fields are too empty to prove anything";
}

TEST(ExtractStars, SumsBeyondTheExactRangeQuietSkiesAndNarrowImages) {
    Random random(17);
    // Sums of many squares exceed 2^53, from where the order of additions matters.
    DetectionSettings narrow = usual;
    narrow.EdgeExclusion = 0.01;
    ExpectSameExtraction(StarField(random, 400, 400, 900000, 5), narrow);
    // Patches of three counts: many sigmas above a quiet sky, but no stars.
    PlateImage quiet = EmptyImage(100, 100, 100);
    ForPixels(100, 100, [&](int x, int y) {
        quiet.Pixels.Wide()(x, y) = random.Whole(0, 1) + (x % 20 < 3 && y % 20 < 3 ? 2 : 0);
    });
    DetectionSettings low = usual;
    low.DetectionThreshold = 3;
    EXPECT_EQ(ExpectSameExtraction(quiet, low), 0);
    EXPECT_EQ(ExpectSameExtraction(StarField(random, 19, 500, 0, 4), usual), 0);
    EXPECT_GT(ExpectSameExtraction(StarField(random, 20, 500, 0, 4), usual), 0);
}

void NoteGreatest(PixelGrid& grid, int width, int height) {
    Grid<std::uint16_t> greatest(width / PixelGrid::PartLength, height);
    ForPixels(width, height, [&](int x, int y) {
        std::uint16_t& most = greatest(x / PixelGrid::PartLength, y);
        most = std::max(most, grid.NarrowRow(y).Rank(x));
    });
    grid.NoteGreatest(std::move(greatest));
}

// Regions against a plain flood fill over pixels, and runs against the pixels themselves.
TEST(BrightRuns, AreTheBrightPixelsAndTheirRegionsAreThoseOfAFloodFill) {
    Random random(19);
    for (int trial = 0; trial < 40; ++trial) {
        const int width = trial % 3 == 0 ? random.Whole(250, 530) : random.Whole(1, 90);
        const int height = random.Whole(1, 60);
        Image image(width, height);
        const int share = random.Whole(1, 32);  // more would join into fills that are cut off
        ForPixels(width, height, [&](int x, int y) {
            image(x, y) = random.Whole(0, 100) < share ? random.Whole(8, 99) : random.Whole(-9, 7);
        });
        const VectorsForNow vectors(trial % 2 == 0);
        auto grids = InAllWidths(image, width, height, 9);
        for (PixelGrid& grid : grids) {
            if (grid.IsNarrow() && trial % 3 == 1) NoteGreatest(grid, width, height);
            // Levels that the cells cannot hold: all pixels are above one and none above the other.
            const BrightRuns none(grid, width, height, 70000, {});
            none.ForEach([](auto...) { FAIL(); });
            int all = 0;
            const BrightRuns every(grid, width, height, -70000, {});
            every.ForEach([&](int, const BrightRun& run, auto) { all += run.End - run.First; });
            ASSERT_EQ(all, width * height);
        }
        BrightRuns runs(grids[trial / 2 % 2], width, height, 7, {});
        std::int32_t depth = 0;
        const int regions = runs.Label(depth);

        Grid<std::int32_t> labels(width, height);
        int filled = 0;
        for (int x = 0; x < width; ++x) {
            for (int y = 0; y < height; ++y) {
                if (image(x, y) <= 7 || labels(x, y) != 0) continue;
                ++filled;
                std::vector<std::pair<int, int>> open = {{x, y}};
                labels(x, y) = filled;
                while (!open.empty()) {
                    const auto [cx, cy] = open.back();
                    open.pop_back();
                    for (int nx = std::max(cx - 1, 0); nx <= std::min(cx + 1, width - 1); ++nx) {
                        for (int ny = std::max(cy - 1, 0); ny <= std::min(cy + 1, height - 1);
                             ++ny) {
                            if (image(nx, ny) <= 7 || labels(nx, ny) != 0) continue;
                            labels(nx, ny) = filled;
                            open.emplace_back(nx, ny);
                        }
                    }
                }
            }
        }
        ASSERT_LT(depth, BrightRuns::DepthLimit) << "a fill was cut off, which is another test";
        ASSERT_EQ(regions, filled) << "trial " << trial;
        int pixels = 0;
        runs.ForEach([&](std::int32_t x, const BrightRun& run, const std::int32_t* values) {
            ASSERT_LT(run.First, run.End);
            ASSERT_TRUE(run.First == 0 || image(x, run.First - 1) <= 7);
            ASSERT_TRUE(run.End == height || image(x, run.End) <= 7);
            for (int y = run.First; y < run.End; ++y, ++pixels) {
                ASSERT_EQ(values[y - run.First], image(x, y));
                ASSERT_EQ(run.Label, labels(x, y)) << x << " " << y;
            }
        });
        int bright = 0;
        ForPixels(width, height, [&](int x, int y) { bright += image(x, y) > 7; });
        ASSERT_EQ(pixels, bright);
    }
}

// A star keeps its place from the mosaic to the sums of its cells and back.
TEST(Mosaic, SumsHoldTheLightOfTheirCellsAndStarsComeBackToTheirPlaces) {
    Random random(23);
    for (const auto& [width, height] :
         {std::pair(400, 300), std::pair(401, 303), std::pair(3, 130)}) {
        PlateImage mosaic = EmptyImage(width, height, 32768);
        mosaic.TopRowFirst = width == 401;
        ForPixels(width, height, [&](int x, int y) {
            mosaic.Pixels.Wide()(x, y) = static_cast<std::int32_t>(random.Normal(5));
        });
        PlateStarList stars;
        for (int i = 0; i < 12 && width > 100; ++i) {
            const double x = random.Between(20, width - 20);
            const double y = 20 + 22 * i;
            AddStar(mosaic, x, y, 400000, 2.5);
            stars.Add({static_cast<float>(x), static_cast<float>(y), 0, 0, 0});
        }
        const PlateImage sums = SumsOfMosaic(mosaic);
        ASSERT_EQ(sums.Width, width / 2);
        ASSERT_EQ(sums.Height, height / 2);
        EXPECT_EQ(sums.TopRowFirst, mosaic.TopRowFirst);
        for (int y = 0; y < sums.Height; ++y) {
            for (int x = 0; x < sums.Width; ++x) {
                std::int64_t light = 0;  // physical counts
                for (const int i : {0, 1, 2, 3}) {
                    light += std::int64_t{mosaic.Pixels(2 * x + i % 2, 2 * y + i / 2)} +
                             mosaic.DataOffset;
                }
                ASSERT_EQ(std::int64_t{sums.Pixels(x, y)} + sums.DataOffset, light);
            }
        }
        if (stars.Empty()) continue;
        ExtractionFacts facts;
        const PlateStarList found = InMosaicPixels(ExtractStars(sums, usual, facts));
        for (const PlateStar& star : stars) {
            const bool near = std::any_of(found.begin(), found.end(), [&](const PlateStar& other) {
                return std::hypot(other.X - star.X, other.Y - star.Y) < 0.15F;
            });
            EXPECT_TRUE(near) << star.X << ", " << star.Y << " of " << width;
        }
    }
}

TEST(ExtractStars, CutsAFillOffAtAThousandLevels) {
    Random random(14);
    PlateImage image = EmptyImage(2600, 60, 0);
    for (int x = 0; x < 2600; ++x) {
        image.Pixels.Wide()(x, 5) = 5000;                           // a bar
        image.Pixels.Wide()(x, 20 + std::abs(x % 40 - 20)) = 5000;  // a zigzag of diagonal joins
        if (x % 4 < 3) image.Pixels.Wide()(x, 45) = 4000;           // short bars
        if (x % 2 == 0) {                                           // a snake: up, over, down, over
            for (int y = 50; y < 58; ++y) image.Pixels.Wide()(x, y) = 4000;
        } else {
            image.Pixels.Wide()(x, x % 4 == 1 ? 50 : 57) = 4000;
        }
    }
    DetectionSettings settings = usual;
    settings.DetectionThreshold = 1;
    settings.MaxStarSize = 50;
    EXPECT_GT(ExpectSameExtraction(image, settings), 600);
    const PlainExtraction plain(image, settings);
    EXPECT_EQ(plain.Facts.MaxFillDepth, 1001);
}

}  // namespace
}  // namespace vestrel
