// The bytes of an open file, without a copy of them.
#pragma once

#include <cstdint>
#include <cstdio>
#include <span>
#include <vector>

namespace vestrel {

/// While it lives, the bytes of a file lie in memory; the system reads a page when it is touched.
///
/// When another program shortens the file meanwhile, touching what is gone ends the process. So
/// only a child process may look at the bytes. On Windows they are a copy.
class FileView {
 public:
    /// @param length bytes of the file, from its start
    /// @throws std::bad_alloc when there is no room for them
    FileView(std::FILE* file, std::uint64_t length);
    ~FileView();
    FileView(const FileView&) = delete;
    FileView& operator=(const FileView&) = delete;

    std::span<const unsigned char> Bytes() const { return bytes_; }

 private:
    std::span<const unsigned char> bytes_;
    std::vector<unsigned char> copy_;
};

}  // namespace vestrel
