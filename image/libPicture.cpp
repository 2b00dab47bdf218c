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
    bool CutShort;
};

ErrorManager& ManagerOf(j_common_ptr info) {
    return *reinterpret_cast<ErrorManager*>(info->err);
}

[[noreturn]] void OnError(j_common_ptr info) {
    std::longjmp(ManagerOf(info).Escape, 1);
}

void OnMessage(j_common_ptr info, int level) {
    // Warnings have level -1. After these two libjpeg would go on with grey pixels that are not in
    // the file.
    const int code = info->err->msg_code;
    if (level < 0 && (code == JWRN_JPEG_EOF || code == JWRN_HIT_MARKER)) {
        ManagerOf(info).CutShort = true;
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
void AddInks(const JSAMPLE* row, std::int32_t* grey, std::int32_t width, bool inverted) {
    constexpr int most = MAXJSAMPLE;
    for (std::int32_t x = 0; x < width; ++x, row += 4) {
        const auto light = [inverted](int ink) { return inverted ? ink : most - ink; };
        const int black = light(row[3]);
        int sum = 0;
        for (int c = 0; c < 3; ++c) sum += (light(row[c]) * black + most / 2) / most;
        grey[x] = sum;
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

void AddColours(const JSAMPLE* row, std::int32_t* grey, std::int32_t width) {
    for (std::int32_t x = 0; x < width; ++x) {
        const JSAMPLE* pixel = row + std::ptrdiff_t{wantedChannels} * x;
        grey[x] = pixel[0] + pixel[1] + pixel[2];
    }
}

/// Decodes into `image`. Objects with destructors live in the caller: an error jumps over them.
bool Decode(jpeg_decompress_struct& info, ErrorManager& errors, std::FILE* file,
            std::uint64_t fileLength, PlateImage& image, std::vector<JSAMPLE>& row,
            std::vector<JOCTET>& exif, const Progress& progress) {
    if (setjmp(errors.Escape) != 0) return false;
    jpeg_create_decompress(&info);
    jpeg_stdio_src(&info, file);
    jpeg_save_markers(&info, exifMarker, 0xFFFF);
    jpeg_read_header(&info, TRUE);
    const std::span<const JOCTET> block = ExifBlock(info);
    exif.assign(block.begin(), block.end());
    const bool inks = info.jpeg_color_space == JCS_CMYK || info.jpeg_color_space == JCS_YCCK;
    const bool invertedInks = info.saw_Adobe_marker != 0;
    info.out_color_space = inks ? JCS_CMYK : wantedColours;
    constexpr auto largest = static_cast<JDIMENSION>(std::numeric_limits<std::int16_t>::max());
    if (info.image_width > largest || info.image_height > largest) return false;
    if (!PlausibleSize(std::uint64_t{info.image_width} * info.image_height, fileLength)) {
        return false;
    }
    jpeg_start_decompress(&info);

    image.Header.NAxis1 = static_cast<std::int16_t>(info.output_width);
    image.Header.NAxis2 = static_cast<std::int16_t>(info.output_height);
    StartPixels(image, 0);
    row.resize(std::size_t{4} * info.output_width);
    while (info.output_scanline < info.output_height && !errors.CutShort) {
        const auto y = static_cast<std::int32_t>(info.output_scanline);
        JSAMPROW rows[] = {row.data()};
        jpeg_read_scanlines(&info, rows, 1);
        std::int32_t* grey = image.Pixels.Row(y).data();
        if (inks) {
            AddInks(row.data(), grey, image.Width, invertedInks);
        } else {
            AddColours(row.data(), grey, image.Width);
        }
        if (y % 10 == 0 && progress) progress(y, image.Height);
    }
    if (errors.CutShort) return false;
    jpeg_finish_decompress(&info);
    return !errors.CutShort;
}

}  // namespace

bool ReadPictureFile(const std::filesystem::path& path, PlateImage& image, const Progress& progress,
                     ReadFailure& failure) {
    failure = {"Unable to read the image file.", DefaultTitle};
    ClearHeader(image.Header);
    const FileHandle file = OpenFile(path, "rb");
    if (!file) return false;
    const std::int64_t length = FileLength(file.get());
    if (length < 0) return false;

    ErrorManager errors{};
    jpeg_decompress_struct info{};
    info.err = jpeg_std_error(&errors.Base);
    errors.Base.error_exit = OnError;
    errors.Base.emit_message = OnMessage;
    errors.Base.output_message = OnOutput;
    std::vector<JSAMPLE> row;
    std::vector<JOCTET> exif;
    bool good = false;
    try {
        good = Decode(info, errors, file.get(), static_cast<std::uint64_t>(length), image, row,
                      exif, progress);
    } catch (const std::bad_alloc&) {
        good = false;
    }
    jpeg_destroy_decompress(&info);
    if (!good) return false;

    image.Orientation = 1;
    image.Remarks.clear();
    CardKeeper keeper(image);
    PassCameraFacts(ReadExif(exif), std::max(image.Width, image.Height), keeper);
    keeper.Finish();
    if (progress) progress(0, image.Height);
    image.ImageType = ImageType::Jpeg;
    image.FileName = TextFromPath(path);
    failure = {};
    return true;
}

}  // namespace vestrel
