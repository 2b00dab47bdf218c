// What a session keeps: solutions whose files have changed since, preferences that were damaged,
// and where its windows are.

#include <QComboBox>
#include <QMenu>
#include <QProcess>
#include <QScreen>
#include <QTableWidget>
#include <QTextBlock>
#include <QTextDocumentFragment>
#include <QTextEdit>
#include <QTextLayout>

#include <csignal>

#include "desktop/desktopOptions.h"
#include "program/mPreferences.h"
#include "program/mTelescope.h"
#include "tests/desktopSupport.h"
#include "tests/recordingTelescope.h"

namespace vestrel {
namespace {

class Session : public Windows {
 protected:
    std::string Copy(const std::string& name) const {
        const std::string path = (Folder / name).string();
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        std::filesystem::copy_file(Frame, path);
        return path;
    }
    void Solve(const std::string& path) {
        Window->OpenFile(path);
        TypeSearch();
        Press("cmdMatch");
        ASSERT_TRUE(State->Solution);
    }
    static QTableWidget* Rows() {
        return WindowNamed("fSolutions")->findChild<QTableWidget*>("tblSolutions");
    }
    static void Restore(int row) {
        QMetaObject::invokeMethod(Rows(), "cellActivated", Q_ARG(int, row), Q_ARG(int, 0));
    }
};

}  // namespace

TEST_F(Session, ASolutionWhoseFileIsGoneOrAnotherIsNotRestored) {
    const std::string path = Copy("kept.fit");
    Solve(path);
    Solve(Frame);
    Choose("Table of Solutions");
    ASSERT_EQ(Rows()->rowCount(), 2);
    const double ra = State->Solution->CentreRA;
    Restore(0);
    EXPECT_EQ(State->Image.FileName, path);
    ASSERT_TRUE(State->Solution);
    EXPECT_EQ(Dialogs.Messages, Texts{});

    // Another picture of the same name.
    WriteFile(path, FitsHeader(FitsCards(16, 40, 30, {})) + std::string(2880, '\0'));
    Restore(0);
    EXPECT_EQ(State->Image.Width, 40);
    EXPECT_FALSE(State->Solution);
    EXPECT_EQ(Dialogs.Messages.size(), 1u);
    EXPECT_FALSE(Find<QPushButton>("cmdSync")->isEnabled());

    std::filesystem::remove(path);
    Restore(0);
    EXPECT_FALSE(State->Solution);
    EXPECT_EQ(Dialogs.Messages.size(), 2u);
    EXPECT_FALSE(State->ImageLoaded);
    EXPECT_EQ(Rows()->rowCount(), 2);
    // The other one is as it was.
    Restore(1);
    ASSERT_TRUE(State->Solution);
    EXPECT_EQ(State->Solution->CentreRA, ra);
    EXPECT_EQ(Dialogs.Messages.size(), 2u);
}

TEST_F(Session, EverySolveOfAPictureIsInTheTableUnderItsNameAsItIs) {
    const std::string path = Copy("<h1>Sure <s>M31.fit");
    Choose("Table of Solutions");
    Solve(path);
    Type("txtRegions", "8");
    Press("cmdMatch");
    EXPECT_EQ(Rows()->rowCount(), 2);
    Type("txtRA", "nowhere");
    Press("cmdMatch");
    EXPECT_EQ(Dialogs.Messages.size(), 1U);
    EXPECT_EQ(Rows()->rowCount(), 2);
    Restore(0);
    EXPECT_EQ(Rows()->rowCount(), 2);
    TypeSearch();
    Press("cmdMatch");
    EXPECT_EQ(Rows()->rowCount(), 3);
    const QString tip = Rows()->item(0, 0)->toolTip();
    EXPECT_EQ(Utf8(QTextDocumentFragment::fromHtml(tip).toPlainText()), path);
}

TEST_F(Session, TheCauseOfAnEarlierFileIsNotThatOfTheNext) {
    WriteFile(Folder / "paper.xyz", "%PDF-1.4\n");
    WriteFile(Folder / "notes.xyz", "text");
    Window->OpenFile((Folder / "paper.xyz").string());
    EXPECT_TRUE(State->Display.Details.starts_with("  Cause ")) << State->Display.Details;
    Window->OpenFile((Folder / "notes.xyz").string());
    EXPECT_EQ(State->Display.Details, "");
    EXPECT_EQ(Dialogs.Messages.size(), 2U);
}

TEST_F(Session, TheTelescopeThatIsShownIsAskedEvenWhenItIsTypedWhileAnotherWaits) {
    const auto script = std::make_shared<TelescopeScript>();
    std::string asked;
    Window->TelescopeAt = [&, factory = FactoryOf(script)](const std::string& address) {
        asked = address;
        return factory();
    };
    State->TelescopePatience = {std::chrono::minutes(1), std::chrono::minutes(1)};
    Choose("Settings...");
    QWidget* settings = WindowNamed("fSettings");
    ASSERT_NE(settings, nullptr);
    auto* address = settings->findChild<QLineEdit*>("txtTelescope");
    auto* test = settings->findChild<QPushButton*>("cmdTestTelescope");
    // By its key, the button takes no keyboard from the input.
    address->setText("indi://here/One");
    script->Set({}, "ra", 5, 20);
    QTimer watch;
    QObject::connect(&watch, &QTimer::timeout, [&] {
        const Texts calls = script->Calls();
        if (calls.empty() || calls.back() != "ra") return;
        watch.stop();
        address->setText("indi://here/Two");
        QMetaObject::invokeMethod(address, "editingFinished");
        Press("cmdStop");
        State->StopRequested = true;
    });
    watch.start(5);
    test->click();
    EXPECT_EQ(asked, "indi://here/One");
    QApplication::processEvents();
    script->Set({}, {}, 5, 20);
    test->click();
    EXPECT_EQ(asked, "indi://here/Two");
    settings->close();
}

TEST_F(Session, SettingsThatCannotBeWrittenAreTold) {
    setenv("XDG_STATE_HOME", (Folder / "frame.fit/none").c_str(), 1);
    Window->close();
    EXPECT_FALSE(Window->isVisible());
    EXPECT_EQ(
        Dialogs.Messages,
        Texts{"Vestrel 1.13: The settings cannot be written. What was changed in this session is "
              "lost."});
}

TEST_F(Session, ASignalEndsTheProgramInGoodOrderUnderAMessageToo) {
    for (const std::string& picture : {Frame, (Folder / "missing.fit").string()}) {
        std::filesystem::remove_all(Folder / "vestrel");
        QProcess program;
        program.setProcessChannelMode(QProcess::ForwardedChannels);
        program.start(QCoreApplication::applicationDirPath() + "/vestrel",
                      {"-platform", "offscreen", QtText(picture)});
        ASSERT_TRUE(program.waitForStarted());
        const std::string status = "/proc/" + std::to_string(program.processId()) + "/status";
        const auto catches = [&status] {
            const std::string text = ReadFile(status);
            const std::size_t mask = text.find("SigCgt:");
            if (mask == std::string::npos) return false;
            const auto caught = std::stoull(text.substr(mask + 7), nullptr, 16);
            return (caught >> (SIGTERM - 1) & 1) == 1;
        };
        ASSERT_TRUE(QTest::qWaitFor(catches, 20000));
        QTest::qWait(300);  // it opens the picture
        program.terminate();
        ASSERT_TRUE(program.waitForFinished(20000));
        EXPECT_EQ(program.exitStatus(), QProcess::NormalExit);
        EXPECT_EQ(program.exitCode(), 0);
        EXPECT_NE(ReadFile(Folder / "vestrel/preferences").find("window.fKELInfo="),
                  std::string::npos);
    }
}

TEST_F(Session, AFolderThatTakesThePlaceOfAnotherIsCountedByItself) {
    WriteQuadTables(Folder / "catalog", Stars, Stars.size(), 0.003, 0.006);
    for (const char* name :
         {"first/a.fit", "first/b.fit", "first/c.fit", "second/d.fit", "second/e.fit"}) {
        Copy(name);
    }
    Choose("Table of Solutions");
    auto* window = dynamic_cast<SolutionsWindow*>(WindowNamed("fSolutions"));
    ASSERT_NE(window, nullptr);
    window->SolveFolder(QtText((Folder / "first").string()));
    QTest::qSleep(50);  // results wait until events run
    window->SolveFolder(QtText((Folder / "second").string()));
    const auto solved = [](const char* name) {
        return !Rows()->findItems(name, Qt::MatchExactly).isEmpty();
    };
    while (!solved("d.fit") || !solved("e.fit")) {
        EXPECT_TRUE(window->windowTitle().contains(" of 2 - ")) << Utf8(window->windowTitle());
        EXPECT_TRUE(window->findChild<QPushButton*>("cmdStopFolder")->isEnabled());
        ASSERT_FALSE(HasFailure());
        QTest::qWait(5);
    }
    EXPECT_EQ(window->windowTitle(), "Solutions");
}

TEST_F(Session, TheMenuOfRecentImagesOpensThemAgain) {
    QMenu* menu = nullptr;
    for (QMenu* one : Window->findChildren<QMenu*>()) {
        if (one->title() == "Open &Recent") menu = one;
    }
    ASSERT_NE(menu, nullptr);
    const auto entries = [&] {
        QMetaObject::invokeMethod(menu, "aboutToShow");
        Texts texts;
        for (const QAction* action : menu->actions()) texts.push_back(Utf8(action->text()));
        return texts;
    };
    EXPECT_EQ(entries(), Texts{"None"});
    EXPECT_FALSE(menu->actions()[0]->isEnabled());

    const std::string path = Copy("M 51 & <b>M 52</b>/first & last.fit");
    Window->OpenFile(path);
    Window->OpenFile(Frame);
    const std::string folder = Folder.Path.string();
    // In a menu, one & would underline the next letter.
    const std::string first = "first && last.fit  (" + folder + "/M 51 && <b>M 52</b>)";
    EXPECT_EQ(entries(), (Texts{"frame.fit  (" + folder + ")", first}));
    menu->actions()[1]->trigger();
    EXPECT_EQ(State->Image.FileName, path);
    EXPECT_EQ(entries(), (Texts{first, "frame.fit  (" + folder + ")"}));
    Choose("Show Image");
    bool shared = false;
    for (const QMenu* one : WindowNamed("fImage")->findChildren<QMenu*>()) {
        shared = shared || one->actions().contains(menu->menuAction());
    }
    EXPECT_TRUE(shared);

    Window->close();
    Open();
    std::filesystem::remove(path);
    for (QMenu* one : Window->findChildren<QMenu*>()) {
        if (one->title() == "Open &Recent") menu = one;
    }
    ASSERT_EQ(entries().size(), 2u);
    EXPECT_EQ(entries()[0], first);
    EXPECT_EQ(Dialogs.Messages, Texts{});
    menu->actions()[0]->trigger();
    EXPECT_EQ(Dialogs.Messages.size(), 1u);
    EXPECT_FALSE(State->ImageLoaded);
    entries();
    menu->actions()[menu->actions().size() - 1]->trigger();
    EXPECT_EQ(State->Image.FileName, Frame);
}

TEST_F(Session, AWrongLongitudeIsToldAndNotTaken) {
    Choose("Settings...");
    QWidget* settings = WindowNamed("fSettings");
    ASSERT_NE(settings, nullptr);
    auto* longitude = settings->findChild<QLineEdit*>("txtLongitude");
    const auto* fault = settings->findChild<QLabel*>("lblLongitudeFault");
    EXPECT_FALSE(fault->isVisible());
    settings->activateWindow();
    ASSERT_TRUE(QTest::qWaitForWindowActive(settings));
    const auto type = [&](const char* text) {
        longitude->setFocus();
        longitude->selectAll();
        QTest::keyClicks(longitude, text);
    };
    type("-70.4");
    EXPECT_FALSE(fault->isVisible());
    QTest::keyClick(longitude, Qt::Key_Tab);
    EXPECT_EQ(PreferenceOf(*State, "longitude"), "-70.4");
    const std::string told = "Please enter a valid Longitude, -360 to 360 degrees";
    for (const char* text : {"70 W", "-361", "12,5", "7O"}) {
        type(text);
        QTest::keyClick(longitude, Qt::Key_Tab);
        EXPECT_TRUE(fault->isVisible()) << text;
        EXPECT_EQ(Utf8(fault->text()), told);
        EXPECT_EQ(PreferenceOf(*State, "longitude"), "-70.4");
    }
    EXPECT_EQ(Dialogs.Messages, Texts{});
    // The window does not close over it, and the keyboard is where it is needed.
    settings->close();
    EXPECT_TRUE(settings->isVisible());
    EXPECT_EQ(Dialogs.Messages, Texts{errorTitle + told});
    EXPECT_EQ(settings->focusWidget(), longitude);
    EXPECT_EQ(longitude->selectedText(), "7O");
    QTest::keyClicks(longitude, "70");
    EXPECT_FALSE(fault->isVisible());
    QTest::keyClick(longitude, Qt::Key_Escape);
    EXPECT_FALSE(settings->isVisible());
    EXPECT_EQ(PreferenceOf(*State, "longitude"), "70");
    EXPECT_EQ(Dialogs.Messages.size(), 1u);
}

TEST_F(Session, WindowsComeBackWhereTheyWereAndOnAScreen) {
    const auto image = [this] {
        if (WindowNamed("fImage") == nullptr) Press("cmdImage");
        return WindowNamed("fImage");
    };
    const auto photometry = [this] {
        Choose("Relative Photometry");
        return WindowNamed("fRelPhot");
    };
    const auto start = [&] {
        Window->close();
        Open();
        Window->OpenFile(Frame);
    };
    Window->OpenFile(Frame);
    const QRect own(QPoint(37, 71), QSize(611, 523).expandedTo(Window->minimumSizeHint()));
    const QRect ofImage(61, 53, 411, 307);
    Window->setGeometry(own);
    image()->setGeometry(ofImage);
    start();
    EXPECT_EQ(Window->geometry(), own);
    EXPECT_EQ(image()->geometry(), ofImage);

    // The screen on which they were is gone, or is smaller now.
    const QRect room = Window->screen()->availableGeometry();
    for (const QPoint& away : {QPoint(room.right() + 500, 40), QPoint(40, room.bottom() + 500),
                               QPoint(-3000, -2000), QPoint(room.right() - 20, 40)}) {
        Window->setGeometry(QRect(away, own.size()));
        image()->setGeometry(QRect(away, ofImage.size()));
        photometry()->setGeometry(QRect(away, photometry()->size()));
        start();
        for (const QWidget* window : {static_cast<QWidget*>(Window.get()), image(), photometry()}) {
            EXPECT_TRUE(room.contains(window->geometry()))
                << Utf8(window->objectName()) << " from " << away.x() << " " << away.y() << " to "
                << window->x() << " " << window->y() << " " << window->width() << " "
                << window->height() << " in " << room.width() << " x " << room.height();
        }
    }
    Window->resize(room.size() * 2);
    start();
    EXPECT_TRUE(room.contains(Window->geometry()));
}

TEST_F(Session, AboutTellsTheVersionThatTheCommandLineTells) {
    Choose("About");
    QMessageBox* about = nullptr;
    for (QWidget* window : QApplication::topLevelWidgets()) {
        auto* box = dynamic_cast<QMessageBox*>(window);
        if (box != nullptr && box->isVisible()) about = box;
    }
    ASSERT_NE(about, nullptr);
    const std::string told = ReadDesktopArguments({"--version"}).Text;
    ASSERT_TRUE(told.starts_with("vestrel ") && told.ends_with("\n")) << told;
    const std::string version = told.substr(8, told.size() - 9);
    EXPECT_GE(version.size(), 5U);
    EXPECT_NE(Utf8(about->text()).find("Version " + version + "."), std::string::npos);
    // It does not keep a solve from being stopped.
    EXPECT_FALSE(about->isModal());
}

TEST_F(Session, ALongLineOfTheDetailsGoesOnUnderItsValue) {
    Solve(Frame);
    const auto* details = Find<QTextEdit>("txtDetails");
    Window->resize(Window->minimumSizeHint());
    int wrapped = 0;
    int values = 0;
    for (QTextBlock block = details->document()->begin(); block.isValid(); block = block.next()) {
        const QTextLayout& lines = *block.layout();
        if (lines.lineCount() < 2) continue;
        ++wrapped;
        const QString text = block.text();
        constexpr int column = 20;
        const bool isLabelled = text.size() > column && text[column - 2] == ' ' &&
                                text[column - 1] == ' ' && text[column] != ' ';
        const double value = lines.lineAt(0).cursorToX(column);
        for (int line = 1; line < lines.lineCount(); ++line) {
            const double x = lines.lineAt(line).naturalTextRect().left();
            EXPECT_GT(x, lines.lineAt(0).cursorToX(2)) << Utf8(text);
            if (!isLabelled) continue;
            ++values;
            EXPECT_NEAR(x, value, 1) << Utf8(text);
        }
    }
    EXPECT_GT(wrapped, 0);
    EXPECT_GT(values, 0);
    EXPECT_EQ(Utf8(details->toPlainText()), State->Display.Details);
}

TEST_F(Session, DamagedPreferencesDoNoHarm) {
    const QPalette usual = QApplication::palette();
    const std::filesystem::path catalog = State->Catalog.Folder;
    const auto siderealMinute = [this] {
        UpdateClock(*State);
        const std::string& clock = State->Display.Clock;
        return clock.substr(clock.find("LST"), 9);
    };
    Window->close();
    ASSERT_TRUE(std::filesystem::exists(Folder / "vestrel/preferences"));
    const std::string geometry = "zz00ff";
    WriteFile(Folder / "vestrel/preferences",
              "theme=purple\nlongitude=east\ncatalog=\x01\x02\ntelescope=" +
                  std::string(5000, 'x') + "\nwindow.fKELInfo=" + geometry +
                  "\nwindow.fImage=01d9d0cb0003\nno sign\n=no name\n" + std::string(3, '\0'));
    Open();
    EXPECT_TRUE(Window->isVisible());
    EXPECT_GE(Window->width(), 400);
    EXPECT_EQ(QApplication::palette(), usual);
    EXPECT_EQ(State->Catalog.Folder, catalog);
    Choose("Settings...");
    QWidget* settings = WindowNamed("fSettings");
    ASSERT_NE(settings, nullptr);
    EXPECT_EQ(settings->findChild<QComboBox*>("cboTheme")->currentIndex(), 0);
    auto* longitude = settings->findChild<QLineEdit*>("txtLongitude");
    for (const char* text : {"east", "nan", "1e999", "361", "-360.5", "12,5", "0x10"}) {
        longitude->setText(text);
        QMetaObject::invokeMethod(longitude, "editingFinished");
        const std::string with = siderealMinute();
        SetPreference(*State, "longitude", "");
        const std::string without = siderealMinute();
        // A minute may end in between.
        EXPECT_TRUE(with == without || with == siderealMinute()) << text;
    }
    EXPECT_TRUE(settings->findChild<QLabel*>("lblLongitudeFault")->isVisible());
    longitude->clear();
    settings->close();
    Window->close();
    Open();
    EXPECT_EQ(PreferenceOf(*State, "telescope"), "");
}

}  // namespace vestrel
