// Saving, exporting and world coordinates: round trips through Vestrel itself, and other programs
// as judges (astropy and fitsverify, where they are installed).

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iomanip>
#include <numeric>
#ifndef _WIN32
#include <sys/resource.h>

#endif

#include "image/libFitsCards.h"
#include "image/libFitsKeywords.h"
#include "image/libHeaderText.h"
#include "image/libWorldCoordinates.h"
#include "platform/libConsole.h"
#include "platform/libPlatform.h"
#include "program/mImageData.h"
#include "program/mSolvedImage.h"
#include "tests/judge.h"
#include "tests/testSupport.h"

namespace vestrel {
namespace {

/// A program state with one image, as after opening and solving it.
struct Opened {
    ProgramState State;
    RecordingPort Port{State};

    bool Open(const std::filesystem::path& path) {
        return OpenImage(State, Port, TextFromPath(path));
    }
    void Solve(double ra, double dec, double arcsecondsPerPixel, double turn, bool mirrored) {
        ImageHeader& header = State.Image.Header;
        const double scale = 1 / arcsecondsPerPixel;
        header.PlateMatched = true;
        header.RaRef = ra;
        header.DecRef = dec;
        header.PlateScale = 206264.81;
        const double sign = mirrored ? 1 : -1;
        // With some stretch and skew, and a tangent point away from the middle.
        const double rows[2][3] = {
            {scale * std::cos(turn), scale * std::sin(turn), 0.3 * State.Image.Width},
            {sign * scale * 1.02 * std::sin(-turn - 0.01),
             sign * scale * 1.02 * std::cos(turn + 0.01), 0.8 * State.Image.Height}};
        for (int row = 0; row < 2; ++row) std::copy_n(rows[row], 3, header.PlateTransform[row]);
    }
    /// The sky position (degrees) of a point of the grid, by the program's own inverse projection.
    SkyPosition SkyAt(double x, double y) const {
        const ImageHeader& header = State.Image.Header;
        const auto& m = header.PlateTransform;
        const PlateConstants map{m[0][0], m[0][1], m[0][2], m[1][0], m[1][1], m[1][2]};
        Projection plane;
        plane.SetProjectionCentre({header.RaRef, header.DecRef}, header.PlateScale);
        double xi = 0;
        double eta = 0;
        InvertPlateFit(map, x, y, xi, eta);
        const SkyPosition sky = plane.PlaneToSky(xi, eta);
        constexpr double degreesPerRadian = 57.29577951308232;
        return {sky.Ra * degreesPerRadian, sky.Dec * degreesPerRadian};
    }
};

/// A raw SBIG image.
std::string Sbig(int width, int height, const std::vector<int>& counts) {
    std::string bytes = "SBIG Image\n\rWidth = " + std::to_string(width) +
                        "\n\rHeight = " + std::to_string(height) +
                        "\n\rExposure = 250\n\rFilter = L'x\n\rNote = caf\xE9\n\rEND\n\r";
    bytes.resize(2048);
    for (int y = 0; y < height; ++y) {
        bytes += static_cast<char>(2 * width & 255);
        bytes += static_cast<char>(2 * width >> 8);
        for (int x = 0; x < width; ++x) {
            const int place = y * width + x;
            const int count = counts[static_cast<std::size_t>(place)];
            bytes += static_cast<char>(count & 255);
            bytes += static_cast<char>(count >> 8);
        }
    }
    return bytes;
}

constexpr int width = 61;
constexpr int height = 41;

}  // namespace

TEST(Saving, EveryByteOfASavedFileIsAsItAlwaysWas) {
    TemporaryFolder folder;
    Opened opened;
    WriteFile(folder / "in.fit",
              FitsHeader(FitsCards(
                  16, 3, 1,
                  {"OBJECT  = 'M 31' / x", "BZERO   = 32768", "BSCALE  = 1", "HISTORY  lost",
                   "EXPTIME = 30.005", "CCD-TEMP= -10.126", "XPIXSZ  = 5.4325", "EGAIN   = 0.00004",
                   "FOCALLEN= 1E17", "CBLACK  = -7", "DATAMAX = 0.1", "BIAS    = 99.5"})) +
                  FitsPixels(16, std::vector<double>{-32768, -1, 32767}));
    ASSERT_TRUE(opened.Open(folder / "in.fit"));
    ImageHeader& header = opened.State.Image.Header;
    header.RaRef = 1.0 / 3;
    header.PlateTransform[1][0] = -1e-5;
    header.PlateTransform[0][2] = 1234.5;
    header.PlateMatched = true;
    const std::string path = TextFromPath(folder / "out.fit");
    ASSERT_TRUE(SaveImage(opened.State, opened.Port, path));
    const std::string saved = ReadFile(folder / "out.fit");
    const std::vector<std::string> values = {
        "SIMPLE  = T",      "BITPIX  = 16",     "NAXIS   = 2",
        "NAXIS1  = 3",      "NAXIS2  = 1",      "OBJECT  = 'M 31'",
        "TELESCOP= 0",      "INSTRUME= 0",      "OBSERVER= 0",
        "DATE-OBS= 0",      "BSCALE  = 1",      "BZERO   = 32768",
        "HISTORY = 0",      "EXPTIME = 30",     "CCD-TEMP= -10.13",
        "XPIXSZ  = 5.432",  "YPIXSZ  = 0",      "XBINNING= 0",
        "YBINNING= 0",      "XORGSUBF= 0",      "YORGSUBF= 0",
        "EGAIN   = 0",      "FOCALLEN= 1E+17",  "APTDIA  = 0",
        "APTAREA = 0",      "CBLACK  = -7",     "CWHITE  = 0",
        "PEDESTAL= -100",   "DATAMAX = 0.1",    "SWCREATE= 0",
        "SWMODIFY= 0",      "SBSTDVER= 0",      "FILTER  = 0",
        "OBJCTRA = ",       "OBJCTDEC= ",       "IMAGESZX= 0",
        "IMAGESZY= 0",      "NH_PM   = T",      "NH_RAREF= 0.333333333333333",
        "NH_DEREF= 0",      "NH_PS   = 0",      "NH_A    = 0",
        "NH_B    = 0",      "NH_C    = -1E-05", "NH_D    = 0",
        "NH_U0   = 1234.5", "NH_V0   = 0"};
    std::string expected;
    for (const std::string& value : values) {
        expected += value + " /" + std::string(78 - value.size(), ' ');
    }
    expected += "END" + std::string(77, ' ') + std::string(1920, '\0');
    expected += std::string("\x80\x00\xFF\xFF\x7F\xFF", 6) + std::string(2874, '\0');
    EXPECT_EQ(saved, expected);

    // A longer file keeps its end; a long value shifts what follows.
    WriteFile(folder / "out.fit", std::string(9000, 'o'));
    ASSERT_TRUE(SaveImage(opened.State, opened.Port, path));
    EXPECT_EQ(ReadFile(folder / "out.fit"), expected + std::string(9000 - 8640, 'o'));
    header.Observer = std::string(100, 'n');
    ASSERT_TRUE(SaveImage(opened.State, opened.Port, path));
    const std::string longer = ReadFile(folder / "out.fit");
    EXPECT_EQ(longer.size(), 9000u);
    EXPECT_EQ(longer.substr(5760 + 32, 6), expected.substr(5760, 6));
}

TEST(Saving, OverItsOwnFileKeepsThatFileTheImages) {
    TemporaryFolder folder;
    Opened opened;
    const std::filesystem::path own = folder / "own.fit";
    WriteFile(own,
              FitsHeader(FitsCards(16, 3, 1, {})) + FitsPixels(16, std::vector<double>{1, 2, 3}));
    ASSERT_TRUE(opened.Open(own));
    ASSERT_TRUE(SaveImage(opened.State, opened.Port, TextFromPath(own)));
    EXPECT_EQ(opened.State.Image.Stamp, StampOfFile(own));
    const FileStamp stamp = opened.State.Image.Stamp;
    ASSERT_TRUE(SaveImage(opened.State, opened.Port, TextFromPath(folder / "other.fit")));
    EXPECT_EQ(opened.State.Image.Stamp, stamp);
}

TEST(Saving, ASavedImageOpensAgainWithItsCountsAndItsSolution) {
    TemporaryFolder folder;
    Random random(3);
    std::vector<double> counts(width * height);
    for (double& count : counts) count = random.Whole(-32768, 32767);
    Opened first;
    WriteFile(folder / "in.fit", FitsHeader(FitsCards(16, width, height,
                                                      {"BZERO   = 32768", "BSCALE  = 1",
                                                       "OBJECT  = 'M 31'", "EXPTIME = 30.5"})) +
                                     FitsPixels(16, counts));
    ASSERT_TRUE(first.Open(folder / "in.fit"));
    first.Solve(5.1, -1.2, 3, 0.7, true);
    ASSERT_TRUE(SaveImage(first.State, first.Port, TextFromPath(folder / "out.fit")));
    Opened second;
    ASSERT_TRUE(second.Open(folder / "out.fit"));
    EXPECT_EQ(second.State.Image.DataOffset, 32768);
    for (std::int32_t y = 0; y < height; ++y) {
        for (std::int32_t x = 0; x < width; ++x) {
            ASSERT_EQ(second.State.Image.Pixels(x, y), first.State.Image.Pixels(x, y));
        }
    }
    EXPECT_TRUE(second.State.Image.Header.PlateMatched);
    EXPECT_EQ(second.State.Image.Header.History, "0|0");
    for (const auto& [x, y] : {std::pair{0, 0}, {width, 0}, {0, height}, {width, height}}) {
        EXPECT_NEAR(first.SkyAt(x, y).Ra, second.SkyAt(x, y).Ra, 1e-11);
        EXPECT_NEAR(first.SkyAt(x, y).Dec, second.SkyAt(x, y).Dec, 1e-11);
    }

    // Floating-point images come back upside down, with 0 for counts above 32767.
    const std::vector<double> high = {1, 40000, 3, 65535};
    WriteFile(folder / "float.fit", FitsHeader(FitsCards(-32, 2, 2)) + FitsPixels(-32, high));
    ASSERT_TRUE(first.Open(folder / "float.fit"));
    ASSERT_TRUE(SaveImage(first.State, first.Port, TextFromPath(folder / "turned.fit")));
    ASSERT_TRUE(second.Open(folder / "turned.fit"));
    const auto& pixels = second.State.Image.Pixels;
    EXPECT_EQ((std::vector<int>{pixels(0, 0), pixels(1, 0), pixels(0, 1), pixels(1, 1)}),
              (std::vector<int>{3, 0, 1, 0}));
    EXPECT_JUDGED("judgeFits.py", {"saved", folder.Path.string()});
}

TEST(Saving, AFailureLeavesTheOldFileAndNoOther) {
    TemporaryFolder folder;
    Opened opened;
    EXPECT_FALSE(SaveImage(opened.State, opened.Port, TextFromPath(folder / "none.fit")));
    EXPECT_FALSE(ExportImage(opened.State, opened.Port, TextFromPath(folder / "none.fit")));
    EXPECT_FALSE(WriteWorldCoordinates(opened.State, opened.Port));
    EXPECT_EQ(opened.Port.Messages,
              (std::vector<std::string>{"Vestrel: There is no image to save.",
                                        "Vestrel: There is no image to export.",
                                        "Vestrel: The image has no solution."}));
    WriteFile(folder / "in.fit", FitsHeader(FitsCards(16, 200, 200)));
    ASSERT_TRUE(opened.Open(folder / "in.fit"));
    opened.Solve(1, 1, 2, 3, false);
    WriteFile(folder / "out.fit", "precious");
    opened.Port.Messages.clear();
    for (const char* name : {"missing/out.fit", ".", "in.fit/out.fit"}) {
        EXPECT_FALSE(SaveImage(opened.State, opened.Port, TextFromPath(folder / name))) << name;
        EXPECT_FALSE(ExportImage(opened.State, opened.Port, TextFromPath(folder / name))) << name;
    }
    EXPECT_EQ(opened.Port.Messages.size(), 6u);
    EXPECT_EQ(opened.Port.Messages[0], "Vestrel: Cannot write " +
                                           TextFromPath(folder / "missing/out.fit") +
                                           ": No such file or directory");
#ifndef _WIN32
    // A disk that is full in the middle of the file, after 50000 bytes.
    EXPECT_EXIT(
        {
            PrepareProcess();
            rlimit limit{};
            limit.rlim_cur = limit.rlim_max = 50000;
            const std::string path = TextFromPath(folder / "out.fit");
            const bool refused = setrlimit(RLIMIT_FSIZE, &limit) == 0 &&
                                 !SaveImage(opened.State, opened.Port, path) &&
                                 !ExportImage(opened.State, opened.Port, path);
            std::_Exit(refused ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
    // Links are followed, whether their target is a file or not; a file keeps its permissions.
    namespace fs = std::filesystem;
    const auto mine = fs::perms::owner_read | fs::perms::owner_write;
    using Writer = std::function<bool(ProgramState&, Port&, const std::string&)>;
    for (const Writer& write : {Writer(SaveImage), Writer(ExportImage)}) {
        fs::create_symlink("out.fit", folder / "link.fit");
        WriteFile(folder / "out.fit", "");
        fs::permissions(folder / "out.fit", mine);
        EXPECT_TRUE(write(opened.State, opened.Port, TextFromPath(folder / "link.fit")));
        EXPECT_TRUE(fs::is_symlink(folder / "link.fit"));
        EXPECT_GE(ReadFile(folder / "out.fit").size(), 5760u + 28 * 2880);
        EXPECT_EQ(fs::status(folder / "out.fit").permissions(), mine);
        fs::remove(folder / "link.fit");
        fs::create_symlink("/dev/null", folder / "link.fit");
        EXPECT_FALSE(write(opened.State, opened.Port, TextFromPath(folder / "link.fit")));
        EXPECT_TRUE(fs::is_symlink(folder / "link.fit"));
        fs::remove(folder / "link.fit");
    }
#endif
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder.Path)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"in.fit", "out.fit"}));
}

