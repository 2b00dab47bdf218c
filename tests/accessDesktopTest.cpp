// The windows for everybody: on a small screen.

#include <QCheckBox>
#include <QDialog>
#include <QGroupBox>
#include <QLineEdit>
#include <QMainWindow>
#include <QScrollArea>
#include <QScrollBar>

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
