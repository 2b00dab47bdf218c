#include "platform/libZipFile.h"

#include "platform/libFiles.h"
#include "platform/libPlatform.h"

#ifdef VESTREL_HAVE_ZIP
#include <zip.h>

#include <memory>
#endif

namespace vestrel {

#ifdef VESTREL_HAVE_ZIP

namespace {

struct SourceFreer {
    void operator()(zip_source_t* source) const noexcept { zip_source_free(source); }
};
using Source = std::unique_ptr<zip_source_t, SourceFreer>;
struct ArchiveDiscarder {
    void operator()(zip_t* archive) const noexcept { zip_discard(archive); }
};
using Archive = std::unique_ptr<zip_t, ArchiveDiscarder>;
struct EntryCloser {
    void operator()(zip_file_t* entry) const noexcept { zip_fclose(entry); }
};
using Entry = std::unique_ptr<zip_file_t, EntryCloser>;

[[noreturn]] void Fail(const std::filesystem::path& path, const std::string& what) {
    throw ZipFault(TextFromPath(path) + " " + what);
}

/// An archive over bytes in memory. The caller keeps its own reference to the source.
Archive OpenArchive(zip_source_t* source, int flags, const std::filesystem::path& path) {
    zip_error_t error;
    zip_error_init(&error);
    zip_source_keep(source);
    Archive archive(zip_open_from_source(source, flags, &error));
    const std::string reason = zip_error_strerror(&error);
    zip_error_fini(&error);
    if (!archive) {
        zip_source_free(source);
        Fail(path, "is no archive: " + reason);
    }
    return archive;
}

std::string ReadEntry(zip_t* archive, zip_uint64_t number, std::size_t room,
                      const std::filesystem::path& path) {
    const Entry entry(zip_fopen_index(archive, number, 0));
    if (!entry) Fail(path, std::string("cannot be unpacked: ") + zip_strerror(archive));
    // The sizes that the archive states are not trusted.
    constexpr std::size_t piece = std::size_t{1} << 16;
    std::string bytes;
    for (;;) {
        const std::size_t before = bytes.size();
        bytes.resize(before + piece);
        const zip_int64_t count = zip_fread(entry.get(), bytes.data() + before, piece);
        if (count < 0) Fail(path, "is damaged");
        bytes.resize(before + static_cast<std::size_t>(count));
        if (count == 0) return bytes;
        if (bytes.size() > room) Fail(path, "holds more than a bundle may");
    }
}

}  // namespace

bool HasZip() {
    return true;
}

void WriteZip(const std::filesystem::path& path, const std::vector<ZipEntry>& entries,
              const ZipLimits& limits) {
    std::size_t bytes = 0;
    for (const ZipEntry& entry : entries) bytes += entry.Bytes.size();
    if (bytes > limits.MostBytes || entries.size() > limits.MostEntries) {
        Fail(path, "would hold more than a bundle may");
    }
    zip_error_t error;
    zip_error_init(&error);
    const Source memory(zip_source_buffer_create(nullptr, 0, 0, &error));
    zip_error_fini(&error);
    if (!memory) Fail(path, "cannot be written: there is not enough memory");
    Archive archive = OpenArchive(memory.get(), ZIP_TRUNCATE, path);
    for (const ZipEntry& entry : entries) {
        zip_source_t* source =
            zip_source_buffer(archive.get(), entry.Bytes.data(), entry.Bytes.size(), 0);
        if (source == nullptr ||
            zip_file_add(archive.get(), entry.Name.c_str(), source, ZIP_FL_ENC_UTF_8) < 0) {
            zip_source_free(source);
            Fail(path, std::string("cannot be written: ") + zip_strerror(archive.get()));
        }
    }
    if (zip_close(archive.get()) < 0) {
        Fail(path, std::string("cannot be written: ") + zip_strerror(archive.get()));
    }
    static_cast<void>(archive.release());  // closed
    zip_stat_t facts;
    zip_stat_init(&facts);
    if (zip_source_stat(memory.get(), &facts) < 0 || zip_source_open(memory.get()) < 0) {
        Fail(path, "cannot be written");
    }
    std::vector<unsigned char> packed(static_cast<std::size_t>(facts.size));
    const zip_int64_t read = zip_source_read(memory.get(), packed.data(), packed.size());
    zip_source_close(memory.get());
    if (read != static_cast<zip_int64_t>(packed.size()) || !ReplaceFile(path, packed)) {
        Fail(path, "cannot be written");
    }
}

std::vector<ZipEntry> ReadZip(const std::filesystem::path& path, const ZipLimits& limits) {
    std::vector<unsigned char> packed;
    if (!ReadWholeFile(path, limits.MostBytes, packed)) {
        Fail(path, "cannot be read, or is larger than a bundle may be");
    }
    zip_error_t error;
    zip_error_init(&error);
    const Source memory(zip_source_buffer_create(packed.data(), packed.size(), 0, &error));
    zip_error_fini(&error);
    if (!memory) Fail(path, "cannot be read: there is not enough memory");
    const Archive archive = OpenArchive(memory.get(), ZIP_RDONLY | ZIP_CHECKCONS, path);
    const zip_int64_t count = zip_get_num_entries(archive.get(), 0);
    if (count < 0 || static_cast<std::size_t>(count) > limits.MostEntries) {
        Fail(path, "holds more files than a bundle may");
    }
    std::size_t room = limits.MostBytes;
    std::vector<ZipEntry> entries;
    for (zip_uint64_t i = 0; i < static_cast<zip_uint64_t>(count); ++i) {
        const char* name = zip_get_name(archive.get(), i, 0);
        if (name == nullptr) Fail(path, "is damaged");
        entries.push_back({name, ReadEntry(archive.get(), i, room, path)});
        room -= entries.back().Bytes.size();
    }
    return entries;
}

#else

namespace {
constexpr const char* without = "This program was built without libzip: it knows no bundles.";
}  // namespace

bool HasZip() {
    return false;
}
void WriteZip(const std::filesystem::path& /*path*/, const std::vector<ZipEntry>& /*entries*/,
              const ZipLimits& /*limits*/) {
    throw ZipFault(without);
}
std::vector<ZipEntry> ReadZip(const std::filesystem::path& /*path*/, const ZipLimits& /*limits*/) {
    throw ZipFault(without);
}

#endif

}  // namespace vestrel
