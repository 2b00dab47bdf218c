// Builds the image record from what a decoder passes on: counts from samples of any range, and the
// header from cards of any kind.
#pragma once

#include "astro/libParallel.h"
#include "image/libDecoder.h"
#include "image/libImage.h"
#include "image/libNumberRange.h"
#include "image/libStoredRows.h"

namespace vestrel {

/// Fills a `PlateImage` from a decoder.
///
/// Counts: 8- and 16-bit samples are counts (negative ones become 0), and so are wider and
/// floating-point ones that lie within 0..65535. Floating-point pictures of at least 100 x 100
/// pixels within 0..1, not all whole, are taken times 65535, as stackers write them; where that
/// would leave few steps, where packing left them a little above 1, and for any wider range, the
/// range becomes 0..65535 by a straight line; of a wider range, strays are cut off first: one pixel
/// in 50,000, 200 times as far from the sky as all others. The record says which. Pixels that are
/// no finite numbers become the background, by which the median of the others is meant. Of colours
/// the mean is taken, of 8-bit ones the sum, as JPEG pictures have it.
// Nothing is deleted through its base.
// NOLINTNEXTLINE(cppcoreguidelines-virtual-class-destructor)
class PictureBuilder final : public PictureSink {
 public:
    /// @param file reads the file that is decoded, for pictures whose samples are stored in it
    PictureBuilder(PlateImage& image, Progress progress, FileReader file = {});

    void Start(const PictureShape& shape) override;
    void Row(std::int64_t y, const void* samples) override;
    void Stored(const StoredSamples& samples) override;
    void Card(std::string_view card) override;
    void TextCard(std::string_view keyword, std::string_view text,
                  std::string_view comment) override;
    void NumberCard(std::string_view keyword, double value, std::string_view comment) override;
    void Remark(std::string text) override;
    void Orientation(int value) override;

    /// Must be called after the last row and card. Throws `DecodeFault` when there was no picture.
    void Finish();

    /// The range of the samples of a finished picture that has wider than 16-bit ones.
    const NumberRange& Range() const { return range_; }

 private:
    PlateImage& image_;
    Progress progress_;
    PictureShape shape_;
    bool started_ = false;
    FileReader file_;
    bool collects_ = false;  ///< the samples are numbers whose range decides about the counts
    PictureNumbers numbers_;
    NumberRange range_;
};

}  // namespace vestrel
