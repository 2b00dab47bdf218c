// Frames with known truth, drawn from a catalog made here and solved by the whole program.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <map>
#include <numbers>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "astro/libStrings.h"
#include "catalog/libCatalogRegion.h"
#include "catalogtool/libQuadBuilder.h"
#include "image/libHints.h"
#include "matching/libQuadFile.h"
#include "platform/libPlatform.h"
#include "program/mCommandLine.h"
#include "program/mImageData.h"
#include "program/mImageView.h"
#include "program/mPlateMatch.h"
#include "program/mSearchPlan.h"
#include "program/mSkyModel.h"
#include "program/mSolveReport.h"
#include "program/mSolvedImage.h"
#include "tests/skySupport.h"
#include "tests/testSupport.h"
#include "tools/libFrameFile.h"
#include "tools/libFrameRenderer.h"

namespace vestrel {
namespace {

constexpr double degree = std::numbers::pi / 180;
constexpr int frameWidth = 700;
constexpr int frameHeight = 500;
constexpr double fieldWidth = 1.4 * degree;
constexpr double fieldHeight = 1.0 * degree;

/// The places where the catalog made here has stars: across the line of right ascension 0, at both
/// poles, and an ordinary one.
struct SkyPlace {
    double Ra;
    double Dec;
};
constexpr SkyPlace acrossZero{359.95, 12.4};
constexpr SkyPlace northPole{40, 89.9};
constexpr SkyPlace southPole{300, -89.2};
constexpr SkyPlace ordinary{131, -41};

FrameGeometry FrameAt(SkyPlace place, double up = 0, bool mirrored = false) {
    return {place.Ra * degree, place.Dec * degree, fieldWidth / frameWidth,
            frameWidth,        frameHeight,        up * degree,
            mirrored};
}

double FaintestDrawn() {
    return MagnitudeLimitFor(std::hypot(fieldWidth, fieldHeight) / 2) + 1.5;
}

FrameExposure ExposureFor(int bitPix) {
    FrameExposure exposure;
    exposure.WholeCounts = bitPix != -32;
    if (bitPix == 8) {
        exposure.Gain = 24;
        exposure.SkyLevel = 60;
        exposure.Saturation = 255;
    }
    exposure.ZeroPoint = ZeroPointFor(exposure, FaintestDrawn(), 10);
    return exposure;
}

std::string Padded(std::string card) {
    card.resize(80, ' ');
    return card;
}

class ClosedLoop : public testing::Test {
 protected:
    ClosedLoop() {
        // Patches 5 degrees wide, with the sky's mix of magnitudes.
        std::uint64_t seed = 7;
        for (const SkyPlace place : {acrossZero, northPole, southPole, ordinary}) {
            FrameGeometry patch = FrameAt(place);
            patch.Width = patch.Height = static_cast<int>(5 * degree / patch.RadiansPerPixel);
            for (const FrameStar& star :
                 RandomFrameStars(patch, 2500, 3, FaintestDrawn(), ++seed)) {
                CatalogStars.push_back(*StoredStar(star.Sky));
            }
        }
        WriteCatalog(Catalog.Path, CatalogStars);
        State.Catalog.Folder = Catalog.Path;
    }

