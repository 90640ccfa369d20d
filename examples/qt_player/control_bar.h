#pragma once

#include <QWidget>

#include "player_controller.h"

class QAction;
class QDoubleSpinBox;
class QLabel;
class QSlider;
class QToolButton;
class TimeSlider;

// The row below the picture: play, stop, the time, the volume, the speed.
class ControlBar : public QWidget {
    Q_OBJECT

public:
    explicit ControlBar(QWidget* parent = nullptr);

    void showState(PlayerController::State state);
    void showTime(int timeMs);
    void setDuration(int durationMs);

    // By the keyboard. Volume in percent, speed in steps of a quarter.
    void changeVolume(int percent);
    void toggleMuted();
    void changeSpeed(int steps);
    void resetSpeed();

    // A button at the right end for `action`.
    void addButton(QAction* action);

signals:
    void playClicked();
    void stopClicked();
    void seekRequested(int timeMs);
    void volumeChanged(double gain);
    void mutedChanged(bool muted);
    void speedChanged(double speed);

private:
    void applyVolume();
    void showTimeText(int timeMs);

    QToolButton* play_;
    QToolButton* stop_;
    TimeSlider* time_;
    QLabel* timeLabel_;
    QLabel* durationLabel_;
    QToolButton* mute_;
    QSlider* volume_;
    QDoubleSpinBox* speed_;
};
