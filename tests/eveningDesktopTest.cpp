// What an observer meets in an evening with the windows.

#include <QClipboard>
#include <QDoubleSpinBox>
#include <QDropEvent>
#include <QMimeData>
#include <QPlainTextEdit>
#include <QScreen>
#include <QSpinBox>

#include "astro/libConversions.h"
#include "desktop/fPictureArea.h"
#include "program/mTrust.h"
#include "tests/desktopSupport.h"
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
    Choose("Write World Coordinates");  // its own file goes without a word
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
    WriteQuadTables(Folder / "catalog", Stars, Stars.size());
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
    EXPECT_TRUE(std::any_of(stages.begin(), stages.end(), [](const std::string& stage) {
        return stage.starts_with("Stage 1: ") && stage.ends_with(" s left at most");
    }));
    EXPECT_TRUE(Find<QPlainTextEdit>("txtDetails")->toPlainText().contains("Tried patterns"));

    // With nothing typed, but for the size of the last evening, from the keyboard.
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
    Choose("Copy Result");  // any command shows how things stand
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

}  // namespace vestrel