TEST(FileDialogs, AskWithTheirFiltersAndRememberTheFolders) {
    TemporaryFolder folder;
    Opened opened;
    ProgramState& state = opened.State;
    RecordingPort& port = opened.Port;
    state.HaveConfig = true;
    state.Parameters.LastOpenFolder = "/a";
    state.Parameters.LastSaveFolder = "/b";
    OpenImageDialog(state, port);
    SaveImageDialog(state, port);
    ASSERT_EQ(port.Dialogs.size(), 2u);
    EXPECT_EQ(port.Dialogs[0].Title, "Open Image");
    EXPECT_EQ(port.Dialogs[0].Filters,
              "JPG Files (*.jpg)|*.jpg|BMP Files (*.bmp)|*.bmp|SBIG Files (*.SBIG)|*.SBIG;*.SBI|"
              "FITS Files (*.FIT, *.FITS, *.FTS)|*.fit;*.fits;*.fts|All Files (*.*)|*.*");
    EXPECT_EQ(port.Dialogs[0].InitialName, "/a\\*.*");
    EXPECT_EQ(port.Dialogs[1].Title, "Save Image As");
    EXPECT_EQ(port.Dialogs[1].Filters,
              "FITS Files (*.FIT, *.FITS, *.FTS)|*.fit;*.fits;*.fts|All Files(*.*)|*.*|");
    EXPECT_EQ(port.Dialogs[1].InitialName, "/b\\*.*");
    EXPECT_EQ(std::make_tuple(port.Dialogs[0].FilterIndex, port.Dialogs[1].FilterIndex,
                              port.Dialogs[0].Saves, port.Dialogs[1].Saves),
              std::make_tuple(4, 4, false, true));
    EXPECT_EQ(state.Parameters.LastOpenFolder + state.Parameters.LastSaveFolder, "/a/b");
    EXPECT_TRUE(port.Messages.empty());

    WriteFile(folder / "image.sbi", Sbig(2, 1, {1, 2}));
    port.Answer = TextFromPath(folder / "image.sbi");
    OpenImageDialog(state, port);
    EXPECT_EQ(state.Image.ImageType, ImageType::Sbig);
    EXPECT_EQ(state.Parameters.LastOpenFolder, folder.Path.string());
    EXPECT_EQ(state.Parameters.LastSaveFolder, "/b");
    // Refused because of its extension: the open image stays as it was and can be saved.
    port.Answer = TextFromPath(folder / "image.bmp");
    OpenImageDialog(state, port);
    EXPECT_EQ(port.Messages, std::vector<std::string>{"Vestrel: File type is not supported"});
    port.Answer = TextFromPath(folder / "out.fit");
    SaveImageDialog(state, port);
    EXPECT_EQ(state.Parameters.LastSaveFolder, folder.Path.string());
    EXPECT_EQ(ReadFile(folder / "out.fit").size(), 8640u);
}

