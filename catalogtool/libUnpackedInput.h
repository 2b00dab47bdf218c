// A stream of bytes that may be compressed by gzip.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace vestrel {

/// Reads a stream. A gzip stream is unpacked on the fly in a fixed amount of memory; several gzip
/// files in a row count as one.
class UnpackedInput {
 public:
    explicit UnpackedInput(std::FILE* input);
    ~UnpackedInput();
    UnpackedInput(const UnpackedInput&) = delete;
    UnpackedInput& operator=(const UnpackedInput&) = delete;

    bool IsPacked() const { return unpacker_ != nullptr; }
    /// Whether the unpacked bytes start with these (at most 64). Must be called before the first
    /// read.
    bool StartsWith(std::string_view bytes);

    /// Reads up to `room` bytes; fewer only at the end or after a failure.
    std::size_t Read(char* data, std::size_t room);

    /// Why reading ended early; empty when it did not.
    const std::string& Fault() const { return failure_; }
    /// Bytes taken from the stream so far, before unpacking.
    std::uint64_t BytesRead() const { return taken_; }

 private:
    struct Inflater;
    std::size_t ReadOn(char* data, std::size_t room);
    std::size_t Unpack(char* data, std::size_t room);
    void Refill();
    void NoteEnd(bool shortRead);

    std::FILE* input_;
    std::vector<unsigned char> buffer_;
    std::size_t begin_ = 0;  // start of the bytes not yet used
    std::size_t end_ = 0;
    bool atEnd_ = false;
    std::uint64_t taken_ = 0;
    std::string front_;  ///< unpacked bytes that `StartsWith` has taken in advance
    std::string failure_;
    std::unique_ptr<Inflater> unpacker_;
};

}  // namespace vestrel
