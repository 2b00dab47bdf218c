// Zip archives in memory: small files under names, written whole and read within limits.
#pragma once

#include <cstddef>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

namespace vestrel {

struct ZipEntry {
    std::string Name;  ///< as the archive has it: never used as a path by this module
    std::string Bytes;
};

/// Why an archive cannot be read or written, in a sentence.
struct ZipFault : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The limits of an archive, since a small one can unpack to any size.
struct ZipLimits {
    std::size_t MostEntries = 5000;
    std::size_t MostBytes = std::size_t{512}
                            << 20;  ///< of the archive, and of all entries unpacked
};

/// Whether this program was built with the library for archives.
bool HasZip();

/// Writes an archive, whole or not at all.
/// @throws ZipFault
void WriteZip(const std::filesystem::path& path, const std::vector<ZipEntry>& entries,
              const ZipLimits& limits = {});

/// Reads all entries of an archive. Encrypted ones are refused.
/// @throws ZipFault
std::vector<ZipEntry> ReadZip(const std::filesystem::path& path, const ZipLimits& limits = {});

}  // namespace vestrel
