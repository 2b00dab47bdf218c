// Why a picture was not solved: each picture has one known fault.

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

#include "extraction/libImageHealth.h"
#include "program/mFailureCause.h"
#include "program/mImageData.h"
#include "tests/skySupport.h"
#include "tests/testSupport.h"
#include "tools/libFrameFile.h"
#include "tools/libFrameRenderer.h"

namespace vestrel {
namespace {

constexpr double degree = std::numbers::pi / 180;

FrameGeometry Geometry(int width, int height) {
    FrameGeometry geometry;
    geometry.Centre.Ra = 1;
    geometry.Centre.Dec = 0.3;
    geometry.RadiansPerPixel = 4.0 / 3600 * degree;
    geometry.Width = width;
    geometry.Height = height;
    return geometry;
}

/// A frame of stars that are in no catalog.
Frame Render(const FrameExposure& exposure, int stars, int width = 700, int height = 500) {
    const FrameGeometry geometry = Geometry(width, height);
    return RenderFrame(geometry, exposure, RandomFrameStars(geometry, stars, 6, 12, exposure.Seed));
}

FrameExposure Exposure(double zeroPoint, std::uint64_t seed) {
    FrameExposure exposure;
    exposure.ZeroPoint = zeroPoint;
    exposure.Seed = seed;
    exposure.HotPixels = 40;
    return exposure;
}

PlateImage ImageOf(const Frame& frame) {
    PlateImage image = EmptyImage(frame.Width, frame.Height, 0);
    const float* pixel = frame.Pixels.data();
    for (int y = 0; y < frame.Height; ++y) {
        for (int x = 0; x < frame.Width; ++x) {
            image.Pixels.Wide()(x, y) = static_cast<std::int32_t>(*pixel++);
        }
    }
    return image;
}

TEST(ImageHealth, TrailsHaveTheirLengthAndAngle) {
    std::uint64_t seed = 0;
    for (const double length : {12.0, 30.0, 60.0}) {
        for (const double angle : {-70.0, 0.0, 25.0, 90.0}) {
            FrameExposure exposure = Exposure(23, ++seed);
            exposure.TrailLength = length;
            exposure.TrailAngle = angle * degree;
            const ImageHealth health = HealthOf(ImageOf(Render(exposure, 60)));
            SCOPED_TRACE(testing::Message() << length << " pixels at " << angle);
            EXPECT_NEAR(health.TrailLength, length, 0.1 * length + 1);
            EXPECT_NEAR(std::remainder(health.TrailAngle / degree - angle, 180), 0, 3);
            EXPECT_GT(health.AngleAgreement, 0.9);
            EXPECT_GT(health.Elongation, 2);
        }
    }
}

// Away from the axis, a lens elongates stars toward the corners or across that direction.
TEST(ImageHealth, ElongationByOpticsIsNoTrail) {
    PlateImage image = EmptyImage(600, 600, 0);
    Random random(5);
    for (int y = 0; y < 600; ++y) {
        for (std::int32_t& pixel : image.Pixels.Wide().Row(y).first(600)) {
            pixel = 1000 + static_cast<std::int32_t>(random.Normal(20));
        }
    }
    for (int star = 0; star < 80; ++star) {
        const double x = random.Between(20, 580);
        const double y = random.Between(20, 580);
        const double angle = std::atan2(y - 300, x - 300);
        for (double along = -6; along <= 6; along += 1) {
            AddStar(image, x + along * std::cos(angle), y + along * std::sin(angle), 4000, 1.3);
        }
    }
    const ImageHealth health = HealthOf(image);
    EXPECT_GT(health.Elongation, 2);
    EXPECT_LT(health.AngleAgreement, 0.4);
}

TEST(ImageHealth, SharpStarsAreNeitherTrailedNorRings) {
    const ImageHealth health = HealthOf(ImageOf(Render(Exposure(22, 3), 80)));
    EXPECT_GT(health.Patches, 50);
    EXPECT_NEAR(health.Width, 3, 1.5);  // the seeing
    EXPECT_LT(health.Elongation, 1.3);
    EXPECT_LT(health.HollowPart, 0.1);
    EXPECT_EQ(health.DarkPatches, 0);
    EXPECT_NEAR(health.SkyLevel, 1500, 15);
    EXPECT_NEAR(health.SkyNoise, std::sqrt(1500 + 64.0), 10);
}

/// What `CauseOfFailure` says about pictures of the tests' small sky.
class Causes : public testing::Test {
 protected:
    void SetUp() override {
        const auto stars = MakeSky(folder_ / "catalog", folder_ / "good.fit");
        WriteQuadTables(folder_ / "catalog", stars, 40, 0.003, 0.006);
    }

