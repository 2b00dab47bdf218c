// Unattended use: what callers may write, what they get back, and what stays untouched.

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>

#include "app/mCommandLine.h"
#include "astro/libStrings.h"
#include "catalog/libCatalogCells.h"
#include "matching/mPlateMatch.h"
#include "tests/testSupport.h"

namespace vestrel {
namespace {

const std::string invalidParameters = "Vestrel 1.13 Error: Invalid parameter string";
const std::string invalidName = "Vestrel 1.13 Error: Invalid file name";
const std::string cannotOpen = "Vestrel 1.13 Error: Can't open input file";
const std::string unreadable = "Vestrel: Unable to read the image file.";
const std::string unsupported = "Vestrel: File type is not supported";

/// A picture of `count` round stars on a noisy sky.
std::string StarField(int width, int height, int count) {
    Random random(11);
    std::vector<double> pixels(static_cast<std::size_t>(width) * static_cast<std::size_t>(height));
    for (double& pixel : pixels) pixel = 1000 + random.Normal(4);
    for (int star = 0; star < count; ++star) {
        const double x0 = random.Between(8, width - 8);
        const double y0 = random.Between(8, height - 8);
        const double peak = random.Between(1000, 9000);
        for (std::size_t i = 0; i < pixels.size(); ++i) {
            const double x = static_cast<double>(i % static_cast<std::size_t>(width)) - x0;
            const std::size_t row = i / static_cast<std::size_t>(width);
            const double y = static_cast<double>(row) - y0;
            pixels[i] += peak * std::exp(-(x * x + y * y) / 4);
        }
    }
    return FitsHeader(FitsCards(16, width, height)) + FitsPixels(16, pixels);
}

class Unattended : public testing::Test {
 protected:
    Unattended() { State.Catalog.Folder = Folder / "catalog"; }
    std::string PathOf(std::string_view name) const { return (Folder / name).string(); }
    UnattendedOutcome Run(const std::string& parameters) {
        Port.Messages.clear();
        return RunUnattended(State, Port, parameters);
    }
    /// A solve of a file in the folder.
    UnattendedOutcome Solve(std::string_view name,
                            const std::string& numbers = "1,0.5,0.01,0.005,3") {
        return Run(numbers + "," + PathOf(name));
    }

    TemporaryFolder Folder;
    ProgramState State;
    RecordingPort Port{State};
};

}  // namespace

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
    EXPECT_EQ(request->Ra, -1.5);
    EXPECT_EQ(request->Dec, 0.5);
    EXPECT_EQ(request->Width, 0.01);
    EXPECT_EQ(request->Height, 0.005);
    EXPECT_EQ(request->RegionLimit, 10);
    EXPECT_EQ(request->Path, "C:\\my, images\\m51, b.fit");
    EXPECT_EQ(ParseParameterString("1,2,3,4,2.5,")->RegionLimit, 2);
    EXPECT_EQ(ParseParameterString("1,2,3,4,-7,x")->RegionLimit, -7);
    for (const char* bad :
         {"", ",,,,,", "1,2,3,4,5", "1,2,3,4,x,a.fit", "1,north,3,4,5,a.fit", "1,2,,4,5,a.fit",
          "1;2;3;4;5;a.fit", "1,2,3,4,2147483648,a.fit", "1,2,nan,4,5,a.fit", "inf,2,3,4,5,a.fit",
          "1E999,2,3,4,5,a.fit", "0x1,2,3,4,5,a.fit", "1\t,2,3,4,5,a.fit", "1 2,2,3,4,5,a.fit"}) {
        EXPECT_FALSE(ParseParameterString(bad)) << bad;
    }
    for (std::uint32_t seed = 0; seed < 3000; ++seed) {
        const std::string damaged = Damaged("1.2345,-0.4567,0.0087,0.0058,25,C:\\m51.fit", seed);
        const auto read = ParseParameterString(damaged);
        if (!read) continue;
        for (const double number : {read->Ra, read->Dec, read->Width, read->Height}) {
            EXPECT_TRUE(std::isfinite(number)) << damaged;
        }
        EXPECT_TRUE(damaged.ends_with(read->Path) || damaged.ends_with(' ')) << damaged;
    }
}

