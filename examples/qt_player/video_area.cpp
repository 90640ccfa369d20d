#include "video_area.h"

#include <QMouseEvent>
#include <QPainter>

#include "video_surface.h"

VideoArea::VideoArea(QWidget* parent) : QWidget(parent), frame_(new QWidget(this)) {
    frame_->setAttribute(Qt::WA_NativeWindow);
    frame_->setAttribute(Qt::WA_DontCreateNativeAncestors);
    frame_->hide();
    surface_ = new VideoSurface(frame_);
    setMinimumSize(240, 135);
    setMouseTracking(true);
    connect(surface_, &VideoSurface::doubleClicked, this, &VideoArea::doubleClicked);
    connect(surface_, &VideoSurface::pointerMoved, this, &VideoArea::pointerMoved);
}

void VideoArea::setPictureShown(bool shown) {
    frame_->setVisible(shown);
}

void VideoArea::setHint(const QString& title, const QString& text) {
    title_ = title;
    text_ = text;
    update();
}

void VideoArea::paintEvent(QPaintEvent* /*event*/) {
    QPainter painter(this);
    painter.fillRect(rect(), Qt::black);
    if (!frame_->isHidden()) {
        return;
    }
    QFont large = font();
    large.setPointSizeF(font().pointSizeF() * 1.8);
    const int middle = height() / 2;
    painter.setFont(large);
    painter.setPen(QColor(0xd8, 0xdc, 0xe2));
    painter.drawText(QRect(0, 0, width(), middle), Qt::AlignHCenter | Qt::AlignBottom,
                     painter.fontMetrics().elidedText(title_, Qt::ElideMiddle, width() - 20));
    painter.setFont(font());
    painter.setPen(QColor(0x8a, 0x92, 0x9e));
    painter.drawText(QRect(10, middle + 10, width() - 20, height() - middle - 10),
                     Qt::AlignHCenter | Qt::AlignTop | Qt::TextWordWrap, text_);
}

void VideoArea::resizeEvent(QResizeEvent* /*event*/) {
    frame_->setGeometry(rect());
    surface_->setGeometry(frame_->rect());
}

void VideoArea::mouseDoubleClickEvent(QMouseEvent* /*event*/) {
    emit doubleClicked();
}

void VideoArea::mouseMoveEvent(QMouseEvent* /*event*/) {
    emit pointerMoved();
}
