// The way from a picture to a solved, annotated and exported one, with a frame of 24 megapixels.

#include <QPlainTextEdit>
#include <QPrinter>
#include <QSlider>
#include <QWheelEvent>
#include <cmath>
#include <cstdio>

#include "astro/libMath.h"
#include "desktop/fPictureArea.h"
#include "tests/desktopSupport.h"
#include "tests/eventTurns.h"

namespace vestrel {
namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool sanitized = true;
constexpr int largeWidth = 1500;
#else
constexpr bool sanitized = false;
constexpr int largeWidth = 6000;
#endif
constexpr int largeHeight = largeWidth * 2 / 3;
constexpr double largeScale = side * scale / largeWidth;  ///< arcseconds a pixel

/// The sky of the small frame as a large camera takes it: 10' x 6.7', with the place in its header.
void WriteLargeFrame(const std::filesystem::path& path, const std::vector<CatalogStar>& stars) {
    std::vector<std::int16_t> counts(static_cast<std::size_t>(largeWidth) * largeHeight);
    std::uint32_t noise = 1;
    for (std::int16_t& count : counts) {
        noise = noise * 1664525U + 1013904223U;
        count = static_cast<std::int16_t>(300 + (noise >> 29));
    }
    Projection plane;
    plane.SetProjectionCentre(centre, SolveArcsecondsPerRadian);
    for (const CatalogStar& star : stars) {
        double xi = 0;
        double eta = 0;
        plane.SkyToPlane({star.Ra, star.Dec}, xi, eta);
        const double x0 = (largeWidth - 1) / 2.0 + xi / largeScale;
        const double y0 = (largeHeight - 1) / 2.0 + eta / largeScale;
        constexpr int reach = 8;
        for (int y = static_cast<int>(y0) - reach; y <= y0 + reach; ++y) {
            for (int x = static_cast<int>(x0) - reach; x <= x0 + reach; ++x) {
                if (x < 0 || y < 0 || x >= largeWidth || y >= largeHeight) continue;
                const double r2 = (x - x0) * (x - x0) + (y - y0) * (y - y0);
                const double light = std::pow(10, 0.4 * (21.5 - star.Mag / 100.0));
                counts[static_cast<std::size_t>(y) * largeWidth + static_cast<std::size_t>(x)] +=
                    static_cast<std::int16_t>(light * std::exp(-r2 / 6));
            }
        }
    }
    std::string bytes =
        FitsHeader(FitsCards(16, largeWidth, largeHeight,
                             {"OBJCTRA = '00 04 35'", "OBJCTDEC= '+00 34 22'",
                              "SECPIX  =                 " + std::to_string(largeScale)}));
    for (const std::int16_t count : counts) {
        bytes += static_cast<char>(count >> 8);
        bytes += static_cast<char>(count & 255);
    }
    bytes.resize((bytes.size() + 2879) / 2880 * 2880);
    WriteFile(path, bytes);
}

class Walk : public Windows {
 protected:
    Walk() {
        Large = (Folder / "large.fit").string();
        WriteLargeFrame(Large, Stars);
        WriteQuadTables(Folder / "catalog", Stars, Stars.size(), 0.002, 0.006);
    }
    /// Does one thing as the user does it, and sees to it that the windows answer all the time.
    void Do(const std::string& what, const std::function<void()>& action, double limit = 0.1) {
        turns_.Start();
        action();
        const double longest = turns_.Longest();
        std::printf("%-32s %6.1f ms\n", what.c_str(), 1000 * longest);
        // What a sanitizer adds is not the program's.
        if (sanitized) return;
        EXPECT_LT(longest, limit) << what;
    }
    QWidget* Image() const { return WindowNamed("fImage"); }
    void Trigger(const char* action) const { Image()->findChild<QAction*>(action)->trigger(); }

    std::string Large;
    EventTurns turns_;
};

}  // namespace

