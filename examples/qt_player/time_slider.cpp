#include "time_slider.h"

#include <QHelpEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QToolTip>
#include <algorithm>

#include "time_text.h"

namespace {

constexpr double kMargin = 8;  // room for the handle at the ends
constexpr double kGrooveHeight = 6;
constexpr double kHandleRadius = 7;

}  // namespace

TimeSlider::TimeSlider(QWidget* parent) : QSlider(Qt::Horizontal, parent) {
    setDuration(0);
    setMouseTracking(true);
    setFocusPolicy(Qt::NoFocus);
    setFixedHeight(24);
}

void TimeSlider::setDuration(int durationMs) {
    setRange(0, std::max(durationMs, 0));
    setEnabled(durationMs > 0);
    update();
}

void TimeSlider::showTime(int timeMs) {
    if (!isSliderDown()) {
        setValue(timeMs);
    }
}

QRectF TimeSlider::groove() const {
    return {kMargin, (height() - kGrooveHeight) / 2, width() - 2 * kMargin, kGrooveHeight};
}

int TimeSlider::timeAt(double x) const {
    const QRectF bar = groove();
    const double part = bar.width() > 0 ? std::clamp((x - bar.left()) / bar.width(), 0.0, 1.0) : 0.0;
    return static_cast<int>(part * maximum());
}

void TimeSlider::preview(double x) {
    previewX_ = x;
    QToolTip::showText(mapToGlobal(QPoint(static_cast<int>(x) - 16, -40)), timeText(timeAt(x)), this);
    update();
}

void TimeSlider::goTo(double x) {
    const int timeMs = timeAt(x);
    setValue(timeMs);
    emit seekRequested(timeMs);
}

bool TimeSlider::event(QEvent* event) {
    if (event->type() == QEvent::Leave) {
        previewX_ = -1;
        QToolTip::hideText();
        update();
    }
    if (event->type() == QEvent::ToolTip) {
        return true;  // shown at once instead
    }
    return QSlider::event(event);
}

void TimeSlider::mousePressEvent(QMouseEvent* event) {
    if (event->button() == Qt::LeftButton) {
        setSliderDown(true);
        preview(event->position().x());
        goTo(event->position().x());
    }
}

void TimeSlider::mouseMoveEvent(QMouseEvent* event) {
    preview(event->position().x());
    if (isSliderDown() && timeAt(event->position().x()) != value()) {
        goTo(event->position().x());
    }
}

void TimeSlider::mouseReleaseEvent(QMouseEvent* event) {
    if (event->button() == Qt::LeftButton) {
        setSliderDown(false);
    }
}

void TimeSlider::paintEvent(QPaintEvent* /*event*/) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    const QRectF bar = groove();
    const auto rounded = [&](const QRectF& rect, const QColor& color) {
        painter.setBrush(color);
        painter.drawRoundedRect(rect, kGrooveHeight / 2, kGrooveHeight / 2);
    };
    rounded(bar, palette().color(QPalette::Mid));
    if (!isEnabled() || maximum() <= 0) {
        return;
    }
    if (previewX_ >= 0) {
        const double x = std::clamp(previewX_, bar.left(), bar.right());
        rounded({bar.left(), bar.top(), x - bar.left(), bar.height()}, palette().color(QPalette::Midlight));
    }
    const double x = bar.left() + bar.width() * value() / maximum();
    rounded({bar.left(), bar.top(), x - bar.left(), bar.height()}, palette().color(QPalette::Highlight));
    painter.setBrush(palette().color(QPalette::BrightText));
    painter.drawEllipse(QPointF(x, bar.center().y()), kHandleRadius, kHandleRadius);
}
