// Reading images: the results for good files, and that no file can do harm.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <sstream>
#include <tuple>
// jpeglib.h needs the two before it.
#include <jpeglib.h>
#ifdef VESTREL_READS_RAW
#include <tiffio.h>
#endif
#ifndef _WIN32
#include <sys/resource.h>
#endif

#include "astro/libStrings.h"
#include "image/libFITS.h"
#include "image/libFitsCards.h"
#include "image/libFitsExport.h"
#include "image/libFitsKeywords.h"
#include "image/libFitsWriter.h"
#include "image/libFormats.h"
#include "image/libHeaderText.h"
#include "image/libHints.h"
#include "image/libPicture.h"
#include "platform/libPlatform.h"
#include "program/mFailureCause.h"
#include "program/mImageData.h"
#include "tests/testSupport.h"
#include "tests/vectorsForNow.h"

namespace vestrel {
namespace {

const std::string general = "Vestrel: Unable to read the image file.";

/// Reads files from bytes and keeps the result. One image record serves all reads, as in the
/// program.
struct Reader {
    TemporaryFolder Folder;
    PlateImage Image;
    bool Good = false;
    std::string Complaint;  ///< "title: text"

    ImageReader Pictures = ReadPictureFile;

    void ReadPath(const std::filesystem::path& path) {
        ReadFailure failure;
        const ImageReader read = path.extension() == ".jpg" ? Pictures : ReadFitsFile;
        Good = read(path, Image, nullptr, failure);
        Complaint = failure.Text.empty() ? "" : failure.Title + ": " + failure.Text;
    }
    void Read(std::string_view bytes, const char* name = "image.fit") {
        WriteFile(Folder / name, bytes);
        ReadPath(Folder / name);
    }
};

std::string Fits(int bitPix, int width, int height, std::span<const double> pixels,
                 const std::vector<std::string>& more = {}) {
    return FitsHeader(FitsCards(bitPix, width, height, more)) + FitsPixels(bitPix, pixels);
}

/// Columns of 80 characters, as messages quote a card.
std::string Card(std::string text) {
    text.resize(80, ' ');
    return text;
}

/// A JPEG file; `pixels` row after row from the top, `colours` bytes each.
std::string Jpeg(int width, int height, J_COLOR_SPACE space, int colours,
                 std::vector<unsigned char> pixels, bool progressive = false) {
    jpeg_compress_struct info{};
    jpeg_error_mgr errors{};
    info.err = jpeg_std_error(&errors);
    jpeg_create_compress(&info);
    unsigned char* memory = nullptr;
    unsigned long length = 0;
    jpeg_mem_dest(&info, &memory, &length);
    info.image_width = static_cast<JDIMENSION>(width);
    info.image_height = static_cast<JDIMENSION>(height);
    info.input_components = colours;
    info.in_color_space = space;
    jpeg_set_defaults(&info);
    jpeg_set_quality(&info, 100, TRUE);
    if (progressive) jpeg_simple_progression(&info);
    jpeg_start_compress(&info, TRUE);
    while (info.next_scanline < info.image_height) {
        JSAMPROW row =
            pixels.data() + info.next_scanline * static_cast<JDIMENSION>(width * colours);
        jpeg_write_scanlines(&info, &row, 1);
    }
    jpeg_finish_compress(&info);
    std::string bytes(reinterpret_cast<const char*>(memory), length);
    jpeg_destroy_compress(&info);
    std::free(memory);
    return bytes;
}

}  // namespace

TEST(FitsHeader, EveryKeywordComesBackInASavedFile) {
    const std::string whole = "XORGSUBF YORGSUBF XBINNING YBINNING PEDESTAL CBLACK CWHITE";
    const std::string real =
        "BSCALE BZERO EXPTIME CCD-TEMP XPIXSZ YPIXSZ EGAIN FOCALLEN APTDIA APTAREA DATAMAX NH_A "
        "NH_B NH_U0 NH_C NH_D NH_V0 NH_PS NH_RAREF NH_DEREF IMAGESZX IMAGESZY";
    const std::string text =
        "OBJECT TELESCOP INSTRUME OBSERVER DATE-OBS SWCREATE SWMODIFY SBSTDVER FILTER OBJCTRA "
        "OBJCTDEC";
    std::vector<std::string> read = {"nh_pm=T"};
    std::vector<std::string> saved = {Card("NH_PM   = T /")};
    int value = 0;
    for (const std::string& keywords : {whole, real, text}) {
        std::istringstream words(keywords);
        for (std::string keyword; words >> keyword;) {
            const std::string number = std::to_string(++value);
            const std::string stored = keywords == whole  ? number
                                       : keywords == real ? number + ".5"
                                                          : "'" + keyword + "'";
            read.push_back(keyword);
            read.back().append("=  ").append(stored).append(keywords == whole ? ".25 / x" : " / x");
            keyword.resize(8, ' ');
            saved.push_back(Card(keyword.append("= ").append(stored).append(" /")));
        }
    }
    Reader reader;
    reader.Read(Fits(16, 1, 1, std::vector<double>{5}, read));
    ASSERT_TRUE(reader.Good) << reader.Complaint;
    WriteFitsFile(reader.Folder / "saved.fit", reader.Image, nullptr);
    const std::string file = ReadFile(reader.Folder / "saved.fit");
    for (const std::string& card : saved) EXPECT_NE(file.find(card), std::string::npos) << card;
}

TEST(FitsHeader, TextsEndAtASlashAndHistoryGrows) {
    ImageHeader header;
    ClearHeader(header);
    std::string error;
    EXPECT_EQ(ParseHeaderCard("bias = 7.5", header, error), "BIAS");
    EXPECT_EQ(header.Pedestal, -8);
    ParseHeaderCard("DATE-OBS= '2005/03/01'", header, error);
    EXPECT_EQ(header.DateObs, "'2005");
    for (const char* card :
         {"HISTORY  first", "HISTORY  second / cut", "HISTORY a = b", "HISTORYXlong", "HISTORY"}) {
        ParseHeaderCard(card, header, error);
    }
    EXPECT_EQ(header.History, "0|first|second|");  // "HISTORYX" is another keyword
    EXPECT_EQ(ParseHeaderCard(std::string(80, ' ') + "OBJECT = x", header, error), "");
    ParseHeaderCard("IMAGESZX= 'wide'", header, error);
    EXPECT_EQ(error, "");
    ParseHeaderCard("EXPTIME = 1.5D+02", header, error);
    EXPECT_EQ(header.ExposureTime, 150);
}

TEST(FitsHeader, EveryRefusalHasItsTextAndTitle) {
    const auto parse = [](const std::string& error, const std::string& card) {
        return "FITS Header Error.: Unable to read FITS file. " + error + "  String: " + Card(card);
    };
    const std::string simple =
        "FITS Reading Error: Unable to read FITS file.  "
        "Simple must equal True.";
    const std::string start = "FITS Error: Unable to read FITS file.  ";
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"SIMPLE = T", "EXPTIME = '30'"},
         parse("Non-numeric EXPTIME parameter", "EXPTIME = '30'")},
        {{"SIMPLE = yes"}, parse("Nonvalid SIMPLE parameter", "SIMPLE = yes")},
        {{"NH_PM = 1"}, parse("Nonvalid NH_PM parameter", "NH_PM = 1")},
        {{"BIAS ="}, parse("Non-numeric BIAS parameter", "BIAS =")},
        {{"nh_v0 = 1.2.3"}, parse("Non-numeric NH_V0 parameter", "nh_v0 = 1.2.3")},
        {{"NAXIS = 2", "BITPIX = 16"}, simple},
        {{"SIMPLE = F", "NAXIS = 3"}, simple},
        {{"SIMPLE = T", "NAXIS = 3", "BITPIX = 12"}, start + "Naxis = 3 not supported."},
        {{"SIMPLE = T", "NAXIS = 2", "BITPIX = -64"}, start + "BitPix = -64 not supported."},
        {{"SIMPLE = T", "NAXIS = 32768"}, general},
        {{"SIMPLE = T", "PEDESTAL = -32768.51"}, general},
        {{"SIMPLE = T", "BIAS = -32768"}, general},
        {{"SIMPLE = T", "CWHITE = 2147483648"}, general},
        {{"SIMPLE = T", "DATAMAX = 1E999"}, general},
        {FitsCards(16, -1, 5), general},
        {FitsCards(16, 32768, 1), general},
        {FitsCards(16, 2, 2, {"BZERO = 1E300"}), general},
        {FitsCards(16, 2, 2, {"BZERO = -2147483649"}), general}};
    Reader reader;
    for (const auto& [cards, complaint] : cases) {
        reader.Read(FitsHeader(cards) + std::string(100, '\1'));
        EXPECT_FALSE(reader.Good);
        EXPECT_EQ(reader.Complaint, complaint);
    }
    reader.ReadPath(reader.Folder / "missing.fit");
    EXPECT_EQ(reader.Complaint, general);
    reader.ReadPath(reader.Folder.Path);
    EXPECT_EQ(reader.Complaint, general);
}

