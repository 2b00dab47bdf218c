// Hints about the field in headers that other programs write.
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

#include "astro/libConversions.h"
#include "astro/libStrings.h"
#include "image/libHints.h"
#include "program/mPictureHints.h"
#include "tests/testSupport.h"

namespace vestrel {
namespace {

constexpr double degree = std::numbers::pi / 180;

PlateImage ImageWith(const std::vector<std::string>& cards) {
    PlateImage image;
    image.Width = 1000;
    image.Height = 800;
    image.ImageType = ImageType::Fits;
    int n = 0;
    for (const std::string& card : cards) image.Header.Cards[static_cast<std::size_t>(++n)] = card;
    image.Header.CardCount = static_cast<std::int16_t>(n);
    return image;
}

TEST(Hints, PositionsAreReadInHoursOrDegreesAndSayWhich) {
    struct Case {
        const char* Ra;
        const char* Dec;
        double Degrees[2];
        double DecDegrees;
        std::size_t Count;
    };
    for (const auto& [ra, dec, degrees, decDegrees, count] :
         {Case{"'12 30 00'", "'-00 00 36'", {187.5}, -0.01, 1},
          {"'12:30:00.0'", "'+10:30:00'", {187.5}, 10.5, 1},
          {"187.5", "10.5", {187.5}, 10.5, 1},
          {"12.5", "10.5", {12.5, 187.5}, 10.5, 2},
          {"-10", "-89.5", {350}, -89.5, 1},
          {"20", "90.0", {20}, 90, 1},  // as hours it is the same place
          {"'12 00 00'", "'-90 00 00'", {180}, -90, 1},
          {"'12h30m00s'", "'10d30m'", {187.5}, 10.5, 1},
          {"1.875D+02", "1.05D+01", {187.5}, 10.5, 1},
          {"'unknown'", "10", {}, 0, 0},
          {"10", "95", {}, 0, 0},
          {"1E999", "10", {}, 0, 0},
          {"''", "''", {}, 0, 0}}) {
        for (const auto& [raKey, decKey] :
             {std::pair{"RA      ", "DEC     "}, {"OBJCTRA ", "OBJCTDEC"}}) {
            const PlateImage image = ImageWith({std::string(raKey) + "= " + ra + " / a comment",
                                                std::string(decKey) + "= " + dec, "END"});
            const PictureHints hints = HintsOf(image);
            ASSERT_EQ(hints.Centres.size(), count) << ra;
            for (std::size_t i = 0; i < count; ++i) {
                EXPECT_NEAR(hints.Centres[i].Centre.Ra / degree, degrees[i], 1e-6) << ra;
                EXPECT_NEAR(hints.Centres[i].Centre.Dec / degree, decDegrees, 1e-6) << dec;
                EXPECT_TRUE(hints.Centres[i].Source.starts_with(Trim(raKey)));
            }
        }
    }
}

TEST(Hints, ScalesComeBestFirstWithAndWithoutTheBinning) {
    const PlateImage image = ImageWith({"FOCALLEN= '500.0'", "XPIXSZ  = 7.6", "XBINNING= 2"});
    const PictureHints hints = HintsOf(image);
    ASSERT_EQ(hints.Scales.size(), 2U);
    EXPECT_NEAR(hints.Scales[0].ArcsecondsPerPixel, 206.264806 * 7.6 / 500, 1e-6);
    EXPECT_NEAR(hints.Scales[1].ArcsecondsPerPixel, 2 * 206.264806 * 7.6 / 500, 1e-6);
    EXPECT_EQ(HintsOf(ImageWith({"FOCALLEN= 0", "XPIXSZ  = 7.6"})).Scales.size(), 0U);
    EXPECT_EQ(HintsOf(ImageWith({"SECPIX1 = 2.5", "PIXSCALE= 2.501"})).Scales.size(), 1U);
    const auto [width, height] = FieldOfScale(image, 3.6);
    EXPECT_NEAR(width / degree, 1, 1e-12);
    EXPECT_NEAR(height / degree, 0.8, 1e-12);
    // 50 mm on full frame: the diagonal spans 46.8 degrees; here by the small-angle formula.
    const PlateImage phone = ImageWith({"FOCLEN35= 50"});
    EXPECT_NEAR(HintsOf(phone).Scales.at(0).ArcsecondsPerPixel,
                206264.806 * 43.2666 / 50 / std::hypot(1000, 800), 1e-2);
}

TEST(Hints, ZeroOrLessIsNotKnownAndTheNextSourceCounts) {
    const double scale = 206.264806 * 3.8 / 500;
    for (const char* none : {"0", "-7.6", "'0.0'", "1E999", "'NaN'"}) {
        const std::string number = none;
        const auto hints = HintsOf(ImageWith(
            {"FOCALLEN= 500", "XPIXSZ  = " + number, "PIXSIZE1= 3.8", "XBINNING= " + number}));
        ASSERT_EQ(hints.Scales.size(), 1U) << none;
        EXPECT_NEAR(hints.Scales[0].ArcsecondsPerPixel, scale, 1e-6);
        EXPECT_EQ(hints.Scales[0].Source, "FOCALLEN and PIXSIZE1");

        PlateImage fields =
            ImageWith({"FOCALLEN= " + number, "XPIXSZ  = " + number, "XBINNING= " + number});
        fields.Header.FocalLength = 500;
        fields.Header.XPixelSize = 3.8;
        fields.Header.XBinning = 2;
        ASSERT_EQ(HintsOf(fields).Scales.size(), 2U) << none;
        EXPECT_NEAR(HintsOf(fields).Scales[0].ArcsecondsPerPixel, scale, 1e-6);
        EXPECT_NEAR(HintsOf(fields).Scales[1].ArcsecondsPerPixel, 2 * scale, 1e-6);

        EXPECT_TRUE(
            HintsOf(ImageWith({"SECPIX  = " + number, "FOCLEN35= " + number})).Scales.empty());
    }
}

TEST(Hints, WorldCoordinatesAreCarriedToTheMiddleOfTheImage) {
    // Computed by hand: 10 degrees north of the tangent point, along the meridian, in the gnomonic
    // plane.
    const double north = std::tan(10 * degree) / degree;
    const std::string row = NumberText(400.5 - north / 0.05);
    const std::vector<std::string> common = {"CTYPE1  = 'RA---TAN'", "CTYPE2  = 'DEC--TAN'",
                                             "CRVAL1  = 100",        "CRVAL2  = 20",
                                             "CRPIX1  = 500.5",      "CRPIX2  = " + row};
    for (const auto& scale : std::vector<std::vector<std::string>>{
             {"CD1_1   = -0.05", "CD1_2   = 0", "CD2_1   = 0", "CD2_2   = 0.05"},
             {"CDELT1  = -0.05", "CDELT2  = 0.05"},
             {"CDELT1  = -0.05", "CDELT2  = 0.05", "PC1_1   = 1", "PC2_2   = 1"}}) {
        std::vector<std::string> cards = common;
        cards.insert(cards.end(), scale.begin(), scale.end());
        const PictureHints hints = HintsOf(ImageWith(cards));
        ASSERT_EQ(hints.Centres.size(), 1U);
        EXPECT_NEAR(hints.Centres[0].Centre.Ra / degree, 100, 1e-6);
        EXPECT_NEAR(hints.Centres[0].Centre.Dec / degree, 30, 1e-6);
        EXPECT_NEAR(hints.Scales.at(0).ArcsecondsPerPixel, 180, 1e-9);
    }
    std::vector<std::string> galactic = common;
    galactic[0] = "CTYPE1  = 'GLON-TAN'";
    galactic.insert(galactic.end(), {"CDELT1  = -0.05", "CDELT2  = 0.05"});
    EXPECT_TRUE(HintsOf(ImageWith(galactic)).Centres.empty());
}

/// What the inputs hold after a picture was opened.
struct FilledCase {
    SolveInputs Before;
    SolveInputs Filled;  ///< by the picture before
    SolveInputs After;
};

TEST(Hints, FillWhatNobodyTypedAndNothingElse) {
    SolveInputs filled;
    filled.Ra = "01 00 00.00";
    filled.Dec = "05 00 00.0";
    filled.SizeX = "12";
    filled.SizeY = "9";
    const auto with = [](SolveInputs inputs, const char* ra, const char* dec, const char* x,
                         const char* y) {
        inputs.Ra = ra;
        inputs.Dec = dec;
        inputs.SizeX = x;
        inputs.SizeY = y;
        return inputs;
    };
    const SolveInputs none;
    SolveInputs degrees;
    degrees.Units = "degrees";
    constexpr const char* ra = "12 30 00";
    constexpr const char* dec = "10 30 00";
    const std::vector<FilledCase> cases = {
        {none, none, with(none, ra, dec, "60", "48")},
        {with(none, " ", "", " ", ""), none, with(none, ra, dec, "60", "48")},
        {degrees, none, with(degrees, ra, dec, "1", "0.8")},
        {with(none, "3", "", "", ""), none, with(none, "3", "", "60", "48")},
        {with(none, "", "3", "", ""), none, with(none, "", "3", "60", "48")},
        {with(none, "", "", "30", ""), none, with(none, ra, dec, "30", "")},
        {with(none, "", "", "", "30"), none, with(none, ra, dec, "", "30")},
        {with(none, "", "", "20.0", "20"), none, with(none, ra, dec, "60", "48")},  // remembered
        {filled, filled, with(none, ra, dec, "60", "48")},
        {with(filled, "01 00 00.01", filled.Dec.c_str(), "12", "9"), filled,
         with(none, "01 00 00.01", filled.Dec.c_str(), "60", "48")}};
    for (const FilledCase& one : cases) {
        SCOPED_TRACE(one.Before.Ra + "|" + one.Before.Dec + "|" + one.Before.SizeX + "|" +
                     one.Before.SizeY);
        ProgramState state;
        RecordingPort port(state);
        state.ImageLoaded = true;
        state.Image = ImageWith({"RA      = '12 30 00'", "DEC     = '10 30 00'", "SECPIX  = 3.6"});
        state.Inputs = one.Before;
        state.FilledInputs = one.Filled;
        FillInputsFromHints(state, port);
        const auto angle = [](const std::string& text, double (*parse)(std::string_view)) {
            return Trim(text).empty() ? InvalidAngle : parse(text);
        };
        EXPECT_NEAR(angle(state.Inputs.Ra, ParseRA), angle(one.After.Ra, ParseRA), 1e-6);
        EXPECT_NEAR(angle(state.Inputs.Dec, ParseDec), angle(one.After.Dec, ParseDec), 1e-6);
        EXPECT_EQ(Trim(state.Inputs.SizeX), one.After.SizeX);
        EXPECT_EQ(Trim(state.Inputs.SizeY), one.After.SizeY);
    }
    SolveParameters parameters;
    parameters.FieldWidth = 90;
    parameters.FieldHeight = 60;
    EXPECT_NEAR(RememberedFieldSize(parameters).Width, 1.5 * degree, 1e-9);
    parameters.SizeUnit = 1;
    EXPECT_NEAR(RememberedFieldSize(parameters).Height, 60 * degree, 1e-9);
}

TEST(Hints, PlansTakeWhatWasGivenFirstAndFourPlacesAtMost) {
    // Two places and three scales in the header.
    const PlateImage image = ImageWith({"RA      = 187.5", "DEC     = 10.5", "OBJCTRA = '01 00 00'",
                                        "OBJCTDEC= '20 00 00'", "SECPIX  = 2.0", "FOCALLEN= 500",
                                        "XPIXSZ  = 3.76", "XBINNING= 2", "END"});
    const PictureHints header = HintsOf(image);
    ASSERT_EQ(header.Centres.size(), 2U);
    ASSERT_EQ(header.Scales.size(), 3U);
    const auto widthOf = [&](std::size_t i) {
        return FieldOfScale(image, header.Scales[i].ArcsecondsPerPixel).first;
    };
    KnownOfPicture known;
    known.LastSizes = {{0.5, 0.4}};
    const PlannedSearch picture = PlanFor(known, image);
    const auto& around = picture.Search.Around;
    ASSERT_EQ(around.size(), 4U);
    // The best place with the best size, then the pairs with one second choice, and so on.
    const std::size_t places[] = {0, 0, 1, 0};
    const std::size_t sizes[] = {0, 1, 0, 2};
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(around[i].Centre.Ra, header.Centres[places[i]].Centre.Ra) << i;
        EXPECT_EQ(around[i].Width, widthOf(sizes[i])) << i;
        EXPECT_EQ(picture.Sources[i],
                  header.Centres[places[i]].Source + "; " + header.Scales[sizes[i]].Source);
    }
    // A remembered size is no knowledge of this picture: no table is chosen by it.
    EXPECT_EQ(picture.Search.Diagonals.size(), 3U);
    known.LastSizes = {RememberedFieldSize(SolveParameters())};
    known.SizesFromPicture = false;
    EXPECT_TRUE(PlanFor(known, image).Search.Around[0].SizeRemembered);
    known.SizesFromPicture = true;
    EXPECT_FALSE(PlanFor(known, image).Search.Around[0].SizeRemembered);

