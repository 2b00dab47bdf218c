#include "image/libSBIG.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <exception>
#include <new>
#include <stdexcept>
#include <variant>
#include <vector>

#include "astro/libMath.h"
#include "astro/libStrings.h"
#include "platform/libFiles.h"

namespace vestrel {

namespace {

constexpr std::int64_t shortestFile = 1000;
constexpr std::size_t headerLength = 2048;
constexpr int mostLines = 1000;
/// No camera writes a longer header. Without the limit, a file without line ends would be read as
/// one.
constexpr std::size_t longestHeader = std::size_t{1} << 20;
constexpr std::int32_t offset = 32768;
constexpr std::int16_t pedestalReduction = 100;
constexpr const char* generalFailure = "Can't open image file";

double AsIs(double value) {
    return value;
}
double HundredthsToSeconds(double value) {
    return value / 100;
}
double InchesToMillimetres(double value) {
    return value * 25.4;
}
double SquareInchesToSquareMillimetres(double value) {
    return value * 25.4 * 25.4;
}
double MillimetresToMicrometres(double value) {
    return value * 1000;
}

/// A number that is converted to the unit of its field.
struct Measure {
    double ImageHeader::*Field;
    double (*Convert)(double);
};
struct SbigKeyword {
    std::string_view Keyword;
    std::string_view Name;  ///< in messages
    std::variant<std::int16_t ImageHeader::*, Measure, std::string ImageHeader::*> Where;
};

const SbigKeyword* FindKeyword(std::string_view keyword) {
    using H = ImageHeader;
    static const SbigKeyword table[] = {
        {"HEIGHT", "Height", &H::NAxis2},
        {"WIDTH", "Width", &H::NAxis1},
        {"PEDESTAL", "Pedestal", &H::Pedestal},
        {"TEMPERATURE", "Temperature", Measure{&H::CcdTemperature, AsIs}},
        {"EXPOSURE", "Exposure", Measure{&H::ExposureTime, HundredthsToSeconds}},
        {"FOCAL_LENGTH", "Focal Length", Measure{&H::FocalLength, InchesToMillimetres}},
        {"APERTURE", "Aperture Area", Measure{&H::ApertureArea, SquareInchesToSquareMillimetres}},
        {"NOTE", "", &H::Note},
        {"DATE", "", &H::Date},
        {"TIME", "", &H::Time},
        {"OBSERVER", "", &H::Observer},
        {"X_PIXEL_SIZE", "X Pixel Size", Measure{&H::XPixelSize, MillimetresToMicrometres}},
        {"Y_PIXEL_SIZE", "Y Pixel Size", Measure{&H::YPixelSize, MillimetresToMicrometres}},
        {"E_GAIN", "E Gain", Measure{&H::ElectronGain, AsIs}},
        {"FILTER", "", &H::Filter},
    };
    const auto* const found =
        std::find_if(std::begin(table), std::end(table),
                     [keyword](const SbigKeyword& entry) { return entry.Keyword == keyword; });
    return found == std::end(table) ? nullptr : found;
}

/// The next line: the bytes up to a carriage return, without line feeds (which stand before or
/// after the carriage return, depending on the program that wrote the file) and without the blanks
/// around it.
/// @param bytesRead grows by the bytes used, the carriage return included
/// @param feedFollows whether line feeds stand after the carriage returns, by this line
std::string ReadLine(std::FILE* file, std::size_t& bytesRead, bool& feedFollows) {
    std::string line;
    int last = '\r';
    for (bool first = true;; first = false) {
        const int byte = std::getc(file);
        if (byte == EOF) throw std::runtime_error("the file ends inside the header");
        ++bytesRead;
        if (first) feedFollows = byte == '\n';
        if (byte == '\r') {
            feedFollows = feedFollows && last != '\n';
            return std::string(Trim(line));
        }
        last = byte;
        if (byte != '\n') line += static_cast<char>(byte);
        if (bytesRead > longestHeader) throw std::runtime_error("its header has no end");
    }
}

/// Reads the lines up to END and moves to the first byte of the rows.
bool ReadHeader(std::FILE* file, ImageHeader& header, ReadFailure& failure) {
    std::size_t bytesRead = 0;
    bool feedFollows = false;
    std::string line = ReadLine(file, bytesRead, feedFollows);
    header.Cards[1] = line;
    header.Compressed = UpperCase(line).find("COMPRESSED") != std::string::npos;
    int counter = 1;
    while (UpperCase(line) != "END") {
        ++counter;
        line = ReadLine(file, bytesRead, feedFollows);
        if (counter < mostLines) header.Cards[static_cast<std::size_t>(counter)] = line;
        std::string error;
        try {
            ParseSbigLine(line, header, error);
        } catch (const std::range_error&) {
            throw std::range_error("a value that is too large: " + line);
        }
        if (!error.empty()) {
            failure = {"Unable to read SBIG file. " + error, "SBIG Header Error"};
            return false;
        }
        if (counter == mostLines) {
            failure = {"Unable to completely read SBIG header.  Header is too long.",
                       "SBIG Header Error"};
            return false;
        }
    }
    header.CardCount = static_cast<std::int16_t>(counter);
    // A header that fills its block is followed by the rows at once: the line feed of its last line
    // must not become part of them.
    if (feedFollows && bytesRead >= headerLength) (void)std::getc(file);
    for (; bytesRead < headerLength; ++bytesRead) (void)std::getc(file);
    return true;
}

/// The bytes of the rows that are not yet used. They are read in pieces, which stay in the cache.
/// The last byte of the last row counts as 0 when only that is missing.
class RowBytes {
 public:
    /// @param longestRow bytes
    RowBytes(std::FILE* file, std::size_t longestRow)
        : file_(file), longestRow_(longestRow), buffer_(std::max(pieceBytes, longestRow + 1)) {}