TEST(FitsHeader, DataBeginAtTheNextBlockAndHeadersEndAt2999Cards) {
    Reader reader;
    for (const int cards : {6, 35, 36, 37, 72, 73, 2998, 2999, 3000, 3001}) {
        // END included.
        const std::vector<std::string> more(static_cast<std::size_t>(cards - 6), "COMMENT");
        reader.Read(Fits(16, 2, 1, std::vector<double>{7, 8}, more));
        EXPECT_EQ(reader.Complaint,
                  cards <= 2999 ? ""
                                : "FITS Header Error: Unable to completely read FITS header.  "
                                  "Header too long.");
        EXPECT_EQ(reader.Good, cards <= 2999) << cards;
        if (!reader.Good) continue;
        EXPECT_EQ(reader.Image.Header.CardCount, cards);
        EXPECT_EQ(reader.Image.Header.Cards[static_cast<std::size_t>(cards)], Card("END"));
        EXPECT_EQ(reader.Image.Header.Cards[1], Card("SIMPLE  = T"));
        EXPECT_EQ(reader.Image.Pixels(0, 0), 7) << cards;
        EXPECT_EQ(reader.Image.Pixels(1, 0), 8) << cards;
    }
}

TEST(FitsPixels, RoundClampAndOffset) {
    struct Case {
        int BitPix;
        std::string BZero;
        double InFile;
        std::int32_t Offset, Stored;
    };
    const std::vector<Case> cases = {{16, "32768", -32768, 32768, -32768},
                                     {16, "32768", 32767, 32768, 32767},
                                     {16, "0", -1, 0, 0},
                                     {16, "2.5", -5, 2, -2},
                                     {16, "-100", 50, -100, 100},
                                     {16, "40000", 32767, 40000, 32767},
                                     {16, "40000", -32768, 40000, -32768},
                                     {8, "-100", 255, -100, 255},
                                     {8, "-100", 99, -100, 100},
                                     {8, "5", 0, 5, 0},
                                     {8, "65500", 255, 65500, 255},
                                     {-32, "65535", 9, 65535, 0},
                                     {-32, "65535", -70000, 65535, -65535},
                                     {-32, "0", 70000, 0, 65535},
                                     {-32, "0", -5, 0, 0},
                                     {-32, "0", 2.5, 0, 2},
                                     {-32, "0", 3.5, 0, 4},
                                     {-32, "100", 65500, 100, 65435},
                                     {-32, "-100", 70000, -100, 65635},
                                     {-32, "1000000", 5, 1000000, -934465}};
    Reader reader;
    for (const Case& c : cases) {
        reader.Read(Fits(c.BitPix, 1, 1, std::vector<double>{c.InFile}, {"BZERO = " + c.BZero}));
        ASSERT_TRUE(reader.Good) << reader.Complaint;
        EXPECT_EQ(reader.Image.DataOffset, c.Offset);
        EXPECT_EQ(reader.Image.Pixels(0, 0), c.Stored) << c.InFile << " under " << c.BZero;
    }
    for (const double pixel : {std::nan(""), HUGE_VAL, -HUGE_VAL, 2147483648.0, -3e9}) {
        reader.Read(Fits(-32, 1, 2, std::vector<double>{5, pixel}));
        EXPECT_EQ(reader.Complaint, general) << pixel;
    }
}

