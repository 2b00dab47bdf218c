#include "platform/libZipFile.h"

#include <string_view>
#include <system_error>

#include "platform/libFiles.h"
#include "platform/libModule.h"
#include "platform/libPlatform.h"
#include "platform/libZipCodec.h"

namespace vestrel {

namespace {

constexpr const char* module = "zip";

[[noreturn]] void Fail(const std::filesystem::path& path, const std::string& what) {
    throw ZipFault(TextFromPath(path) + " " + what);
}

/// A function of the module, which must be of this build.
template <typename Function>
Function* InModule(const char* name) {
    if (!HasZip()) {
        throw ZipFault("This program was built without libzip: it knows no bundles.");
    }
    std::string reason;
    auto* const version =
        reinterpret_cast<ZipVersion*>(ModuleFunction(module, "VestrelZipVersion", reason));
    auto* const function = reinterpret_cast<Function*>(ModuleFunction(module, name, reason));
    if (!reason.empty()) throw ZipFault("The module for bundles cannot be loaded: " + reason);
    if (std::string_view(version()) != VESTREL_ZIP_VERSION) {
        throw ZipFault("The module for bundles is of another version: install Vestrel anew.");
    }
    return function;
}

}  // namespace

bool HasZip() {
    return HasModule(module);
}

void WriteZip(const std::filesystem::path& path, const std::vector<ZipEntry>& entries,
              const ZipLimits& limits) {
    std::size_t bytes = 0;
    for (const ZipEntry& entry : entries) bytes += entry.Bytes.size();
    if (bytes > limits.MostBytes || entries.size() > limits.MostEntries) {
        Fail(path, "would hold more than a bundle may");
    }
    std::vector<unsigned char> packed;
    std::string fault;
    InModule<PackZip>("VestrelPackZip")(entries, packed, fault);
    if (!fault.empty()) Fail(path, fault);
    try {
        WriteWholeFile(path, packed);
    } catch (const std::system_error& error) {
        Fail(path, "cannot be written: " + error.code().message());
    }
}

std::vector<ZipEntry> ReadZip(const std::filesystem::path& path, const ZipLimits& limits) {
    const auto unpack = InModule<UnpackZip>("VestrelUnpackZip");
    std::vector<unsigned char> packed;
    if (!ReadWholeFile(path, limits.MostBytes, packed)) {
        Fail(path, "cannot be read, or is larger than a bundle may be");
    }
    std::vector<ZipEntry> entries;
    std::string fault;
    unpack(packed, limits, entries, fault);
    if (!fault.empty()) Fail(path, fault);
    return entries;
}

}  // namespace vestrel
