// Reading SBIG files that an encoder in this test has written.

#include <gtest/gtest.h>

#include "image/libSBIG.h"
#include "tests/testSupport.h"

namespace vestrel {
namespace {

const std::string general = "Vestrel: Can't open image file";

/// Header lines, END and filler up to the rows.
std::string Header(const std::vector<std::string>& lines, const std::string& lineEnd = "\n\r") {
    std::string header;
    for (const std::string& line : lines) header += line + lineEnd;
    header += "END" + lineEnd;
    if (header.size() < 2048) header.resize(2048, '\x1A');
    return header;
}

std::vector<std::string> Lines(int width, int height, const std::vector<std::string>& more = {}) {
    std::vector<std::string> lines = {"ST-7 Compressed Image", "Height = " + std::to_string(height),
                                      "Width = " + std::to_string(width)};
    lines.insert(lines.end(), more.begin(), more.end());
    return lines;
}

std::string Two(int value) {
    return {static_cast<char>(value & 255), static_cast<char>(value >> 8 & 255)};
}

/// A row as a camera writes it: raw when deltas would need more bytes.
std::string Row(const std::vector<int>& values) {
    std::string raw;
    std::string deltas;
    for (std::size_t x = 0; x < values.size(); ++x) {
        raw += Two(values[x]);
        const int delta = x == 0 ? 1000 : values[x] - values[x - 1];
        if (x == 0) {
            deltas = Two(values[x]);
        } else if (delta >= -127 && delta <= 127) {
            deltas += static_cast<char>(delta);
        } else {
            deltas += '\x80' + Two(values[x]);
        }
    }
    const std::string& shorter = deltas.size() < raw.size() ? deltas : raw;
    return Two(static_cast<int>(shorter.size())) + shorter;
}

struct Reader {
    TemporaryFolder Folder;
    PlateImage Image;
    std::string Complaint;
    std::vector<int> Reported;