TEST(PixelGrid, HoldsTheSameValuesInCellsOfEitherWidth) {
    Random random(31);
    for (const int least : {0, -1, -32768, -65535}) {
        const int width = random.Whole(1, 70);
        const int height = random.Whole(2, 20);
        const int rows = random.Whole(1, height);  // the others keep their zeros
        PixelGrid grid = PixelGrid::Narrow(width, height, least);
        Grid<std::int32_t> values(width, height);
        for (int y = 0; y < rows; ++y) {
            for (int x = 0; x < width; ++x) {
                const int extreme = random.Whole(0, 1) == 0 ? least : least + 65535;
                values(x, y) = random.Whole(0, 2) == 0 ? extreme : random.Whole(least, extreme);
            }
            const auto row = values.Row(y).first(static_cast<std::size_t>(width));
            ASSERT_TRUE(grid.Fits(row));
            grid.Store(0, y, row);
        }
        for (const int value : {least - 1, least + 65536, INT_MIN, INT_MAX}) {
            EXPECT_FALSE(grid.Fits(std::vector{0, value})) << value << " from " << least;
        }
        for (const bool wide : {false, true}) {
            if (wide) grid.Wide(rows);
            ASSERT_NE(grid.IsNarrow(), wide);
            std::vector<std::int32_t> buffer;
            for (int y = 0; y <= height; ++y) {
                const auto expected = values.Row(y);
                const auto row = grid.Row(y, buffer);
                ASSERT_TRUE(std::equal(row.begin(), row.end(), expected.begin(), expected.end()));
                grid.VisitRow(y, [&](auto cells) {
                    for (int x = 0; x <= width; ++x) {
                        ASSERT_EQ(cells[x], values(x, y));
                        ASSERT_EQ(grid(x, y), values(x, y));
                        ASSERT_EQ(cells.Rank(x) > cells.Rank(0), values(x, y) > values(0, y));
                    }
                });
            }
        }
    }
}

TEST(FitsPixels, PiecesGiveThePixelsOfASingleReadWhereverTheFileEnds) {
    Random random(19);
    Reader reader;
    for (int trial = 0; trial < 24; ++trial) {
        const int bitPix = std::vector{8, 16, -32}[trial % 3];
        const std::size_t bytes = static_cast<std::size_t>(std::abs(bitPix)) / 8;
        const int width = random.Whole(1, 400);
        const int height = trial % 4 == 0 ? 1 : random.Whole(300, 1300);
        constexpr int far = 5000000;
        const int offset = std::vector{0, 32768, 7, -40, far}[random.Whole(0, bytes == 4 ? 4 : 3)];
        std::string pixels(bytes * static_cast<std::size_t>(width * height), 0);
        for (char& byte : pixels) byte = static_cast<char>(random.Whole(-128, 127));
        for (std::size_t i = 0; bytes == 4 && i < pixels.size(); i += 4) {
            // Floats of up to 2^18, either sign; some of them halves.
            pixels[i] = static_cast<char>((pixels[i] & 0x80) | random.Whole(0x3E, 0x48));
            if (i % 16 == 0) pixels[i + 2] = pixels[i + 3] = 0;
            // Halves about the offset, which need more than single precision.
            if (offset == far) pixels.replace(i, 2, "\xCA\x98");
        }
        const std::size_t held =
            trial % 2 == 0
                ? pixels.size()
                : static_cast<std::size_t>(random.Whole(0, static_cast<int>(pixels.size())));
        const std::string file =
            FitsHeader(FitsCards(bitPix, width, height, {"BZERO = " + std::to_string(offset)}));
        std::string whole = pixels;
        std::fill(whole.begin() + static_cast<std::ptrdiff_t>(held), whole.end(), '\0');
        const auto byteAt = [&](std::size_t i) { return static_cast<std::uint8_t>(whole[i]); };
        for (const int threads : {1, 2, 7}) {
            const ThreadsForNow now(threads);
            const VectorsForNow vectors(threads == 2);
            reader.Read(file + pixels.substr(0, held));
            ASSERT_TRUE(reader.Good) << reader.Complaint;
            // Wide cells would be right too, but take twice the memory.
            ASSERT_EQ(reader.Image.Pixels.IsNarrow(), offset >= 0 && offset != far) << offset;
            int wrong = 0;
            for (int r = 0; r < height; ++r) {
                for (int x = 0; x < width; ++x) {
                    const std::size_t at = bytes * static_cast<std::size_t>(r * width + x);
                    double value = byteAt(at);
                    if (bytes == 2)
                        value = static_cast<std::int8_t>(byteAt(at)) * 256 + byteAt(at + 1);
                    if (bytes == 4) {
                        value = std::nearbyint(DecodeFloat32(byteAt(at), byteAt(at + 1),
                                                             byteAt(at + 2), byteAt(at + 3)));
                        value = std::min(value, 65535.0 - offset);
                    }
                    const int y = bytes == 4 ? height - 1 - r : r;
                    if (reader.Image.Pixels(x, y) != std::max(value, -1.0 * offset)) ++wrong;
                }
            }
            ASSERT_EQ(wrong, 0) << "trial " << trial << ", " << threads << " threads";
        }
    }
}

