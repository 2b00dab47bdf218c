// What the image window computes before it paints: the view, the picture pyramid, the readout.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <utility>

#include "astro/libConversions.h"
#include "display/libPictureView.h"
#include "display/libPlot.h"
#include "display/libReadout.h"
#include "display/libViewGeometry.h"
#include "program/mImageView.h"
#include "tests/testSupport.h"

namespace vestrel {
namespace {

PlateImage ImageOf(int width, int height, ImageType type, std::int16_t bitPix) {
    PlateImage image;
    image.Width = width;
    image.Height = height;
    image.ImageType = type;
    image.Header.BitPix = bitPix;
    image.Pixels = PixelGrid(Grid<std::int32_t>(width, height));
    return image;
}

struct Painted {
    std::vector<std::uint8_t> Pixels;
    int Width;
    std::uint8_t operator()(int x, int y) const {
        return Pixels[static_cast<std::size_t>(y) * static_cast<std::size_t>(Width) +
                      static_cast<std::size_t>(x)];
    }
};

Painted Paint(const PicturePyramid& pyramid, const ViewGeometry& view, int width, int height,
              double pixelRatio = 1) {
    Painted painted{std::vector<std::uint8_t>(static_cast<std::size_t>(width) *
                                              static_cast<std::size_t>(height)),
                    width};
    PaintView(pyramid, view, pixelRatio,
              {painted.Pixels, width, height, static_cast<std::size_t>(width)});
    return painted;
}

const GreyLookup plainGrey({0, 255}, 0, Transfer::Linear, false);

}  // namespace

TEST(View, PixelsAndWindowAgreeBothWaysAndZoomKeepsWhatIsUnderThePointer) {
    Random random(3);
    for (int round = 0; round < 500; ++round) {
        ViewGeometry view;
        const int width = random.Whole(1, 5000);
        const int height = random.Whole(1, 5000);
        view.SetWindow(random.Between(200, 1500), random.Between(150, 900));
        view.SetImage(width, height, random.Whole(0, 1) == 1, random.Whole(1, 8));
        view.Flip(random.Whole(0, 1) == 1, random.Whole(0, 1) == 1);
        EXPECT_TRUE(view.Fitted());
        const PixelRectangle whole = view.Visible();
        const PixelPoint there = {random.Between(-9, 9), random.Between(-9, 9)};
        const ScreenPoint start = view.ScreenOf({5, 6});
        const ScreenPoint end = view.ScreenOf({5 + there.X, 6 + there.Y});
        const ScreenPoint direction = view.DirectionOnScreen(there);
        EXPECT_NEAR(end.X - start.X, direction.X * view.Scale(), 1e-6);
        EXPECT_NEAR(end.Y - start.Y, direction.Y * view.Scale(), 1e-6);
        EXPECT_NEAR(whole.Width, width, 1e-6);
        EXPECT_NEAR(whole.Height, height, 1e-6);

        // Zooming in about a point of the image keeps that point, and zooming out again restores
        // the view.
        const ScreenPoint about = view.ScreenOf(
            {random.Between(0, width - 1) * 0.999, random.Between(0, height - 1) * 0.999});
        const PixelPoint under = view.PixelAt(about);
        const double before = view.Scale();
        const double steps = random.Between(0, std::max(0.0, 2 * std::log2(64 / before)));
        view.ZoomBy(steps, about);
        EXPECT_NEAR(view.Scale(), std::max(before * std::exp2(steps / 2), before), 1e-9 * 64);
        const ScreenPoint still = view.ScreenOf(under);
        EXPECT_NEAR(still.X, about.X, 1e-6);
        EXPECT_NEAR(still.Y, about.Y, 1e-6);
        const PixelPoint back = view.PixelAt(view.ScreenOf({12.25, -7.5}));
        EXPECT_NEAR(back.X, 12.25, 1e-9 * (1 + width));
        EXPECT_NEAR(back.Y, -7.5, 1e-9 * (1 + height));

        // Dragging moves the pixels until the image would leave the middle.
        const PixelPoint middle = view.PixelAt(view.Middle());
        view.Pan(3, -2);
        const ScreenPoint moved = view.ScreenOf(middle);
        const PixelPoint now = view.PixelAt(view.Middle());
        const bool atBorder =
            now.X <= -0.5 || now.Y <= -0.5 || now.X >= width - 0.5 || now.Y >= height - 0.5;
        if (!atBorder) {
            EXPECT_NEAR(moved.X, view.Middle().X + 3, 1e-6);
            EXPECT_NEAR(moved.Y, view.Middle().Y - 2, 1e-6);
        }
        view.Pan(1e7, 1e7);
        EXPECT_GT(view.Visible().Width, 0);
        EXPECT_GT(view.Visible().Height, 0);
    }
}

TEST(View, AViewKnowsByHowMuchItWasMovedAndWhenItChangedOtherwise) {
    Random random(8);
    for (int round = 0; round < 200; ++round) {
        ViewGeometry view;
        view.SetWindow(random.Between(200, 1500), random.Between(150, 900));
        view.SetImage(random.Whole(50, 5000), random.Whole(50, 5000), random.Whole(0, 1) == 1,
                      random.Whole(1, 8));
        view.Flip(random.Whole(0, 1) == 1, random.Whole(0, 1) == 1);
        view.ZoomTo(random.Between(0.1, 5), view.Middle());
        ViewGeometry dragged = view;
        dragged.Pan(random.Between(-300, 300), random.Between(-300, 300));
        const auto moved = dragged.MovedFrom(view);
        ASSERT_TRUE(moved);
        // Every pixel has moved like that, also where the image ended the movement.
        const PixelPoint pixel = {random.Between(-99, 6000), random.Between(-99, 6000)};
        const ScreenPoint before = view.ScreenOf(pixel);
        const ScreenPoint after = dragged.ScreenOf(pixel);
        EXPECT_NEAR(after.X - before.X, moved->X, 1e-7);
        EXPECT_NEAR(after.Y - before.Y, moved->Y, 1e-7);
        ViewGeometry zoomed = view;
        zoomed.ZoomBy(view.Scale() < 10 ? 0.1 : -0.1, view.Middle());
        EXPECT_FALSE(zoomed.MovedFrom(view));
        ViewGeometry resized = view;
        resized.SetWindow(333, 222);
        EXPECT_FALSE(resized.MovedFrom(view));
    }
    ViewGeometry upright;
    upright.SetImage(300, 200, true);
    ViewGeometry flipped = upright;
    flipped.Flip(true, false);
    EXPECT_FALSE(flipped.MovedFrom(upright));
    ViewGeometry turned;
    turned.SetImage(300, 200, true, 3);
    EXPECT_FALSE(turned.MovedFrom(upright));
}

TEST(Picture, StandsUprightAndFlipsOnlyForDisplay) {
    for (const auto& [type, bitPix, firstRowAtTop] : {std::tuple{ImageType::Jpeg, 0, true},
                                                      {ImageType::Sbig, 16, true},
                                                      {ImageType::Fits, -32, true},
                                                      {ImageType::Fits, 16, false}}) {
        PlateImage image = ImageOf(6, 4, type, static_cast<std::int16_t>(bitPix));
        image.Pixels.Wide()(1, 0) = 200;
        PicturePyramid pyramid;
        pyramid.Build(image, plainGrey);
        for (const auto& [leftRight, upDown] :
             {std::pair{false, false}, {true, false}, {false, true}, {true, true}}) {
            ViewGeometry view;
            view.SetWindow(6, 4);
            view.SetImage(6, 4, FirstRowAtTop(image));
            view.Flip(leftRight, upDown);
            const Painted painted = Paint(pyramid, view, 6, 4);
            const int x = leftRight ? 4 : 1;
            const int y = firstRowAtTop != upDown ? 0 : 3;
            EXPECT_EQ(painted(x, y), 200)
                << static_cast<int>(type) << bitPix << leftRight << upDown;
            EXPECT_EQ(std::count(painted.Pixels.begin(), painted.Pixels.end(), 0), 23);
        }
    }
}

// Each orientation as the matrix operations with which other programs turn pictures.
TEST(Picture, IsTurnedAsTheCameraWantsIt) {
    using Matrix = std::vector<std::vector<int>>;
    const auto transposed = [](const Matrix& from) {
        Matrix to(from[0].size(), std::vector<int>(from.size()));
        for (std::size_t y = 0; y < from.size(); ++y) {
            for (std::size_t x = 0; x < from[0].size(); ++x) to[x][y] = from[y][x];
        }
        return to;
    };
    const auto upsideDown = [](Matrix matrix) {
        std::reverse(matrix.begin(), matrix.end());
        return matrix;
    };
    const auto leftRight = [](Matrix matrix) {
        for (auto& row : matrix) std::reverse(row.begin(), row.end());
        return matrix;
    };
    PlateImage image = ImageOf(6, 4, ImageType::Jpeg, 0);
    Matrix stored(4, std::vector<int>(6));
    for (int y = 0; y < 4; ++y) {
        for (int x = 0; x < 6; ++x) {
            image.Pixels.Wide()(x, y) =
                stored[static_cast<std::size_t>(y)][static_cast<std::size_t>(x)] = 10 * y + x + 100;
        }
    }
    PicturePyramid pyramid;
    pyramid.Build(image, plainGrey);
    const Matrix wanted[] = {stored,
                             leftRight(stored),
                             upsideDown(leftRight(stored)),
                             upsideDown(stored),
                             transposed(stored),
                             leftRight(transposed(stored)),
                             upsideDown(leftRight(transposed(stored))),
                             upsideDown(transposed(stored))};
    for (int orientation = 1; orientation <= 8; ++orientation) {
        image.Orientation = orientation;
        const ShownSize size = ShownSizeOf(image);
        ViewGeometry view;
        view.SetWindow(size.Width, size.Height);
        view.SetImage(image);
        EXPECT_EQ(view.Scale(), 1);
        const Painted painted = Paint(pyramid, view, size.Width, size.Height);
        const Matrix& shown = wanted[orientation - 1];
        ASSERT_EQ(shown.size(), static_cast<std::size_t>(size.Height));
        for (int y = 0; y < size.Height; ++y) {
            for (int x = 0; x < size.Width; ++x) {
                const int value = shown[static_cast<std::size_t>(y)][static_cast<std::size_t>(x)];
                EXPECT_EQ(painted(x, y), value) << orientation << ": " << x << ", " << y;
                const PixelPoint pixel = view.PixelAt({x + 0.5, y + 0.5});
                EXPECT_EQ(10 * pixel.Y + pixel.X + 100, value) << orientation;
            }
        }
    }
}

TEST(Picture, ShowsWhatThePlainMeanOfTheImageGivesAtEveryScale) {
    Random random(5);
    PlateImage image = ImageOf(301, 203, ImageType::Jpeg, 0);
    for (int y = 0; y < image.Height; ++y) {
        for (int x = 0; x < image.Width; ++x) {
            image.Pixels.Wide()(x, y) = static_cast<std::int32_t>(120 + 0.2 * x + 0.3 * y);
        }
    }
    PicturePyramid pyramid;
    pyramid.Build(image, plainGrey);
    EXPECT_EQ(pyramid.Levels().back().Pixels.size(), 1u);
    for (const double scale : {0.04, 0.11, 0.25, 0.3, 0.49, 0.5, 0.75, 1.0, 1.7, 3.0}) {
        ViewGeometry view;
        view.SetWindow(120, 90);
        view.SetImage(image.Width, image.Height, true, random.Whole(1, 8));
        view.ZoomTo(scale, {70, 20});
        for (const int ratio : {1, 2}) {
            const Painted painted = Paint(pyramid, view, 120 * ratio, 90 * ratio, ratio);
            for (int j = 0; j < 90 * ratio; ++j) {
                for (int i = 0; i < 120 * ratio; ++i) {
                    const PixelPoint at = view.PixelAt({(i + 0.5) / ratio, (j + 0.5) / ratio});
                    // The outermost cells keep their mean up to the border.
                    const double margin = 0.6 / scale;
                    if (view.OnImage(at)) {
                        const double inX = std::clamp(at.X, margin, image.Width - 1 - margin);
                        const double inY = std::clamp(at.Y, margin, image.Height - 1 - margin);
                        const double slack = std::fabs(inX - at.X) + std::fabs(inY - at.Y);
                        ASSERT_NEAR(painted(i, j), 119.5 + 0.2 * inX + 0.3 * inY, 1.9 + slack)
                            << scale << " " << i << " " << j;
                    } else {
                        ASSERT_EQ(painted(i, j), GreyOutsideImage);
                    }
                }
            }
        }
    }
    // At 1:1 each pixel is shown once, wherever the image is.
    for (auto& pixel : image.Pixels.Wide().Row(100)) pixel = random.Whole(0, 255);
    pyramid.Build(image, plainGrey);
    ViewGeometry view;
    view.SetWindow(200, 150);
    view.SetImage(image.Width, image.Height, true);
    view.ZoomTo(1, view.Middle());
    view.Pan(-7, 12);
    const Painted painted = Paint(pyramid, view, 200, 150);
    // Window pixels that lie half on each of two pixels show the later one.
    const auto shownAt = [](double at) { return static_cast<int>(std::floor(at + 0.5 + 1e-6)); };
    int row = 0;
    while (shownAt(view.PixelAt({0, row + 0.5}).Y) != 100) ++row;
    const int left = shownAt(view.PixelAt({0.5, 0}).X);
    for (int i = 0; i < 200; ++i) {
        EXPECT_EQ(painted(i, row), image.Pixels(left + i, 100)) << i;
    }
    for (const auto& [width, height] : {std::pair{0, 0}, {3, 0}}) {
        pyramid.Build(ImageOf(width, height, ImageType::Fits, 16), plainGrey);
        EXPECT_TRUE(pyramid.Empty());
        EXPECT_EQ(Paint(pyramid, view, 2, 1).Pixels,
                  std::vector<std::uint8_t>(2, GreyOutsideImage));
    }
}

TEST(DraggedPicture, HasThePixelsOfAPlainPaintingAndPaintsOnlyWhatComesIntoView) {
    Random random(21);
    PlateImage image = ImageOf(317, 211, ImageType::Jpeg, 0);
    const auto noise = [&](PicturePyramid& picture) {
        for (int y = 0; y < image.Height; ++y) {
            for (auto& pixel : image.Pixels.Wide().Row(y)) pixel = random.Whole(0, 255);
        }
        picture.Build(image, plainGrey);
    };
    PicturePyramid picture;
    PicturePyramid other;
    noise(picture);
    noise(other);
    DraggedView dragged;
    int least = 0;
    for (int round = 0; round < 60; ++round) {
        ViewGeometry view;
        const int width = random.Whole(90, 130);
        const int height = random.Whole(60, 90);
        const double ratio = random.Whole(2, 4) / 2.0;
        view.SetWindow(width, height);
        view.SetImage(image.Width, image.Height, random.Whole(0, 1) == 1, random.Whole(1, 8));
        view.Flip(random.Whole(0, 1) == 1, random.Whole(0, 1) == 1);
        // Also scales at which every coordinate lies on a border of pixels.
        view.ZoomTo(round % 2 == 0 ? random.Between(0.2, 3) : std::exp2(random.Whole(-2, 2)),
                    view.Middle());
        const int columns = static_cast<int>(width * ratio);
        const int rows = static_cast<int>(height * ratio);
        for (int step = 0; step < 12; ++step) {
            const bool byPixels = step != 0 && step != 5 && step != 8;
            const int reach = step % 4 == 3 ? 300 : 7;
            view.Pan(random.Whole(-reach, reach) / ratio, random.Whole(-reach, reach) / ratio);
            if (step == 5) view.Pan(random.Between(-3, 3), random.Between(-3, 3));
            if (step == 8 && round % 3 == 0) view.Flip(step % 2 == 0, round % 2 == 0);
            if (step == 8 && round % 3 == 1) noise(picture);  // in the same memory
            if (step == 8 && round % 3 == 2) std::swap(picture, other);
            const auto shown = dragged.Paint(picture, view, ratio, columns, rows);
            const Painted anew = Paint(picture, view, columns, rows, ratio);
            ASSERT_TRUE(
                std::equal(shown.begin(), shown.end(), anew.Pixels.begin(), anew.Pixels.end()))
                << round << " " << step;
            const auto all = static_cast<std::int64_t>(anew.Pixels.size());
            EXPECT_LE(dragged.Painted(), all);
            if (byPixels && reach == 7) {
                least += dragged.Painted() <= 7 * (columns + rows) ? 1 : 0;
            }
            dragged.Paint(picture, view, ratio, columns, rows);
            EXPECT_EQ(dragged.Painted(), 0);
        }
    }
    // Where the movement ends at the image it ends within a pixel, and all is painted.
    EXPECT_GT(least, 60);

    ViewGeometry view;
    view.SetWindow(20, 10);
    view.SetImage(image.Width, image.Height, true);
    picture.Clear();
    const auto shown = dragged.Paint(picture, view, 1, 20, 10);
    EXPECT_EQ(std::count(shown.begin(), shown.end(), GreyOutsideImage), 200);
    noise(picture);
    dragged.Paint(picture, view, 1, 20, 10);
    EXPECT_EQ(dragged.Painted(), 200);
}

TEST(Readout, NamesPixelCountAndSkyAndNothingOffTheImage) {
    PlateImage image = ImageOf(10, 8, ImageType::Fits, 16);
    image.DataOffset = 32768;
    image.Pixels.Wide()(3, 7) = -32768 + 1234;
    image.Header.PlateMatched = true;
    image.Header.PlateScale = 206264.8062;
    image.Header.RaRef = 1;
    image.Header.DecRef = -0.5;
    const double rows[2][3] = {{0.5, 0, 3}, {0, 0.5, 7}};
    std::copy_n(&rows[0][0], 6, &image.Header.PlateTransform[0][0]);
    const auto map = SkyMap::Of(image.Header);
    const Readout there = ReadoutAt(image, map, {3, 7});
    EXPECT_EQ(there.Pixel, "x 3.0  y 7.0");
    EXPECT_EQ(there.Count, "1234");
    EXPECT_EQ(there.Sky, FormatRA(1, true, 2) + "  " + FormatDec(-0.5, true, 1));
    EXPECT_EQ(ReadoutAt(image, map, {2.51, 6.51}).Count, "1234");
    EXPECT_EQ(ReadoutAt(image, {}, {2.49, 7}).Count, "32768");
    EXPECT_EQ(ReadoutAt(image, {}, {3, 7}).Sky, "");
    for (const PixelPoint& outside : {PixelPoint{-0.6, 3}, {3, 7.6}, {9.6, 0}, {NAN, 2}}) {
        EXPECT_EQ(ReadoutAt(image, map, outside).Pixel, "");
    }
}

TEST(Readout, GridOfAPartLiesOnTheGridOfTheSky) {
    ImageHeader header;
    header.PlateMatched = true;
    header.PlateScale = 206264.8062;
    header.RaRef = 1.2;
    header.DecRef = 0.8;
    const double rows[2][3] = {{0.4, 0.3, 1500}, {0.3, -0.4, 1000}};
    std::copy_n(&rows[0][0], 6, &header.PlateTransform[0][0]);
    const auto map = SkyMap::Of(header);
    const PixelRectangle part{800.25, 1200.5, 90, 60};
    const SkyGrid grid = GridOver(map, part);
    int vertices = 0;
    for (const GridLine& line : grid.Lines) {
        for (const auto& piece : line.Pieces) {
            for (const PixelPoint& vertex : piece) {
                const auto sky = map->SkyOf(vertex);
                ASSERT_TRUE(sky);
                EXPECT_NEAR(line.IsMeridian ? sky->Ra : sky->Dec, line.Angle, 1e-9);
                EXPECT_NEAR(vertex.X, part.Left + part.Width / 2, part.Width / 2 + 2);
                EXPECT_NEAR(vertex.Y, part.First + part.Height / 2, part.Height / 2 + 2);
                ++vertices;
            }
        }
    }
    EXPECT_GT(grid.Lines.size(), 3u);
    EXPECT_GT(vertices, 8);
    EXPECT_TRUE(GridOver(map, {}).Lines.empty());
}

TEST(Plot, AxesGoBothWaysAndTicksAreRoundAndFew) {
    Random random(11);
    for (int round = 0; round < 300; ++round) {
        const double low = random.Between(-1e5, 1e5);
        const double high = low + std::pow(10, random.Between(-3, 6));
        const PlotAxis axis{low, high, 300, 20};  // as for heights: values rise toward pixel 20
        const double value = random.Between(low, high);
        EXPECT_NEAR(axis.ValueAt(axis.PlaceOf(value)), value, 1e-9 * (high - low) + 1e-9);
        EXPECT_EQ(axis.PlaceOf(high + 1), 20);
        const CountLevels span{low, high};
        const int position = random.Whole(0, SliderSteps);
        EXPECT_EQ(SliderPosition(span, SliderCount(span, position)), position);

        const std::vector<double> ticks = RoundTicks(low, high, 6);
        ASSERT_GE(ticks.size(), 1u);
        ASSERT_LE(ticks.size(), 6u);
        EXPECT_GE(ticks.front(), low - 1e-6 * (high - low));
        EXPECT_LE(ticks.back(), high + 1e-6 * (high - low));
        for (std::size_t k = 1; k < ticks.size(); ++k) {
            const double step = ticks[k] - ticks[k - 1];
            const double digit = step / std::pow(10, std::floor(std::log10(step * 1.0001)));
            EXPECT_LT(std::min({std::fabs(digit - 1), std::fabs(digit - 2), std::fabs(digit - 5)}),
                      1e-3);
        }
    }
    EXPECT_TRUE(RoundTicks(3, 3, 5).empty());
    EXPECT_TRUE(RoundTicks(0, INFINITY, 5).empty());
}

TEST(Plot, HistogramColumnsShareTheirPixelsOutAndShowBothLevels) {
    const ImageHistogram histogram{10, 17, 2, {4, 0, 12, 8}, 24};
    // Bins of 2 counts from 9.5 on, in columns of 1: half of each bin.
    const std::vector<double> columns = HistogramColumns(histogram, {8.5, 18.5}, 10, false);
    const std::vector<double> expected = {0, 1, 1, 0, 0, 3, 3, 2, 2, 0};
    for (std::size_t k = 0; k < columns.size(); ++k) {
        EXPECT_NEAR(columns[k], expected[k] / 3, 1e-12) << k;
    }
    EXPECT_NEAR(HistogramColumns(histogram, {8.5, 18.5}, 5, true)[3], 1, 1e-12);
    const CountLevels span = HistogramSpan(histogram, {-50, 4000});
    EXPECT_LE(span.Black, -50);
    EXPECT_GE(span.White, 4000);
    EXPECT_EQ(HistogramColumns({}, {0, 0}, 3, true), std::vector<double>(3, 0));
    for (const double beta : {0.0, 2.5}) {
        EXPECT_NEAR(ProfileValue({true, 0, 0, 100, 4, beta, 0}, 2), 50, 1e-9);
    }
}

TEST(PicturePyramid, IsTheSameForCellsOfEitherWidth) {
    Random random(8);
    PlateImage wide = EmptyImage(77, 45, 32768);
    PlateImage narrow = EmptyImage(77, 45, 32768);
    narrow.Pixels = PixelGrid::Narrow(77, 45, -32768);
    for (int y = 0; y < 45; ++y) {
        const auto row = wide.Pixels.Wide().Row(y).first(77);
        for (auto& pixel : row) {
            pixel = random.Whole(0, 9) == 0 ? random.Whole(-32768, 32767) : random.Whole(-9000, 0);
        }
        narrow.Pixels.Store(0, y, row);
    }
    const ImageHistogram histogram = MakeImageHistogram(wide);
    EXPECT_EQ(MakeImageHistogram(narrow).Bins, histogram.Bins);
    const GreyLookup grey(LevelsFromHistogram(histogram), 32768, Transfer::Asinh, false);
    PicturePyramid one;
    PicturePyramid other;
    for (const bool forScreen : {false, true}) {
        for (const auto& [pyramid, image] : {std::pair(&one, &wide), std::pair(&other, &narrow)}) {
            if (forScreen) {
                pyramid->BuildForScreen(*image, false);
            } else {
                pyramid->Build(*image, grey);
            }
        }
        for (std::size_t k = 0; k < one.Levels().size(); ++k) {
            ASSERT_EQ(one.Levels()[k].Pixels, other.Levels()[k].Pixels) << k << forScreen;
        }
    }
}

TEST(PicturePyramid, TheScreenStretchShowsWhatOnlyTheMeanOfManyPixelsHolds) {
    // A glow far below the noise of a pixel.
    constexpr int size = 512;
    PlateImage image = EmptyImage(size, size, 0);
    Random random(5);
    for (int y = 0; y < size; ++y) {
        for (int x = 0; x < size; ++x) {
            const bool glow = x >= 256 && x < 320 && y >= 128 && y < 192;
            image.Pixels.Wide()(x, y) =
                static_cast<std::int32_t>(std::lround(1000 + random.Normal(20) + (glow ? 10 : 0)));
        }
    }
    const auto contrast = [](const PicturePyramid& pyramid) {
        const GreyLevel& level = pyramid.Levels()[4];  // of 32 x 32 pixels
        const auto mean = [&](int left, int top) {
            int sum = 0;
            for (int y = top; y < top + 4; ++y) {
                for (int x = left; x < left + 4; ++x) {
                    sum += level.Pixels[static_cast<std::size_t>(y * level.Width + x)];
                }
            }
            return sum / 16;
        };
        return mean(16, 8) - mean(4, 20);
    };
    PicturePyramid pyramid;
    const CountLevels levels = LevelsFromHistogram(MakeImageHistogram(image));
    pyramid.Build(image, {levels, image.DataOffset, Transfer::Linear, false});
    EXPECT_LT(std::abs(contrast(pyramid)), 20);
    pyramid.BuildForScreen(image, false);
    const int seen = contrast(pyramid);
    EXPECT_GT(seen, 60);
    pyramid.BuildForScreen(image, true);
    EXPECT_NEAR(contrast(pyramid), -seen, 2);
}

}  // namespace vestrel