    /// @param size of the field that is given, in parts of the sky's own
    /// @param handOver whether the star lists of the plan are given, and its pixels lost
    std::optional<FailureCause> CauseOf(const std::filesystem::path& picture, double size = 1,
                                        bool handOver = false) {
        ProgramState state;
        RecordingPort port(state);
        state.Catalog.Folder = folder_ / "catalog";
        if (!OpenImage(state, port, TextFromPath(picture))) return std::nullopt;
        SearchRequest request;
        const double field = side * scale / 3600 * degree;
        request.Around = {{centre, size * field, size * field, 4}};
        request.Diagonals = {std::sqrt(2) * field};
        request.TimeLimit = size == 1 ? 1 : 30;
        PlanReport plan;
        const SolveCode code = SolveByPlan(state, port, request, plan);
        if (handOver) {
            for (int y = 0; y < state.Image.Height; ++y) {
                for (std::int32_t& pixel : state.Image.Pixels.Wide().Row(y)) pixel = 0;
            }
        }
        const auto cause = CauseOfFailure(state, port, code, request, ConsoleWords,
                                          handOver ? plan.Lists : StarLists{});
        EXPECT_EQ(cause.has_value(), code != SolveCode::Solved);
        EXPECT_FALSE(cause && (state.Solution || state.Image.Header.PlateMatched));
        return cause;
    }

    FailureKind KindOf(const Frame& frame) {
        const auto path = folder_ / "frame.fit";
        const auto bytes = FrameFileBytes(frame, 16, {});
        WriteFile(path, std::string(bytes.begin(), bytes.end()));
        const auto cause = CauseOf(path);
        return cause ? cause->Kind : FailureKind::Unknown;
    }