TEST(FitsPixels, AFailedReadKeepsWhatItHadReachedAndTheNextOneIsClean) {
    Reader reader;
    reader.Read(Fits(16, 2, 2, std::vector<double>{1, 2, 3, 4}, {"OBJECT = 'first'", "EGAIN = 2"}));
    ASSERT_TRUE(reader.Good);
    reader.Read(FitsHeader({"SIMPLE = T", "NAXIS = 2", "EXPTIME = 9", "BITPIX = x", "EGAIN = 3"}));
    EXPECT_EQ(reader.Image.Header.ExposureTime, 9);
    EXPECT_EQ(reader.Image.Header.ElectronGain, 0);  // neither the old value nor that of a later
                                                     // card
    EXPECT_EQ(reader.Image.Header.Object, "0");
    EXPECT_EQ(reader.Image.Header.CardCount, 0);
    EXPECT_EQ(reader.Image.Header.Cards[4], Card("BITPIX = x"));
    EXPECT_EQ(reader.Image.Width, 2);  // still the old pixels
    EXPECT_EQ(reader.Image.Pixels(1, 1), 4);
    reader.Read(Fits(-32, 3, 1, std::vector<double>{1, 2, HUGE_VAL}, {"BZERO = 7"}));
    EXPECT_FALSE(reader.Good);
    EXPECT_EQ(reader.Image.Width, 3);  // the new size and a partly filled grid
    EXPECT_EQ(reader.Image.DataOffset, 7);
    reader.Read(Fits(8, 1, 1, std::vector<double>{9}));
    EXPECT_TRUE(reader.Good);
    EXPECT_EQ(reader.Image.Header.Object, "0");
    EXPECT_EQ(reader.Image.DataOffset, 0);
}

TEST(FitsPixels, WhatAFileLacksIsZeroAndAForgedSizeIsRefused) {
    Reader reader;
    for (const int bitPix : {16, -32}) {
        const std::string whole = Fits(bitPix, 2, 2, std::vector<double>{258, 772, 1286, 1800});
        reader.Read(whole.substr(0, 2880 + 2 * static_cast<std::size_t>(std::abs(bitPix)) / 8));
        const int first = bitPix < 0 ? 1 : 0;  // the row that the file begins with
        EXPECT_EQ(reader.Image.Pixels(1, first), 772);
        EXPECT_EQ(reader.Image.Pixels(0, 1 - first), 0);
        // A row that ends inside a pixel keeps the bytes that are there.
        reader.Read(whole.substr(0, 2880 + 5 * static_cast<std::size_t>(std::abs(bitPix)) / 16));
        EXPECT_EQ(reader.Image.Pixels(0, 1 - first), 1280);
        reader.Read(whole.substr(0, 400));
        EXPECT_EQ(reader.Complaint, general);
    }
    const std::size_t before = PeakMemoryBytes();
    for (const int bitPix : {8, 16, -32}) {
        for (const char* bZero : {"0", "32768", "65535", "-1", "70000"}) {
            reader.Read(
                FitsHeader(FitsCards(bitPix, 32767, 32767, {std::string("BZERO = ") + bZero})));
            EXPECT_FALSE(reader.Good) << bitPix << " " << bZero;
            EXPECT_EQ(reader.Complaint, general);
        }
        reader.Read(FitsHeader(FitsCards(bitPix, 2000, 2000)));
        EXPECT_TRUE(reader.Good) << bitPix;  // as many as a camera may have been about to write
    }
    EXPECT_LT(PeakMemoryBytes() - before, std::size_t{64} << 20);
}

TEST(Pictures, GreyIsTheSumOfTheColoursAndRowZeroIsTheTop) {
    Reader reader;
    // Every 8 × 8 block has a single colour, which JPEG preserves.
    const int blocks[][3] = {{255, 255, 255}, {255, 0, 0},  {0, 0, 0},
                             {0, 0, 255},     {10, 20, 30}, {0, 255, 0}};
    const std::int32_t sums[] = {765, 255, 0, 255, 60, 255};
    std::vector<unsigned char> pixels;
    for (int i = 0; i < 24 * 16 * 3; ++i) {
        const int block = i / (24 * 3 * 8) * 3 + i / (3 * 8) % 3;
        pixels.push_back(static_cast<unsigned char>(blocks[block][i % 3]));
    }
    reader.Read(Fits(16, 2, 2, std::vector<double>{1, 2, 3, 4}, {"BZERO = 5", "PEDESTAL = 6"}));
    for (const bool progressive : {false, true}) {
        reader.Read(Jpeg(24, 16, JCS_RGB, 3, pixels, progressive), "image.jpg");
        ASSERT_TRUE(reader.Good);
        EXPECT_EQ(reader.Image.Width, 24);
        EXPECT_EQ(reader.Image.Height, 16);
        EXPECT_EQ(reader.Image.DataOffset, 0);
        EXPECT_EQ(reader.Image.Pedestal, 0);
        EXPECT_EQ(reader.Image.Header.BZero, 0);
        for (std::int32_t i = 0; i < 6; ++i) {
            // Away from the block edges, where the colours are stored coarsely.
            EXPECT_NEAR(reader.Image.Pixels(i % 3 * 8 + 3, i / 3 * 8 + 3), sums[i], 12) << i;
        }
    }
    reader.Read(Jpeg(8, 8, JCS_GRAYSCALE, 1, std::vector<unsigned char>(64, 77)), "grey.jpg");
    ASSERT_TRUE(reader.Good);
    EXPECT_EQ(reader.Image.Pixels(4, 4), 3 * 77);
    reader.Read(Jpeg(8, 8, JCS_CMYK, 4, std::vector<unsigned char>(256, 77)), "print.jpg");
    ASSERT_TRUE(reader.Good);
    EXPECT_EQ(reader.Image.Pixels(4, 4), 3 * 23);  // 77 of 255 in each of the three colours
}

