#include "catalogtool/libAstap.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cctype>
#include <cmath>
#include <numbers>
#include <span>

#include "astro/libMath.h"
#include "platform/libFiles.h"
#include "platform/libPlatform.h"

namespace vestrel {
namespace fs = std::filesystem;

namespace {

constexpr std::size_t textBytes = 110;  ///< text before the records; its last byte is their size

[[noreturn]] void Fail(const fs::path& file, const std::string& why) {
    throw ToolFailure(ToolExit::BadInput, TextFromPath(file) + ": " + why);
}

/// Whether a file belongs to a database. `database` becomes its name without the four digits and
/// without "_" at the end.
bool IsAstapFile(const fs::path& file, std::string& database) {
    const std::string extension = TextFromPath(file.extension());
    if (extension != ".1476" && extension != ".001") return false;
    database = TextFromPath(file.stem());
    for (int digit = 0; digit < 4; ++digit) {
        if (database.empty() || std::isdigit(static_cast<unsigned char>(database.back())) == 0) {
            return false;
        }
        database.pop_back();
    }
    if (database.ends_with('_')) database.pop_back();
    return true;
}

std::uint32_t LittleEndian(const unsigned char* bytes, int count) {
    std::uint32_t value = 0;
    for (int i = count; i-- > 0;) value = value << 8 | bytes[i];
    return value;
}

/// Reads records of 5 or 6 bytes. A record that starts with three bytes of 255 gives the magnitude
/// and the highest byte of the declination for those that follow.
std::uint64_t ReadPackedStars(const fs::path& file, std::span<const unsigned char> records,
                              std::size_t size, const StarSink& sink) {
    constexpr double raUnit = 2 * std::numbers::pi / 0xFFFFFF;
    constexpr double decUnit = 90 * RadiansPerDegree / (128 * 256 * 256 - 1);
    std::uint64_t stars = 0;
    bool known = false;
    int decHigh = 0;
    double magnitude = 0;
    for (; !records.empty(); records = records.subspan(size)) {
        const std::uint32_t ra = LittleEndian(records.data(), 3);
        if (ra == 0xFFFFFF) {
            decHigh = records[3] - 128;
            magnitude = (records[4] - 16) / 10.0;
            known = true;
            continue;
        }
        if (!known) Fail(file, "has stars before their magnitude");
        const int dec = decHigh * 65536 + static_cast<int>(LittleEndian(&records[3], 2));
        sink({ra * raUnit, std::clamp(dec * decUnit, -90 * RadiansPerDegree, 90 * RadiansPerDegree),
              magnitude});
        ++stars;
    }
    return stars;
}

/// Reads a count, and for each star three floats: ten times the magnitude, right ascension,
/// declination.
std::uint64_t ReadFloatStars(const fs::path& file, std::span<const unsigned char> bytes,
                             const StarSink& sink) {
    constexpr std::size_t recordBytes = 12;
    if (bytes.size() < 4) Fail(file, "is too short");
    const std::uint32_t count = LittleEndian(bytes.data(), 4);
    bytes = bytes.subspan(4);
    if (bytes.size() != std::uint64_t{count} * recordBytes) {
        Fail(file, "has not as many stars as it says");
    }
    for (; !bytes.empty(); bytes = bytes.subspan(recordBytes)) {
        const auto number = [&](std::size_t at) {
            return static_cast<double>(std::bit_cast<float>(LittleEndian(&bytes[at], 4)));
        };
        sink({number(4), number(8), number(0) / 10});
    }
    return count;
}

}  // namespace

std::vector<AstapDatabase> AstapDatabasesIn(const fs::path& folder) {
    std::vector<fs::path> files;
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
        files.push_back(entry->path());
    }
    // Sorted by name, because the order of a folder's entries must not matter.
    std::sort(files.begin(), files.end());
    std::vector<AstapDatabase> databases;
    for (const fs::path& file : files) {
        std::string name;
        if (!IsAstapFile(file, name)) continue;
        auto known = std::find_if(databases.begin(), databases.end(),
                                  [&](const AstapDatabase& other) { return other.Name == name; });
        if (known == databases.end()) known = databases.insert(known, {name, {}});
        known->Files.push_back(file);
    }
    return databases;
}

AstapDatabase ChosenAstapDatabase(const fs::path& folderOrName) {
    std::error_code ignored;
    const bool isFolder = fs::is_directory(folderOrName, ignored);
    const fs::path folder = isFolder ? folderOrName : folderOrName.parent_path();
    std::vector<AstapDatabase> databases = AstapDatabasesIn(folder);
    if (!isFolder) {
        const std::string wanted = TextFromPath(folderOrName.filename());
        std::erase_if(databases, [&](const AstapDatabase& other) { return other.Name != wanted; });
    }
    if (databases.empty()) {
        Fail(folderOrName,
             "holds no star database of ASTAP (files like d50_0101.1476; those that "
             "end in .290 are of another kind)");
    }
    if (databases.size() > 1) {
        std::string names;
        for (const AstapDatabase& other : databases) names += " " + other.Name;
        Fail(folderOrName, "holds several star databases:" + names + "; name one, as in " +
                               TextFromPath(folder / databases.front().Name));
    }
    return databases.front();
}

std::uint64_t ReadAstapFile(const fs::path& file, const StarSink& sink) {
    constexpr std::size_t largest = std::size_t{1} << 30;  // a 1476th of the sky
    std::vector<unsigned char> bytes;
    if (!ReadWholeFile(file, largest, bytes)) Fail(file, "cannot be read");
    if (file.extension() == ".001") return ReadFloatStars(file, bytes, sink);
    if (bytes.size() < textBytes) Fail(file, "is too short");
    const std::size_t size = bytes[textBytes - 1];
    if (size != 5 && size != 6) Fail(file, "has records of neither 5 nor 6 bytes");
    const auto records = std::span(bytes).subspan(textBytes);
    if (records.size() % size != 0) Fail(file, "ends within a record");
    return ReadPackedStars(file, records, size, sink);
}

}  // namespace vestrel
