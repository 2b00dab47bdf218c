// FITS files that the program's own reader does not take: every type of sample, planes, extensions,
// tile compression and gzip, by CFITSIO.
#include <fitsio.h>
#include <zlib.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <set>
#include <vector>

#include "image/libDecoder.h"
#include "image/libFitsCards.h"

namespace vestrel {

PictureDecoder DecodeFits;

namespace {

struct FitsCloser {
    void operator()(fitsfile* file) const noexcept {
        int status = 0;
        ffclos(file, &status);
        ffcmsg();
    }
};
using FitsHandle = std::unique_ptr<fitsfile, FitsCloser>;

[[noreturn]] void Fail(int status) {
    char text[FLEN_STATUS] = {};
    ffgerr(status, text);
    ffcmsg();
    throw DecodeFault(std::string("Its data cannot be decoded (") + text + ").");
}

constexpr std::uint64_t mostUnpacked = std::uint64_t{2} << 30;

[[noreturn]] void FailAboveLimit() {
    throw DecodeFault("Unpacked it has more than 2 GiB, which is the limit.");
}

/// A gzip file that is unpacked as far as it is needed.
class Unpacking {
 public:
    explicit Unpacking(std::span<const unsigned char> packed)
        : packed_(packed), content_(nullptr, std::free) {
        constexpr int gzipOnly = 15 + 16;
        if (inflateInit2(&stream_, gzipOnly) != Z_OK) throw std::bad_alloc();
        stream_.next_in = const_cast<unsigned char*>(packed.data());
    }
    ~Unpacking() { inflateEnd(&stream_); }
    Unpacking(const Unpacking&) = delete;
    Unpacking& operator=(const Unpacking&) = delete;

    /// Unpacks until there are so many bytes, or all.
    void Reach(std::uint64_t length) {
        if (length > mostUnpacked) FailAboveLimit();
        if (length <= made_ || ended_) return;
        // Memory that is not written to costs nothing, and no byte is copied when it grows.
        void* const more = std::realloc(content_.get(), length);
        if (more == nullptr) throw std::bad_alloc();
        (void)content_.release();
        content_.reset(static_cast<unsigned char*>(more));
        while (made_ < length && !ended_) Step(length);
    }
    bool Ended() const { return ended_; }
    std::span<const unsigned char> Bytes() const { return {content_.get(), made_}; }

 private:
    void Step(std::uint64_t length) {
        constexpr std::uint64_t piece = std::uint64_t{1} << 30;
        const std::uint64_t left = packed_.size() - taken_;
        stream_.avail_in = static_cast<uInt>(std::min(left, piece));
        stream_.avail_out = static_cast<uInt>(std::min(length - made_, piece));
        stream_.next_out = content_.get() + made_;
        const uInt in = stream_.avail_in;
        const uInt out = stream_.avail_out;
        const int state = inflate(&stream_, Z_NO_FLUSH);
        taken_ += in - stream_.avail_in;
        made_ += out - stream_.avail_out;
        ended_ = state != Z_OK && (state != Z_BUF_ERROR || taken_ == packed_.size());
    }