TEST(Pictures, TheCameraSaysHowItWasTakenAndOnlyCardsKnow) {
    Reader reader;
    const std::string plain = Jpeg(16, 8, JCS_GRAYSCALE, 1, std::vector<unsigned char>(128, 77));
    for (const bool bigEndian : {false, true}) {
        ExifMaker exif;
        exif.BigEndian = bigEndian;
        exif.Orientation = 6;
        exif.FocalLength35 = 75;
        exif.PixelsPerCentimetre = 2500;  // pixels of 4 micrometres
        exif.Columns = 32;                // and now half as many
        reader.Read(WithExif(plain, exif.Block()), "taken.jpg");
        ASSERT_TRUE(reader.Good);
        EXPECT_EQ(reader.Image.Width, 16) << "stored pixels stay";
        EXPECT_EQ(reader.Image.Orientation, 6);
        ASSERT_EQ(reader.Image.Remarks.size(), 1U);
        EXPECT_NE(reader.Image.Remarks[0].find("turned right by a quarter"), std::string::npos);
        std::map<std::string, std::string> said;
        const ImageHeader& header = reader.Image.Header;
        for (std::size_t i = 1; i <= static_cast<std::size_t>(header.CardCount); ++i) {
            EXPECT_EQ(header.Cards[i].size(), 80U);
            said[std::string(KeywordOfCard(header.Cards[i]))] = ValueOfCard(header.Cards[i]);
        }
        EXPECT_EQ(said["INSTRUME"], "'Maker Model 5'");
        EXPECT_EQ(said["DATE-OBS"], "'2024-05-03T21:04:05'");
        EXPECT_EQ(ParseNumber(said["EXPTIME"]), 2.5);
        EXPECT_EQ(ParseNumber(said["FOCALLEN"]), 50);
        EXPECT_EQ(ParseNumber(said["FOCLEN35"]), 75);
        EXPECT_EQ(ParseNumber(said["XPIXSZ"]), 8);
        EXPECT_EQ(said.count("END"), 1U);
        EXPECT_EQ(HeaderLines(reader.Image).size(),
                  1U + static_cast<std::size_t>(header.CardCount));
        // Files saved from a picture have always had only its pixels.
        EXPECT_EQ(header.ExposureTime, 0);
        EXPECT_EQ(header.Instrument, "0");
        const std::vector<ScaleHint> scales = HintsOf(reader.Image).Scales;
        ASSERT_EQ(scales.size(), 2U);
        EXPECT_NEAR(scales[0].ArcsecondsPerPixel, 206264.806 * 0.008 / 50, 1e-6);
        EXPECT_NEAR(scales[1].ArcsecondsPerPixel,
                    206264.806 * std::hypot(36, 24) / 75 / std::hypot(16, 8), 1e-3);
    }
    reader.Read(plain, "plain.jpg");
    EXPECT_EQ(reader.Image.Orientation, 1);
    EXPECT_TRUE(reader.Image.Remarks.empty() && HeaderLines(reader.Image).empty());

    // A damaged block loses its own facts, never the picture.
    const std::string block = ExifMaker().Block();
    for (std::uint32_t seed = 1; seed <= 500; ++seed) {
        reader.Read(WithExif(plain, Damaged(block, seed)), "damaged.jpg");
        ASSERT_TRUE(reader.Good) << seed;
        ASSERT_TRUE(reader.Image.Orientation >= 1 && reader.Image.Orientation <= 8) << seed;
    }
}

TEST(Pictures, CutShortOrForgedFail) {
    Reader reader;
    std::vector<unsigned char> pixels(32 * 32 * 3);
    for (std::size_t i = 0; i < pixels.size(); ++i) pixels[i] = static_cast<unsigned char>(i * 37);
    for (const bool progressive : {false, true}) {
        const std::string whole = Jpeg(32, 32, JCS_RGB, 3, pixels, progressive);
        for (std::size_t length = 0; length + 2 < whole.size(); ++length) {
            reader.Read(std::string_view(whole).substr(0, length), "cut.jpg");
            ASSERT_EQ(reader.Complaint, general) << length << " of " << whole.size();
        }
        // The size stands after the frame marker, its length and its depth.
        std::string forged = whole;
        forged.replace(whole.find(progressive ? "\xFF\xC2" : "\xFF\xC0") + 5, 4,
                       "\x7F\xFF\x7F\xFF");
        const std::size_t before = PeakMemoryBytes();
        reader.Read(forged, "forged.jpg");
        EXPECT_EQ(reader.Complaint, general);
        EXPECT_LT(PeakMemoryBytes() - before, std::size_t{32} << 20);
    }
}

