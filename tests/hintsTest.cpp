// What a header says of the field, as other programs write it.
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

#include "astro/libStrings.h"
#include "image/libHints.h"

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
          {"'12h30m00s'", "'10d30m'", {187.5}, 10.5, 1},
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
    // 50 mm on full frame: the diagonal spans 46.8 degrees; here in the small-angle measure.
    const PlateImage phone = ImageWith({"FOCLEN35= 50"});
    EXPECT_NEAR(HintsOf(phone).Scales.at(0).ArcsecondsPerPixel,
                206264.806 * 43.2666 / 50 / std::hypot(1000, 800), 1e-2);
}

TEST(Hints, WorldCoordinatesAreCarriedToTheMiddleOfTheImage) {
    // By hand: 10 degrees north of the tangent point, along the meridian, in the gnomonic plane.
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

}  // namespace
}  // namespace vestrel
