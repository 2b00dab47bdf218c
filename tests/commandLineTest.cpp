// Unattended use: what callers may write, what they get back, and what stays untouched.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "app/mCommandLine.h"
#include "astro/libStrings.h"
#include "catalog/libCatalogCells.h"
#include "matching/mPlateMatch.h"
#include "tests/testSupport.h"

namespace vestrel {
namespace {

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
            const double y = static_cast<double>(i / static_cast<std::size_t>(width)) - y0;
            pixels[i] += peak * std::exp(-(x * x + y * y) / 4);
        }
    }
    return FitsHeader(FitsCards(16, width, height)) + FitsPixels(16, pixels);
}

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
}

TEST(ResultFile, IsExactToTheByte) {
    ProgramState state;
    state.Extraction.StarsFound = 17;
    for (const auto& [code, message] :
         {std::pair<std::int16_t, std::string>(0, "Unanticipated problem during plate matching"),
          {-1, "Maximum search limit exceeded"},
          {-2, "Vestrel was terminated by user"},
          {-10, "Can't open input file"}}) {
        EXPECT_EQ(ResultFileText(state, code),
                  "1000,1000," + std::to_string(code) + "\r\n0,0,0,0,17\r\n" + message + "\r\n");
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

    EXPECT_EQ(ResultMessage(-3), "");
    EXPECT_EQ(ResultFilePath("C:\\images\\m51.fit"), "C:\\images\\m51.kel");
    EXPECT_EQ(ResultFilePath("/x/a.b.fit"), "/x/a.b.kel");
}

TEST(Unattended, NoNumberOfTheCallerOrTheSettingsIsTooStrange) {
    const TemporaryFolder folder;
    ProgramState state;
    RecordingPort port(state);
    state.Catalog.Folder = folder / "catalog";
    std::filesystem::create_directories(state.Catalog.Folder);
    Random random(5);
    std::string cell;
    for (int i = 0; i < 80; ++i) {
        const auto record = EncodeCatalogStar({static_cast<float>(random.Between(0, 0.01)),
                                               static_cast<float>(random.Between(0, 0.01)),
                                               static_cast<std::int16_t>(random.Whole(500, 1300))});
        cell.append(record.begin(), record.end());
    }
    WriteFile(state.Catalog.Folder / "N00R00", cell);
    WriteFile(folder / "image.fit", StarField(160, 120, 20));
    const auto solve = [&](const std::string& numbers, const char* name) {
        SCOPED_TRACE(numbers);
        const auto outcome = RunUnattended(state, port, numbers + "," + (folder / name).string());
        EXPECT_EQ(outcome.End, UnattendedEnd::Finished);
        EXPECT_FALSE(outcome.Result.Message.empty());
        const std::string result = ReadFile((folder / name).replace_extension("kel"));
        EXPECT_EQ(std::count(result.begin(), result.end(), '\n'), 3);
        return outcome.Result.Code;
    };
    const std::string usual = "0.005,0.005,0.009,0.007,2";
    for (const auto& [width, height] : {std::pair{0, 0}, {0, 3}, {3, 0}, {1, 1}, {2, 5}, {61, 1}}) {
        WriteFile(folder / "tiny.fit", FitsHeader(FitsCards(16, width, height)));
        EXPECT_EQ(solve(usual, "tiny.fit"), SolveCode::TooFewStars) << width << ", " << height;
    }
    solve(usual, "image.fit");
    EXPECT_GE(state.Extraction.StarsFound, 12);  // there is something to be strange about
    EXPECT_GE(state.Report.CatalogStarsAtStart, 40);
    for (const double value : {0.0, -0.0, -1.0, 1e-300, 1e300, -1e300, 3.1415926535, 1e-9, 32767.0,
                               -32768.0, 1.7, -1e-7, 2e9, 1e17}) {
        SCOPED_TRACE(value);
        for (int place = 0; place < 4; ++place) {
            std::vector<std::string> numbers = {"0.005", "0.005", "0.009", "0.007"};
            numbers[static_cast<std::size_t>(place)] = NumberText(value);
            std::string text;
            for (const std::string& number : numbers) text += number + ",";
            solve(text + "2", "image.fit");
        }
        using P = SolveParameters;
        for (double P::*field :
             {&P::MaxStarSize, &P::MatchTolerance, &P::MatchDivisor, &P::DetectionThreshold,
              &P::EdgeExclusion, &P::MaxGeometricError, &P::MaxError}) {
            state.Parameters = P();
            state.Parameters.*field = value;
            solve(usual, "image.fit");
        }
        for (std::int16_t P::*field : {&P::MinStarSize, &P::MaxStars}) {
            state.Parameters = P();
            state.Parameters.*field =
                static_cast<std::int16_t>(std::clamp(value, -32768.0, 32767.0));
            solve(usual, "image.fit");
        }
    }
}

}  // namespace vestrel
