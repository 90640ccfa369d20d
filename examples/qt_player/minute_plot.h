#pragma once

#include <QColor>
#include <QString>
#include <QWidget>
#include <vector>

#include "minute_curve.h"

// A plot of the last minute, with a line for each of its curves and the present values beside their names.
class MinutePlot : public QWidget {
    Q_OBJECT

public:
    MinutePlot(const QString& title, const QString& unit, const QStringList& names, QWidget* parent = nullptr);

    // One value for each curve, in their order.
    void add(int64_t timeMs, const std::vector<double>& values);
    void clear();
    int pointCount() const { return static_cast<int>(curves_.front().points().size()); }

    QSize sizeHint() const override { return {260, 110}; }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    const QString title_;
    const QString unit_;
    const QStringList names_;
    std::vector<MinuteCurve> curves_;
};
