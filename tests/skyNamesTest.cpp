// Names in pictures and inputs: labels, tables of objects, positions as people copy them.

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <tuple>

#include "astro/libPositionText.h"
#include "display/libLabelPlacement.h"
#include "display/libResiduals.h"
#include "display/libSkyObjects.h"
#include "tests/testSupport.h"

namespace vestrel {
namespace {

constexpr double degree = std::numbers::pi / 180;

}  // namespace

TEST(Labels, NeverCoverEachOtherOrAMarkAndTheWorthiestComeFirst) {
    Random random(7);
    std::vector<LabelWish> wishes;
    std::vector<ScreenBox> marks;
    for (int i = 0; i < 600; ++i) {
        const ScreenPoint at{random.Between(-20, 1020), random.Between(-20, 620)};
        wishes.push_back({at, 9, random.Between(20, 140), 12, i % 50 == 0});
        marks.push_back({at.X - 6, at.Y - 6, 12, 12});
    }
    // A label that must stand exactly at its place would cover its mark, so its mark lies outside.
    for (std::size_t i = 0; i < wishes.size(); i += 50) marks[i] = {-100, -100, 1, 1};
    const auto placed = PlaceLabels(wishes, marks, 1000, 600);
    ASSERT_EQ(placed.size(), wishes.size());
    int count = 0;
    for (std::size_t i = 0; i < placed.size(); ++i) {
        if (!placed[i]) continue;
        ++count;
        const ScreenBox& box = *placed[i];
        EXPECT_TRUE(box.Left >= 0 && box.Top >= 0 && box.Left + box.Width <= 1000 &&
                    box.Top + box.Height <= 600);
        EXPECT_EQ(box.Width, wishes[i].Width);
        const ScreenPoint& at = wishes[i].Mark;
        const double away =
            std::hypot(std::max({box.Left - at.X, at.X - box.Left - box.Width, 0.0}),
                       std::max({box.Top - at.Y, at.Y - box.Top - box.Height, 0.0}));
        EXPECT_LT(away, 9 + 3) << "beside its own mark";
        for (const ScreenBox& mark : marks) EXPECT_FALSE(mark.Overlaps(box));
        for (std::size_t k = 0; k < i; ++k) EXPECT_FALSE(placed[k] && placed[k]->Overlaps(box));
    }
    EXPECT_GT(count, 100);
    // A label that does not fit alone does not fit among others; the first label is placed as if
    // alone.
    const auto alone = PlaceLabels({wishes[1]}, {}, 1000, 600);
    EXPECT_EQ(alone[0].has_value(),
              PlaceLabels({wishes[1], wishes[1]}, {}, 1000, 600)[0].has_value());
    EXPECT_FALSE(PlaceLabels({{{5, 5}, 3, 30, 12}}, {}, 20, 20)[0]);
}

TEST(SkyObjects, TheTableKnowsTheSkyAndItsPicture) {
    const auto objects =
        ReadSkyObjects(std::filesystem::path(VESTREL_SOURCE_DIR) / "data" / "deep-sky.tsv");
    ASSERT_GT(objects.size(), 10000u);
    const SkyObject* m31 = FindSkyObject(objects, "ngc0224");
    EXPECT_EQ(m31, nullptr);
    for (const char* name : {"m31", "M 31", "Messier 31", "NGC 224", "andromeda GALAXY"}) {
        m31 = FindSkyObject(objects, name);
        ASSERT_NE(m31, nullptr) << name;
        EXPECT_NEAR(m31->Position.Ra / degree, 10.6848, 1e-3);
        EXPECT_NEAR(m31->Position.Dec / degree, 41.2691, 1e-3);
    }
    EXPECT_EQ(FindSkyObject(objects, ""), nullptr);
    const auto stars =
        ReadSkyObjects(std::filesystem::path(VESTREL_SOURCE_DIR) / "data" / "bright-stars.tsv");
    for (const char* name : {"vega", "alpha lyr", "α Lyr", "3 Lyr"}) {
        const SkyObject* vega = FindSkyObject(stars, name);
        ASSERT_NE(vega, nullptr) << name;
        EXPECT_NEAR(vega->Position.Dec / degree, 38.784, 1e-3);
    }

    // 10" a pixel about M 31, north up and east left: its outline is as long as the table says and
    // leans to the east.
    ImageHeader header;
    header.PlateMatched = true;
    header.PlateScale = 206264.8062;
    header.RaRef = m31->Position.Ra;
    header.DecRef = m31->Position.Dec;
    const double rows[2][3] = {{0.1, 0, 1500}, {0, 0.1, 1000}};
    std::copy_n(&rows[0][0], 6, &header.PlateTransform[0][0]);
    const auto map = SkyMap::Of(header);
    ASSERT_TRUE(map);
    const auto shown = ObjectsOnImage(objects, *map, 3001, 2001);
    ASSERT_GE(shown.size(), 3u);
    EXPECT_EQ(shown[0].Object->Name, "M 31");
    EXPECT_NEAR(shown[0].Place.X, 1500, 1e-3);
    double longest = 0;
    PixelPoint tip;
    for (const PixelPoint& corner : shown[0].Outline) {
        const double length = std::hypot(corner.X - 1500, corner.Y - 1000);
        if (length > longest && corner.Y > 1000) tip = corner;
        longest = std::max(longest, length);
    }
    EXPECT_NEAR(shown[0].Reach, longest, 0.01);
    EXPECT_NEAR(2 * longest * 10 / 60, m31->Major / degree * 60, 0.2);
    EXPECT_NEAR(std::atan2(1500 - tip.X, tip.Y - 1000) / degree, 35, 0.5);
    std::vector<std::string> names;
    for (const ObjectOnImage& one : shown) names.push_back(one.Object->Name);
    EXPECT_NE(std::find(names.begin(), names.end(), "M 110"), names.end());
}

TEST(SkyObjects, ADamagedTableGivesNoImpossibleObject) {
    const TemporaryFolder folder;
    const std::string good = "M 1\tCrab\tnebula\t83.6\t22.0\t8.4\t8\t4\t120\n";
    std::string text;
    for (int i = 0; i < 40; ++i) text += good;
    for (std::uint32_t seed = 1; seed < 60; ++seed) {
        WriteFile(folder / "t.tsv", Damaged(text, seed, text.size()));
        for (const SkyObject& object : ReadSkyObjects(folder / "t.tsv")) {
            EXPECT_TRUE(object.Position.Ra >= 0 && object.Position.Ra <= 360 * degree);
            EXPECT_TRUE(std::fabs(object.Position.Dec) <= 90 * degree);
            EXPECT_TRUE(object.Major >= 0 && std::isfinite(object.Minor + object.PositionAngle));
        }
    }
    EXPECT_TRUE(ReadSkyObjects(folder / "none").empty());
}

TEST(Positions, AreReadInTheFormsInWhichTheyAreCopied) {
    const SkyPosition crab{(5 + 34 / 60.0 + 31.9 / 3600) * 15 * degree,
                           (22 + 0 / 60.0 + 52.0 / 3600) * degree};
    for (const char* text :
         {"05:34:31.9 +22:00:52", "05 34 31.9 +22 00 52", "05 34 31.9 22 00 52",
          "05h34m31.9s +22°00′52″", "5h34m31.9s, 22d00m52s", "RA 05:34:31.9 Dec +22:00:52",
          "RA: 05h 34m 31.9s, Dec: 22° 00' 52''", "α = 05h34m31.9s δ = +22° 00′ 52″ (J2000)",
          "83.6329167 22.0144444", "83.6329167, +22.0144444", "  05 34 31.9\t+22 00 52\n",
          "05ʰ34ᵐ31.9ˢ +22°00′52″", "05h34m31.9s  22° 00' 52.0\""}) {
        const auto position = ParsePosition(text);
        ASSERT_TRUE(position) << text;
        EXPECT_NEAR(position->Ra, crab.Ra, 1e-8) << text;
        EXPECT_NEAR(position->Dec, crab.Dec, 1e-8) << text;
    }
    for (const char* text : {"83.6329167,22.0144444", "05:34:31.9,22:00:52", "5h34m31.9s,22d00m52s",
                             "05 34 31.9,+22 00 52", "83.6329167,+22.0144444"}) {
        const auto position = ParsePosition(text);
        ASSERT_TRUE(position) << text;
        EXPECT_NEAR(position->Dec, crab.Dec, 1e-8) << text;
    }
    for (const auto& [text, ra, dec] : {std::tuple("180,45", 180, 45), {"83,22", 83, 22}}) {
        const auto position = ParsePosition(text);
        ASSERT_TRUE(position) << text;
        EXPECT_NEAR(position->Ra, ra * degree, 1e-8) << text;
        EXPECT_NEAR(position->Dec, dec * degree, 1e-8) << text;
    }
    // Every sign that stands for a minus.
    for (const char* text : {"10 30 00 -00 30 00", "10 30 00 \u221200 30 00",
                             "10h30m00s \u201300\u00b030\u203200\u2033"}) {
        const auto position = ParsePosition(text);
        ASSERT_TRUE(position) << text;
        EXPECT_NEAR(position->Dec, -0.5 * degree, 1e-8) << text;
    }
    // Two coordinates with decimal commas are not cut at the first of them.
    for (const char* text : {"40,5 20", "83,63 22", "40,5 20,3", "10,5 5 30", "05 34 31,9 22 00 52",
                             "187,70593 12,39112"}) {
        EXPECT_FALSE(ParsePosition(text)) << text;
    }
    for (const char* text :
         {"02 42 04,2", "", "42 44 51,3", "42,7\u00b0", "40,5 42,7", "40,5 +42,7", "40,5 +42",
          "M 31", "10 30 00", "400 20", "10 95", "10 20 30 40 50", "10:30:00 +20:00:00 junk",
          "nan nan", "+ -", "05h 34m 31.9s", "-22° 00' 52\"", "22° 00' 52\"", "22 00 52"}) {
        EXPECT_FALSE(ParsePosition(text)) << text;
    }
}

TEST(Positions, TellWhatMayBeASlipInOneCoordinate) {
    for (const char* text : {"40,5", "83,22", "83 22", "25 34 10", "02 42 04 2", "05 34.5"}) {
        EXPECT_TRUE(MayBeOneCoordinate(text)) << text;
    }
    for (const char* text :
         {"83.633 22.014", "05 34 31.9 +22 00 52", "05 34 31.9 22 00 52", "83, 22", "83 +22",
          "RA 83 Dec 22", "83.6329167,22.0144444", "5h34m31s,22d00m52s", "05:34:31.9 22:00:52"}) {
        EXPECT_FALSE(MayBeOneCoordinate(text)) << text;
    }
}

TEST(Residuals, HistogramAndMagnificationHoldForAnyLengths) {
    Random random(3);
    for (const double size : {1e-4, 0.02, 0.7, 30.0}) {
        std::vector<Residual> residuals;
        for (int i = 0; i < 101; ++i) {
            residuals.push_back({{random.Between(0, 3000), random.Between(0, 2000)},
                                 random.Normal(size),
                                 random.Normal(size)});
        }
        const ResidualHistogram histogram = HistogramOf(residuals, 12);
        int sum = 0;
        for (const int count : histogram.Counts) sum += count;
        EXPECT_EQ(sum, 101);
        EXPECT_LE(histogram.Counts.size(), 12u);
        EXPECT_GE(histogram.Counts.size(), 4u);
        int below = 0;
        for (const Residual& one : residuals) {
            below += std::hypot(one.Dx, one.Dy) < histogram.Median ? 1 : 0;
        }
        EXPECT_EQ(below, 50);
        const double times = ResidualMagnification(residuals, 3000, 2000);
        int tooLong = 0;
        for (const Residual& one : residuals) {
            tooLong += std::hypot(one.Dx, one.Dy) * times > 2000.0 / 12 * 1.001 ? 1 : 0;
        }
        EXPECT_LE(tooLong, 6);
        // A round number that is not needlessly small.
        const double mantissa = times / std::pow(10, std::floor(std::log10(times) + 1e-9));
        EXPECT_TRUE(std::min({std::fabs(mantissa - 1), std::fabs(mantissa - 2),
                              std::fabs(mantissa - 5)}) < 1e-6);
        if (times > 1 && times < 9e4) {
            EXPECT_GT(histogram.Largest * times, 2000.0 / 12 / 2.6);
        }
    }
    EXPECT_EQ(ResidualMagnification({}, 100, 100), 1);
    EXPECT_TRUE(HistogramOf({}).Counts.empty());
}

}  // namespace vestrel
