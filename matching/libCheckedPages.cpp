#include "matching/libCheckedPages.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "platform/libFileParts.h"

namespace vestrel {

// Takes eight bytes at a time in four lanes and rotates and multiplies each (the scheme of the
// xxHash family).
std::uint64_t FastChecksum(const void* data, std::size_t length) {
    constexpr std::uint64_t first = 0x9E3779B185EBCA87;
    constexpr std::uint64_t second = 0xC2B2AE3D27D4EB4F;
    std::array<std::uint64_t, 4> lanes = {first + second, second, 1, length};
    const auto* bytes = static_cast<const unsigned char*>(data);
    const auto mix = [&](std::uint64_t& lane, std::size_t part) {
        std::uint64_t word = 0;
        std::memcpy(&word, bytes, part);
        lane = std::rotl(lane + word * second, 31) * first;
        bytes += part;
        length -= part;
    };
    while (length >= 32) {
        for (std::uint64_t& lane : lanes) mix(lane, 8);
    }
    for (std::size_t lane = 0; length > 0; ++lane)
        mix(lanes[lane], std::min<std::size_t>(length, 8));
    std::uint64_t sum = 0;
    for (const std::uint64_t lane : lanes) sum = (std::rotl(sum, 17) * second) ^ lane;
    return sum ^ (sum >> 32);
}

CheckedPages::CheckedPages(FileHandle file, const PagedPart& part)
    : file_(std::move(file)), part_(part) {
    checksums_.resize(part.PageCount());
    const std::size_t bytes = checksums_.size() * sizeof(std::uint64_t);
    ReadAt(part.Offset + part.Length, checksums_.data(), bytes);
    if (FastChecksum(checksums_.data(), bytes) != part.Checksum) throw DamagedFile();
    pages_.resize(checksums_.size());
}

const unsigned char* CheckedPages::Bytes(std::uint64_t at, std::size_t& length) {
    if (at >= part_.Length) throw DamagedFile();
    const std::uint64_t number = at / PageBytes;
    const std::uint64_t start = number * PageBytes;
    const auto full =
        static_cast<std::size_t>(std::min<std::uint64_t>(PageBytes, part_.Length - start));
    auto& page = pages_[number];
    if (!page) {
        constexpr std::size_t mostHeld = 8192;  // 64 MB
        if (held_ == mostHeld) {
            for (auto& other : pages_) other.reset();
            held_ = 0;
        }
        auto read = std::make_unique_for_overwrite<std::array<unsigned char, PageBytes>>();
        ReadAt(part_.Offset + start, read->data(), full);
        if (FastChecksum(read->data(), full) != checksums_[number]) throw DamagedFile();
        page = std::move(read);
        ++held_;
    }
    length = full - static_cast<std::size_t>(at - start);
    return page->data() + (at - start);
}

void CheckedPages::Copy(std::uint64_t at, void* bytes, std::size_t length) {
    auto* to = static_cast<unsigned char*>(bytes);
    while (length > 0) {
        std::size_t available = 0;
        const unsigned char* from = Bytes(at, available);
        const std::size_t piece = std::min(available, length);
        std::memcpy(to, from, piece);
        to += piece;
        at += piece;
        length -= piece;
    }
}

void CheckedPages::ReadAt(std::uint64_t at, void* bytes, std::size_t length) {
    if (length == 0) return;
    if (vestrel::ReadAt(file_.get(), at, bytes, length) != length) throw DamagedFile();
    bytesRead_ += length;
}

}  // namespace vestrel
