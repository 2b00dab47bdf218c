#include "viewer/fImage.h"

#include <QLabel>
#include <QPainter>
#include <QVBoxLayout>

#include "app/mSolveWindow.h"
#include "viewer/libGreyPicture.h"
#include "viewer/libWindows.h"

namespace vestrel {

PictureArea::PictureArea() {
    setObjectName("picImage");
    setMinimumSize(200, 150);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
}

void PictureArea::paintEvent(QPaintEvent* /*event*/) {
    QPainter painter(this);
    painter.fillRect(rect(), Qt::black);
    if (Picture.isNull()) return;
    QRect place(QPoint(0, 0), Picture.size().scaled(size(), Qt::KeepAspectRatio));
    place.moveCenter(rect().center());
    QImage scaled = Picture.scaled(place.size() * devicePixelRatioF(), Qt::IgnoreAspectRatio,
                                   Qt::SmoothTransformation);
    painter.drawImage(place, scaled);
}

ImageWindow::ImageWindow(const ProgramState& state)
    : QDialog(nullptr, Qt::Window), state_(state), size_(new QLabel), area_(new PictureArea) {
    setObjectName("fImage");
    setWindowTitle("Image");
    size_->setObjectName("lblImageSize");
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(area_, 1);
    layout->addWidget(size_);
    resize(800, 640);
}

void ImageWindow::ImageChanged() {
    if (!isVisible()) return;
    size_->setText(state_.ImageLoaded ? QtText(state_.Display.ImageSize)
                                      : QtText(ImageNameText(state_)));
    setWindowTitle(state_.ImageLoaded ? QtText(ImageNameText(state_)) : "Image");
    constexpr int longestSide = 2048;
    const GreyPicture picture =
        state_.ImageLoaded ? MakeGreyPicture(state_.Image, longestSide) : GreyPicture();
    area_->Picture = QImage();
    if (!picture.Pixels.empty()) {
        area_->Picture = QImage(picture.Pixels.data(), picture.Width, picture.Height, picture.Width,
                                QImage::Format_Grayscale8)
                             .copy();
    }
    area_->update();
}

void ImageWindow::showEvent(QShowEvent* event) {
    QDialog::showEvent(event);
    // While a solve works on the pixels they are not to be read; it tells when it has done.
    if (state_.Running == Activity::None) ImageChanged();
}

}  // namespace vestrel
