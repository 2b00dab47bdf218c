// Situations that an observer meets in an evening with the windows.

#include <QAccessible>
#include <QClipboard>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QDropEvent>
#include <QMenu>
#include <QMenuBar>
#include <QMimeData>
#include <QPlainTextEdit>
#include <QPrinter>
#include <QRegularExpression>
#include <QScreen>
#include <QScrollBar>
#include <QSpinBox>
#include <QStatusBar>
#include <QTableWidget>
#include <QTextBrowser>
#include <cmath>
#include <cstdlib>
#include <map>

#include "astro/libConversions.h"
#include "astro/libPositionText.h"
#include "desktop/fPictureArea.h"
#include "display/libReadout.h"
#include "program/mPreferences.h"
#include "program/mTelescope.h"
#include "program/mTrust.h"
#include "tests/desktopSupport.h"
#include "tests/judge.h"
#include "tests/recordingTelescope.h"

namespace vestrel {
namespace {

class Evening : public Windows {
 protected:
    void Solve() {
        Window->OpenFile(Frame);
        TypeSearch();
        Press("cmdMatch");
        ASSERT_EQ(Shown("lblStatus"), "Plate Match Found");
    }
    bool IsShown(const char* name) const { return !Find<QWidget>(name)->isHidden(); }
    std::string Copy(const std::string& name) const {
        const std::string path = (Folder / name).string();
        std::filesystem::copy_file(Frame, path);
        return path;
    }
    QAction* ActionOf(const QString& text) const {
        for (QAction* action : Window->findChildren<QAction*>()) {
            if (action->text().remove('&') == text) return action;
        }
        throw std::runtime_error("no menu entry");
    }
};

}  // namespace

TEST_F(Evening, AnotherImageTakesNothingFromTheOneBefore) {
    Solve();
    EXPECT_EQ(Shown("lblTrust"), "Sure");
    EXPECT_TRUE(ActionOf("Copy Result")->isEnabled() && IsShown("cmdResiduals"));
    Window->OpenFile(Copy("another.fit"));
    for (const char* name : {"lblRA", "lblDec", "lblScale", "lblNMatch", "lblRMS", "lblStatus1"}) {
        EXPECT_EQ(Shown(name), "") << name;
    }
    EXPECT_FALSE(IsShown("lblTrust") || IsShown("cmdResiduals"));
    EXPECT_FALSE(ActionOf("Copy Result")->isEnabled());
    EXPECT_FALSE(Find<QPushButton>("cmdSync")->isEnabled());
}

TEST_F(Evening, ALongNameIsSeenEverywhere) {
    const std::string name = std::string(70, 'n') + ".fit";
    const std::string path = Copy(name);
    Window->OpenFile(path);
    Press("cmdImage");
    EXPECT_EQ(Shown("lblName"), name);
    EXPECT_EQ(Utf8(Find<QLabel>("lblName")->toolTip()), path);
    EXPECT_EQ(Utf8(WindowNamed("fImage")->windowTitle()), name);
}

TEST_F(Evening, TheKeyboardStaysWhereItIsNeeded) {
    Window->OpenFile(Frame);
    Window->activateWindow();
    ASSERT_TRUE(QTest::qWaitForWindowActive(Window.get()));
    TypeSearch();
    Type("txtYsize", "wide");
    Press("cmdMatch");
    EXPECT_EQ(Window->focusWidget(), Find<QLineEdit>("txtYsize"));
    EXPECT_EQ(Find<QLineEdit>("txtYsize")->selectedText(), "wide");
    Press("cmdMORA");
    EXPECT_EQ(WindowNamed("fMORA"), nullptr);
    Type("txtYsize", "10");
    auto* match = Find<QPushButton>("cmdMatch");
    match->setFocus();
    QTest::keyClick(match, Qt::Key_Space);
    EXPECT_EQ(Shown("lblStatus"), "Plate Match Found");
    EXPECT_EQ(Window->focusWidget(), match);
    Window->activateWindow();
    ASSERT_TRUE(QTest::qWaitForWindowActive(Window.get()));
    Find<QLineEdit>("txtRA")->setFocus();
    QTest::keyClick(Find<QLineEdit>("txtRA"), Qt::Key_E, Qt::ControlModifier);
    EXPECT_EQ(Dialogs.Title, "Export Image");

    Choose("Levels");
    Choose("Star Statistics");
    auto* black = WindowNamed("fHistogram")->findChild<QSpinBox*>("numBlack");
    black->setValue(250);
    QTest::keyClick(black, Qt::Key_Return);
    EXPECT_EQ(black->value(), 250);
    auto* radius = WindowNamed("fStats")->findChild<QDoubleSpinBox*>("numAperture");
    QTest::keyClick(radius, Qt::Key_Return);
    EXPECT_NE(WindowNamed("fStats"), nullptr);
    EXPECT_EQ(radius->locale().decimalPoint(), QString("."));
    const QRect room = WindowNamed("fStats")->screen()->availableGeometry();
    EXPECT_TRUE(room.contains(WindowNamed("fStats")->geometry()));
}

TEST_F(Evening, AForeignFileIsNotOverwrittenUnasked) {
    Solve();
    WriteFile(Folder / "frame.wcs", "of another program");
    Dialogs.Agrees = false;
    Choose("Write World Coordinates");
    EXPECT_EQ(ReadFile(Folder / "frame.wcs"), "of another program");
    EXPECT_EQ(Dialogs.Messages.size(), 1u);
    Dialogs.Agrees = true;
    Choose("Write World Coordinates");
    Choose("Write World Coordinates");  // its own file is replaced without a question
    EXPECT_TRUE(ReadFile(Folder / "frame.wcs").starts_with("SIMPLE"));
    EXPECT_EQ(Dialogs.Messages.size(), 2u);
}

TEST_F(Evening, FilesThatAreDroppedAreOpenedAndStayWhereTheyAre) {
    Press("cmdImage");
    QMimeData data;
    data.setUrls(
        {QUrl::fromLocalFile(QtText(Frame)), QUrl::fromLocalFile(QtText(Copy("second.fit")))});
    const Qt::DropActions both = Qt::CopyAction | Qt::MoveAction;
    EXPECT_FALSE(Find<QLineEdit>("txtRA")->acceptDrops());
    for (QWidget* window : {static_cast<QWidget*>(Window.get()), WindowNamed("fImage")}) {
        State->RecentImages.clear();
        QDragEnterEvent enter({10, 10}, both, &data, Qt::LeftButton, Qt::ShiftModifier);
        QApplication::sendEvent(window, &enter);
        EXPECT_TRUE(enter.isAccepted());
        QDropEvent drop({10, 10}, both, &data, Qt::LeftButton, Qt::ShiftModifier);
        drop.setDropAction(Qt::MoveAction);
        QApplication::sendEvent(window, &drop);
        EXPECT_EQ(drop.dropAction(), Qt::CopyAction);
        EXPECT_TRUE(QTest::qWaitFor([this] { return State->RecentImages.size() == 1; }));
        EXPECT_EQ(State->Image.FileName, Frame);
        EXPECT_NE(Shown("lblStatus").find("first of 2"), std::string::npos);
    }
}

TEST_F(Evening, JustSolveNeedsNothingAndIsOfferedAfterAFailure) {
    WriteQuadTables(Folder / "catalog", Stars, Stars.size(), 0.003, 0.006);
    Window->OpenFile(Frame);
    TypeSearch("60 00 00", "2");
    Press("cmdMatch");
    EXPECT_EQ(Shown("lblStatus"), "No Match Found");
    ASSERT_TRUE(IsShown("cmdOffer"));
    Texts stages;
    QTimer watch;
    QObject::connect(&watch, &QTimer::timeout, [&] {
        if (State->Running == Activity::Solving) stages.push_back(Shown("lblStage"));
    });
    watch.start(0);
    Press("cmdOffer");
    watch.stop();
    EXPECT_EQ(Shown("lblStatus"), "Plate Match Found");
    EXPECT_EQ(Shown("lblTrust"), "Sure");
    EXPECT_FALSE(IsShown("cmdOffer"));
    EXPECT_NEAR(State->Solution->CentreRA, centre.Ra, 2e-6);
    EXPECT_EQ(Shown("lblNCat"), std::to_string(State->Solution->CatalogCount()));
    EXPECT_TRUE(std::any_of(stages.begin(), stages.end(), [](const std::string& stage) {
        return stage.starts_with("Stage 1: ") && stage.ends_with(" s left at most");
    }));
    EXPECT_TRUE(Find<QTextEdit>("txtDetails")->toPlainText().contains("Tried patterns"));

    // Started from the keyboard, with no input but the size of the last session.
    Open();
    Window->activateWindow();
    ASSERT_TRUE(QTest::qWaitForWindowActive(Window.get()));
    Window->OpenFile(Frame);
    for (const char* name : {"txtRA", "txtDec", "txtRegions"}) {
        Find<QLineEdit>(name)->clear();
    }
    QTest::keyClick(Find<QLineEdit>("txtRA"), Qt::Key_Return, Qt::ControlModifier);
    EXPECT_EQ(Shown("lblStatus"), "Plate Match Found");
    EXPECT_EQ(Dialogs.Messages, Texts{});
    std::filesystem::remove_all(Folder / "catalog");
    Window->OpenFile(Frame);
    QTimer::singleShot(0, Window.get(), [this] { Press("cmdStop"); });
    Press("cmdJustSolve");
    EXPECT_EQ(Shown("lblStatus"), "Search Terminated");
}

TEST_F(Evening, ADoubtfulSolutionSaysSoAndSyncAsks) {
    const auto script = std::make_shared<TelescopeScript>();
    State->CreateTelescope = FactoryOf(script);
    Solve();
    Press("cmdResiduals");
    QWidget* residuals = WindowNamed("fResiduals");
    ASSERT_NE(residuals, nullptr);
    const std::size_t stars = MatchedStars(*State->Solution).size();
    EXPECT_TRUE(residuals->findChild<QLabel*>("lblResiduals")
                    ->text()
                    .startsWith(QString::number(stars) + " matched stars"));
    for (const Residual& one : ResidualsOf(*State)) EXPECT_LT(std::hypot(one.Dx, one.Dy), 0.3);

    State->Solution->Confidence.Log10FalseAlarm = -2;
    Choose("Copy Result");  // any command updates the display
    EXPECT_EQ(Shown("lblTrust"), "Doubtful");
    EXPECT_NE(Shown("lblTrustWhy").find("Just Solve"), std::string::npos);
    Dialogs.Agrees = false;
    Press("cmdSync");
    ASSERT_EQ(Dialogs.Messages.size(), 1u);
    EXPECT_NE(Dialogs.Messages[0].find("not sure (Doubtful)"), std::string::npos);
    EXPECT_EQ(script->Calls(), Texts{});
    Dialogs.Agrees = true;
    Press("cmdSync");
    EXPECT_EQ(Shown("lblStatus"), "Telescope: synced to the image centre");
}

TEST_F(Evening, ThePlaceUnderThePointerCanBeCopiedChosenAndNamed) {
    Solve();
    Press("cmdImage");
    QWidget* image = WindowNamed("fImage");
    auto* area = dynamic_cast<PictureArea*>(image->findChild<QWidget*>("picImage"));
    const PlateStar star = *MatchedStars(*State->Solution).front().Catalog;
    const auto place = SkyMap::Of(State->Image.Header)->PixelOf({star.Ra, star.Dec});
    const auto choose = [&](const char* name) {
        area->OnContextMenu(*place, area->mapToGlobal(QPoint(5, 5)));
        auto* menu = image->findChild<QMenu*>("mnuPlace");
        menu->findChild<QAction*>(name)->trigger();
        menu->close();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    };
    choose("mnuCopyPlace");
    const auto copied = ParsePosition(Utf8(QApplication::clipboard()->text()));
    ASSERT_TRUE(copied);
    EXPECT_NEAR(copied->Ra, star.Ra, 2e-6);
    EXPECT_NEAR(copied->Dec, star.Dec, 2e-6);
    choose("mnuSetCentre");
    EXPECT_NEAR(ParseRA(Utf8(Find<QLineEdit>("txtRA")->text())), star.Ra, 2e-6);
    choose("mnuMeasure");
    ASSERT_NE(WindowNamed("fStats"), nullptr);
    EXPECT_TRUE(
        WindowNamed("fStats")->findChild<QPlainTextEdit*>()->toPlainText().contains("Centroid x"));
    choose("mnuIdentify");
    EXPECT_TRUE(dynamic_cast<QMainWindow*>(image)->statusBar()->currentMessage().startsWith(
        "Catalog star at "));

    // Commands of the solve window are here too.
    EXPECT_NE(image->findChild<QMenuBar*>(), nullptr);
    QTest::keyClick(image, Qt::Key_D, Qt::ControlModifier);
    EXPECT_TRUE(QTest::qWaitFor([] { return WindowNamed("fResiduals") != nullptr; }));
}

TEST_F(Evening, TheWholePictureIsExportedWithEverythingOverIt) {
    Solve();
    Press("cmdImage");
    QWidget* image = WindowNamed("fImage");
    const auto exported = [&](const char* name) {
        Dialogs.FileToChoose = QtText((Folder / name).string());
        image->findChild<QAction*>("mnuExportPicture")->trigger();
        return ReadFile(Folder / name);
    };
    image->activateWindow();
    ASSERT_TRUE(QTest::qWaitForWindowActive(image));
    exported("marked.png");
    EXPECT_EQ(Dialogs.Over, "fImage");
    for (const char* overlay : {"mnuExtracted", "mnuCatalog", "mnuMatched", "mnuCompass"}) {
        image->findChild<QAction*>(overlay)->setChecked(false);
    }
    exported("plain.png");
    const QImage marked(QtText((Folder / "marked.png").string()));
    const QImage plain(QtText((Folder / "plain.png").string()));
    EXPECT_EQ(marked.size(), QSize(side, side));
    EXPECT_EQ(plain.size(), QSize(side, side));
    EXPECT_TRUE(plain.allGray() && !marked.allGray());
    // Pixel for pixel the picture of the image: the brightest are the stars.
    const PlateStar star = *MatchedStars(*State->Solution).front().Plate;
    const int x = static_cast<int>(std::lround(star.X));
    const int y = side - 1 - static_cast<int>(std::lround(star.Y));
    EXPECT_GT(qRed(plain.pixel(x, y)), 200);
    EXPECT_TRUE(exported("plain.pdf").starts_with("%PDF"));
    Dialogs.KindToChoose = "PDF Files";
    exported("chosen");
    EXPECT_TRUE(ReadFile(Folder / "chosen.pdf").starts_with("%PDF"));
    EXPECT_EQ(Dialogs.Messages, Texts{});
}

TEST_F(Evening, APageHasThePictureAndEverythingOverItWhereAnotherReaderLooks) {
    if (std::system("pdftoppm -v && pdftotext -v") != 0) SKIP_OR_FAIL("no poppler-utils");
    Solve();
    Press("cmdImage");
    QWidget* image = WindowNamed("fImage");
    for (const char* overlay : {"mnuExtracted", "mnuCatalog"}) {
        image->findChild<QAction*>(overlay)->setChecked(false);
    }
    image->findChild<QAction*>("mnuMagnitudes")->setChecked(true);
    const auto fileOf = [this](const char* name) { return QtText((Folder / name).string()); };
    const auto run = [this](const std::string& command) {
        return std::system(("cd " + Folder.Path.string() + " && " + command).c_str()) == 0;
    };
    for (const char* name : {"page.png", "page.pdf"}) {
        Dialogs.FileToChoose = fileOf(name);
        image->findChild<QAction*>("mnuExportPicture")->trigger();
    }
    QPrinter printer(QPrinter::HighResolution);
    printer.setOutputFormat(QPrinter::PdfFormat);
    printer.setPageSize(QPageSize(QPageSize::A4));
    printer.setPageOrientation(QPageLayout::Landscape);
    printer.setOutputFileName(fileOf("printed.pdf"));
    dynamic_cast<ImageWindow*>(image)->PrintOn(printer);
    ASSERT_TRUE(run("pdftoppm -r 72 -png -singlefile page.pdf drawn"));
    ASSERT_TRUE(
        run("pdftotext -bbox page.pdf page.html && pdftotext -bbox printed.pdf printed.html"));

    // The same but for the edges of letters and rings.
    const auto blurred = [&](const char* name) {
        const QImage picture(fileOf(name));
        EXPECT_EQ(picture.size(), QSize(side, side)) << name;
        return picture.scaled(side / 6, side / 6, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
    };
    const QImage wanted = blurred("page.png");
    const QImage drawn = blurred("drawn.png");
    int different = 0;
    for (int y = 0; y < wanted.height(); ++y) {
        for (int x = 0; x < wanted.width(); ++x) {
            const int apart = std::abs(qGreen(drawn.pixel(x, y)) - qGreen(wanted.pixel(x, y)));
            different += apart > 60 ? 1 : 0;
        }
    }
    EXPECT_LT(different, wanted.width() * wanted.height() / 50);

    // The magnitude beside a star, in letters of the same size on any paper.
    const QRegularExpression word(R"re(<page width="([0-9.]+)" height="([0-9.]+)"|)re"
                                  R"re(<word xMin="([0-9.]+)" yMin="([0-9.]+)" xMax="([0-9.]+)" )re"
                                  R"re(yMax="([0-9.]+)">(1[0-9]\.[0-9]{2})<)re");
    std::map<std::string, std::map<std::string, double>> heights;
    for (const char* name : {"page.html", "printed.html"}) {
        double page = 0;
        auto found = word.globalMatch(QString::fromStdString(ReadFile(Folder / name)));
        while (found.hasNext()) {
            const QRegularExpressionMatch one = found.next();
            const auto number = [&](int k) { return one.captured(k).toDouble(); };
            if (!one.captured(1).isEmpty()) page = std::min(number(1), number(2));
            const std::string text = one.captured(7).toStdString();
            if (!text.empty()) heights[name][text] = (number(6) - number(4)) / page;
        }
    }
    ASSERT_GT(heights["page.html"].size(), 5u);
    for (const auto& [text, height] : heights["page.html"]) {
        EXPECT_NEAR(height * side, 14, 5) << text;
        ASSERT_TRUE(heights["printed.html"].contains(text)) << text;
        EXPECT_NEAR(heights["printed.html"][text], height, 0.2 * height) << text;
    }
}

TEST_F(Evening, AnObjectOrAWholePositionIsEnoughForTheCentre) {
    Window->OpenFile(Frame);
    TypeSearch();
    const auto expectCentre = [this](double ra, double dec) {
        EXPECT_NEAR(ParseRA(Utf8(Find<QLineEdit>("txtRA")->text())), ra, 1e-5);
        EXPECT_NEAR(ParseDec(Utf8(Find<QLineEdit>("txtDec")->text())), dec, 1e-5);
    };
    Type("txtRegions", "1");
    Type("txtRA", "andromeda galaxy");
    Press("cmdMatch");
    expectCentre(10.6848 * 3.14159265 / 180, 41.2691 * 3.14159265 / 180);
    EXPECT_EQ(Dialogs.Messages, Texts{});
    for (const char* box : {"txtRA", "txtDec"}) {
        Find<QLineEdit>("txtRA")->clear();
        QApplication::clipboard()->setText(QString::fromUtf8("00h 04m 35s, −00° 34′ 22″"));
        Find<QLineEdit>(box)->clear();
        Find<QLineEdit>(box)->paste();
        expectCentre((4 * 60 + 35) * 15 / 206264.806, -(34 * 60 + 22) / 206264.806);
    }
    // Over a text as long as the pasted one, too, and without a paste.
    Type("txtRA", "00 04 30.00");
    Type("txtDec", "00 34 00.0");
    Find<QLineEdit>("txtRA")->selectAll();
    QApplication::clipboard()->setText("83.633 22.014");
    Find<QLineEdit>("txtRA")->paste();
    expectCentre(1.459671, 0.384217);
    for (const char* text : {"83.633 22.014", "05 34 31.92 +22 00 50.4"}) {
        Dialogs.Messages.clear();
        Type("txtRA", text);
        Type("txtDec", "-05 23 28");
        Press("cmdMatch");
        EXPECT_EQ(Dialogs.Messages, Texts{}) << text;
        expectCentre(1.459671, 0.384217);
    }
    // A slip in one box leaves the other as it is.
    for (const char* text :
         {"nowhere", "02 42 04,2", "40,5", "02 42 04 2", "40,5 20", "25 34", "83,63 22"}) {
        Dialogs.Messages.clear();
        Type("txtRA", text);
        Type("txtDec", "42 44 51");
        Press("cmdMatch");
        EXPECT_EQ(Dialogs.Messages, Texts{errorTitle + "Please enter a valid RA value"}) << text;
        EXPECT_EQ(Utf8(Find<QLineEdit>("txtRA")->text()), text);
        EXPECT_EQ(Utf8(Find<QLineEdit>("txtDec")->text()), "42 44 51") << text;
    }
}

TEST_F(Evening, TheTableKeepsEverySolveAndAFolderIsSolvedBesides) {
    Solve();
    Choose("Table of Solutions");
    QWidget* window = WindowNamed("fSolutions");
    ASSERT_NE(window, nullptr);
    auto* rows = window->findChild<QTableWidget*>("tblSolutions");
    ASSERT_EQ(rows->rowCount(), 1);
    EXPECT_EQ(Utf8(rows->item(0, 5)->text()), "Sure");
    const PlateConstants plate = State->Solution->Transform;

    std::filesystem::create_directory(Folder / "night");
    for (const char* name : {"night/a.fit", "night/b.fit"}) Copy(name);
    WriteFile(Folder / "night/notes.txt", "no picture");
    WriteFile(Folder / "night/broken.fit", "SIMPLE  =");
    WriteQuadTables(Folder / "catalog", Stars, Stars.size(), 0.003, 0.006);
    auto* solutions = dynamic_cast<SolutionsWindow*>(window);
    solutions->SolveFolder(QtText((Folder / "night").string()));
    EXPECT_EQ(window->windowTitle(), "0 of 3 - Solutions");
    Window->OpenFile(Copy("other.fit"));  // the windows stay usable meanwhile
    EXPECT_TRUE(QTest::qWaitFor([&] { return rows->rowCount() == 4; }, 30000));
    EXPECT_EQ(window->windowTitle(), "Solutions");
    EXPECT_TRUE(window->findChild<QLabel*>("lblSolutions")
                    ->text()
                    .startsWith("Solved 2 of the 3 pictures"));
    for (const int row : {1, 2}) {
        EXPECT_EQ(Utf8(rows->item(row, 5)->text()), "Sure") << row;
        EXPECT_EQ(rows->item(row, 1)->text(), rows->item(0, 1)->text());
    }
    EXPECT_EQ(Utf8(rows->item(3, 0)->text()), "broken.fit");
    EXPECT_EQ(Utf8(rows->item(3, 5)->text()), "No solution");
    EXPECT_FALSE(State->Solution);

    rows->setCurrentCell(0, 0);
    QMetaObject::invokeMethod(rows, "cellActivated", Q_ARG(int, 0), Q_ARG(int, 0));
    ASSERT_TRUE(State->Solution);
    EXPECT_EQ(State->Image.FileName, Frame);
    EXPECT_EQ(State->Solution->Transform.a, plate.a);
    EXPECT_EQ(State->Solution->Transform.c, plate.c);
    EXPECT_EQ(Shown("lblNCat"), std::to_string(State->Solution->CatalogCount()));
    EXPECT_EQ(Shown("lblNPlate"), std::to_string(State->Solution->ExtractedCount));
    EXPECT_EQ(Shown("lblTrust"), "Sure");
    EXPECT_EQ(rows->rowCount(), 4);
    Dialogs.FileToChoose = QtText((Folder / "table").string());
    QTest::mouseClick(window->findChild<QPushButton*>("cmdExportSolutions"), Qt::LeftButton);
    const std::string csv = ReadFile(Folder / "table.csv");
    EXPECT_EQ(std::count(csv.begin(), csv.end(), '\n'), 5);
    EXPECT_NE(csv.find(FixedText(State->Solution->CentreRA * 57.29577951308232, 6)),
              std::string::npos);
}

TEST_F(Evening, TheDockIsToldHowMuchOfAFolderIsDone) {
    if (std::system("command -v dbus-daemon dbus-monitor >/dev/null") != 0) {
        SKIP_OR_FAIL("no dbus");
    }
    // A session of its own, in which another program listens.
    const std::string address = "unix:path=" + (Folder / "bus").string();
    const auto run = [this](const std::string& command) {
        ASSERT_EQ(std::system(("cd " + Folder.Path.string() + " && " + command).c_str()), 0);
    };
    run("dbus-daemon --session --fork --nopidfile --print-pid --address=" + address + " > daemon");
    run("{ dbus-monitor --address " + address +
        " \"interface='com.canonical.Unity.LauncherEntry'\" > heard & echo $! > monitor; }");
    EXPECT_TRUE(QTest::qWaitFor(
        [this] { return ReadFile(Folder / "heard").find("NameAcquired") != std::string::npos; }));
    setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
    QGuiApplication::setDesktopFileName("org.vestrel.Vestrel");
    std::filesystem::create_directory(Folder / "night");
    for (const char* name : {"night/a.fit", "night/b.fit"}) Copy(name);
    Choose("Table of Solutions");
    auto* solutions = dynamic_cast<SolutionsWindow*>(WindowNamed("fSolutions"));
    solutions->SolveFolder(QtText((Folder / "night").string()));
    const auto* rows = solutions->findChild<QTableWidget*>("tblSolutions");
    EXPECT_TRUE(QTest::qWaitFor([&] { return rows->rowCount() == 2; }, 30000));
    EXPECT_TRUE(QTest::qWaitFor([this] {
        const std::string heard = ReadFile(Folder / "heard");
        return heard.find("boolean false") != std::string::npos;
    }));
    const std::string heard = ReadFile(Folder / "heard");
    for (const char* told : {"application://org.vestrel.Vestrel.desktop", "boolean true",
                             "double 0\n", "double 0.5\n", "double 1\n"}) {
        EXPECT_NE(heard.find(told), std::string::npos) << told;
    }
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
    run("kill $(cat monitor daemon)");
}

TEST_F(Evening, SettingsAreKeptAndTakeEffectAtOnce) {
    const auto script = std::make_shared<TelescopeScript>();
    std::string asked;
    Window->TelescopeAt = [&, factory = FactoryOf(script)](const std::string& address) {
        asked = address;
        return factory();
    };
    const std::filesystem::path usual = State->Catalog.Folder;
    const auto set = [](const char* name, const std::string& text) {
        QWidget* settings = WindowNamed("fSettings");
        auto* input = settings->findChild<QLineEdit*>(name);
        input->setText(QtText(text));
        QMetaObject::invokeMethod(input, "editingFinished");
    };
    Choose("Settings...");
    QWidget* settings = WindowNamed("fSettings");
    ASSERT_NE(settings, nullptr);
    const auto* facts = settings->findChild<QPlainTextEdit*>("txtCatalogFacts");
    EXPECT_TRUE(facts->toPlainText().contains("Depth: about magnitude"));
    set("txtCatalogFolder", (Folder / "none").string());
    EXPECT_EQ(State->Catalog.Folder, Folder / "none");
    EXPECT_TRUE(facts->toPlainText().contains("no such folder"));
    set("txtCatalogFolder", "");
    EXPECT_EQ(State->Catalog.Folder, usual);
    set("txtTelescope", "indi://here/Mount");
    script->Set({}, {}, 5, 20);
    QTest::mouseClick(settings->findChild<QPushButton*>("cmdTestTelescope"), Qt::LeftButton);
    EXPECT_EQ(asked, "indi://here/Mount");
    EXPECT_TRUE(settings->findChild<QLabel*>("lblTelescopeTest")
                    ->text()
                    .startsWith("Telescope: connected, it points to "));
    script->Offered = {"Mount & Dome", "Focuser 100%"};
    QTest::mouseClick(settings->findChild<QPushButton*>("cmdTelescopeDevices"), Qt::LeftButton);
    auto* offered = settings->findChild<QMenu*>("mnuDevices");
    ASSERT_NE(offered, nullptr);
    ASSERT_EQ(offered->actions().size(), 2);
    for (QAction* action : offered->actions()) action->trigger();
    EXPECT_EQ(asked, "indi://here/Mount");  // until it is needed
    script->Set("devices", {}, 5, 20);
    QTest::mouseClick(settings->findChild<QPushButton*>("cmdTelescopeDevices"), Qt::LeftButton);
    EXPECT_EQ(asked, "indi://here/Focuser 100%25");
    EXPECT_TRUE(settings->findChild<QLabel*>("lblTelescopeTest")->text().contains("cat"));
    set("txtTelescope", "indi://here/Mount");
    set("txtLongitude", "-90");
    UpdateClock(*State);
    const std::string west = State->Display.Clock;
    set("txtLongitude", "90");
    UpdateClock(*State);
    EXPECT_NE(State->Display.Clock.substr(State->Display.Clock.find("LST")).substr(4, 2),
              west.substr(west.find("LST")).substr(4, 2));
    auto* theme = settings->findChild<QComboBox*>("cboTheme");
    theme->setCurrentIndex(3);
    QMetaObject::invokeMethod(theme, "activated", Q_ARG(int, 3));
    EXPECT_TRUE(IsRedOnly(QApplication::palette()));
    settings->close();
    Window->close();
    Open();
    EXPECT_EQ(PreferenceOf(*State, "telescope"), "indi://here/Mount");
    EXPECT_TRUE(IsRedOnly(QApplication::palette()));
    ApplyTheme("");
}

TEST_F(Evening, EveryControlHasANameAndEveryThemeIsReadable) {
    for (const char* entry : {"Show Image", "Levels", "Star Statistics", "Relative Photometry",
                              "Residuals", "Table of Solutions", "Show Header", "Help",
                              "Build Catalog...", "Edit Parameters...", "Settings..."}) {
        Choose(entry);
    }
    int controls = 0;
    for (QWidget* window : QApplication::topLevelWidgets()) {
        if (!window->isVisible()) continue;
        for (QWidget* control : window->findChildren<QWidget*>()) {
            const bool takesKeys = (control->focusPolicy() & Qt::TabFocus) != 0;
            const bool own = !control->objectName().startsWith("qt_");
            if (!takesKeys || !own || !control->isVisible()) continue;
            ++controls;
            QAccessibleInterface* face = QAccessible::queryAccessibleInterface(control);
            ASSERT_NE(face, nullptr);
            EXPECT_FALSE(face->text(QAccessible::Name).isEmpty())
                << Utf8(window->objectName()) << " " << Utf8(control->objectName()) << " "
                << control->metaObject()->className();
        }
        const QSize least = window->minimumSizeHint();
        EXPECT_TRUE(least.width() <= 960 && least.height() <= 500)
            << Utf8(window->objectName()) << " " << least.width() << " x " << least.height();
    }
    EXPECT_GT(controls, 50);

    // WCAG 2.1, success criterion 1.4.3.
    const auto luminance = [](const QColor& colour) {
        const auto part = [](double value) {
            return value <= 0.03928 ? value / 12.92 : std::pow((value + 0.055) / 1.055, 2.4);
        };
        return 0.2126 * part(colour.redF()) + 0.7152 * part(colour.greenF()) +
               0.0722 * part(colour.blueF());
    };
    const auto contrast = [&](const QColor& a, const QColor& b) {
        const double one = luminance(a) + 0.05;
        const double other = luminance(b) + 0.05;
        return std::max(one, other) / std::min(one, other);
    };
    for (const char* theme : {"light", "dark", "night"}) {
        const QPalette palette = *PaletteOf(theme);
        const QColor window = palette.color(QPalette::Window);
        const QColor base = palette.color(QPalette::Base);
        for (const auto role :
             {QPalette::WindowText, QPalette::Text, QPalette::ButtonText, QPalette::Link}) {
            EXPECT_GE(contrast(palette.color(role), window), 4.5) << theme << role;
            EXPECT_GE(contrast(palette.color(role), base), 4.5) << theme << role;
        }
        EXPECT_GE(contrast(palette.color(QPalette::PlaceholderText), base), 4.5) << theme;
        EXPECT_GE(
            contrast(palette.color(QPalette::HighlightedText), palette.color(QPalette::Highlight)),
            4.5)
            << theme;
        for (const TrustLevel level : {TrustLevel::Sure, TrustLevel::Check, TrustLevel::Doubtful}) {
            EXPECT_GE(contrast(TrustColour(level, palette), window), 4.5) << theme;
        }
        for (const StatusColour colour :
             {StatusColour::Black, StatusColour::Red, StatusColour::Green}) {
            EXPECT_GE(contrast(StatusTextColour(colour, palette), window), 4.5) << theme;
        }
    }
}

}  // namespace vestrel