    TemporaryFolder folder_;
};

// Frames of floating-point numbers are stored with the top row first, the others are not.
TEST_F(Causes, ATrailRunsTheSameWayWhicheverRowIsStoredFirst) {
    FrameExposure exposure = Exposure(21, 1);
    exposure.TrailLength = 80;
    exposure.TrailAngle = 0.6;
    const Frame frame = Render(exposure, 60);
    for (const int bitPix : {16, -32}) {
        const auto path = folder_ / "trailed.fit";
        const auto bytes = FrameFileBytes(frame, bitPix, {});
        WriteFile(path, std::string(bytes.begin(), bytes.end()));
        const auto cause = CauseOf(path);
        ASSERT_TRUE(cause);
        EXPECT_NEAR(cause->Evidence.TrailAngle, 0.6 / degree, 3) << bitPix;
    }
}

TEST_F(Causes, AFileThatWasNotWrittenWholeIsNoBrightSky) {
    const auto path = folder_ / "begun.fit";
    const auto bytes = FrameFileBytes(Render(Exposure(21, 1), 60), 16, {});
    for (const std::size_t held : {std::size_t{0}, bytes.size() / 100}) {
        WriteFile(path, std::string(bytes.begin(),
                                    bytes.begin() + 2880 + static_cast<std::ptrdiff_t>(held)));
        const auto cause = CauseOf(path);
        ASSERT_TRUE(cause);
        EXPECT_TRUE(cause->Text.starts_with("the file ends early: it lacks ")) << cause->Text;
    }
}

TEST_F(Causes, EachFaultIsNamed) {
    FrameExposure exposure = Exposure(21, 1);
    exposure.TrailLength = 80;
    exposure.TrailAngle = 0.6;
    EXPECT_EQ(NameOf(KindOf(Render(exposure, 60))), std::string("trailed"));

    exposure = Exposure(21, 2);
    exposure.DefocusDiameter = 30;
    EXPECT_EQ(NameOf(KindOf(Render(exposure, 60))), std::string("out_of_focus"));

    exposure = Exposure(21, 3);
    exposure.SkyLevel = 40;
    EXPECT_EQ(NameOf(KindOf(Render(exposure, 0))), std::string("under_exposed"));

    exposure = Exposure(16, 4);
    exposure.SkyLevel = 30000;
    EXPECT_EQ(NameOf(KindOf(Render(exposure, 60))), std::string("bright_sky"));

    // Lines of dark letters on white.
    Frame page = Render(Exposure(16, 5), 0);
    for (int y = 0; y < page.Height; ++y) {
        for (int x = 0; x < page.Width; ++x) {
            const bool ink = y % 20 > 8 && x % 9 > 3 && (x / 9 * 7 + y / 20 * 5) % 11 > 2;
            page.Pixels[static_cast<std::size_t>(y * page.Width + x)] = ink ? 2000 : 60000;
        }
    }
    EXPECT_EQ(NameOf(KindOf(page)), std::string("not_sky"));
}

TEST_F(Causes, TheWholeSkyTellsAWrongSize) {
    const auto cause = CauseOf(folder_ / "good.fit", 0.25);
    ASSERT_TRUE(cause.has_value());
    EXPECT_EQ(NameOf(cause->Kind), std::string("wrong_size"));
    EXPECT_NEAR(cause->Evidence.SizeRatio, 4, 0.05);
    ASSERT_TRUE(cause->Evidence.Elsewhere.has_value());
    EXPECT_NEAR(cause->Evidence.Elsewhere->CentreDec, centre.Dec, 1e-5);
}

// Large pictures are not searched for the same stars twice.
TEST_F(Causes, TheWholeSkyIsSearchedWithTheStarsOfThePlan) {
    const auto own = CauseOf(folder_ / "good.fit", 0.25);
    const auto handed = CauseOf(folder_ / "good.fit", 0.25, true);
    ASSERT_TRUE(own && handed);
    EXPECT_EQ(NameOf(handed->Kind), std::string("wrong_size"));
    EXPECT_EQ(handed->Text, own->Text);
}

TEST_F(Causes, WhatWasNotMeasuredIsNoEvidence) {
    for (const int height : {60, 17}) {
        const auto path = folder_ / "flat.fit";
        const auto bytes = FrameFileBytes(Render(Exposure(23, 6), 120, 1500, height), 16, {});
        WriteFile(path, std::string(bytes.begin(), bytes.end()));
        const auto cause = CauseOf(path);
        ASSERT_TRUE(cause);
        EXPECT_FALSE(cause->Evidence.Health.Measured);
        if (height == 17) {
            EXPECT_EQ(cause->Text, "the picture is 17 pixels high");
            continue;
        }
        const std::int32_t stars = cause->Evidence.StarsExtracted;
        EXPECT_GT(stars, 12);
        EXPECT_EQ(NameOf(cause->Kind), std::string("wrong_start"));
        EXPECT_TRUE(cause->Text.starts_with(std::to_string(stars) + " stars stand out"))
            << cause->Text;
    }
}

TEST_F(Causes, PixelsThatAreNotSquareAreNamedByTheirCards) {
    const Frame frame = Render(Exposure(22, 7), 80);
    for (const auto& [cards, square] :
         {std::pair(std::vector<std::string>{"XPIXSZ  = 9.0", "YPIXSZ  = 6.8"}, false),
          {{"XBINNING= 1", "YBINNING= 2"}, false},
          {{"XPIXSZ  = 8.6", "YPIXSZ  = 8.3", "XBINNING= 2", "YBINNING= 2"}, true}}) {
        const auto path = folder_ / "oblong.fit";
        std::vector<std::string> padded = cards;
        for (std::string& card : padded) card.resize(80, ' ');
        const auto bytes = FrameFileBytes(frame, 16, padded);
        WriteFile(path, std::string(bytes.begin(), bytes.end()));
        const auto cause = CauseOf(path);
        ASSERT_TRUE(cause);
        EXPECT_EQ(NameOf(cause->Kind), std::string(square ? "wrong_start" : "not_square"));
        EXPECT_FALSE(cause->Text.empty() || cause->Try.empty());
    }
}

TEST_F(Causes, ASolvedPictureHasNone) {
    EXPECT_FALSE(CauseOf(folder_ / "good.fit").has_value());
}

}  // namespace
}  // namespace vestrel
