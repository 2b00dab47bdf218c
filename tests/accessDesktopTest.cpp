// The windows for everybody: by keyboard alone, on a small screen, with any of the colours.

#include <QCheckBox>
#include <QDialog>
#include <QGroupBox>
#include <QLineEdit>
#include <QMainWindow>
#include <QScrollArea>
#include <QScrollBar>
#include <cmath>
#include <map>
#include <set>

#include "program/mPreferences.h"
#include "tests/desktopSupport.h"

namespace vestrel {
namespace {

/// A screen of 1920 × 1080 at twice the size, without the frame of the window.
constexpr QSize smallScreen(960, 508);

/// Relative luminance of WCAG 2.1.
double Luminance(QRgb colour) {
    const auto part = [](int value) {
        const double x = value / 255.0;
        return x <= 0.03928 ? x / 12.92 : std::pow((x + 0.055) / 1.055, 2.4);
    };
    return 0.2126 * part(qRed(colour)) + 0.7152 * part(qGreen(colour)) +
           0.0722 * part(qBlue(colour));
}

double Contrast(QRgb a, QRgb b) {
    const double one = Luminance(a) + 0.05;
    const double other = Luminance(b) + 0.05;
    return std::max(one, other) / std::min(one, other);
}

/// Of the text that is drawn in a part of a window, against what it is drawn on.
double TextContrast(const QImage& picture) {
    std::map<QRgb, int> colours;
    for (int y = 0; y < picture.height(); ++y) {
        for (int x = 0; x < picture.width(); ++x) ++colours[picture.pixel(x, y)];
    }
    QRgb ground = 0;
    int most = 0;
    for (const auto& [colour, count] : colours) {
        if (count > most) ground = colour;
        most = std::max(most, count);
    }
    double best = 1;
    for (const auto& [colour, count] : colours) best = std::max(best, Contrast(colour, ground));
    return best;
}

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
        for (const char* entry :
             {"Show Image", "Levels", "Star Statistics", "Relative Photometry", "Residuals",
              "Table of Solutions", "Show Header", "Help", "MORA Messages", "Build Catalog...",
              "Edit Parameters...", "Settings..."}) {
            Choose(entry);
        }
        for (QAction* action : Window->findChildren<QAction*>()) {
            if (action->shortcut() == QKeySequence(QKeySequence::HelpContents)) action->trigger();
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
    EXPECT_EQ(windows.size(), 13u);
    for (QWidget* window : windows) {
        std::set<const QWidget*> wanted;
        for (const QWidget* control : window->findChildren<QWidget*>()) {
            const bool takes = (control->focusPolicy() & Qt::TabFocus) != 0;
            const bool own = !control->objectName().startsWith("qt_");
            if (takes && own && control->isVisible() && control->isEnabled() &&
                control->focusProxy() == nullptr && control->window() == window) {
                wanted.insert(control);
            }
        }
        const std::size_t enough = 4 * wanted.size() + 20;
        for (std::size_t presses = 0; presses < enough && !wanted.empty(); ++presses) {
            QWidget* focus = window->focusWidget();
            reached += wanted.erase(focus);
            QTest::keyClick(focus != nullptr ? focus : window, Qt::Key_Tab);
        }
        for (const QWidget* control : wanted) ADD_FAILURE() << NameOf(control);
    }
    EXPECT_GT(reached, 70u);
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

TEST_F(Access, WhatIsWrittenIsReadableInEveryTheme) {
    const std::vector<QWidget*> windows = All();
    const QPalette before = QApplication::palette();
    for (const char* theme : {"light", "dark", "night"}) {
        SetPreference(*State, "theme", theme);
        Window->ApplySettings();
        QCoreApplication::processEvents();
        int texts = 0;
        for (QWidget* window : windows) {
            const QImage picture = window->grab().toImage();
            for (const QWidget* control : window->findChildren<QWidget*>()) {
                QString text;
                if (const auto* label = dynamic_cast<const QLabel*>(control)) text = label->text();
                if (const auto* button = dynamic_cast<const QAbstractButton*>(control)) {
                    text = button->text();
                }
                if (const auto* input = dynamic_cast<const QLineEdit*>(control)) {
                    text = input->text() + input->placeholderText();
                }
                if (control->window() != window) continue;
                // What cannot be used at present need not be read.
                if (text.isEmpty() || !control->isVisible() || !control->isEnabled()) continue;
                ++texts;
                const QRect place(control->mapTo(window, QPoint()), control->size());
                EXPECT_GE(TextContrast(picture.copy(place)), 4.5)
                    << theme << ": " << NameOf(control) << " " << Utf8(text.left(40));
            }
        }
        EXPECT_GT(texts, 80);
    }
    QApplication::setPalette(before);
}

}  // namespace vestrel
