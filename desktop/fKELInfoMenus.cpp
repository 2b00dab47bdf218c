// The menus of the solve window.
#include <QAction>
#include <QApplication>
#include <QClipboard>
#include <QLabel>
#include <QMenuBar>
#include <QPushButton>
#include <utility>

#include "desktop/fKELInfo.h"
#include "desktop/libWindows.h"
#include "program/mSolveWindow.h"

namespace vestrel {

void SolveWindow::BuildMenus() {
    QMenu* file = menuBar()->addMenu("&File");
    QAction* open = AddAction(file, "&Open...", QKeySequence::Open,
                              [this] { OpenImageCommand(state_, port_); });
    startActions_.push_back(open);
    recentMenu_ = file->addMenu("Open &Recent");
    startActions_.push_back(recentMenu_->menuAction());
    connect(recentMenu_, &QMenu::aboutToShow, this, [this] { FillRecentImages(); });
    // Not every desktop has a standard key for it.
    saveAction_ =
        AddAction(file, "Save &As...", QKeySequence("Ctrl+Shift+S"), [this] { SaveAs(); });
    saveAction_->setToolTip(
        "For Vestrel: other programs may show it black, the export is for them");
    file->setToolTipsVisible(true);
    exportAction_ = AddAction(file, "&Export...", QKeySequence("Ctrl+E"),
                              [this] { ExportImageCommand(state_, port_); });
    worldCoordinatesAction_ =
        AddAction(file, "Write &World Coordinates", QKeySequence("Ctrl+Shift+W"),
                  [this] { WorldCoordinatesCommand(state_, port_); });
    file->addSeparator();
    AddAction(file, "&Quit", QKeySequence::Quit, [this] { close(); });

    QMenu* edit = menuBar()->addMenu("&Edit");
    copyAction_ = AddAction(edit, "&Copy Result", QKeySequence("Ctrl+Shift+C"), [this] {
        QApplication::clipboard()->setText(QtText(state_.Display.Details));
    });
    edit->addSeparator();
    startActions_.push_back(AddAction(edit, "Edit &Parameters...", QKeySequence("Ctrl+P"),
                                      [this] { EditParameters(); }));

    QMenu* solve = menuBar()->addMenu("&Solve");
    QAction* just =
        AddAction(solve, "&Just Solve", QKeySequence("Ctrl+Return"), [this] { JustSolve(); });
    just->setShortcuts({QKeySequence("Ctrl+Return"), QKeySequence("Ctrl+Enter")});
    just->setObjectName("mnuJustSolve");
    startActions_.push_back(just);
    startActions_.push_back(
        AddAction(solve, "&Plate Match", QKeySequence("Ctrl+Shift+M"), [this] { Match(); }));
    AddAction(solve, "&Stop Search", QKeySequence("Ctrl+."), [this] { Stop(); });

    QAction* settings =
        AddAction(edit, "&Settings...", QKeySequence("Ctrl+,"), [this] { EditSettings(); });
    settings->setObjectName("mnuSettings");
    AddAction(edit, "&Build Catalog...", {}, [this] {
        BuildCatalog();
    })->setObjectName("mnuBuildCatalog");
    startActions_.push_back(settings);

    QMenu* view = menuBar()->addMenu("&View");
    AddAction(view, "Show &Image", QKeySequence("Ctrl+I"), [this] { Bring(imageWindow_); });
    AddAction(view, "&Levels", QKeySequence("Ctrl+L"), [this] {
        Bring(levelsWindow_);
    })->setObjectName("mnuLevels");
    AddAction(view, "&Star Statistics", QKeySequence("Ctrl+T"), [this] {
        Bring(statsWindow_);
    })->setObjectName("mnuStats");
    AddAction(view, "&Relative Photometry", QKeySequence("Ctrl+R"), [this] {
        Bring(photometryWindow_);
    })->setObjectName("mnuRelPhot");
    AddAction(view, "Ta&ble of Solutions", QKeySequence("Ctrl+B"), [this] {
        Bring(solutionsWindow_);
    })->setObjectName("mnuSolutions");
    AddAction(view, "Residua&ls", QKeySequence("Ctrl+D"), [this] {
        Bring(residualsWindow_);
    })->setObjectName("mnuResiduals");
    AddAction(view, "Show &Header", QKeySequence("Ctrl+H"), [this] {
        Bring(headerWindow_);
    })->setObjectName("mnuHeader");
    quadMessagesAction_ = AddAction(view, "&MORA Messages", QKeySequence("Ctrl+M"),
                                    [this] { Bring(quadMessagesWindow_); });
    quadMessagesAction_->setObjectName("mnuMORA");

    imageWindow_.ShareCommands({open, recentMenu_->menuAction(), saveAction_}, solve->actions(),
                               view->actions());

    QMenu* help = menuBar()->addMenu("&Help");
    helpActions_ << AddAction(help, "&Help", QKeySequence::HelpContents, [this] { ShowHelp(); })
                 << AddAction(help, "&What Is This?", QKeySequence::WhatsThis,
                              [this] { ExplainPointedAt(); });
    for (QAction* action : helpActions_) action->setShortcutContext(Qt::ApplicationShortcut);
    AddAction(help, "&About", {}, [this] { ShowAbout(); });
}

QAction* SolveWindow::AddAction(QMenu* menu, const QString& text, const QKeySequence& keys,
                                std::function<void()> command) {
    QAction* action = menu->addAction(text);
    action->setShortcut(keys);
    connect(action, &QAction::triggered, this,
            [this, command = std::move(command)] { Run(command); });
    return action;
}

}  // namespace vestrel
