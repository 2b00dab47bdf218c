// The module "zip". libzip brings a library for encryption that takes longer to load than small
// pictures to solve, so it is loaded for bundles only.
#include <zip.h>

#include <memory>
#include <new>
#include <stdexcept>

#include "platform/libZipCodec.h"

namespace vestrel {

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

[[noreturn]] void Fail(const std::string& what) {
    throw std::runtime_error(what);
}

/// An archive over bytes in memory. The caller keeps its own reference to the source.
Archive OpenArchive(zip_source_t* source, int flags) {
    zip_error_t error;
    zip_error_init(&error);
    zip_source_keep(source);
    Archive archive(zip_open_from_source(source, flags, &error));
    const std::string reason = zip_error_strerror(&error);
    zip_error_fini(&error);
    if (!archive) {
        zip_source_free(source);
        Fail("is no archive: " + reason);
    }
    return archive;
}

std::string ReadEntry(zip_t* archive, zip_uint64_t number, std::size_t room) {
    const Entry entry(zip_fopen_index(archive, number, 0));
    if (!entry) Fail(std::string("cannot be unpacked: ") + zip_strerror(archive));
    // The sizes that the archive states are not trusted.
    constexpr std::size_t piece = std::size_t{1} << 16;
    std::string bytes;
    for (;;) {
        const std::size_t before = bytes.size();
        bytes.resize(before + piece);
        const zip_int64_t count = zip_fread(entry.get(), bytes.data() + before, piece);
        if (count < 0) Fail("is damaged");
        bytes.resize(before + static_cast<std::size_t>(count));
        if (count == 0) return bytes;
        if (bytes.size() > room) Fail("holds more than a bundle may");
    }
}

std::vector<unsigned char> Pack(const std::vector<ZipEntry>& entries) {
    const auto failWith = [](zip_t* archive) {
        Fail(std::string("cannot be written: ") + zip_strerror(archive));
    };
    zip_error_t error;
    zip_error_init(&error);
    const Source memory(zip_source_buffer_create(nullptr, 0, 0, &error));
    zip_error_fini(&error);
    if (!memory) throw std::bad_alloc();
    Archive archive = OpenArchive(memory.get(), ZIP_TRUNCATE);
    for (const ZipEntry& entry : entries) {
        zip_source_t* source =
            zip_source_buffer(archive.get(), entry.Bytes.data(), entry.Bytes.size(), 0);
        if (source == nullptr ||
            zip_file_add(archive.get(), entry.Name.c_str(), source, ZIP_FL_ENC_UTF_8) < 0) {
            zip_source_free(source);
            failWith(archive.get());
        }
    }
    if (zip_close(archive.get()) < 0) failWith(archive.get());
    static_cast<void>(archive.release());  // closed
    zip_stat_t facts;
    zip_stat_init(&facts);
    if (zip_source_stat(memory.get(), &facts) < 0 || zip_source_open(memory.get()) < 0) {
        Fail("cannot be written");
    }
    std::vector<unsigned char> packed(static_cast<std::size_t>(facts.size));
    const zip_int64_t read = zip_source_read(memory.get(), packed.data(), packed.size());
    zip_source_close(memory.get());
    if (read != static_cast<zip_int64_t>(packed.size())) Fail("cannot be written");
    return packed;
}

std::vector<ZipEntry> Unpack(const std::vector<unsigned char>& packed, const ZipLimits& limits) {
    zip_error_t error;
    zip_error_init(&error);
    const Source memory(zip_source_buffer_create(packed.data(), packed.size(), 0, &error));
    zip_error_fini(&error);
    if (!memory) throw std::bad_alloc();
    const Archive archive = OpenArchive(memory.get(), ZIP_RDONLY | ZIP_CHECKCONS);
    const zip_int64_t count = zip_get_num_entries(archive.get(), 0);
    if (count < 0 || static_cast<std::size_t>(count) > limits.MostEntries) {
        Fail("holds more files than a bundle may");
    }
    std::size_t room = limits.MostBytes;
    std::vector<ZipEntry> entries;
    for (zip_uint64_t i = 0; i < static_cast<zip_uint64_t>(count); ++i) {
        const char* name = zip_get_name(archive.get(), i, 0);
        if (name == nullptr) Fail("is damaged");
        entries.push_back({name, ReadEntry(archive.get(), i, room)});
        room -= entries.back().Bytes.size();
    }
    return entries;
}

/// Exceptions must not leave a module: they become `fault`.
template <typename Work>
void Guarded(std::string& fault, Work work) {
    try {
        work();
    } catch (const std::bad_alloc&) {
        fault = "needs more memory than there is";
    } catch (const std::exception& error) {
        fault = error.what();
    }
}

}  // namespace

}  // namespace vestrel

#define VESTREL_EXPORTED extern "C" __attribute__((visibility("default")))

VESTREL_EXPORTED const char* VestrelZipVersion() {
    return VESTREL_ZIP_VERSION;
}

VESTREL_EXPORTED void VestrelPackZip(const std::vector<vestrel::ZipEntry>& entries,
                                     std::vector<unsigned char>& packed, std::string& fault) {
    vestrel::Guarded(fault, [&] { packed = vestrel::Pack(entries); });
}

VESTREL_EXPORTED void VestrelUnpackZip(const std::vector<unsigned char>& packed,
                                       const vestrel::ZipLimits& limits,
                                       std::vector<vestrel::ZipEntry>& entries,
                                       std::string& fault) {
    vestrel::Guarded(fault, [&] { entries = vestrel::Unpack(packed, limits); });
}
