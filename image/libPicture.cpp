#include "image/libPicture.h"

#include <jpeglib.h>
// jerror.h needs jpeglib.h before it.
#include <jerror.h>

#include <algorithm>
#include <cmath>
#include <csetjmp>
#include <limits>
#include <memory>
#include <new>
#include <span>
#include <string_view>
#include <vector>

#include "astro/libStrings.h"
#include "image/libApartDecoder.h"
#include "image/libExif.h"
#include "image/libFitsCards.h"
#include "platform/libFiles.h"
#include "platform/libPlatform.h"

namespace vestrel {

namespace {

/// Replaces libjpeg's error handling: errors jump back to the caller, and nothing is printed.
struct ErrorManager {
    jpeg_error_mgr Base;  // must stay first: libjpeg only knows this member
    std::jmp_buf Escape;
    jpeg_progress_mgr Scans;
    char Reason[JMSG_LENGTH_MAX];  ///< the sentence about the error
};

ErrorManager& ManagerOf(j_common_ptr info) {
    return *reinterpret_cast<ErrorManager*>(info->err);
}

[[noreturn]] void OnError(j_common_ptr info) {
    info->err->format_message(info, ManagerOf(info).Reason);
    std::longjmp(ManagerOf(info).Escape, 1);
}

void SayReason(ErrorManager& errors, std::string_view reason) {
    errors.Reason[reason.copy(errors.Reason, sizeof errors.Reason - 1)] = '\0';
}

void OnMessage(j_common_ptr info, int level) {
    // Warnings have level -1. After these two libjpeg would go on with grey pixels that are not in
    // the file.
    const int code = info->err->msg_code;
    if (level < 0 && (code == JWRN_JPEG_EOF || code == JWRN_HIT_MARKER)) OnError(info);
}

/// Refuses a picture whose scans would go over its pixels more often than any program makes them: a
/// few bytes can stand for a scan of all pixels.
void OnProgress(j_common_ptr info) {
    constexpr std::uint64_t always = 20;
    constexpr std::uint64_t mostPixelPasses = std::uint64_t{1} << 33;
    const auto* const picture = reinterpret_cast<j_decompress_ptr>(info);
    const auto scans = static_cast<std::uint64_t>(picture->input_scan_number);
    const std::uint64_t pixels = std::uint64_t{picture->image_width} * picture->image_height;
    if (scans > always && scans * pixels > mostPixelPasses) {
        SayReason(ManagerOf(info), "It has more scans than any program makes.");
        std::longjmp(ManagerOf(info).Escape, 1);
    }
}

constexpr int exifMarker = JPEG_APP0 + 1;

/// The EXIF block among the stored markers.
std::span<const JOCTET> ExifBlock(const jpeg_decompress_struct& info) {
    constexpr std::string_view sign("Exif\0\0", 6);
    for (auto* marker = info.marker_list; marker != nullptr; marker = marker->next) {
        const std::span<const JOCTET> data(marker->data, marker->data_length);
        if (marker->marker == exifMarker && data.size() > sign.size() &&
            std::equal(sign.begin(), sign.end(), data.begin())) {
            return data.subspan(sign.size());
        }
    }
    return {};
}

/// Stores the camera's facts as cards. The header's fields stay empty: files saved from a picture
/// have always had only its pixels.
class CardKeeper final : public CardSink {  // NOLINT(*-virtual-class-destructor): final
 public:
    explicit CardKeeper(PlateImage& image) : image_(image) {}

    void Card(std::string_view card) override {
        ImageHeader& header = image_.Header;
        if (header.CardCount + 2 >= ImageHeader::MaxCards) return;  // END needs room too
        header.Cards[static_cast<std::size_t>(++header.CardCount)] = card;
    }
    void TextCard(std::string_view keyword, std::string_view text,
                  std::string_view comment) override {
        Card(FitsTextCard(keyword, text, comment));
    }
    void NumberCard(std::string_view keyword, double value, std::string_view comment) override {
        if (std::isfinite(value)) Card(FitsNumberCard(keyword, value, comment));
    }
    void Remark(std::string text) override { image_.Remarks.push_back(std::move(text)); }
    void Orientation(int value) override {
        image_.Orientation = value;
        if (std::string remark = OrientationRemark(value); !remark.empty()) {
            Remark(std::move(remark));
        }
    }
    void Finish() {
        ImageHeader& header = image_.Header;
        if (header.CardCount == 0) return;
        header.Cards[static_cast<std::size_t>(++header.CardCount)] =
            std::string("END").append(FitsCardLength - 3, ' ');
    }

