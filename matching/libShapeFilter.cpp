#include "matching/libShapeFilter.h"

#include <cmath>
#include <cstring>

#include "astro/libProcessor.h"

namespace vestrel {

namespace {

constexpr std::size_t lanes = 8;
constexpr std::size_t block = 2 * lanes;
using Floats [[gnu::vector_size(32)]] = float;
using Numbers [[gnu::vector_size(32)]] = std::int32_t;
using Words [[gnu::vector_size(32)]] = std::uint32_t;

/// What the shapes of a cell are compared with.
struct Wanted {
    std::array<float, 5> At{};
    std::array<float, 3> Cell{};  ///< the cell's ratios 1, 3 and 5 in 1024ths
    float Limit = 0;
};

/// The fields of packed shapes as floats; all are whole numbers below 1024.
VESTREL_KERNEL void Part(Floats& part, const Words& packed, unsigned int shift,
                         std::uint32_t mask) {
    const Words field = (packed >> shift) & mask;
    Numbers number;
    std::memcpy(&number, &field, sizeof number);
    part = __builtin_convertvector(number, Floats);
}

/// Sets the lanes of `near` whose shapes pass.
VESTREL_KERNEL void Compare(const Wanted& wanted, const unsigned char* bytes, Numbers& near) {
    Words packed;
    std::memcpy(&packed, bytes, sizeof packed);
    Floats sum{};
    Floats part;
    for (unsigned int i = 0; i < 3; ++i) {
        Part(part, packed, 4 * i, 15);
        const Floats d = (part + wanted.Cell[i]) - wanted.At[i];
        sum += d * d;
    }
    Part(part, packed, 12, 1023);
    const Floats d2 = part - wanted.At[3];
    Part(part, packed, 22, 1023);
    const Floats d4 = part - wanted.At[4];
    near = (sum + d2 * d2) + d4 * d4 < wanted.Limit;
}

VESTREL_KERNEL void FindIn(const Wanted& wanted, const unsigned char* packed, std::size_t count,
                           std::uint32_t first, std::vector<std::uint32_t>& passing) {
    for (std::size_t at = 0; at < count; at += block) {
        const std::size_t some = count - at < block ? count - at : block;
        const unsigned char* bytes = packed + at * 4;
        std::array<unsigned char, block * 4> end{};
        if (some < block) {
            std::memcpy(end.data(), bytes, some * 4);
            bytes = end.data();
        }
        std::array<Numbers, 2> near{};
        Compare(wanted, bytes, near[0]);
        Compare(wanted, bytes + lanes * 4, near[1]);
        const Numbers any = near[0] | near[1];
        std::array<std::uint64_t, 4> words{};
        std::memcpy(words.data(), &any, sizeof words);
        if ((words[0] | words[1] | words[2] | words[3]) == 0) continue;
        for (std::size_t i = 0; i < some; ++i) {
            if (near[i / lanes][i % lanes] != 0) {
                passing.push_back(first + static_cast<std::uint32_t>(at + i));
            }
        }
    }
}

VESTREL_FOR_AVX2 void FindWithAvx2(const Wanted& wanted, const unsigned char* packed,
                                   std::size_t count, std::uint32_t first,
                                   std::vector<std::uint32_t>& passing) {
    FindIn(wanted, packed, count, first, passing);
}

void FindPlainly(const Wanted& wanted, const unsigned char* packed, std::size_t count,
                 std::uint32_t first, std::vector<std::uint32_t>& passing) {
    FindIn(wanted, packed, count, first, passing);
}

}  // namespace

ShapeFilter::ShapeFilter(const Quad& shape, double tolerance) : avx2_(HasAvx2()) {
    const std::array<float, 5> ratios = {shape.Ratio1, shape.Ratio3, shape.Ratio5, shape.Ratio2,
                                         shape.Ratio4};
    // A stored ratio stands for all ratios up to half a step away.
    for (std::size_t i = 0; i < ratios.size(); ++i) at_[i] = ratios[i] * 1024 - 0.5F;
    const double reach = tolerance * 1024 + 0.5 * std::sqrt(5.0) + 0.01;
    limit_ = static_cast<float>(reach * reach);
}

void ShapeFilter::Find(const std::array<std::uint32_t, 3>& steps, const unsigned char* packed,
                       std::size_t count, std::uint32_t first,
                       std::vector<std::uint32_t>& passing) const {
    Wanted wanted{at_, {}, limit_};
    for (std::size_t i = 0; i < steps.size(); ++i) {
        wanted.Cell[i] = static_cast<float>(steps[i] * 16);
    }
    (avx2_ ? FindWithAvx2 : FindPlainly)(wanted, packed, count, first, passing);
}

}  // namespace vestrel
