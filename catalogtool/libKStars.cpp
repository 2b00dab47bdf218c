#include "catalogtool/libKStars.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "astro/libMath.h"
#include "catalogtool/libFastStars.h"
#include "platform/libFiles.h"
#include "platform/libPlatform.h"

namespace vestrel {
namespace fs = std::filesystem;

namespace {

constexpr std::size_t textBytes = 124;
constexpr std::size_t startBytes = textBytes + 5;  ///< up to the first field
constexpr std::size_t fieldBytes = 16;
constexpr std::size_t nameBytes = 10;
constexpr std::size_t partBytes = 12;
constexpr std::size_t lastBytes = 5;  ///< between the parts of the sky and the stars

constexpr std::uint32_t mostFields = 64;
constexpr std::uint32_t mostParts = 1U << 17;  ///< the finest division that is in use has 32,768

/// A two's complement number of at most 4 bytes, little-endian.
std::int64_t SignedNumber(const unsigned char* bytes, std::size_t size) {
    std::uint64_t value = 0;
    for (std::size_t i = size; i-- > 0;) value = value << 8 | bytes[i];
    const std::uint64_t sign = std::uint64_t{1} << (8 * size - 1);
    return static_cast<std::int64_t>(value ^ sign) - static_cast<std::int64_t>(sign);
}

std::uint32_t UnsignedNumber(const unsigned char* bytes, std::size_t size) {
    return static_cast<std::uint32_t>(SignedNumber(bytes, size) & ((1LL << (8 * size)) - 1));
}

struct Field {
    std::string Name;
    std::size_t At = 0;  ///< in a record
    std::size_t Size = 0;
    double Factor = 1;  ///< factor by which the stored values were multiplied

    std::int64_t Raw(const unsigned char* record) const { return SignedNumber(record + At, Size); }
    double Value(const unsigned char* record) const {
        return static_cast<double>(Raw(record)) / Factor;
    }
};

class KStarsFile {
 public:
    explicit KStarsFile(const fs::path& path)
        : name_(TextFromPath(path)), file_(OpenFile(path, "rb")) {
        if (!file_) Fail("cannot be opened: " + SystemErrorText());
        length_ = FileLength(file_.get());
        const std::vector<unsigned char> start = Read(startBytes);
        const std::string_view mark(reinterpret_cast<const char*>(&start[textBytes]), 2);
        if (mark == "KS") Fail("was written by a machine of the other byte order");
        const std::uint32_t count = UnsignedNumber(&start[textBytes + 3], 2);
        if (mark != "SK" || count == 0 || count > mostFields) Fail("is not a star file of KStars");
        ReadFields(count);
        ReadParts();
    }

    /// A field by name; empty when the records lack it.
    const Field* Find(std::string_view name) const {
        const auto found = std::find_if(fields_.begin(), fields_.end(),
                                        [&](const Field& field) { return field.Name == name; });
        return found == fields_.end() ? nullptr : &*found;
    }
    const Field& Require(std::string_view name) const {
        const Field* field = Find(name);
        if (field == nullptr) Fail("has stars without \"" + std::string(name) + "\"");
        return *field;
    }

    std::uint64_t Count() const { return count_; }
    std::size_t RecordBytes() const { return recordBytes_; }

    /// The next `most` records; fewer only at the end of the file.
    std::vector<unsigned char> ReadRecords(std::uint64_t most) {
        return Read(static_cast<std::size_t>(most) * recordBytes_);
    }

    [[noreturn]] void Fail(const std::string& why) const {
        throw ToolFailure(ToolExit::BadInput, name_ + ": " + why);
    }

 private:
    std::vector<unsigned char> Read(std::size_t size) {
        std::vector<unsigned char> bytes(size);
        if (std::fread(bytes.data(), 1, size, file_.get()) != size) Fail("is cut short");
        return bytes;
    }

    void ReadFields(std::uint32_t count) {
        const std::vector<unsigned char> bytes = Read(count * fieldBytes);
        for (std::uint32_t i = 0; i < count; ++i) {
            const unsigned char* at = &bytes[i * fieldBytes];
            Field field;
            const auto* name = reinterpret_cast<const char*>(at);
            field.Name.assign(name, std::find(name, name + nameBytes, '\0'));
            field.At = recordBytes_;
            field.Size = at[nameBytes];
            const std::int64_t factor = SignedNumber(at + nameBytes + 2, 4);
            field.Factor = factor == 0 ? 1 : static_cast<double>(factor);
            recordBytes_ += field.Size;
            fields_.push_back(field);
        }
        for (const char* name : {"RA", "Dec", "dRA", "dDec", "mag", "V", "B"}) {
            const Field* field = Find(name);
            if (field == nullptr) continue;
            if ((field->Size != 2 && field->Size != 4) || field->Factor < 1) {
                Fail("has a field \"" + field->Name + "\" that is no number");
            }
        }
    }

