// The settings: their file byte by byte, and how start-up treats any file.

#include <gtest/gtest.h>
#ifndef _WIN32
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#endif
#include <unistd.h>

#include <array>
#include <bit>
#include <chrono>
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <optional>
#include <thread>

#include "platform/libFiles.h"
#include "platform/libPlatform.h"
#include "program/mSettings.h"
#include "tests/testSupport.h"

namespace vestrel {
namespace {

const std::string outOfDate =
    "Vestrel: The parameter file Vestrel.ini is out of date.  This program is creating a new one.";

/// The bytes of a number, little-endian like this machine.
template <typename Number>
std::string Little(Number number) {
    const auto bytes = std::bit_cast<std::array<char, sizeof number>>(number);
    return {bytes.begin(), bytes.end()};
}

/// A settings file whose fields hold 1.5, 2.5, ... in file order, 101 and −102 the 16-bit ones.
std::string FileByHand(std::string openFolder, std::string saveFolder) {
    std::string bytes = Little(113113);
    for (int i = 1; i <= 6; ++i) bytes += Little(i + 0.5);
    bytes += Little(std::int16_t{101}) + Little(std::int16_t{-102});
    for (int i = 7; i <= 12; ++i) bytes += Little(i + 0.5);
    openFolder.resize(255, ' ');
    saveFolder.resize(255, ' ');
    return bytes + openFolder + saveFolder;
}

std::vector<double> Numbers(const SolveParameters& p) {
    return {p.MaxStarSize,         p.MatchTolerance,    p.MatchDivisor, p.DetectionThreshold,
            p.EdgeExclusion,       p.MaxGeometricError, p.MaxError,     p.BackgroundRadius,
            p.ApertureRadius,      p.FieldWidth,        p.FieldHeight,  p.SizeUnit,
            double(p.MinStarSize), double(p.MaxStars)};
}

/// A program whose settings file is in a folder of its own.
class Settings : public testing::Test {
 public:
    Settings() { SetVariable("VESTREL_SETTINGS", File); }
    ~Settings() override { UnsetVariable("VESTREL_SETTINGS"); }
    Settings(const Settings&) = delete;
    Settings& operator=(const Settings&) = delete;

 protected:
    void Start(std::string_view bytes) {
        WriteFile(File, bytes);
        Restart();
    }
    void Restart() {
        State = {};
        Messages.emplace(State);
        InitSettings(State, *Messages);
    }
    bool HasDefaults() const {
        return Numbers(State.Parameters) ==
                   std::vector<double>{6, 0.01, 150, 6, 0.02, 0.025, 2, 20, 12, 20, 20, 0, 3, 45} &&
               State.Parameters.LastOpenFolder == TextFromPath(ProgramFolder()) &&
               State.Parameters.LastSaveFolder == TextFromPath(ProgramFolder());
    }

