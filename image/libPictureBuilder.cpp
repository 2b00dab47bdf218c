#include "image/libPictureBuilder.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <type_traits>
#include <utility>

#include "astro/libStrings.h"
#include "image/libExif.h"
#include "image/libFitsCards.h"
#include "image/libFitsKeywords.h"

namespace vestrel {

namespace {

/// Counts are stored minus this, as in 16-bit files.
constexpr std::int32_t offset = 32768;
constexpr std::int32_t largestCount = 65535;

std::int32_t Stored(std::int32_t count) {
    return count - offset;
}

/// Calls `work` with the number of channels, which is a constant for the usual ones: only then
/// loops over pixels are vectorised.
template <typename Work>
void WithChannels(int channels, const Work& work) {
    if (channels == 1) return work(std::integral_constant<int, 1>());
    if (channels == 3) return work(std::integral_constant<int, 3>());
    work(channels);
}

/// The cells have 16 bits, which is enough for the counts of samples of 8 and 16 bits.
template <typename Sample>
void TakeCounts(const Sample* samples, int channels, std::uint16_t* row, std::int32_t width) {
    WithChannels(channels, [&](auto step) {
        for (std::int32_t x = 0; x < width; ++x) {
            const Sample* pixel = samples + std::ptrdiff_t{x} * step;
            std::int32_t count = pixel[0];
            if (step >= 3) {
                count += pixel[1] + pixel[2];
                if constexpr (sizeof(Sample) > 1) count = (count + 1) / 3;
            }
            row[x] = static_cast<std::uint16_t>(Stored(std::max(count, 0)));
        }
    });
}

/// As `TakeCounts`: one number a pixel, as the bits of a `Number`.
template <typename Number, typename Sample, typename Cell>
void TakeNumbers(const Sample* samples, int channels, Cell* cells, std::int32_t width) {
    static_assert(sizeof(Number) == sizeof(Cell));
    WithChannels(channels, [&](auto step) {
        for (std::int32_t x = 0; x < width; ++x) {
            const Sample* pixel = samples + std::ptrdiff_t{x} * step;
            auto number = static_cast<Number>(pixel[0]);
            if (step >= 3) {
                number += static_cast<Number>(pixel[1]);
                number += static_cast<Number>(pixel[2]);
                number /= 3;
            }
            cells[x] = std::bit_cast<Cell>(number);
        }
    });
}

HeldAs HeldFor(const PictureShape& shape) {
    if (shape.Kind == SampleKind::Float32) return HeldAs::Float32;
    const bool colour = shape.Channels >= 3;  // whose mean need not be whole
    if (shape.Kind == SampleKind::Int32 && !colour) return HeldAs::Int32;
    if (shape.Kind == SampleKind::UInt32 && !colour) return HeldAs::UInt32;
    return HeldAs::Float64;
}

/// How many pixels of a picture may have nothing to do with it.
std::size_t StraysAmong(const PlateImage& image) {
    constexpr std::size_t pixelsPerStray = 50000;
    return 1 + static_cast<std::size_t>(image.Width) * static_cast<std::size_t>(image.Height) /
                   pixelsPerStray;
}

/// The range without the few pixels that do not belong to the picture: one defect of 1e9 would
/// leave the stars no steps on a linear scale. The light of a star falls on many pixels, so its
/// brightest pixel is never alone.
NumberRange WithoutStrays(NumberRange range, const PictureNumbers& numbers,
                          const PlateImage& image) {
    constexpr double alone = 200;  // times as far from the sky as everything but the strays
    constexpr double room = 2;
    const std::size_t strays = StraysAmong(image);
    const double sky = numbers.Sky(image.Pixels.Wide());
    const double greatest = numbers.Greatest(strays + 1, image.Pixels.Wide());
    const double least = numbers.Least(strays + 1, image.Pixels.Wide());
    const double reach = std::max(greatest - sky, sky - least);
    if (!(reach > 0)) return range;
    if (range.Greatest - sky > alone * reach) range.Greatest = sky + room * (greatest - sky);
    if (sky - range.Least > alone * reach) range.Least = sky - room * (sky - least);
    return range;
}

/// The range of fractions of which a few faulty pixels are above 1; else the range as it is.
NumberRange FractionsOf(NumberRange range, const PictureNumbers& numbers, const PlateImage& image) {
    const double greatest = numbers.Greatest(1 + StraysAmong(image), image.Pixels.Wide());
    if (greatest > 1) return range;
    const double sky = numbers.Sky(image.Pixels.Wide());
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

void MakeCounts(const PictureNumbers& numbers, NumberRange range, PlateImage& image) {
    if (range.Least > range.Greatest) throw DecodeFault("None of its pixels is a number.");
    if (range.Least < 0 || range.Greatest > largestCount) {
        range = WithoutStrays(range, numbers, image);
    }
    if (range.Greatest > 1 && !range.Whole) range = FractionsOf(range, numbers, image);
    image.Counts = ScaleFor(range, image.Width, image.Height);
    const double sky = range.AllFinite ? 0 : numbers.Sky(image.Pixels.Wide());
    numbers.MakeCounts(image.Counts.Zero, image.Counts.Factor, sky, largestCount, offset,
                       image.Pixels.Wide());
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

PictureBuilder::PictureBuilder(PlateImage& image, Progress progress, FileReader file)
    : image_(image), progress_(std::move(progress)), file_(std::move(file)) {
    ClearHeader(image.Header);
}

void PictureBuilder::Start(const PictureShape& shape) {
    if (shape.Channels < 1) throw DecodeFault("It has no pixels.");
    RequireWithinLimits(shape.Width, shape.Height);
    shape_ = shape;
    started_ = true;
    image_.Header.NAxis1 = static_cast<std::int16_t>(shape.Width);
    image_.Header.NAxis2 = static_cast<std::int16_t>(shape.Height);
    collects_ = SampleBytes(shape.Kind) >= sizeof(std::int32_t);
    StartPixels(image_, offset, collects_ ? CellWidth::Wide : CellWidth::Narrow);
    image_.TopRowFirst = shape.TopRowFirst;
    const bool colour = shape.Channels >= 3;
    image_.LargestCount = shape.Kind != SampleKind::UInt8 ? 65535 : colour ? 3 * 255 : 255;
    if (collects_) numbers_ = PictureNumbers(HeldFor(shape), image_.Width, image_.Height);
}

void PictureBuilder::Row(std::int64_t y, const void* samples) {
    const auto at = static_cast<std::int32_t>(y);
    std::int32_t* row = collects_ ? image_.Pixels.Wide().Row(at).data() : nullptr;
    std::uint16_t* counts = collects_ ? nullptr : image_.Pixels.NarrowCells().Row(at).data();
    const std::int32_t width = image_.Width;
    const int channels = shape_.Channels;
    // Whole numbers stay what they are unless a mean of them is taken.
    const auto take = [&](const auto* wholes) {
        if (numbers_.Held() == HeldAs::Float64) {
            TakeNumbers<double>(wholes, channels, numbers_.DoubleRow(at), width);
        } else {
            TakeNumbers<std::remove_cvref_t<decltype(*wholes)>>(wholes, channels, row, width);
        }
    };
    switch (shape_.Kind) {
        case SampleKind::UInt8:
            TakeCounts(static_cast<const std::uint8_t*>(samples), channels, counts, width);
            break;
        case SampleKind::UInt16:
            TakeCounts(static_cast<const std::uint16_t*>(samples), channels, counts, width);
            break;
        case SampleKind::Int16:
            TakeCounts(static_cast<const std::int16_t*>(samples), channels, counts, width);
            break;
        case SampleKind::Int32:
            take(static_cast<const std::int32_t*>(samples));
            break;
        case SampleKind::UInt32:
            take(static_cast<const std::uint32_t*>(samples));
            break;
        case SampleKind::Float32:
            TakeNumbers<float>(static_cast<const float*>(samples), channels, row, width);
            break;
        case SampleKind::Float64:
            TakeNumbers<double>(static_cast<const double*>(samples), channels,
                                numbers_.DoubleRow(at), width);
    }
    if (collects_) numbers_.RowIsComplete(at, row);
    if (at % 16 == 0 && progress_) progress_(at, image_.Height);
}

void PictureBuilder::Stored(const StoredSamples& samples) {
    if (!started_ || !file_) throw DecodeFault("Its pixels have no place.");
    PassStoredRows(shape_, samples, file_, *this);
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
    if (collects_) {
        range_ = numbers_.Range();
        MakeCounts(numbers_, range_, image_);
    }
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
