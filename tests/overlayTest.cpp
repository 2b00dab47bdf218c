// What the image window draws: display levels compared with plain counting, and sky overlays
// compared with the projection that every solve uses.

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <set>

#include "display/libDisplayLevels.h"
#include "display/libSkyGrid.h"
#include "display/libSkyOverlay.h"
#include "tests/testSupport.h"

namespace vestrel {
namespace {

constexpr double pi = 3.14159265358979323846;
constexpr double arcsecond = pi / 180 / 3600;

/// A sky with Gaussian noise, some stars, and part of the columns without data.
PlateImage StarryImage(Random& random, double sky, double noise, double starShare,
                       double emptyShare) {
    PlateImage image = EmptyImage(400, 300, 32768);
    for (std::int32_t y = 0; y < image.Height; ++y) {
        for (std::int32_t x = 0; x < image.Width; ++x) {
            double count = sky + random.Normal(noise);
            if (random.Between(0, 1) < starShare) count += std::pow(10, random.Between(1, 4.7));
            if (x < emptyShare * image.Width) count = 0;
            image.Pixels.Wide()(x, y) =
                static_cast<std::int32_t>(std::lround(std::clamp(count, 0.0, 65535.0))) - 32768;
        }
    }
    return image;
}

struct Solved {
    ImageHeader Header;
    std::int32_t Width = 1500;
    std::int32_t Height = 1000;

