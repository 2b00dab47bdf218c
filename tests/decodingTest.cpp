// From the samples of a decoder to counts: fast kernels against plain ones.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>

#include "image/libPictureBuilder.h"
#include "tests/testSupport.h"
#include "tests/vectorsForNow.h"

namespace vestrel {
namespace {

/// Samples of a kind from numbers that it can hold.
std::vector<unsigned char> SamplesOf(SampleKind kind, std::span<const double> numbers) {
    std::vector<unsigned char> bytes(numbers.size() * SampleBytes(kind));
    const auto put = [&](auto sample, std::size_t i) {
        std::memcpy(bytes.data() + i * sizeof sample, &sample, sizeof sample);
    };
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        const double number = numbers[i];
        switch (kind) {
            case SampleKind::UInt8:
                put(static_cast<std::uint8_t>(number), i);
                break;
            case SampleKind::UInt16:
                put(static_cast<std::uint16_t>(number), i);
                break;
            case SampleKind::Int16:
                put(static_cast<std::int16_t>(number), i);
                break;
            case SampleKind::Int32:
                put(static_cast<std::int32_t>(number), i);
                break;
            case SampleKind::UInt32:
                put(static_cast<std::uint32_t>(number), i);
                break;
            case SampleKind::Float32:
                put(static_cast<float>(number), i);
                break;
            case SampleKind::Float64:
                put(number, i);
        }
    }
    return bytes;
}

// The conversion to counts as it would be written without regard to time: every number of the
// picture in one list, which is sorted whenever an order is needed.
namespace plainly {

struct Counts {
    CountScale Scale;
    std::vector<std::int32_t> Values;
};

double Sky(const std::vector<double>& numbers) {
    const std::size_t step = std::max<std::size_t>(1, numbers.size() / 40009);
    std::vector<double> some;
    for (std::size_t i = 0; i < numbers.size(); i += step) {
        if (std::isfinite(numbers[i])) some.push_back(numbers[i]);
    }
    std::sort(some.begin(), some.end());
    return some.empty() ? 0 : some[some.size() / 2];
}

Counts CountsOf(const std::vector<double>& numbers, std::int32_t width, std::int32_t height) {
    std::vector<double> sorted;
    std::copy_if(numbers.begin(), numbers.end(), std::back_inserter(sorted),
                 [](double number) { return std::isfinite(number); });
    std::sort(sorted.begin(), sorted.end());
    const bool whole = std::all_of(sorted.begin(), sorted.end(),
                                   [](double number) { return number == std::trunc(number); });
    const std::size_t strays = 1 + numbers.size() / 50000;
    const std::size_t last = std::min(strays, sorted.size() - 1);
    const double sky = Sky(numbers);
    double least = sorted.front();
    double greatest = sorted.back();
    const double usualGreatest = sorted[sorted.size() - 1 - last];
    const double usualLeast = sorted[last];
    if (least < 0 || greatest > 65535) {
        const double reach = std::max(usualGreatest - sky, sky - usualLeast);
        if (reach > 0 && greatest - sky > 200 * reach) greatest = sky + 2 * (usualGreatest - sky);
        if (reach > 0 && sky - least > 200 * reach) least = sky - 2 * (sky - usualLeast);
    }
    if (greatest > 1 && !whole && usualGreatest <= 1) {
        greatest = std::min(1.0, sky + 2 * (usualGreatest - sky));
    }
    Counts counts;
    const bool areCounts = least >= 0 && greatest <= 65535;
    const bool fractions = areCounts && greatest <= 2 && !whole && width >= 100 && height >= 100;
    if (fractions && greatest <= 1 && greatest * 65535 >= 8192) {
        counts.Scale = {0, 65535};
    } else if ((!areCounts || fractions) && greatest > least) {
        const double factor = 65535 / (greatest - least);
        if (std::isnormal(factor)) counts.Scale = {least, factor};
    }
    for (const double number : numbers) {
        const double value = std::isfinite(number) ? number : sky;
        const double count = (value - counts.Scale.Zero) * counts.Scale.Factor;
        counts.Values.push_back(
            static_cast<std::int32_t>(std::nearbyint(std::clamp(count, 0.0, 65535.0))));
    }
    return counts;
}

}  // namespace plainly

struct Size {
    std::int32_t Width;
    std::int32_t Height;
};

/// The number of each sample of a picture by its place.
template <typename Number>
std::vector<double> NumbersOf(Size size, int channels, const Number& number) {
    std::vector<double> numbers(static_cast<std::size_t>(size.Width) *
                                static_cast<std::size_t>(size.Height * channels));
    for (std::size_t i = 0; i < numbers.size(); ++i) numbers[i] = static_cast<double>(number(i));
    return numbers;
}

/// What the calls of a decoder make of a picture.
template <typename Calls>
PlateImage Decoded(const PictureShape& shape, const Calls& calls, const FileReader& file = {}) {
    PlateImage image;
    PictureBuilder builder(image, {}, file);
    builder.Start(shape);
    calls(builder);
    builder.Finish();
    return image;
}

/// A picture that comes row by row.
PlateImage Built(SampleKind kind, Size size, std::span<const double> numbers, int channels = 1) {
    return Decoded({size.Width, size.Height, channels, kind, 16, true}, [&](PictureSink& sink) {
        const std::size_t row =
            static_cast<std::size_t>(size.Width) * static_cast<std::size_t>(channels);
        for (std::int32_t y = 0; y < size.Height; ++y) {
            const auto samples =
                SamplesOf(kind, numbers.subspan(static_cast<std::size_t>(y) * row, row));
            sink.Row(y, samples.data());
        }
    });
}

std::vector<std::int32_t> CountsIn(const PlateImage& image) {
    std::vector<std::int32_t> counts;
    for (std::int32_t y = 0; y < image.Height; ++y) {
        for (std::int32_t x = 0; x < image.Width; ++x) {
            counts.push_back(image.Pixels(x, y) + image.DataOffset);
        }
    }
    return counts;
}

constexpr double nan = std::numeric_limits<double>::quiet_NaN();
constexpr double inf = std::numeric_limits<double>::infinity();

/// What pictures hold: each makes the number at a place.
struct Content {
    const char* Name;
    std::function<double(std::size_t i, std::uint32_t random)> Number;
};
const Content contents[] = {
    {"counts", [](std::size_t, std::uint32_t r) { return r % 60000; }},
    {"counts with halves", [](std::size_t, std::uint32_t r) { return r % 131000 / 2.0; }},
    {"fractions", [](std::size_t, std::uint32_t r) { return r % 9973 / 9973.0; }},
    {"dark fractions", [](std::size_t, std::uint32_t r) { return r % 997 / 99700.0; }},
    {"fractions above 1", [](std::size_t, std::uint32_t r) { return r % 997 / 900.0; }},
    {"fractions and a defect",
     [](std::size_t i, std::uint32_t r) { return i == 777 ? 3.5 : r % 997 / 2000.0; }},
    {"wide", [](std::size_t, std::uint32_t r) { return r % 2000000000U - 1e6; }},
    {"wide with defects of both signs",
     [](std::size_t i, std::uint32_t r) {
         return i == 55 ? 2e9 : i == 99 ? -2e9 : 100000.0 + r % 1000;
     }},
    {"all saturated", [](std::size_t, std::uint32_t) { return 1e6; }},
    {"half saturated", [](std::size_t, std::uint32_t r) { return r % 2 == 0 ? 1e6 : r % 1000; }},
    {"a frame without numbers",
     [](std::size_t i, std::uint32_t r) { return i < 700 ? nan : r % 50000 / 7.0; }},
    {"infinite pixels",
     [](std::size_t i, std::uint32_t r) {
         return i % 97 == 0 ? (r % 2 == 0 ? inf : -inf) : r % 900;
     }},
    {"beyond every whole number",
     [](std::size_t, std::uint32_t r) { return 4503599627370497.0 * (1 + r % 5); }},
    {"negative zeros", [](std::size_t i, std::uint32_t r) { return i % 2 == 0 ? -0.0 : r % 10; }},
};

TEST(Counts, AreThoseOfThePlainProcedureForEveryKindOfNumberAndEveryContent) {
    // Widths about the length of a block and of vectors; heights about those of bands.
    constexpr Size sizes[] = {{1, 1},   {3, 2},     {100, 100}, {511, 5},
                              {512, 7}, {513, 101}, {1029, 3},  {7, 100}};
    struct Kind {
        SampleKind Sample;
        double Least, Greatest;
        bool Whole;
    };
    constexpr Kind kinds[] = {{SampleKind::Int32, -2147483648.0, 2147483647.0, true},
                              {SampleKind::UInt32, 0, 4294967295.0, true},
                              {SampleKind::Float32, -inf, inf, false},
                              {SampleKind::Float64, -inf, inf, false}};
    std::minstd_rand random(5);
    for (const Kind& kind : kinds) {
        for (const Content& content : contents) {
            for (const Size size : sizes) {
                const auto numbers = NumbersOf(size, 1, [&](std::size_t i) {
                    double number = content.Number(i, static_cast<std::uint32_t>(random()));
                    if (kind.Whole) {
                        number = std::isfinite(number) ? std::trunc(number) : 0;
                        number = std::clamp(number, kind.Least, kind.Greatest);
                    }
                    return kind.Sample == SampleKind::Float32
                               ? static_cast<double>(static_cast<float>(number))
                               : number;
                });
                const bool any = std::any_of(numbers.begin(), numbers.end(),
                                             [](double number) { return std::isfinite(number); });
                if (!any) continue;
                const plainly::Counts expected =
                    plainly::CountsOf(numbers, size.Width, size.Height);
                for (const bool plain : {false, true}) {
                    const VectorsForNow vectors(plain);
                    const PlateImage image = Built(kind.Sample, size, numbers);
                    SCOPED_TRACE(std::string(content.Name) + ", kind " +
                                 std::to_string(static_cast<int>(kind.Sample)) + ", " +
                                 std::to_string(size.Width) + " x " + std::to_string(size.Height) +
                                 (plain ? ", plain" : ""));
                    ASSERT_EQ(image.Counts.Zero, expected.Scale.Zero);
                    ASSERT_EQ(image.Counts.Factor, expected.Scale.Factor);
                    ASSERT_EQ(CountsIn(image), expected.Values);
                }
            }
        }
    }
}

TEST(Counts, OfColoursAreTheirMeanAndOfBytesTheirSum) {
    constexpr Size size{101, 3};
    constexpr std::size_t pixels = 101 * 3;
    std::minstd_rand random(3);
    for (const int channels : {1, 2, 3, 4, 5}) {
        const auto step = static_cast<std::size_t>(channels);
        const auto numbers = NumbersOf(size, channels, [&](std::size_t) { return random() % 120; });
        for (int n = 0; n < SampleKinds; ++n) {
            const auto kind = static_cast<SampleKind>(n);
            const auto counts = CountsIn(Built(kind, size, numbers, channels));
            for (std::size_t i = 0; i < pixels; ++i) {
                const double* at = &numbers[i * step];
                const double sum = channels < 3 ? at[0] : at[0] + at[1] + at[2];
                const bool summed = channels < 3 || kind == SampleKind::UInt8;
                ASSERT_EQ(counts[i], std::nearbyint(summed ? sum : sum / 3))
                    << n << ": " << channels << " channels, pixel " << i;
            }
        }
    }
}

// Faulty pixels of floating-point pictures can have any value.
TEST(Counts, AFewStrayPixelsLeaveTheStarsTheirSteps) {
    const auto build = [](double factor, double stray) {
        constexpr Size size{200, 150};
        auto numbers = NumbersOf(size, 1, [factor](std::size_t i) {
            const int x = static_cast<int>(i % 200);
            const int y = static_cast<int>(i / 200);
            const double r2 = std::pow(x - 90, 2) + std::pow(y - 70, 2);
            return factor * (300 + (x * 7 + y * 3) % 11 + 5000 * std::exp(-r2 / 8));
        });
        if (stray != 0) numbers[20 * 200 + 33] = stray;
        return Built(SampleKind::Float64, size, numbers);
    };
    const auto height = [](const PlateImage& image) {
        return image.Pixels(90, 70) - image.Pixels(10, 10);
    };
    // Values that look like counts are not rescaled.
    const PlateImage clean = build(1, 0);
    for (const double stray : {1e9, -1e9, 1e300}) {
        const PlateImage image = build(1, stray);
        EXPECT_EQ(image.Counts.Factor, 1) << stray;
        EXPECT_EQ(height(image), height(clean)) << stray;
        EXPECT_EQ(image.Pixels(33, 20), stray > 0 ? 32767 : -32768);
    }
    // Values outside the range of counts are scaled as they would be without the stray pixel.
    const PlateImage wide = build(1000, 0);
    EXPECT_GT(height(wide), 30000);
    EXPECT_GT(height(build(1000, 1e12)), 10000);
    // Fractions are fractions when packing took the brightest above 1, and with a faulty pixel.
    EXPECT_GT(height(build(1 / 5400.0, 0)), 50000);
    EXPECT_GT(height(build(1 / 5000.0, 0)), 50000);
    EXPECT_GT(height(build(1 / 5400.0, 5)), 20000);
}

TEST(Counts, NeedANumberAndAPicture) {
    EXPECT_THROW(Built(SampleKind::Float32, {2, 1}, std::vector<double>{nan, inf}), DecodeFault);
    EXPECT_THROW(Built(SampleKind::Float64, {2, 1}, std::vector<double>{-inf, nan}), DecodeFault);
    PlateImage image;
    PictureBuilder builder(image, {});
    EXPECT_THROW(builder.Stored({}), DecodeFault);
    EXPECT_THROW(builder.Finish(), DecodeFault);
}

/// A file that holds the samples of `rows` as `stored` says, after some other bytes.
std::string FileOf(const PictureShape& shape, StoredSamples& stored,
                   const std::vector<unsigned char>& rows) {
    const std::size_t bytes = SampleBytes(shape.Kind);
    const auto width = static_cast<std::size_t>(shape.Width);
    const auto height = static_cast<std::size_t>(shape.Height);
    const auto channels = static_cast<std::size_t>(shape.Channels);
    std::string file = "header";
    stored.Start = file.size();
    std::string samples(rows.size(), '\0');
    for (std::size_t y = 0; y < height; ++y) {
        for (std::size_t x = 0; x < width; ++x) {
            for (std::size_t c = 0; c < channels; ++c) {
                const std::size_t row = stored.LastRowFirst ? height - 1 - y : y;
                const std::size_t place = stored.Planar ? (c * height + row) * width + x
                                                        : (row * width + x) * channels + c;
                char* to = &samples[place * bytes];
                std::memcpy(to, &rows[((y * width + x) * channels + c) * bytes], bytes);
                if (stored.TopBitFlipped) to[bytes - 1] = static_cast<char>(to[bytes - 1] ^ 0x80);
                if (stored.BigEndian) std::reverse(to, to + bytes);
            }
        }
    }
    return file + samples + "tail";
}

/// The picture whose samples are stored in `file`.
PlateImage DecodedFrom(const std::string& file, const PictureShape& shape,
                       const StoredSamples& stored) {
    return Decoded(
        shape, [&](PictureSink& sink) { sink.Stored(stored); },
        [&file](std::uint64_t place, std::span<unsigned char> to) {
            if (place > file.size() || to.size() > file.size() - place) return false;
            std::copy_n(file.begin() + static_cast<std::ptrdiff_t>(place), to.size(), to.begin());
            return true;
        });
}

TEST(StoredSamples, InEveryOrderOfBytesRowsAndPlanesGiveThePictureOfDecodedRows) {
    std::minstd_rand random(11);
    int checked = 0;
    for (int n = 0; n < SampleKinds; ++n) {
        const auto kind = static_cast<SampleKind>(n);
        for (const int channels : {1, 2, 3, 4}) {
            // Several pieces, and rows that are longer than a piece.
            for (const Size size : {Size{37, 5}, Size{700, 100}, Size{32767, 2}}) {
                if (size.Width * channels > 100000 && kind != SampleKind::Float64) continue;
                const auto numbers =
                    NumbersOf(size, channels, [&](std::size_t) { return random() % 127; });
                const PlateImage expected = Built(kind, size, numbers, channels);
                const auto rows = SamplesOf(kind, numbers);
                for (unsigned bits = 0; bits < 16; ++bits) {
                    if (size.Width > 37 && bits % 5 != 0) continue;
                    const PictureShape shape{size.Width, size.Height, channels, kind, 16, true};
                    StoredSamples stored;
                    stored.BigEndian = (bits & 1) != 0;
                    stored.Planar = (bits & 2) != 0;
                    stored.LastRowFirst = (bits & 4) != 0;
                    stored.TopBitFlipped = (bits & 8) != 0;
                    const std::string file = FileOf(shape, stored, rows);
                    const VectorsForNow vectors(bits % 3 == 0);
                    const PlateImage image = DecodedFrom(file, shape, stored);
                    ASSERT_EQ(CountsIn(image), CountsIn(expected))
                        << n << ": " << channels << " channels, form " << bits;
                    ++checked;
                }
            }
        }
    }
    EXPECT_GT(checked, 300);
}

TEST(StoredSamples, OfSixtyFourBitsAreTakenForNumbersAndAFileThatEndsTooEarlyIsRefused) {
    constexpr std::int64_t numbers[] = {0, 1, 65535, 70000, -5, std::int64_t{1} << 40};
    std::string file;
    for (const std::int64_t number : numbers) {
        for (int byte = 7; byte >= 0; --byte) file += static_cast<char>(number >> (8 * byte));
    }
    const auto read = [](const std::string& bytes) {
        return DecodedFrom(bytes, {3, 2, 1, SampleKind::Float64, 64, false},
                           {0, true, false, false, false, true});
    };
    const std::vector<double> expected(std::begin(numbers), std::end(numbers));
    EXPECT_EQ(CountsIn(read(file)), plainly::CountsOf(expected, 3, 2).Values);
    file.pop_back();
    EXPECT_THROW(read(file), DecodeFault);
}

}  // namespace
}  // namespace vestrel
