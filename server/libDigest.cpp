#include "server/libDigest.h"

#include <array>
#include <bit>
#include <cstdint>

namespace vestrel {

namespace {

constexpr std::size_t blockBytes = 64;
using State = std::array<std::uint32_t, 5>;

/// Adds a block of 64 bytes (FIPS 180-4, section 6.1.2).
void AddBlock(const char* block, State& state) {
    std::array<std::uint32_t, 80> w{};
    for (std::size_t t = 0; t < 16; ++t) {
        for (std::size_t i = 0; i < 4; ++i) {
            w[t] = w[t] << 8 | static_cast<unsigned char>(block[4 * t + i]);
        }
    }
    for (std::size_t t = 16; t < w.size(); ++t) {
        w[t] = std::rotl(w[t - 3] ^ w[t - 8] ^ w[t - 14] ^ w[t - 16], 1);
    }
    auto [a, b, c, d, e] = state;
    for (std::size_t t = 0; t < w.size(); ++t) {
        std::uint32_t mixed = b ^ c ^ d;
        std::uint32_t constant = t < 40 ? 0x6ED9EBA1 : 0xCA62C1D6;
        if (t < 20) {
            mixed = (b & c) | (~b & d);
            constant = 0x5A827999;
        } else if (t >= 40 && t < 60) {
            mixed = (b & c) | (b & d) | (c & d);
            constant = 0x8F1BBCDC;
        }
        const std::uint32_t next = std::rotl(a, 5) + mixed + e + constant + w[t];
        e = d;
        d = c;
        c = std::rotl(b, 30);
        b = a;
        a = next;
    }
    const State added = {a, b, c, d, e};
    for (std::size_t i = 0; i < state.size(); ++i) state[i] += added[i];
}

}  // namespace

std::string Sha1Of(std::string_view bytes) {
    State state = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0};
    const std::uint64_t bits = std::uint64_t{bytes.size()} * 8;
    for (; bytes.size() >= blockBytes; bytes.remove_prefix(blockBytes)) {
        AddBlock(bytes.data(), state);
    }
    // The rest is followed by one bit, zeros, and the length in the last eight bytes of a block.
    std::string rest(bytes);
    rest += '\x80';
    while (rest.size() % blockBytes != blockBytes - sizeof bits) rest += '\0';
    for (int shift = 56; shift >= 0; shift -= 8) rest += static_cast<char>(bits >> shift & 0xFF);
    for (std::size_t at = 0; at < rest.size(); at += blockBytes) AddBlock(rest.data() + at, state);
    std::string text;
    for (const std::uint32_t word : state) {
        for (int shift = 28; shift >= 0; shift -= 4) {
            text += "0123456789abcdef"[word >> shift & 15];
        }
    }
    return text;
}

}  // namespace vestrel