    std::span<const unsigned char> packed_;
    std::unique_ptr<unsigned char, void (*)(void*)> content_;
    z_stream stream_{};
    std::uint64_t taken_ = 0;
    std::uint64_t made_ = 0;
    bool ended_ = false;
};

/// Whether a card describes how a compressed image is stored as a table.
bool SpeaksOfStorage(std::string_view keyword, bool packed) {
    static constexpr std::string_view prefixes[] = {
        "ZTILE", "ZNAME", "ZVAL",  "ZNAXIS", "ZIMAGE",  "ZCMPT", "ZBITP",  "ZSIMPLE",
        "ZTENS", "ZEXTE", "ZPCOU", "ZGCOU",  "ZQUAN",   "ZDITH", "ZBLANK", "ZHECK",
        "ZDATA", "TTYPE", "TFORM", "TUNIT",  "TFIELDS", "TNULL", "TSCAL",  "TZERO"};
    return packed && std::any_of(std::begin(prefixes), std::end(prefixes),
                                 [keyword](auto prefix) { return keyword.starts_with(prefix); });
}

bool MayStandTwice(std::string_view keyword) {
    return keyword.empty() || keyword == "COMMENT" || keyword == "HISTORY";
}

std::string_view KeywordIn(std::string_view card) {
    card = card.substr(0, 8);
    const std::size_t end = card.find_last_not_of(' ');
    return card.substr(0, end == std::string_view::npos ? 0 : end + 1);
}

/// Passes on the cards of the current header, except keywords that are in `passed` already.
void PassCards(fitsfile* file, bool packed, std::set<std::string>& passed, PictureSink& sink) {
    int count = 0;
    int status = 0;
    ffghsp(file, &count, nullptr, &status);
    std::set<std::string> present;
    for (int n = 1; n <= count && status == 0; ++n) {
        char card[FLEN_CARD] = {};
        ffgrec(file, n, card, &status);
        std::string text(card, std::min<std::size_t>(std::strlen(card), FitsCardLength));
        text.resize(FitsCardLength, ' ');
        const std::string keyword(KeywordIn(text));
        if (SpeaksOfStorage(keyword, packed)) continue;
        if (!MayStandTwice(keyword) && passed.contains(keyword)) continue;
        present.insert(keyword);
        sink.Card(text);
    }
    passed.merge(present);
}

/// A FITS file in memory, which must stay as long as this.
class OpenedFits {
 public:
    explicit OpenedFits(std::span<const unsigned char> file)
        : bytes_(const_cast<unsigned char*>(file.data())), length_(file.size()) {
        int status = 0;
        fitsfile* opened = nullptr;
        if (ffomem(&opened, "image", READONLY, &bytes_, &length_, 0, nullptr, &status) != 0) {
            Fail(status);
        }
        handle_.reset(opened);
    }
    OpenedFits(const OpenedFits&) = delete;
    OpenedFits& operator=(const OpenedFits&) = delete;
    fitsfile* Get() const { return handle_.get(); }

