// The logic behind the windows, without any window.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <functional>
#include <set>
#include <string_view>
#include <utility>

#include "astro/libConversions.h"
#include "astro/libMath.h"
#include "console/exitCodes.h"
#include "desktop/desktopOptions.h"
#include "platform/libPlatform.h"
#include "program/mImageData.h"
#include "program/mImageView.h"
#include "program/mParameterTexts.h"
#include "program/mRecentImages.h"
#include "program/mSolveReport.h"
#include "program/mSolveWindow.h"
#include "program/mStarStatistics.h"
#include "tests/skySupport.h"
#include "tests/testSupport.h"

namespace vestrel {
namespace {

using Texts = std::vector<std::string>;

const std::string errorTitle = "Vestrel 1.13 Error: ";

class SolveWindowLogic : public testing::Test {
 protected:
    SolveWindowLogic() {
        State.Catalog.Folder = Folder / "catalog";
        State.Inputs.Ra = "12 00 00";
        State.Inputs.Dec = "-90";
        State.Inputs.SizeX = "30";
        State.Inputs.SizeY = "12";
        State.Inputs.Regions = "2";
    }
    /// Opens an image of small blobs that are taken for stars; there is no catalog to match them
    /// with.
    void OpenGrains() {
        constexpr int width = 120;
        std::vector<double> pixels(width * width);
        Random random(3);
        for (double& pixel : pixels) pixel = 100 + random.Normal(2);
        for (int star = 0; star < 20; ++star) {
            const int at = random.Whole(10, width - 11) * width + random.Whole(10, width - 11);
            for (const int near : {0, 1, -1, width, -width}) pixels[at + near] = 2000 + 50 * star;
        }
        WriteFile(Folder / "grains.fit",
                  FitsHeader(FitsCards(16, width, width)) + FitsPixels(16, pixels));
        OpenImageCommand(State, Port, (Folder / "grains.fit").string());
        ASSERT_TRUE(State.ImageLoaded);
        Port.Statuses.clear();
    }

