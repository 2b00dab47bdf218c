// What the image window gives away: pictures of what it shows, and of the whole image.
#include <QApplication>
#include <QBuffer>
#include <QClipboard>
#include <QPageSize>
#include <QPainter>
#include <QPdfWriter>
#include <QPixmap>
#include <QPrintDialog>
#include <QPrinter>
#include <algorithm>
#include <cmath>

#include "astro/libStrings.h"
#include "desktop/fImage.h"
#include "desktop/libWindows.h"
#include "platform/libFiles.h"
#include "platform/libPlatform.h"
#include "program/mSolveWindow.h"

namespace vestrel {

namespace {

/// Pixels of the image for each point of a drawing whose marks are to be seen.
double MarkRatio(const PlateImage& image) {
    constexpr double usualSide = 1600;
    return std::max(1.0, std::max(image.Width, image.Height) / usualSide);
}

}  // namespace

void ImageWindow::CopyView() {
    QApplication::clipboard()->setImage(area_->grab().toImage());
}

void ImageWindow::Write(const std::string& path, const QByteArray& bytes) {
    state_.Parameters.LastSaveFolder = FolderOfPath(path);
    const bool written =
        !bytes.isEmpty() &&
        ReplaceFile(PathFromText(path),
                    std::string_view(bytes.constData(), static_cast<std::size_t>(bytes.size())));
    if (!written) port_.ShowMessage("The picture cannot be written to " + path, DefaultTitle);
}

void ImageWindow::ExportView() {
    if (!state_.ImageLoaded) return;
    const QImage picture = area_->grab().toImage();
    const auto path =
        port_.AskForFile({"Export View", "PNG Files (*.png)|*.png|All Files (*.*)|*.*", 1,
                          state_.Parameters.LastSaveFolder + "\\*.*", true, ".png",
                          SuggestedName(state_, "-view.png")});
    if (!path) return;
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    if (!picture.save(&buffer, "PNG")) bytes.clear();
    Write(*path, bytes);
}

ViewGeometry ImageWindow::WholeView(double ratio) const {
    ViewGeometry whole;
    const ShownSize size = ShownSizeOf(state_.Image);
    whole.SetWindow(size.Width / ratio, size.Height / ratio);
    whole.SetImage(state_.Image);
    whole.Flip(flipLeftRight_->isChecked(), flipUpDown_->isChecked());
    whole.Fit();
    return whole;
}

QImage ImageWindow::WholePicture(double ratio) {
    if (pictureIsOld_ || area_->Picture.Empty()) BuildPicture();
    const ShownSize size = ShownSizeOf(state_.Image);
    QImage grey(size.Width, size.Height, QImage::Format_Grayscale8);
    if (grey.isNull()) return grey;
    PaintView(area_->Picture, WholeView(ratio), ratio,
              {{grey.bits(), static_cast<std::size_t>(grey.sizeInBytes())},
               grey.width(),
               grey.height(),
               static_cast<std::size_t>(grey.bytesPerLine())});
    return grey;
}

void ImageWindow::PaintWhole(QPainter& painter, double ratio) {
    const ShownSize shown = ShownSizeOf(state_.Image);
    const QSize size(static_cast<int>(std::lround(shown.Width / ratio)),
                     static_cast<int>(std::lround(shown.Height / ratio)));
    PaintOverlays(painter, WholeView(ratio), size);
}

QByteArray ImageWindow::PictureAsPng() {
    const double ratio = MarkRatio(state_.Image);
    QByteArray bytes;
    QImage picture = WholePicture(ratio).convertToFormat(QImage::Format_RGB32);
    if (picture.isNull()) return bytes;
    picture.setDevicePixelRatio(ratio);
    QPainter painter(&picture);
    PaintWhole(painter, ratio);
    painter.end();
    picture.setDevicePixelRatio(1);
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    if (!picture.save(&buffer, "PNG")) bytes.clear();
    return bytes;
}

QByteArray ImageWindow::PictureAsPdf() {
    const double ratio = MarkRatio(state_.Image);
    const QImage picture = WholePicture(ratio);
    QByteArray bytes;
    if (picture.isNull()) return bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    QPdfWriter writer(&buffer);
    constexpr int pointsPerInch = 72;
    const QSizeF size = QSizeF(picture.size()) / ratio;
    writer.setResolution(pointsPerInch);
    writer.setPageSize(QPageSize(size, QPageSize::Point, {}, QPageSize::ExactMatch));
    writer.setPageMargins(QMarginsF());
    writer.setTitle(QtText(ImageBaseName(state_)));
    QPainter painter(&writer);
    painter.drawImage(QRectF(QPointF(), size), picture);
    PaintWhole(painter, ratio);
    painter.end();
    return bytes;
}

void ImageWindow::ExportPicture() {
    if (!state_.ImageLoaded || state_.Running != Activity::None) return;
    const auto path =
        port_.AskForFile({"Export Whole Picture", "PNG Files (*.png)|*.png|PDF Files (*.pdf)|*.pdf",
                          1, state_.Parameters.LastSaveFolder + "\\*.*", true, ".png",
                          SuggestedName(state_, "-annotated.png")});
    if (!path) return;
    const bool pdf = QtText(*path).endsWith(".pdf", Qt::CaseInsensitive);
    Write(*path, pdf ? PictureAsPdf() : PictureAsPng());
}

void ImageWindow::Print() {
    if (!state_.ImageLoaded || state_.Running != Activity::None) return;
    QPrinter printer(QPrinter::HighResolution);
    printer.setDocName(QtText(ImageBaseName(state_)));
    const ShownSize shown = ShownSizeOf(state_.Image);
    const bool wide = shown.Width > shown.Height;
    printer.setPageOrientation(wide ? QPageLayout::Landscape : QPageLayout::Portrait);
    QPrintDialog dialog(&printer, this);
    if (dialog.exec() != QDialog::Accepted) return;
    const double ratio = MarkRatio(state_.Image);
    const QImage picture = WholePicture(ratio);
    QPainter painter(&printer);
    if (picture.isNull() || !painter.isActive()) {
        port_.ShowMessage("The picture cannot be printed.", DefaultTitle);
        return;
    }
    const QSizeF size = QSizeF(picture.size()) / ratio;
    const QRectF page = painter.viewport();
    const double scale = std::min(page.width() / size.width(), page.height() / size.height());
    painter.scale(scale, scale);
    painter.drawImage(QRectF(QPointF(), size), picture);
    PaintWhole(painter, ratio);
}

}  // namespace vestrel
