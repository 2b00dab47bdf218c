// The windows around the image, driven by mouse and keyboard on a platform without a screen.

#include <QCheckBox>
#include <QClipboard>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QMouseEvent>
#include <QPainter>
#include <QPlainTextEdit>
#include <QSlider>
#include <QSpinBox>
#include <QTableWidget>
#include <QWheelEvent>
#include <cmath>
#include <map>
#include <set>

#include "astro/libConversions.h"
#include "astro/libMath.h"
#include "desktop/fAnnotation.h"
#include "desktop/fPictureArea.h"
#include "desktop/libGraphics.h"
#include "display/libPlot.h"
#include "display/libSkyOverlay.h"
#include "tests/desktopSupport.h"

namespace vestrel {
namespace {

class ViewerWindows : public Windows {
 protected:
    void OpenAll() {
        Window->OpenFile(Frame);
        Choose("Show Image");
        Image = WindowNamed("fImage");
        ASSERT_NE(Image, nullptr);
        Area = dynamic_cast<PictureArea*>(Image->findChild<QWidget*>("picImage"));
        ASSERT_NE(Area, nullptr);
    }
    void Solve() {
        TypeSearch();
        Press("cmdMatch");
        ASSERT_EQ(Shown("lblStatus"), "Plate Match Found");
    }
    QAction* Action(const char* name) const { return Image->findChild<QAction*>(name); }
    std::string Told(const char* name) const {
        return Utf8(Image->findChild<QLabel*>(name)->text());
    }
    QPoint OnScreen(const PixelPoint& pixel) const {
        const ScreenPoint point = Area->View.ScreenOf(pixel);
        return {static_cast<int>(std::floor(point.X)), static_cast<int>(std::floor(point.Y))};
    }
    /// Moves the pointer without a button. `QTest` is not used, as it would ask the platform which
    /// window is on top.
    void Hover(const QPoint& point) const {
        QMouseEvent move(QEvent::MouseMove, point, Area->mapToGlobal(point), Qt::NoButton,
                         Qt::NoButton, Qt::NoModifier);
        QApplication::sendEvent(Area, &move);
    }
    QRgb ColourAt(const PixelPoint& pixel) const {
        return Area->grab().toImage().pixel(OnScreen(pixel));
    }
    /// The pixel where a star of the frame was drawn.
    static PixelPoint Drawn(const SkyPosition& star) {
        Projection plane;
        plane.SetProjectionCentre(centre, SolveArcsecondsPerRadian);
        double xi = 0;
        double eta = 0;
        plane.SkyToPlane(star, xi, eta);
        return {(side - 1) / 2.0 + xi / scale, (side - 1) / 2.0 + eta / scale};
    }

