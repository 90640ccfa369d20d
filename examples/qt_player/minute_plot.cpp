#include "minute_plot.h"

#include <QPainter>
#include <QPainterPath>
#include <algorithm>

namespace {

constexpr int kMargin = 4;
const QColor kColors[] = {QColor(0x6a, 0xb0, 0xff), QColor(0xff, 0xb0, 0x5a)};

}  // namespace

MinutePlot::MinutePlot(const QString& title, const QString& unit, const QStringList& names, QWidget* parent)
    : QWidget(parent), title_(title), unit_(unit), names_(names), curves_(static_cast<size_t>(names.size())) {
    setMinimumHeight(70);
}

void MinutePlot::add(int64_t timeMs, const std::vector<double>& values) {
    for (size_t i = 0; i < curves_.size(); ++i) {
        curves_[i].add(timeMs, values[i]);
    }
    update();
}

void MinutePlot::clear() {
    for (MinuteCurve& curve : curves_) {
        curve.clear();
    }
    update();
}

void MinutePlot::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const int textHeight = fontMetrics().height();
    painter.setPen(palette().color(QPalette::Text));
    painter.drawText(kMargin, textHeight, tr("%1, %2").arg(title_, unit_));
    const QRectF area = QRectF(rect()).adjusted(kMargin, 2.0 * textHeight + 2.0 * kMargin, -kMargin, -kMargin);
    painter.fillRect(area, palette().color(QPalette::Base));
    if (pointCount() == 0) {
        return;
    }
    double lowest = 0;
    double highest = 1;
    for (const MinuteCurve& curve : curves_) {
        for (const auto& point : curve.points()) {
            lowest = std::min(lowest, point.value);
            highest = std::max(highest, point.value);
        }
    }
    const int64_t endMs = curves_.front().points().back().timeMs;
    const auto place = [&](const MinuteCurve::Point& point) {
        const double age = static_cast<double>(endMs - point.timeMs) / MinuteCurve::kMinuteMs;
        return QPointF(area.right() - age * area.width(),
                       area.bottom() - (point.value - lowest) / (highest - lowest) * area.height());
    };
    int left = kMargin;
    for (size_t i = 0; i < curves_.size(); ++i) {
        painter.setPen(QPen(kColors[i % std::size(kColors)], 1.5));
        const auto& points = curves_[i].points();
        QPainterPath line(place(points.front()));
        std::for_each(points.begin() + 1, points.end(), [&](const auto& point) { line.lineTo(place(point)); });
        painter.drawPath(line);
        const double value = points.back().value;
        const QString text = QStringLiteral("%1 %2   ").arg(names_[static_cast<int>(i)]).arg(value, 0, 'f', 0);
        painter.drawText(left, 2 * textHeight, text);
        left += fontMetrics().horizontalAdvance(text);
    }
}
