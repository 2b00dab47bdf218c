#include "matching/libCheckedPages.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <utility>

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

std::uint32_t PagePool::Take() {
    if (pages_.size() < mostPages_) {
        Page page;
        page.Bytes = std::make_unique_for_overwrite<std::array<unsigned char, PageBytes>>();
        pages_.push_back(std::move(page));
        return static_cast<std::uint32_t>(pages_.size());
    }
    do hand_ = (hand_ + 1) % pages_.size();
    while (std::exchange(pages_[hand_].Used, false));
    Page& page = pages_[hand_];
    if (page.Owner != nullptr) (*page.Owner)[page.Number] = 0;
    page.Owner = nullptr;
    return static_cast<std::uint32_t>(hand_ + 1);
}

void PagePool::Keep(std::uint32_t place, Places& owner, std::size_t number) {
    Page& page = pages_[place - 1];
    page.Owner = &owner;
    page.Number = number;
    owner[number] = place;
}

void PagePool::Forget(const Places& owner) {
    for (const std::uint32_t place : owner) {
        if (place == 0) continue;
        pages_[place - 1].Owner = nullptr;
        pages_[place - 1].Used = false;
    }
}

CheckedPages::CheckedPages(FileHandle file, const PagedPart& part, std::shared_ptr<PagePool> pool)
    : file_(std::move(file)),
      part_(part),
      pool_(pool ? std::move(pool) : std::make_shared<PagePool>()) {
    checksums_.resize(part.PageCount());
    const std::size_t bytes = checksums_.size() * sizeof(std::uint64_t);
    ReadAt(part.Offset + part.Length, checksums_.data(), bytes);
    if (FastChecksum(checksums_.data(), bytes) != part.Checksum) throw DamagedFile();
    places_ = std::make_unique<PagePool::Places>(checksums_.size());
}

CheckedPages::~CheckedPages() {
    if (places_) pool_->Forget(*places_);
}

CheckedPages& CheckedPages::operator=(CheckedPages&& other) noexcept {
    CheckedPages old(std::move(*this));  // gives its places back
    file_ = std::move(other.file_);
    part_ = other.part_;
    checksums_ = std::move(other.checksums_);
    pool_ = std::move(other.pool_);
    places_ = std::move(other.places_);
    bytesRead_ = other.bytesRead_;
    return *this;
}

const unsigned char* CheckedPages::Bytes(std::uint64_t at, std::size_t& length) {
    if (at >= part_.Length) throw DamagedFile();
    const std::uint64_t number = at / PageBytes;
    const std::uint64_t start = number * PageBytes;
    const auto full =
        static_cast<std::size_t>(std::min<std::uint64_t>(PageBytes, part_.Length - start));
    std::uint32_t place = (*places_)[number];
    if (place == 0) {
        place = pool_->Take();
        unsigned char* page = pool_->At(place);
        ReadAt(part_.Offset + start, page, full);
        if (FastChecksum(page, full) != checksums_[number]) throw DamagedFile();
        pool_->Keep(place, *places_, number);
    }
    length = full - static_cast<std::size_t>(at - start);
    return pool_->At(place) + (at - start);
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
