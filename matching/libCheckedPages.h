// A part of a file in pages, each read and checked when it is first needed.
//
// Pages are read rather than mapped. A mapped file that is cut short ends the program, and one that
// is changed could give other bytes than those that were checked. Reading 8 KB from the system's
// cache takes about a microsecond, and the check another one.
//
// Parts that are searched in turn share a `PagePool`, so that together they keep no more pages in
// memory than one would, and each finds the pages that it has read before.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <vector>

#include "platform/libFiles.h"

namespace vestrel {

inline constexpr std::size_t PageBytes = 8192;

/// A fast 64-bit checksum. It detects damage, not forgery.
std::uint64_t FastChecksum(const void* data, std::size_t length);

/// Thrown when a page does not match its checksum.
class DamagedFile : public std::runtime_error {
 public:
    DamagedFile() : std::runtime_error("is damaged") {}
};

/// Where a paged part of a file lies: its bytes are followed by the checksum of each page.
struct PagedPart {
    std::uint64_t Offset = 0;    ///< of the first page in the file
    std::uint64_t Length = 0;    ///< bytes; the last page may be shorter
    std::uint64_t Checksum = 0;  ///< of the page checksums

    std::uint64_t PageCount() const { return (Length + PageBytes - 1) / PageBytes; }
    /// Bytes in the file, checksums included.
    std::uint64_t Stored() const { return Length + PageCount() * sizeof(std::uint64_t); }
};

/// Memory for the pages of one or several parts, with a limit. When it is full, a page that was not
/// used since its last turn gives its place (the clock algorithm).
class PagePool {
 public:
    static constexpr std::size_t UsualPages = 8192;  ///< 64 MB

    explicit PagePool(std::size_t mostPages = UsualPages) : mostPages_(mostPages) {}

    /// Where the pages of a part are, 0 for those that are not in memory; it stays at its address.
    using Places = std::vector<std::uint32_t>;

    std::size_t Held() const { return pages_.size(); }

    /// A page in memory. @param place as `Places` has it, not 0
    unsigned char* At(std::uint32_t place) {
        Page& page = pages_[place - 1];
        page.Used = true;
        return page.Bytes->data();
    }
    /// A free place for a page to be read. Another page may lose its place.
    std::uint32_t Take();
    /// Makes what was read at a place a page of a part.
    void Keep(std::uint32_t place, Places& owner, std::size_t number);
    /// Frees the places of a part, which must be done before it ends.
    void Forget(const Places& owner);

 private:
    struct Page {
        std::unique_ptr<std::array<unsigned char, PageBytes>> Bytes;
        Places* Owner = nullptr;  ///< null when the place is free
        std::size_t Number = 0;   ///< of the page in its part
        bool Used = false;        ///< since the hand passed
    };
    std::size_t mostPages_;
    std::vector<Page> pages_;
    std::size_t hand_ = 0;
};

class CheckedPages {
 public:
    CheckedPages() = default;
    /// @param pool shared with other parts; null for one of its own
    /// @throws DamagedFile when the page checksums do not match `Checksum`
    CheckedPages(FileHandle file, const PagedPart& part, std::shared_ptr<PagePool> pool = nullptr);
    ~CheckedPages();
    CheckedPages(CheckedPages&&) = default;
    CheckedPages& operator=(CheckedPages&& other) noexcept;
    CheckedPages(const CheckedPages&) = delete;
    CheckedPages& operator=(const CheckedPages&) = delete;

    /// Copies bytes of the part. @throws DamagedFile, also when they lie beyond its end
    void Copy(std::uint64_t at, void* bytes, std::size_t length);
    /// The bytes from a place to the end of its page; they stay valid until the next call of any
    /// part with the same pool.
    /// @param length is set to their number. @throws DamagedFile
    const unsigned char* Bytes(std::uint64_t at, std::size_t& length);

    /// Bytes read from the file since it was opened.
    std::uint64_t BytesRead() const { return bytesRead_; }

 private:
    void ReadAt(std::uint64_t at, void* bytes, std::size_t length);

    FileHandle file_;
    PagedPart part_;
    std::vector<std::uint64_t> checksums_;
    std::shared_ptr<PagePool> pool_;
    std::unique_ptr<PagePool::Places> places_;  ///< null when moved from
    std::uint64_t bytesRead_ = 0;
};

}  // namespace vestrel
