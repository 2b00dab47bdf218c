// The solver as other programs embed it, on a small sky of its own.

#include "solver/solver.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numeric>
#include <stdexcept>
#include <thread>

#include "solver/solverRequest.h"
#include "tests/skySupport.h"
#include "tests/testSupport.h"

namespace vestrel {
namespace {

constexpr double degreesPerRadian = 57.29577951308232;

/// The frame of the small sky, its catalog, and the frame's samples.
class SmallSky {
 public:
    SmallSky() {
        WriteQuadTables(Catalog, MakeSky(Catalog, Frame), 40, 0.003, 0.006);
        const std::string file = ReadFile(Frame);
        const std::size_t samples = std::size_t{side} * side;
        std::size_t at = 2880;
        for (std::size_t i = 0; i < samples; ++i, at += 2) {
            Samples.push_back(
                static_cast<std::uint16_t>(static_cast<unsigned char>(file[at]) * 256 +
                                           static_cast<unsigned char>(file[at + 1])));
        }
        Settings.CatalogFolder = TextFromPath(Catalog);
        Near.Centres = {{0.05 + centre.Ra * degreesPerRadian, centre.Dec * degreesPerRadian, 0.2}};
        Near.Scale = Sized.Scale = SolverRange{scale * 0.9, scale * 1.1};
    }

    template <typename Sample>
    PixelPicture Pixels(const std::vector<Sample>& samples, SampleType type) const {
        PixelPicture picture;
        picture.Samples = samples.data();
        picture.Type = type;
        picture.Width = picture.Height = side;
        return picture;
    }

