// Takes pictures of every window around a real solve: makeScreenshots FRAME RA DEC FOLDER THEME
// SUFFIX

#include <QAction>
#include <QApplication>
#include <QDir>
#include <QLabel>
#include <QLineEdit>
#include <QPixmap>
#include <QPushButton>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <vector>

#include "desktop/fKELInfo.h"
#include "desktop/fPictureArea.h"
#include "platform/libPlatform.h"
#include "program/mPlateMatch.h"
#include "program/mPreferences.h"

namespace vestrel {
namespace {

/// The window with an object name.
QWidget* WindowNamed(const QString& name) {
    for (QWidget* window : QApplication::topLevelWidgets()) {
        if (window->objectName() == name) return window;
    }
    return nullptr;
}

/// A running clock would change every picture.
void StopClock(QWidget& window) {
    if (auto* clock = window.findChild<QLabel*>("lblClock")) {
        clock->setText("UT 21:04:37   JD 2461366.37820   LST 02:08:07");
    }
}

class Photographer {
 public:
    Photographer(QString folder, QString suffix)
        : folder_(std::move(folder)), suffix_(std::move(suffix)) {}

    bool Take(const QString& windowName, const QString& fileName) {
        QApplication::processEvents();
        QWidget* window = WindowNamed(windowName);
        if (window != nullptr) StopClock(*window);
        const QString file = QDir(folder_).filePath(fileName + suffix_ + ".png");
        const QImage picture = window != nullptr ? window->grab().toImage() : QImage();
        if (!picture.isNull() && picture.convertToFormat(QImage::Format_RGB888).save(file)) {
            return TakeForGuide(picture, fileName);
        }
        std::fprintf(stderr, "no picture: %s\n", qPrintable(file));
        return false;
    }

 private:
    /// The guide of the program has some of them, smaller.
    bool TakeForGuide(const QImage& picture, const QString& fileName) const {
        constexpr int widest = 560;
        const QDir guide(QDir(folder_).filePath("help"));
        const QString name = fileName == "image-close" ? "image" : fileName;
        const bool wanted = guide.exists(name + ".png") && fileName != "image";
        if (!wanted) return true;
        const QImage small = picture.scaledToWidth(std::min(widest, picture.width() * 3 / 4),
                                                   Qt::SmoothTransformation);
        return small.save(guide.filePath(name + ".png"));
    }