TEST(Pictures, AreTheSameFromAChildProcess) {
    Reader here;
    Reader there;
    there.Pictures = ReadPictureFileApart;
    const auto same = [&](const std::string& bytes, const char* what) {
        here.Read(bytes, "image.jpg");
        there.Read(bytes, "image.jpg");
        ASSERT_EQ(here.Good, there.Good) << what;
        EXPECT_EQ(here.Complaint, there.Complaint) << what;
        if (!here.Good) return;
        const PlateImage& one = here.Image;
        const PlateImage& other = there.Image;
        ASSERT_EQ(std::pair(one.Width, one.Height), std::pair(other.Width, other.Height)) << what;
        std::vector<std::int32_t> buffers[2];
        for (std::int32_t y = 0; y < one.Height; ++y) {
            const auto row = one.Pixels.Row(y, buffers[0]);
            const auto twin = other.Pixels.Row(y, buffers[1]);
            ASSERT_TRUE(std::equal(row.begin(), row.end(), twin.begin(), twin.end())) << what;
        }
        EXPECT_EQ(HeaderLines(one), HeaderLines(other)) << what;
        EXPECT_EQ(one.Header.CardCount, other.Header.CardCount) << what;
        EXPECT_EQ(one.Remarks, other.Remarks) << what;
        EXPECT_EQ(one.Orientation, other.Orientation) << what;
        EXPECT_EQ(std::tuple(one.ImageType, one.DataOffset, one.Pedestal, one.LargestCount),
                  std::tuple(other.ImageType, other.DataOffset, other.Pedestal, other.LargestCount))
            << what;
    };
    std::vector<unsigned char> pixels(64 * 48 * 4);
    for (std::size_t i = 0; i < pixels.size(); ++i) pixels[i] = static_cast<unsigned char>(i * 37);
    ExifMaker exif;
    exif.Orientation = 6;
    const std::string colour = Jpeg(64, 48, JCS_RGB, 3, pixels);
    same(colour, "colour");
    same(Jpeg(64, 48, JCS_RGB, 3, pixels, true), "progressive");
    same(Jpeg(61, 47, JCS_GRAYSCALE, 1, pixels), "grey");
    same(Jpeg(64, 48, JCS_CMYK, 4, pixels), "inks");
    same(WithExif(colour, exif.Block()), "turned");
    same(colour, "not turned, after one that was");
    same(colour.substr(0, colour.size() / 2), "cut short");
    same("no picture", "none");
}

/// A picture of `scans` scans that are all but empty: a run of blocks without detail stands for
/// 32767 of them.
std::string ManyScans(int width, int height, int scans) {
    const auto segment = [](char marker, const std::string& body) {
        const std::size_t length = body.size() + 2;
        return std::string("\xFF") + marker + static_cast<char>(length / 256) +
               static_cast<char>(length % 256) + body;
    };
    const auto table = [&](char number, char symbol) {
        return segment('\xC4', std::string(1, number) + '\1' + std::string(15, '\0') + symbol);
    };
    const std::size_t blocks =
        static_cast<std::size_t>((width + 7) / 8) * static_cast<std::size_t>((height + 7) / 8);
    const std::string size = {static_cast<char>(height / 256), static_cast<char>(height % 256),
                              static_cast<char>(width / 256), static_cast<char>(width % 256)};
    std::string file = "\xFF\xD8";
    file += segment('\xDB', '\0' + std::string(64, '\1'));
    file += segment('\xC2', "\x08" + size + std::string("\1\1\x11\0", 4));
    file += table('\0', '\0');      // a difference of none: one bit
    file += table('\x10', '\xE0');  // a run: one bit, and 14 of its length beyond 16384
    file += segment('\xDA', std::string("\1\1\0\0\0\0", 6)) + std::string((blocks + 7) / 8, '\0');
    std::string bits;
    for (std::size_t left = blocks; left > 0; left -= std::min<std::size_t>(left, 16384)) {
        bits += std::string(15, '0');
    }
    while (bits.size() % 8 != 0) bits += '0';
    const std::string scan =
        segment('\xDA', std::string("\1\1\0\1\x3F\0", 6)) + std::string(bits.size() / 8, '\0');
    for (int i = 0; i < scans; ++i) file += scan;
    return file + "\xFF\xD9";
}

TEST(Pictures, AFewBytesForEachOfThousandsOfScansCostNoMinutes) {
    Reader reader;
    reader.Read(ManyScans(128, 128, 60), "good.jpg");
    ASSERT_TRUE(reader.Good) << reader.Complaint;
    EXPECT_EQ(reader.Image.Width, 128);
    // 100 kB that would take minutes.
    const std::clock_t start = std::clock();  // of this process alone
    reader.Read(ManyScans(8000, 8000, 4000), "scans.jpg");
    EXPECT_EQ(reader.Complaint, general);
    EXPECT_LT((std::clock() - start) / CLOCKS_PER_SEC, 20);
}

#ifdef VESTREL_READS_FITS
TEST(Pictures, FractionsThatThePlainReaderWouldShowBlackAreDecodedAnew) {
    TemporaryFolder folder;
    for (const double brightest : {0.9, 1.4, 60.0, 6000.0}) {
        std::vector<double> pixels(120 * 110);
        for (std::size_t i = 0; i < pixels.size(); ++i) {
            pixels[i] = 0.1 + 0.001 * static_cast<double>(i % 7) + (i % 1009 == 0 ? 0.5 : 0);
        }
        pixels[5000] = brightest;
        WriteFile(folder / "unit.fits", Fits(-32, 120, 110, pixels));
        PlateImage image;
        ReadFailure failure;
        ASSERT_TRUE(ReadImageFile(folder / "unit.fits", image, nullptr, failure));
        EXPECT_GT(image.Counts.Factor, 1) << brightest;
        // Row 0 is the file's last one.
        EXPECT_GT(image.Pixels(0, 109) - image.Pixels(1, 109), 15000) << brightest;
    }
}

