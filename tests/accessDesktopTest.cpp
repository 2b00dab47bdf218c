// The windows for everybody: by keyboard alone, on a small screen, with any of the colours.

#include <QCheckBox>
#include <QDialog>
#include <QGroupBox>
#include <QLineEdit>
#include <QMainWindow>
#include <QMenuBar>
#include <QScrollArea>
#include <QScrollBar>
#include <QToolButton>
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

TEST_F(Access, NoTwoControlsOfAWindowHaveTheSameKey) {
    std::size_t keys = 0;
    for (QWidget* window : All()) {
        std::map<QChar, QString> taken;
        const auto take = [&](const QString& text) {
            const QKeySequence key = QKeySequence::mnemonic(text);
            if (key.isEmpty()) return;
            ++keys;
            const QString name = key.toString();
            const auto [place, isNew] = taken.try_emplace(name.back(), text);
            EXPECT_TRUE(isNew) << NameOf(window) << ": " << Utf8(place->second) << " and "
                               << Utf8(text);
        };
        for (const QWidget* control : window->findChildren<QWidget*>()) {
            if (control->window() != window) continue;
            const auto* label = dynamic_cast<const QLabel*>(control);
            if (label != nullptr && label->buddy() != nullptr) take(label->text());
            const auto* button = dynamic_cast<const QAbstractButton*>(control);
            // Those of a tool bar are in the menus.
            const bool inBar = control->parentWidget()->inherits("QToolBar");
            if (button != nullptr && !inBar) take(button->text());
            const auto* group = dynamic_cast<const QGroupBox*>(control);
            if (group != nullptr) take(group->title());
            const auto* bar = dynamic_cast<const QMenuBar*>(control);
            if (bar == nullptr) continue;
            for (const QAction* menu : bar->actions()) take(menu->text());
        }
    }
    EXPECT_GT(keys, 50u);
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
    // Nor after a search that found nothing, or while the program counts down.
    TypeSearch("60 00 00", "2");
    Press("cmdMatch");
    Find<QWidget>("chkKeep")->parentWidget()->show();
    QCoreApplication::processEvents();
    for (const char* name : {"lblStatus", "lblTrustWhy", "cmdOffer", "txtDetails", "chkKeep"}) {
        const auto* control = Find<QWidget>(name);
        EXPECT_EQ(control->visibleRegion().boundingRect(), control->rect()) << name;
    }
    EXPECT_FALSE(scroll->verticalScrollBar()->isVisible())
        << scroll->verticalScrollBar()->maximum() << " " << Shown("lblTrustWhy");
    // All switches of the image have their place.
    QWidget* image = WindowNamed("fImage");
    image->resize(900, 500);
    QCoreApplication::processEvents();
    for (const QAbstractButton* button : image->findChildren<QToolButton*>()) {
        if (button->text().isEmpty()) continue;
        EXPECT_EQ(button->visibleRegion().boundingRect(), button->rect()) << Utf8(button->text());
    }
}

TEST_F(Access, WhatLiesOverTheImageIsSeenInRedToo) {
    All();
    SetPreference(*State, "theme", "night");
    Window->ApplySettings();
    QCoreApplication::processEvents();
    QWidget* image = WindowNamed("fImage");
    auto* area = image->findChild<QWidget*>("picImage");
    const std::vector<const char*> overlays = {"mnuExtracted", "mnuCatalog", "mnuMatched",
                                               "mnuGrid",      "mnuNames",   "mnuCompass"};
    const auto show = [&](const char* name, bool on) {
        image->findChild<QAction*>(name)->setChecked(on);
    };
    show("mnuMagnitudes", true);
    for (const char* name : overlays) show(name, false);
    const QImage plain = area->grab().toImage();
    for (const char* name : overlays) {
        show(name, true);
        const QImage over = area->grab().toImage();
        double best = 1;
        for (int y = 0; y < plain.height(); ++y) {
            for (int x = 0; x < plain.width(); ++x) {
                const QRgb colour = over.pixel(x, y);
                if (colour == plain.pixel(x, y)) continue;
                EXPECT_LE(std::max(qGreen(colour), qBlue(colour)), qRed(colour) / 3 + 2) << name;
                best = std::max(best, Contrast(colour, plain.pixel(x, y)));
            }
        }
        const bool isThere = std::string(name) != "mnuNames";  // none is in this field
        EXPECT_TRUE(best >= 4.5 || !isThere) << name << " " << best;
        show(name, false);
    }
    // What is exported is for the day.
    Dialogs.FileToChoose = QtText((Folder / "whole.png").string());
    show("mnuMatched", true);
    image->findChild<QAction*>("mnuExportPicture")->trigger();
    const QImage exported(Dialogs.FileToChoose);
    int green = 0;
    for (int y = 0; y < exported.height(); ++y) {
        for (int x = 0; x < exported.width(); ++x) {
            const QRgb colour = exported.pixel(x, y);
            green += qGreen(colour) > qRed(colour) + 60 ? 1 : 0;
        }
    }
    EXPECT_GT(green, 100);
    ApplyTheme("");
}

TEST_F(Access, ATextIsAsHighAsItsLinesWhateverWasThereBefore) {
    Window->OpenFile(Frame);
    const auto* why = Find<QLabel>("lblTrustWhy");
    const auto* details = Find<QWidget>("txtDetails");
    TypeSearch("60 00 00", "2");
    for (const char* dec : {"00 34 00", "60 00 00", "00 34 00"}) {
        Press("cmdMatch");
        QCoreApplication::processEvents();
        EXPECT_EQ(why->height(), why->heightForWidth(why->width())) << dec;
        // Nothing is between it and the details but the usual space.
        const int below = why->mapTo(Window.get(), QPoint(0, why->height())).y();
        const int button = Find<QWidget>("cmdResiduals")->height();
        EXPECT_LT(details->mapTo(Window.get(), QPoint()).y() - below, button) << dec;
        TypeSearch(dec, "2");
    }
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