TEST(ResultFile, IsExactToTheByte) {
    ProgramState state;
    state.Extraction.StarsFound = 17;
    for (const auto code : {SolveCode::TooFewStars, SolveCode::NoMatch, SolveCode::Stopped}) {
        EXPECT_EQ(ResultFileText(state, code), "1000,1000," + std::to_string(code) +
                                                   "\r\n0,0,0,0,17\r\n" + ResultMessage(code) +
                                                   "\r\n");
    }
    state.Solution.CentreRA = 1.23456785001;
    state.Solution.CentreDec = -0.00000025;  // a tie: to the even digit
    state.Geometry = {10.3076549, 359.996, -1.0000149, 0.0000051};
    EXPECT_EQ(ResultFileText(state, 1),
              "1.2345679,-0.0000002,1\r\n10.30765,360,-1.00001,0.00001,17\r\n"
              "Valid plate solution\r\n");
    state.Solution.CentreDec = -0.00000004;  // never "-0"
    state.Geometry.AngleDegrees = 0.5;
    EXPECT_EQ(ResultFileText(state, 1).substr(0, 15), "1.2345679,0,1\r\n");
    EXPECT_NE(ResultFileText(state, 1).find("10.30765,0.5,"), std::string::npos);

    const std::vector<std::pair<int, std::string>> messages = {
        {1, "Valid plate solution"},
        {0, "Unanticipated problem during plate matching"},
        {-1, "Maximum search limit exceeded"},
        {-2, "Vestrel was terminated by user"},
        {-10, "Can't open input file"}};
    for (int code = -32768; code <= 32767; ++code) {
        const auto known = std::find_if(messages.begin(), messages.end(),
                                        [code](const auto& one) { return one.first == code; });
        ASSERT_EQ(ResultMessage(static_cast<std::int16_t>(code)),
                  known == messages.end() ? "" : known->second);
    }
    EXPECT_EQ(ResultFilePath("C:\\images\\m51.fit"), "C:\\images\\m51.kel");
    EXPECT_EQ(ResultFilePath("/x/a.b.fit"), "/x/a.b.kel");
}

TEST_F(Unattended, EveryFailureHasItsMessagesInOrderAndNoResultFile) {
    struct Case {
        std::string Parameters;
        UnattendedEnd End;
        std::vector<std::string> Messages;
    };
    WriteFile(Folder / "broken.fit", "SIMPLE  =");
    const std::string start = "1,0.5,0.01,0.005,3,";
    const std::vector<Case> cases = {
        {"1,x,0.01,0.005,3," + PathOf("a.fit"),
         UnattendedEnd::InvalidParameters,
         {invalidParameters}},
        {"1,2", UnattendedEnd::InvalidParameters, {invalidParameters}},
        {start + "image", UnattendedEnd::InvalidFileName, {invalidName}},
        {start, UnattendedEnd::InvalidFileName, {invalidName}},
        {start + PathOf("missing.fit"), UnattendedEnd::NoImage, {unreadable, cannotOpen}},
        {start + PathOf("broken.fit"), UnattendedEnd::NoImage, {unreadable, cannotOpen}},
        {start + PathOf("image.bmp"), UnattendedEnd::NoImage, {unsupported, cannotOpen}},
        {start + PathOf("a.dir/image"), UnattendedEnd::NoImage, {unsupported, cannotOpen}},
        {start + Folder.Path.string() + "/.", UnattendedEnd::NoImage, {unsupported, cannotOpen}}};
    for (const Case& one : cases) {
        const UnattendedOutcome outcome = Run(one.Parameters);
        EXPECT_EQ(Port.Messages, one.Messages) << one.Parameters;
        EXPECT_EQ(outcome.End, one.End) << one.Parameters;
        EXPECT_EQ(outcome.Result.Code, one.End == UnattendedEnd::NoImage ? -10 : 0);
        EXPECT_FALSE(outcome.ResultFileWritten);
    }
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(Folder.Path), {}), 1);
    EXPECT_EQ(ReadFile(Folder / "broken.fit"), "SIMPLE  =");
}