// Other programs write 16 bits so that they reach from the darkest pixel to the brightest.
TEST(Pictures, ScaledWholeNumbersWhoseSkyThePlainReaderWouldShowBlackAreDecodedAnew) {
    TemporaryFolder folder;
    constexpr int width = 120;
    constexpr int height = 110;
    const auto read = [&](double zero, double scale) {
        std::vector<double> stored(std::size_t{width} * height);
        for (std::size_t i = 0; i < stored.size(); ++i) {
            const double count = 1000 + static_cast<double>(i % 7) + (i % 1009 == 5 ? 30000 : 0);
            stored[i] = std::nearbyint((count - zero) / scale);
        }
        WriteFile(folder / "scaled.fits", Fits(16, width, height, stored,
                                               {"BZERO   = " + std::to_string(zero),
                                                "BSCALE  = " + std::to_string(scale)}));
        PlateImage image;
        ReadFailure failure;
        EXPECT_TRUE(ReadImageFile(folder / "scaled.fits", image, nullptr, failure));
        return image;
    };
    const PlateImage fine = read(16000, 0.5);
    EXPECT_EQ(fine.Header.BScale, 1) << "it is applied, and must not be once more";
    EXPECT_EQ(fine.Counts.Factor, 1);
    for (int i = 0; i < width; ++i) {
        EXPECT_EQ(fine.Pixels(i, 0) + fine.DataOffset, 1000 + i % 7 + (i == 5 ? 30000 : 0)) << i;
    }
    const PlateImage coarse = read(500, 2);
    EXPECT_EQ(coarse.Header.BScale, 2) << "whose sky is above 0";
    EXPECT_EQ(coarse.Pixels(0, 0) + coarse.DataOffset, 750);
}
#endif

TEST(OpenImage, ChoosesTheReaderByTheExtensionInAnyCase) {
    TemporaryFolder folder;
    const std::string fits = Fits(16, 3, 2, std::vector<double>(6, 5.0));
    const std::string jpeg = Jpeg(8, 8, JCS_GRAYSCALE, 1, std::vector<unsigned char>(64, 9));
    for (const char* name : {"a.fit", "IMAGE.Fts", "b.c.FITS", "d.jpg", "image.JEPG",
                             "m\xC3\xBC\xE2\x98\x85 x,y.fit"}) {
        ProgramState state;
        RecordingPort port(state);
        const std::string path = TextFromPath(folder / name);
        const bool picture = path.ends_with("g") || path.ends_with("G");
        WriteFile(folder / name, picture ? jpeg : fits);
        EXPECT_TRUE(OpenImage(state, port, path)) << name;
        EXPECT_EQ(state.Image.ImageType, picture ? ImageType::Jpeg : ImageType::Fits);
        EXPECT_EQ(state.Image.FileName, path);
        EXPECT_EQ(state.Parameters.LastOpenFolder, folder.Path.string());
        EXPECT_EQ(state.Parameters.LastSaveFolder, folder.Path.string());
        EXPECT_EQ(state.Display.ImageSize, picture ? "8 X 8" : "3 X 2");
        EXPECT_TRUE(port.Messages.empty() && state.ImageLoaded && port.ImageChanges > 0);
    }
    ProgramState state;
    RecordingPort port(state);
    state.HaveConfig = true;
    ASSERT_TRUE(OpenImage(state, port, (folder / "a.fit").string()));
    EXPECT_EQ(state.Parameters.LastSaveFolder, "");  // the settings file's one stays
    state.BackgroundRemoved = true;
    for (const char* name : {"image.bmp", "image.jpeg", "image", "a.fit.", "a.fit/x"}) {
        port.Messages.clear();
        EXPECT_FALSE(OpenImage(state, port, "/no/" + std::string(name)));
        EXPECT_EQ(port.Messages, std::vector<std::string>{"Vestrel: File type is not supported"});
        EXPECT_TRUE(state.ImageLoaded && state.BackgroundRemoved);  // the previous image stays
    }
    port.Messages.clear();
    EXPECT_FALSE(OpenImage(state, port, (folder / "none.fit").string()));
    EXPECT_EQ(port.Messages, std::vector<std::string>{general});
    EXPECT_FALSE(state.ImageLoaded || state.BackgroundRemoved);
}

#ifndef _WIN32  // where there are no decoders
/// Pages that children have touched, of those that have ended.
long ChildrensWork() {
    rusage used{};
    getrusage(RUSAGE_CHILDREN, &used);
    return used.ru_minflt;
}

TEST(OpenImage, WhereEveryDecoderRunsApartThatOfJpegDoesWhereverItIsCalled) {
    const TemporaryFolder folder;
    const std::string jpeg = Jpeg(16, 16, JCS_GRAYSCALE, 1, std::vector<unsigned char>(256, 9));
    const std::string path = TextFromPath(folder / "a.jpg");
    WriteFile(folder / "a.jpg", jpeg);
    WriteFile(folder / "b.dat", jpeg);  // recognised by its content
    for (const bool apart : {false, true}) {
        ProgramState state;
        RecordingPort port(state);
        state.DecodesApart = apart;
        const auto runsApart = [](const auto& work) {
            const long before = ChildrensWork();
            work();
            return ChildrensWork() > before;
        };
        EXPECT_EQ(runsApart([&] { EXPECT_TRUE(OpenImage(state, port, path)); }), apart);
        EXPECT_EQ(runsApart([&] { (void)CauseOfFailure(state, port, SolveCode::TooFewStars, {}); }),
                  apart);
        EXPECT_EQ(runsApart([&] { (void)FitsExportBytes(state.Image, {"CRVAL1"}, {}, apart); }),
                  apart);
        EXPECT_EQ(
            runsApart([&] { EXPECT_TRUE(OpenImage(state, port, TextFromPath(folder / "b.dat"))); }),
            apart);
    }
}

