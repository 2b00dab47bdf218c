// The calls that a decoder makes, sent from a child process to its parent through shared memory.
#pragma once

#ifndef _WIN32

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "image/libDecoder.h"

namespace vestrel {

/// What the child has to say, as one stream of bytes in memory that both processes share. It
/// consists of several parts. The child fills one after the other and announces each by its
/// length; the parent acknowledges a part when it needs it no longer. A pipe would copy every byte
/// twice more, through pages that the system allocates for it.
class SharedParts {
 public:
    static constexpr std::size_t PartBytes = std::size_t{1} << 17;
    static constexpr std::size_t Parts = 8;

    /// @throws std::bad_alloc
    SharedParts();
    ~SharedParts();
    SharedParts(const SharedParts&) = delete;
    SharedParts& operator=(const SharedParts&) = delete;

    /// The n-th part of the stream.
    char* Part(std::uint64_t n) const {
        return static_cast<char*>(memory_) + n % Parts * PartBytes;
    }

 private:
    void* memory_;
};

/// The child's side: sends every call to the parent, and ends the process when the parent is gone.
class PictureSender final : public PictureSink {  // NOLINT(*-virtual-class-destructor): final
 public:
    PictureSender(int socket, const SharedParts& parts) : socket_(socket), parts_(parts) {}

    /// Arrives at once, so that the parent can refuse a picture before it is decoded.
    void Start(const PictureShape& shape) override;
    void Row(std::int64_t y, const void* samples) override;
    void Stored(const StoredSamples& samples) override;
    void Card(std::string_view card) override;
    void TextCard(std::string_view keyword, std::string_view text,
                  std::string_view comment) override;
    void NumberCard(std::string_view keyword, double value, std::string_view comment) override;
    void Remark(std::string text) override;
    void Orientation(int value) override;
    /// The last message; `fault` is empty when all went well.
    void End(std::string_view fault);

 private:
    struct Message;

    void Send(Message message, std::string_view first = {}, std::string_view second = {},
              std::string_view third = {});
    void Write(const void* bytes, std::size_t length);
    void Announce();

    int socket_;
    const SharedParts& parts_;
    std::uint64_t announced_ = 0;
    std::uint64_t acknowledged_ = 0;
    std::size_t filled_ = 0;
    std::size_t rowBytes_ = 0;

    friend class PictureReceiver;  // which reads the same messages
};

/// The parent's side. The child may have written over its own memory: nothing it sends is trusted.
class PictureReceiver {
 public:
    /// @param longestSilence milliseconds after which `isWorking` is asked whether to wait on
    PictureReceiver(int socket, const SharedParts& parts, int longestSilence,
                    std::function<bool()> isWorking);

    /// Passes the next message to the sink; false after the last one.
    /// @throws DecodeFault when the child reports one, ends too early, or sends what is no message;
    ///         and what `sink` throws
    bool Next(PictureSink& sink);

 private:
    void Start(const std::string& sent, PictureSink& sink);
    std::string Text(std::uint64_t length);
    void Read(void* bytes, std::size_t length);
    void NextPart();

    int socket_;
    const SharedParts& parts_;
    int longestSilence_;
    std::function<bool()> isWorking_;
    std::uint64_t part_ = 0;
    std::size_t held_ = 0;  ///< bytes of that part, and how many of them were taken
    std::size_t taken_ = 0;
    std::int64_t height_ = 0;
    std::vector<char> row_;
    std::uint64_t texts_ = 0;
};

}  // namespace vestrel

#endif