    TemporaryFolder Folder;
    std::filesystem::path File = Folder / "Vestrel.ini";
    ProgramState State;
    std::optional<RecordingPort> Messages;
};

}  // namespace

TEST_F(Settings, EveryByteOfTheFileHasItsPlace) {
    const std::string bytes = FileByHand("C:\\images", "/home/m\xC3\xBC/x");
    ASSERT_EQ(bytes.size(), 614U);
    Start(bytes);
    EXPECT_TRUE(State.HaveConfig);
    EXPECT_TRUE(Messages->Messages.empty());
    EXPECT_EQ(Numbers(State.Parameters),
              (std::vector<double>{1.5, 2.5, 3.5, 4.5, 5.5, 6.5, 7.5, 8.5, 9.5, 10.5, 11.5, 12.5,
                                   101, -102}));
    EXPECT_EQ(State.Parameters.LastOpenFolder, "C:\\images");
    EXPECT_EQ(State.Parameters.LastSaveFolder, "/home/m\xC3\xBC/x");
    State.Inputs = {"none", "", "parsecs"};  // change nothing
    ASSERT_TRUE(SaveSettings(State));
    EXPECT_EQ(ReadFile(File), bytes);
}

TEST_F(Settings, OnlyAWholeFileOfThisStampIsRead) {
    const std::string bytes = FileByHand("a", "b");
    for (const std::size_t length : {0, 4, 5, 36, 613, 614}) {
        Start(bytes.substr(0, length));
        EXPECT_EQ(State.HaveConfig, length == 614) << length;
        EXPECT_EQ(Messages->Messages.size(), length >= 5 && length < 614 ? 1U : 0U) << length;
        EXPECT_TRUE(State.HaveConfig || HasDefaults()) << length;
    }
    Start(bytes + "longer");
    EXPECT_TRUE(State.HaveConfig);
    const std::string notANumber =
        bytes.substr(0, 12) + Little(std::numeric_limits<double>::quiet_NaN()) + bytes.substr(20);
    for (const std::string& bad : {"\xDA" + bytes.substr(1), notANumber}) {
        Start(bad);
        EXPECT_EQ(Messages->Messages, std::vector<std::string>{outOfDate});
        EXPECT_TRUE(HasDefaults());
    }
    // The next save repairs the file, and the message disappears.
    ASSERT_TRUE(SaveSettings(State));
    Restart();
    EXPECT_TRUE(State.HaveConfig && Messages->Messages.empty() && HasDefaults());
}

TEST_F(Settings, LongFoldersAreCutBetweenCharacters) {
    const std::string star = "\xE2\x98\x85";
    for (std::size_t lead = 250; lead <= 256; ++lead) {
        State.Parameters.LastOpenFolder = std::string(lead, 'f') + star;
        State.Parameters.LastSaveFolder = std::string(300, '\x80');  // no character begins here
        ASSERT_TRUE(SaveSettings(State));
        EXPECT_EQ(ReadFile(File).size(), 614U);
        Restart();
        EXPECT_EQ(State.Parameters.LastOpenFolder,
                  std::string(std::min<std::size_t>(lead, 255), 'f') + (lead <= 252 ? star : ""));
        EXPECT_LE(State.Parameters.LastSaveFolder.size(), 255U);
    }
}

TEST_F(Settings, SizesGoThroughTheInputsInTwoDecimals) {
    Restart();  // no file yet
    EXPECT_TRUE(std::filesystem::exists(File) && std::filesystem::file_size(File) == 0);
    EXPECT_TRUE(HasDefaults() && Messages->Messages.empty() && !State.HaveConfig);
    EXPECT_EQ(State.Inputs.SizeX + State.Inputs.Units, "20arcminutes");
    State.Inputs = {"12.3456", " 0.125 ", "degrees"};
    // A locale with a decimal comma changes nothing (where one is installed).
    std::setlocale(LC_ALL, "de_DE.UTF-8");
    ASSERT_TRUE(SaveSettings(State));
    Restart();
    std::setlocale(LC_ALL, "C");
    EXPECT_EQ(State.Parameters.FieldWidth, 12.35);
    EXPECT_EQ(State.Parameters.FieldHeight, 0.12);  // halves go to the even digit
    EXPECT_EQ(State.Parameters.SizeUnit, 1);
    EXPECT_EQ(State.Inputs.SizeX + " " + State.Inputs.SizeY + State.Inputs.Units,
              "12.35 0.12degrees");
    // A size that the file may not hold would make the next start discard all settings.
    State.Inputs.SizeX = "1E999";
    ASSERT_TRUE(SaveSettings(State));
    Restart();
    EXPECT_TRUE(State.HaveConfig && Messages->Messages.empty());
    EXPECT_EQ(State.Parameters.FieldWidth, 12.35);
}

TEST_F(Settings, SavingReplacesTheFileWholeOrNotAtAll) {
    const std::string old = FileByHand("old", "old");
    Start(old);
    // A reader that has the old file open continues to read the old content.
    FileHandle reader = OpenFile(File, "rb");
    std::string seen(614, '\0');
    const auto read = [&] {
        EXPECT_EQ(std::fread(seen.data(), 1, seen.size(), reader.get()), 614U);
        reader.reset();
    };
    State.Parameters.MaxStars = 7;
#ifdef _WIN32
    // An open file cannot be replaced on Windows, so saving waits until the reader has closed it.
    std::jthread other([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        read();
    });
    ASSERT_TRUE(SaveSettings(State));
    other.join();
#else
    ASSERT_TRUE(SaveSettings(State));
    read();
#endif
    EXPECT_EQ(seen, old);
    EXPECT_EQ(ReadFile(File).substr(54, 2), std::string("\x07\x00", 2));
    // Nothing else is left in the folder.
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(Folder.Path), {}), 1);

    std::filesystem::create_directories(Folder / "folder/Vestrel.ini");
    for (const auto& nowhere : {Folder / "folder/Vestrel.ini", File / "Vestrel.ini"}) {
        SetVariable("VESTREL_SETTINGS", nowhere);
        Restart();
        EXPECT_TRUE(HasDefaults() && Messages->Messages.empty());
        EXPECT_FALSE(SaveSettings(State));
    }
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(Folder / "folder"), {}), 1);
    SetVariable("VESTREL_SETTINGS", File);