 private:
    PlateImage& image_;
};

void OnOutput(j_common_ptr /*info*/) {}

/// Whether a file of `bytes` can hold so many pixels: no Huffman or arithmetic code is shorter. A
/// forged size must not cost memory.
bool PlausibleSize(std::uint64_t pixels, std::uint64_t bytes) {
    return pixels / 2048 <= bytes;
}

/// The sum of the three colours that a pixel of four inks (CMYK) shows. Adobe's programs, from
/// which nearly all such pictures come, store the inks inverted.
void AddInks(const JSAMPLE* row, std::uint16_t* grey, std::int32_t width, bool inverted) {
    constexpr int most = MAXJSAMPLE;
    for (std::int32_t x = 0; x < width; ++x, row += 4) {
        const auto light = [inverted](int ink) { return inverted ? ink : most - ink; };
        const int black = light(row[3]);
        int sum = 0;
        for (int c = 0; c < 3; ++c) sum += (light(row[c]) * black + most / 2) / most;
        grey[x] = static_cast<std::uint16_t>(sum);
    }
}

#ifdef JCS_EXTENSIONS
/// Four bytes a pixel, the last one unused, so that the compiler can vectorise the sum.
constexpr J_COLOR_SPACE wantedColours = JCS_EXT_RGBX;
constexpr int wantedChannels = 4;
#else
constexpr J_COLOR_SPACE wantedColours = JCS_RGB;
constexpr int wantedChannels = 3;
#endif

void AddColours(const JSAMPLE* row, std::uint16_t* grey, std::int32_t width) {
    for (std::int32_t x = 0; x < width; ++x) {
        const JSAMPLE* pixel = row + std::ptrdiff_t{wantedChannels} * x;
        grey[x] = static_cast<std::uint16_t>(pixel[0] + pixel[1] + pixel[2]);
    }
}

/// Decodes into `image`. Objects with destructors live in the caller: an error jumps over them.
bool Decode(jpeg_decompress_struct& info, ErrorManager& errors, std::FILE* file,
            std::uint64_t fileLength, PlateImage& image, std::vector<JSAMPLE>& row,
            std::vector<JOCTET>& exif, const Progress& progress) {
    if (setjmp(errors.Escape) != 0) return false;
    jpeg_create_decompress(&info);
    info.progress = &errors.Scans;
    jpeg_stdio_src(&info, file);
    jpeg_save_markers(&info, exifMarker, 0xFFFF);
    jpeg_read_header(&info, TRUE);
    const std::span<const JOCTET> block = ExifBlock(info);
    exif.assign(block.begin(), block.end());
    const bool inks = info.jpeg_color_space == JCS_CMYK || info.jpeg_color_space == JCS_YCCK;
    const bool invertedInks = info.saw_Adobe_marker != 0;
    info.out_color_space = inks ? JCS_CMYK : wantedColours;
    constexpr auto largest = static_cast<JDIMENSION>(std::numeric_limits<std::int16_t>::max());
    if (info.image_width > largest || info.image_height > largest) {
        SayReason(errors, "It has more than 32767 rows or columns.");
        return false;
    }
    if (!PlausibleSize(std::uint64_t{info.image_width} * info.image_height, fileLength)) {
        SayReason(errors, "It is too short for the size that it announces.");
        return false;
    }
    jpeg_start_decompress(&info);

    image.Header.NAxis1 = static_cast<std::int16_t>(info.output_width);
    image.Header.NAxis2 = static_cast<std::int16_t>(info.output_height);
    StartPixels(image, 0, CellWidth::Narrow);
    row.resize(std::size_t{4} * info.output_width);
    while (info.output_scanline < info.output_height) {
        const auto y = static_cast<std::int32_t>(info.output_scanline);
        JSAMPROW rows[] = {row.data()};
        jpeg_read_scanlines(&info, rows, 1);
        std::uint16_t* grey = image.Pixels.NarrowCells().Row(y).data();
        if (inks) {
            AddInks(row.data(), grey, image.Width, invertedInks);
        } else {
            AddColours(row.data(), grey, image.Width);
        }
        if (y % 10 == 0 && progress) progress(y, image.Height);
    }
    jpeg_finish_decompress(&info);
    return true;
}

/// Reads the pixels of a file into `image`, and its EXIF block. False with a `reason`.
bool DecodeFile(const std::filesystem::path& path, PlateImage& image, std::vector<JOCTET>& exif,
                const Progress& progress, std::string& reason) {
    ClearHeader(image.Header);
    const FileHandle file = OpenFile(path, "rb");
    const std::int64_t length = file ? FileLength(file.get()) : -1;
    if (length < 0) {
        reason = "It cannot be opened.";
        return false;
    }

    ErrorManager errors{};
    jpeg_decompress_struct info{};
    info.err = jpeg_std_error(&errors.Base);
    errors.Base.error_exit = OnError;
    errors.Base.emit_message = OnMessage;
    errors.Base.output_message = OnOutput;
    errors.Scans.progress_monitor = OnProgress;
    std::vector<JSAMPLE> row;
    bool good = false;
    try {
        good = Decode(info, errors, file.get(), static_cast<std::uint64_t>(length), image, row,
                      exif, progress);
        if (!good) reason = errors.Reason;
    } catch (const std::bad_alloc&) {
        good = false;
        reason = "There is not enough memory for it.";
    }
    jpeg_destroy_decompress(&info);
    return good;
}

/// Takes what the child process has decoded: sums of the colours.
class PictureTaker final : public PictureSink {  // NOLINT(*-virtual-class-destructor): final
 public:
    PictureTaker(PlateImage& image, const Progress& progress)
        : image_(image), progress_(progress), keeper_(image) {}