TEST_F(Unattended, NoNumberOfTheCallerOrTheSettingsIsTooStrange) {
    std::filesystem::create_directories(State.Catalog.Folder);
    Random random(5);
    std::string cell;
    for (int i = 0; i < 80; ++i) {
        const auto record = EncodeCatalogStar({static_cast<float>(random.Between(0, 0.01)),
                                               static_cast<float>(random.Between(0, 0.01)),
                                               static_cast<std::int16_t>(random.Whole(500, 1300))});
        cell.append(record.begin(), record.end());
    }
    WriteFile(State.Catalog.Folder / "N00R00", cell);
    WriteFile(Folder / "image.fit", StarField(160, 120, 20));
    for (const auto& [width, height] : {std::pair{0, 0}, {0, 3}, {3, 0}, {1, 1}, {2, 5}, {61, 1}}) {
        WriteFile(Folder / "tiny.fit", FitsHeader(FitsCards(16, width, height)));
        EXPECT_EQ(Solve("tiny.fit").Result.Code, SolveCode::TooFewStars) << width << ", " << height;
    }
    const double strange[] = {0,    -0.0,  -1,     1e-300, 1e300, -1e300, 3.1415926535,
                              1e-9, 32767, -32768, 1.7,    -1e-7, 2e9,    1e17};
    const auto expectSaneEnd = [this](const std::string& numbers) {
        const UnattendedOutcome outcome = Solve("image.fit", numbers);
        EXPECT_EQ(outcome.End, UnattendedEnd::Finished);
        EXPECT_FALSE(ResultMessage(outcome.Result.Code).empty());
        const std::string result = ReadFile(Folder / "image.kel");
        EXPECT_EQ(std::count(result.begin(), result.end(), '\n'), 3) << numbers;
    };
    expectSaneEnd("0.005,0.005,0.009,0.007,2");
    EXPECT_GE(State.Extraction.StarsFound, 12);  // there is something to be strange about
    EXPECT_GE(State.Report.CatalogStarsAtStart, 40);
    for (const double value : strange) {
        for (int place = 0; place < 4; ++place) {
            std::vector<std::string> numbers = {"0.005", "0.005", "0.009", "0.007", "2"};
            numbers[static_cast<std::size_t>(place)] = NumberText(value);
            std::string text;
            for (const std::string& number : numbers) text += (text.empty() ? "" : ",") + number;
            SCOPED_TRACE(text);
            expectSaneEnd(text);
        }
        using P = SolveParameters;
        for (double P::*field :
             {&P::MaxStarSize, &P::MatchTolerance, &P::MatchDivisor, &P::DetectionThreshold,
              &P::EdgeExclusion, &P::MaxGeometricError, &P::MaxError}) {
            State.Parameters = P();
            State.Parameters.*field = value;
            SCOPED_TRACE(testing::Message() << "a setting of " << value);
            expectSaneEnd("0.005,0.005,0.009,0.007,2");
        }
        for (std::int16_t P::*field : {&P::MinStarSize, &P::MaxStars}) {
            State.Parameters = P();
            State.Parameters.*field =
                static_cast<std::int16_t>(std::clamp(value, -32768.0, 32767.0));
            SCOPED_TRACE(testing::Message() << "a whole setting of " << value);
            expectSaneEnd("0.005,0.005,0.009,0.007,2");
        }
    }
}

}  // namespace vestrel
