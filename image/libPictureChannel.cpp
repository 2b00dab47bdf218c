#include "image/libPictureChannel.h"

#ifndef _WIN32

#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

namespace vestrel {

namespace {

enum Kind : std::int64_t {
    StartMessage,
    RowMessage,
    StoredMessage,
    CardMessage,
    TextCardMessage,
    NumberCardMessage,
    RemarkMessage,
    OrientationMessage,
    FaultMessage,
    EndMessage
};

/// How many numbers make up a picture's shape in a message, and the place of stored samples.
constexpr std::size_t ShapeNumbers = 6;
constexpr std::size_t StoredNumbers = 6;

std::size_t RowBytes(const PictureShape& shape) {
    return static_cast<std::size_t>(shape.Width) * static_cast<std::size_t>(shape.Channels) *
           SampleBytes(shape.Kind);
}

[[noreturn]] void BrokenOff() {
    throw DecodeFault("Its packed pixels are damaged: the decoder broke off.");
}

void PassStored(const std::string& sent, PictureSink& sink) {
    std::uint64_t numbers[StoredNumbers] = {};
    if (sent.size() != sizeof numbers) BrokenOff();
    std::memcpy(numbers, sent.data(), sizeof numbers);
    sink.Stored({numbers[0], numbers[1] != 0, numbers[2] != 0, numbers[3] != 0, numbers[4] != 0,
                 numbers[5] != 0});
}

}  // namespace

SharedParts::SharedParts()
    : memory_(mmap(nullptr, PartBytes * Parts, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                   -1, 0)) {
    if (memory_ == MAP_FAILED) throw std::bad_alloc();
}

SharedParts::~SharedParts() {
    munmap(memory_, PartBytes * Parts);
}

/// One call of the sink, as it is sent; the bytes of its texts follow.
struct PictureSender::Message {
    std::int64_t Kind = EndMessage;
    std::int64_t Number = 0;
    double Value = 0;
    std::uint64_t Lengths[3] = {};
};

void PictureSender::Start(const PictureShape& shape) {
    rowBytes_ = RowBytes(shape);
    const std::int64_t numbers[ShapeNumbers] = {
        shape.Width,    shape.Height,
        shape.Channels, static_cast<std::int64_t>(shape.Kind),
        shape.BitPix,   shape.TopRowFirst ? 1 : 0};
    Send({StartMessage, 0, 0, {}}, {reinterpret_cast<const char*>(numbers), sizeof numbers});
    Announce();
}

void PictureSender::Row(std::int64_t y, const void* samples) {
    Send({RowMessage, y, 0, {}}, {static_cast<const char*>(samples), rowBytes_});
}

void PictureSender::Stored(const StoredSamples& samples) {
    const std::uint64_t numbers[StoredNumbers] = {samples.Start,
                                                  samples.BigEndian ? 1U : 0U,
                                                  samples.Planar ? 1U : 0U,
                                                  samples.LastRowFirst ? 1U : 0U,
                                                  samples.TopBitFlipped ? 1U : 0U,
                                                  samples.WholeNumbers ? 1U : 0U};
    Send({StoredMessage, 0, 0, {}}, {reinterpret_cast<const char*>(numbers), sizeof numbers});
}

void PictureSender::Card(std::string_view card) {
    Send({CardMessage, 0, 0, {}}, card);
}

void PictureSender::TextCard(std::string_view keyword, std::string_view text,
                             std::string_view comment) {
    Send({TextCardMessage, 0, 0, {}}, keyword, text, comment);
}

void PictureSender::NumberCard(std::string_view keyword, double value, std::string_view comment) {
    Send({NumberCardMessage, 0, value, {}}, keyword, comment);
}

void PictureSender::Remark(std::string text) {
    Send({RemarkMessage, 0, 0, {}}, text);
}

void PictureSender::Orientation(int value) {
    Send({OrientationMessage, value, 0, {}});
}

void PictureSender::End(std::string_view fault) {
    Send({fault.empty() ? EndMessage : FaultMessage, 0, 0, {}}, fault);
    Announce();
}

void PictureSender::Send(Message message, std::string_view first, std::string_view second,
                         std::string_view third) {
    const std::string_view texts[] = {first, second, third};
    for (int n = 0; n < 3; ++n) message.Lengths[n] = texts[n].size();
    Write(&message, sizeof message);
    for (const std::string_view text : texts) Write(text.data(), text.size());
}

void PictureSender::Write(const void* bytes, std::size_t length) {
    const auto* from = static_cast<const char*>(bytes);
    while (length > 0) {
        const std::size_t taken = std::min(length, SharedParts::PartBytes - filled_);
        std::memcpy(parts_.Part(announced_) + filled_, from, taken);
        from += taken;
        length -= taken;
        filled_ += taken;
        if (filled_ == SharedParts::PartBytes) Announce();
    }
}

/// Hands over the part that is being filled, and waits until there is another one.
void PictureSender::Announce() {
    if (filled_ == 0) return;
    const auto length = static_cast<std::uint32_t>(filled_);
    if (send(socket_, &length, sizeof length, 0) != sizeof length) _exit(1);
    ++announced_;
    filled_ = 0;
    if (announced_ - acknowledged_ < SharedParts::Parts) return;
    char signs[SharedParts::Parts];
    ssize_t got = 0;
    do {
        got = recv(socket_, signs, sizeof signs, 0);
    } while (got < 0 && errno == EINTR);
    if (got <= 0) _exit(1);
    acknowledged_ += static_cast<std::uint64_t>(got);
}

PictureReceiver::PictureReceiver(int socket, const SharedParts& parts, int longestSilence,
                                 std::function<bool()> isWorking)
    : socket_(socket),
      parts_(parts),
      longestSilence_(longestSilence),
      isWorking_(std::move(isWorking)) {}

bool PictureReceiver::Next(PictureSink& sink) {
    PictureSender::Message message;
    Read(&message, sizeof message);
    std::string texts[3];
    if (message.Kind == RowMessage) {
        if (message.Lengths[0] != row_.size() || message.Lengths[1] + message.Lengths[2] != 0 ||
            message.Number < 0 || message.Number >= height_) {
            BrokenOff();
        }
        Read(row_.data(), row_.size());
    } else {
        for (int n = 0; n < 3; ++n) texts[n] = Text(message.Lengths[n]);
    }
    switch (message.Kind) {
        case StartMessage:
            Start(texts[0], sink);
            return true;
        case RowMessage:
            sink.Row(message.Number, row_.data());
            return true;
        case StoredMessage:
            PassStored(texts[0], sink);
            return true;
        case CardMessage:
            sink.Card(texts[0]);
            return true;
        case TextCardMessage:
            sink.TextCard(texts[0], texts[1], texts[2]);
            return true;
        case NumberCardMessage:
            sink.NumberCard(texts[0], message.Value, texts[1]);
            return true;
        case RemarkMessage:
            sink.Remark(texts[0]);
            return true;
        case OrientationMessage:
            sink.Orientation(static_cast<int>(std::clamp<std::int64_t>(message.Number, 0, 9)));
            return true;
        case FaultMessage:
            if (*texts[0].c_str() == 0) BrokenOff();
            throw DecodeFault(texts[0]);
        case EndMessage:
            return false;
        default:
            BrokenOff();
    }
}

void PictureReceiver::Start(const std::string& sent, PictureSink& sink) {
    std::int64_t numbers[ShapeNumbers] = {};
    if (sent.size() != sizeof numbers || height_ > 0) BrokenOff();
    std::memcpy(numbers, sent.data(), sizeof numbers);
    const auto [width, height, channels, kind, bitPix, topRowFirst] = numbers;
    constexpr std::int64_t longest = 1 << 24;
    constexpr std::int64_t mostChannels = 1 << 10;
    if (width < 1 || width > longest || height < 1 || height > longest || channels < 1 ||
        channels > mostChannels || kind < 0 ||
        kind > static_cast<std::int64_t>(SampleKind::Float64) || bitPix < -64 || bitPix > 64) {
        BrokenOff();
    }
    const PictureShape shape{width,
                             height,
                             static_cast<int>(channels),
                             static_cast<SampleKind>(kind),
                             static_cast<int>(bitPix),
                             topRowFirst != 0};
    sink.Start(shape);
    height_ = height;
    row_.resize(RowBytes(shape));
}

/// Bounds the length of all texts together by more than any header holds.
std::string PictureReceiver::Text(std::uint64_t length) {
    constexpr std::uint64_t most = std::uint64_t{64} << 20;
    if (length > most - texts_) BrokenOff();
    texts_ += length;
    std::string text(static_cast<std::size_t>(length), '\0');
    Read(text.data(), text.size());
    return text;
}

void PictureReceiver::Read(void* bytes, std::size_t length) {
    auto* to = static_cast<char*>(bytes);
    while (length > 0) {
        if (taken_ == held_) NextPart();
        const std::size_t now = std::min(length, held_ - taken_);
        std::memcpy(to, parts_.Part(part_) + taken_, now);
        to += now;
        length -= now;
        taken_ += now;
    }
}

void PictureReceiver::NextPart() {
    if (held_ > 0) {
        const char sign = 0;
        // A child that has ended needs none, so this may fail.
        (void)send(socket_, &sign, sizeof sign, MSG_NOSIGNAL | MSG_DONTWAIT);
        ++part_;
    }
    std::uint32_t announced = 0;
    std::size_t got = 0;
    while (got < sizeof announced) {
        pollfd waited{socket_, POLLIN, 0};
        const int ready = poll(&waited, 1, longestSilence_);
        if (ready < 0 && errno == EINTR) continue;
        if (ready < 0 || (ready == 0 && !isWorking_())) BrokenOff();
        if (ready == 0) continue;
        const ssize_t more =
            recv(socket_, reinterpret_cast<char*>(&announced) + got, sizeof announced - got, 0);
        if (more < 0 && errno == EINTR) continue;
        if (more <= 0) BrokenOff();
        got += static_cast<std::size_t>(more);
    }
    if (announced < 1 || announced > SharedParts::PartBytes) BrokenOff();
    held_ = announced;
    taken_ = 0;
}

}  // namespace vestrel

#endif
