// The real windows, driven by mouse and keyboard on a platform without a screen.

#include <gtest/gtest.h>

#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QClipboard>
#include <QDropEvent>
#include <QFileDialog>
#include <QGroupBox>
#include <QHelpEvent>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QMessageBox>
#include <QMimeData>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QToolTip>
#include <QtTest/QTest>
#include <cmath>
#include <map>
#include <memory>
#include <tuple>

#include "astro/libConversions.h"
#include "astro/libMath.h"
#include "astro/libStrings.h"
#include "catalog/libCatalogCells.h"
#include "console/exitCodes.h"
#include "desktop/fKELInfo.h"
#include "image/libHeaderText.h"
#include "matching/libQuadFile.h"
#include "platform/libPlatform.h"
#include "program/mParameterTexts.h"
#include "program/mPlateMatch.h"
#include "tests/desktopSupport.h"
#include "tests/recordingTelescope.h"

namespace vestrel {

TEST_F(Windows, ASolveByHandShowsItsResult) {
    EXPECT_EQ(Window->windowTitle(), "Vestrel 1.13");
    EXPECT_EQ(Shown("lblStatus"), "Ready");
    EXPECT_EQ(Shown("lblName"), "Please Load an Image");
    EXPECT_TRUE(Find<QPushButton>("cmdMORA")->isHidden());
    Press("cmdMatch");
    EXPECT_EQ(Dialogs.Messages, Texts{errorTitle + "No Image Loaded"});
    Window->OpenFile(Frame);
    Press("cmdMatch");
    EXPECT_EQ(Dialogs.Messages.back(), errorTitle + "Please enter a valid RA value");
    EXPECT_EQ(Shown("lblStatus"), "Ready");

    TypeSearch();
    Press("cmdUnits");
    EXPECT_EQ(Find<QPushButton>("cmdUnits")->text(), "degrees");
    Press("cmdUnits");
    QTest::keyClick(Find<QLineEdit>("txtRegions"), Qt::Key_Return);
    EXPECT_EQ(Shown("lblStatus"), "Plate Match Found");
    EXPECT_EQ(Shown("lblStatus1"), "Searched 1 region");
    EXPECT_EQ(Find<QGroupBox>("fraCenter")->title(), "J2000 Image Center");
    EXPECT_NEAR(State->Solution->CentreRA, centre.Ra, 2e-6);
    EXPECT_NEAR(State->Solution->CentreDec, centre.Dec, 2e-6);
    const std::map<std::string, std::string> shown = {{"lblRA0", "00h04m30s"},
                                                      {"lblDec0", "00\xC2\xB0 34' 00\""},
                                                      {"lblSize", "10' x 10'"},
                                                      {"lblMaxRegions", "9"},
                                                      {"lblRA", State->Display.CentreRa},
                                                      {"lblStretch", "-1"},
                                                      {"lblNPlate", State->Display.Extracted},
                                                      {"lblNCat", State->Display.FoundInCatalog},
                                                      {"lblRMS", State->Display.RmsDifference},
                                                      {"lblPlateSize", "10' X 10'"}};
    for (const auto& [label, text] : shown) {
        EXPECT_EQ(Shown(label.c_str()), text) << label;
    }
    EXPECT_GE(std::stoi(Shown("lblNMatch")), 8);
    Choose("Copy Result");
    EXPECT_TRUE(QApplication::clipboard()->text().contains("Mirrored          no"));
    Choose("Write World Coordinates");
    EXPECT_TRUE(ReadFile(Folder / "frame.wcs").starts_with("SIMPLE"));

    // The typed and opened items return at the next start.
    Type("txtYsize", "12.3456");
    Press("cmdUnits");
    Window->close();
    Open();
    EXPECT_EQ(Find<QLineEdit>("txtYsize")->text(), "12.35");
    EXPECT_EQ(Find<QPushButton>("cmdUnits")->text(), "degrees");
    EXPECT_EQ(State->RecentImages, Texts{Frame});
    EXPECT_EQ(State->Parameters.LastOpenFolder, Folder.Path.string());
}

TEST_F(Windows, TheBoxesShowWhatTheHeaderOfAnOpenedPictureSays) {
    const std::string told = (Folder / "told.fit").string();
    WriteFile(told,
              FitsHeader(FitsCards(
                  16, 40, 40, {"OBJCTRA = '05 34 32'", "OBJCTDEC= '22 00 52'", "SECPIX  = 3.0"})) +
                  FitsPixels(16, std::vector<double>(1600, 300)));
    const auto expectBoxes = [this] {
        EXPECT_NEAR(ParseRA(Utf8(Find<QLineEdit>("txtRA")->text())), ParseRA("05 34 32"), 1e-6);
        EXPECT_NEAR(ParseDec(Utf8(Find<QLineEdit>("txtDec")->text())), ParseDec("22 00 52"), 1e-6);
        EXPECT_EQ(Find<QLineEdit>("txtXsize")->text(), "2");
        EXPECT_EQ(Find<QLineEdit>("txtYsize")->text(), "2");
    };
    Window->OpenFile(told);
    expectBoxes();
    Open();
    Dialogs.FileToChoose = QtText(told);
    Choose("Open...");
    expectBoxes();
}

TEST_F(Windows, AnUnattendedSolveDoesNotWaitBecauseItsSettingsAreOutOfDate) {
    Window->close();
    const std::filesystem::path settings = Folder / "Vestrel.ini";
    const std::string good = ReadFile(settings);
    std::string old = good;
    --old.at(0);
    WriteFile(settings, old);
    Window.reset();
    State = std::make_unique<ProgramState>();
    State->Catalog.Folder = Folder / "catalog";
    Window = std::make_unique<SolveWindow>(*State, true);
    const QList<QMessageBox*> told = Window->findChildren<QMessageBox*>();
    ASSERT_EQ(told.size(), 1);
    EXPECT_TRUE(told[0]->text().contains("out of date"));
    EXPECT_EQ(Dialogs.Messages, Texts{}) << "one that waits";
    Window->SetCountdownInterval(2);
    Window->show();
    EXPECT_TRUE(QTest::qWaitFor([&] { return told[0]->isVisible(); }));
    Window->StartUnattended(Parameters(Frame));
    EXPECT_TRUE(ResultFile().ends_with("Valid plate solution\r\n"));
    EXPECT_TRUE(WaitUntilClosed());
    EXPECT_EQ(ReadFile(settings).substr(0, 4), good.substr(0, 4));
}

TEST_F(Windows, StopAndCloseEndASearchBetweenTwoRegions) {
    Window->OpenFile(Frame);
    TypeSearch("60 00 00", "30000");
    int atStop = 0;
    const auto afterRegions = [&](int regions, const std::function<void()>& action) {
        auto* timer = new QTimer(Window.get());
        QObject::connect(timer, &QTimer::timeout, [=, this, &atStop] {
            if (State->Report.RegionsTried < regions || State->Running == Activity::None) return;
            timer->deleteLater();
            atStop = State->Report.RegionsTried;
            action();
        });
        timer->start(0);
    };
    const std::vector<std::function<void()>> stops = {
        [this] {
            Choose("About");  // must not delay the solve
            Press("cmdStop");
        },
        [this] { QTest::keyClick(Window.get(), Qt::Key_Escape); },
    };
    for (const auto& stop : stops) {
        afterRegions(3, [&] {
            EXPECT_FALSE(Find<QPushButton>("cmdMatch")->isEnabled());
            EXPECT_FALSE(Find<QPushButton>("Command1")->isEnabled());
            stop();
        });
        Press("cmdMatch");
        EXPECT_EQ(Shown("lblStatus"), "Search Terminated");
        EXPECT_LE(State->Report.RegionsTried, atStop + 1);
        EXPECT_TRUE(Find<QPushButton>("cmdMatch")->isEnabled());
        EXPECT_FALSE(Find<QPushButton>("cmdStop")->isEnabled());
        for (QMessageBox* box : Window->findChildren<QMessageBox*>()) box->close();
        Window->activateWindow();
        EXPECT_TRUE(QTest::qWaitForWindowActive(Window.get()));
    }
    bool openAfterClose = false;
    afterRegions(3, [&] {
        Window->close();
        openAfterClose = Window->isVisible();
    });
    Press("cmdMatch");
    EXPECT_TRUE(openAfterClose);
    EXPECT_FALSE(Window->isVisible());
    EXPECT_LE(State->Report.RegionsTried, atStop + 1);
}

TEST_F(Windows, MoraIsThereWithItsTablesAndTellsWhatItDoes) {
    const QPushButton* mora = Find<QPushButton>("cmdMORA");
    const QAction* entry = Find<QAction>("mnuMORA");
    EXPECT_TRUE(mora->isHidden() && !entry->isVisible());
    WriteQuadTables(Folder / "catalog", Stars, Stars.size());
    Window->OpenFile(Frame);
    EXPECT_TRUE(mora->isVisible() && mora->isEnabled() && entry->isVisible());

    TypeSearch("60 00 00");
    int early = 0;  // lines that were shown before the last ones
    bool startable = false;
    QTimer watch;
    QObject::connect(&watch, &QTimer::timeout, [&] {
        const QWidget* window = WindowNamed("fMORA");
        if (window == nullptr || State->Running == Activity::None) return;
        const auto* list = window->findChild<QPlainTextEdit*>("ListMORA");
        early = list->toPlainText().isEmpty() ? early : list->document()->blockCount();
        startable = startable || mora->isEnabled();
    });
    watch.start(0);
    const auto said = [this] {
        std::string lines;
        for (const std::string& line : State->QuadMatch.Messages) lines += line + "\n";
        return lines.substr(0, lines.size() - 1);
    };
    for (int search = 0; search < 2; ++search) {
        Press("cmdMORA");
        QWidget* window = WindowNamed("fMORA");
        ASSERT_NE(window, nullptr);
        const auto* list = window->findChild<QPlainTextEdit*>("ListMORA");
        EXPECT_EQ(Utf8(list->toPlainText()), said());
        EXPECT_TRUE(list->toPlainText().endsWith("MORA match successful"));
        QTest::mouseClick(window->findChild<QPushButton*>("cmdCopy"), Qt::LeftButton);
        EXPECT_EQ(Utf8(QApplication::clipboard()->text()), said());
        if (search == 0) window->close();
    }
    EXPECT_GT(early, 3);
    EXPECT_LT(early, static_cast<int>(State->QuadMatch.Messages.size()));
    EXPECT_FALSE(startable);
    EXPECT_EQ(Shown("lblStatus1").substr(0, 9), "Searched ");
    EXPECT_NEAR(ParseDec(Utf8(Find<QLineEdit>("txtDec")->text())), centre.Dec, 1e-5);
    Press("cmdMatch");
    EXPECT_EQ(Shown("lblStatus"), "Plate Match Found");

    std::filesystem::remove(Folder / "catalog" / QuadFileName);
    WindowNamed("fMORA")->activateWindow();
    EXPECT_TRUE(QTest::qWaitForWindowActive(WindowNamed("fMORA")));
    Window->activateWindow();
    EXPECT_TRUE(QTest::qWaitFor([&] { return mora->isHidden(); }));
}

TEST_F(Windows, AnUnattendedRunLeavesItsFileAndCloses) {
    // The same through the console's port.
    ProgramState console;
    RecordingPort port(console);
    console.Catalog.Folder = Folder / "catalog";
    ASSERT_EQ(RunUnattended(console, port, Parameters(Frame)).Result.Code, SolveCode::Solved);
    const std::string expected = ResultFile();
    EXPECT_NEAR(std::stod(expected), centre.Ra, 2e-6);
    EXPECT_TRUE(expected.ends_with("\r\nValid plate solution\r\n"));
    WriteFile(Folder / "frame.kel", "stale");

    Find<QCheckBox>("chkKeep")->setChecked(true);
    Window->StartUnattended(Parameters(Frame));
    EXPECT_EQ(ResultFile(), expected);
    EXPECT_EQ(Shown("lblTimer"), "10");
    EXPECT_EQ(Shown("lblSize"), "10' X 10'");
    QTest::qWait(100);
    EXPECT_TRUE(Window->isVisible());
    EXPECT_EQ(Shown("lblTimer"), "10");
    // Nor does it close under an open dialog.
    Choose("Settings...");
    Find<QCheckBox>("chkKeep")->setChecked(false);
    QTest::qWait(100);
    EXPECT_TRUE(Window->isVisible());
    ASSERT_NE(WindowNamed("fSettings"), nullptr);
    WindowNamed("fSettings")->close();
    EXPECT_TRUE(WaitUntilClosed());
    EXPECT_EQ(Window->EndsWith(), ExitCode::Solved);
    EXPECT_EQ(Dialogs.Messages, Texts{});
}

TEST_F(Windows, AnUnattendedFailureIsShownUntilTheCountdownEnds) {
    // A wrong use of the command line ends without a countdown.
    for (const auto& [parameters, code, message] :
         {std::tuple{std::string("1,2,3"), ExitCode::Usage, "Invalid parameter string"},
          {Parameters("frame"), ExitCode::InvalidFileName, "Invalid file name"}}) {
        Open();
        Dialogs.Messages.clear();
        Window->StartUnattended(parameters);
        EXPECT_EQ(Dialogs.Messages, Texts{errorTitle + message});
        EXPECT_EQ(Window->isVisible(), code != ExitCode::Usage);
        EXPECT_TRUE(WaitUntilClosed());
        EXPECT_EQ(Window->EndsWith(), code);
        EXPECT_EQ(ResultFile(), "");
    }

    Open();
    QTimer::singleShot(0, Window.get(), [this] { Window->close(); });
    Window->StartUnattended("2" + Parameters(Frame, "30000").substr(6));
    EXPECT_FALSE(Window->isVisible());  // at once: the countdown is for users who watch
    EXPECT_EQ(Window->EndsWith(), ExitCode::Stopped);
    EXPECT_TRUE(ResultFile().starts_with("1000,1000,-2\r\n"));
    EXPECT_TRUE(ResultFile().ends_with("\r\nVestrel was terminated by user\r\n"));
}

TEST_F(Windows, TheFileDialogsOfferTheirFiltersAndImagesCanBeDropped) {
    Choose("Open...");  // cancelled
    EXPECT_EQ(Dialogs.Title, "Open Image");
    EXPECT_EQ(Dialogs.Filters,
              (QStringList{"JPG Files (*.jpg) (*.jpg)", "BMP Files (*.bmp) (*.bmp)",
                           "SBIG Files (*.SBIG) (*.SBIG *.SBI)",
                           "FITS Files (*.FIT, *.FITS, *.FTS) (*.fit *.fits *.fts)",
                           "All Files (*.*) (*)"}));
    EXPECT_EQ(Utf8(Dialogs.Selected), "FITS Files (*.FIT, *.FITS, *.FTS)");
    EXPECT_EQ(Shown("lblName"), "Please Load an Image");

    Dialogs.FileToChoose = QtText(Frame);
    Choose("Open...");
    EXPECT_EQ(Shown("lblDir"), Folder.Path.string());
    EXPECT_TRUE(State->ImageLoaded);

    Dialogs.FileToChoose = QtText((Folder / "copy").string());
    Choose("Save As...");
    EXPECT_EQ(Dialogs.Title, "Save Image As");
    EXPECT_EQ(Dialogs.Messages, Texts{});
    EXPECT_TRUE(std::filesystem::exists(Folder / "copy.fit"));
    EXPECT_EQ(Shown("lblStatus"), "Saved copy.fit");
    EXPECT_EQ(Dialogs.Filters,
              (QStringList{"FITS Files (*.FIT, *.FITS, *.FTS) (*.fit *.fits *.fts)",
                           "All Files(*.*) (*)"}));
    Dialogs.FileToChoose.clear();
    Choose("Export...");
    EXPECT_EQ(Dialogs.Directory, QtText(Folder.Path.string()));

    QMimeData data;
    data.setUrls({QUrl::fromLocalFile(QtText((Folder / "copy.fit").string()))});
    QDragEnterEvent enter({10, 10}, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(Window.get(), &enter);
    EXPECT_TRUE(enter.isAccepted());
    QDropEvent drop({10, 10}, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(Window.get(), &drop);
    EXPECT_TRUE(QTest::qWaitFor([this] { return State->RecentImages.size() == 2; }));
    EXPECT_EQ(State->Image.FileName, (Folder / "copy.fit").string());
    EXPECT_EQ(State->Image.Width, side);
}

TEST_F(Windows, ParametersChangeWithOKOnly) {
    const ParameterTexts before = TextsOfParameters(State->Parameters);
    const auto edit = [this](const char* button, const char* text) {
        Press("Command1");
        QWidget* dialog = WindowNamed("fParms");
        ASSERT_NE(dialog, nullptr);
        for (const ParameterBox& box : ParameterBoxes) {
            if (*text != 0) dialog->findChild<QLineEdit*>(box.Name)->setText(text);
        }
        QTest::mouseClick(dialog->findChild<QPushButton*>(button), Qt::LeftButton);
    };
    edit("cmdCancel", "8");
    EXPECT_EQ(TextsOfParameters(State->Parameters), before);
    edit("cmdOK", "8");
    EXPECT_EQ(WindowNamed("fParms"), nullptr);
    ParameterTexts eights;
    eights.fill("8");
    EXPECT_EQ(TextsOfParameters(State->Parameters), eights);

    edit("cmdDefault", "9");  // stays open
    QWidget* dialog = WindowNamed("fParms");
    ASSERT_NE(dialog, nullptr);
    for (std::size_t i = 0; i < before.size(); ++i) {
        EXPECT_EQ(Utf8(dialog->findChild<QLineEdit*>(ParameterBoxes[i].Name)->text()), before[i]);
    }
    EXPECT_EQ(TextsOfParameters(State->Parameters), eights);
    dialog->findChild<QLineEdit*>("txtThreshold")->setText("six");
    QTest::mouseClick(dialog->findChild<QPushButton*>("cmdOK"), Qt::LeftButton);
    EXPECT_EQ(Dialogs.Messages,
              Texts{errorTitle + "Detection Threshold: \"six\" is not a number."});
    EXPECT_TRUE(dialog->isVisible());
    EXPECT_EQ(State->Parameters.MinStarSize, 3);  // the box before the faulty one was stored
    EXPECT_EQ(State->Parameters.MaxStars, 8);
    QTest::mouseClick(dialog->findChild<QPushButton*>("cmdHelp"), Qt::LeftButton);
    ASSERT_NE(WindowNamed("fHelp"), nullptr);
    EXPECT_EQ(Utf8(WindowNamed("fHelp")->findChild<QLabel*>("lblHelp")->text()),
              ParameterHelpText());
}

TEST_F(Windows, HeaderAndImageAreShownAsTheyAre) {
    Window->OpenFile(Frame);
    Choose("Show Header");
    QWidget* header = WindowNamed("fFITSHeader");
    ASSERT_NE(header, nullptr);
    std::string lines;
    for (const std::string& line : HeaderLines(State->Image)) lines += line + "\n";
    EXPECT_NE(lines.find("Observer = 'Ann & <b>Bob'"), std::string::npos);
    EXPECT_EQ(Utf8(header->findChild<QPlainTextEdit*>("textbox")->toPlainText()), lines);
    QTest::mouseClick(header->findChild<QPushButton*>("cmdCopy"), Qt::LeftButton);
    EXPECT_EQ(Utf8(QApplication::clipboard()->text()), lines);

    Press("cmdImage");
    QWidget* image = WindowNamed("fImage");
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(image->findChild<QLabel*>("lblImageSize")->text(), "300 X 300");
    // Controls that show texts from outside show them literally, not as markup.
    const std::string marked = (Folder / "<b>&amp;<img src=x>.fit").string();
    std::filesystem::copy_file(Frame, marked);
    Window->OpenFile(marked);
    for (QWidget* window : QApplication::topLevelWidgets()) {
        for (const QLabel* label : window->findChildren<QLabel*>()) {
            const bool outside = label->buddy() == nullptr && !label->objectName().isEmpty();
            if (outside) {
                EXPECT_EQ(label->textFormat(), Qt::PlainText) << Utf8(label->objectName());
            }
        }
    }
    Window->OpenFile(Frame);
    const QImage before = image->grab().toImage();
    TypeSearch();
    Press("cmdMatch");  // which subtracts the background
    EXPECT_NE(image->grab().toImage(), before);
    EXPECT_EQ(Shown("lblStatus"), "Plate Match Found");

    // Header texts of old programs are Latin-1.
    EXPECT_EQ(HeaderText("Caf\xe9 M\xfcller"), QString::fromUtf8("Caf\u00e9 M\u00fcller"));
    EXPECT_EQ(HeaderText("M\u00fcller"), QString::fromUtf8("M\u00fcller"));

    // After a file that cannot be read there is no image, and nothing is left of the one before.
    const std::string broken = Frame + ".broken.fit";
    WriteFile(PathFromText(broken), "SIMPLE  =");
    Window->OpenFile(broken);
    EXPECT_EQ(Utf8(header->findChild<QPlainTextEdit*>("textbox")->toPlainText()), "");
    EXPECT_NE(image->findChild<QLabel*>("lblImageSize")->text(), "300 X 300");
    EXPECT_FALSE(Find<QPushButton>("cmdSync")->isEnabled());
}

TEST_F(Windows, TheTelescopeIsAskedWithTheWindowAlive) {
    const auto script = std::make_shared<TelescopeScript>();
    State->CreateTelescope = FactoryOf(script);
    State->TelescopePatience = {std::chrono::minutes(1), std::chrono::minutes(1)};
    EXPECT_FALSE(Find<QPushButton>("cmdSync")->isEnabled());
    EXPECT_EQ(Find<QPushButton>("cmdSync")->toolTip(), "Send coords to SiTech");
    EXPECT_EQ(Find<QPushButton>("cmdLoad")->toolTip(), "Load coords from SiTech");
    Window->OpenFile(Frame);
    TypeSearch();
    Press("cmdMatch");
    Press("cmdSync");
    script->Set({}, {}, script->SentHours, script->SentDegrees);
    Type("txtRA", "elsewhere");
    Press("cmdLoad");
    EXPECT_EQ(Utf8(Find<QLineEdit>("txtRA")->text()), FormatRA(centre.Ra, false, 2));
    EXPECT_EQ(Utf8(Find<QLineEdit>("txtDec")->text()), FormatDec(centre.Dec, false, 1));
    EXPECT_EQ(Shown("lblStatus"), "Telescope: position loaded");
    // A refused command changes nothing, and a long message of the driver does not resize the
    // window.
    QTest::keyClicks(Find<QLineEdit>("txtYsize"), "1");
    script->Set("ra", {});
    script->Complaint = std::string(1000, 'w');
    const int narrowest = Window->minimumSizeHint().width();
    Press("cmdLoad");
    EXPECT_TRUE(Find<QLineEdit>("txtYsize")->isUndoAvailable());
    EXPECT_EQ(Shown("lblStatus"), "Telescope: " + script->Complaint);
    EXPECT_EQ(Window->minimumSizeHint().width(), narrowest);
    QHelpEvent help(QEvent::ToolTip, {}, {});
    QApplication::sendEvent(Find<QLabel>("lblStatus"), &help);
    EXPECT_TRUE(QToolTip::text().contains(QtText(script->Complaint)));

    // The driver hangs: the clock runs on, and Stop Search or closing the window ends the wait.
    const auto whileItHangs = [&](const std::function<void()>& action) {
        script->Set({}, "ra");
        const std::string before = Shown("lblClock");
        QTimer watch;
        QObject::connect(&watch, &QTimer::timeout, [&] {
            const Texts calls = script->Calls();
            if (calls.empty() || calls.back() != "ra" || Shown("lblClock") == before) return;
            watch.stop();
            EXPECT_TRUE(Find<QPushButton>("cmdStop")->hasFocus());
            EXPECT_FALSE(Find<QPushButton>("cmdLoad")->isEnabled());
            EXPECT_FALSE(Find<QPushButton>("cmdSync")->isEnabled());
            action();
        });
        watch.start(10);
        Press("cmdLoad");
        EXPECT_EQ(script->Calls().back(), "ra");
        EXPECT_FALSE(State->TelescopeConnected);
    };
    whileItHangs([this] { Press("cmdStop"); });
    EXPECT_TRUE(Find<QPushButton>("cmdLoad")->isEnabled());
    whileItHangs([this] { Window->close(); });
    EXPECT_FALSE(Window->isVisible());
    EXPECT_EQ(Dialogs.Messages, Texts{});
    // The drivers that hung return after the program has ended.
    Window.reset();
    State.reset();
    script->Set({}, {});
    EXPECT_TRUE(script->WaitForTheLast());
}

}  // namespace vestrel