#ifdef VESTREL_READS_RAW
// Written with libtiff: a mosaic of red, green and blue.
TEST(OpenImage, ADigitalNegativeIsItsMosaicTwoByTwo) {
    const TemporaryFolder folder;
    const std::string path = TextFromPath(folder / "camera.dng");
    constexpr int width = 64;
    constexpr int height = 48;
    const auto sample = [](int x, int y) {
        const bool star = std::abs(x - 21) < 3 && std::abs(y - 30) < 3;
        return static_cast<std::uint16_t>(700 + 11 * x + 5 * y + (x * 31 + y * 17) % 13 +
                                          (star ? 9000 : 0));
    };
    TIFF* tiff = TIFFOpen(path.c_str(), "w");
    ASSERT_NE(tiff, nullptr);
    const std::uint16_t pattern[2] = {2, 2};
    const unsigned char colours[4] = {0, 1, 1, 2};
    TIFFSetField(tiff, TIFFTAG_SUBFILETYPE, 0);
    TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, width);
    TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, height);
    TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 16);
    TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, 1);
    TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_CFA);
    TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, height);
    TIFFSetField(tiff, TIFFTAG_ORIENTATION, ORIENTATION_RIGHTTOP);
    TIFFSetField(tiff, TIFFTAG_MAKE, "Maker");
    TIFFSetField(tiff, TIFFTAG_MODEL, "Model");
    TIFFSetField(tiff, TIFFTAG_UNIQUECAMERAMODEL, "Maker Model");
    TIFFSetField(tiff, TIFFTAG_DNGVERSION, "\001\003\000\000");
    TIFFSetField(tiff, TIFFTAG_CFAREPEATPATTERNDIM, pattern);
    TIFFSetField(tiff, TIFFTAG_CFAPATTERN, 4, colours);
    for (int y = 0; y < height; ++y) {
        std::uint16_t row[width];
        for (int x = 0; x < width; ++x) row[x] = sample(x, y);
        ASSERT_EQ(TIFFWriteScanline(tiff, row, static_cast<std::uint32_t>(y), 0), 1);
    }
    TIFFClose(tiff);

    ProgramState state;
    RecordingPort port(state);
    ASSERT_TRUE(OpenImage(state, port, path)) << state.Display.Details;
    const PlateImage& image = state.Image;
    EXPECT_EQ(image.Format, "camera RAW");
    ASSERT_EQ(image.Width, width / 2);
    ASSERT_EQ(image.Height, height / 2);
    EXPECT_EQ(image.Counts.Factor, 1);
    for (int y = 0; y < image.Height; ++y) {
        for (int x = 0; x < image.Width; ++x) {
            const int sum = sample(2 * x, 2 * y) + sample(2 * x + 1, 2 * y) +
                            sample(2 * x, 2 * y + 1) + sample(2 * x + 1, 2 * y + 1);
            ASSERT_EQ(image.Pixels(x, y) + image.DataOffset, sum) << x << ", " << y;
        }
    }
    EXPECT_EQ(image.Orientation, 6) << "a quarter turn";
    EXPECT_TRUE(FirstRowAtTop(image));
    ASSERT_EQ(image.Remarks.size(), 2U);
    EXPECT_NE(image.Remarks[0].find("turned right by a quarter"), std::string::npos);
    EXPECT_NE(image.Remarks[1].find("the scale is twice"), std::string::npos);
}
#endif

#ifdef VESTREL_READS_FITS
TEST(OpenImage, ADamagedPackedFileIsRefusedOrAPictureAndNeverTheEnd) {
    const std::string seeds = VESTREL_SOURCE_DIR "/fuzz/corpus/decoders/";
    TemporaryFolder folder;
    int refused = 0;
    for (const char* name : {"rice.fits.fz", "hcompress.fits.fz"}) {
        const std::string good = ReadFile(seeds + name);
        for (std::uint32_t seed = 0; seed < 100; ++seed) {
            // Every other file has its faults in the packed pixels, after the headers.
            const std::size_t from = seed % 2 == 0 ? 0 : good.size() - 2880;
            WriteFile(
                folder / "in.fz",
                seed == 0 ? good : good.substr(0, from) + Damaged(good.substr(from), seed, 2400));
            PlateImage image;
            ReadFailure failure;
            const bool read = ReadImageFile(folder / "in.fz", image, nullptr, failure);
            EXPECT_TRUE(read ? image.Width > 0 && image.Height > 0 : !failure.Cause.empty())
                << name << seed;
            EXPECT_TRUE(read || seed > 0) << name << ": " << failure.Cause;
            refused += read ? 0 : 1;
        }
    }
    EXPECT_GT(refused, 10);
}
#endif
#endif

TEST(OpenImage, LongPathsAreShownFromTheirEnd) {
    const std::string file50 = std::string(46, 'n') + ".fit";
    EXPECT_EQ(ShortenedPath("C:\\a\\m51.fit"), "\\C:\\a\\m51.fit");
    EXPECT_EQ(ShortenedPath(std::string(45, 'n') + ".fit"), "\\" + std::string(45, 'n') + ".fit");
    EXPECT_EQ(ShortenedPath(file50), "");  // 51 characters with its "\", and no folder to drop
    EXPECT_EQ(ShortenedPath("/home/" + file50), file50);
    EXPECT_EQ(ShortenedPath("C:\\images\\2005\\ march\\" + std::string(34, 'n') + "\\name.fit"),
              "march\\" + std::string(34, 'n') + "\\name.fit");
    EXPECT_EQ(ShortenedPath("C:\\x\\ y" + file50), "");
    std::string stars;  // three bytes each, one character
    for (int i = 0; i < 45; ++i) stars += "\xE2\x98\x85";
    EXPECT_EQ(ShortenedPath(stars + ".fit"), "\\" + stars + ".fit");
}

}  // namespace vestrel
