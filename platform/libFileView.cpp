#include "platform/libFileView.h"

#include <new>

#ifndef _WIN32
#include <sys/mman.h>
#else
#include "platform/libFiles.h"
#endif

namespace vestrel {

#ifndef _WIN32

FileView::FileView(std::FILE* file, std::uint64_t length) {
    const auto bytes = static_cast<std::size_t>(length);
    if (bytes == 0) return;
    void* const start = mmap(nullptr, bytes, PROT_READ, MAP_PRIVATE, fileno(file), 0);
    if (start == MAP_FAILED) throw std::bad_alloc();
    bytes_ = {static_cast<const unsigned char*>(start), bytes};
}

FileView::~FileView() {
    if (!bytes_.empty()) munmap(const_cast<unsigned char*>(bytes_.data()), bytes_.size());
}

#else

FileView::FileView(std::FILE* file, std::uint64_t length)
    : copy_(static_cast<std::size_t>(length)) {
    if (SeekFile(file, 0)) copy_.resize(std::fread(copy_.data(), 1, copy_.size(), file));
    bytes_ = copy_;
}

FileView::~FileView() = default;

#endif

}  // namespace vestrel
