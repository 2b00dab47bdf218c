// Unattended use: what callers may pass and what they get back.

#include <gtest/gtest.h>

#include <map>

#ifndef _WIN32
#include <sys/stat.h>
#include <unistd.h>
#endif

#include "astro/libMath.h"
#include "astro/libStrings.h"
#include "console/exitCodes.h"
#include "platform/libPlatform.h"
#include "program/mCommandLine.h"
#include "program/mPlateMatch.h"
#include "tests/skySupport.h"
#include "tests/testSupport.h"

namespace vestrel {

namespace fs = std::filesystem;

TEST(ParameterString, FieldsAreSplitAtTheFirstSeparatorsAndTrimmed) {
    std::string text = "  a ,, b,c  ";
    std::string field = "before";
    EXPECT_TRUE(SplitField(text, ',', field));
    EXPECT_EQ(field + "|" + text, "a|, b,c");
    EXPECT_TRUE(SplitField(text, ',', field));
    EXPECT_EQ(field, "");
    EXPECT_TRUE(SplitField(text, ',', field));
    EXPECT_FALSE(SplitField(text, ',', field));
    EXPECT_EQ(field + "|" + text, "b|c");  // left as they were, apart from the trim

    const auto request =
        ParseParameterString(" -1.5 , +.5,1E-2, 5.e-3 ,9.6 ,  C:\\my, images\\m51, b.fit ");
    ASSERT_TRUE(request);
    EXPECT_EQ(request->Start.Ra, -1.5);
    EXPECT_EQ(request->Start.Dec, 0.5);
    EXPECT_EQ(request->Width, 0.01);
    EXPECT_EQ(request->Height, 0.005);
    EXPECT_EQ(request->RegionLimit, 10);
    EXPECT_EQ(request->Path, "C:\\my, images\\m51, b.fit");
    EXPECT_EQ(ParseParameterString("1,2,3,4,2.5,")->RegionLimit, 2);
    EXPECT_EQ(ParseParameterString("1,2,3,4,-7,x")->RegionLimit, -7);
    for (const char* bad :
         {"", ",,,,,", "1,2,3,4,5", "1,2,3,4,x,a.fit", "1,north,3,4,5,a.fit", "1,2,,4,5,a.fit",
          "1;2;3;4;5;a.fit", "1,2,3,4,2147483648,a.fit", "1,2,nan,4,5,a.fit", "inf,2,3,4,5,a.fit",
          "1E999,2,3,4,5,a.fit", "0x1,2,3,4,5,a.fit", "1\t,2,3,4,5,a.fit", "1 2,2,3,4,5,a.fit",
          "1,2,3,1d-2,5,a.fit"}) {
        EXPECT_FALSE(ParseParameterString(bad)) << bad;
    }
}

TEST(ResultFile, OfAnEarlierSolveIsRemovedByTheParameterStringAlone) {
    const TemporaryFolder folder;
    const auto remains = [&](const std::string& parameters) {
        WriteFile(folder / "a.kel", "old");
        RemoveOldResultOf(parameters);
        return fs::exists(folder / "a.kel");
    };
    EXPECT_FALSE(remains("1,0,0.1,0.1,9," + TextFromPath(folder / "a.fit")));
    EXPECT_TRUE(remains("1,0,0.1,0.1,9," + TextFromPath(folder / "a")));
    EXPECT_TRUE(remains("1,0,0.1,0.1,9," + TextFromPath(folder / "a.kel")));
    EXPECT_TRUE(remains("1,0,0.1,0.1," + TextFromPath(folder / "a.fit")));
}

TEST(ResultFile, IsExactToTheByte) {
    ProgramState state;
    state.Extraction.StarsFound = 17;
    const std::map<SolveCode, std::string> failures = {
        {SolveCode::TooFewStars, "0\r\n0,0,0,0,17\r\nUnanticipated problem during plate matching"},
        {SolveCode::NoMatch, "-1\r\n0,0,0,0,17\r\nMaximum search limit exceeded"},
        {SolveCode::Stopped, "-2\r\n0,0,0,0,17\r\nVestrel was terminated by user"},
        {SolveCode::NoImage, "-10\r\n0,0,0,0,17\r\nCan't open input file"}};
    for (const SolveCode code : SolveCodes) {
        if (code == SolveCode::Solved) continue;
        EXPECT_EQ(ResultFileText(state, code), "1000,1000," + failures.at(code) + "\r\n");
    }
    PlateSolution& solution = state.Solution.emplace();
    solution.CentreRA = 1.23456785001;
    solution.CentreDec = -0.00000025;  // a tie: to the even digit
    solution.Scale = 1 / 10.3076549;
    solution.Angle = -0.004 * Pi / 180;
    solution.Stretch = -1.0000149;
    solution.Skew = 0.0000051;
    EXPECT_EQ(ResultFileText(state, SolveCode::Solved),
              "1.2345679,-0.0000002,1\r\n10.30765,360,-1.00001,0.00001,17\r\n"
              "Valid plate solution\r\n");
    solution.CentreDec = -0.00000004;  // never "-0"
    solution.Angle = Pi / 360;
    const std::string text = ResultFileText(state, SolveCode::Solved);
    EXPECT_EQ(text.substr(0, 15), "1.2345679,0,1\r\n");
    EXPECT_NE(text.find("10.30765,0.5,"), std::string::npos);

    EXPECT_EQ(ResultFilePath("C:\\images\\m51.fit"), "C:\\images\\m51.kel");
    EXPECT_EQ(ResultFilePath("/x/a.b.fit"), "/x/a.b.kel");
}

/// A run with a parameter string, beside an older result file.
struct UnattendedCase {
    const char* What;
    std::string Start;  ///< all fields but the path
    std::string Image;  ///< the path
    ExitCode Exit;
    std::vector<std::string> Messages;
    std::string File;  ///< the result file afterwards; N stands for the stars that were found
};

TEST(UnattendedRuns, EveryFailureHasItsMessagesItsFileAndItsExitCode) {
    const TemporaryFolder folder;
    MakeSky(folder / "catalog", folder / "frame.fit");
    WriteFile(folder / "dark.fit",
              FitsHeader(FitsCards(16, 50, 50)) + FitsPixels(16, std::vector<double>(2500, 7)));
    WriteFile(folder / "cut.fit", "SIMPLE  =");
    WriteFile(folder / "image.bmp", "BM");
    fs::create_directory(folder / "a.folder");
    const std::string here = "0.02,0.01,0.0029089,0.0029089,1,";
    const auto path = [&](const char* name) { return TextFromPath(folder / name); };
    const std::string usage = "Vestrel 1.13 Error: Invalid parameter string";
    const std::string invalidName = "Vestrel 1.13 Error: Invalid file name";
    const std::string cannotOpen = "Vestrel 1.13 Error: Can't open input file";
    const std::vector<std::string> unread = {"Vestrel: Unable to read the image file.", cannotOpen};
    const std::vector<std::string> unsupported = {"Vestrel: File type is not supported",
                                                  cannotOpen};
    const std::string noMatch = "1000,1000,-1\r\n0,0,0,0,N\r\nMaximum search limit exceeded\r\n";
    const std::string tooFew =
        "1000,1000,0\r\n0,0,0,0,N\r\nUnanticipated problem during plate matching\r\n";
    const std::vector<UnattendedCase> cases = {
        {"too few fields", "1,2,3,", path("frame.fit"), ExitCode::Usage, {usage}, "old"},
        {"no number", "1,2,x,4,5,", path("frame.fit"), ExitCode::Usage, {usage}, "old"},
        {"no ending", here, "frame", ExitCode::InvalidFileName, {invalidName}, "old"},
        {"no name", here, "", ExitCode::InvalidFileName, {invalidName}, "old"},
        {"no ending in a folder with one",
         here,
         path("frame.d/pic"),
         ExitCode::NoImage,
         {cannotOpen},
         "old"},
        {"no ending in this folder", here, "./pic", ExitCode::NoImage, {cannotOpen}, "old"},
        {"no such file", here, path("none.fit"), ExitCode::NoImage, unread, ""},
        {"half a header", here, path("cut.fit"), ExitCode::NoImage, unread, ""},
        {"a folder", here, path("a.folder"), ExitCode::NoImage, unsupported, ""},
        {"another format", here, path("image.bmp"), ExitCode::NoImage, unsupported, ""},
        {"a result file", here, path("frame.kel"), ExitCode::NoImage, unsupported, "old"},
        {"no stars", here, path("dark.fit"), ExitCode::TooFewStars, {}, tooFew},
        {"another place",
         "0.0224,0.0099,0.0029089,0.0029089,1,",
         path("frame.fit"),
         ExitCode::NoMatch,
         {},
         noMatch},
        {"no catalog there",
         "2,0.5,0.0029089,0.0029089,4,",
         path("frame.fit"),
         ExitCode::NoCatalog,
         {},
         noMatch}};
    for (const UnattendedCase& one : cases) {
        SCOPED_TRACE(one.What);
        ProgramState state;
        state.Catalog.Folder = folder / "catalog";
        RecordingPort port(state);
        const bool named = one.Exit != ExitCode::InvalidFileName;
        const fs::path result = ResultFilePath(named ? one.Image : path("frame.fit"));
        WriteFile(result, "old");
        const UnattendedOutcome outcome = RunUnattended(state, port, one.Start + one.Image);
        EXPECT_EQ(ExitCodeOf(outcome, state, port), one.Exit);
        EXPECT_EQ(port.Messages, one.Messages);
        std::string file = one.File;
        if (const std::size_t stars = file.find('N'); stars != std::string::npos) {
            file.replace(stars, 1, std::to_string(state.Extraction.StarsFound));
        }
        EXPECT_EQ(fs::exists(result) ? ReadFile(result) : "", file);
        fs::remove(result);
    }
}

#ifndef _WIN32
TEST(UnattendedRuns, AnOldResultDoesNotOutliveAFailedRunInAFolderThatIsNotWritable) {
    const TemporaryFolder folder;
    const fs::path night = folder / "night";
    fs::create_directory(night);
    fs::permissions(folder.Path, fs::perms(0755));
    const auto run = [&](bool writable) {
        WriteFile(night / "frame.kel", "1,2,1\r\nValid plate solution\r\n");
        EXPECT_EXIT(
            {
                // The superuser may do all: another user starts the program.
                constexpr uid_t other = 12345;
                const bool mine =
                    geteuid() != 0 ||
                    (chown((night / "frame.kel").c_str(), writable ? other : 0, 0) == 0 &&
                     chmod((night / "frame.kel").c_str(), writable ? 0644 : 0444) == 0 &&
                     seteuid(other) == 0);
                if (geteuid() != 12345) fs::permissions(night, fs::perms(0555));
                ProgramState state;
                RecordingPort port(state);
                const UnattendedOutcome outcome =
                    RunUnattended(state, port, "1,0,.1,.1,1," + TextFromPath(night / "frame.fit"));
                // Reports for programs have the reason from here.
                const bool told = writable || outcome.Result.Message.find("cannot be removed") !=
                                                  std::string::npos;
                std::_Exit(!mine || !told ? 99 : NumberOf(ExitCodeOf(outcome, state, port)));
            },
            testing::ExitedWithCode(NumberOf(writable ? ExitCode::NoImage : ExitCode::Usage)), "");
        fs::permissions(night, fs::perms(0755));
    };
    run(true);
    EXPECT_EQ(ReadFile(night / "frame.kel"), "");
    fs::remove(night / "frame.kel");
    if (geteuid() == 0) run(false);
}
#endif

TEST(UnattendedRuns, AResultThatCannotBeWrittenIsNoSuccessAndAStopIsWritten) {
    const TemporaryFolder folder;
    MakeSky(folder / "catalog", folder / "frame.fit");
    const std::string parameters =
        "0.02,0.01,0.0029089,0.0029089,1," + TextFromPath(folder / "frame.fit");
    const fs::path result = folder / "frame.kel";
    const auto run = [&](ProgramState& state, RecordingPort& port) {
        state.Catalog.Folder = folder / "catalog";
        const UnattendedOutcome outcome = RunUnattended(state, port, parameters);
        return ExitCodeOf(outcome, state, port);
    };
    {
        ProgramState state;
        RecordingPort port(state);
        EXPECT_EQ(run(state, port), ExitCode::Solved);
        EXPECT_TRUE(ReadFile(result).ends_with("\r\nValid plate solution\r\n"));
    }
    fs::remove(result);
    fs::create_directory(result);
    WriteFile(result / "of somebody", "");
    for (const bool stopped : {false, true}) {
        ProgramState state;
        RecordingPort port(state);
        if (stopped) port.StopAtYield = 1;
        state.StopPatience = std::chrono::seconds(-1);
        EXPECT_EQ(run(state, port), stopped ? ExitCode::Stopped : ExitCode::NotWritten);
        ASSERT_EQ(port.Messages.size(), 1U);
        EXPECT_NE(port.Messages[0].find("cannot be written"), std::string::npos);
        EXPECT_TRUE(fs::exists(result / "of somebody"));
    }
    fs::remove_all(result);
    ProgramState state;
    RecordingPort port(state);
    port.StopAtYield = 1;
    state.StopPatience = std::chrono::seconds(-1);
    EXPECT_EQ(run(state, port), ExitCode::Stopped);
    EXPECT_EQ(ReadFile(result), "1000,1000,-2\r\n0,0,0,0,0\r\nVestrel was terminated by user\r\n");
}

}  // namespace vestrel
