#include "image/libPictureBuilder.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <span>
#include <utility>

#include "astro/libStrings.h"
#include "image/libExif.h"
#include "image/libFITS.h"
#include "image/libFitsCards.h"

namespace vestrel {

namespace {

/// Counts are stored minus this, as in 16-bit files.
constexpr std::int32_t offset = 32768;
constexpr double largestCount = 65535;

std::int32_t Stored(std::int32_t count) {
    return count - offset;
}

template <typename Sample>
void TakeCounts(const Sample* samples, int channels, std::int32_t* row, std::int32_t width) {
    for (std::int32_t x = 0; x < width; ++x, samples += channels) {
        std::int32_t count = samples[0];
        if (channels >= 3) {
            count += samples[1] + samples[2];
            if constexpr (sizeof(Sample) > 1) count = (count + 1) / 3;
        }
        row[x] = Stored(std::max(count, 0));
    }
}

template <typename Sample>
void TakeNumbers(const Sample* samples, int channels, Sample* numbers, std::int32_t width) {
    for (std::int32_t x = 0; x < width; ++x, samples += channels) {
        numbers[x] = channels >= 3 ? (samples[0] + samples[1] + samples[2]) / 3 : samples[0];
    }
}

/// The range of the finite numbers of a picture.
struct NumberRange {
    double Least = std::numeric_limits<double>::infinity();
    double Greatest = -std::numeric_limits<double>::infinity();
    bool Whole = true;
    bool AllFinite = true;
};

template <typename Number>
NumberRange RangeOf(const std::vector<Number>& numbers) {
    NumberRange range;
    Number least = std::numeric_limits<Number>::infinity();
    Number greatest = -least;
    bool whole = true;
    bool finite = true;
    for (const Number number : numbers) {
        if (!std::isfinite(number)) {
            finite = false;
            continue;
        }
        least = std::min(least, number);
        greatest = std::max(greatest, number);
        whole = whole && number == std::trunc(number);
    }
    range = {static_cast<double>(least), static_cast<double>(greatest), whole, finite};
    return range;
}

/// The median of some 40,000 evenly spaced finite numbers; 0 when there are none.
template <typename Number>
double SkyOf(const std::vector<Number>& numbers) {
    constexpr std::size_t samples = 40009;
    const std::size_t step = std::max<std::size_t>(1, numbers.size() / samples);
    std::vector<Number> some;
    for (std::size_t i = 0; i < numbers.size(); i += step) {
        if (std::isfinite(numbers[i])) some.push_back(numbers[i]);
    }
    if (some.empty()) return 0;
    const auto middle = some.begin() + static_cast<std::ptrdiff_t>(some.size() / 2);
    std::nth_element(some.begin(), middle, some.end());
    return static_cast<double>(*middle);
}

/// The k-th number, k from 1, in the order of `ahead` (the k-th greatest for std::greater) among
/// the finite ones, or the last when there are fewer. At least one must be finite.
template <typename Number, typename Ahead>
double Extreme(const std::vector<Number>& numbers, std::size_t k, const Ahead& ahead) {
    std::vector<Number> heap;  // the first k, with the last of them on top
    for (const Number number : numbers) {
        if (!std::isfinite(number)) continue;
        if (heap.size() < k) {
            heap.push_back(number);
            std::push_heap(heap.begin(), heap.end(), ahead);
        } else if (ahead(number, heap.front())) {
            std::pop_heap(heap.begin(), heap.end(), ahead);
            heap.back() = number;
            std::push_heap(heap.begin(), heap.end(), ahead);
        }
    }
    return static_cast<double>(heap.front());
}

/// How many pixels of a picture may have nothing to do with it.
template <typename Number>
std::size_t StraysAmong(const std::vector<Number>& numbers) {
    constexpr std::size_t pixelsPerStray = 50000;
    return 1 + numbers.size() / pixelsPerStray;
}

/// The range without the few pixels that do not belong to the picture: one defect of 1e9 would
/// leave the stars no steps on a linear scale. The light of a star falls on many pixels, so its
/// brightest pixel is never alone.
template <typename Number>
NumberRange WithoutStrays(NumberRange range, const std::vector<Number>& numbers) {
    constexpr double alone = 200;  // times as far from the sky as everything but the strays
    constexpr double room = 2;
    const std::size_t strays = StraysAmong(numbers);
    const double sky = SkyOf(numbers);
    const double greatest = Extreme(numbers, strays + 1, std::greater<>());
    const double least = Extreme(numbers, strays + 1, std::less<>());
    const double reach = std::max(greatest - sky, sky - least);
    if (!(reach > 0)) return range;
    if (range.Greatest - sky > alone * reach) range.Greatest = sky + room * (greatest - sky);
    if (sky - range.Least > alone * reach) range.Least = sky - room * (sky - least);
    return range;
}

/// The range of fractions of which a few faulty pixels are above 1; else the range as it is.
template <typename Number>
NumberRange FractionsOf(NumberRange range, const std::vector<Number>& numbers) {
    const double greatest = Extreme(numbers, 1 + StraysAmong(numbers), std::greater<>());
    if (greatest > 1) return range;
    const double sky = SkyOf(numbers);
    range.Greatest = std::min(1.0, sky + 2 * (greatest - sky));
    return range;
}

/// count = (sample − Zero) × Factor
CountScale ScaleFor(const NumberRange& range, std::int32_t width, std::int32_t height) {
    constexpr std::int32_t smallestSide = 100;
    // With a brightest pixel below this, faint stars would have too few steps.
    constexpr double fewSteps = 8192;
    const bool counts = range.Least >= 0 && range.Greatest <= largestCount;
    // Packing and resampling leave fractions a little above 1.
    constexpr double overshoot = 2;
    const bool fractions = counts && range.Greatest <= overshoot && !range.Whole &&
                           width >= smallestSide && height >= smallestSide;
    if (fractions && range.Greatest <= 1 && range.Greatest * largestCount >= fewSteps) {
        return {0, largestCount};
    }
    if ((counts && !fractions) || range.Greatest <= range.Least) return {0, 1};
    const double factor = largestCount / (range.Greatest - range.Least);
    return std::isnormal(factor) ? CountScale{range.Least, factor} : CountScale{0, 1};
}

template <typename Number>
void MakeCounts(const std::vector<Number>& numbers, PlateImage& image) {
    NumberRange range = RangeOf(numbers);
    if (range.Least > range.Greatest) throw DecodeFault("None of its pixels is a number.");
    if (range.Least < 0 || range.Greatest > largestCount) range = WithoutStrays(range, numbers);
    if (range.Greatest > 1 && !range.Whole) range = FractionsOf(range, numbers);
    const CountScale scale = ScaleFor(range, image.Width, image.Height);
    image.Counts = scale;
    // Adding it rounds halves to even; a call for each pixel would take several times as long.
    constexpr double lastDigitIsOne = 6755399441055744.0;  // 1.5 × 2^52
    const double sky = range.AllFinite ? 0 : SkyOf(numbers);
    const Number* number = numbers.data();
    for (std::int32_t y = 0; y < image.Height; ++y) {
        std::int32_t* row = image.Pixels.Row(y).data();
        for (std::int32_t x = 0; x < image.Width; ++x, ++number) {
            const double value = std::isfinite(*number) ? static_cast<double>(*number) : sky;
            const double count = (value - scale.Zero) * scale.Factor;
            const double within = count < 0 ? 0.0 : count > largestCount ? largestCount : count;
            row[x] = Stored(static_cast<std::int32_t>((within + lastDigitIsOne) - lastDigitIsOne));
        }
    }
}

/// The card with its number freed from quotes, which some programs put around numbers; empty when
/// there is no such number.
std::string WithoutQuotes(std::string_view card) {
    const std::size_t equals = card.find('=');
    const std::size_t open = card.find('\'');
    if (equals == std::string_view::npos || open == std::string_view::npos) return {};
    const std::size_t close = card.find('\'', open + 1);
    const std::string_view value = Trim(card.substr(open + 1, close - open - 1));
    if (!ParseNumber(value)) return {};
    return std::string(card.substr(0, equals)) + "= " + std::string(value);
}

}  // namespace

PictureBuilder::PictureBuilder(PlateImage& image, Progress progress)
    : image_(image), progress_(std::move(progress)) {
    ClearHeader(image.Header);
}

void PictureBuilder::Start(const PictureShape& shape) {
    const auto size = std::to_string(shape.Width) + " x " + std::to_string(shape.Height);
    if (shape.Width < 1 || shape.Height < 1 || shape.Channels < 1) {
        throw DecodeFault("It has no pixels.");
    }
    if (shape.Width > LongestSide || shape.Height > LongestSide) {
        throw DecodeFault("It has " + size + " pixels; a side may have " +
                          std::to_string(LongestSide) + ".");
    }
    if (shape.Width * shape.Height > MostPixels) {
        throw DecodeFault("It has " + size + " pixels; the limit is " +
                          std::to_string(MostPixels / 1'000'000) + " million.");
    }
    shape_ = shape;
    started_ = true;
    image_.Header.NAxis1 = static_cast<std::int16_t>(shape.Width);
    image_.Header.NAxis2 = static_cast<std::int16_t>(shape.Height);
    StartPixels(image_, offset);
    image_.TopRowFirst = shape.TopRowFirst;
    const bool colour = shape.Channels >= 3;
    image_.LargestCount = shape.Kind != SampleKind::UInt8 ? 65535 : colour ? 3 * 255 : 255;
    const auto pixels = static_cast<std::size_t>(shape.Width * shape.Height);
    if (shape.Kind == SampleKind::Float32) singles_.resize(pixels);
    if (shape.Kind == SampleKind::Float64) doubles_.resize(pixels);
}

void PictureBuilder::Row(std::int64_t y, const void* samples) {
    const auto at = static_cast<std::int32_t>(y);
    std::int32_t* row = image_.Pixels.Row(at).data();
    const std::int32_t width = image_.Width;
    const std::size_t start = static_cast<std::size_t>(y) * static_cast<std::size_t>(width);
    switch (shape_.Kind) {
        case SampleKind::UInt8:
            TakeCounts(static_cast<const std::uint8_t*>(samples), shape_.Channels, row, width);
            break;
        case SampleKind::UInt16:
            TakeCounts(static_cast<const std::uint16_t*>(samples), shape_.Channels, row, width);
            break;
        case SampleKind::Int16:
            TakeCounts(static_cast<const std::int16_t*>(samples), shape_.Channels, row, width);
            break;
        case SampleKind::Float32:
            TakeNumbers(static_cast<const float*>(samples), shape_.Channels,
                        singles_.data() + start, width);
            break;
        case SampleKind::Float64:
            TakeNumbers(static_cast<const double*>(samples), shape_.Channels,
                        doubles_.data() + start, width);
    }
    if (at % 16 == 0 && progress_) progress_(at, image_.Height);
}

void PictureBuilder::Card(std::string_view card) {
    ImageHeader& header = image_.Header;
    if (header.CardCount + 2 >= ImageHeader::MaxCards) return;  // END needs room too
    const auto parse = [&header](std::string_view text) {
        std::string error;
        try {
            ParseHeaderCard(text, header, error);
        } catch (const std::range_error&) {
            error = "beyond any use";
        }
        return error.empty();
    };
    const std::string_view keyword = Trim(card.substr(0, std::min<std::size_t>(8, card.find('='))));
    if (keyword.empty() && Trim(card).empty()) return;
    header.Cards[static_cast<std::size_t>(++header.CardCount)] = card;
    if (parse(card)) return;
    const std::string plain = WithoutQuotes(card);
    if (!plain.empty() && parse(plain)) return;
    // The size that the decoder states counts, so that of a card does not matter.
    if (keyword.starts_with("NAXIS")) return;
    Remark("The card " + std::string(Trim(card)) + " says nothing usable and was left out.");
}

void PictureBuilder::TextCard(std::string_view keyword, std::string_view text,
                              std::string_view comment) {
    Card(FitsTextCard(keyword, text, comment));
}

void PictureBuilder::NumberCard(std::string_view keyword, double value, std::string_view comment) {
    if (std::isfinite(value)) Card(FitsNumberCard(keyword, value, comment));
}

void PictureBuilder::Remark(std::string text) {
    constexpr std::size_t most = 100;
    if (image_.Remarks.size() < most) image_.Remarks.push_back(std::move(text));
}

void PictureBuilder::Orientation(int value) {
    if (value < 1 || value > 8) return;
    image_.Orientation = value;
    if (std::string remark = OrientationRemark(value); !remark.empty()) Remark(std::move(remark));
}

void PictureBuilder::Finish() {
    if (!started_) throw DecodeFault("It holds no picture.");
    if (shape_.Kind == SampleKind::Float32) MakeCounts(singles_, image_);
    if (shape_.Kind == SampleKind::Float64) MakeCounts(doubles_, image_);
    ImageHeader& header = image_.Header;
    header.Cards[static_cast<std::size_t>(++header.CardCount)] = std::string("END").append(77, ' ');
    // The header fields describe the pixels as they are in memory.
    header.Simple = true;
    header.BitPix = static_cast<std::int16_t>(shape_.BitPix);
    header.NAxis = 2;
    header.NAxis1 = static_cast<std::int16_t>(image_.Width);
    header.NAxis2 = static_cast<std::int16_t>(image_.Height);
    header.BZero = offset;
    header.BScale = 1;
    const CountScale& scale = image_.Counts;
    if (scale.Factor != 1 || scale.Zero != 0) {
        header.DataMax = largestCount;
        Remark("Counts are (sample - " + NumberText(scale.Zero) + ") x " +
               NumberText(scale.Factor) + ".");
    }
    image_.Pedestal = header.Pedestal;
    if (progress_) progress_(0, image_.Height);
}

}  // namespace vestrel
