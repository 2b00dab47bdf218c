// The SBIG reader, compared with rows decoded one value after the other.

#include <algorithm>

#include "fuzz/fuzzSupport.h"
#include "image/libSBIG.h"

namespace vestrel {
namespace {

/// The rows of a file that was read: each has a 16-bit length and as many bytes.
class PlainRows {
 public:
    PlainRows(std::string_view bytes, int headerLines) : bytes_(bytes) {
        std::string_view last;
        for (int line = 0; line < headerLines; ++line) {
            const std::size_t end = bytes.find('\r', at_);
            last = bytes.substr(at_, end - at_);
            at_ = end + 1;
        }
        // Where lines end with CR LF, the last feed is not one of the rows' bytes.
        if (at_ >= 2048 && last.starts_with('\n') && !last.ends_with('\n')) ++at_;
        at_ = std::max<std::size_t>(at_, 2048);
    }
    int Byte() {
        // When only the very last byte is missing, it counts as 0.
        Require(at_ <= bytes_.size(), "no row ends beyond its file");
        return at_ < bytes_.size() ? static_cast<unsigned char>(bytes_[at_++]) : (++at_, 0);
    }
    int Word() {
        const int low = Byte();
        return low + 256 * Byte();
    }
    std::size_t Place() const { return at_; }

 private:
    std::string_view bytes_;
    std::size_t at_ = 0;
};

void CheckRows(PlainRows rows, const PlateImage& image) {
    for (std::int32_t y = 0; y < image.Height; ++y) {
        const auto length = static_cast<std::size_t>(rows.Word());
        const std::size_t start = rows.Place();
        const bool raw = length == 2 * static_cast<std::size_t>(image.Width);
        int count = 0;
        for (std::int32_t x = 0; x < image.Width; ++x) {
            const int delta = raw || x == 0 ? 128 : rows.Byte();
            count = delta == 128 ? rows.Word() : count + (delta < 128 ? delta : delta - 256);
            Require(image.Pixels(x, y) + image.DataOffset == count, "counts are the file's");
        }
        if (image.Width == 0 && !raw) rows.Word();
        Require(rows.Place() == start + length, "rows have their lengths");
    }
}

}  // namespace
}  // namespace vestrel

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vestrel;
    const std::string_view bytes = TextOf(data, size);
    const CheckedImage read = ReadChecked(ReadSbigFile, bytes);
    const PlateImage& image = read.Image;
    if (!read.Good) {
        Require(read.Failure.Text.empty() == (size < 1000), "only short files fail silently");
        return 0;
    }
    Require(image.DataOffset == 32768 && image.Header.BitPix == 16, "pixels have 16 bits");
    CheckRows({bytes, image.Header.CardCount}, image);
    CheckSaved(image);
    return 0;
}
