#include "desktop/fHelp.h"

#include <QDialogButtonBox>
#include <QEvent>
#include <QImage>
#include <QLabel>
#include <QPainter>
#include <QScrollArea>
#include <QScrollBar>
#include <QTabWidget>
#include <QTextBrowser>
#include <QVBoxLayout>

#include "desktop/libWindows.h"
#include "program/mParameterTexts.h"

/// A library's pictures are not there by themselves. The macro works outside namespaces only.
static void HaveGuidePictures() {
    Q_INIT_RESOURCE(guide);
}

namespace vestrel {

namespace {

/// Shows the pictures of the program in the colours of the theme.
class GuideBrowser : public QTextBrowser {
 protected:
    QVariant loadResource(int type, const QUrl& name) override {
        if (type != QTextDocument::ImageResource) return QTextBrowser::loadResource(type, name);
        QImage picture = QImage(":" + name.path()).convertToFormat(QImage::Format_RGB32);
        if (IsRedOnly(palette())) {
            QPainter painter(&picture);
            Redden(painter, picture.rect());
        }
        return picture;
    }
    void changeEvent(QEvent* event) override {
        QTextBrowser::changeEvent(event);
        if (event->type() != QEvent::PaletteChange || document()->isEmpty()) return;
        // Links and pictures keep the colours that they were read with.
        const int place = verticalScrollBar()->value();
        document()->clear();
        setHtml(HelpGuide());
        verticalScrollBar()->setValue(place);
    }
};

}  // namespace

HelpWindow::HelpWindow()
    : QDialog(nullptr, Qt::Window),
      pages_(new QTabWidget),
      guide_(new GuideBrowser),
      parameters_(new QLabel(QtText(ParameterHelpText()))) {
    HaveGuidePictures();
    setObjectName("fHelp");
    setWindowTitle("Vestrel Help");
    guide_->setObjectName("txtGuide");
    guide_->setAccessibleName("Guide");
    guide_->setHtml(HelpGuide());
    parameters_->setObjectName("lblHelp");
    parameters_->setTextFormat(Qt::PlainText);
    parameters_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    parameters_->setWordWrap(true);
    parameters_->setMargin(12);
    parameters_->setAlignment(Qt::AlignTop | Qt::AlignLeft);
    auto* scroll = new QScrollArea;
    scroll->setWidget(parameters_);
    scroll->setWidgetResizable(true);
    pages_->setObjectName("tabHelp");
    pages_->addTab(guide_, "&Guide");
    pages_->addTab(scroll, "&Parameters");
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(pages_);
    layout->addWidget(buttons);
    WithoutDefaultButtons(*this);
    resize(680, 600);
}

void HelpWindow::ShowTopicOf(const QWidget* control) {
    QString name;
    QString parameter;
    for (; control != nullptr && name != "fParms" && HelpOn(name).isEmpty();
         control = control->parentWidget()) {
        name = control->objectName();
        parameter = QtText(ParameterHelpOn(Utf8(name)));
    }
    const bool known = !HelpOn(name).isEmpty();
    const bool inParameters = name == "fParms" || !parameter.isEmpty();
    pages_->setCurrentIndex(inParameters ? 1 : 0);
    if (!inParameters) guide_->scrollToAnchor(known ? name : "top");
    // The paragraph on a parameter is marked.
    const qsizetype at = parameters_->text().indexOf(parameter);
    parameters_->setSelection(static_cast<int>(at), static_cast<int>(parameter.size()));
}

void HelpWindow::showEvent(QShowEvent* event) {
    QDialog::showEvent(event);
    KeepOnScreen(*this);
}

}  // namespace vestrel
