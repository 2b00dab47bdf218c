// A stream of bytes that may be packed by gzip.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace vestrel {

/// Reads a stream; what starts as a gzip file is unpacked on the way, in a fixed amount of memory,
/// several ones after another as one.
class UnpackedInput {
 public:
    explicit UnpackedInput(std::FILE* input);
    ~UnpackedInput();
    UnpackedInput(const UnpackedInput&) = delete;
    UnpackedInput& operator=(const UnpackedInput&) = delete;

    bool IsPacked() const { return unpacker_ != nullptr; }
    /// Whether the unpacked bytes, before any were read, start so (at most 64 bytes).
    bool StartsWith(std::string_view bytes);

    /// Reads up to `room` bytes: fewer at the end only, or after a failure.
    std::size_t Read(char* data, std::size_t room);

    /// Why reading ended early; empty when it did not.
    const std::string& Fault() const { return failure_; }
    /// Bytes taken from the stream so far, as they lie there.
    std::uint64_t BytesRead() const { return taken_; }

 private:
    struct Inflater;
    std::size_t ReadOn(char* data, std::size_t room);
    std::size_t Unpack(char* data, std::size_t room);
    void Refill();

    std::FILE* input_;
    std::vector<unsigned char> buffer_;
    std::size_t begin_ = 0;  // of what was not handed out yet
    std::size_t end_ = 0;
    bool atEnd_ = false;
    std::uint64_t taken_ = 0;
    std::string front_;  ///< unpacked bytes that were looked at before they were read
    std::string failure_;
    std::unique_ptr<Inflater> unpacker_;
};

}  // namespace vestrel
