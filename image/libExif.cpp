#include "image/libExif.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <optional>

#include "image/libDescription.h"

namespace vestrel {

namespace {

using Bytes = std::span<const unsigned char>;

enum Tag : std::uint16_t {
    DescriptionTag = 0x010E,
    MakeTag = 0x010F,
    ModelTag = 0x0110,
    OrientationTag = 0x0112,
    ExposureTimeTag = 0x829A,
    FNumberTag = 0x829D,
    ExifDirectoryTag = 0x8769,
    IsoSpeedTag = 0x8827,
    TakenTag = 0x9003,
    FocalLengthTag = 0x920A,
    ColumnsTag = 0xA002,
    RowsTag = 0xA003,
    FocalPlaneResolutionTag = 0xA20E,
    FocalPlaneUnitTag = 0xA210,
    FocalLength35Tag = 0xA405,
    LensTag = 0xA434
};

enum Type : std::uint16_t { Text = 2, Short = 3, Long = 4, Rational = 5 };

constexpr std::size_t entryLength = 12;

/// A block and its byte order. Nothing is read beyond its end.
class Block {
 public:
    explicit Block(Bytes bytes) : bytes_(bytes) {
        constexpr std::size_t header = 8;
        if (bytes.size() < header) return;
        bigEndian_ = bytes[0] == 'M';
        const unsigned char order = bigEndian_ ? 'M' : 'I';
        constexpr std::uint32_t magic = 42;
        good_ = bytes[0] == order && bytes[1] == order && Number(2, 2) == magic;
    }

    bool Good() const { return good_; }
    std::uint64_t Length() const { return bytes_.size(); }

    /// A whole number of 2 or 4 bytes; 0 beyond the end.
    std::uint32_t Number(std::uint64_t at, std::size_t length) const {
        if (at + length > bytes_.size()) return 0;
        std::uint32_t value = 0;
        for (std::size_t i = 0; i < length; ++i) {
            const std::size_t from = bigEndian_ ? i : length - 1 - i;
            value = value << 8 | bytes_[static_cast<std::size_t>(at) + from];
        }
        return value;
    }

    Bytes Part(std::uint64_t at, std::uint64_t length) const {
        if (at + length > bytes_.size()) return {};
        return bytes_.subspan(static_cast<std::size_t>(at), static_cast<std::size_t>(length));
    }

 private:
    Bytes bytes_;
    bool bigEndian_ = false;
    bool good_ = false;
};

/// One directory of a block: each entry has a tag, a type, a count, and a value or its offset.
class Directory {
 public:
    Directory(const Block& block, std::uint64_t at) : block_(block), first_(at + 2) {
        if (at == 0 || first_ >= block.Length()) return;
        // No more than there is room for, whatever it says.
        count_ =
            std::min<std::uint64_t>(block.Number(at, 2), (block.Length() - first_) / entryLength);
    }

    /// The number of a tag; 0 when it is missing.
    double Number(std::uint16_t tag) const {
        const auto entry = Find(tag);
        if (!entry) return 0;
        const std::uint32_t type = block_.Number(*entry + 2, 2);
        if (type == Short) return block_.Number(*entry + 8, 2);
        if (type == Long) return block_.Number(*entry + 8, 4);
        if (type != Rational) return 0;
        const std::uint64_t at = block_.Number(*entry + 8, 4);
        const double below = block_.Number(at + 4, 4);
        return below > 0 ? block_.Number(at, 4) / below : 0;
    }

    std::string Words(std::uint16_t tag) const {
        const auto entry = Find(tag);
        if (!entry || block_.Number(*entry + 2, 2) != Text) return {};
        const std::uint64_t length = block_.Number(*entry + 4, 4);
        const std::uint64_t at = length <= 4 ? *entry + 8 : block_.Number(*entry + 8, 4);
        const Bytes part = block_.Part(at, length);
        std::string text(part.begin(), std::find(part.begin(), part.end(), 0));
        while (!text.empty() && text.back() == ' ') text.pop_back();
        return text;
    }

 private:
    std::optional<std::uint64_t> Find(std::uint16_t tag) const {
        for (std::uint64_t n = 0; n < count_; ++n) {
            const std::uint64_t entry = first_ + n * entryLength;
            if (block_.Number(entry, 2) == tag) return entry;
        }
        return std::nullopt;
    }