    /// The parts of the sky must follow one another up to the end of the file.
    void ReadParts() {
        const std::uint32_t parts = UnsignedNumber(Read(4).data(), 4);
        if (parts == 0 || parts > mostParts) Fail("divides the sky in a way that is not known");
        const std::vector<unsigned char> bytes = Read(parts * partBytes);
        (void)Read(lastBytes);
        std::uint64_t place = startBytes + fields_.size() * fieldBytes + 4 +
                              std::uint64_t{parts} * partBytes + lastBytes;
        for (std::uint32_t i = 0; i < parts; ++i) {
            const unsigned char* part = &bytes[i * partBytes];
            if (UnsignedNumber(part, 4) != i || UnsignedNumber(part + 4, 4) != place) {
                Fail("has its stars in other places than it says");
            }
            const std::uint64_t stars = UnsignedNumber(part + 8, 4);
            place += stars * recordBytes_;
            count_ += stars;
        }
        if (static_cast<std::int64_t>(place) != length_) {
            Fail("has not as many stars as it says");
        }
        if (count_ == 0) Fail("holds no stars");
    }

    std::string name_;
    FileHandle file_;
    std::int64_t length_ = 0;
    std::vector<Field> fields_;
    std::size_t recordBytes_ = 0;
    std::uint64_t count_ = 0;
};

/// The magnitude of a star: the visual one, else the blue one; 99 when it has neither.
class StarMagnitude {
 public:
    explicit StarMagnitude(const KStarsFile& file) : mag_(file.Find("mag")), blue_(nullptr) {
        if (mag_ != nullptr) return;
        mag_ = &file.Require("V");
        blue_ = file.Find("B");
    }
    double Of(const unsigned char* record) const {
        constexpr std::int64_t none = 30000;
        constexpr double blueToVisual = 1.6;
        if (blue_ == nullptr || mag_->Raw(record) != none) return mag_->Value(record);
        return blue_->Raw(record) == none ? 99 : blue_->Value(record) - blueToVisual;
    }

 private:
    const Field* mag_;
    const Field* blue_;
};

/// Whether a file has a name that KStars gives to star files.
bool IsStarFileName(const fs::path& name) {
    constexpr std::array<const char*, 4> names = {"namedstars.dat", "unnamedstars.dat",
                                                  "deepstars.dat", "USNO-NOMAD-1e8.dat"};
    return std::find(names.begin(), names.end(), TextFromPath(name)) != names.end();
}

bool IsOfBrightStars(const KStarsFile& file) {
    return file.Find("mag") != nullptr;
}

}  // namespace

std::vector<fs::path> KStarsFilesIn(const fs::path& folder) {
    std::vector<fs::path> files;
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
        if (entry->path().extension() != ".dat") continue;
        // These are refused by name when they are damaged; of other files it is not known whether
        // they should hold stars.
        if (IsStarFileName(entry->path().filename())) {
            files.push_back(entry->path());
            continue;
        }
        const FileHandle file = OpenFile(entry->path(), "rb");
        std::vector<char> start(startBytes + nameBytes);
        if (!file || std::fread(start.data(), 1, start.size(), file.get()) != start.size())
            continue;
        // The file of names has a different first field.
        if (std::memcmp(&start[textBytes], "SK", 2) == 0 &&
            std::memcmp(&start[startBytes], "RA", 3) == 0) {
            files.push_back(entry->path());
        }
    }
    std::sort(files.begin(), files.end());
    std::stable_partition(files.begin(), files.end(), HasBrightStarsOnly);
    return files;
}

bool HasBrightStarsOnly(const fs::path& file) {
    try {
        return IsOfBrightStars(KStarsFile(file));
    } catch (const ToolFailure&) {
        return false;
    }
}

KStarsStars ReadKStarsFile(const fs::path& file, double epoch, const StarSink& sink,
                           ProgressLine& progress) {
    KStarsFile stars(file);
    const Field& ra = stars.Require("RA");
    const Field& dec = stars.Require("Dec");
    const Field* motionRa = stars.Find("dRA");
    const Field* motionDec = stars.Find("dDec");
    const StarMagnitude magnitude(stars);
    KStarsStars result;
    result.Rows = stars.Count();
    const std::string task = "Reading " + TextFromPath(file.filename());
    constexpr std::uint64_t block = 8192;
    for (std::uint64_t first = 0; first < result.Rows; first += block) {
        progress.Show(task, first, result.Rows, first);
        const std::uint64_t rows = std::min(block, result.Rows - first);
        const std::vector<unsigned char> bytes = stars.ReadRecords(rows);
        for (std::uint64_t i = 0; i < rows; ++i) {
            const unsigned char* record = &bytes[static_cast<std::size_t>(i) * stars.RecordBytes()];
            SkyStar star{ra.Value(record) * 15 * RadiansPerDegree,
                         dec.Value(record) * RadiansPerDegree, magnitude.Of(record)};
            if (const std::optional<SkyStar> fast = FastStarAt(star, epoch)) {
                star = *fast;
                ++result.Moved;
            } else if (motionRa != nullptr && motionDec != nullptr && StoredStar(star)) {
                const ProperMotion motion{motionRa->Value(record), motionDec->Value(record)};
                star = MovedStar(star, motion, epoch - 2000);
                ++result.Moved;
            }
            sink(star);
        }
    }
    return result;
}

}  // namespace vestrel
