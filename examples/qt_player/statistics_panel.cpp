#include "statistics_panel.h"

#include <QVBoxLayout>

#include "minute_plot.h"

StatisticsPanel::StatisticsPanel(QWidget* parent) : QWidget(parent) {
    const QStringList kinds{tr("picture"), tr("sound")};
    queues_ = new MinutePlot(tr("Read ahead"), tr("ms"), kinds);
    queues_->setObjectName(QStringLiteral("queues"));
    distances_ = new MinutePlot(tr("Ahead of the master"), tr("ms"), kinds);
    distances_->setObjectName(QStringLiteral("distances"));
    bitRates_ = new MinutePlot(tr("Bit rate"), tr("kbit/s"), kinds);
    bitRates_->setObjectName(QStringLiteral("bitRates"));
    auto* const layout = new QVBoxLayout(this);
    for (MinutePlot* plot : {queues_, distances_, bitRates_}) {
        layout->addWidget(plot);
    }
}

void StatisticsPanel::add(int64_t timeMs, const kelp::Statistics& statistics) {
    const auto& video = statistics.video;
    const auto& audio = statistics.audio;
    queues_->add(timeMs, {static_cast<double>(video.queue.durationMs + video.pictures.durationMs),
                          static_cast<double>(audio.queue.durationMs + audio.sound.durationMs)});
    distances_->add(timeMs, {static_cast<double>(video.aheadOfMasterMs), static_cast<double>(audio.aheadOfMasterMs)});
    bitRates_->add(timeMs, {static_cast<double>(video.bitRate) / 1000, static_cast<double>(audio.bitRate) / 1000});
}

void StatisticsPanel::clear() {
    for (MinutePlot* plot : {queues_, distances_, bitRates_}) {
        plot->clear();
    }
}

void StatisticsPanel::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    emit shownOrHidden(true);
}

void StatisticsPanel::hideEvent(QHideEvent* event) {
    QWidget::hideEvent(event);
    emit shownOrHidden(false);
}
