// What a decoder's process sends, which may have written over its own memory: the record of a
// picture or a fault, whatever it is.
#include "image/libPictureChannel.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "fuzz/fuzzSupport.h"
#include "image/libPictureBuilder.h"

namespace {

using namespace vestrel;

/// Builds the picture as the program does, unless it is large.
class SmallPictures final : public PictureSink {  // NOLINT(*-virtual-class-destructor): final
 public:
    explicit SmallPictures(PlateImage& image)
        : builder_(image, {}, [](std::uint64_t place, std::span<unsigned char> to) {
              std::fill(to.begin(), to.end(), static_cast<unsigned char>(place));
              return place < 1000;
          }) {}

    void Start(const PictureShape& shape) override {
        constexpr std::int64_t most = 1 << 20;
        if (shape.Width * std::max<std::int64_t>(shape.Height, shape.Channels) > most)
            throw DecodeFault("More than is looked at here.");
        shape_ = shape;
        builder_.Start(shape);
    }
    void Row(std::int64_t y, const void* samples) override {
        Require(y >= 0 && y < shape_.Height, "a row is of the picture");
        builder_.Row(y, samples);
    }
    void Stored(const StoredSamples& samples) override { builder_.Stored(samples); }
    void Card(std::string_view card) override { builder_.Card(card); }
    void TextCard(std::string_view keyword, std::string_view text,
                  std::string_view comment) override {
        builder_.TextCard(keyword, text, comment);
    }
    void NumberCard(std::string_view keyword, double value, std::string_view comment) override {
        builder_.NumberCard(keyword, value, comment);
    }
    void Remark(std::string text) override { builder_.Remark(std::move(text)); }
    void Orientation(int value) override { builder_.Orientation(value); }
    void Finish() { builder_.Finish(); }

 private:
    PictureBuilder builder_;
    PictureShape shape_;
};

/// Sends the bytes in so many parts and ends.
void SendAll(int socket, const SharedParts& parts, std::string_view bytes, std::size_t pieces) {
    const std::size_t length = bytes.size() / pieces + 1;
    for (std::size_t n = 0; n < pieces && n * length < bytes.size(); ++n) {
        const std::string_view piece = bytes.substr(n * length, length);
        std::copy(piece.begin(), piece.end(), parts.Part(n));
        const auto announced = static_cast<std::uint32_t>(piece.size());
        Require(send(socket, &announced, sizeof announced, 0) == sizeof announced, "it is sent");
    }
    close(socket);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    static const SharedParts parts;
    int ends[2] = {};
    Require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "there is a socket");
    SendAll(ends[1], parts, TextOf(data + 1, size - 1), 1 + data[0] % SharedParts::Parts);
    PlateImage image;
    try {
        SmallPictures sink(image);
        PictureReceiver receiver(ends[0], parts, 1000, [] { return false; });
        while (receiver.Next(sink)) {
        }
        sink.Finish();
        Require(image.Width > 0 && image.Height > 0, "a picture has pixels");
        Require(image.Header.CardCount < ImageHeader::MaxCards, "cards have room");
    } catch (const DecodeFault& fault) {
        Require(*fault.what() != 0, "a refusal has a reason");
    }
    close(ends[0]);
    return 0;
}