#ifndef _WIN32
    // Nothing is written through a link that waits where the temporary file would be.
    const auto waiting = Folder / ("Vestrel.ini." + std::to_string(getpid()) + ".0.tmp");
    WriteFile(Folder / "precious", "precious");
    std::filesystem::create_symlink(Folder / "precious", waiting);
    EXPECT_TRUE(SaveSettings(State));
    EXPECT_EQ(ReadFile(waiting), "precious");
    std::filesystem::remove(waiting);
#endif
    // The next write removes what killed writers of this file left behind, and nothing else.
    const std::string dead = ".999999999.0.tmp";
    const std::string kept[] = {"Other.ini" + dead, "Vestrel.ini.999999999.tmp",
                                "Vestrel.ini" + dead + "x",
                                "Vestrel.ini." + std::to_string(OtherProcess()) + ".0.tmp"};
    for (const std::string& name : kept) WriteFile(Folder / name, "");
    WriteFile(Folder / ("Vestrel.ini" + dead), "");
    EXPECT_TRUE(SaveSettings(State));
    EXPECT_FALSE(std::filesystem::exists(Folder / ("Vestrel.ini" + dead)));
    for (const std::string& name : kept)
        EXPECT_TRUE(std::filesystem::exists(Folder / name)) << name;
#ifndef _WIN32
    // In a folder shared between machines, the number may belong to a live process on another one.
    WriteFile(Folder / ("Vestrel.ini" + dead), "");
    const int held = open((Folder / ("Vestrel.ini" + dead)).c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(flock(held, LOCK_EX), 0);
    EXPECT_TRUE(SaveSettings(State));
    EXPECT_TRUE(std::filesystem::exists(Folder / ("Vestrel.ini" + dead)));
    close(held);
#endif
    // A missing folder is created; a name of the greatest length leaves no room for a suffix.
    const auto longest = Folder / "new/deep" / std::string(255, 'n');
    SetVariable("VESTREL_SETTINGS", longest);
    EXPECT_TRUE(SaveSettings(State));
    EXPECT_EQ(std::filesystem::file_size(longest), 614U);

#ifndef _WIN32
    if (geteuid() == 0) return;  // nothing is unwritable for the superuser
    chmod(Folder.Path.c_str(), 0500);
    SetVariable("VESTREL_SETTINGS", File);
    EXPECT_FALSE(SaveSettings(State));
    chmod(Folder.Path.c_str(), 0700);
    EXPECT_EQ(ReadFile(File).size(), 614U);
#endif
}

