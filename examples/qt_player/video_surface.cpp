#include "video_surface.h"

#include <QEvent>
#include <QMouseEvent>

namespace {

constexpr int kSettleMs = 120;

}  // namespace

// [embed] Attributes of a widget that belongs to the player
VideoSurface::VideoSurface(QWidget* parent) : QWidget(parent) {
    setAttribute(Qt::WA_NativeWindow);
    setAttribute(Qt::WA_DontCreateNativeAncestors);
    setAttribute(Qt::WA_PaintOnScreen);
    setAttribute(Qt::WA_NoSystemBackground);
    setAttribute(Qt::WA_OpaquePaintEvent);
    setMouseTracking(true);
    settled_.setSingleShot(true);
    settled_.setInterval(kSettleMs);
    connect(&settled_, &QTimer::timeout, this, &VideoSurface::fillParent);
    connect(&settled_, &QTimer::timeout, this, &VideoSurface::resized);
}

QSize VideoSurface::pixelSize() const {
    return (QSizeF(parentWidget()->size()) * devicePixelRatioF()).toSize();
}
// [embed end]

bool VideoSurface::event(QEvent* event) {
    switch (event->type()) {
        case QEvent::Resize:
        case QEvent::Move:
            settled_.start();
            break;
        default:
            break;
    }
    return QWidget::event(event);
}

// The native window may have been set back to a size that the player was told before.
void VideoSurface::fillParent() {
    setGeometry(parentWidget()->rect());
}

void VideoSurface::mouseDoubleClickEvent(QMouseEvent* /*event*/) {
    emit doubleClicked();
}

void VideoSurface::mouseMoveEvent(QMouseEvent* /*event*/) {
    emit pointerMoved();
}