TEST(WorldCoordinates, OtherProgramsSeeTheSkyAndTheCountsThatVestrelSees) {
    TemporaryFolder folder;
    Random random(11);
    std::ofstream points(folder / "points.txt");
    points << std::setprecision(17);
    int number = 0;
    const std::vector<std::string> kinds = {"8", "16", "-32", "scaled", "SBIG", "wild SBIG"};
    for (const bool mirrored : {false, true}) {
        for (const std::string& kind : kinds) {
            std::vector<double> stored(width * height);
            for (double& value : stored) value = random.Whole(0, kind == "8" ? 255 : 32767);
            const int bitPix = kind == "8" ? 8 : kind == "-32" ? -32 : 16;
            std::string bytes =
                FitsHeader(FitsCards(
                    bitPix, width, height,
                    kind == "scaled"
                        ? std::vector<std::string>{"BSCALE  = 0.25", "BZERO   = 100"}
                        : std::vector<std::string>{"BZERO   = 7 / [adu]", "CTYPE1  = 'RA---TAN'",
                                                   "PC1_1   = 1", "CROTA2  = 3"})) +
                FitsPixels(bitPix, stored);
            if (kind.ends_with("SBIG")) {
                bytes = Sbig(width, height, std::vector<int>(stored.begin(), stored.end()));
            }
            if (kind == "wild SBIG") {
                // The first row stored as deltas, with sums beyond 16 bits.
                std::string row = std::string("\x3E\0\xF0\xFF", 4) + std::string(width - 1, '\x70');
                bytes.replace(2048, 2 + 2 * width, row);
                for (int x = 0; x < width; ++x)
                    stored[static_cast<std::size_t>(x)] = 65520 + 112 * x;
            }
            const std::string name = "image" + std::to_string(++number);
            const std::string file = name + (kind.ends_with("SBIG") ? ".sbig" : ".fit");
            WriteFile(folder / file, bytes);
            Opened opened;
            ASSERT_TRUE(opened.Open(folder / file)) << kind;
            // On a pole according to the program's decimal pi, and beyond the pole too.
            const double poles[] = {3.141592654 / 2, -3.141592654 / 2, 1.58, -1.7};
            const double dec = number % 2 == 0 ? poles[number / 2 % 4] : random.Between(-1.5, 1.5);
            const double ra = number % 3 == 0 ? 0.001 : random.Between(0, 6.28);
            opened.Solve(ra, dec, random.Between(1, 600), random.Between(0, 6), mirrored);
            opened.State.BackgroundRemoved = true;  // the export must not take its counts from the
                                                    // grid
            opened.State.Image.Pixels.Wide()(3, 3) += 17;
            ASSERT_TRUE(WriteWorldCoordinates(opened.State, opened.Port));
            const std::string exported = TextFromPath(folder / (name + ".export.fits"));
            ASSERT_TRUE(ExportImage(opened.State, opened.Port, exported));
            Opened again;
            ASSERT_TRUE(again.Open(exported));

            // Every pixel of the file, from its first row, with its count; the sky at some.
            const bool bottomFirst = !kind.ends_with("SBIG");
            for (int row = 0; row < height; ++row) {
                const int fileRow = bottomFirst ? row : height - 1 - row;
                const int gridRow = kind == "-32" ? height - 1 - row : fileRow;
                for (int x = 0; x < width; ++x) {
                    const int place = fileRow * width + x;
                    const double value = stored[static_cast<std::size_t>(place)];
                    const double count = kind == "scaled"         ? 100 + 0.25 * value
                                         : kind.ends_with("SBIG") ? value
                                                                  : value + 7;
                    const SkyPosition sky = opened.SkyAt(x, gridRow);
                    points << name << ' ' << x + 1 << ' ' << row + 1 << ' ' << count << ' '
                           << sky.Ra << ' ' << sky.Dec << '\n';
                    const bool turned = again.State.Image.Header.BitPix == -32;
                    const SkyPosition same = again.SkyAt(x, turned ? height - 1 - row : row);
                    ASSERT_NEAR(same.Dec, sky.Dec, 1e-9) << kind;
                }
            }
        }
    }
    points.close();
    EXPECT_JUDGED("judgeFits.py", {"exported", folder.Path.string()});
}

