#include "solver/solverPicture.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <stdexcept>
#include <vector>

#include "image/libFitsCards.h"
#include "image/libPictureBuilder.h"

namespace vestrel {

namespace {

struct SampleForm {
    SampleKind Kind;  ///< the kind in which it is passed on
    std::size_t Bytes;
    int BitPix;
};

SampleForm FormOf(SampleType type) {
    switch (type) {
        case SampleType::UInt8:
            return {SampleKind::UInt8, 1, 8};
        case SampleType::UInt16:
            return {SampleKind::UInt16, 2, 16};
        case SampleType::Int16:
            return {SampleKind::Int16, 2, 16};
        case SampleType::UInt32:
            return {SampleKind::UInt32, 4, 32};
        case SampleType::Int32:
            return {SampleKind::Int32, 4, 32};
        case SampleType::Float32:
            return {SampleKind::Float32, 4, -32};
        case SampleType::Float64:
            return {SampleKind::Float64, 8, -64};
    }
    throw std::invalid_argument("There is no such type of samples.");
}

void RequireSize(std::int64_t width, std::int64_t height) {
    if (width < 1 || width > LongestSide || height < 1 || height > LongestSide ||
        width * height > MostPixels) {
        throw std::invalid_argument("A picture of " + std::to_string(width) + " x " +
                                    std::to_string(height) + " pixels cannot be taken.");
    }
}

void TakeCards(const std::vector<std::string>& cards, PictureBuilder& builder) {
    for (std::string card : cards) {
        card.resize(FitsCardLength, ' ');
        if (!card.starts_with("END     ")) builder.Card(card);
    }
}

}  // namespace

void ImageFromPixels(const PixelPicture& picture, const Progress& progress, PlateImage& image) {
    RequireSize(picture.Width, picture.Height);
    constexpr int mostChannels = 1024;
    if (picture.Samples == nullptr || picture.Channels < 1 || picture.Channels > mostChannels) {
        throw std::invalid_argument("A picture needs samples, of 1 to 1024 channels.");
    }
    const SampleForm form = FormOf(picture.Type);
    const std::size_t samples =
        static_cast<std::size_t>(picture.Width) * static_cast<std::size_t>(picture.Channels);
    const std::ptrdiff_t rowBytes = picture.RowBytes != 0
                                        ? picture.RowBytes
                                        : static_cast<std::ptrdiff_t>(samples * form.Bytes);
    PictureBuilder builder(image, progress);
    builder.Start({picture.Width, picture.Height, picture.Channels, form.Kind, form.BitPix,
                   picture.TopRowFirst});
    TakeCards(picture.Cards, builder);
    const auto* row = static_cast<const unsigned char*>(picture.Samples);
    for (std::int64_t y = 0; y < picture.Height; ++y, row += rowBytes) {
        builder.Row(y, row);
    }
    builder.Finish();
    image.ImageType = ImageType::Decoded;
    image.Format = "pixels";
}

void ImageOfStars(const StarField& field, PlateImage& image) {
    RequireSize(field.Width, field.Height);
    PictureBuilder builder(image, {});
    builder.Start({field.Width, field.Height, 1, SampleKind::UInt8, 8, false});
    TakeCards(field.Cards, builder);
    builder.Finish();
    image.ImageType = ImageType::Decoded;
    image.Format = "stars";
}

PlateStarList StarsOf(const StarField& field) {
    std::vector<SolverStar> stars = field.Stars;
    double least = 0;
    for (const SolverStar& star : stars) {
        if (!std::isfinite(star.X) || !std::isfinite(star.Y) || !std::isfinite(star.Flux)) {
            throw std::invalid_argument("A star's place or flux is not a number.");
        }
        if (star.Flux > 0 && (least == 0 || star.Flux < least)) least = star.Flux;
    }
    if (least == 0) {
        // Only their order is known. Fluxes must be above 0, because magnitudes are computed from
        // them.
        for (std::size_t i = 0; i < stars.size(); ++i) {
            stars[i].Flux = static_cast<double>(stars.size() - i);
        }
    }
    std::stable_sort(stars.begin(), stars.end(),
                     [](const auto& a, const auto& b) { return a.Flux > b.Flux; });
    constexpr std::size_t most = 600;
    PlateStarList list;
    for (const SolverStar& star : stars) {
        const bool inFrame = star.X > -0.5 && star.Y > -0.5 &&
                             star.X < static_cast<double>(field.Width) - 0.5 &&
                             star.Y < static_cast<double>(field.Height) - 0.5;
        if (!inFrame || list.Count() == static_cast<std::int32_t>(most)) continue;
        list.Add({static_cast<float>(star.X), static_cast<float>(star.Y),
                  static_cast<float>(std::max(star.Flux, least)), 0, 0});
    }
    return list;
}

}  // namespace vestrel