    QString folder_;
    QString suffix_;
};

/// Takes the image window and those that belong to it.
bool TakeViewer(SolveWindow& window, const ProgramState& state, Photographer& photographer) {
    const auto choose = [&window](const char* name) {
        window.findChild<QAction*>(name)->trigger();
    };
    QWidget* image = WindowNamed("fImage");
    const auto toggle = [image](const char* name) { image->findChild<QAction*>(name)->toggle(); };
    auto* area = dynamic_cast<PictureArea*>(image->findChild<QWidget*>("picImage"));
    QApplication::processEvents();
    bool good = photographer.Take("fImage", "image");

    // A closer view: the matched stars with magnitudes on the grid, two of them measured.
    choose("mnuStats");
    choose("mnuRelPhot");
    choose("mnuLevels");
    QApplication::processEvents();
    std::vector<const PlateStar*> stars;
    for (const MatchedStar& star : MatchedStars(*state.Solution)) stars.push_back(star.Plate);
    if (stars.size() < 3) return false;
    const auto fromMiddle = [&state](const PlateStar* star) {
        return std::hypot(star->X - state.Image.Width / 2.0, star->Y - state.Image.Height / 2.0);
    };
    std::sort(stars.begin(), stars.end(), [&](const PlateStar* a, const PlateStar* b) {
        return fromMiddle(a) < fromMiddle(b);
    });
    for (const std::size_t k : {0, 1, 0, 2}) area->OnClicked({stars[k]->X, stars[k]->Y});
    for (const char* name : {"mnuExtracted", "mnuCatalog", "mnuMagnitudes", "mnuGrid"}) {
        toggle(name);
    }
    area->ZoomTo(1);
    area->OnPointerMoved({stars[2]->X, stars[2]->Y});
    good = photographer.Take("fImage", "image-close") && good;
    good = photographer.Take("fHistogram", "levels") && good;
    good = photographer.Take("fStats", "statistics") && good;
    good = photographer.Take("fRelPhot", "photometry") && good;
    for (const char* name : {"fHistogram", "fStats", "fRelPhot"}) WindowNamed(name)->close();
    return good;
}

bool TakeAll(Photographer photographer, const std::string& frame, const QString& ra,
             const QString& dec, const std::string& theme) {
    const auto state = std::make_unique<ProgramState>();
    state->Catalog.Folder = DefaultCatalogFolder();
    SolveWindow window(*state);
    SetPreference(*state, "theme", theme);
    window.ApplySettings();
    window.show();
    const auto type = [&window](const char* name, const QString& text) {
        window.findChild<QLineEdit*>(name)->setText(text);
    };
    const auto press = [&window](const char* name) {
        window.findChild<QPushButton*>(name)->click();
    };
    type("txtXsize", "180");
    type("txtYsize", "120");
    bool good = photographer.Take("fKELInfo", "start");
    window.OpenFile(frame);
    type("txtRA", ra);
    type("txtDec", dec);
    press("cmdMatch");
    good = good && state->Solution;
    good = photographer.Take("fKELInfo", "solved") && good;
    press("cmdImage");
    good = TakeViewer(window, *state, photographer) && good;
    press("cmdResiduals");
    good = photographer.Take("fResiduals", "residuals") && good;
    window.findChild<QAction*>("mnuHeader")->trigger();
    good = photographer.Take("fFITSHeader", "header") && good;
    press("Command1");
    good = photographer.Take("fParms", "parameters") && good;
    WindowNamed("fParms")->findChild<QPushButton*>("cmdHelp")->click();
    good = photographer.Take("fHelp", "help") && good;
    WindowNamed("fParms")->close();
    window.findChild<QAction*>("mnuSettings")->trigger();
    good = photographer.Take("fSettings", "settings") && good;
    WindowNamed("fSettings")->close();
    window.findChild<QAction*>("mnuBuildCatalog")->trigger();
    good = photographer.Take("fCatalog", "catalog") && good;
    WindowNamed("fCatalog")->close();

    // The centre does not matter here, because quads find it.
    type("txtRA", "00 00 00");
    type("txtDec", "00 00 00");
    press("cmdMORA");
    good = photographer.Take("fKELInfo", "mora") && good;
    good = photographer.Take("fMORA", "mora-messages") && good;
    WindowNamed("fMORA")->close();

    type("txtRA", ra);
    type("txtDec", "60 00 00");
    press("cmdMatch");
    good = photographer.Take("fKELInfo", "failed") && good;
    press("cmdJustSolve");
    good = photographer.Take("fKELInfo", "just-solved") && good;
    window.findChild<QAction*>("mnuSolutions")->trigger();
    good = photographer.Take("fSolutions", "solutions") && good;
    window.StartUnattended("1.4451,-0.0291,0.0524,0.0349,4," + frame);
    good = photographer.Take("fKELInfo", "unattended") && good;
    window.close();
    return good;
}

}  // namespace
}  // namespace vestrel

int main(int argc, char** argv) {
    QApplication application(argc, argv);
    if (argc != 7) {
        std::fputs("makeScreenshots FRAME RA DEC FOLDER THEME SUFFIX\n", stderr);
        return 2;
    }
    QApplication::setQuitOnLastWindowClosed(false);
    QApplication::setStyle("Fusion");
    return vestrel::TakeAll({argv[4], argv[6]}, argv[1], argv[2], argv[3], argv[5]) ? 0 : 1;
}