TEST(WorldCoordinates, ASolutionThatIsNoMapOfTheSkyIsNone) {
    TemporaryFolder folder;
    Opened opened;
    WriteFile(folder / "in.fit",
              FitsHeader(FitsCards(8, 5, 5, {"NH_PM = T", "NH_PS = 206264.81"})));
    ASSERT_TRUE(opened.Open(folder / "in.fit"));
    EXPECT_FALSE(WriteWorldCoordinates(opened.State, opened.Port));
    EXPECT_FALSE(std::filesystem::exists(folder / "in.wcs"));
    opened.Solve(1, 1, 1e200, 1, false);
    EXPECT_FALSE(WriteWorldCoordinates(opened.State, opened.Port));
    opened.Solve(1, 1, 1, 1, false);
    opened.State.Image.Header.PlateScale = 0;
    EXPECT_FALSE(WriteWorldCoordinates(opened.State, opened.Port));
    // The image has changed since it was read.
    opened.Solve(1, 1, 1, 1, false);
    WriteFile(folder / "in.fit", FitsHeader(FitsCards(8, 5, 6)));
    EXPECT_FALSE(ExportImage(opened.State, opened.Port, TextFromPath(folder / "out.fits")));
    EXPECT_TRUE(opened.Port.Messages.back().ends_with("is no longer what it was."));
    EXPECT_FALSE(std::filesystem::exists(folder / "out.fits"));
    EXPECT_FALSE(WriteWorldCoordinates(opened.State, opened.Port));
    EXPECT_FALSE(std::filesystem::exists(folder / "in.wcs"));
}

