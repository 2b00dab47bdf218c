// Unsigned numbers of any number of bits, packed one after the other, their lowest bits first.
#pragma once

#include <cstdint>

namespace vestrel {

class BitWriter {
 public:
    /// @param bytes where the first number goes
    explicit BitWriter(unsigned char* bytes) : next_(bytes) {}

    /// @param bits 0..32; the value must have no more
    void Put(std::uint32_t value, unsigned int bits) {
        held_ |= std::uint64_t{value} << count_;
        count_ += bits;
        for (; count_ >= 8; count_ -= 8, held_ >>= 8) *next_++ = static_cast<unsigned char>(held_);
    }
    /// Must be called after the last number; it fills the last byte with zeros.
    void End() {
        if (count_ > 0) *next_ = static_cast<unsigned char>(held_);
    }

 private:
    unsigned char* next_;
    std::uint64_t held_ = 0;
    unsigned int count_ = 0;  ///< bits in `held_`, fewer than 8 between two numbers
};

class BitReader {
 public:
    explicit BitReader(const unsigned char* bytes) : next_(bytes) {}

    /// @param bits 0..32
    std::uint32_t Take(unsigned int bits) {
        for (; count_ < bits; count_ += 8) held_ |= std::uint64_t{*next_++} << count_;
        const auto value = static_cast<std::uint32_t>(held_ & ((std::uint64_t{1} << bits) - 1));
        held_ >>= bits;
        count_ -= bits;
        return value;
    }

 private:
    const unsigned char* next_;
    std::uint64_t held_ = 0;
    unsigned int count_ = 0;  ///< bits in `held_`
};

}  // namespace vestrel
