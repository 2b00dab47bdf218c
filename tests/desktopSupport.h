// The real windows on a platform without a screen, and a sky for them to solve.
#pragma once

#include <gtest/gtest.h>

#include <QAction>
#include <QApplication>
#include <QComboBox>
#include <QFileDialog>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QtTest/QTest>
#include <memory>

#include "desktop/fKELInfo.h"
#include "tests/skySupport.h"
#include "tests/testSupport.h"

namespace vestrel {

using Texts = std::vector<std::string>;

inline const std::string errorTitle = "Vestrel 1.13 Error: ";

/// Answers every dialog and records its text.
class DialogReader {
 public:
    DialogReader() {
        QObject::connect(&timer_, &QTimer::timeout, [this] { Read(); });
        timer_.start(1);
    }
    Texts Messages;        ///< "title: text"
    bool Agrees = true;    ///< to questions
    QString FileToChoose;  ///< empty: file dialogs are cancelled
    QString KindToChoose;  ///< how the entry of the file dialog's list of kinds begins
    QString Title;         ///< of the last file dialog
    QStringList Filters;
    QString Selected;
    QString Directory;
    QString Over;  ///< the window over which it opened

 private:
    void Read() {
        QWidget* dialog = QApplication::activeModalWidget();
        if (auto* box = dynamic_cast<QMessageBox*>(dialog)) {
            Messages.push_back(Utf8(box->windowTitle() + ": " + box->text()));
            QAbstractButton* yes = box->button(QMessageBox::Yes);
            if (yes != nullptr) {
                (Agrees ? yes : box->button(QMessageBox::No))->click();
            } else {
                box->accept();
            }
        } else if (auto* files = dynamic_cast<QFileDialog*>(dialog)) {
            Title = files->windowTitle();
            Over = files->parentWidget()->objectName();
            Filters = files->nameFilters();
            Selected = files->selectedNameFilter();
            Directory = files->directory().absolutePath();
            if (FileToChoose.isEmpty()) {
                files->reject();
                return;
            }
            auto* kinds = files->findChild<QComboBox*>("fileTypeCombo");
            const int kind = kinds->findText(KindToChoose, Qt::MatchStartsWith);
            if (!KindToChoose.isEmpty() && kind >= 0) {
                kinds->setCurrentIndex(kind);
                QMetaObject::invokeMethod(kinds, "textActivated",
                                          Q_ARG(QString, kinds->currentText()));
            }
            files->findChild<QLineEdit*>("fileNameEdit")->setText(FileToChoose);
            QMetaObject::invokeMethod(files, "accept");
        }
    }
    QTimer timer_;
};

class Windows : public testing::Test {
 protected:
    Windows() {
        setenv("VESTREL_SETTINGS", (Folder / "Vestrel.ini").c_str(), 1);
        setenv("XDG_STATE_HOME", Folder.Path.c_str(), 1);
        Frame = (Folder / "frame.fit").string();
        Stars = MakeSky(Folder / "catalog", Frame);
        Open();
    }
    /// Starts the program again.
    void Open() {
        Window.reset();
        State = std::make_unique<ProgramState>();
        State->Catalog.Folder = Folder / "catalog";
        Window = std::make_unique<SolveWindow>(*State);
        Window->SetCountdownInterval(2);
        Window->show();
    }

    template <typename Control>
    Control* Find(const char* name) const {
        Control* control = Window->findChild<Control*>(name);
        if (control == nullptr) throw std::runtime_error(std::string("no control ") + name);
        return control;
    }
    std::string Shown(const char* name) const { return Utf8(Find<QLabel>(name)->text()); }
    void Press(const char* name) const {
        QTest::mouseClick(Find<QPushButton>(name), Qt::LeftButton);
    }
    void Type(const char* name, const char* text) const {
        auto* input = Find<QLineEdit>(name);
        input->setFocus();
        input->selectAll();
        QTest::keyClicks(input, text);
    }
    void TypeSearch(const char* dec = "00 34 00", const char* regions = "9") const {
        Type("txtRA", "0h4m30s");
        Type("txtDec", dec);
        Type("txtXsize", "10");
        Type("txtYsize", "10.");
        Type("txtRegions", regions);
    }
    void Choose(const QString& text) const {
        for (QAction* action : Window->findChildren<QAction*>()) {
            if (action->text().remove('&') == text) return action->trigger();
        }
        throw std::runtime_error("no menu entry");
    }
    static QWidget* WindowNamed(const QString& name) {
        for (QWidget* window : QApplication::topLevelWidgets()) {
            if (window->objectName() == name && window->isVisible()) return window;
        }
        return nullptr;
    }
    bool WaitUntilClosed() const {
        return QTest::qWaitFor([this] { return !Window->isVisible(); }, 20000);
    }
    std::string ResultFile() const { return ReadFile(Folder / "frame.kel"); }
    std::string Parameters(const std::string& path, const std::string& regions = "4") const {
        return "0.0201,0.0099,0.0029089,0.0029089," + regions + "," + path;
    }

    TemporaryFolder Folder;
    std::string Frame;
    std::vector<CatalogStar> Stars;  ///< of the sky, brightest first
    std::unique_ptr<ProgramState> State;
    std::unique_ptr<SolveWindow> Window;
    DialogReader Dialogs;
};

}  // namespace vestrel
