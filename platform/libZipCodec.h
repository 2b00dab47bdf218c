// What the module "zip" exports: packing and unpacking of archives in memory.
#pragma once

#include <string>
#include <vector>

#include "platform/libZipFile.h"

namespace vestrel {

/// Packs entries. `fault` stays empty when that succeeds; else it ends a sentence about the
/// archive.
using PackZip = void(const std::vector<ZipEntry>& entries, std::vector<unsigned char>& packed,
                     std::string& fault);

/// Unpacks all entries. Encrypted ones are refused. `fault` as above.
using UnpackZip = void(const std::vector<unsigned char>& packed, const ZipLimits& limits,
                       std::vector<ZipEntry>& entries, std::string& fault);

/// What a module of the same build answers.
using ZipVersion = const char*();

}  // namespace vestrel