    TemporaryFolder Folder;
    std::filesystem::path Catalog = Folder / "catalog";
    std::filesystem::path Frame = Folder / "frame.fit";
    std::vector<std::uint16_t> Samples;
    SolverSettings Settings;
    SolverHints Near;   ///< where it is and how large
    SolverHints Sized;  ///< how large only
};

const SmallSky& Sky() {
    static const SmallSky sky;
    return sky;
}

/// That two solutions put no pixel farther from each other than that; other stars may have given
/// them.
void ExpectSameSky(const SolvedField& one, const SolvedField& other, double pixels) {
    const double arcseconds = 3600;
    EXPECT_NEAR(one.Centre.Ra, other.Centre.Ra, pixels * scale / arcseconds);
    EXPECT_NEAR(one.Centre.Dec, other.Centre.Dec, pixels * scale / arcseconds);
    for (int row = 0; row < 2; ++row) {
        for (int column = 0; column < 2; ++column) {
            EXPECT_NEAR(one.Coordinates.Cd[row][column], other.Coordinates.Cd[row][column],
                        pixels / side * scale / arcseconds);
        }
    }
}

TEST(Solver, SameSkyHoweverThePictureComes) {
    const SmallSky& sky = Sky();
    Solver solver(sky.Settings);
    const SolverOutcome file = solver.Solve(TextFromPath(sky.Frame), sky.Near);
    ASSERT_TRUE(file.Solved()) << file.Reason;
    EXPECT_NEAR(file.Field->Centre.Ra, centre.Ra * degreesPerRadian, 0.3 * scale / 3600);
    EXPECT_NEAR(file.Field->Centre.Dec, centre.Dec * degreesPerRadian, 0.3 * scale / 3600);
    EXPECT_NEAR(file.Field->Coordinates.Scale(), scale, 0.005);
    EXPECT_FALSE(file.Field->Coordinates.Mirrored());
    EXPECT_LT(file.Certainty.Log10FalseAlarm, -6);
    EXPECT_GE(file.Field->Matches.size(), 20U);

    // Without a centre, by quads.
    const SolverOutcome blind = solver.Solve(TextFromPath(sky.Frame), sky.Sized);
    ASSERT_TRUE(blind.Solved()) << blind.Reason;
    ExpectSameSky(*blind.Field, *file.Field, 0.2);

    // The same samples in memory, also widened, and with gaps between the rows.
    const PixelPicture plain = sky.Pixels(sky.Samples, SampleType::UInt16);
    const SolverOutcome memory = solver.Solve(plain, sky.Near);
    ASSERT_TRUE(memory.Solved()) << memory.Reason;
    ExpectSameSky(*memory.Field, *file.Field, 1e-9);
    std::vector<std::int32_t> wide;
    for (int y = 0; y < side; ++y) {
        wide.insert(wide.end(), sky.Samples.begin() + y * side,
                    sky.Samples.begin() + (y + 1) * side);
        wide.insert(wide.end(), 7, -1000000);
    }
    PixelPicture gaps = sky.Pixels(wide, SampleType::Int32);
    gaps.RowBytes = (side + 7) * 4;
    const SolverOutcome widened = solver.Solve(gaps, sky.Near);
    ASSERT_TRUE(widened.Solved()) << widened.Reason;
    ExpectSameSky(*widened.Field, *file.Field, 1e-9);

    // A negative, like charts and scans of plates: the same stars, measured by another method.
    std::vector<std::uint16_t> negative;
    for (const std::uint16_t sample : sky.Samples) {
        negative.push_back(static_cast<std::uint16_t>(20000 - sample));
    }
    for (const SolverHints& hints : {sky.Near, sky.Sized}) {
        const SolverOutcome turned = solver.Solve(sky.Pixels(negative, SampleType::UInt16), hints);
        ASSERT_TRUE(turned.Solved()) << turned.Reason;
        ExpectSameSky(*turned.Field, *file.Field, 0.3);
    }

    // The stars that were found, in any order.
    StarField stars{{file.Stars.rbegin(), file.Stars.rend()}, side, side, {}, "a list"};
    for (const SolverHints& hints : {sky.Near, sky.Sized}) {
        const SolverOutcome listed = solver.Solve(stars, hints);
        ASSERT_TRUE(listed.Solved()) << listed.Reason;
        ExpectSameSky(*listed.Field, *file.Field, 0.2);
    }
    std::string fault;
    EXPECT_FALSE(solver.Export(TextFromPath(sky.Folder / "none.fit"), fault));
    EXPECT_NE(fault, "");
}

TEST(Solver, RowsAreCountedAsTheFileHasThem) {
    // Vestrel's readers turn floating-point files upside down; callers that pass samples do not.
    const SmallSky& sky = Sky();
    std::vector<double> values(sky.Samples.begin(), sky.Samples.end());
    const std::filesystem::path path = sky.Folder / "float.fit";
    WriteFile(path, FitsHeader(FitsCards(-32, side, side)) + FitsPixels(-32, values));
    Solver solver(sky.Settings);
    const SolverOutcome whole = solver.Solve(TextFromPath(sky.Frame), sky.Near);
    const std::vector<std::string> wholeCards = solver.CoordinateCards();
    const SolverOutcome turned = solver.Solve(TextFromPath(path), sky.Near);
    ASSERT_TRUE(whole.Solved() && turned.Solved());
    ExpectSameSky(*turned.Field, *whole.Field, 0.05);
    EXPECT_EQ(solver.CoordinateCards().size(), wholeCards.size());
    for (const SolverOutcome* outcome : {&whole, &turned}) {
        const SolverCoordinates& map = outcome->Field->Coordinates;
        for (const SolverMatch& match : outcome->Field->Matches) {
            const double u = match.X + 1 - map.Crpix[0];
            const double v = match.Y + 1 - map.Crpix[1];
            const double east =
                (match.Sky.Ra - map.Crval[0]) * std::cos(map.Crval[1] / degreesPerRadian);
            EXPECT_NEAR((map.Cd[0][0] * u + map.Cd[0][1] * v) * 3600, east * 3600, 3);
            EXPECT_NEAR((map.Cd[1][0] * u + map.Cd[1][1] * v) * 3600,
                        (match.Sky.Dec - map.Crval[1]) * 3600, 3);
        }
    }
}

TEST(Solver, TellsWhyThereIsNoSolution) {
    const SmallSky& sky = Sky();
    Solver solver(sky.Settings);
    EXPECT_EQ(solver.Solve(SolverHints()).End, SolverEnd::NoPicture);
    const SolverOutcome missing = solver.Solve(TextFromPath(sky.Folder / "missing.fit"));
    EXPECT_EQ(missing.End, SolverEnd::NoPicture);
    EXPECT_NE(missing.Reason, "");
    EXPECT_TRUE(solver.CoordinateCards().empty());

    const std::vector<std::uint8_t> dark(std::size_t{side} * side, 40);
    const SolverOutcome empty = solver.Solve(sky.Pixels(dark, SampleType::UInt8));
    EXPECT_EQ(empty.End, SolverEnd::TooFewStars);
    EXPECT_NE(empty.CauseKind, "");
    EXPECT_NE(empty.Cause, "");
    ASSERT_FALSE(empty.Advice.empty());

    SolverHints elsewhere = sky.Near;
    elsewhere.WholeSky = false;
    elsewhere.MostRegions = 1;
    elsewhere.Centres[0].Dec += 0.5;
    const SolverOutcome off = solver.Solve(TextFromPath(sky.Frame), elsewhere);
    EXPECT_EQ(off.End, SolverEnd::NoMatch) << NameOf(off.End);
    EXPECT_NE(off.Reason.find("the catalog ends at 15.0 here, this field is compared down to 16.5"),
              std::string::npos)
        << off.Reason;
    EXPECT_NE(off.CauseKind, "") << "the pixels are good: so the place is not";
    elsewhere.FindCause = false;
    const SolverOutcome hurried = solver.Solve(TextFromPath(sky.Frame), elsewhere);
    EXPECT_EQ(hurried.End, off.End);
    EXPECT_EQ(hurried.CauseKind + hurried.Cause, "");
    EXPECT_TRUE(solver.Solve(TextFromPath(sky.Frame), sky.Near).Cause.empty());

    SolverSettings nowhere;
    nowhere.CatalogFolder = TextFromPath(sky.Folder / "no such folder");
    EXPECT_EQ(Solver(nowhere).Solve(TextFromPath(sky.Frame), sky.Near).End, SolverEnd::NoCatalog);

    PixelPicture shape = sky.Pixels(dark, SampleType::UInt8);
    shape.Width = 40000;
    EXPECT_THROW(solver.Open(shape), std::invalid_argument);
    SolverHints range;
    range.Scale = SolverRange{3, 1};
    solver.Open(TextFromPath(sky.Frame));
    EXPECT_THROW(solver.Solve(range), std::invalid_argument);
    SolverSettings threads;
    threads.Threads = -1;
    EXPECT_THROW(Solver{threads}, std::invalid_argument);
    // Earlier failures leave no trace.
    EXPECT_TRUE(solver.Solve(TextFromPath(sky.Frame), sky.Near).Solved());
}

TEST(Solver, SettingsAndHintsLeftOutAreThoseOfThePrograms) {
    const SolveParameters usual;
    SolveParameters other;
    other.MaxStarSize = other.MatchTolerance = other.MatchDivisor = other.DetectionThreshold = 1;
    other.EdgeExclusion = other.MaxGeometricError = other.MaxError = 0.1;
    other.MinStarSize = 1;
    other.MaxStars = 100;
    SolveParameters taken = other;
    TakeSettings(SolverSettings(), taken);
    EXPECT_EQ(EncodeSettings(taken), EncodeSettings(usual));
    TakeSettings(SettingsOf(other), taken);
    EXPECT_EQ(EncodeSettings(taken), EncodeSettings(other));

    const KnownOfPicture known = KnownFrom(SolverHints(), EmptyImage(4, 4, 0));
    EXPECT_EQ(known.Regions, SearchHint().Regions);
    EXPECT_EQ(known.TimeLimit, SearchRequest().TimeLimit);
}

TEST(Solver, TheSizeOfASideIsThatOfItsPixels) {
    const PlateImage image = EmptyImage(400, 100, 0);
    SolverHints hints;
    hints.FieldWidth = SolverRange{2, 2};
    const KnownOfPicture byWidth = KnownFrom(hints, image);
    hints.FieldWidth.reset();
    hints.FieldHeight = SolverRange{0.5, 0.5};
    const KnownOfPicture byHeight = KnownFrom(hints, image);
    for (const KnownOfPicture& known : {byWidth, byHeight}) {
        ASSERT_EQ(known.Sizes.size(), 1U);
        EXPECT_NEAR(known.Sizes[0].Width * degreesPerRadian, 2, 1e-6);
        EXPECT_NEAR(known.Sizes[0].Height * degreesPerRadian, 0.5, 1e-6);
    }
}

TEST(Solver, StopsWhenAskedTo) {
    const SmallSky& sky = Sky();
    Solver solver(sky.Settings);
    std::stop_source source;
    SolverWatch watch{source.get_token(), {}};
    std::vector<std::string> stages;
    watch.Progress = [&](const SolverProgress& progress) {
        if (stages.empty() || stages.back() != progress.Stage) stages.push_back(progress.Stage);
        if (progress.Stage == "Attempting Match") source.request_stop();
    };
    SolverHints far = sky.Near;
    far.Centres[0].Dec += 2;
    EXPECT_EQ(solver.Solve(TextFromPath(sky.Frame), far, watch).End, SolverEnd::Stopped);
    EXPECT_GE(stages.size(), 3U);

    far.EndAfter = 1e-6;
    EXPECT_EQ(solver.Solve(TextFromPath(sky.Frame), far).End, SolverEnd::TimeLimit);

    watch = {{}, [](const SolverProgress&) { throw std::runtime_error("enough"); }};
    EXPECT_THROW(solver.Solve(TextFromPath(sky.Frame), sky.Near, watch), std::runtime_error);
    EXPECT_EQ(solver.Solve(sky.Near).End, SolverEnd::NoPicture);
    EXPECT_TRUE(solver.Solve(TextFromPath(sky.Frame), sky.Near).Solved());
}

TEST(Solver, TheOppositeSkyOfASolveBeforeIsNoEvidence) {
    const SmallSky& sky = Sky();
    Solver solver(sky.Settings);
    const SolverOutcome first = solver.Solve(TextFromPath(sky.Frame), sky.Near);
    ASSERT_TRUE(first.Solved()) << first.Reason;
    // The cells of the frame are in memory now. Seen from the opposite place, the plane folds their
    // stars to where a mirrored frame would have them.
    SolverHints opposite = sky.Near;
    opposite.WholeSky = false;
    opposite.Centres = {{180 + sky.Near.Centres[0].Ra, -sky.Near.Centres[0].Dec, 0.2}};
    const SolverOutcome mirrored = solver.Solve(TextFromPath(sky.Frame), opposite);
    EXPECT_FALSE(mirrored.Solved());
    EXPECT_FALSE(mirrored.Candidate);
    const SolverOutcome again = solver.Solve(TextFromPath(sky.Frame), sky.Near);
    ASSERT_TRUE(again.Solved());
    EXPECT_EQ(again.Certainty.Log10FalseAlarm, first.Certainty.Log10FalseAlarm);
}

TEST(Solver, SeveralAtOnceGiveWhatOneGives) {
    const SmallSky& sky = Sky();
    const auto solve = [&sky](int threads) {
        SolverSettings settings = sky.Settings;
        settings.Threads = threads;
        Solver solver(settings);
        std::vector<double> figures;
        for (const SolverHints& hints : {sky.Near, sky.Sized}) {
            const SolverOutcome outcome = solver.Solve(TextFromPath(sky.Frame), hints);
            if (!outcome.Solved()) continue;
            figures.push_back(outcome.Field->Centre.Ra);
            figures.push_back(outcome.Field->Rms);
            for (const SolverMatch& match : outcome.Field->Matches) {
                figures.push_back(match.Residual);
            }
        }
        return figures;
    };
    const std::vector<double> alone = solve(1);
    ASSERT_GT(alone.size(), 40U);
    std::vector<std::vector<double>> together(4);
    {
        std::vector<std::jthread> threads;
        for (std::size_t i = 0; i < together.size(); ++i) {
            threads.emplace_back([&, i] { together[i] = solve(static_cast<int>(i)); });
        }
    }
    for (const auto& figures : together) EXPECT_EQ(figures, alone);
}

}  // namespace
}  // namespace vestrel