    Solved(double ra, double dec, double arcsecondsPerPixel, double turn, bool mirrored) {
        const double scale = 1 / arcsecondsPerPixel;
        const double sign = mirrored ? 1 : -1;
        const double rows[2][3] = {{scale * std::cos(turn), scale * std::sin(turn), 0.4 * Width},
                                   {sign * 1.02 * scale * std::sin(-turn - 0.01),
                                    sign * 1.02 * scale * std::cos(turn + 0.01), 0.7 * Height}};
        for (int row = 0; row < 2; ++row) std::copy_n(rows[row], 3, Header.PlateTransform[row]);
        Header.PlateMatched = true;
        Header.PlateScale = 206264.81;
        Header.RaRef = ra;
        Header.DecRef = dec;
    }
    SkyMap Map() const { return *SkyMap::Of(Header); }
};

/// Fields of every size: across 0h, at and near both poles, the whole sky.
std::vector<Solved> Fields() {
    std::vector<Solved> fields;
    const std::pair<double, double> places[] = {{2, 0.5},     {0, 0},          {6.283, -0.7},
                                                {1, pi / 2},  {4, -pi / 2},    {3, 1.5},
                                                {5, -1.5707}, {0.001, 1.5607}, {3.2, -1.2}};
    int number = 0;
    for (const auto& [ra, dec] : places) {
        for (const double scale : {0.05, 2.0, 40.0, 150.0, 600.0}) {
            fields.emplace_back(ra, dec, scale, 0.9 * number, number % 2 == 0);
            ++number;
        }
    }
    return fields;
}

double Apart(const PixelPoint& a, const PixelPoint& b) {
    return std::hypot(a.X - b.X, a.Y - b.Y);
}

/// How far a point is from a piece of a line.
double DistanceFromPiece(const PixelPoint& p, const std::vector<PixelPoint>& piece) {
    double nearest = Apart(p, piece.front());
    for (std::size_t k = 1; k < piece.size(); ++k) {
        const double ux = piece[k].X - piece[k - 1].X;
        const double uy = piece[k].Y - piece[k - 1].Y;
        const double square = std::max(ux * ux + uy * uy, 1e-30);
        const double along = std::clamp(
            ((p.X - piece[k - 1].X) * ux + (p.Y - piece[k - 1].Y) * uy) / square, 0.0, 1.0);
        nearest =
            std::min(nearest, Apart(p, {piece[k - 1].X + along * ux, piece[k - 1].Y + along * uy}));
    }
    return nearest;
}

}  // namespace

TEST(Histogram, CountsEveryPixelOnceWhateverTheThreads) {
    Random random(4);
    for (const std::int64_t spread : {0LL, 700LL, 65535LL, 65536LL, 4294967295LL}) {
        PlateImage image = EmptyImage(193, 131, 100);
        std::map<std::int64_t, std::int64_t> counted;
        for (std::int32_t y = 0; y < image.Height; ++y) {
            for (std::int32_t x = 0; x < image.Width; ++x) {
                const double share = x == 0 ? 0 : x == 1 ? 1 : random.Between(0, 1);
                const std::int64_t value =
                    -2147483648LL + std::llround(share * static_cast<double>(spread));
                image.Pixels.Wide()(x, y) = static_cast<std::int32_t>(value);
                ++counted[value + 100];
            }
        }
        image.Pixels.Wide()(image.Width, 5) =
            2147483647;  // the spare column is not part of the image
        for (const auto& [threads, most] :
             {std::pair{1, 65536}, {4, 65536}, {4, 1000}, {1, 37}, {4, 1}}) {
            const ThreadsForNow now(threads);
            const ImageHistogram histogram = MakeImageHistogram(image, most);
            EXPECT_EQ(histogram.Low, counted.begin()->first);
            EXPECT_EQ(histogram.High, counted.rbegin()->first);
            EXPECT_LE(histogram.Bins.size(), static_cast<std::size_t>(most));
            std::vector<std::int64_t> expected(histogram.Bins.size());
            for (const auto& [count, pixels] : counted) {
                expected[static_cast<std::size_t>((count - histogram.Low) / histogram.BinWidth)] +=
                    pixels;
            }
            EXPECT_EQ(histogram.Bins, expected) << spread << " " << most;
        }
    }
    EXPECT_TRUE(MakeImageHistogram(PlateImage()).Bins.empty());
}

TEST(Levels, TheSkyIsFoundUnderStarsAndBesideEmptyBorders) {
    Random random(7);
    for (const double noise : {0.4, 3.0, 40.0}) {
        for (const double stars : {0.0, 0.1}) {
            for (const double empty : {0.0, 0.4}) {
                const PlateImage image = StarryImage(random, 1200.3, noise, stars, empty);
                const SkyEstimate sky = EstimateSky(MakeImageHistogram(image));
                EXPECT_NEAR(sky.Level, 1200.3, 0.12 * noise + 0.05) << stars << " " << empty;
                EXPECT_NEAR(sky.Noise / std::hypot(noise, 0.289), 1.05, 0.1) << noise;
            }
        }
    }
    const ImageHistogram flat = MakeImageHistogram(EmptyImage(50, 50, 7));
    EXPECT_NEAR(EstimateSky(flat).Level, 7, 0.5);
    EXPECT_LT(LevelsFromHistogram(flat).Black, LevelsFromHistogram(flat).White);
    EXPECT_LT(LevelsFromHistogram({}).Black, LevelsFromHistogram({}).White);
}

TEST(Levels, TheHeadersHintIsTakenOnlyWhenItShowsSomething) {
    Random random(8);
    const ImageHistogram histogram = MakeImageHistogram(StarryImage(random, 1200, 20, 0.01, 0));
    const CountLevels usual = LevelsFromHistogram(histogram);
    EXPECT_NEAR(usual.Black, 1160, 5);
    EXPECT_GT(usual.White, 1390);
    struct Hint {
        std::int32_t Black, White;
        bool Sensible;
    };
    constexpr std::int32_t huge = 2147483647;
    for (const auto& [black, white, sensible] :
         {Hint{1150, 3000, true}, Hint{0, 4000, true}, Hint{1240, 1500, true}, Hint{0, 0, false},
          Hint{3000, 1150, false}, Hint{0, 1100, false}, Hint{1900, 4000, false},
          Hint{1199, 1202, false}, Hint{-huge - 1, huge, false}}) {
        ImageHeader header;
        header.BlackLevel = black;
        header.WhiteLevel = white;
        EXPECT_EQ(HeaderLevelsSensible(header, histogram), sensible) << black << " " << white;
        const CountLevels levels = FirstLevels(header, histogram);
        EXPECT_EQ(levels.Black, sensible ? black : usual.Black);
        EXPECT_EQ(levels.White, sensible ? white : usual.White);
    }
}

TEST(Levels, TheLookupIsTheTransferOfEachStoredValue) {
    using enum Transfer;
    for (const Transfer transfer : {Linear, SquareRoot, Asinh, Logarithmic}) {
        EXPECT_EQ(Transferred(transfer, std::nan("")), 0);
        EXPECT_DOUBLE_EQ(Transferred(transfer, 1), 1);
        for (int k = 1; k < 100; ++k) {
            const double x = 0.01 * k;
            EXPECT_LT(Transferred(transfer, x - 0.01), Transferred(transfer, x));
            EXPECT_TRUE(transfer == Linear || Transferred(transfer, x) > x);
        }
        for (const auto& [black, white] :
             {std::pair{950.0, 4000.0}, {0.4, 1.2}, {-70.5, 65535.0}, {32768.0, 32768.0}}) {
            const GreyLookup lookup({black, white}, 32768, transfer, false);
            const GreyLookup inverted({black, white}, 32768, transfer, true);
            for (std::int32_t stored = -40000; stored < 40000; ++stored) {
                const double place = (stored + 32768 - black) / std::max(white - black, 1e-3);
                // Halves may fall either way.
                ASSERT_NEAR(lookup(stored), 255 * Transferred(transfer, place), 0.5001) << stored;
                ASSERT_EQ(lookup(stored) + inverted(stored), 255);
            }
        }
        for (const auto& [black, white] :
             {std::pair{-2e9, 2e9}, {-HUGE_VAL, HUGE_VAL}, {std::nan(""), 5.0}, {1e300, -1e300}}) {
            const GreyLookup lookup({black, white}, 2147483647, transfer, false);
            int before = 0;
            for (std::int64_t stored = -2147483648LL; stored < 2147483648LL; stored += 9999991) {
                const int grey = lookup(static_cast<std::int32_t>(stored));
                EXPECT_GE(grey, before);
                before = grey;
            }
        }
    }
}

TEST(SkyMap, ThereAndBackIsTheSamePixelAndTheSolvesOwnProjection) {
    Random random(2);
    for (const Solved& field : Fields()) {
        const SkyMap map = field.Map();
        Projection plane;
        plane.SetProjectionCentre({field.Header.RaRef, field.Header.DecRef}, 206264.81);
        const auto& rows = field.Header.PlateTransform;
        for (int trial = 0; trial < 200; ++trial) {
            const PixelPoint pixel{random.Between(-0.5, field.Width - 0.5),
                                   random.Between(-0.5, field.Height - 0.5)};
            const auto sky = map.SkyOf(pixel);
            ASSERT_TRUE(sky || rows[0][0] * rows[0][0] + rows[0][1] * rows[0][1] < 1e-4);
            if (!sky) continue;
            const auto back = map.PixelOf(*sky);
            ASSERT_TRUE(back);
            EXPECT_LT(Apart(*back, pixel), 1e-6);
            double xi = 0;
            double eta = 0;
            EXPECT_GE(plane.SkyToPlane(*sky, xi, eta), 0);
            EXPECT_LT(Apart(*back, {rows[0][0] * xi + rows[0][1] * eta + rows[0][2],
                                    rows[1][0] * xi + rows[1][1] * eta + rows[1][2]}),
                      1e-6);
            const SkyPosition theirs = plane.PlaneToSky(xi, eta);
            EXPECT_LT(SkyDistance(*sky, theirs), 0.0003 * arcsecond);
            EXPECT_TRUE(sky->Ra >= 0 && sky->Ra <= 2 * pi);
        }
        const SkyPosition opposite{field.Header.RaRef + pi, -field.Header.DecRef};
        EXPECT_FALSE(map.PixelOf(opposite));
    }
}

TEST(SkyMap, TheCompassPointsWhereAStepNorthAndEastLeads) {
    Random random(3);
    for (const Solved& field : Fields()) {
        const SkyMap map = field.Map();
        for (int trial = 0; trial < 20; ++trial) {
            const PixelPoint pixel{random.Between(0, field.Width), random.Between(0, field.Height)};
            const auto sky = map.SkyOf(pixel);
            const double step = 1e-5;
            // Skips places where the step is not small compared with the distance to a pole or to
            // the rim.
            if (!sky || std::cos(sky->Dec) < 100 * step) continue;
            const double aside = step / std::cos(sky->Dec);
            const auto expectAlong = [](const PixelPoint& direction,
                                        const std::optional<PixelPoint>& from,
                                        const std::optional<PixelPoint>& to) {
                if (!from || !to) return;
                EXPECT_NEAR(direction.X, (to->X - from->X) / Apart(*to, *from), 1e-3);
                EXPECT_NEAR(direction.Y, (to->Y - from->Y) / Apart(*to, *from), 1e-3);
            };
            const auto compass = map.CompassAt(pixel);
            ASSERT_TRUE(compass);
            expectAlong(compass->North, map.PixelOf({sky->Ra, sky->Dec - step}),
                        map.PixelOf({sky->Ra, sky->Dec + step}));
            expectAlong(compass->East, map.PixelOf({sky->Ra - aside, sky->Dec}),
                        map.PixelOf({sky->Ra + aside, sky->Dec}));
        }
    }
    // At the very pole there are still two directions at right angles.
    Solved pole(1, pi / 2, 2, 0.3, true);
    const auto compass = pole.Map().CompassAt({0.4 * pole.Width, 0.7 * pole.Height});
    ASSERT_TRUE(compass);
    EXPECT_NEAR(compass->North.X * compass->East.X + compass->North.Y * compass->East.Y, 0, 0.03);
}

TEST(SkyGrid, LinesLieOnTheirAnglesAndNoneIsMissing) {
    Random random(5);
    int poles = 0;
    for (const Solved& field : Fields()) {
        const SkyMap map = field.Map();
        const SkyGrid grid = MakeSkyGrid(map, field.Width, field.Height);
        std::set<std::pair<bool, std::string>> labels;
        std::map<std::pair<bool, std::int64_t>, const GridLine*> lines;
        int kinds[2] = {};
        const auto numberOf = [&](bool meridian, double angle) {
            return std::llround(angle / (meridian ? grid.RaStep : grid.DecStep));
        };
        for (const GridLine& line : grid.Lines) {
            ++kinds[line.IsMeridian];
            EXPECT_TRUE(labels.emplace(line.IsMeridian, line.Label).second) << line.Label;
            lines[{line.IsMeridian, numberOf(line.IsMeridian, line.Angle)}] = &line;
            std::size_t vertices = 0;
            bool labelOnLine = false;
            for (const auto& piece : line.Pieces) {
                vertices += piece.size();
                ASSERT_FALSE(piece.empty());
                for (const PixelPoint& pixel : piece) {
                    ASSERT_TRUE(pixel.X >= -0.5 && pixel.X <= field.Width - 0.5 &&
                                pixel.Y >= -0.5 && pixel.Y <= field.Height - 0.5);
                    labelOnLine |= Apart(pixel, line.LabelPlace) == 0;
                    const auto sky = map.SkyOf(pixel);
                    const auto there = sky ? map.PixelOf({line.IsMeridian ? line.Angle : sky->Ra,
                                                          line.IsMeridian ? sky->Dec : line.Angle})
                                           : std::nullopt;
                    ASSERT_TRUE(there) << line.Label;
                    EXPECT_LT(Apart(*there, pixel), 1e-5) << line.Label;
                }
            }
            EXPECT_LE(vertices, static_cast<std::size_t>(MostLineVertices));
            EXPECT_TRUE(labelOnLine);
        }
        EXPECT_LE(std::max(kinds[0], kinds[1]), MostGridLines);
        EXPECT_GE(std::min(kinds[0], kinds[1]), 2) << field.Header.RaRef;
        for (const double dec : {-pi / 2, pi / 2}) {
            const auto pole = map.PixelOf({0, dec});
            if (!pole || pole->X < 0 || pole->Y < 0 || pole->X > field.Width - 1 ||
                pole->Y > field.Height - 1) {
                continue;
            }
            EXPECT_LT(grid.RaStep, 0.53);  // two hours: as many go all around it as across a field
            ++poles;
        }

        // There is a line wherever its angle occurs in the image.
        int looked = 0;
        for (int trial = 0; trial < 300; ++trial) {
            const auto sky =
                map.SkyOf({random.Between(0, field.Width), random.Between(0, field.Height)});
            if (!sky || std::fabs(sky->Dec) > pi / 2 - 1.01 * grid.DecStep) continue;
            for (const bool meridian : {false, true}) {
                std::int64_t number = numberOf(meridian, meridian ? sky->Ra : sky->Dec);
                const double angle =
                    static_cast<double>(number) * (meridian ? grid.RaStep : grid.DecStep);
                const auto pixel =
                    map.PixelOf({meridian ? angle : sky->Ra, meridian ? sky->Dec : angle});
                if (!pixel || pixel->X < 20 || pixel->Y < 20 || pixel->X > field.Width - 20 ||
                    pixel->Y > field.Height - 20) {
                    continue;
                }
                if (meridian) number %= std::llround(2 * pi / grid.RaStep);
                const auto found = lines.find({meridian, number});
                ASSERT_NE(found, lines.end()) << meridian << " " << angle;
                double nearest = 1e9;
                for (const auto& piece : found->second->Pieces) {
                    nearest = std::min(nearest, DistanceFromPiece(*pixel, piece));
                }
                EXPECT_LT(nearest, 1) << found->second->Label;
                ++looked;
            }
        }
        EXPECT_GT(looked, 20);
    }
    EXPECT_GT(poles, 0);
}

TEST(SkyGrid, LabelsHaveTheDigitsOfTheStep) {
    const std::string degree = "\xC2\xB0";
    const std::pair<double, std::vector<std::string>> cases[] = {
        {40, {"23h45m", "00h00m", "00h15m", "00" + degree, "-02" + degree}},
        {0.5, {"23h59m50s", "00h00m10s", "-00" + degree + "02'", "00" + degree + "00'"}},
        {0.001, {"23h59m59.98s", "00h00m00.00s", "00" + degree + "00'00.4\""}}};
    for (const auto& [scale, wanted] : cases) {
        const Solved field(0, 0, scale, 0, false);
        std::set<std::string> labels;
        for (const GridLine& line : MakeSkyGrid(field.Map(), 1500, 1000).Lines) {
            labels.insert(line.Label);
        }
        for (const std::string& label : wanted) {
            EXPECT_TRUE(labels.contains(label)) << label << testing::PrintToString(labels);
        }
    }
}

TEST(SkyOverlay, HostileSolutionsGiveNothingOrBoundedLines) {
    Random random(13);
    const double wild[] = {0,    1,   -1,       1e-300,   1e300,        5e-324, HUGE_VAL,
                           1e-9, 1e9, 206264.8, 1.570796, std::nan(""), 0.5,    -1e4};
    int maps = 0;
    for (int trial = 0; trial < 4000; ++trial) {
        Solved field(1, 1, 2, 0.1, false);
        const auto spoil = [&](double& value) {
            if (random.Whole(0, 3) == 0) value = wild[random.Whole(0, 13)];
        };
        for (auto& row : field.Header.PlateTransform) {
            for (double& value : row) spoil(value);
        }
        spoil(field.Header.PlateScale);
        spoil(field.Header.RaRef);
        spoil(field.Header.DecRef);
        const auto map = SkyMap::Of(field.Header);
        if (!map) continue;
        ++maps;
        const std::int32_t width = random.Whole(0, 3) == 0 ? 0 : 700;
        for (const GridLine& line : MakeSkyGrid(*map, width, 500, random.Whole(-5, 50)).Lines) {
            std::size_t vertices = 0;
            for (const auto& piece : line.Pieces) vertices += piece.size();
            ASSERT_LE(vertices, static_cast<std::size_t>(MostLineVertices));
        }
        const auto compass = map->CompassAt({350, 250});
        EXPECT_NEAR(compass ? std::hypot(compass->North.X, compass->North.Y) : 1, 1, 1e-9);
        const auto bar = ScaleBarFor(*map, 150);
        EXPECT_TRUE(!bar || (bar->Pixels > 0 && bar->Pixels <= 150));
    }
    EXPECT_GT(maps, 300);
    EXPECT_FALSE(SkyMap::Of(ImageHeader()));
}

TEST(SkyOverlay, ScaleBarsAreRoundAndAsLongAsTheySay) {
    for (int k = 0; k < 50; ++k) {
        const double scale = 0.0001 * std::pow(1.4, k);
        const Solved field(1, 0.3, scale, 0.2, false);
        const SkyMap map = field.Map();
        const auto bar = ScaleBarFor(map, 300);
        ASSERT_TRUE(bar) << scale;
        // It is the longest round length that fits: the next one is 2.5 times as long at most.
        EXPECT_LE(bar->Pixels, 300);
        EXPECT_TRUE(bar->Pixels > 300 / 2.6 || bar->Text == "45\xC2\xB0") << scale << bar->Text;
        // The 1.02 is this plate's stretch.
        EXPECT_NEAR(bar->Pixels * scale / bar->Arcseconds, std::sqrt(1.02), 0.001);
        const double number = std::stod(bar->Text);
        const double unit = bar->Text.back() == '"' ? 1 : bar->Text.back() == '\'' ? 60 : 3600;
        EXPECT_DOUBLE_EQ(number * unit, bar->Arcseconds);
    }
}

TEST(SkyOverlay, NoCatalogStarIsNearerThanTheNearest) {
    Random random(15);
    const Solved field(0, 1.2, 3, 0.4, true);
    const SkyMap map = field.Map();
    PlateStarList stars;
    stars.Resize(49);
    for (PlateStar& star : stars) {
        star.X = static_cast<float>(random.Between(0, 1500));
        star.Y = static_cast<float>(random.Between(0, 1000));
        const auto sky = map.SkyOf({star.X, star.Y});
        star.Ra = sky->Ra;
        star.Dec = sky->Dec;
    }
    for (int trial = 0; trial < 50; ++trial) {
        const PixelPoint pixel{random.Between(0, 1500), random.Between(0, 1000)};
        const auto nearest = NearestCatalogStar(map, stars, pixel);
        ASSERT_TRUE(nearest && stars.Has(nearest->Index));
        const PlateStar& found = stars[nearest->Index];
        EXPECT_NEAR(nearest->Distance, std::hypot(found.X - pixel.X, found.Y - pixel.Y), 1e-6);
        for (const PlateStar& star : stars) {
            EXPECT_GE(std::hypot(star.X - pixel.X, star.Y - pixel.Y), nearest->Distance - 1e-6);
        }
    }
    const PlateStarList far = {{0, 0, 0, pi, -1.2}};
    EXPECT_FALSE(NearestCatalogStar(map, far, {0, 0}));
}

}  // namespace vestrel