TEST(Export, NeverPutsASolutionIntoAPictureThatCameInThePlaceOfTheSolvedOne) {
    TemporaryFolder folder;
    const std::string out = TextFromPath(folder / "out.fits");
    for (const bool sbig : {false, true}) {
        // Another picture of the same size and header.
        const auto picture = [&](int count) {
            return sbig
                       ? Sbig(5, 4, std::vector(20, count))
                       : FitsHeader(FitsCards(8, 5, 4)) + std::string(20, static_cast<char>(count));
        };
        const std::filesystem::path file = folder / (sbig ? "in.sbig" : "in.fit");
        Opened opened;
        WriteFile(file, picture(1));
        ASSERT_TRUE(opened.Open(file));
        opened.Solve(1, 1, 1, 1, false);
        EXPECT_TRUE(ExportImage(opened.State, opened.Port, out));
        std::filesystem::remove(out);
        WriteFile(folder / "next", picture(2));
        std::filesystem::rename(folder / "next", file);
        EXPECT_FALSE(ExportImage(opened.State, opened.Port, out));
        EXPECT_TRUE(opened.Port.Messages.back().ends_with("is no longer what it was."));
        EXPECT_FALSE(std::filesystem::exists(out));
    }
}

TEST(WorldCoordinates, OlderOnesAreKnownByTheirKeywords) {
    for (const char* stale :
         {"CRVAL1", "CRVAL12B", "CD2_1", "PC001002", "PC1_1A", "A_2_0", "BP_ORDER", "EQUINOX",
          "RADESYSC", "NH_PM", "PV2_15", "AMDX13", "WAT1_001"}) {
        EXPECT_TRUE(IsStaleKeyword(stale)) << stale;
    }
    for (const char* kept :
         {"CRVAL", "CRVAL1BB", "CD1_", "PCOUNT", "AIRMASS", "DATE-OBS", "PLTSOLVD", "A_B_C",
          "OBJCTRA", "RA", "", "EQUINOX1", "PPOINT", "NHPM"}) {
        EXPECT_FALSE(IsStaleKeyword(kept)) << kept;
    }
}