    /// Reads on where less than a row is left.
    void BeginRow() {
        if (left_ >= longestRow_ || atEnd_) return;
        std::copy_n(next_, left_, buffer_.begin());
        next_ = buffer_.data();
        left_ += std::fread(buffer_.data() + left_, 1, buffer_.size() - 1 - left_, file_);
        atEnd_ = left_ + 1 < buffer_.size();
        if (atEnd_) buffer_[left_++] = 0;
    }
    const std::uint8_t* Take(std::size_t count) {
        if (count > left_) throw std::runtime_error("the file ends before the last row");
        const std::uint8_t* taken = next_;
        next_ += count;
        left_ -= count;
        return taken;
    }
    std::int32_t Take16() {
        const std::uint8_t* bytes = Take(2);
        return bytes[0] + bytes[1] * 256;
    }

 private:
    static constexpr std::size_t pieceBytes = std::size_t{256} << 10;

    std::FILE* file_;
    std::size_t longestRow_;
    std::vector<std::uint8_t> buffer_;
    const std::uint8_t* next_ = nullptr;
    std::size_t left_ = 0;
    bool atEnd_ = false;
};

/// Converts a compressed row. @return the bytes used
std::size_t ReadCompressedRow(RowBytes& bytes, std::int32_t* row, std::int32_t width) {
    constexpr int escape = 128;
    std::int32_t value = bytes.Take16();
    std::size_t used = 2;
    if (width > 0) row[0] = value - offset;
    for (std::int32_t x = 1; x < width; ++x) {
        const std::uint8_t delta = *bytes.Take(1);
        if (delta == escape) {
            value = bytes.Take16();
            used += 3;
        } else {
            value += static_cast<std::int8_t>(delta);
            ++used;
        }
        row[x] = value - offset;
    }
    return used;
}

bool ReadRows(RowBytes bytes, PlateImage& image, const Progress& progress, ReadFailure& failure) {
    std::vector<std::int32_t> row(static_cast<std::size_t>(image.Width));
    for (std::int32_t y = 0; y < image.Height; ++y) {
        bytes.BeginRow();
        const std::int32_t length = bytes.Take16();
        if (length == 2 * image.Width) {
            for (std::int32_t& value : row) value = bytes.Take16() - offset;
        } else if (ReadCompressedRow(bytes, row.data(), image.Width) !=
                   static_cast<std::size_t>(length)) {
            failure = {
                "Unable to read SBIG file. Incorrect number of bytes in line " + std::to_string(y),
                "SBIG Reading Error"};
            return false;
        }
        // Differences can lead beyond the counts of 16 bits.
        if (!image.Pixels.Fits(row)) image.Pixels.Wide(y);
        image.Pixels.Store(0, y, row);
        if (y % 20 == 0 && progress) progress(y, image.Height);
    }
    if (progress) progress(0, image.Height);
    return true;
}

bool ReadPixels(std::FILE* file, PlateImage& image, const Progress& progress,
                ReadFailure& failure) {
    ImageHeader& header = image.Header;
    if (header.NAxis1 < 0 || header.NAxis2 < 0) {
        throw std::range_error("a negative size: Width = " + std::to_string(header.NAxis1) +
                               ", Height = " + std::to_string(header.NAxis2));
    }
    if (!RoundToInt16(header.Pedestal - pedestalReduction, header.Pedestal)) {
        throw std::range_error("a value that is too small: Pedestal");
    }
    StartPixels(image, offset, CellWidth::Narrow);
    // A length, and an escape sequence for each pixel.
    const std::size_t longestRow = 2 + 3 * (static_cast<std::size_t>(header.NAxis1) + 1);
    return ReadRows({file, longestRow}, image, progress, failure);
}

}  // namespace

bool ReadSbigFile(const std::filesystem::path& path, PlateImage& image, const Progress& progress,
                  ReadFailure& failure) {
    failure = {};
    ImageHeader& header = image.Header;
    ClearHeader(header);
    try {
        const FileHandle file = OpenFile(path, "rb");
        if (!file) throw std::runtime_error("it cannot be opened");
        const std::int64_t fileLength = FileLength(file.get());
        if (fileLength < 0) throw std::runtime_error("it is no file");
        if (fileLength < shortestFile) {
            failure.Cause = "it has " + std::to_string(fileLength) + " bytes, too few for an image";
            return false;
        }
        if (!ReadHeader(file.get(), header, failure)) return false;
        header.BitPix = 16;
        header.BScale = 1;
        header.BZero = offset;
        header.DataMax = 65535;
        header.NAxis = 2;
        header.Simple = true;
        return ReadPixels(file.get(), image, progress, failure);
    } catch (const std::bad_alloc&) {
        failure = {generalFailure, DefaultTitle, "there is not enough memory for it"};
        return false;
    } catch (const std::exception& error) {
        failure = {generalFailure, DefaultTitle, error.what()};
        return false;
    }
}

std::string ParseSbigLine(std::string_view line, ImageHeader& header, std::string& error) {
    error.clear();
    const std::size_t equals = line.find('=');
    if (equals == std::string_view::npos) return {};
    std::string keyword = UpperCase(Trim(line.substr(0, equals)));
    const std::string_view value = Trim(line.substr(equals + 1));
    const SbigKeyword* entry = FindKeyword(keyword);
    if (entry == nullptr) return keyword;
    if (const auto* text = std::get_if<std::string ImageHeader::*>(&entry->Where)) {
        header.*(*text) = value;
        return keyword;
    }
    const auto number = ParseNumber(value);
    if (!number) {
        error = "Non-numeric " + std::string(entry->Name) + " parameter";
    } else if (const auto* whole = std::get_if<std::int16_t ImageHeader::*>(&entry->Where)) {
        if (!RoundToInt16(*number, header.*(*whole))) throw std::range_error("integer too large");
    } else {
        const Measure measure = std::get<Measure>(entry->Where);
        const double converted = measure.Convert(*number);
        if (!std::isfinite(converted)) throw std::range_error("number too large");
        header.*measure.Field = converted;
    }
    return keyword;
}

}  // namespace vestrel
