// The lower bound for reading a format: only the library's decoding into memory.
//
//     vestrel-plain-decoder FILE
//
// Prints a sum of the samples, so that the compiler cannot leave anything out. For
// bench/readFormats.py.
#include <fitsio.h>
#include <libraw/libraw.h>
#include <png.h>
#include <tiffio.h>
#include <zlib.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>
// jpeglib.h needs cstdio before it.
#include <jpeglib.h>

namespace {

using Bytes = std::vector<unsigned char>;

[[noreturn]] void Fail(const char* what) {
    std::fprintf(stderr, "%s\n", what);
    std::exit(1);
}

Bytes WholeFile(const char* path) {
    std::FILE* file = std::fopen(path, "rb");
    if (file == nullptr) Fail("no file");
    std::fseek(file, 0, SEEK_END);
    Bytes bytes(static_cast<std::size_t>(std::ftell(file)));
    std::rewind(file);
    if (std::fread(bytes.data(), 1, bytes.size(), file) != bytes.size()) Fail("cut short");
    std::fclose(file);
    return bytes;
}

/// Decodes to 16-bit counts or floats, whichever the file has.
Bytes DecodeFits(const char* path) {
    fitsfile* file = nullptr;
    int status = 0;
    int type = 0;
    int axes = 0;
    long sides[3] = {1, 1, 1};
    fits_open_image(&file, path, READONLY, &status);
    fits_get_img_equivtype(file, &type, &status);
    fits_get_img_dim(file, &axes, &status);
    fits_get_img_size(file, 3, sides, &status);
    const auto samples = static_cast<std::size_t>(sides[0] * sides[1] * (axes > 2 ? sides[2] : 1));
    const int asked = type == USHORT_IMG ? TUSHORT : type == FLOAT_IMG ? TFLOAT : TDOUBLE;
    Bytes out(samples * (asked == TUSHORT ? 2 : asked == TFLOAT ? 4 : 8));
    long first[3] = {1, 1, 1};
    fits_read_pix(file, asked, first, static_cast<LONGLONG>(samples), nullptr, out.data(), nullptr,
                  &status);
    fits_close_file(file, &status);
    if (status != 0) Fail("CFITSIO");
    return out;
}

Bytes DecodePng(const char* path) {
    std::FILE* file = std::fopen(path, "rb");
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    if (file == nullptr || setjmp(png_jmpbuf(png)) != 0) Fail("libpng");
    png_init_io(png, file);
    png_read_info(png, info);
    const std::size_t rowBytes = png_get_rowbytes(png, info);
    const std::size_t height = png_get_image_height(png, info);
    Bytes out(rowBytes * height);
    for (std::size_t y = 0; y < height; ++y) png_read_row(png, out.data() + y * rowBytes, nullptr);
    png_destroy_read_struct(&png, &info, nullptr);
    std::fclose(file);
    return out;
}

Bytes DecodeTiff(const char* path) {
    TIFF* tiff = TIFFOpen(path, "r");
    if (tiff == nullptr) Fail("libtiff");
    const bool tiled = TIFFIsTiled(tiff) != 0;
    const std::uint32_t pieces = tiled ? TIFFNumberOfTiles(tiff) : TIFFNumberOfStrips(tiff);
    const tmsize_t length = tiled ? TIFFTileSize(tiff) : TIFFStripSize(tiff);
    Bytes out(static_cast<std::size_t>(length) * pieces);
    for (std::uint32_t n = 0; n < pieces; ++n) {
        unsigned char* to = out.data() + static_cast<std::size_t>(length) * n;
        const tmsize_t got = tiled ? TIFFReadEncodedTile(tiff, n, to, length)
                                   : TIFFReadEncodedStrip(tiff, n, to, length);
        if (got < 0) Fail("libtiff");
    }
    TIFFClose(tiff);
    return out;
}

Bytes DecodeJpeg(const char* path) {
    std::FILE* file = std::fopen(path, "rb");
    if (file == nullptr) Fail("no file");
    jpeg_decompress_struct info{};
    jpeg_error_mgr errors{};
    info.err = jpeg_std_error(&errors);
    jpeg_create_decompress(&info);
    jpeg_stdio_src(&info, file);
    jpeg_read_header(&info, TRUE);
    jpeg_start_decompress(&info);
    const std::size_t rowBytes =
        std::size_t{info.output_width} * static_cast<std::size_t>(info.output_components);
    Bytes out(rowBytes * info.output_height);
    while (info.output_scanline < info.output_height) {
        JSAMPROW row = out.data() + info.output_scanline * rowBytes;
        jpeg_read_scanlines(&info, &row, 1);
    }
    jpeg_finish_decompress(&info);
    jpeg_destroy_decompress(&info);
    std::fclose(file);
    return out;
}

Bytes DecodeRaw(const char* path) {
    LibRaw raw;
    if (raw.open_file(path) != LIBRAW_SUCCESS || raw.unpack() != LIBRAW_SUCCESS) Fail("LibRaw");
    const auto* samples = reinterpret_cast<const unsigned char*>(raw.imgdata.rawdata.raw_image);
    return {samples,
            samples + std::size_t{raw.imgdata.sizes.raw_pitch} * raw.imgdata.sizes.raw_height};
}

/// A number of the header, which bench/readFormats.py wrote.
std::size_t NumberAfter(const std::string& text, const char* words) {
    const std::size_t at = text.find(words);
    return at == std::string::npos ? 0 : std::stoull(text.substr(at + std::strlen(words)));
}

/// The samples as stored or as zlib unpacks them, still shuffled.
Bytes DecodeXisf(const char* path) {
    const Bytes file = WholeFile(path);
    const std::string head(file.begin(), file.begin() + 4096);
    const std::size_t at = NumberAfter(head, "attachment:");
    uLongf unpacked = NumberAfter(head, "zlib+sh:");
    if (unpacked == 0) return {file.begin() + static_cast<std::ptrdiff_t>(at), file.end()};
    Bytes out(unpacked);
    if (uncompress(out.data(), &unpacked, file.data() + at, file.size() - at) != Z_OK) Fail("zlib");
    return out;
}

Bytes Decode(const char* path) {
    const std::string name(path);
    if (name.ends_with(".png")) return DecodePng(path);
    if (name.ends_with(".tif")) return DecodeTiff(path);
    if (name.ends_with(".jpg")) return DecodeJpeg(path);
    if (name.ends_with(".dng")) return DecodeRaw(path);
    if (name.ends_with(".xisf")) return DecodeXisf(path);
    return DecodeFits(path);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    const Bytes samples = Decode(argv[1]);
    unsigned sum = 0;
    for (std::size_t i = 0; i < samples.size(); i += 64) sum += samples[i];
    std::printf("%u\n", sum);
    return 0;
}