    // What was given takes the place of what the header says; the rest is still the header's.
    known.Sizes = {{0.02, 0.015}};
    const PlannedSearch sized = PlanFor(known, image);
    ASSERT_EQ(sized.Search.Around.size(), 2U);
    EXPECT_EQ(sized.Search.Around[1].Width, 0.02);
    EXPECT_EQ(sized.Sources[1], header.Centres[1].Source);
    EXPECT_EQ(sized.Search.Diagonals, std::vector<double>{std::hypot(0.02, 0.015)});
    known.Places = {{{1, 0.5}, 9}, {{2, 0.5}, 100, 0.012}, {{3, 0.5}, 25, {}, true}};
    const PlannedSearch given = PlanFor(known, image);
    ASSERT_EQ(given.Search.Around.size(), 3U);
    // The brief one is first, the regions of the second end with its radius: two rings.
    EXPECT_EQ(given.Search.Around[0].Centre.Ra, 3);
    EXPECT_TRUE(given.Search.Around[0].Briefly);
    EXPECT_EQ(given.Search.Around[1].Regions, 9);
    EXPECT_EQ(given.Search.Around[2].Regions, 25);
    EXPECT_EQ(given.Sources, std::vector<std::string>(3));

    // Nothing but the whole sky is left when the header is not to be asked for places.
    known = {};
    known.PlacesFromPicture = false;
    known.Everywhere = true;
    const PlannedSearch blind = PlanFor(known, image);
    EXPECT_TRUE(blind.Search.Around.empty());
    EXPECT_TRUE(blind.Search.Everywhere);
    EXPECT_EQ(blind.Search.Diagonals.size(), 3U);
    known.SizesFromPicture = false;
    EXPECT_TRUE(PlanFor(known, image).Search.Diagonals.empty());
}

}  // namespace
}  // namespace vestrel