    void Start(const PictureShape& shape) override {
        constexpr std::int64_t longest = std::numeric_limits<std::int16_t>::max();
        if (shape.Width > longest || shape.Height > longest || shape.Channels != 1 ||
            shape.Kind != SampleKind::UInt16) {
            throw DecodeFault("It has no usable size.");
        }
        ClearHeader(image_.Header);
        image_.Header.NAxis1 = static_cast<std::int16_t>(shape.Width);
        image_.Header.NAxis2 = static_cast<std::int16_t>(shape.Height);
        StartPixels(image_, 0, CellWidth::Narrow);
    }
    void Row(std::int64_t y, const void* samples) override {
        const auto* const sums = static_cast<const std::uint16_t*>(samples);
        const auto row = static_cast<std::int32_t>(y);
        std::copy(sums, sums + image_.Width, image_.Pixels.NarrowCells().Row(row).data());
        if (row % 10 == 0 && progress_) progress_(row, image_.Height);
    }
    void Stored(const StoredSamples& /*samples*/) override {
        throw DecodeFault("Its pixels are packed.");
    }
    void Card(std::string_view card) override { keeper_.Card(card); }
    void TextCard(std::string_view keyword, std::string_view text,
                  std::string_view comment) override {
        keeper_.TextCard(keyword, text, comment);
    }
    void NumberCard(std::string_view keyword, double value, std::string_view comment) override {
        keeper_.NumberCard(keyword, value, comment);
    }
    void Remark(std::string text) override { keeper_.Remark(std::move(text)); }
    void Orientation(int value) override { keeper_.Orientation(value); }
    void Finish() { keeper_.Finish(); }

 private:
    PlateImage& image_;
    const Progress& progress_;
    CardKeeper keeper_;
};

/// The child's part. Returns why it failed.
std::string SendPicture(const std::filesystem::path& path, PictureSink& sink) {
    PlateImage image;
    std::vector<JOCTET> exif;
    if (std::string reason; !DecodeFile(path, image, exif, {}, reason)) return reason;
    sink.Start({image.Width, image.Height, 1, SampleKind::UInt16, 8, true});
    for (std::int32_t y = 0; y < image.Height; ++y) {
        sink.Row(y, image.Pixels.NarrowCells().Row(y).data());
    }
    PassCameraFacts(ReadExif(exif), std::max(image.Width, image.Height), sink);
    return {};
}

bool DecodeHere(const std::filesystem::path& path, PlateImage& image, const Progress& progress,
                ReadFailure& failure) {
    std::vector<JOCTET> exif;
    if (!DecodeFile(path, image, exif, progress, failure.Cause)) return false;
    CardKeeper keeper(image);
    PassCameraFacts(ReadExif(exif), std::max(image.Width, image.Height), keeper);
    keeper.Finish();
    return true;
}

bool DecodeInChild(const std::filesystem::path& path, PlateImage& image, const Progress& progress,
                   ReadFailure& failure) {
    PictureTaker taker(image, progress);
    try {
        DecodeApart([&path](PictureSink& sink) { return SendPicture(path, sink); }, taker);
    } catch (const DecodeFault& fault) {
        failure.Cause = fault.what();
        return false;
    } catch (const std::bad_alloc&) {
        return false;
    }
    taker.Finish();
    return true;
}

template <typename Decode>
bool ReadWith(Decode decode, const std::filesystem::path& path, PlateImage& image,
              const Progress& progress, ReadFailure& failure) {
    failure = {"Unable to read the image file.", DefaultTitle, {}};
    image.Orientation = 1;
    image.Remarks.clear();
    if (!decode(path, image, progress, failure)) return false;
    if (progress) progress(0, image.Height);
    image.ImageType = ImageType::Jpeg;
    image.FileName = TextFromPath(path);
    failure = {};
    return true;
}

}  // namespace

bool ReadPictureFile(const std::filesystem::path& path, PlateImage& image, const Progress& progress,
                     ReadFailure& failure) {
    return ReadWith(DecodeHere, path, image, progress, failure);
}

bool ReadPictureFileApart(const std::filesystem::path& path, PlateImage& image,
                          const Progress& progress, ReadFailure& failure) {
    return ReadWith(DecodeInChild, path, image, progress, failure);
}

}  // namespace vestrel
