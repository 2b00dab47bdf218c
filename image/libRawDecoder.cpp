// Raw pictures of cameras, by LibRaw: the sensor's own counts, without making colours of them. Two
// by two pixels become one, so that each has all colours of the mosaic in it.
#include <libraw/libraw.h>

#include <cmath>
#include <ctime>
#include <memory>
#include <vector>

#include "image/libDecoder.h"

namespace vestrel {

PictureDecoder DecodeRaw;

namespace {

void PassCards(const LibRaw& raw, PictureSink& sink) {
    const libraw_data_t& data = raw.imgdata;
    const std::string camera = std::string(data.idata.make) + " " + data.idata.model;
    if (camera.size() > 1) sink.TextCard("INSTRUME", camera, {});
    if (data.other.shutter > 0) {
        sink.NumberCard("EXPTIME", static_cast<double>(data.other.shutter), "[s] exposure");
    }
    if (data.other.focal_len > 0) {
        sink.NumberCard("FOCALLEN", static_cast<double>(data.other.focal_len), "[mm] focal length");
    }
    if (data.lens.FocalLengthIn35mmFormat > 0) {
        sink.NumberCard("FOCLEN35", data.lens.FocalLengthIn35mmFormat,
                        "[mm] focal length of an equal 35 mm camera");
    }
    if (data.other.iso_speed > 0) {
        sink.NumberCard("ISOSPEED", static_cast<double>(data.other.iso_speed), {});
    }
    if (data.other.timestamp > 0) {
        std::tm time{};
        char text[32] = {};
        const std::time_t seconds = data.other.timestamp;
#ifdef _WIN32
        if (gmtime_s(&time, &seconds) == 0 &&
#else
        if (gmtime_r(&seconds, &time) != nullptr &&
#endif
            std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &time) > 0) {
            sink.TextCard("DATE-OBS", text, "by the camera's clock");
        }
    }
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

}  // namespace

void DecodeRaw(std::span<const unsigned char> file, PictureSink& sink) {
    const auto raw = std::make_unique<LibRaw>();
    raw->imgdata.params.max_raw_memory_mb = 2048;
    const auto require = [](int code) {
        if (code == LIBRAW_SUCCESS) return;
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
    PassCards(*raw, sink);
    sink.Orientation(OrientationOf(sizes.flip));
    sink.Remark("Two by two pixels of the sensor became one: the scale is twice the sensor's.");
}

}  // namespace vestrel