TEST(StandardCards, GoodCardsStayAndOthersArePutRight) {
    const auto padded = [](std::string card) {
        card.resize(80, ' ');
        return card;
    };
    for (const char* good :
         {"OBJECT  = 'M 31'             / it's", "EXPTIME =               30.5D0 / seconds",
          "FLAG    =                    T", "COMPLEX = (1.5, -2)", "HISTORY a = b", "COMMENT",
          "        blank keyword", "HIERARCH ESO TEL = 'x'", "DATE-OBS= '03/02/99'",
          "DATE-OBS= '2024-02-29T23:59:60.5'", "QUOTE   = 'O''Neil' / x", "EMPTY   = ''"}) {
        EXPECT_EQ(StandardCards(padded(good)), std::vector<std::string>{padded(good)});
    }
    const std::vector<std::pair<std::string, std::string>> others = {
        {"OBJECT  = M 31 / galaxy", "OBJECT  = 'M 31    '           / galaxy"},
        {"OBJECT  = 5", "OBJECT  = '5       '"},
        {"exptime = 1.5e3 / s", "EXPTIME =                1.5E3 / s"},
        {"GAIN=2", "GAIN    =                    2"},
        {"FILTER  = 'open", "FILTER  = 'open    '"},
        {"NOTE    = caf\xE9", "NOTE    = 'caf?    '"},
        {"FOO     =", "COMMENT   FOO     ="},
        {"FO O    = 1", "COMMENT   FO O    = 1"},
        {"DATE-OBS= '2024-02-30'", "COMMENT   DATE-OBS= '2024-02-30'"},
        {"DATAMAX = 'x'", "COMMENT   DATAMAX = 'x'"},
        {"TTYPE1  = 'x'", "COMMENT   TTYPE1  = 'x'"},
        {"DATE-OBS= '2024/02/28 01:02Z'", "DATE-OBS= '2024-02-28T01:02:00'"},
        {"some words", "COMMENT   some words"}};
    for (const auto& [card, standard] : others) {
        EXPECT_EQ(StandardCards(padded(card)), std::vector<std::string>{padded(standard)});
    }
    EXPECT_TRUE(StandardCards(std::string(80, '\0')).size() <= 1);
}