    bool Read(const std::string& bytes) {
        WriteFile(Folder / "image.sbig", bytes);
        return ReadPath(Folder / "image.sbig");
    }
    bool ReadPath(const std::filesystem::path& path) {
        ReadFailure failure;
        Reported.clear();
        const bool good = ReadSbigFile(
            path, Image, [this](int done, int) { Reported.push_back(done); }, failure);
        Complaint = failure.Text.empty() ? "" : failure.Title + ": " + failure.Text;
        return good;
    }
};

}  // namespace

TEST(Sbig, WhatACameraWritesIsReadBack) {
    Reader reader;
    Random random(5);
    int files = 0;
    for (const auto& [width, height] : {std::pair{1, 1}, {2, 1}, {37, 45}, {500, 3}, {900, 350}}) {
        for (const std::string lineEnd : {"\n\r", "\r\n", " \n\r", "\r"}) {
            // Calm rows compress, noisy ones escape, wild ones stay raw.
            std::string rows;
            std::vector<std::vector<int>> values;
            for (int y = 0; y < height; ++y) {
                const int spread = y % 3 == 0 ? 60 : y % 3 == 1 ? 150 : 65535;
                std::vector<int> row(static_cast<std::size_t>(width));
                for (int& count : row) {
                    count = std::clamp(30000 + random.Whole(-spread, spread), 0, 65535);
                }
                rows += Row(row);
                values.push_back(row);
            }
            std::vector<std::string> lines = Lines(width, height, {"nOtE = a / b = c "});
            // Beyond 2048 bytes the rows follow the header at once.
            if (++files % 3 == 0) {
                lines.push_back("Filler = " + std::string(2100, 'x'));
            }
            std::string bytes = Header(lines, lineEnd) + rows;
            if (bytes.size() < 1000) bytes.resize(1000);
            ASSERT_TRUE(reader.Read(bytes)) << reader.Complaint;
            EXPECT_EQ(reader.Complaint, "");
            ASSERT_EQ(reader.Image.Width, width);
            ASSERT_EQ(reader.Image.Height, height);
            for (int y = 0; y < height; ++y) {
                for (int x = 0; x < width; ++x) {
                    ASSERT_EQ(reader.Image.Pixels(x, y) + reader.Image.DataOffset,
                              values[static_cast<std::size_t>(y)][static_cast<std::size_t>(x)]);
                }
                EXPECT_EQ(reader.Image.Pixels(width, y), 0);
            }
            EXPECT_EQ(reader.Image.Header.Cards[3], "Width = " + std::to_string(width));
            EXPECT_EQ(reader.Image.Header.Cards[reader.Image.Header.CardCount], "END");
            if (height == 45) {
                EXPECT_EQ(reader.Reported, (std::vector<int>{0, 20, 40, 0}));
            }
        }
    }
}

TEST(Sbig, RowsByHand) {
    Reader reader;
    const auto read = [&reader](int width, const std::string& row, int height = 1) {
        return reader.Read(Header(Lines(width, height)) + row);
    };
    const auto stored = [&reader](int x) { return reader.Image.Pixels(x, 0) + 32768; };
    ASSERT_TRUE(read(3, std::string("\x04\0\x05\0\x02\xFF", 6)));
    EXPECT_EQ((std::vector<int>{stored(0), stored(1), stored(2)}), (std::vector<int>{5, 7, 6}));
    EXPECT_FALSE(read(3, std::string("\x05\0\x05\0\x02\xFF", 6)));
    EXPECT_EQ(reader.Complaint,
              "SBIG Reading Error: Unable to read SBIG file. Incorrect number of bytes in line 0");
    EXPECT_FALSE(read(3, std::string("\x06\0\1\0\2\0\3\0\x03\0\x05\0\x02\xFF", 14), 2));
    EXPECT_EQ(reader.Complaint,
              "SBIG Reading Error: Unable to read SBIG file. Incorrect number of bytes in line 1");
    ASSERT_TRUE(read(2, std::string("\x05\0\0\x10\x80\x34\x12", 7)));
    EXPECT_EQ((std::vector<int>{stored(0), stored(1)}), (std::vector<int>{4096, 4660}));
    // A row with the length of a raw row is raw, whatever the first line of the header says.
    ASSERT_TRUE(read(2, std::string("\x04\0\xFF\xFF\x80\0", 6)));
    EXPECT_EQ((std::vector<int>{stored(0), stored(1)}), (std::vector<int>{65535, 128}));
    // Sums of deltas are not limited to 16 bits.
    ASSERT_TRUE(read(4, std::string("\x05\0\xFF\xFF\x7F\x7F\x7F", 7)));
    EXPECT_EQ(stored(3), 65535 + 3 * 127);
    ASSERT_TRUE(read(3, std::string("\x04\0\0\0\x81\xFF", 6)));
    EXPECT_EQ(stored(2), -128);
    // Such a sum leaves the rows before it as they are, and those after it can be stored.
    for (const char* far : {"\x7F\x7F", "\x81\x81"}) {
        const std::string wild = std::string("\x04\0", 2) + (far[0] > 0 ? "\xF0\xFF" : "\x05") +
                                 (far[0] > 0 ? "" : std::string(1, '\0')) + far;
        ASSERT_TRUE(read(3, Row({7, 40000, 65535}) + wild + Row({0, 65535, 1}), 3));
        const auto& pixels = reader.Image.Pixels;
        const int start = far[0] > 0 ? 65520 : 5;
        const int step = far[0] > 0 ? 127 : -127;
        const int rows[4][4] = {{7, 40000, 65535, 32768},
                                {start, start + step, start + 2 * step, 32768},
                                {0, 65535, 1, 32768},
                                {32768, 32768, 32768, 32768}};
        for (int y = 0; y <= 3; ++y) {
            for (int x = 0; x <= 3; ++x) EXPECT_EQ(pixels(x, y) + 32768, rows[y][x]) << x << y;
        }
    }
    // One missing byte at the end is a zero, two are a failure.
    ASSERT_TRUE(read(4, std::string("\x05\0\xFF\xFF\x7F\x7F", 6)));
    EXPECT_EQ(stored(3), 65535 + 2 * 127);
    EXPECT_FALSE(read(4, std::string("\x05\0\xFF\xFF\x7F", 5)));
    EXPECT_EQ(reader.Complaint, general);
    // The bytes of a row can exceed what its 16-bit length can state; they are read before this is
    // noticed.
    std::string escapes = Two(65535) + Two(1);
    for (int x = 1; x < 32767; ++x) escapes += "\x80" + Two(x);
    EXPECT_FALSE(read(32767, escapes));
    EXPECT_EQ(reader.Complaint,
              "SBIG Reading Error: Unable to read SBIG file. Incorrect number of bytes in line 0");
}

TEST(Sbig, HeaderValuesTakeTheUnitsOfFitsAndBadOnesTheirMessages) {
    Reader reader;
    ASSERT_TRUE(reader.Read(
        Header(Lines(1, 1,
                     {"Pedestal = 100", "TEMPERATURE =-10.5", "Exposure = 250", "focal_length=100",
                      "Aperture = 2", "X_Pixel_Size = 0.009", "Y_PIXEL_SIZE = .0095",
                      "E_gain = 2.3", "Filter = Red / wide", "Observer = N. N.", "Date = 1/2/05",
                      "Time = 12:00:00", "Note = x=y", "Object = ignored", "no value"})) +
        Two(2) + Two(7)));
    const ImageHeader& h = reader.Image.Header;
    EXPECT_EQ(std::make_tuple(h.Pedestal, reader.Image.Pedestal, h.BitPix, h.NAxis, h.NAxis1),
              std::make_tuple(0, 0, 16, 2, 1));
    EXPECT_EQ(std::make_tuple(h.CcdTemperature, h.ExposureTime, h.FocalLength, h.ApertureArea,
                              h.XPixelSize, h.YPixelSize, h.ElectronGain),
              std::make_tuple(-10.5, 2.5, 2540.0, 2 * 25.4 * 25.4, 9.0, 9.5, 2.3));
    EXPECT_EQ(std::make_tuple(h.Filter, h.Observer, h.Date, h.Time, h.Note, h.Object),
              std::make_tuple("Red / wide", "N. N.", "1/2/05", "12:00:00", "x=y", "0"));
    EXPECT_EQ(std::make_tuple(h.BScale, h.BZero, h.DataMax, h.Simple, h.Compressed, h.CardCount),
              std::make_tuple(1.0, 32768.0, 65535.0, true, true, 19));

    const std::vector<std::pair<std::string, std::string>> numbers = {
        {"HEIGHT", "Height"},
        {"WIDTH", "Width"},
        {"PEDESTAL", "Pedestal"},
        {"TEMPERATURE", "Temperature"},
        {"EXPOSURE", "Exposure"},
        {"FOCAL_LENGTH", "Focal Length"},
        {"APERTURE", "Aperture Area"},
        {"X_PIXEL_SIZE", "X Pixel Size"},
        {"Y_PIXEL_SIZE", "Y Pixel Size"},
        {"E_GAIN", "E Gain"}};
    for (const auto& [keyword, name] : numbers) {
        EXPECT_FALSE(reader.Read(Header(Lines(1, 1, {keyword + " = 5 mm"}))));
        EXPECT_EQ(reader.Complaint, "SBIG Header Error: Unable to read SBIG file. Non-numeric " +
                                        name + " parameter");
    }
    for (const char* line :
         {"WIDTH = 32768", "WIDTH = -1", "PEDESTAL = -32700", "E_GAIN = 1E999"}) {
        EXPECT_FALSE(reader.Read(Header(Lines(1, 1, {line})) + Two(2) + Two(7)));
        EXPECT_EQ(reader.Complaint, general) << line;
    }
}

TEST(Sbig, HeadersEndAt999LinesAndFilesAreNotTooShort) {
    Reader reader;
    for (const int lines : {999, 1000, 1001}) {  // END included
        const std::vector<std::string> more(static_cast<std::size_t>(lines - 4), "x");
        EXPECT_EQ(reader.Read(Header(Lines(1, 1, more)) + Two(2) + Two(7)), lines == 999);
        EXPECT_EQ(reader.Complaint, lines == 999 ? ""
                                                 : "SBIG Header Error: Unable to completely read "
                                                   "SBIG header.  Header is too long.");
        if (lines == 999) {
            EXPECT_EQ(reader.Image.Header.CardCount, 999);
        }
    }
    EXPECT_FALSE(reader.Read(std::string(999, '\r')));
    EXPECT_EQ(reader.Complaint, "");
    EXPECT_FALSE(reader.Read(std::string(5'000'000, 'x')));  // a line without an end
    EXPECT_EQ(reader.Complaint, general);
    EXPECT_FALSE(reader.ReadPath(reader.Folder / "missing.sbig"));
    EXPECT_EQ(reader.Complaint, general);

    const std::string whole = Header(Lines(5, 4)) + Row({1, 2, 3, 4, 5}) +
                              Row({9, 900, 9, 9000, 9}) + Row({5, 5, 5, 5, 5}) +
                              Row({7, 6, 5, 4, 3});
    for (std::size_t length = 1000; length <= whole.size(); ++length) {
        const bool enough = length + 1 >= whole.size();
        EXPECT_EQ(reader.Read(whole.substr(0, length)), enough) << length;
        EXPECT_EQ(reader.Complaint, enough ? "" : general) << length;
    }
}

}  // namespace vestrel
