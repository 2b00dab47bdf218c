// Raw pictures of cameras, by LibRaw: the counts of the sensor, not developed into colours. Two by
// two pixels become one, so that each contains all colours of the mosaic.
#include <libraw/libraw.h>

#include <algorithm>
#include <ctime>
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
    const std::size_t left = sizes.left_margin;
    const std::size_t top = sizes.top_margin;
    const std::size_t stride = sizes.raw_pitch / sizeof(unsigned short);
    const std::size_t width = sizes.width / 2U;
    const std::size_t height = sizes.height / 2U;
    if (left + 2 * width > stride || top + 2 * height > sizes.raw_height || width == 0 ||
        height == 0) {
        throw DecodeFault("Its picture does not lie on its sensor.");
    }
    sink.Start({static_cast<std::int64_t>(width), static_cast<std::int64_t>(height), 1,
                SampleKind::Float32, 16, true});
    std::vector<float> row(width);
    for (std::size_t y = 0; y < height; ++y) {
        const unsigned short* upper = mosaic + (top + 2 * y) * stride + left;
        const unsigned short* lower = upper + stride;
        for (std::size_t x = 0; x < width; ++x) {
            row[x] = static_cast<float>(upper[2 * x] + upper[2 * x + 1] + lower[2 * x] +
                                        lower[2 * x + 1]);
        }
        sink.Row(static_cast<std::int64_t>(y), row.data());
    }
    PassCameraFacts(FactsOf(*raw, file), static_cast<std::int64_t>(std::max(width, height)), sink);
    sink.Remark("Two by two pixels of the sensor became one: the scale is twice the sensor's.");
}

}  // namespace vestrel