TEST(StandardCards, AnExportOfAnyReadableHeaderIsStandard) {
    TemporaryFolder folder;
    const std::string original =
        FitsHeader(FitsCards(16, 4, 3,
                             {"EXTEND  =                    T / may hold more",
                              "OBJECT  = 'M 31    ' / galaxy",
                              "DATE-OBS= '2024-01-31T01:02:03.5' / UTC",
                              "EXPTIME =                 30.5",
                              "LONGSTRN= 'OGIP 1.0'",
                              "REMARK  = 'a text that goes on &' / more",
                              "CONTINUE  'and on&'",
                              "CONTINUE  ' to its end'",
                              "HISTORY = step one",
                              "HISTORY = step two",
                              "SITE    = 'first'",
                              "SITE    = 'second'",
                              "NOTHING =",
                              "CPDIS1  = 'LOOKUP'",
                              "DP1     = 'NAXES: 2'",
                              "EXPOSURE= 'long'",
                              "COMPLEX = (1.0, 2.0)",
                              "HIERARCH ESO TEL ID = 'x'",
                              "CTYPE1  = 'RA---TAN'",
                              "CRVAL1  = 1.5E1 / [deg]",
                              "BLANK   = 99",
                              "CHECKSUM= 'x'",
                              "DATAMAX = 5.0",
                              "EQUINOX = 2000",
                              "PLTSOLVD= T",
                              "TELESCOP= 'Newton'",
                              "EPOCH   = 2000.0",
                              "AIRMASS = 1.25e0",
                              "observer= Me & you",
                              "BUNIT   = 'adu'"})) +
        FitsPixels(16, std::vector<double>(12, 5.0));
    WriteFile(folder / "original.fit", original);
    int exported = 0;
    for (std::uint32_t seed = 0; seed < 300; ++seed) {
        Opened opened;
        WriteFile(folder / "in.fit", seed == 0 ? original : Damaged(original, seed, 2400));
        if (!opened.Open(folder / "in.fit") || opened.State.Image.Width == 0 ||
            opened.State.Image.Height == 0 || opened.State.Image.Width > 1000) {
            continue;
        }
        opened.Solve(1, 1, 2, 3, false);
        const std::string name = std::to_string(seed) + ".fits";
        ASSERT_TRUE(ExportImage(opened.State, opened.Port, TextFromPath(folder / name))) << seed;
        ++exported;
    }
    EXPECT_GT(exported, 30);
    // Keywords whose kind of value the standard fixes, with values of every kind.
    const std::string values[] = {"'TOPOCENT'", "'x'", "T",     "1.5",
                                  "(1.0, 2.0)", "",    "words", "NaN"};
    for (const std::string& value : values) {
        std::vector<std::string> cards;
        for (const char* keyword :
             {"AUTHOR",   "BUNIT",    "CREATOR",  "EXTNAME",  "INSTRUME", "OBJECT",   "OBSERVER",
              "ORIGIN",   "REFERENC", "TELESCOP", "RADESYS",  "RADECSYS", "SPECSYS",  "SSYSOBS",
              "SSYSSRC",  "SPECSYSA", "WCSNAME",  "DATAMAX",  "DATAMIN",  "EQUINOX",  "MJD-OBS",
              "MJD-AVG",  "CRPIX1",   "CRDER1",   "RESTFRQ",  "RESTFREQ", "RESTWAV",  "RESTFRQB",
              "OBSGEO-X", "OBSGEO-Y", "OBSGEO-Z", "VELOSYS",  "VELOSYSC", "ZSOURCE",  "VELANGL",
              "LONPOLE",  "LATPOLE",  "CTYPE3",   "CUNIT1",   "CNAME1",   "TIMESYS",  "BLANK",
              "EXTVER",   "EXTLEVEL", "EXTEND",   "INHERIT",  "GROUPS",   "BLOCKED",  "PTYPE1",
              "PSCAL1",   "PZERO1",   "TFIELDS",  "THEAP",    "TCTYP1",   "TCRVL1",   "TUNIT1",
              "DATE",     "DATE-OBS", "LONGSTRN", "CONTINUE", "HIERARCH", "CHECKSUM", "NEXTEND",
              "XTENSION", "PCOUNT"}) {
            cards.push_back((keyword + std::string(8, ' ')).substr(0, 8) + "= " + value);
        }
        cards.push_back("REMARK  = 'goes on &'");
        cards.push_back("CONTINUE  " + value);
        Opened opened;
        // Vestrel must be able to read the keywords that it uses itself.
        std::erase_if(cards, [&](const std::string& card) {
            ImageHeader header;
            std::string error;
            ParseHeaderCard(card, header, error);
            return !error.empty();
        });
        WriteFile(folder / "in.fit", FitsHeader(FitsCards(16, 4, 3, cards)));
        ASSERT_TRUE(opened.Open(folder / "in.fit")) << value;
        opened.Solve(1, 1, 2, 3, false);
        const std::string name = "kind" + std::to_string(&value - values) + ".fits";
        ASSERT_TRUE(ExportImage(opened.State, opened.Port, TextFromPath(folder / name))) << value;
    }
    EXPECT_JUDGED("judgeFits.py", {"standard", folder.Path.string()});
}