TEST_F(Walk, FourActionsLeadToASolvedAnnotatedExportedPictureAndTheWindowsAnswerAllTheTime) {
    int actions = 0;
    const auto act = [&](const std::string& what, const std::function<void()>& action) {
        ++actions;
        Do(what, action);
    };
    Dialogs.FileToChoose = QtText(Large);
    act("Open", [this] { Choose("Open..."); });
    act("Just Solve", [this] { Choose("Just Solve"); });
    EXPECT_EQ(Shown("lblTrust"), "Sure");
    act("Show Image", [this] {
        Choose("Show Image");
        QTest::qWait(50);
    });
    const std::string exported = (Folder / "annotated.png").string();
    Dialogs.FileToChoose = QtText(exported);
    act("Export Whole Picture", [this] { Trigger("mnuExportPicture"); });
    EXPECT_LE(actions, 5);
    EXPECT_EQ(Dialogs.Messages, Texts{});

    ASSERT_TRUE(State->Solution);
    EXPECT_NEAR(State->Solution->CentreRA, centre.Ra, 1e-6);
    EXPECT_NEAR(State->Solution->CentreDec, centre.Dec, 1e-6);
    const QImage picture(QtText(exported));
    ASSERT_EQ(picture.size(), QSize(largeWidth, largeHeight));
    // A ring of the colour of matched stars is around each of them.
    const double ring = 13 * largeWidth / 1600.0;
    for (const MatchedStar& star : MatchedStars(*State->Solution)) {
        const int x = static_cast<int>(star.Plate->X);
        const int y = largeHeight - 1 - static_cast<int>(star.Plate->Y);
        int green = 0;
        for (int degree = 0; degree < 360; ++degree) {
            const double angle = degree * 3.14159265 / 180;
            // The line is thin, and its place is rounded to a pixel.
            const auto isGreen = [&](double radius) {
                const QPoint at(x + static_cast<int>(std::lround(radius * std::cos(angle))),
                                y + static_cast<int>(std::lround(radius * std::sin(angle))));
                if (!picture.rect().contains(at)) return false;
                const QColor colour = picture.pixelColor(at);
                return colour.green() > colour.red() + 60;
            };
            green += isGreen(ring - 1) || isGreen(ring) || isGreen(ring + 1) ? 1 : 0;
        }
        EXPECT_GT(green, 100) << x << " " << y;
    }
}

TEST_F(Walk, NoCommandHoldsTheWindowsUp) {
    Do("Open with all windows", [this] {
        Choose("Show Image");
        Choose("Levels");
        Choose("Star Statistics");
        Choose("Show Header");
        Choose("Residuals");
        Window->OpenFile(Large);
        QTest::qWait(50);
    });
    auto* white = WindowNamed("fHistogram")->findChild<QSlider*>("sldWhite");
    EXPECT_TRUE(white->isEnabled());
    auto* area = dynamic_cast<PictureArea*>(Image()->findChild<QWidget*>("picImage"));
    TypeSearch("60 00 00", "2");
    Do("Plate Match that fails", [this] { Press("cmdMatch"); });
    EXPECT_EQ(Shown("lblStatus"), "No Match Found");
    TypeSearch();
    Type("txtYsize", "6.7");
    Do("Plate Match", [this] { Press("cmdMatch"); });
    EXPECT_EQ(Shown("lblStatus"), "Plate Match Found");
    Do("MORA", [this] { Press("cmdMORA"); });
    Do("Plate Match again", [this] { Press("cmdMatch"); });
    for (const char* name : {"mnuExtracted", "mnuCatalog", "mnuMatched", "mnuMagnitudes", "mnuGrid",
                             "mnuNames", "mnuInvert", "mnuStretch", "mnuFlipLeftRight", "mnuFit",
                             "mnuOneToOne", "mnuZoomIn", "mnuZoomOut", "mnuCopyView"}) {
        Do(name, [&] {
            Trigger(name);
            QTest::qWait(20);
        });
    }
    Do("Levels", [&] {
        white->setValue(white->value() / 2);
        QTest::qWait(20);
    });
    Do("Wheel", [&] {
        for (int i = 0; i < 10; ++i) {
            QWheelEvent wheel({50, 50}, area->mapToGlobal(QPointF(50, 50)), {}, {0, 120},
                              Qt::NoButton, Qt::NoModifier, Qt::NoScrollPhase, false);
            QApplication::sendEvent(area, &wheel);
            QCoreApplication::processEvents();
        }
    });
    Do("Measure", [&] { area->OnDoubleClicked({largeWidth / 2.0, largeHeight / 2.0}); });
    Dialogs.FileToChoose = QtText((Folder / "picture.pdf").string());
    Do("Export as PDF", [this] { Trigger("mnuExportPicture"); });
    EXPECT_TRUE(ReadFile(Folder / "picture.pdf").starts_with("%PDF"));
    QPrinter printer(QPrinter::HighResolution);
    printer.setOutputFormat(QPrinter::PdfFormat);
    printer.setOutputFileName(QtText((Folder / "printed.pdf").string()));
    Do("Print", [&] { dynamic_cast<ImageWindow*>(Image())->PrintOn(printer); });
    EXPECT_TRUE(ReadFile(Folder / "printed.pdf").starts_with("%PDF"));
    Dialogs.FileToChoose = QtText((Folder / "exported.fits").string());
    Do("Export", [this] { Choose("Export..."); });
    Dialogs.FileToChoose = QtText((Folder / "saved.fit").string());
    Do("Save As", [this] { Choose("Save As..."); });
    EXPECT_GT(ReadFile(Folder / "saved.fit").size(),
              std::size_t{2} * std::size_t{largeWidth} * std::size_t{largeHeight});
    EXPECT_EQ(Dialogs.Messages, Texts{});
}

}  // namespace vestrel
