// PNG pictures, by libpng: grey, colour and palettes, 16 bits kept.
#include <png.h>

#include <algorithm>
#include <bit>
#include <csetjmp>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "image/libDecoder.h"
#include "image/libDescription.h"
#include "image/libExif.h"

namespace vestrel {

PictureDecoder DecodePng;

namespace {

/// What libpng reads from, and where its errors go.
struct Source {
    std::span<const unsigned char> Left;
    std::string Error;
    std::size_t MostMemory = 0;  ///< of one piece: libpng believes the lengths that chunks give
};

png_voidp Allocate(png_structp png, png_alloc_size_t length) {
    const auto* source = static_cast<Source*>(png_get_mem_ptr(png));
    return length > source->MostMemory ? nullptr : std::malloc(length);
}
void Free(png_structp /*png*/, png_voidp memory) {
    std::free(memory);
}

[[noreturn]] void OnError(png_structp png, png_const_charp message) {
    static_cast<Source*>(png_get_error_ptr(png))->Error = message;
    png_longjmp(png, 1);
}

void OnWarning(png_structp /*png*/, png_const_charp /*message*/) {}

void Read(png_structp png, png_bytep bytes, std::size_t length) {
    auto* source = static_cast<Source*>(png_get_io_ptr(png));
    if (length > source->Left.size()) png_error(png, "it ends too early");
    std::memcpy(bytes, source->Left.data(), length);
    source->Left = source->Left.subspan(length);
}

/// Owns libpng's structures.
struct Reader {
    png_structp Png;
    png_infop Info;
    explicit Reader(Source& source)
        : Png(png_create_read_struct_2(PNG_LIBPNG_VER_STRING, &source, OnError, OnWarning, &source,
                                       Allocate, Free)),
          Info(Png == nullptr ? nullptr : png_create_info_struct(Png)) {
        if (Info == nullptr) throw std::bad_alloc();
    }
    ~Reader() { png_destroy_read_struct(&Png, &Info, nullptr); }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;
};

/// Calls into libpng. Errors jump back to here, so `call` must not own anything with a destructor.
template <typename Call>
bool Guarded(png_structp png, const Call& call) {
    if (setjmp(png_jmpbuf(png)) != 0) return false;
    call();
    return true;
}

}  // namespace

void DecodePng(std::span<const unsigned char> file, PictureSink& sink) {
    constexpr png_alloc_size_t longestChunk = 16 << 20;
    Source source{file, {}, file.size() + longestChunk};
    const Reader reader(source);
    png_struct* const png = reader.Png;
    png_info* const info = reader.Info;
    const auto require = [&source](bool good) {
        if (!good) throw DecodeFault("Its data cannot be decoded (" + source.Error + ").");
    };
    constexpr png_uint_32 longestSide = 1 << 24;
    int passes = 1;
    require(Guarded(png, [&] {
        png_set_read_fn(png, &source, Read);
        png_set_user_limits(png, longestSide, longestSide);
        png_set_chunk_malloc_max(png, longestChunk);
        png_set_chunk_cache_max(png, 1000);
        png_read_info(png, info);
        png_set_expand(png);
        png_set_strip_alpha(png);
        if (std::endian::native == std::endian::little) png_set_swap(png);
        passes = png_set_interlace_handling(png);
    }));
    const auto width = static_cast<std::int64_t>(png_get_image_width(png, info));
    const auto height = static_cast<std::int64_t>(png_get_image_height(png, info));
    RequirePlausible(width, height, 1, file.size());
    constexpr std::size_t largestPixel = 8;
    source.MostMemory += static_cast<std::size_t>(width) * largestPixel;
    require(Guarded(png, [&] { png_read_update_info(png, info); }));
    const int bits = png_get_bit_depth(png, info);
    sink.Start({width, height, png_get_channels(png, info),
                bits == 16 ? SampleKind::UInt16 : SampleKind::UInt8, bits, true});

    // The rows of an interlaced picture are complete only after its last pass.
    const std::size_t rowBytes = png_get_rowbytes(png, info);
    const std::size_t kept = passes > 1 ? static_cast<std::size_t>(height) : 1;
    std::vector<unsigned char> rows(rowBytes * kept);
    for (int pass = 0; pass < passes; ++pass) {
        for (std::int64_t y = 0; y < height; ++y) {
            png_bytep row = rows.data() + (kept > 1 ? static_cast<std::size_t>(y) * rowBytes : 0);
            require(Guarded(png, [&] { png_read_row(png, row, nullptr); }));
            if (pass == passes - 1) sink.Row(y, row);
        }
    }
    // Damage behind the pixels does not matter, since the pixels are complete.
    const bool whole = Guarded(png, [&] { png_read_end(png, info); });
    png_textp texts = nullptr;
    int count = 0;
    png_get_text(png, info, &texts, &count);
    for (int i = 0; i < count; ++i) {
        if (texts[i].text == nullptr) continue;
        const std::string_view key = texts[i].key;
        if (key == "Description" || key == "Comment" || key.size() > 8) {
            PassDescription(texts[i].text, sink);
        } else {
            PassNamedText(key, texts[i].text, sink);
        }
    }
    png_uint_32 exifLength = 0;
    png_bytep exif = nullptr;
    if (png_get_eXIf_1(png, info, &exifLength, &exif) != 0 && exif != nullptr) {
        PassCameraFacts(ReadExif({exif, exifLength}), std::max(width, height), sink);
    }
    if (!whole) sink.Remark("The end of the file is damaged.");
}

}  // namespace vestrel