    TemporaryFolder Folder;
    ProgramState State;
    MeddlingPort Port{State};
};

}  // namespace

TEST_F(SolveWindowLogic, TheFirstInvalidInputStopsTheMatchAndChangesNothing) {
    PlateMatchCommand(State, Port);
    EXPECT_EQ(Port.Messages, Texts{errorTitle + "No Image Loaded"});  // whatever the inputs are
    OpenGrains();
    struct Case {
        std::string SolveInputs::*Input;
        Texts Bad;
        std::string Good;
        const char* Message;
    };
    const std::vector<Case> cases = {
        {&SolveInputs::Ra,
         {"", "x", "25 00 00", "-1", "12 x"},
         "359.5",
         "Please enter a valid RA value"},
        {&SolveInputs::Dec,
         {"", "x", "90 00 01", "-90.1"},
         "-90",
         "Please enter a valid Declination value"},
        {&SolveInputs::SizeX,
         {"", "x", "30'", "1E999", "3,5"},
         "30",
         "Please enter a valid Image Size"},
        {&SolveInputs::SizeY, {"", "x", "nan"}, "12", "Please enter a valid Image Size"},
        {&SolveInputs::Regions,
         {"", "x", "3000000000", "1E999"},
         "2.5",
         "Please enter a valid number of Regions to Search"}};
    for (const Case& one : cases) State.Inputs.*one.Input = one.Bad[0];
    State.Display.Status = {"as it was", StatusColour::Green, true};
    for (const Case& one : cases) {
        for (const std::string& bad : one.Bad) {
            State.Inputs.*one.Input = bad;
            Port.Messages.clear();
            PlateMatchCommand(State, Port);
            EXPECT_EQ(Port.Messages, Texts{errorTitle + one.Message}) << bad;
        }
        State.Inputs.*one.Input = one.Good;
    }
    EXPECT_EQ(State.Display.Status.Text, "as it was");
    EXPECT_EQ(State.Display.Status.Colour, StatusColour::Green);
    EXPECT_FALSE(State.Display.BusyIndicator);
    EXPECT_EQ(State.Display.StartRa, "");
    EXPECT_FALSE(State.BackgroundRemoved);  // no solve has begun

    Port.Messages.clear();
    Port.Statuses.clear();
    PlateMatchCommand(State, Port);
    EXPECT_EQ(Port.Messages, Texts{});
    ASSERT_GE(Port.Statuses.size(), 3U);
    EXPECT_EQ(Port.Statuses[1], "Working...");
    EXPECT_EQ(Port.Statuses.back(), "No Match Found");
    EXPECT_EQ(State.Display.StartDec, "-90\xC2\xB0 00' 00\"");
    EXPECT_EQ(State.Display.StartSize, "30' x 12'");
    EXPECT_EQ(State.Display.StartRegions, "2");  // 2.5, to even
    EXPECT_EQ(State.Report.RegionsTried, 2);
    EXPECT_NE(State.Display.Details.find("Catalog"), std::string::npos);
}

TEST_F(SolveWindowLogic, UnitsScaleTheSizeAndKeepTheNumbers) {
    const auto widths = [this] {
        const auto request = ReadSolveInputs(State, Port);
        return request ? std::pair{request->Width, request->Height} : std::pair{0.0, 0.0};
    };
    const auto arcminutes = widths();
    EXPECT_NEAR(arcminutes.first, Pi / 360, 1e-15);
    SwitchUnits(State);
    EXPECT_EQ(State.Inputs.Units, "degrees");
    EXPECT_NEAR(widths().first, 0.5236, 1e-5);
    EXPECT_NEAR(widths().second, arcminutes.second * 60, 1e-12);
    SwitchUnits(State);
    EXPECT_EQ(widths(), arcminutes);
    EXPECT_EQ(State.Inputs.SizeX, "30");
}

TEST_F(SolveWindowLogic, NothingElseStartsWhileSomethingRuns) {
    OpenGrains();
    int meddled = 0;
    Port.Answer = (Folder / "other.fit").string();
    Port.Meddle = [&] {
        ++meddled;
        EXPECT_FALSE(CommandsFor(State).Start || CommandsFor(State).Save);
        EXPECT_TRUE(CommandsFor(State).Stop);
        PlateMatchCommand(State, Port);
        MoraCommand(State, Port);
        OpenImageCommand(State, Port);
        OpenImageCommand(State, Port, *Port.Answer);
        SaveImageCommand(State, Port);
        ExportImageCommand(State, Port);
        WorldCoordinatesCommand(State, Port);
        EXPECT_FALSE(UnattendedCommand(State, Port, "1,2"));
        State.SecondsLeft = 1;
        EXPECT_FALSE(CountdownTick(State));
        State.SecondsLeft = 10;
    };
    PlateMatchCommand(State, Port);
    EXPECT_GT(meddled, 10);
    EXPECT_EQ(Port.Messages, Texts{});
    EXPECT_TRUE(Port.Dialogs.empty());
    EXPECT_EQ(Port.Statuses.back(), "No Match Found");

    // Closing requests a stop once; the search ends between two regions.
    State.Inputs.Regions = "1000000";
    bool closedAtOnce = true;
    Port.Meddle = [&] {
        if (State.Report.RegionsTried == 5) closedAtOnce = RequestClose(State);
    };
    PlateMatchCommand(State, Port);
    EXPECT_EQ(Port.Statuses.back(), "Search Terminated");
    EXPECT_EQ(State.Report.RegionsTried, 6);
    EXPECT_FALSE(closedAtOnce);
    EXPECT_TRUE(RequestClose(State));
    EXPECT_TRUE(CommandsFor(State).Start);
}

TEST_F(SolveWindowLogic, MoraStartsPlateMatchWhenItIsSureAndLeavesNoSolution) {
    const std::string frame = (Folder / "frame.fit").string();
    const std::vector<CatalogStar> stars = MakeSky(State.Catalog.Folder, frame);
    OpenImageCommand(State, Port, frame);
    State.Inputs = {"10", "10", "arcminutes", "2", "00 04 30", "00 34 00"};
    PlateMatchCommand(State, Port);
    ASSERT_EQ(State.Display.Status.Text, "Plate Match Found");
    const auto details = [this](const char* text) {
        return State.Display.Details.find(text) != std::string::npos;
    };

    // A search that cannot begin changes nothing.
    const double threshold = std::exchange(State.Parameters.DetectionThreshold, 1e6);
    MoraCommand(State, Port);
    EXPECT_EQ(State.Display.Status1.Text, "Insufficient Plate Stars");
    EXPECT_TRUE(CommandsFor(State).WriteWorldCoordinates && CommandsFor(State).Sync);
    State.Parameters.DetectionThreshold = threshold;

    State.Inputs.Ra = "12 00 00";
    State.Inputs.Dec = "-60 00 00";
    const SolveInputs elsewhere = State.Inputs;
    const auto expectNoSolution = [&] {
        EXPECT_FALSE(CommandsFor(State).WriteWorldCoordinates || CommandsFor(State).Sync);
        const Overlays overlays = OverlaysOf(State);
        EXPECT_EQ(overlays.Extracted.size(), static_cast<std::size_t>(State.PlateStars.Count()));
        EXPECT_TRUE(overlays.Catalog.empty() && overlays.Matched.empty());
        const StarReport report = MeasureStarAt(State, overlays.Extracted[0].Place);
        EXPECT_FALSE(report.Sky || report.Nearest || report.Calibration);
    };
    MoraCommand(State, Port);
    EXPECT_EQ(State.Display.Status.Text, "No Match Found");
    EXPECT_TRUE(details("there are no quad tables") && details("Try: Plate Match"));
    expectNoSolution();

    WriteQuadTables(State.Catalog.Folder, stars, 5);
    MoraCommand(State, Port);
    EXPECT_EQ(State.QuadMatch.Pairs.Count(), 5);
    EXPECT_EQ(State.Quads.Tables.QuadCount(), 0U) << "closed, or Windows cannot replace them";
    EXPECT_TRUE(details("Doubtful          5 pairs can be chance"));
    EXPECT_EQ(State.Inputs.Ra + State.Inputs.Dec, elsewhere.Ra + elsewhere.Dec);
    expectNoSolution();

    WriteQuadTables(State.Catalog.Folder, stars, stars.size());
    const int imageChanges = Port.ImageChanges;
    MoraCommand(State, Port);
    EXPECT_TRUE(details("Certainty") && !details("Doubtful"));
    EXPECT_EQ(State.Display.CentreCaption, "J2000 Image Center");
    EXPECT_GT(Port.ImageChanges, imageChanges);
    EXPECT_NEAR(ParseRA(State.Inputs.Ra), centre.Ra, 1e-5);
    EXPECT_NEAR(ParseDec(State.Inputs.Dec), centre.Dec, 1e-5);
    expectNoSolution();
    PlateMatchCommand(State, Port);
    EXPECT_EQ(State.Display.Status1.Text, "Searched 1 region");
    EXPECT_NEAR(State.Solution->CentreRA, centre.Ra, 2e-6);
    EXPECT_TRUE(details("Certainty"));
    EXPECT_EQ(Port.Messages, Texts{});
}

TEST_F(SolveWindowLogic, ASolutionGoesWithItsImage) {
    const std::string frame = (Folder / "frame.fit").string();
    MakeSky(State.Catalog.Folder, frame);
    const auto solve = [&] {
        OpenImageCommand(State, Port, frame);
        State.Inputs = {"10", "10", "arcminutes", "2", "00 04 30", "00 34 00"};
        PlateMatchCommand(State, Port);
        return State.Solution && CommandsFor(State).Sync && !OverlaysOf(State).Matched.empty() &&
               !State.Display.Details.empty();
    };
    // A file refused because of its name leaves the image and everything that belongs to it.
    ASSERT_TRUE(solve());
    const std::string details = State.Display.Details;
    WriteFile(Folder / "picture.bmp", "BM");
    OpenImageCommand(State, Port, (Folder / "picture.bmp").string());
    EXPECT_TRUE(State.Solution && CommandsFor(State).Sync);
    EXPECT_EQ(State.Display.Details, details);

    WriteFile(Folder / "broken.fit", "SIMPLE  =");
    for (const char* next : {"grains.fit", "broken.fit"}) {
        ASSERT_TRUE(solve());
        const int imageChanges = Port.ImageChanges;
        if (next == std::string("grains.fit")) {
            OpenGrains();
        } else {
            OpenImageCommand(State, Port, (Folder / next).string());
        }
        EXPECT_GT(Port.ImageChanges, imageChanges) << "the windows let go of the old picture";
        EXPECT_FALSE(State.Solution || CommandsFor(State).Sync) << next;
        EXPECT_EQ(State.Display.Details.find("Certainty"), std::string::npos) << "to be copied";
        EXPECT_EQ(State.Display.CentreCaption + State.Display.CentreRa, "Search Center");
        const Overlays overlays = OverlaysOf(State);
        EXPECT_TRUE(overlays.Extracted.empty() && overlays.Catalog.empty());
    }

    // A match that fails leaves the image without a solution, too.
    ASSERT_TRUE(solve());
    State.Inputs.Dec = "-60 00 00";
    PlateMatchCommand(State, Port);
    EXPECT_EQ(State.Display.Status.Text, "No Match Found");
    EXPECT_FALSE(State.Solution || CommandsFor(State).Sync);
    EXPECT_FALSE(OverlaysOf(State).Extracted.empty());
}

TEST(ExitCodes, CountFromZeroAndEachSaysWhatItMeans) {
    std::set<std::string_view> meanings;
    for (std::size_t i = 0; i < ExitCodes.size(); ++i) {
        EXPECT_EQ(NumberOf(ExitCodes[i]), static_cast<int>(i));
        EXPECT_NE(MeaningOf(ExitCodes[i]), "") << i;
        meanings.insert(MeaningOf(ExitCodes[i]));
    }
    EXPECT_EQ(meanings.size(), ExitCodes.size());
    const ProgramState state;
    std::set<ExitCode> failures;
    for (const SolveCode code : SolveCodes) failures.insert(ExitCodeOf(code, state));
    EXPECT_EQ(failures.size(), SolveCodes.size());
}

TEST(ConfidenceText, PromisesNoMoreThanTheNumbers) {
    EXPECT_EQ(ConfidenceText({17, 24, 0.61, -12.3}),
              "17 of 24 catalog stars in the frame matched, 0.6 expected by chance; false alarm "
              "below 1e-12");
    EXPECT_EQ(ConfidenceText({1, 1, 0.04, -0.4}),
              "1 of 1 catalog star in the frame matched, 0.0 expected by chance; false "
              "alarm 0.398");
}

TEST_F(SolveWindowLogic, TheCountdownEndsAtZeroAndCanBeHeld) {
    for (int left = 9; left > 4; --left) {
        EXPECT_FALSE(CountdownTick(State));
        EXPECT_EQ(State.Display.Countdown, std::to_string(left));
    }
    State.Inputs.KeepOpen = true;
    for (int i = 0; i < 20; ++i) EXPECT_FALSE(CountdownTick(State));
    EXPECT_EQ(State.Display.Countdown, "5");
    State.Inputs.KeepOpen = false;
    for (int i = 0; i < 4; ++i) EXPECT_FALSE(CountdownTick(State));
    EXPECT_TRUE(CountdownTick(State));
    EXPECT_EQ(State.Display.Countdown, "0");
}

TEST_F(SolveWindowLogic, ARefusedImageLeavesTheOneThatIsThere) {
    EXPECT_EQ(ImageNameText(State), "Please Load an Image");
    OpenGrains();
    const std::string name = ImageNameText(State);
    EXPECT_EQ(ImageFolderText(State), Folder.Path.string());
    WriteFile(Folder / "picture.bmp", "BM");
    OpenImageCommand(State, Port, (Folder / "picture.bmp").string());
    EXPECT_EQ(Port.Messages, Texts{"Vestrel: File type is not supported"});
    EXPECT_EQ(ImageNameText(State), name);
    EXPECT_EQ(State.Image.Header.NAxis1, 120);
    EXPECT_EQ(State.RecentImages, Texts{(Folder / "grains.fit").string()});

    WriteFile(Folder / "broken.fit", "SIMPLE  =");
    OpenImageCommand(State, Port, (Folder / "broken.fit").string());
    EXPECT_EQ(ImageNameText(State), "Please Load an Image");
    EXPECT_EQ(State.Display.Status.Text, "Ready");
    EXPECT_FALSE(CommandsFor(State).Save);
}

TEST(RecentImages, AreFewDistinctLinesWhateverTheFileHolds) {
    const TemporaryFolder folder;
    SetVariable("VESTREL_STATE", folder.Path);
    ProgramState state;
    for (const char* name :
         {"/a", "/b", "/a", "/new\nline", "/c", "/\xC3\xA9", "/1", "/2", "/3", "/4", "/5"}) {
        AddRecentImage(state, name);
    }
    Texts expected = {"/5", "/4", "/3", "/2", "/1", "/\xC3\xA9", "/c", "/a"};
    for (std::string& path : expected) {  // Windows adds the drive
        path = TextFromPath(std::filesystem::absolute(PathFromText(path)));
    }
    EXPECT_EQ(state.RecentImages, expected);
    ASSERT_TRUE(SaveRecentImages(state));
    state.RecentImages.clear();
    LoadRecentImages(state);
    EXPECT_EQ(state.RecentImages, expected);
    // Two windows: the later to close keeps what the other opened.
    ProgramState other;
    LoadRecentImages(other);
    AddRecentImage(state, "/of this");
    ASSERT_TRUE(SaveRecentImages(state));
    AddRecentImage(other, "/of the other");
    ASSERT_TRUE(SaveRecentImages(other));
    LoadRecentImages(state);
    ASSERT_EQ(state.RecentImages.size(), 8U);
    EXPECT_TRUE(state.RecentImages[0].ends_with("/of the other") ||
                state.RecentImages[0].ends_with("\\of the other"));
    EXPECT_EQ(std::count_if(state.RecentImages.begin(), state.RecentImages.end(),
                            [](const auto& path) { return path.ends_with("of this"); }),
              1);
    const std::string good = ReadFile(RecentImagesFilePath());
    for (std::uint32_t seed = 0; seed < 500; ++seed) {
        WriteFile(RecentImagesFilePath(), Damaged(good, seed));
        LoadRecentImages(state);
        ASSERT_LE(state.RecentImages.size(), 8U);
        for (const std::string& path : state.RecentImages) {
            ASSERT_EQ(path.find_first_of(std::string("\n\0", 2)), std::string::npos);
        }
    }
    UnsetVariable("VESTREL_STATE");
}

TEST(ParameterTexts, OKStoresInOrderUntilATextIsNoNumber) {
    ProgramState state;
    RecordingPort port(state);
    const ParameterTexts good = {"1.5", "2.5", "-3", "4E-2", "5", "3.5", "7"};
    const ParameterTexts stored = {"1.5", "2", "-3", "0.04", "5", "4", "7"};  // halves to even
    const ParameterTexts before = TextsOfParameters(state.Parameters);
    EXPECT_EQ(before, DefaultParameterTexts());
    EXPECT_EQ(before, (ParameterTexts{"6", "3", "6", "0.025", "0.02", "45", "2"}));
    for (std::size_t bad = 0; bad < good.size(); ++bad) {
        for (const char* text : {"", "six", "1E999", "1 2"}) {
            state.Parameters = {};
            ParameterTexts texts = good;
            texts[bad] = text;
            EXPECT_EQ(StoreParameterTexts(state, port, texts), bad) << text;
            for (std::size_t i = 0; i < good.size(); ++i) {
                EXPECT_EQ(TextsOfParameters(state.Parameters)[i], i < bad ? stored[i] : before[i]);
            }
        }
    }
    EXPECT_EQ(port.Messages.size(), good.size() * 4);
    EXPECT_EQ(port.Messages[0], errorTitle + "Max Star Size: \"\" is not a number.");
    EXPECT_EQ(StoreParameterTexts(state, port, {"1", "40000", "1", "1", "1", "1", "1"}), 1U);
    EXPECT_EQ(port.Messages.back(), errorTitle + "Min Star Size: \"40000\" is too large a number.");
    EXPECT_EQ(StoreParameterTexts(state, port, good), std::nullopt);
    EXPECT_EQ(TextsOfParameters(state.Parameters), stored);

    // The help has a paragraph for each box.
    const std::string help = ParameterHelpText();
    EXPECT_EQ(std::count(help.begin(), help.end(), '\n'), 7);
    for (const ParameterBox& box : ParameterBoxes) {
        std::string caption = box.Caption;
        std::erase(caption, '&');
        EXPECT_NE(help.find("\n" + caption + " (" + box.Unit + ") -- "), std::string::npos);
    }
}

TEST(DesktopArguments, AreOneTextAndAFileIsAnImage) {
    const TemporaryFolder folder;
    const std::string file = (folder / "1,2,3,4,5,a b.fit").string();
    WriteFile(file, "");
    using Kind = DesktopStart::Kind;
    const auto read = [](const Texts& arguments) {
        const DesktopStart start = ReadDesktopArguments(arguments);
        return std::pair{start.What, start.Text};
    };
    EXPECT_EQ(read({}), std::pair(Kind::Interactive, std::string()));
    EXPECT_EQ(read({" "}), std::pair(Kind::Interactive, std::string()));
    EXPECT_EQ(read({file}), std::pair(Kind::OpenImage, file));
    EXPECT_EQ(read({"-1,2,3,4,5,/my", "images/a.fit"}),
              std::pair(Kind::Unattended, std::string("-1,2,3,4,5,/my images/a.fit")));
    EXPECT_EQ(read({folder.Path.string()}).first, Kind::Complain);
    EXPECT_EQ(read({"missing.fits"}).first, Kind::Complain);
    EXPECT_EQ(read({"--help"}).first, Kind::Print);
}

}  // namespace vestrel