    QWidget* Image = nullptr;
    PictureArea* Area = nullptr;
};

}  // namespace

TEST_F(ViewerWindows, TheReadoutSaysWhatTheFrameWasDrawnFrom) {
    OpenAll();
    Hover(OnScreen({100, 200}));
    EXPECT_EQ(Told("lblSky"), "");
    EXPECT_EQ(Told("lblCount"),
              std::to_string(State->Image.Pixels(100, 200) + State->Image.DataOffset));
    Solve();
    Projection plane;
    plane.SetProjectionCentre(centre, SolveArcsecondsPerRadian);
    for (const PixelPoint& pixel : {PixelPoint{20, 30}, {250, 40}, {149, 151}, {60, 280}}) {
        const QPoint at = OnScreen(pixel);
        Hover(at);
        const PixelPoint under = Area->View.PixelAt({at.x() + 0.5, at.y() + 0.5});
        const SkyPosition truth = plane.PlaneToSky((under.X - (side - 1) / 2.0) * scale,
                                                   (under.Y - (side - 1) / 2.0) * scale);
        const std::string sky = Told("lblSky");
        const std::size_t gap = sky.find("  ");
        ASSERT_NE(gap, std::string::npos) << sky;
        // A tenth of a pixel.
        EXPECT_NEAR(ParseRA(sky.substr(0, gap)), truth.Ra, 1e-6);
        EXPECT_NEAR(ParseDec(sky.substr(gap + 2)), truth.Dec, 1e-6);
        EXPECT_TRUE(Told("lblPixel").starts_with("x ")) << Told("lblPixel");
    }
    Hover({1, 1});  // beside the square image
    EXPECT_EQ(Told("lblPixel") + Told("lblCount") + Told("lblSky"), "");
}

TEST_F(ViewerWindows, ASolveSwitchesItsOverlaysOnAndTheyLieOnTheStars) {
    OpenAll();
    const std::vector<const char*> three = {"mnuExtracted", "mnuCatalog", "mnuMatched"};
    for (const char* name : three) EXPECT_FALSE(Action(name)->isChecked());
    Solve();
    for (const char* name : three) EXPECT_TRUE(Action(name)->isChecked());
    const auto difference = [this](const QImage& before) {
        const QImage after = Area->grab().toImage();
        int changed = 0;
        for (int y = 0; y < after.height(); ++y) {
            for (int x = 0; x < after.width(); ++x) {
                changed += after.pixel(x, y) != before.pixel(x, y) ? 1 : 0;
            }
        }
        return changed;
    };
    for (const char* name :
         {"mnuExtracted", "mnuMatched", "mnuMagnitudes", "mnuCatalog", "mnuCompass", "mnuGrid"}) {
        const QImage before = Area->grab().toImage();
        Action(name)->toggle();
        EXPECT_GT(difference(before), 100) << name;
        Action(name)->setChecked(false);
    }
    // With only this overlay on, the cross of a catalog star is where the star was drawn.
    Action("mnuCatalog")->setChecked(true);
    const PlateStar& star = State->Solution->CatalogStars[1];
    const QColor mark(ColourAt(Drawn({star.Ra, star.Dec})));
    EXPECT_GT(mark.blue(), mark.red() + 60);

    Action("mnuMatched")->setChecked(false);
    Press("cmdMatch");
    EXPECT_TRUE(Action("mnuMatched")->isChecked());
    Window->OpenFile(Frame);  // not solved yet
    Action("mnuCompass")->setChecked(false);
    const QImage empty = Area->grab().toImage();
    for (const char* name : three) Action(name)->setChecked(false);
    EXPECT_EQ(difference(empty), 0);
}

TEST_F(ViewerWindows, TheWheelZoomsAboutThePointerAndDraggingMovesTheImage) {
    OpenAll();
    const QPoint at = OnScreen({80, 210});
    const PixelPoint under = Area->View.PixelAt({at.x() + 0.5, at.y() + 0.5});
    QWheelEvent wheel(at, Area->mapToGlobal(QPointF(at)), {}, {0, 240}, Qt::NoButton,
                      Qt::NoModifier, Qt::NoScrollPhase, false);
    const double before = Area->View.Scale();
    QApplication::sendEvent(Area, &wheel);
    EXPECT_NEAR(Area->View.Scale(), 2 * before, 1e-9);
    EXPECT_EQ(OnScreen(under), at);
    QTest::mousePress(Area, Qt::LeftButton, {}, at);
    QTest::mouseMove(Area, at + QPoint(30, -20));
    QTest::mouseRelease(Area, Qt::LeftButton, {}, at + QPoint(30, -20));
    EXPECT_EQ(OnScreen(under), at + QPoint(30, -20));
    Action("mnuOneToOne")->trigger();
    EXPECT_EQ(Told("lblZoom"), "100.0%");
    Action("mnuFit")->trigger();
    EXPECT_NEAR(Area->View.Scale(), before, 1e-9);

    // The last row of a 16-bit FITS file is on top.
    EXPECT_LT(OnScreen({0, 299}).y(), OnScreen({0, 0}).y());
    Action("mnuFlipUpDown")->toggle();
    EXPECT_GT(OnScreen({0, 299}).y(), OnScreen({0, 0}).y());
    const QRgb sky = ColourAt({2, 2});
    Action("mnuInvert")->toggle();
    EXPECT_EQ(qRed(ColourAt({2, 2})), 255 - qRed(sky));

    Action("mnuCopyView")->trigger();
    const QImage shown = Area->grab().toImage().convertToFormat(QImage::Format_RGB32);
    EXPECT_EQ(QApplication::clipboard()->image().convertToFormat(QImage::Format_RGB32), shown);
    Dialogs.FileToChoose = QtText((Folder / "view").string());
    Action("mnuExportView")->trigger();
    EXPECT_EQ(QImage(QtText((Folder / "view.png").string())).convertToFormat(QImage::Format_RGB32),
              shown);
}

TEST_F(ViewerWindows, WhatIsDraggedLooksAsIfItWerePaintedAnew) {
    OpenAll();
    Solve();
    for (const char* name : {"mnuMagnitudes", "mnuGrid", "mnuNames", "mnuCompass"}) {
        Action(name)->setChecked(true);
    }
    Area->OnDoubleClicked(Drawn({Stars[0].Ra, Stars[0].Dec}));
    const auto painted = [this] { return Area->grab().toImage(); };
    Random random(5);
    int moved = 0;
    for (const double zoom : {0.5, 1.0, 3.7}) {
        Area->ZoomTo(zoom);
        QImage before = painted();
        for (int step = 0; step < 12; ++step) {
            // Also so far that the view ends at the image, or that nothing remains of the old one.
            const int reach = step % 4 == 3 ? 2000 : 40;
            Area->View.Pan(random.Whole(-reach, reach), random.Whole(-reach, reach));
            if (step == 6) Action("mnuFlipUpDown")->toggle();
            if (step == 8) Action("mnuCatalog")->toggle();
            Area->OnViewChanged();
            const QImage dragged = painted();
            // Another size and back: everything is painted anew.
            const QSize size = Image->size();
            Image->resize(size + QSize(2, 2));
            QCoreApplication::processEvents();
            painted();
            Image->resize(size);
            QCoreApplication::processEvents();
            EXPECT_TRUE(painted() == dragged) << zoom << " " << step;
            moved += dragged != before ? 1 : 0;
            before = dragged;
        }
    }
    EXPECT_GT(moved, 20);
}

TEST_F(ViewerWindows, TheMagnifierShowsThePixelsUnderThePointerAndLiesBesideIt) {
    OpenAll();
    constexpr int zoom = 8;
    constexpr int width = 168;
    const auto painted = [this] {
        return Area->grab().toImage().convertToFormat(QImage::Format_RGB32);
    };
    const auto leave = [this] {
        QEvent left(QEvent::Leave);
        QApplication::sendEvent(Area, &left);
    };
    for (const bool flipped : {false, true}) {
        Action("mnuMagnifier")->setChecked(false);
        Action("mnuFlipLeftRight")->setChecked(flipped);
        leave();
        const QImage without = painted();
        Action("mnuMagnifier")->setChecked(true);
        EXPECT_EQ(painted(), without);  // nothing is pointed at
        for (const PixelPoint& pixel :
             {PixelPoint{150, 150}, {31, 240}, {299, 0}, {0, 130}, {260, 299}}) {
            const QPoint at = OnScreen(pixel);
            Hover(at);
            const PixelPoint under = Area->View.PixelAt({at.x() + 0.5, at.y() + 0.5});
            const QImage with = painted();
            QRect lens;
            for (int y = 0; y < with.height(); ++y) {
                for (int x = 0; x < with.width(); ++x) {
                    if (with.pixel(x, y) != without.pixel(x, y)) lens |= QRect(x, y, 1, 1);
                }
            }
            ASSERT_EQ(lens.size(), QSize(width + 1, width + 1));
            EXPECT_FALSE(lens.contains(at));
            const GreyLevel& grey = Area->Picture.Levels().front();
            const int column = static_cast<int>(std::lround(under.X));
            const int row = static_cast<int>(std::lround(under.Y));
            int compared = 0;
            for (int y = row - 9; y <= row + 9; ++y) {
                for (int x = column - 9; x <= column + 9; ++x) {
                    const ScreenPoint way =
                        Area->View.DirectionOnScreen({zoom * (x - under.X), zoom * (y - under.Y)});
                    const auto inLens = [&](int dx, int dy) {
                        return QPoint(lens.left() + static_cast<int>(width / 2.0 + way.X) + dx,
                                      lens.top() + static_cast<int>(width / 2.0 + way.Y) + dy);
                    };
                    // Of what is drawn over it, the cross is not a pixel of the image.
                    const bool onCross = std::min(std::fabs(way.X), std::fabs(way.Y)) < zoom;
                    const bool within = std::max(std::fabs(way.X), std::fabs(way.Y)) < 75;
                    if (!within || (onCross && std::hypot(way.X, way.Y) > zoom)) continue;
                    const bool onImage = x >= 0 && y >= 0 && x < grey.Width && y < grey.Height;
                    const int wanted =
                        onImage ? grey.Pixels[static_cast<std::size_t>(y * grey.Width + x)]
                                : GreyOutsideImage;
                    for (const int inSquare : {-2, 2}) {
                        EXPECT_EQ(qRed(with.pixel(inLens(inSquare, inSquare))), wanted)
                            << x << " " << y << " " << flipped;
                    }
                    ++compared;
                }
            }
            EXPECT_GT(compared, 200);
        }
        leave();
        EXPECT_EQ(painted(), without);
    }
}

TEST_F(ViewerWindows, AnOutlineIsInEveryStripThatItReaches) {
    ViewGeometry view;
    view.SetWindow(400, 300);
    view.SetImage(800, 600, true);
    std::vector<PixelPoint> circle;
    for (int degree = 0; degree <= 360; degree += 5) {
        circle.push_back(
            {310 + 121 * std::cos(degree / 57.3), 290 + 121 * std::sin(degree / 57.3)});
    }
    const auto painted = [&](int stripWidth) {
        QImage picture(400, 300, QImage::Format_RGB32);
        picture.fill(Qt::black);
        for (int left = 0; left < 400; left += stripWidth) {
            const QRectF part(left, 0, stripWidth, 300);
            QPainter painter(&picture);
            painter.setClipRect(part);
            OverlayPainter(painter, view, picture.size(), OverlayStep::Marks, part)
                .Outline(circle, {310, 290}, 121, Qt::green);
        }
        return picture;
    };
    const QImage whole = painted(400);
    EXPECT_GT(qGreen(whole.pixel(155, 84)) + qGreen(whole.pixel(155, 85)), 200);
    for (const int stripWidth : {1, 3, 50}) EXPECT_EQ(painted(stripWidth), whole) << stripWidth;
}

TEST_F(ViewerWindows, LabelsThatWereKeptLookAsIfTheyWereWrittenAnew) {
    ViewGeometry view;
    view.SetWindow(600, 400);
    view.SetImage(600, 400, true);
    KeptTexts kept;
    const auto painted = [&](KeptTexts* texts, int points) {
        QImage picture(600, 400, QImage::Format_RGB32);
        picture.fill(Qt::darkGray);
        QPainter painter(&picture);
        QFont font = painter.font();
        font.setPointSize(points);
        painter.setFont(font);
        OverlayPainter over(painter, view, picture.size(), OverlayStep::Labels, picture.rect());
        over.Texts = texts;
        double y = 20.3;
        for (const char* text : {"12.34", "M 31 (Andromeda)", "-00°30'", "α CMa ☉ 星", "12.34"}) {
            over.Label({100.7, y}, 9, QString::fromUtf8(text), Qt::green);
            over.Label({330.2, y += 61.4}, 4, QString::fromUtf8(text), Qt::yellow);
        }
        over.PaintLabels();
        return picture;
    };
    QImage empty(600, 400, QImage::Format_RGB32);
    empty.fill(Qt::darkGray);
    for (const int points : {9, 14, 9}) {
        const QImage anew = painted(nullptr, points);
        EXPECT_NE(anew, empty);
        EXPECT_EQ(painted(&kept, points), anew);
        EXPECT_EQ(painted(&kept, points), anew);
    }
}

TEST_F(ViewerWindows, NoLabelCoversTheCompassAndTheScaleNorIsCoveredByThem) {
    OpenAll();
    Solve();
    SkyObject galaxy;
    galaxy.Name = "IC 424";
    galaxy.Kind = "galaxy";
    ViewGeometry view;
    const QSize size(320, 280);
    view.SetWindow(size.width(), size.height());
    view.SetImage(300, 300, true);
    Annotation annotation;
    annotation.Stars = OverlaysOf(*State);
    ASSERT_TRUE(annotation.Stars.Map);
    annotation.Shows.Names = true;
    const auto painted = [&](bool withCompass) {
        QImage picture(size, QImage::Format_RGB32);
        picture.fill(Qt::darkGray);
        QPainter painter(&picture);
        annotation.Shows.Compass = withCompass;
        annotation.Paint(painter, view, size, {});
        return picture;
    };
    const auto differing = [&](const QImage& one, const QImage& other) {
        std::set<std::pair<int, int>> places;
        for (int y = 0; y < size.height(); ++y) {
            for (int x = 0; x < size.width(); ++x) {
                if (one.pixel(x, y) != other.pixel(x, y)) places.emplace(x, y);
            }
        }
        return places;
    };
    const QImage empty = painted(false);
    const QImage compass = painted(true);
    const auto ofCompass = differing(empty, compass);
    ASSERT_GT(ofCompass.size(), 300U);
    int moved = 0;
    int omitted = 0;
    for (double y = 5; y < size.height() - 10; y += 13) {
        for (double x = 5; x < size.width(); x += 31) {
            annotation.Objects = {{&galaxy, view.PixelAt({x, y}), {}, 0}};
            const auto alone = differing(empty, painted(false));
            const auto ofLabel = differing(compass, painted(true));
            omitted += ofLabel.empty() ? 1 : 0;
            for (const auto& place : ofLabel) {
                ASSERT_FALSE(ofCompass.contains(place)) << x << " " << y;
            }
            if (ofLabel != alone) ++moved;
        }
    }
    EXPECT_GT(moved, 5);
    EXPECT_LT(moved, 60) << "of 231: those far away stay where they are";
    EXPECT_LE(omitted, 6) << "only where the scale and the corner leave no room";
}

TEST_F(ViewerWindows, ATurnedPictureIsShownAndExportedTurnedAndReadAsItIsStored) {
    QImage picture(60, 40, QImage::Format_Grayscale8);
    picture.fill(20);
    for (int y = 8; y < 24; ++y) {
        for (int x = 40; x < 56; ++x) picture.setPixelColor(x, y, Qt::white);
    }
    const auto path = Folder / "turned.jpg";
    ASSERT_TRUE(picture.save(QtText(path.string()), "JPG", 100));
    ExifMaker exif;
    exif.Orientation = 6;  // the top of the stored picture is shown on the right
    WriteFile(path, WithExif(ReadFile(path), exif.Block()));
    Frame = path.string();
    OpenAll();
    const PixelPoint bright{47, 15};
    EXPECT_GT(qRed(ColourAt(bright)), 250);
    EXPECT_LT(qRed(ColourAt({bright.Y, bright.X})), 250);
    EXPECT_GT(OnScreen({0, 0}).x(), OnScreen({0, 39}).x());
    EXPECT_LT(OnScreen({0, 0}).y(), OnScreen({59, 0}).y());
    Hover(OnScreen(bright));
    EXPECT_EQ(Told("lblPixel").substr(0, 4), "x 47");
    EXPECT_GT(std::stoi(Told("lblCount")), 750);
    Action("mnuFlipLeftRight")->toggle();
    EXPECT_LT(OnScreen({0, 0}).x(), OnScreen({0, 39}).x());
    Action("mnuFlipLeftRight")->toggle();

    Dialogs.FileToChoose = QtText((Folder / "whole").string());
    Action("mnuExportPicture")->trigger();
    const QImage exported(QtText((Folder / "whole.png").string()));
    ASSERT_EQ(exported.size(), QSize(40, 60));
    EXPECT_GT(qRed(exported.pixel(39 - 15, 47)), 250);
}

TEST_F(ViewerWindows, LevelsAreCountsAndChangeWhatIsShown) {
    OpenAll();
    Choose("Levels");
    QWidget* levels = WindowNamed("fHistogram");
    ASSERT_NE(levels, nullptr);
    PlateImage& image = State->Image;
    // The sky is 300 ± 2 counts, and stars reach 3000 and more.
    EXPECT_NEAR(image.DisplayBlack, 296, 2);
    EXPECT_GT(image.DisplayWhite, 320);
    auto* black = levels->findChild<QSpinBox*>("numBlack");
    auto* white = levels->findChild<QSpinBox*>("numWhite");
    EXPECT_EQ(black->value(), image.DisplayBlack);
    EXPECT_EQ(white->value(), image.DisplayWhite);
    black->setValue(200);
    white->setValue(400);
    EXPECT_EQ(image.DisplayBlack, 200);
    EXPECT_EQ(image.DisplayWhite, 400);
    Area->ZoomTo(8);
    const auto grey = [&](Transfer transfer) {
        const double place = (image.Pixels(150, 150) + image.DataOffset - image.DisplayBlack) /
                             double(image.DisplayWhite - image.DisplayBlack);
        return std::lround(255 * Transferred(transfer, place));
    };
    EXPECT_EQ(qRed(ColourAt({150, 150})), grey(Transfer::Linear));
    auto* transfer = levels->findChild<QComboBox*>("cboTransfer");
    for (const auto& [text, kind] : {std::pair{"Square root", Transfer::SquareRoot},
                                     {"Asinh", Transfer::Asinh},
                                     {"Logarithmic", Transfer::Logarithmic}}) {
        QTest::keyClick(transfer, Qt::Key_Down);
        EXPECT_EQ(transfer->currentText(), text);
        EXPECT_EQ(qRed(ColourAt({150, 150})), grey(kind)) << text;
    }
    auto* slider = levels->findChild<QSlider*>("sldWhite");
    slider->setValue(SliderSteps);
    EXPECT_GT(image.DisplayWhite, 400);
    EXPECT_EQ(white->value(), image.DisplayWhite);
    levels->findChild<QSlider*>("sldBlack")->setValue(SliderSteps);
    EXPECT_GT(image.DisplayWhite, image.DisplayBlack);
    QTest::mouseClick(levels->findChild<QPushButton*>("cmdAutomatic"), Qt::LeftButton);
    EXPECT_NEAR(image.DisplayBlack, 296, 2);
    white->setValue(5000);
    Solve();  // which subtracts the sky
    EXPECT_LT(image.DisplayBlack, 100);
    EXPECT_EQ(black->value(), image.DisplayBlack);
}

TEST_F(ViewerWindows, TheLinesOfTheHistogramAreDraggedToCounts) {
    OpenAll();
    Choose("Levels");
    QWidget* levels = WindowNamed("fHistogram");
    auto* plot = levels->findChild<QWidget*>("picHistogram");
    const PlateImage& image = State->Image;
    /// The columns of the dashed lines: there is nothing else of their colour above the histogram.
    const auto lines = [&] {
        const QImage picture = plot->grab().toImage();
        const QRgb colour = plot->palette().color(QPalette::WindowText).rgb();
        std::vector<int> columns;
        for (int x = 0; x < picture.width(); ++x) {
            int dashes = 0;
            for (int y = 0; y < picture.height() / 2; ++y) {
                dashes += picture.pixel(x, y) == colour ? 1 : 0;
            }
            if (dashes > picture.height() / 8) columns.push_back(x);
        }
        return columns;
    };
    const auto mouse = [&](QEvent::Type type, int x, Qt::MouseButtons buttons) {
        const QPointF at(x, 30);
        QMouseEvent event(type, at, plot->mapToGlobal(at),
                          type == QEvent::MouseMove ? Qt::NoButton : Qt::LeftButton, buttons,
                          Qt::NoModifier);
        QApplication::sendEvent(plot, &event);
    };
    const auto drag = [&](int from, int to) {
        mouse(QEvent::MouseButtonPress, from, Qt::LeftButton);
        mouse(QEvent::MouseMove, (from + to) / 2, Qt::LeftButton);
        mouse(QEvent::MouseMove, to, Qt::LeftButton);
        mouse(QEvent::MouseButtonRelease, to, Qt::NoButton);
    };
    ASSERT_EQ(lines().size(), 2u);
    const int black = lines()[0];
    const int white = lines()[1];
    const int whiteCount = image.DisplayWhite;
    mouse(QEvent::MouseMove, black + 9, Qt::NoButton);
    EXPECT_EQ(lines(), (std::vector<int>{black, white}));

    // The nearer line comes to the pointer and the other one stays, and counts are in proportion.
    std::map<int, int> counts = {{white, whiteCount}};
    for (const int to : {black + 20, black + 60, black + 40}) {
        drag(lines()[0] + 2, to);
        EXPECT_EQ(lines(), (std::vector<int>{to, white}));
        EXPECT_EQ(image.DisplayWhite, whiteCount);
        counts[to] = image.DisplayBlack;
    }
    const double perPixel = double(counts[white] - counts[black + 20]) / (white - black - 20);
    EXPECT_GT(perPixel, 0);
    for (const auto& [x, count] : counts) {
        EXPECT_NEAR(count, counts[white] - perPixel * (white - x), 1 + perPixel) << x;
    }
    EXPECT_EQ(levels->findChild<QSpinBox*>("numBlack")->value(), image.DisplayBlack);
    const int blackCount = image.DisplayBlack;
    drag(white - 3, white + 30);
    EXPECT_GT(image.DisplayWhite, whiteCount);
    EXPECT_EQ(image.DisplayBlack, blackCount);
    // Neither line can be dragged past the other.
    drag(lines()[0], plot->width() - 5);
    EXPECT_LT(image.DisplayBlack, image.DisplayWhite);

    // The image shows these levels, and no longer those that the screen takes by itself.
    EXPECT_FALSE(Action("mnuStretch")->isChecked());
    levels->findChild<QPushButton*>("cmdAutomatic")->click();
    drag(lines()[1], lines()[0] + 40);
    Area->ZoomTo(8);
    const int count = image.Pixels(150, 150) + image.DataOffset;
    const double place =
        double(count - image.DisplayBlack) / (image.DisplayWhite - image.DisplayBlack);
    EXPECT_EQ(qRed(ColourAt({150, 150})),
              std::lround(255 * Transferred(State->DisplayTransfer, place)));
}

TEST_F(ViewerWindows, AClickMeasuresTheStarThatWasDrawnThere) {
    OpenAll();
    Solve();
    Choose("Star Statistics");
    QWidget* stats = WindowNamed("fStats");
    ASSERT_NE(stats, nullptr);
    const auto text = [&] {
        return Utf8(stats->findChild<QPlainTextEdit*>("txtStatistics")->toPlainText());
    };
    const auto figure = [&](const char* caption) {
        const std::string all = text();
        const std::size_t line = all.find(caption);
        if (line == std::string::npos) throw std::runtime_error(std::string("no ") + caption);
        return std::stod(all.substr(line + std::string(caption).size()));
    };
    // The most isolated matched star: no neighbour adds to its light.
    PlateStar star;
    double loneliest = 0;
    for (const PlateStar& one : State->Solution->CatalogStars) {
        const PixelPoint place = Drawn({one.Ra, one.Dec});
        double nearest = std::min({place.X, place.Y, side - 1 - place.X, side - 1 - place.Y});
        for (const PlateStar& any : State->Solution->CatalogStars) {
            const PixelPoint other = Drawn({any.Ra, any.Dec});
            const double distance = std::hypot(place.X - other.X, place.Y - other.Y);
            if (&any != &one) nearest = std::min(nearest, distance);
        }
        if (nearest > loneliest && one.Flux < 14) star = one;
        if (nearest > loneliest && one.Flux < 14) loneliest = nearest;
    }
    ASSERT_GT(loneliest, 15);
    const PixelPoint drawn = Drawn({star.Ra, star.Dec});
    QTest::mouseClick(Area, Qt::LeftButton, {}, OnScreen(drawn));
    EXPECT_NEAR(figure("Centroid x"), drawn.X, 0.02);
    EXPECT_NEAR(figure("Centroid y"), drawn.Y, 0.02);
    // A Gaussian of variance 1.5, cut off where it is negligible.
    const double flux = std::pow(10, 0.4 * (21.5 - star.Flux)) * 3 * 3.14159265;
    EXPECT_NEAR(figure("Flux") / flux, 1, 0.02);
    EXPECT_NEAR(figure("FWHM of Gaussian fit"), 2.3548 * std::sqrt(1.5), 0.1);
    EXPECT_NEAR(figure("\nMagnitude"), star.Flux, 0.05);
    EXPECT_NEAR(figure("  magnitude"), star.Flux, 0.006);
    EXPECT_LT(figure("  distance"), 0.1);
    QTest::mouseClick(stats->findChild<QPushButton*>("cmdCopy"), Qt::LeftButton);
    EXPECT_EQ(Utf8(QApplication::clipboard()->text()), text());

    stats->findChild<QDoubleSpinBox*>("numAperture")->setValue(7);
    stats->findChild<QDoubleSpinBox*>("numBackground")->setValue(15);
    EXPECT_EQ(figure("Aperture radius"), 7);
    EXPECT_EQ(figure("Background ring"), 15);
    EXPECT_NEAR(figure("\nMagnitude"), star.Flux, 0.05);
    QTest::mouseClick(Area, Qt::LeftButton, {}, {1, 1});  // beside the image: not a click on it
    EXPECT_EQ(figure("Aperture radius"), 7);
    Window->OpenFile(Frame);
    EXPECT_EQ(text(), "");
    Window->close();
    Open();
    EXPECT_EQ(State->Parameters.ApertureRadius, 7);
    EXPECT_EQ(State->Parameters.BackgroundRadius, 15);
}

TEST_F(ViewerWindows, TwoClicksMakeARowAndTheTableIsWritten) {
    OpenAll();
    Solve();
    State->Parameters.ApertureRadius = 5;
    State->Parameters.BackgroundRadius = 9;
    Choose("Relative Photometry");
    QWidget* window = WindowNamed("fRelPhot");
    ASSERT_NE(window, nullptr);
    const auto* rows = window->findChild<QTableWidget*>("tblPhotometry");
    std::vector<PlateStar> stars;
    for (const MatchedStar& star : MatchedStars(*State->Solution)) stars.push_back(*star.Catalog);
    ASSERT_GE(stars.size(), 4u);
    const auto click = [&](const PlateStar& star) {
        QTest::mouseClick(Area, Qt::LeftButton, {}, OnScreen(Drawn({star.Ra, star.Dec})));
    };
    click(stars[0]);
    EXPECT_EQ(rows->rowCount(), 0);
    click(stars[1]);
    ASSERT_EQ(rows->rowCount(), 1);
    EXPECT_NEAR(rows->item(0, 3)->text().split(' ')[0].toDouble(), stars[1].Flux - stars[0].Flux,
                0.05);
    EXPECT_NEAR(rows->item(0, 4)->text().toDouble(), stars[1].Flux, 0.05);
    EXPECT_TRUE(rows->item(0, 5)->text().contains("gain is unknown"));
    window->findChild<QCheckBox*>("chkKeepFirst")->setChecked(true);
    for (int i : {2, 0, 3}) click(stars[i]);
    ASSERT_EQ(rows->rowCount(), 3);
    EXPECT_EQ(rows->item(1, 1)->text(), rows->item(2, 1)->text());

    Dialogs.FileToChoose = QtText((Folder / "table").string());
    QTest::mouseClick(window->findChild<QPushButton*>("cmdExport"), Qt::LeftButton);
    const std::string csv = ReadFile(Folder / "table.csv");
    EXPECT_EQ(std::count(csv.begin(), csv.end(), '\n'), 4);
    EXPECT_NE(csv.find("\nframe.fit,"), std::string::npos);
    Window->OpenFile(Frame);
    click(stars[0]);  // starts a new pair, without the old image's star
    EXPECT_EQ(rows->rowCount(), 3);
    QTest::mouseClick(window->findChild<QPushButton*>("cmdClear"), Qt::LeftButton);
    EXPECT_EQ(rows->rowCount(), 0);
}

}  // namespace vestrel