    const Block& block_;
    std::uint64_t first_;
    std::uint64_t count_ = 0;
};

/// "2024:05:03 21:04:05" in the form of FITS; empty when it is not a time.
std::string FitsTime(std::string text) {
    constexpr std::string_view form = "dddd:dd:dd dd:dd:dd";
    if (text.size() != form.size() || text.starts_with("0000")) return {};
    for (std::size_t i = 0; i < form.size(); ++i) {
        const bool digit = text[i] >= '0' && text[i] <= '9';
        if (form[i] == 'd' ? !digit : text[i] != form[i]) return {};
    }
    text[4] = text[7] = '-';
    text[10] = 'T';
    return text;
}

/// The maker and model; most makers repeat their name in the model.
std::string CameraName(const CameraFacts& facts) {
    const std::string firstWord = facts.Make.substr(0, facts.Make.find(' '));
    if (facts.Make.empty() || facts.Model.starts_with(firstWord)) return facts.Model;
    return facts.Model.empty() ? facts.Make : facts.Make + " " + facts.Model;
}

/// The size of a pixel, micrometres; 0 when it is unknown or implausible.
double PixelSize(const CameraFacts& facts, std::int64_t longSide) {
    if (!(facts.PixelsPerMillimetre > 0) || longSide < 1) return 0;
    const double reduced =
        facts.LongSide > 0 ? facts.LongSide / static_cast<double>(longSide) : 1.0;
    const double size = 1000 / facts.PixelsPerMillimetre * reduced;
    return size > 0.1 && size < 1000 ? size : 0;
}

}  // namespace

CameraFacts ReadExif(std::span<const unsigned char> bytes) {
    CameraFacts facts;
    const Block block(bytes);
    if (!block.Good()) return facts;
    const Directory main(block, block.Number(4, 4));
    facts.Make = main.Words(MakeTag);
    facts.Model = main.Words(ModelTag);
    facts.Description = main.Words(DescriptionTag);
    const double orientation = main.Number(OrientationTag);
    if (orientation >= 1 && orientation <= 8) facts.Orientation = static_cast<int>(orientation);

    const Directory exif(block, static_cast<std::uint64_t>(main.Number(ExifDirectoryTag)));
    facts.Lens = exif.Words(LensTag);
    facts.Taken = exif.Words(TakenTag);
    facts.ExposureTime = exif.Number(ExposureTimeTag);
    facts.FNumber = exif.Number(FNumberTag);
    facts.IsoSpeed = exif.Number(IsoSpeedTag);
    facts.FocalLength = exif.Number(FocalLengthTag);
    facts.FocalLength35 = exif.Number(FocalLength35Tag);
    facts.LongSide = std::max(exif.Number(ColumnsTag), exif.Number(RowsTag));
    constexpr int centimetre = 3;
    const double unit = exif.Number(FocalPlaneUnitTag) == centimetre ? 10 : 25.4;
    facts.PixelsPerMillimetre = exif.Number(FocalPlaneResolutionTag) / unit;
    return facts;
}

std::string OrientationRemark(int orientation) {
    // In the order of EXIF.
    constexpr std::array ways{"",
                              "mirrored left to right",
                              "turned by half",
                              "mirrored upside down",
                              "mirrored left to right and turned left by a quarter",
                              "turned right by a quarter",
                              "mirrored left to right and turned right by a quarter",
                              "turned left by a quarter"};
    if (orientation < 2 || orientation > 8) return {};
    return std::string("The camera wants it shown ") +
           ways[static_cast<std::size_t>(orientation) - 1] +
           ", and so the image window does; pixels, up and mirrored are those of the picture as it "
           "is stored.";
}

void PassCameraFacts(const CameraFacts& facts, std::int64_t longSide, CardSink& sink) {
    const auto passText = [&sink](const char* keyword, const std::string& text,
                                  const char* comment) {
        if (!text.empty()) sink.TextCard(keyword, text, comment);
    };
    const auto passNumber = [&sink](const char* keyword, double value, const char* comment) {
        if (value > 0) sink.NumberCard(keyword, value, comment);
    };
    passText("INSTRUME", CameraName(facts), "camera");
    passText("LENS", facts.Lens, "");
    passText("DATE-OBS", FitsTime(facts.Taken), "by the camera's clock");
    passNumber("EXPTIME", facts.ExposureTime, "[s] exposure");
    passNumber("ISOSPEED", facts.IsoSpeed, "");
    passNumber("FOCALLEN", facts.FocalLength, "[mm] focal length");
    passNumber("FOCRATIO", facts.FNumber, "focal length / aperture");
    passNumber("FOCLEN35", facts.FocalLength35, "[mm] focal length of an equal 35 mm camera");
    const double pixel = PixelSize(facts, longSide);
    passNumber("XPIXSZ", pixel, "[um] pixel size, by the sensor's size");
    passNumber("YPIXSZ", pixel, "[um] pixel size, by the sensor's size");
    if (!facts.Description.empty()) PassDescription(facts.Description, sink);
    sink.Orientation(facts.Orientation);
}

}  // namespace vestrel
