// The help: at the field that has the keyboard or is pointed at, in every window.

#include <QAbstractItemView>
#include <QAbstractSpinBox>
#include <QCheckBox>
#include <QComboBox>
#include <QPlainTextEdit>
#include <QRegularExpression>
#include <QScrollBar>
#include <QSlider>
#include <QTabWidget>
#include <QTextBlock>
#include <QTextBrowser>
#include <QWhatsThis>
#include <set>

#include "program/mParameterTexts.h"
#include "tests/desktopSupport.h"

namespace vestrel {
namespace {

constexpr const char* entries[] = {"Show Image",          "Levels",        "Star Statistics",
                                   "Relative Photometry", "Residuals",     "Table of Solutions",
                                   "Show Header",         "MORA Messages", "Build Catalog...",
                                   "Edit Parameters...",  "Settings..."};

class Help : public Windows {
 protected:
    Help() {
        Window->OpenFile(Frame);
        Window->activateWindow();
    }
    static QList<QWidget*> VisibleWindows() {
        QList<QWidget*> windows = QApplication::topLevelWidgets();
        windows.removeIf([](const QWidget* window) { return !window->isVisible(); });
        return windows;
    }
    static QTextBrowser* Guide() {
        return WindowNamed("fHelp")->findChild<QTextBrowser*>("txtGuide");
    }
    /// Whether the guide shows where the explanation of a control begins.
    static bool Shows(const QString& name) {
        QTextDocument explanation;
        explanation.setHtml(HelpOn(name));
        const QString heading = explanation.begin().text();
        for (QTextBlock block = Guide()->document()->begin(); block.isValid();
             block = block.next()) {
            if (block.text() != heading) continue;
            const QRect place = Guide()->cursorRect(QTextCursor(block));
            return Guide()->viewport()->rect().contains(place);
        }
        return false;
    }
    /// Presses F1 with the keyboard in a control.
    static void Ask(QWidget* control) {
        control->window()->activateWindow();
        ASSERT_TRUE(QTest::qWaitForWindowActive(control->window()));
        control->setFocus();
        QTest::keyClick(control, Qt::Key_F1);
        ASSERT_NE(WindowNamed("fHelp"), nullptr)
            << Utf8(control->window()->objectName()) << " " << Utf8(control->objectName());
    }
    static bool IsField(const QWidget* control) {
        return dynamic_cast<const QLineEdit*>(control) != nullptr ||
               dynamic_cast<const QAbstractSpinBox*>(control) != nullptr ||
               dynamic_cast<const QComboBox*>(control) != nullptr ||
               dynamic_cast<const QCheckBox*>(control) != nullptr ||
               dynamic_cast<const QSlider*>(control) != nullptr ||
               dynamic_cast<const QAbstractItemView*>(control) != nullptr ||
               dynamic_cast<const QPlainTextEdit*>(control) != nullptr ||
               (dynamic_cast<const QTextEdit*>(control) != nullptr &&
                dynamic_cast<const QTextBrowser*>(control) == nullptr);
    }
    static std::vector<QWidget*> FieldsOf(const QWidget* window) {
        std::vector<QWidget*> fields;
        for (QWidget* control : window->findChildren<QWidget*>()) {
            const QString name = control->objectName();
            const bool own = !name.isEmpty() && !name.startsWith("qt_");
            if (own && IsField(control) && control->isEnabled() && control->window() == window &&
                control->isVisible()) {
                fields.push_back(control);
            }
        }
        return fields;
    }
};

}  // namespace

TEST_F(Help, F1ExplainsTheFieldThatHasTheKeyboardInEveryWindow) {
    std::set<QString> windows;
    int fields = 0;
    const auto explain = [&](QWidget* control) {
        const QString name = control->objectName();
        EXPECT_FALSE(HelpOn(name).isEmpty()) << Utf8(name);
        const std::string parameter = ParameterHelpOn(Utf8(name));
        Ask(control);
        ASSERT_FALSE(HasFatalFailure());
        QScrollBar* bar = Guide()->verticalScrollBar();
        bar->setValue(0);
        if (Shows(name)) bar->setValue(bar->maximum());
        EXPECT_FALSE(Shows(name)) << Utf8(name);
        Ask(control);
        ASSERT_FALSE(HasFatalFailure());
        const auto* pages = WindowNamed("fHelp")->findChild<QTabWidget*>("tabHelp");
        EXPECT_EQ(pages->currentIndex(), parameter.empty() ? 0 : 1) << Utf8(name);
        if (parameter.empty()) {
            EXPECT_TRUE(Shows(name)) << Utf8(name);
        } else {
            const auto* all = WindowNamed("fHelp")->findChild<QLabel*>("lblHelp");
            EXPECT_EQ(Utf8(all->selectedText()), parameter);
        }
    };
    for (const char* entry : entries) {
        const QList<QWidget*> before = VisibleWindows();
        Choose(entry);
        QWidget* window = nullptr;
        for (QWidget* one : VisibleWindows()) {
            if (!before.contains(one)) window = one;
        }
        ASSERT_NE(window, nullptr) << entry;
        windows.insert(window->objectName());
        if (window->objectName() != "fParms") explain(window);
        for (QWidget* field : FieldsOf(window)) {
            ++fields;
            explain(field);
            ASSERT_FALSE(HasFatalFailure());
        }
        window->close();
        WindowNamed("fHelp")->close();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
    EXPECT_EQ(windows.size(), std::size(entries));
    for (QWidget* field : FieldsOf(Window.get())) {
        ++fields;
        explain(field);
        ASSERT_FALSE(HasFatalFailure());
    }
    EXPECT_GT(fields, 35);
}

TEST_F(Help, AClickAfterShiftF1ExplainsAndDoesNothingElse) {
    const auto popup = [] {
        for (QWidget* one : QApplication::topLevelWidgets()) {
            if (one->inherits("QWhatsThat") && one->isVisible()) return true;
        }
        return false;
    };
    ASSERT_TRUE(QTest::qWaitForWindowActive(Window.get()));
    const QString units = Find<QPushButton>("cmdUnits")->text();
    const auto point = [&](QWidget* control) {
        QTest::keyClick(QApplication::activeWindow(), Qt::Key_F1, Qt::ShiftModifier);
        ASSERT_TRUE(QWhatsThis::inWhatsThisMode());
        EXPECT_EQ(control->whatsThis(), HelpOn(control->objectName()));
        QTest::mouseClick(control, Qt::LeftButton);
        EXPECT_TRUE(QTest::qWaitFor([] { return !QWhatsThis::inWhatsThisMode(); }));
        EXPECT_TRUE(QTest::qWaitFor(popup)) << Utf8(control->objectName());
        QWhatsThis::hideText();
        EXPECT_TRUE(QTest::qWaitFor([&] { return !popup(); }));
    };
    point(Find<QPushButton>("cmdUnits"));
    EXPECT_EQ(Find<QPushButton>("cmdUnits")->text(), units);
    point(Find<QPushButton>("cmdMatch"));
    EXPECT_EQ(Dialogs.Messages, Texts{});
    EXPECT_EQ(Shown("lblStatus"), "Ready");
    Choose("Settings...");
    ASSERT_TRUE(QTest::qWaitForWindowActive(WindowNamed("fSettings")));
    point(WindowNamed("fSettings")->findChild<QLineEdit*>("txtLongitude"));
}

TEST_F(Help, TheGuideSpeaksOnlyOfWhatIsThere) {
    for (const char* entry : entries) Choose(entry);
    std::set<QString> there = {"top", "trust", "telescope"};
    for (QWidget* window : QApplication::topLevelWidgets()) {
        there.insert(window->objectName());
        for (const QObject* control : window->findChildren<QWidget*>()) {
            there.insert(control->objectName());
        }
    }
    const auto all = [](const char* pattern) {
        std::set<QString> found;
        auto matches = QRegularExpression(pattern).globalMatch(HelpGuide());
        while (matches.hasNext()) found.insert(matches.next().captured(1));
        return found;
    };
    const std::set<QString> anchors = all("<a name=\"([^\"]*)\">");
    EXPECT_GT(anchors.size(), 50u);
    for (const QString& anchor : anchors) EXPECT_TRUE(there.contains(anchor)) << Utf8(anchor);
    for (const QString& link : all("href=\"#([^\"]*)\"")) {
        EXPECT_TRUE(anchors.contains(link)) << Utf8(link);
    }
    for (const QString& picture : all("src=\"qrc:([^\"]*)\"")) {
        EXPECT_FALSE(QImage(":" + picture).isNull()) << Utf8(picture);
    }
}

}  // namespace vestrel
