#include "icons.h"

#include <QPainter>
#include <QPainterPath>
#include <QPixmap>

namespace {

constexpr int kSize = 24;  // the grid that the signs are drawn on
constexpr int kScale = 3;  // pixels for each of its units

void fillShape(QPainter& painter, std::initializer_list<QPointF> points) {
    painter.drawPolygon(QPolygonF(points));
}

void drawSpeaker(QPainter& painter) {
    fillShape(painter, {{3, 9}, {7, 9}, {12, 4}, {12, 20}, {7, 15}, {3, 15}});
}

void drawSign(QPainter& painter, Sign sign, const QPen& line) {
    switch (sign) {
        case Sign::Play:
            fillShape(painter, {{6, 4}, {20, 12}, {6, 20}});
            break;
        case Sign::Pause:
            painter.drawRect(QRectF(6, 4, 4.5, 16));
            painter.drawRect(QRectF(13.5, 4, 4.5, 16));
            break;
        case Sign::Stop:
            painter.drawRect(QRectF(5, 5, 14, 14));
            break;
        case Sign::Loud:
            drawSpeaker(painter);
            painter.setBrush(Qt::NoBrush);
            painter.setPen(line);
            painter.drawArc(QRectF(10, 8, 7, 8), -60 * 16, 120 * 16);
            painter.drawArc(QRectF(9, 4.5, 12, 15), -60 * 16, 120 * 16);
            break;
        case Sign::Muted:
            drawSpeaker(painter);
            painter.setPen(line);
            painter.drawLine(QPointF(15, 9), QPointF(21, 15));
            painter.drawLine(QPointF(21, 9), QPointF(15, 15));
            break;
        case Sign::FullScreen:
            painter.setBrush(Qt::NoBrush);
            painter.setPen(line);
            painter.drawPolyline(QPolygonF({{4, 9}, {4, 4}, {9, 4}}));
            painter.drawPolyline(QPolygonF({{15, 4}, {20, 4}, {20, 9}}));
            painter.drawPolyline(QPolygonF({{20, 15}, {20, 20}, {15, 20}}));
            painter.drawPolyline(QPolygonF({{9, 20}, {4, 20}, {4, 15}}));
            break;
        case Sign::SecondWindow:
            painter.drawRect(QRectF(11, 11, 10, 8));
            painter.setBrush(Qt::NoBrush);
            painter.setPen(line);
            painter.drawPolyline(QPolygonF({{8.5, 16}, {3, 16}, {3, 5}, {18, 5}, {18, 8.5}}));
            break;
        case Sign::Options:
            painter.setPen(line);
            for (const auto& [y, knob] : {std::pair{6.0, 15.0}, {12.0, 8.0}, {18.0, 13.0}}) {
                painter.drawLine(QPointF(3, y), QPointF(21, y));
                painter.drawEllipse(QPointF(knob, y), 1.8, 1.8);
            }
            break;
        case Sign::Log:
            painter.setPen(line);
            for (const auto& [y, end] : {std::pair{5.0, 20.0}, {10.0, 15.0}, {15.0, 18.0}, {20.0, 11.0}}) {
                painter.drawLine(QPointF(4, y), QPointF(end, y));
            }
            break;
        case Sign::Record:
            painter.drawEllipse(QPointF(12, 12), 7.5, 7.5);
            break;
        case Sign::Open:
            fillShape(painter, {{3, 5}, {9, 5}, {11, 7.5}, {21, 7.5}, {21, 19}, {3, 19}});
            break;
    }
}

QPixmap signPixmap(Sign sign, const QColor& color) {
    QPixmap pixmap(kSize * kScale, kSize * kScale);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.scale(kScale, kScale);
    painter.setPen(Qt::NoPen);
    painter.setBrush(color);
    drawSign(painter, sign, QPen(color, 2, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    return pixmap;
}

}  // namespace

QIcon signIcon(Sign sign, const QColor& color) {
    QIcon icon(signPixmap(sign, color));
    QColor faint = color;
    faint.setAlphaF(0.35F);
    icon.addPixmap(signPixmap(sign, faint), QIcon::Disabled);
    return icon;
}
