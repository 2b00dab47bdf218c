// The output of the image window: pictures of the visible part and of the whole image.
#include <QApplication>
#include <QBuffer>
#include <QClipboard>
#include <QPageSize>
#include <QPainter>
#include <QPdfWriter>
#include <QPixmap>
#include <QPrintDialog>
#include <QPrinter>
#include <QStatusBar>
#include <algorithm>
#include <cmath>

#include "astro/libStrings.h"
#include "desktop/fImage.h"
#include "desktop/libWindows.h"
#include "display/libPictureView.h"
#include "platform/libFiles.h"
#include "platform/libPlatform.h"
#include "program/mSolveWindow.h"
#include "program/mWorkBeside.h"

namespace vestrel {

namespace {

/// How many image pixels a point of a drawing covers so that its marks are visible.
double MarkRatio(const PlateImage& image) {
    constexpr double usualSide = 1600;
    return std::max(1.0, std::max(image.Width, image.Height) / usualSide);
}

QByteArray PngOf(const QImage& picture) {
    // Noise hardly gets smaller, whatever time is spent on it.
    constexpr int quickly = 80;
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    if (!picture.save(&buffer, "PNG", quickly)) bytes.clear();
    return bytes;
}

bool WritePicture(const std::string& path, const QByteArray& bytes) {
    return !bytes.isEmpty() &&
           ReplaceFile(PathFromText(path),
                       std::string_view(bytes.constData(), static_cast<std::size_t>(bytes.size())));
}

}  // namespace

/// All of a picture with everything that lies over it. It needs no window, and the picture stays as
/// it is while something runs.
struct WholePicture {
    const PicturePyramid& Picture;
    Annotation Over;
    ViewGeometry View;
    double Ratio = 1;      ///< pixels of the image for each point
    int LetterSize = 0;    ///< points
    ShownSize Shown = {};  ///< pixels

    /// Points.
    QSizeF Size() const { return QSizeF(Shown.Width, Shown.Height) / Ratio; }

    /// Empty when there is no memory for it.
    QByteArray AsPng() const {
        QImage picture = Grey().convertToFormat(QImage::Format_RGB32);
        if (picture.isNull()) return {};
        picture.setDevicePixelRatio(Ratio);
        QPainter painter(&picture);
        PaintOver(painter);
        painter.end();
        picture.setDevicePixelRatio(1);
        return PngOf(picture);
    }

    QByteArray AsPdf(const QString& title) const {
        QByteArray bytes;
        QBuffer buffer(&bytes);
        buffer.open(QIODevice::WriteOnly);
        QPdfWriter writer(&buffer);
        constexpr int pointsPerInch = 72;
        writer.setResolution(pointsPerInch);
        writer.setPageSize(QPageSize(Size(), QPageSize::Point, {}, QPageSize::ExactMatch));
        writer.setPageMargins(QMarginsF());
        writer.setTitle(title);
        QPainter painter(&writer);
        const bool painted = Paint(painter);
        painter.end();
        return painted ? bytes : QByteArray();
    }

    /// At the painter's origin, in points. False when there is no memory for it.
    bool Paint(QPainter& painter) const {
        const QImage grey = Grey();
        if (grey.isNull()) return false;
        painter.drawImage(QRectF(QPointF(), Size()), grey);
        PaintOver(painter);
        return true;
    }

