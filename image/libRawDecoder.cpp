// Raw pictures of cameras, by LibRaw: the counts of the sensor, not developed into colours. Two by
// two pixels become one, or three by three, so that each contains all colours of the mosaic.
#include <libraw/libraw.h>

#include <algorithm>
#include <ctime>
#include <iterator>
#include <memory>
#include <vector>

#include "image/libExif.h"

namespace vestrel {

PictureDecoder DecodeRaw;

namespace {

/// "2024:05:03 21:04:05", in the form of EXIF; empty when the camera has no clock.
std::string TimeText(std::time_t seconds) {
    std::tm time{};
    char text[32] = {};
    if (seconds <= 0 || gmtime_r(&seconds, &time) == nullptr) return {};
    std::strftime(text, sizeof text, "%Y:%m:%d %H:%M:%S", &time);
    return text;
}

/// The turn for display, as EXIF counts.
int OrientationOf(int flip) {
    switch (flip) {
        case 3:
            return 3;
        case 5:
            return 8;
        case 6:
            return 6;
        default:
            return 1;
    }
}

/// Facts from the RAW library take precedence over those of the file's first directory, which some
/// files lack.
CameraFacts FactsOf(const LibRaw& raw, std::span<const unsigned char> file) {
    CameraFacts facts = ReadExif(file);
    const libraw_data_t& data = raw.imgdata;
    const auto take = [](double& fact, double value) {
        if (value > 0) fact = value;
    };
    facts.Make = data.idata.make;
    facts.Model = data.idata.model;
    take(facts.ExposureTime, static_cast<double>(data.other.shutter));
    take(facts.FocalLength, static_cast<double>(data.other.focal_len));
    take(facts.FocalLength35, data.lens.FocalLengthIn35mmFormat);
    take(facts.FNumber, static_cast<double>(data.other.aperture));
    take(facts.IsoSpeed, static_cast<double>(data.other.iso_speed));
    if (const std::string taken = TimeText(data.other.timestamp); !taken.empty()) {
        facts.Taken = taken;
    }
    // The stated resolution is that of the sensor's pixels, two of which become one here.
    facts.LongSide = std::max(data.sizes.width, data.sizes.height);
    facts.Orientation = OrientationOf(data.sizes.flip);
    return facts;
}

/// The cells of a mosaic that become one pixel.
struct Cells {
    std::size_t Side = 2;
    std::size_t Left = 0;  ///< columns and rows before the first cell
    std::size_t Top = 0;
};

/// Whether cells of three by three pixels, so many columns and rows from the start of a pattern of
/// six by six, all hold the same colours.
bool SameColours(const char (&pattern)[6][6], std::size_t left, std::size_t top) {
    int counts[4][3] = {};  // how often each colour is in each of four cells
    for (std::size_t y = 0; y < 6; ++y) {
        for (std::size_t x = 0; x < 6; ++x) {
            const auto colour = static_cast<unsigned char>(pattern[(top + y) % 6][(left + x) % 6]);
            ++counts[y / 3 * 2 + x / 3][std::min<int>(colour, 2)];
        }
    }
    return std::all_of(std::begin(counts), std::end(counts), [&](const int(&cell)[3]) {
        return std::equal(std::begin(cell), std::end(cell), std::begin(counts[0]));
    });
}

/// A pattern of two by two pixels needs cells of this size, wherever they begin. Of one of six by
/// six, cells of three by three hold the same colours when they begin at the right place; smaller
/// ones do not, and the sky would be a pattern brighter than faint stars.
Cells CellsOf(const libraw_iparams_t& camera) {
    constexpr unsigned sixBySix = 9;  // as the library says it
    Cells cells;
    if (camera.filters != sixBySix) return cells;
    cells.Side = 3;
    for (std::size_t n = 0; n < 9; ++n) {
        if (!SameColours(camera.xtrans, n % 3, n / 3)) continue;
        cells.Left = n % 3;
        cells.Top = n / 3;
        break;
    }
    return cells;
}

/// The sums of a row of cells that begins with this pixel.
template <std::size_t Side>
void AddCells(const unsigned short* first, std::size_t stride, std::vector<float>& row) {
    for (std::size_t x = 0; x < row.size(); ++x) {
        int sum = 0;
        for (std::size_t j = 0; j < Side; ++j) {
            for (std::size_t i = 0; i < Side; ++i) sum += first[j * stride + Side * x + i];
        }
        row[x] = static_cast<float>(sum);
    }
}

}  // namespace

void DecodeRaw(std::span<const unsigned char> file, PictureSink& sink) {
    const auto raw = std::make_unique<LibRaw>();
    raw->imgdata.params.max_raw_memory_mb = 2048;
    const auto require = [](int code) {
        if (code == LIBRAW_SUCCESS) return;
        // The bytes are in memory: nothing else can fail to be read.
        if (code == LIBRAW_IO_ERROR) {
            throw DecodeFault("It ends before its pixels do, or they are damaged.");
        }
        throw DecodeFault(std::string("The camera's data cannot be decoded (") +
                          libraw_strerror(code) +
                          "): convert it to DNG, TIFF or FITS with the camera's software.");
    };
    require(raw->open_buffer(const_cast<unsigned char*>(file.data()), file.size()));
    const libraw_image_sizes_t& sizes = raw->imgdata.sizes;
    RequirePlausible(sizes.raw_width, sizes.raw_height, 1, file.size());
    require(raw->unpack());
    const unsigned short* mosaic = raw->imgdata.rawdata.raw_image;
    if (mosaic == nullptr) {
        throw DecodeFault("It holds colours rather than a sensor's mosaic: convert it to TIFF.");
    }
    const Cells cells = CellsOf(raw->imgdata.idata);
    const std::size_t side = cells.Side;
    const std::size_t left = sizes.left_margin + cells.Left;
    const std::size_t top = sizes.top_margin + cells.Top;
    const std::size_t stride = sizes.raw_pitch / sizeof(unsigned short);
    const std::size_t width = (sizes.width - std::min<std::size_t>(cells.Left, sizes.width)) / side;
    const std::size_t height =
        (sizes.height - std::min<std::size_t>(cells.Top, sizes.height)) / side;
    if (left + side * width > stride || top + side * height > sizes.raw_height || width == 0 ||
        height == 0) {
        throw DecodeFault("Its picture does not lie on its sensor.");
    }
    sink.Start({static_cast<std::int64_t>(width), static_cast<std::int64_t>(height), 1,
                SampleKind::Float32, 16, true});
    std::vector<float> row(width);
    for (std::size_t y = 0; y < height; ++y) {
        const unsigned short* first = mosaic + (top + side * y) * stride + left;
        if (side == 2) {
            AddCells<2>(first, stride, row);
        } else {
            AddCells<3>(first, stride, row);
        }
        sink.Row(static_cast<std::int64_t>(y), row.data());
    }
    PassCameraFacts(FactsOf(*raw, file), static_cast<std::int64_t>(std::max(width, height)), sink);
    sink.Remark(
        side == 2 ? "Two by two pixels of the sensor became one: the scale is twice the sensor's."
                  : "Three by three pixels of the sensor became one: the scale is three times the "
                    "sensor's.");
}

}  // namespace vestrel