#ifdef _WIN32
TEST(SettingsPlace, IsTheUsersApplicationData) {
    const std::filesystem::path data = _wgetenv(L"APPDATA");
    EXPECT_EQ(SettingsFilePath(), data / "Vestrel" / "Vestrel.ini");
    EXPECT_EQ(RecentImagesFilePath(), data / "Vestrel" / "recent-images");
    // With the program on a memory stick, the settings stay there too.
    WriteFile(ProgramFolder() / "Vestrel.ini", "");
    EXPECT_EQ(SettingsFilePath(), ProgramFolder() / "Vestrel.ini");
    EXPECT_EQ(RecentImagesFilePath(), ProgramFolder() / "recent-images");
    std::filesystem::remove(ProgramFolder() / "Vestrel.ini");
    SetVariable("VESTREL_STATE", L"C:\\\x2605");
    EXPECT_EQ(RecentImagesFilePath(), L"C:\\\x2605\\recent-images");
    UnsetVariable("VESTREL_STATE");
    UnsetVariable("VESTREL_CATALOG");
    EXPECT_EQ(DefaultCatalogFolder(),
              std::filesystem::path(_wgetenv(L"ProgramData")) / "Harrowdene" / "KEL");
    SetVariable("VESTREL_CATALOG", L"C:\\\x43C\xFC\x2605");
    EXPECT_EQ(TextFromPath(DefaultCatalogFolder()), "C:\\\xD0\xBC\xC3\xBC\xE2\x98\x85");
    UnsetVariable("VESTREL_CATALOG");
}

TEST(Paths, TakeTextThatIsNoUtf8AndNamesThatAreNoUtf16) {
    EXPECT_EQ(TextFromPath(PathFromText("a\xFF\xE2\x98")), "a\xEF\xBF\xBD\xEF\xBF\xBD");
    EXPECT_EQ(TextFromPath(std::filesystem::path(L"\xD83D.fit")), "\xEF\xBF\xBD.fit");
    EXPECT_EQ(TextFromPath(PathFromText("\xF0\x9F\x94\xAD")), "\xF0\x9F\x94\xAD");
    EXPECT_EQ(PathFromText(""), std::filesystem::path());
}

TEST(Paths, OfSharesAndOfAnyLengthStayWhatTheyAre) {
    EXPECT_EQ(AbsolutePath(L"\\\\server\\share\\x\\..\\a.fit"), L"\\\\server\\share\\a.fit");
    EXPECT_EQ(AbsolutePath("a.fit"), std::filesystem::current_path() / "a.fit");
    const TemporaryFolder folder;
    std::filesystem::path file = L"\\\\?\\" + AbsolutePath(folder / "a").native();
    EXPECT_EQ(AbsolutePath(file), file);
    for (const std::string_view text : {"one", "two"}) {
        EXPECT_TRUE(ReplaceFile(file, text));
        EXPECT_EQ(ReadFile(folder / "a"), text);
    }
}
#else
TEST(SettingsPlace, FollowsTheEnvironment) {
    SetVariable("XDG_CONFIG_HOME", "/some/where");
    EXPECT_EQ(SettingsFilePath(), "/some/where/vestrel/Vestrel.ini");
    SetVariable("XDG_CONFIG_HOME", "not/absolute");
    SetVariable("HOME", "/home/m\xC3\xBC");
    EXPECT_EQ(SettingsFilePath(), "/home/m\xC3\xBC/.config/vestrel/Vestrel.ini");
    SetVariable("XDG_DATA_HOME", "/some/where");
    UnsetVariable("VESTREL_CATALOG");
    EXPECT_TRUE(DefaultCatalogFolder() == "/some/where/Harrowdene/KEL" ||
                DefaultCatalogFolder() == "/var/lib/Harrowdene/KEL");
    const TemporaryFolder data;
    std::filesystem::create_directories(data / "Harrowdene/KEL");
    SetVariable("XDG_DATA_HOME", data.Path);
    EXPECT_EQ(DefaultCatalogFolder(), data / "Harrowdene/KEL");
    SetVariable("VESTREL_CATALOG", "/else");
    EXPECT_EQ(DefaultCatalogFolder(), "/else");
}
#endif

}  // namespace vestrel
