// What a session keeps: solutions whose files have changed since, and preferences that were
// damaged.

#include <QComboBox>
#include <QTableWidget>

#include "program/mPreferences.h"
#include "program/mTelescope.h"
#include "tests/desktopSupport.h"

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
    settings->close();
    Window->close();
    Open();
    EXPECT_EQ(PreferenceOf(*State, "telescope"), "");
}

}  // namespace vestrel
