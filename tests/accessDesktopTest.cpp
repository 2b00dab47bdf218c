// The windows for everybody: by keyboard alone, and on a small screen.

#include <QCheckBox>
#include <QDialog>
#include <QGroupBox>
#include <QLineEdit>
#include <QMainWindow>
#include <QScrollArea>
#include <QScrollBar>
#include <set>

#include "tests/desktopSupport.h"

namespace vestrel {
namespace {

/// A screen of 1920 × 1080 at twice the size, without the frame of the window.
constexpr QSize smallScreen(960, 508);

std::string NameOf(const QWidget* widget) {
    return Utf8(widget->window()->objectName() + " " + widget->metaObject()->className() + " " +
                widget->objectName());
}

class Access : public Windows {
 protected:
    /// Every window, after a solve.
    std::vector<QWidget*> All() {
        Window->OpenFile(Frame);
        TypeSearch();
        Press("cmdMatch");
        for (const char* entry : {"Show Image", "Levels", "Star Statistics", "Relative Photometry",
                                  "Residuals", "Table of Solutions", "Show Header", "Help",
                                  "MORA Messages", "Edit Parameters...", "Settings..."}) {
            Choose(entry);
        }
        std::vector<QWidget*> windows;
        for (QWidget* window : QApplication::topLevelWidgets()) {
            const bool ours = dynamic_cast<QMainWindow*>(window) != nullptr ||
                              dynamic_cast<QDialog*>(window) != nullptr;
            if (window->isVisible() && ours) windows.push_back(window);
        }
        return windows;
    }
};

}  // namespace

TEST_F(Access, TheTabKeyReachesEveryControlOfEveryWindow) {
    std::size_t reached = 0;
    std::vector<QWidget*> windows = All();
    EXPECT_GE(windows.size(), 11u);
    // Those in front keep the keyboard from the others.
    for (const char* modal : {"fParms", "fSettings"}) {
        std::stable_partition(windows.begin(), windows.end(),
                              [&](const QWidget* window) { return window->objectName() == modal; });
    }
    for (QWidget* window : windows) {
        window->activateWindow();
        ASSERT_TRUE(QTest::qWaitForWindowActive(window)) << NameOf(window);
        std::set<const QWidget*> wanted;
        for (const QWidget* control : window->findChildren<QWidget*>()) {
            const bool takes = (control->focusPolicy() & Qt::TabFocus) != 0;
            const bool own = !control->objectName().startsWith("qt_");
            if (takes && own && control->isVisible() && control->isEnabled() &&
                control->focusProxy() == nullptr && control->window() == window) {
                wanted.insert(control);
            }
        }
        for (int presses = 0; presses < 60 && QApplication::focusWidget() != nullptr; ++presses) {
            wanted.erase(QApplication::focusWidget());
            QTest::keyClick(QApplication::focusWidget(), Qt::Key_Tab);
            ++reached;
        }
        if (QApplication::focusWidget() == nullptr) {
            QTest::keyClick(window, Qt::Key_Tab);
        }
        for (const QWidget* control : wanted) ADD_FAILURE() << NameOf(control);
        if (auto* dialog = dynamic_cast<QDialog*>(window); dialog != nullptr && dialog->isModal()) {
            dialog->reject();
            QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        }
    }
    EXPECT_GT(reached, 100u);
}

TEST_F(Access, OnASmallScreenNothingIsCutOffAndTheStatusIsSeenWithoutScrolling) {
    for (QWidget* window : All()) {
        window->resize(window->size().boundedTo(smallScreen));
        QCoreApplication::processEvents();
        EXPECT_LE(window->width(), smallScreen.width()) << NameOf(window);
        EXPECT_LE(window->height(), smallScreen.height()) << NameOf(window);
        for (QWidget* control : window->findChildren<QWidget*>()) {
            const auto* label = dynamic_cast<QLabel*>(control);
            const bool whole = (label != nullptr && !label->wordWrap() &&
                                dynamic_cast<const ElidedLabel*>(label) == nullptr) ||
                               dynamic_cast<QAbstractButton*>(control) != nullptr;
            const bool own = !control->objectName().startsWith("qt_");
            if (!whole || !own || !control->isVisible()) continue;
            EXPECT_GE(control->width(), control->minimumSizeHint().width()) << NameOf(control);
            EXPECT_GE(control->height() + 2, control->minimumSizeHint().height())
                << NameOf(control);
        }
    }
    Window->resize(smallScreen);
    QCoreApplication::processEvents();
    for (const char* name : {"lblStatus", "lblTrust", "lblTrustWhy", "cmdResiduals", "txtDetails",
                             "cmdJustSolve", "cmdMatch", "lblRA", "lblClock"}) {
        const auto* control = Find<QWidget>(name);
        EXPECT_EQ(control->visibleRegion().boundingRect(), control->rect()) << name;
    }
    const auto* scroll = dynamic_cast<QScrollArea*>(Window->centralWidget());
    ASSERT_NE(scroll, nullptr);
    EXPECT_FALSE(scroll->verticalScrollBar()->isVisible());
    EXPECT_FALSE(scroll->horizontalScrollBar()->isVisible());
}

}  // namespace vestrel