 private:
    QImage Grey() const {
        QImage grey(Shown.Width, Shown.Height, QImage::Format_Grayscale8);
        if (grey.isNull()) return grey;
        PaintView(Picture, View, Ratio,
                  {{grey.bits(), static_cast<std::size_t>(grey.sizeInBytes())},
                   grey.width(),
                   grey.height(),
                   static_cast<std::size_t>(grey.bytesPerLine())});
        return grey;
    }
    void PaintOver(QPainter& painter) const {
        // A size of its own would make letters grow and shrink with the device.
        QFont font = painter.font();
        font.setPixelSize(LetterSize);
        painter.setFont(font);
        Over.Paint(painter, View, Size().toSize(), GridOver(Over.Stars.Map, View.Visible()));
    }
};

void ImageWindow::CopyView() {
    QApplication::clipboard()->setImage(area_->grab().toImage());
}

void ImageWindow::TellWritten(const std::string& path, bool written) {
    if (!written) {
        port_.ShowMessage("The picture cannot be written to " + path, DefaultTitle);
        return;
    }
    state_.Parameters.LastSaveFolder = FolderOfPath(path);
    constexpr int milliseconds = 10000;
    statusBar()->showMessage("Written: " + QtText(path), milliseconds);
}

void ImageWindow::ExportView() {
    if (!state_.ImageLoaded) return;
    const QImage picture = area_->grab().toImage();
    const auto path =
        port_.AskForFile({"Export View", "PNG Files (*.png)|*.png|All Files (*.*)|*.*", 1,
                          state_.Parameters.LastSaveFolder + "\\*.*", true, ".png",
                          SuggestedName(state_, ViewEnding)});
    if (!path) return;
    TellWritten(*path, WritePicture(*path, PngOf(picture)));
}

void ImageWindow::WithWhole(const std::function<void(const WholePicture&)>& work) {
    const auto command = [&] {
        const Operation operation(state_, port_, Activity::Saving);
        if (!operation) return;
        state_.Display.BusyIndicator = true;
        port_.DisplayChanged();
        const PlateImage& image = state_.Image;
        PicturePyramid fresh;
        const bool old = pictureIsOld_ || area_->Picture.Empty();
        WholePicture whole{old ? fresh : area_->Picture,
                           annotation_,
                           {},
                           MarkRatio(image),
                           area_->fontInfo().pixelSize()};
        whole.Over.Shows = Switches();
        whole.Over.RedOnly = false;
        whole.Shown = ShownSizeOf(image);
        whole.View.SetWindow(whole.Shown.Width / whole.Ratio, whole.Shown.Height / whole.Ratio);
        whole.View.SetImage(image);
        whole.View.Flip(flipLeftRight_->isChecked(), flipUpDown_->isChecked());
        whole.View.Fit();
        WorkBeside(port_, [&, recipe = Recipe()] {
            if (old) recipe.Make(fresh, image, {});
            work(whole);
        });
    };
    OnRun ? OnRun(command) : command();
}

void ImageWindow::ExportPicture() {
    if (!state_.ImageLoaded || state_.Running != Activity::None) return;
    const auto path =
        port_.AskForFile({"Export Whole Picture", "PNG Files (*.png)|*.png|PDF Files (*.pdf)|*.pdf",
                          1, state_.Parameters.LastSaveFolder + "\\*.*", true, ".png",
                          SuggestedName(state_, AnnotatedEnding)});
    if (!path) return;
    const bool pdf = QtText(*path).endsWith(".pdf", Qt::CaseInsensitive);
    const QString title = QtText(ImageBaseName(state_));
    bool written = false;
    WithWhole([&](const WholePicture& whole) {
        written = WritePicture(*path, pdf ? whole.AsPdf(title) : whole.AsPng());
    });
    TellWritten(*path, written);
}

void ImageWindow::Print() {
    if (!state_.ImageLoaded || state_.Running != Activity::None) return;
    QPrinter printer(QPrinter::HighResolution);
    printer.setDocName(QtText(ImageBaseName(state_)));
    const ShownSize shown = ShownSizeOf(state_.Image);
    const bool wide = shown.Width > shown.Height;
    printer.setPageOrientation(wide ? QPageLayout::Landscape : QPageLayout::Portrait);
    QPrintDialog dialog(&printer, this);
    if (dialog.exec() == QDialog::Accepted) PrintOn(printer);
}

void ImageWindow::PrintOn(QPrinter& printer) {
    bool printed = false;
    WithWhole([&](const WholePicture& whole) {
        QPainter painter(&printer);
        if (!painter.isActive()) return;
        const QSizeF size = whole.Size();
        const QRectF page = painter.viewport();
        const double scale = std::min(page.width() / size.width(), page.height() / size.height());
        painter.scale(scale, scale);
        printed = whole.Paint(painter) && painter.end();
    });
    if (!printed) port_.ShowMessage("The picture cannot be printed.", DefaultTitle);
}

}  // namespace vestrel
