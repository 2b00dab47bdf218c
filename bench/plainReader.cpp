// The lower bound of a solve's time: only reads the pixels of a file and converts them to 16 bits,
// as the program does where counts fit, or to 32.
//
//     vestrel-plain-reader FILE THREADS [32]
//
// Uses the fastest means of a plain program: pieces that stay in the cache, shared by the threads;
// large pages; vectorization by the compiler. Prints a sum of the pixels, so that the compiler
// cannot leave anything out.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "astro/libGrid.h"
#include "astro/libProcessor.h"
#include "platform/libFileParts.h"
#include "platform/libFiles.h"

namespace vestrel {
namespace {

struct PixelFile {
    FileHandle File;
    std::uint64_t Start = 0;
    int BitPix = 0;
    int Width = 0;
    int Height = 0;
};

int NumberOf(const std::string& header, const std::string& keyword) {
    const std::size_t at = header.find(keyword);
    return at == std::string::npos ? 0 : std::atoi(header.c_str() + at + 10);
}

/// Finds the pixels of a FITS file; parses only what Vestrel's own files need.
PixelFile OpenFits(const char* path) {
    PixelFile pixels;
    pixels.File = OpenFile(path, "rb");
    std::string header;
    while (pixels.File && header.find("END     ") == std::string::npos) {
        char block[2880];
        if (ReadAt(pixels.File.get(), header.size(), block, sizeof block) != sizeof block)
            return {};
        header.append(block, sizeof block);
    }
    pixels.Start = header.size();
    pixels.BitPix = NumberOf(header, "BITPIX  ");
    pixels.Width = NumberOf(header, "NAXIS1  ");
    pixels.Height = NumberOf(header, "NAXIS2  ");
    return pixels;
}

template <typename Cell>
VESTREL_KERNEL std::int64_t Convert(int bitPix, const std::uint8_t* bytes, Cell* out,
                                    std::size_t count) {
    if (bitPix == 8) {
        for (std::size_t i = 0; i < count; ++i) out[i] = bytes[i];
    } else if (bitPix == 16) {
        for (std::size_t i = 0; i < count; ++i) {
            std::uint16_t word = 0;
            std::memcpy(&word, bytes + 2 * i, 2);
            out[i] = static_cast<Cell>(static_cast<std::int16_t>(__builtin_bswap16(word)));
        }
    } else {
        for (std::size_t i = 0; i < count; ++i) {
            std::uint32_t word = 0;
            std::memcpy(&word, bytes + 4 * i, 4);
            word = __builtin_bswap32(word);
            float value = 0;
            std::memcpy(&value, &word, 4);
            out[i] = static_cast<Cell>(static_cast<std::int32_t>(value));
        }
    }
    return out[0] + out[count / 2] + out[count - 1];
}
template <typename Cell>
VESTREL_FOR_AVX2 std::int64_t ConvertForAvx2(int bitPix, const std::uint8_t* bytes, Cell* out,
                                             std::size_t count) {
    return Convert(bitPix, bytes, out, count);
}
template <typename Cell>
std::int64_t ConvertPlainly(int bitPix, const std::uint8_t* bytes, Cell* out, std::size_t count) {
    return Convert(bitPix, bytes, out, count);
}

template <typename Cell>
void ReadPixels(const PixelFile& file, std::size_t threads) {
    const auto pixelBytes = static_cast<std::size_t>(std::abs(file.BitPix)) / 8;
    const std::size_t count =
        static_cast<std::size_t>(file.Width) * static_cast<std::size_t>(file.Height);
    Grid<Cell> pixels(file.Width, file.Height);
    Cell* out = pixels.Row(0).data();
    const auto convert = HasAvx2() ? ConvertForAvx2<Cell> : ConvertPlainly<Cell>;

    std::vector<std::int64_t> sums(threads);
    const auto readPart = [&](std::size_t part) {
        constexpr std::size_t pieceBytes = std::size_t{256} << 10;
        std::vector<std::uint8_t> bytes(pieceBytes);
        const std::size_t end = count * (part + 1) / threads;
        for (std::size_t i = count * part / threads; i < end; i += pieceBytes / pixelBytes) {
            const std::size_t some = std::min(pieceBytes / pixelBytes, end - i);
            ReadAt(file.File.get(), file.Start + i * pixelBytes, bytes.data(), some * pixelBytes);
            sums[part] += convert(file.BitPix, bytes.data(), out + i, some);
        }
    };
    {
        std::vector<std::jthread> helpers;
        for (std::size_t part = 1; part < threads; ++part) helpers.emplace_back(readPart, part);
        readPart(0);
    }
    std::int64_t sum = 0;
    for (const std::int64_t part : sums) sum += part;
    std::printf("%lld\n", static_cast<long long>(sum));
}

}  // namespace
}  // namespace vestrel

int main(int argc, char** argv) {
    using namespace vestrel;
    if (argc != 3 && argc != 4) return 2;
    const PixelFile file = OpenFits(argv[1]);
    if (file.Width <= 0 || file.Height <= 0) return 3;
    const auto threads = static_cast<std::size_t>(std::atoi(argv[2]));
    const bool wide = argc == 4 && std::strcmp(argv[3], "32") == 0;
    (wide ? ReadPixels<std::int32_t> : ReadPixels<std::uint16_t>)(file, threads);
    return 0;
}