TEST(HeaderText, SummaryThenTheFirst299Cards) {
    TemporaryFolder folder;
    Opened opened;
    EXPECT_TRUE(HeaderLines(opened.State.Image).empty());
    WriteFile(folder / "in.fit",
              FitsHeader(FitsCards(8, 5, 4, std::vector<std::string>(494, "COMMENT"))));
    ASSERT_TRUE(opened.Open(folder / "in.fit"));
    EXPECT_EQ(HeaderLines(opened.State.Image).size(), 17u + 299);
    WriteFile(folder / "in.sbig", Sbig(2, 1, {1, 2}));
    ASSERT_TRUE(opened.Open(folder / "in.sbig"));
    opened.State.Image.Header.ImageSizeX = 12.34567;
    const std::vector<std::string> lines = HeaderLines(opened.State.Image);
    EXPECT_EQ(lines, (std::vector<std::string>{"  Image Size = 2 X 1",
                                               "  Image Size = 12.346'  X  0'",
                                               "  Bits per pixel = 16",
                                               "  Pedestal = -100",
                                               "  Pixel Size = 0 X 0 microns",
                                               "  CCD Temperature = 0 C",
                                               "  Exposure Time = 2.5 sec",
                                               "  Gain = 0 e-/ADU",
                                               "  Focal Length = 0 mm",
                                               "  Aperture Area = 0 mm^2",
                                               "  Filter = L'x",
                                               "  Observer = 0",
                                               "  ObjectRA = ",
                                               "  ObjectDec = ",
                                               std::string(75, '-'),
                                               "  Complete Header Follows:",
                                               " ",
                                               "  SBIG Image",
                                               "  Width = 2",
                                               "  Height = 1",
                                               "  Exposure = 250",
                                               "  Filter = L'x",
                                               "  Note = caf\xE9",
                                               "  END"}));
}

}  // namespace vestrel
