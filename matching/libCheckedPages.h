// A part of a file in pages, each read and checked when it is first needed.
//
// Pages are read rather than mapped. A mapped file that is cut short ends the program, and one that
// is changed could give other bytes than those that were checked. Reading 8 KB from the system's
// cache takes about a microsecond, and the check another one.
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

class CheckedPages {
 public:
    CheckedPages() = default;
    /// @throws DamagedFile when the page checksums do not match `Checksum`
    CheckedPages(FileHandle file, const PagedPart& part);

    /// Copies bytes of the part. @throws DamagedFile, also when they lie beyond its end
    void Copy(std::uint64_t at, void* bytes, std::size_t length);
    /// The bytes from a place to the end of its page; they stay valid until the next call.
    /// @param length is set to their number. @throws DamagedFile
    const unsigned char* Bytes(std::uint64_t at, std::size_t& length);

    /// Bytes read from the file since it was opened.
    std::uint64_t BytesRead() const { return bytesRead_; }

 private:
    void ReadAt(std::uint64_t at, void* bytes, std::size_t length);

    FileHandle file_;
    PagedPart part_;
    std::vector<std::uint64_t> checksums_;
    std::vector<std::unique_ptr<std::array<unsigned char, PageBytes>>> pages_;
    std::size_t held_ = 0;
    std::uint64_t bytesRead_ = 0;
};

}  // namespace vestrel
