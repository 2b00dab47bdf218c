#include "catalogtool/libUnpackedInput.h"

#include <zlib.h>

#include <algorithm>
#include <cstring>

#include "catalogtool/libToolReport.h"

namespace vestrel {

struct UnpackedInput::Inflater {
    Inflater() { Good = inflateInit2(&Stream, gzipFormat) == Z_OK; }
    ~Inflater() { inflateEnd(&Stream); }
    Inflater(const Inflater&) = delete;
    Inflater& operator=(const Inflater&) = delete;

    static constexpr int gzipFormat = 15 + 16;  // the largest window, and gzip's header
    z_stream Stream{};
    bool Good = false;
    bool BetweenFiles = false;
};

UnpackedInput::UnpackedInput(std::FILE* input) : input_(input), buffer_(std::size_t{1} << 18) {
    Refill();
    if (end_ >= 2 && buffer_[0] == 0x1F && buffer_[1] == 0x8B) {
        unpacker_ = std::make_unique<Inflater>();
        if (!unpacker_->Good) failure_ = "cannot be unpacked: out of memory";
    }
}

UnpackedInput::~UnpackedInput() = default;

void UnpackedInput::Refill() {
    if (atEnd_ || begin_ < end_) return;
    begin_ = 0;
    end_ = std::fread(buffer_.data(), 1, buffer_.size(), input_);
    taken_ += end_;
    NoteEnd(end_ < buffer_.size());
}

/// A short read is the end or a failure. Reading again would wait for an interrupted pipe.
void UnpackedInput::NoteEnd(bool shortRead) {
    atEnd_ = shortRead;
    if (atEnd_ && std::ferror(input_) != 0) failure_ = SystemErrorText();
}

std::size_t UnpackedInput::Unpack(char* data, std::size_t room) {
    z_stream& stream = unpacker_->Stream;
    stream.next_out = reinterpret_cast<unsigned char*>(data);
    stream.avail_out = static_cast<unsigned int>(room);
    while (stream.avail_out > 0 && failure_.empty()) {
        Refill();
        if (begin_ == end_) {
            if (!unpacker_->BetweenFiles) failure_ = "is cut short: its packed data break off";
            break;
        }
        if (unpacker_->BetweenFiles) {
            // Zeros after the end are padding, as for gzip itself.
            if (buffer_[begin_] == 0) {
                ++begin_;
                continue;
            }
            inflateReset(&stream);
            unpacker_->BetweenFiles = false;
        }
        stream.next_in = &buffer_[begin_];
        stream.avail_in = static_cast<unsigned int>(end_ - begin_);
        const int outcome = inflate(&stream, Z_NO_FLUSH);
        begin_ = end_ - stream.avail_in;
        if (outcome == Z_STREAM_END) {
            unpacker_->BetweenFiles = true;
        } else if (outcome != Z_OK) {
            failure_ = "is damaged: its packed data cannot be unpacked";
        }
    }
    return room - stream.avail_out;
}

std::size_t UnpackedInput::ReadOn(char* data, std::size_t room) {
    if (!failure_.empty()) return 0;
    if (unpacker_) return Unpack(data, room);
    const std::size_t held = std::min(room, end_ - begin_);
    std::memcpy(data, buffer_.data() + begin_, held);
    begin_ += held;
    if (atEnd_ || held == room) return held;
    const std::size_t count = std::fread(data + held, 1, room - held, input_);
    taken_ += count;
    NoteEnd(count < room - held);
    return held + count;
}

std::size_t UnpackedInput::Read(char* data, std::size_t room) {
    const std::size_t known = std::min(room, front_.size());
    std::memcpy(data, front_.data(), known);
    front_.erase(0, known);
    return known + ReadOn(data + known, room - known);
}

bool UnpackedInput::StartsWith(std::string_view bytes) {
    constexpr std::size_t longest = 64;
    if (front_.empty()) {
        front_.resize(longest);
        front_.resize(ReadOn(front_.data(), longest));
    }
    return front_.starts_with(bytes);
}

}  // namespace vestrel
