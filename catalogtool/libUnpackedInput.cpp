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

UnpackedInput::UnpackedInput(std::FILE* input) : Input(input), Buffer(std::size_t{1} << 18) {
    Refill();
    if (End >= 2 && Buffer[0] == 0x1F && Buffer[1] == 0x8B) {
        Unpacker = std::make_unique<Inflater>();
        if (!Unpacker->Good) Failure = "cannot be unpacked: out of memory";
    }
}

UnpackedInput::~UnpackedInput() = default;

void UnpackedInput::Refill() {
    if (AtEnd || Begin < End) return;
    Begin = 0;
    End = std::fread(Buffer.data(), 1, Buffer.size(), Input);
    Taken += End;
    // A short read is the end or a failure; to read on would wait again on an interrupted pipe.
    AtEnd = End < Buffer.size();
    if (AtEnd && std::ferror(Input) != 0) Failure = SystemErrorText();
}

std::size_t UnpackedInput::Unpack(char* data, std::size_t room) {
    z_stream& stream = Unpacker->Stream;
    stream.next_out = reinterpret_cast<unsigned char*>(data);
    stream.avail_out = static_cast<unsigned int>(room);
    while (stream.avail_out > 0 && Failure.empty()) {
        Refill();
        if (Begin == End) {
            if (!Unpacker->BetweenFiles) Failure = "is cut short: its packed data break off";
            break;
        }
        if (Unpacker->BetweenFiles) {
            // Zeros after the end are padding, as gzip itself takes them.
            if (Buffer[Begin] == 0) {
                ++Begin;
                continue;
            }
            inflateReset(&stream);
            Unpacker->BetweenFiles = false;
        }
        stream.next_in = &Buffer[Begin];
        stream.avail_in = static_cast<unsigned int>(End - Begin);
        const int outcome = inflate(&stream, Z_NO_FLUSH);
        Begin = End - stream.avail_in;
        if (outcome == Z_STREAM_END) {
            Unpacker->BetweenFiles = true;
        } else if (outcome != Z_OK) {
            Failure = "is damaged: its packed data cannot be unpacked";
        }
    }
    return room - stream.avail_out;
}

std::size_t UnpackedInput::ReadOn(char* data, std::size_t room) {
    if (!Failure.empty()) return 0;
    if (Unpacker) return Unpack(data, room);
    std::size_t count = 0;
    while (count < room) {
        Refill();
        const std::size_t piece = std::min(room - count, End - Begin);
        if (piece == 0) break;
        std::memcpy(data + count, &Buffer[Begin], piece);
        Begin += piece;
        count += piece;
    }
    return count;
}

std::size_t UnpackedInput::Read(char* data, std::size_t room) {
    const std::size_t known = std::min(room, Front.size());
    std::memcpy(data, Front.data(), known);
    Front.erase(0, known);
    return known + ReadOn(data + known, room - known);
}

bool UnpackedInput::StartsWith(std::string_view bytes) {
    constexpr std::size_t longest = 64;
    if (Front.empty()) {
        Front.resize(longest);
        Front.resize(ReadOn(Front.data(), longest));
    }
    return Front.starts_with(bytes);
}

}  // namespace vestrel
