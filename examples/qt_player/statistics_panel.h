#pragma once

#include <QWidget>

#include "kelp_player/statistics.h"

class MinutePlot;

// How the playback went in the last minute: what waits, how far picture and sound are from what they follow, and the
// bits that are read.
class StatisticsPanel : public QWidget {
    Q_OBJECT

public:
    explicit StatisticsPanel(QWidget* parent = nullptr);

    void add(int64_t timeMs, const kelp::Statistics& statistics);
    // For another source.
    void clear();

signals:
    // Whether anybody looks.
    void shownOrHidden(bool shown);

protected:
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;

private:
    MinutePlot* queues_;
    MinutePlot* distances_;
    MinutePlot* bitRates_;
};
