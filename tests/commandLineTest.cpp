// Unattended use: what callers may pass and what they get back.

#include <gtest/gtest.h>

#include <map>

#include "astro/libMath.h"
#include "astro/libStrings.h"
#include "program/mCommandLine.h"
#include "program/mPlateMatch.h"
#include "tests/testSupport.h"

namespace vestrel {

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

}  // namespace vestrel