    /// Renders a frame of these stars and solves it as another program would. The start is off by
    /// `offX` and `offY`, in parts of the field.
    UnattendedOutcome Solve(const FrameGeometry& geometry, const FrameExposure& exposure,
                            const std::vector<FrameStar>& stars, int bitPix, double offX = 0,
                            double offY = 0) {
        const auto bytes = FrameFileBytes(RenderFrame(geometry, exposure, stars), bitPix, {});
        const auto path = Frames / "frame.fit";
        WriteFile(path, {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
        const auto [ra, dec] =
            FrameToSky(geometry, {(0.5 + offX) * frameWidth, (0.5 + offY) * frameHeight});
        std::string parameters;
        for (const double value : {ra, dec, fieldWidth, fieldHeight}) {
            parameters += NumberText(value) + ",";
        }
        return RunUnattended(State, Port, parameters + "9," + TextFromPath(path));
    }

    TemporaryFolder Catalog;
    TemporaryFolder Frames;
    std::vector<CatalogStar> CatalogStars;
    ProgramState State;
    RecordingPort Port{State};
};

TEST_F(ClosedLoop, SolutionsAreTheTruthInEveryFormatAndAttitude) {
    struct Case {
        SkyPlace Place;
        double Up;
        bool Mirrored;
        int BitPix;
        double OffX;
        double OffY;
    };
    const Case cases[] = {
        {acrossZero, 0, false, 16, 0.25, 0},      {acrossZero, 137, true, 8, -0.2, 0.25},
        {acrossZero, 251, false, -32, 0.1, -0.2}, {northPole, 90, true, 16, 0.25, 0.25},
        {northPole, 200, false, 8, 0, 0},         {northPole, 311, true, -32, -0.25, 0.1},
        {southPole, 45, false, -32, 0.2, -0.25},  {southPole, 180, true, 8, 0, 0.2},
        {ordinary, 270, true, -32, 0.25, -0.25},  {ordinary, 12, false, 8, -0.25, 0},
        {ordinary, 359, true, 16, 0, 0},          {ordinary, 77, false, 16, 0.5, -0.1},
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(testing::Message()
                     << "at " << one.Place.Ra << ", " << one.Place.Dec << ", up " << one.Up
                     << (one.Mirrored ? ", mirrored" : "") << ", BITPIX " << one.BitPix);
        const FrameGeometry geometry = FrameAt(one.Place, one.Up, one.Mirrored);
        const auto stars = CatalogFrameStars(Catalog.Path, geometry, FaintestDrawn());
        const UnattendedOutcome outcome =
            Solve(geometry, ExposureFor(one.BitPix), stars, one.BitPix, one.OffX, one.OffY);
        ASSERT_EQ(outcome.Result.Code, SolveCode::Solved) << outcome.Result.Message;
        EXPECT_TRUE(outcome.ResultFileWritten);

        const PlateSolution& solution = *State.Solution;
        const auto centre = SkyToFrame(geometry, solution.Centre());
        ASSERT_TRUE(centre);
        EXPECT_NEAR(centre->X, (frameWidth - 1) / 2.0, 0.1);
        EXPECT_NEAR(centre->Y, (frameHeight - 1) / 2.0, 0.1);
        EXPECT_NEAR(solution.Scale * 3600 * fieldWidth / degree / frameWidth, 1, 2e-4);
        const ImageOrientation shown = OrientationOf(solution, State.Image);
        EXPECT_NEAR(std::remainder(shown.UpPositionAngle - one.Up, 360), 0, 0.05);
        EXPECT_EQ(shown.Mirrored, one.Mirrored);
    }
}

// Overlays must be right where the lens distorts most; a linear plate is not.
TEST_F(ClosedLoop, OverlaysAndGridAreTrueToTheCornersOfADistortedFrame) {
    FrameGeometry geometry = FrameAt(ordinary, 33);
    geometry.Distortion = 8;
    const auto stars = CatalogFrameStars(Catalog.Path, geometry, FaintestDrawn());
    ASSERT_EQ(Solve(geometry, ExposureFor(16), stars, 16).Result.Code, SolveCode::Solved);
    const auto isCorner = [](const PixelPoint& place) {
        return std::hypot(place.X - (frameWidth - 1) / 2.0, place.Y - (frameHeight - 1) / 2.0) >
               0.65 * std::hypot(frameWidth, frameHeight) / 2;
    };
    const Overlays overlays = OverlaysOf(State);
    ASSERT_TRUE(overlays.Map);
    int quadrants[4] = {};
    for (const FrameStar& star : stars) {
        const PixelPoint truth{star.Place.X, star.Place.Y};
        if (!isCorner(truth) || star.Sky.Mag > State.Report.MagnitudeLimit - 0.02) continue;
        if (truth.X < 0 || truth.Y < 0 || truth.X > frameWidth - 1 || truth.Y > frameHeight - 1) {
            continue;
        }
        const auto shown = std::min_element(
            overlays.Catalog.begin(), overlays.Catalog.end(), [&](const auto& a, const auto& b) {
                return std::hypot(a.Place.X - truth.X, a.Place.Y - truth.Y) <
                       std::hypot(b.Place.X - truth.X, b.Place.Y - truth.Y);
            });
        ASSERT_NE(shown, overlays.Catalog.end());
        EXPECT_NEAR(std::hypot(shown->Place.X - truth.X, shown->Place.Y - truth.Y), 0, 0.5);
        ++quadrants[(truth.X > frameWidth / 2.0 ? 1 : 0) + (truth.Y > frameHeight / 2.0 ? 2 : 0)];
    }
    for (const int found : quadrants) EXPECT_GT(found, 0);
    EXPECT_GT(overlays.Matched.size(), static_cast<std::size_t>(State.Solution->MatchedCount));

    const SkyGrid grid = GridOver(overlays.Map, {0, 0, frameWidth, frameHeight});
    int vertices = 0;
    for (const GridLine& line : grid.Lines) {
        for (const auto& piece : line.Pieces) {
            for (const PixelPoint& vertex : piece) {
                if (!isCorner(vertex)) continue;
                const auto [ra, dec] = FrameToSky(geometry, {vertex.X, vertex.Y});
                const double off =
                    line.IsMeridian ? (ra - line.Angle) * std::cos(dec) : dec - line.Angle;
                EXPECT_NEAR(off / geometry.RadiansPerPixel, 0, 0.5);
                ++vertices;
            }
        }
    }
    EXPECT_GT(vertices, 50);

    // Directions on the image are those that a step on the true sky has.
    const PixelPoint corner{30, 25};
    const auto compass = overlays.Map->CompassAt(corner);
    const auto [ra, dec] = FrameToSky(geometry, {corner.X, corner.Y});
    const auto north = SkyToFrame(geometry, {ra, dec + 1e-4});
    ASSERT_TRUE(compass && north);
    EXPECT_NEAR(std::atan2(compass->North.Y, compass->North.X),
                std::atan2(north->Y - corner.Y, north->X - corner.X), 0.002);
    EXPECT_NEAR(compass->North.X * compass->East.X + compass->North.Y * compass->East.Y, 0, 0.05);

    // The sky model is dropped with the solution.
    EXPECT_TRUE(State.Sky.Made);
    ForgetSolution(State);
    EXPECT_FALSE(State.Sky.Made || State.Sky.Model);
}

/// A picture of an ultra-wide lens, solved with the catalog of its stars.
class WideLoop : public ClosedLoop {
 protected:
    void SolveWide(SkyPlace place, double width, double up, bool mirrored) {
        Geometry = FrameAt(place, up, mirrored);
        Geometry.RadiansPerPixel = 2 * std::tan(width / 2) / frameWidth;
        std::vector<CatalogStar> catalog;
        for (const FrameStar& star : RandomFrameStars(Geometry, 400, 1, 5.5, 4)) {
            catalog.push_back(*StoredStar(star.Sky));
        }
        Sky.emplace();
        WriteCatalog(Sky->Path, catalog);
        State.Catalog = {};
        State.Catalog.Folder = Sky->Path;
        FrameExposure exposure;
        exposure.ZeroPoint = ZeroPointFor(exposure, 5.5, 10);
        const auto stars = CatalogFrameStars(Sky->Path, Geometry, 5.5);
        const auto bytes = FrameFileBytes(RenderFrame(Geometry, exposure, stars), 16, {});
        const auto path = Frames / "wide.fit";
        WriteFile(path, {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
        ASSERT_TRUE(OpenImage(State, Port, TextFromPath(path)));
        SearchRequest request;
        const double height = 2 * std::atan(Geometry.RadiansPerPixel * frameHeight / 2);
        request.Around = {{Geometry.Centre, width, height, 1}};
        PlanReport plan;
        ASSERT_EQ(SolveByPlan(State, Port, request, plan), SolveCode::Solved);
    }

    FrameGeometry Geometry;
    std::optional<TemporaryFolder> Sky;
};

TEST_F(WideLoop, ThePictureOfAnUltraWideLensIsRightToItsCorners) {
    struct WideField {
        SkyPlace Place;
        double Width;
        double Up;
        bool Mirrored;
    };
    for (const WideField& field :
         {WideField{{80, 10}, 48, 239, true}, WideField{{0, 90}, 66, 0, false},
          WideField{{340, -81}, 80, 130, false}, WideField{{172, 29}, 95, 300, true}}) {
        SCOPED_TRACE(field.Width);
        SolveWide(field.Place, field.Width * degree, field.Up, field.Mirrored);
        EXPECT_TRUE(State.Sky.Made) << "at the end of the solve, for all that tells of it";
        EXPECT_FALSE(IsTooWide(State));
        const auto model = SkyModelOfImage(State);
        ASSERT_TRUE(model);
        for (const PixelPoint corner :
             {PixelPoint{0, 0}, PixelPoint{frameWidth - 1, 0}, PixelPoint{0, frameHeight - 1},
              PixelPoint{frameWidth - 1, frameHeight - 1}}) {
            const auto [ra, dec] = FrameToSky(Geometry, {corner.X, corner.Y});
            EXPECT_LT(SkyDistance(model->Model.SkyOf(corner), {ra, dec}) / Geometry.RadiansPerPixel,
                      0.5);
        }
        EXPECT_LT(SkyDistance(State.Solution->Centre(), model->Model.Tangent), 1e-9);
    }
}

// The plate of the solution is off by many pixels in the corners.
TEST_F(WideLoop, AWideFieldWhoseFitFailsIsDoubtedAndGetsNoWorldCoordinates) {
    SolveWide({80, 10}, 60 * degree, 10, false);
    const std::size_t before = Cautions(State).size();
    const TemporaryFolder folder;
    const std::string file = TextFromPath(folder / "wide.wcs");
    ASSERT_TRUE(WriteWorldCoordinates(State, Port, file));
    // The fit has fewer than half of the stars that are known to match.
    State.Solution->Confidence.Matched = 1000;
    State.Sky = {};
    MeasureWideField(State, Port);
    EXPECT_TRUE(IsTooWide(State));
    EXPECT_EQ(Cautions(State).size(), before + 1);
    EXPECT_FALSE(WriteWorldCoordinates(State, Port, TextFromPath(folder / "none.wcs")));
    EXPECT_FALSE(std::filesystem::exists(folder / "none.wcs"));
    EXPECT_FALSE(ExportImage(State, Port, TextFromPath(folder / "none.fits")));
    EXPECT_FALSE(std::filesystem::exists(folder / "none.fits"));
    ASSERT_EQ(Port.Messages.size(), 2U);
    for (const auto& message : Port.Messages) EXPECT_TRUE(message.ends_with(TooWideText));
}

TEST_F(ClosedLoop, FramesWithoutASolutionGetNone) {
    const FrameGeometry geometry = FrameAt(ordinary);
    std::uint64_t seed = 100;
    for (const int bitPix : {8, 16, -32}) {
        const auto strangers = RandomFrameStars(geometry, 120, 6, FaintestDrawn(), ++seed);
        const auto outcome = Solve(geometry, ExposureFor(bitPix), strangers, bitPix);
        EXPECT_EQ(outcome.Result.Code, SolveCode::NoMatch);
        EXPECT_FALSE(State.Image.Header.PlateMatched);
    }
    // Five of the right stars are one too few.
    std::vector<FrameStar> few;
    for (const FrameStar& star : CatalogFrameStars(Catalog.Path, geometry, FaintestDrawn())) {
        const auto inside = [](double at, int size) { return at > 40 && at < size - 40; };
        if (few.size() == 5) break;
        if (inside(star.Place.X, frameWidth) && inside(star.Place.Y, frameHeight)) {
            few.push_back(star);
        }
    }
    EXPECT_EQ(Solve(geometry, ExposureFor(16), few, 16).Result.Code, SolveCode::TooFewStars);
    EXPECT_EQ(Port.Statuses.back(), "Extracted 5 Stars");
}

// A wide region about a pole has cells at all right ascensions.
TEST_F(ClosedLoop, AWideFieldAtAPoleIsComparedWithAllItsStars) {
    FrameGeometry geometry = FrameAt({0, -90}, 0);
    const double width = 80 * degree;
    const double height = width * frameHeight / frameWidth;
    geometry.RadiansPerPixel = width / frameWidth;
    const TemporaryFolder wide;
    std::vector<CatalogStar> catalog;
    std::int32_t compared = 0;
    for (const FrameStar& star : RandomFrameStars(geometry, 400, 1, 5.5, 4)) {
        catalog.push_back(*StoredStar(star.Sky));
        const double limit = MagnitudeLimitFor(std::hypot(width, height) / 2);
        compared += catalog.back().Mag / 100.0 < limit ? 1 : 0;
    }
    WriteCatalog(wide.Path, catalog);
    State.Catalog = {};
    State.Catalog.Folder = wide.Path;
    FrameExposure exposure;
    exposure.ZeroPoint = ZeroPointFor(exposure, 5.5, 10);
    const auto stars = CatalogFrameStars(wide.Path, geometry, 5.5);
    const auto bytes = FrameFileBytes(RenderFrame(geometry, exposure, stars), 16, {});
    const auto path = Frames / "pole.fit";
    WriteFile(path, {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
    ASSERT_TRUE(OpenImage(State, Port, TextFromPath(path)));
    SearchRequest request;
    request.Around = {{geometry.Centre, width, height, 1}};
    PlanReport plan;
    EXPECT_EQ(SolveByPlan(State, Port, request, plan), SolveCode::Solved);
    EXPECT_EQ(State.Report.CatalogStarsAtStart, compared);
}

// With such filters, the plain extraction finds only their pattern.
TEST_F(ClosedLoop, AMosaicOfColoursIsSolvedInItsOwnPixels) {
    const FrameGeometry geometry = FrameAt(ordinary, 70);
    const auto stars = CatalogFrameStars(Catalog.Path, geometry, FaintestDrawn());
    FrameExposure exposure = ExposureFor(16);
    exposure.SkyLevel = 20000;  // a city's
    exposure.ZeroPoint = ZeroPointFor(exposure, FaintestDrawn(), 4);
    const Frame grey = RenderFrame(geometry, exposure, stars);
    constexpr float gains[2][2] = {{0.35F, 1}, {0.9F, 0.15F}};
    for (int phase = 0; phase < 4; ++phase) {
        Frame frame = grey;
        for (int y = 0; y < frameHeight; ++y) {
            for (int x = 0; x < frameWidth; ++x) {
                float& count = frame.Pixels[static_cast<std::size_t>(y * frameWidth + x)];
                count = std::round(count * gains[(y + phase / 2) % 2][(x + phase) % 2]);
            }
        }
        for (const char* card : {"COMMENT the same pixels", "BAYERPAT= 'RGGB'"}) {
            const auto bytes = FrameFileBytes(frame, 16, {Padded(card)});
            const auto path = Frames / "mosaic.fit";
            WriteFile(path, {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
            ASSERT_TRUE(OpenImage(State, Port, TextFromPath(path)));
            const bool told = IsMosaic(State.Image);
            SearchRequest request;
            request.Around = {{geometry.Centre, fieldWidth, fieldHeight, 9, true}};
            PlanReport report;
            const SolveCode code = SolveByPlan(State, Port, request, report);
            ASSERT_EQ(code == SolveCode::Solved, told) << phase << card;
            if (!told) continue;
            EXPECT_EQ(report.SolvedBy, "mosaic");
            // The filters shift the centroid of a cell's light by 0.06 pixels.
            const auto centre = SkyToFrame(geometry, State.Solution->Centre());
            ASSERT_TRUE(centre);
            EXPECT_NEAR(centre->X, (frameWidth - 1) / 2.0, 0.15);
            EXPECT_NEAR(centre->Y, (frameHeight - 1) / 2.0, 0.15);
            EXPECT_EQ(State.Extraction.StarsFound, State.Solution->ExtractedCount);
        }
    }
}

TEST_F(ClosedLoop, FramesAreSolvedWithoutACentreAndStrangersAreNot) {
    const double diagonal = std::hypot(fieldWidth, fieldHeight);
    const QuadPlan plan{
        0.95 * diagonal / degree, 1.05 * diagonal / degree, 8, 25, true, 2, 1, 0, 0};
    QuadSky sky({plan});
    sky.Add(CatalogStars);
    sky.Finish();
    QuadFileWriter writer(Catalog / QuadFileName, 1);
    writer.Add(0.9 * diagonal, 1.1 * diagonal, BuildQuads(sky, plan));
    writer.Commit();
    const auto solve = [&](const FrameGeometry& geometry, const std::vector<FrameStar>& stars) {
        const auto bytes = FrameFileBytes(RenderFrame(geometry, ExposureFor(16), stars), 16, {});
        const auto path = Frames / "blind.fit";
        WriteFile(path, {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
        EXPECT_TRUE(OpenImage(State, Port, TextFromPath(path)));
        SearchRequest request;
        request.Everywhere = true;
        request.Diagonals = {std::hypot(fieldWidth, fieldHeight)};
        PlanReport report;
        return SolveByPlan(State, Port, request, report);
    };
    for (const SkyPlace place : {acrossZero, northPole, southPole, ordinary}) {
        const FrameGeometry geometry = FrameAt(place, 3 * place.Ra, place.Dec < 0);
        ASSERT_EQ(solve(geometry, CatalogFrameStars(Catalog.Path, geometry, FaintestDrawn())),
                  SolveCode::Solved)
            << place.Ra;
        const auto centre = SkyToFrame(geometry, State.Solution->Centre());
        ASSERT_TRUE(centre);
        EXPECT_NEAR(centre->X, (frameWidth - 1) / 2.0, 0.1);
        EXPECT_NEAR(centre->Y, (frameHeight - 1) / 2.0, 0.1);
        EXPECT_LT(State.QuadMatch.Confidence.Log10FalseAlarm, SureLog10FalseAlarm);
        EXPECT_LT(State.Solution->Confidence.Log10FalseAlarm, -15);
        EXPECT_TRUE(State.Image.Header.PlateMatched);
    }
    const FrameGeometry geometry = FrameAt(ordinary);
    EXPECT_EQ(solve(geometry, RandomFrameStars(geometry, 120, 6, FaintestDrawn(), 77)),
              SolveCode::NoMatch);
    EXPECT_FALSE(State.Image.Header.PlateMatched);
    EXPECT_GT(State.QuadMatch.Candidates, 0);
}

TEST_F(ClosedLoop, NoNumberOfTheCallerOrTheSettingsIsTooStrange) {
    FrameGeometry geometry = FrameAt(ordinary);
    geometry.Width = 300;
    geometry.Height = 240;
    const auto stars = CatalogFrameStars(Catalog.Path, geometry, FaintestDrawn());
    const auto bytes = FrameFileBytes(RenderFrame(geometry, ExposureFor(16), stars), 16, {});
    WriteFile(Frames / "frame.fit", {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
    const auto solve = [&](const std::string& numbers, const char* name = "frame.fit") {
        SCOPED_TRACE(numbers);
        const auto outcome =
            RunUnattended(State, Port, numbers + ",2," + TextFromPath(Frames / name));
        EXPECT_EQ(outcome.End, UnattendedEnd::Finished);
        EXPECT_FALSE(outcome.Result.Message.empty());
        const std::string result = ReadFile((Frames / name).replace_extension("kel"));
        EXPECT_EQ(std::count(result.begin(), result.end(), '\n'), 3);
        return outcome.Result.Code;
    };
    const std::vector<double> usual = {geometry.Centre.Ra, geometry.Centre.Dec,
                                       300 * geometry.RadiansPerPixel,
                                       240 * geometry.RadiansPerPixel};
    const auto text = [](const std::vector<double>& numbers) {
        std::string joined;
        for (const double number : numbers)
            joined += (joined.empty() ? "" : ",") + NumberText(number);
        return joined;
    };
    EXPECT_EQ(solve(text(usual)), SolveCode::Solved);  // the usual values do solve
    for (const auto& [width, height] : {std::pair{0, 0}, {0, 3}, {3, 0}, {1, 1}, {2, 5}, {61, 1}}) {
        WriteFile(Frames / "tiny.fit", FitsHeader(FitsCards(16, width, height)));
        EXPECT_EQ(solve(text(usual), "tiny.fit"), SolveCode::TooFewStars)
            << width << ", " << height;
    }
    for (const double value : {0.0, -0.0, -1.0, 1e-300, 1e300, -1e300, 3.1415926535, 1e-9, 32767.0,
                               -32768.0, 1.7, -1e-7, 2e9, 1e17}) {
        SCOPED_TRACE(value);
        for (std::size_t place = 0; place < usual.size(); ++place) {
            std::vector<double> numbers = usual;
            numbers[place] = value;
            solve(text(numbers));
        }
        using P = SolveParameters;
        for (double P::*field :
             {&P::MaxStarSize, &P::MatchTolerance, &P::MatchDivisor, &P::DetectionThreshold,
              &P::EdgeExclusion, &P::MaxGeometricError, &P::MaxError}) {
            State.Parameters.*field = value;
            solve(text(usual));
            State.Parameters = P();
        }
        for (std::int16_t P::*field : {&P::MinStarSize, &P::MaxStars}) {
            State.Parameters.*field =
                static_cast<std::int16_t>(std::clamp(value, -32768.0, 32767.0));
            solve(text(usual));
            State.Parameters = P();
        }
    }
}

// The oracle computes the place of every catalog star.
TEST_F(ClosedLoop, NoStarOfAFrameIsForgotten) {
    for (const SkyPlace place : {acrossZero, northPole, southPole, ordinary}) {
        const FrameGeometry geometry = FrameAt(place, 33, true);
        const auto inFrame = [](const FramePoint& point) {
            return point.X >= 0 && point.Y >= 0 && point.X < frameWidth && point.Y < frameHeight;
        };
        std::size_t expected = 0;
        for (const CatalogStar& star : CatalogStars) {
            const auto point = SkyToFrame(geometry, PositionOf(star));
            expected += point && inFrame(*point) && star.Mag <= 1300 ? 1 : 0;
        }
        std::size_t found = 0;
        for (const FrameStar& star : CatalogFrameStars(Catalog.Path, geometry, 13)) {
            found += inFrame(star.Place) ? 1 : 0;
        }
        EXPECT_EQ(found, expected);
        EXPECT_GT(expected, 20U);
    }
}

TEST(Renderer, LightAndNoiseFollowTheLawsOfACameraOnAnyNumberOfThreads) {
    const FrameGeometry geometry = FrameAt(ordinary);
    FrameExposure exposure;
    exposure.Gradient = 0;
    exposure.SkyLevel = 400;
    exposure.Gain = 2.5;
    exposure.ReadNoise = 20;
    exposure.ZeroPoint = 25;
    exposure.WholeCounts = false;
    const FramePoint place{350.3, 249.8};
    const std::vector<FrameStar> star{{{0, 0, 12.5}, place}};  // 100000 electrons

    const auto render = [&](int threads) {
        const ThreadsForNow now(threads);
        return RenderFrame(geometry, exposure, star);
    };
    const Frame frame = render(1);
    EXPECT_EQ(render(3).Pixels, frame.Pixels);
    exposure.Seed = 2;
    EXPECT_NE(render(1).Pixels, frame.Pixels);

    double light = 0;
    double skySum = 0;
    double skySquares = 0;
    double skyCount = 0;
    auto pixel = frame.Pixels.begin();
    for (int y = 0; y < frameHeight; ++y) {
        for (int x = 0; x < frameWidth; ++x) {
            const double counts = *pixel++;
            if (std::hypot(x - place.X, y - place.Y) < 40) {
                light += (counts - 400) * exposure.Gain;
            } else {
                skySum += counts;
                skySquares += counts * counts;
                ++skyCount;
            }
        }
    }
    const double mean = skySum / skyCount;
    const double sigma = std::sqrt(skySquares / skyCount - mean * mean);
    const double expectedSigma = std::sqrt(400 * 2.5 + 20 * 20) / 2.5;
    EXPECT_NEAR(mean, 400, 5 * expectedSigma / std::sqrt(skyCount));
    EXPECT_NEAR(sigma / expectedSigma, 1, 0.01);
    // Five standard deviations of the sum of 5000 pixels of noise are 13000 electrons.
    EXPECT_NEAR(light, 100000, 14000);
}

}  // namespace
}  // namespace vestrel