 private:
    void* bytes_;  // the library keeps the addresses of both
    std::size_t length_;
    FitsHandle handle_;
};

/// Moves to the first image of two axes or more; false when there is none. `end` is where the data
/// end of the last part whose header is there.
bool FindImage(fitsfile* file, std::uint64_t& end) {
    constexpr int mostParts = 1000;
    for (int part = 1; part <= mostParts; ++part) {
        int status = 0;
        int kind = 0;
        if (ffmahd(file, part, &kind, &status) != 0) return false;
        LONGLONG dataEnd = 0;
        if (fits_get_hduaddrll(file, nullptr, nullptr, &dataEnd, &status) != 0) return false;
        end = static_cast<std::uint64_t>(dataEnd);
        if (kind != IMAGE_HDU && fits_is_compressed_image(file, &status) == 0) continue;
        int axes = 0;
        long sides[2] = {};
        if (fits_get_img_dim(file, &axes, &status) != 0 || axes < 2 ||
            fits_get_img_size(file, 2, sides, &status) != 0) {
            continue;
        }
        if (sides[0] > 1 && sides[1] > 1) return true;
    }
    return false;
}

/// Unpacks a file to the end of its first image: not what follows, and nothing before the size that
/// it declares is known.
void UnpackImage(Unpacking& file) {
    constexpr std::uint64_t longHeader = std::uint64_t{4} << 20;
    std::uint64_t length = longHeader;
    bool found = false;
    while (!found && !file.Ended()) {
        file.Reach(length);
        if (file.Bytes().empty()) throw DecodeFault("It is no gzip file that can be unpacked.");
        const OpenedFits fits(file.Bytes());
        std::uint64_t end = 0;
        found = FindImage(fits.Get(), end);
        if (found) {
            long sides[2] = {};
            int status = 0;
            if (fits_get_img_size(fits.Get(), 2, sides, &status) != 0) Fail(status);
            RequireWithinLimits(sides[0], sides[1]);
        }
        length = found ? end : std::max(2 * length, end);
    }
    file.Reach(length);
}

/// The type in which the samples are requested.
struct Asked {
    SampleKind Kind;
    int CfitsioType;
    std::size_t Bytes;
};

Asked AskedFor(fitsfile* file) {
    int status = 0;
    int type = 0;
    if (fits_get_img_equivtype(file, &type, &status) != 0) Fail(status);
    LONGLONG blank = 0;
    const bool hasBlank = ffgkyjj(file, "BLANK", &blank, nullptr, &status) == 0;
    ffcmsg();
    if (type == FLOAT_IMG) return {SampleKind::Float32, TFLOAT, 4};
    if (!hasBlank && type == BYTE_IMG) return {SampleKind::UInt8, TBYTE, 1};
    if (!hasBlank && type == USHORT_IMG) return {SampleKind::UInt16, TUSHORT, 2};
    if (!hasBlank && (type == SHORT_IMG || type == SBYTE_IMG)) {
        return {SampleKind::Int16, TSHORT, 2};
    }
    if (!hasBlank && type == LONG_IMG) return {SampleKind::Int32, TINT, 4};
    if (!hasBlank && type == ULONG_IMG) return {SampleKind::UInt32, TUINT, 4};
    return {SampleKind::Float64, TDOUBLE, 8};
}

double NumberOr(fitsfile* file, const char* keyword, double absent) {
    int status = 0;
    double value = absent;
    const bool there = ffgkyd(file, keyword, &value, nullptr, &status) == 0;
    ffcmsg();
    return there ? value : absent;
}

/// Whether the samples of an image that is not packed are what is wanted but for the order of their
/// bytes, and the sign of unsigned ones.
bool IsPlain(fitsfile* file, int bitPix, const Asked& asked, bool& flipped) {
    if (NumberOr(file, "BSCALE", 1) != 1) return false;
    const double zero = NumberOr(file, "BZERO", 0);
    const bool isUnsigned = asked.Kind == SampleKind::UInt16 || asked.Kind == SampleKind::UInt32;
    flipped = isUnsigned;
    if (zero != (isUnsigned ? std::ldexp(1.0, bitPix - 1) : 0.0)) return false;
    const bool wide = bitPix == LONGLONG_IMG && asked.Kind == SampleKind::Float64;
    if (wide) {
        LONGLONG blank = 0;
        int status = 0;
        const bool hasBlank = ffgkyjj(file, "BLANK", &blank, nullptr, &status) == 0;
        ffcmsg();
        return !hasBlank;
    }
    return static_cast<std::size_t>(std::abs(bitPix)) == 8 * asked.Bytes &&
           (bitPix < 0) == (asked.Kind == SampleKind::Float32 || asked.Kind == SampleKind::Float64);
}

/// Makes one row of colours from three planes.
void Interleave(const unsigned char* planes, std::size_t planeBytes, std::size_t rowStart,
                std::size_t width, std::size_t sampleBytes, std::vector<unsigned char>& row) {
    for (std::size_t x = 0; x < width; ++x) {
        for (std::size_t c = 0; c < 3; ++c) {
            std::memcpy(row.data() + (3 * x + c) * sampleBytes,
                        planes + c * planeBytes + rowStart + x * sampleBytes, sampleBytes);
        }
    }
}

/// Passes on the rows as CFITSIO converts them.
void PassSamples(fitsfile* fits, const Asked& asked, const long (&sides)[3], bool packed,
                 bool colour, bool turned, PictureSink& sink) {
    const auto width = static_cast<std::size_t>(sides[0]);
    const auto height = static_cast<std::size_t>(sides[1]);
    const std::size_t rowBytes = width * asked.Bytes;
    const std::size_t planeBytes = rowBytes * height;
    const std::size_t planes = colour ? 3 : 1;
    // An uncompressed image is converted in pieces that stay in the cache. A compressed one is
    // converted whole, because its tiles may have any shape.
    const std::size_t piece =
        packed || colour ? height : std::clamp<std::size_t>((1 << 18) / rowBytes, 1, height);
    const auto samples = std::make_unique_for_overwrite<unsigned char[]>(rowBytes * piece * planes);
    std::vector<unsigned char> row(colour ? 3 * rowBytes : 0);
    float noSingle = std::numeric_limits<float>::quiet_NaN();
    double noDouble = std::numeric_limits<double>::quiet_NaN();
    void* const none = asked.CfitsioType == TFLOAT    ? static_cast<void*>(&noSingle)
                       : asked.CfitsioType == TDOUBLE ? static_cast<void*>(&noDouble)
                                                      : nullptr;
    int status = 0;
    for (std::size_t y = 0; y < height; y += piece) {
        const std::size_t rows = std::min(piece, height - y);
        long first[9] = {1, static_cast<long>(y) + 1, 1, 1, 1, 1, 1, 1, 1};
        int anyNone = 0;
        fits_read_pix(fits, asked.CfitsioType, first,
                      static_cast<LONGLONG>(width) * static_cast<LONGLONG>(rows * planes), none,
                      samples.get(), &anyNone, &status);
        if (status == NUM_OVERFLOW) status = 0;
        if (status != 0) Fail(status);
        for (std::size_t k = 0; k < rows; ++k) {
            const unsigned char* at = samples.get() + k * rowBytes;
            if (colour) {
                Interleave(samples.get(), planeBytes, k * rowBytes, width, asked.Bytes, row);
                at = row.data();
            }
            const std::size_t target = turned ? height - 1 - (y + k) : y + k;
            sink.Row(static_cast<std::int64_t>(target), at);
        }
    }
}

}  // namespace

void DecodeFits(std::span<const unsigned char> file, PictureSink& sink) {
    const bool zipped = file.size() > 2 && file[0] == 0x1F && file[1] == 0x8B;
    std::optional<Unpacking> unpacked;
    if (zipped) {
        UnpackImage(unpacked.emplace(file));
        file = unpacked->Bytes();
    }
    const OpenedFits fits(file);
    std::uint64_t end = 0;
    if (!FindImage(fits.Get(), end)) throw DecodeFault("It holds no image of two axes.");

    int status = 0;
    const bool packed = fits_is_compressed_image(fits.Get(), &status) != 0;
    int axes = 0;
    int bitPix = 0;
    long sides[3] = {1, 1, 1};
    if (fits_get_img_param(fits.Get(), 3, &bitPix, &axes, sides, &status) != 0) Fail(status);
    const Asked asked = AskedFor(fits.Get());
    const bool colour = axes >= 3 && sides[2] == 3;
    RequirePlausible(sides[0], sides[1], colour ? 3 : 1, file.size());
    // CFITSIO does not check where its memory ends.
    LONGLONG start = 0;
    if (fits_get_hduaddrll(fits.Get(), nullptr, &start, nullptr, &status) != 0) Fail(status);
    const auto held = static_cast<std::uint64_t>(std::abs(bitPix)) / 8 *
                      static_cast<std::uint64_t>(sides[0]) * static_cast<std::uint64_t>(sides[1]) *
                      (colour ? 3 : 1);
    if (start < 0 || static_cast<std::uint64_t>(start) > file.size() ||
        (!packed && held > file.size() - static_cast<std::uint64_t>(start))) {
        throw DecodeFault("It ends before its pixels do.");
    }
    // Floating-point images are stored upside down in the image record, whichever reader they came
    // through.
    const bool turned = bitPix == FLOAT_IMG;
    sink.Start({sides[0], sides[1], colour ? 3 : 1, asked.Kind, bitPix, turned});

    bool flipped = false;
    if (!packed && !zipped && IsPlain(fits.Get(), bitPix, asked, flipped)) {
        sink.Stored({static_cast<std::uint64_t>(start), true, colour, turned, flipped,
                     bitPix == LONGLONG_IMG});
    } else {
        PassSamples(fits.Get(), asked, sides, packed, colour, turned, sink);
    }

    std::set<std::string> passed;
    PassCards(fits.Get(), packed, passed, sink);
    int number = 0;
    ffghdn(fits.Get(), &number);
    int kind = 0;
    if (number > 1 && ffmahd(fits.Get(), 1, &kind, &status) == 0) {
        PassCards(fits.Get(), false, passed, sink);
    }
    if (colour) sink.Remark("Three planes were taken for colours: counts are their mean.");
    if (axes >= 3 && !colour && sides[2] > 1) {
        sink.Remark("Of " + std::to_string(sides[2]) + " planes the first was read.");
    }
}

}  // namespace vestrel
