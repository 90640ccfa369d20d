#include "control_bar.h"

#include <QAction>
#include <QDoubleSpinBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QSlider>
#include <QToolButton>

#include "icons.h"
#include "time_slider.h"
#include "time_text.h"

namespace {

constexpr double kMinSpeed = 0.25;
constexpr double kMaxSpeed = 4.0;
constexpr double kSpeedStep = 0.25;

QToolButton* makeButton(const char* name, const QString& toolTip, int size) {
    auto* const button = new QToolButton;
    button->setObjectName(QLatin1String(name));
    button->setToolTip(toolTip);
    button->setIconSize({size, size});
    button->setFocusPolicy(Qt::NoFocus);  // the space bar belongs to the shortcuts
    return button;
}

QLabel* makeTimeLabel(const char* name) {
    auto* const label = new QLabel;
    label->setObjectName(QLatin1String(name));
    label->setMinimumWidth(label->fontMetrics().horizontalAdvance(QStringLiteral("0:00:00")));
    label->setAlignment(Qt::AlignCenter);
    return label;
}

}  // namespace

ControlBar::ControlBar(QWidget* parent)
    : QWidget(parent),
      play_(makeButton("play", tr("Play or pause (Space)"), 26)),
      stop_(makeButton("stop", tr("Stop (S)"), 20)),
      time_(new TimeSlider),
      timeLabel_(makeTimeLabel("time")),
      durationLabel_(makeTimeLabel("duration")),
      mute_(makeButton("mute", tr("Mute (M)"), 20)),
      volume_(new QSlider(Qt::Horizontal)),
      speed_(new QDoubleSpinBox) {
    time_->setObjectName(QStringLiteral("timeSlider"));
    mute_->setCheckable(true);
    volume_->setObjectName(QStringLiteral("volume"));
    volume_->setRange(0, 100);
    volume_->setValue(100);
    volume_->setFixedWidth(90);
    volume_->setFocusPolicy(Qt::NoFocus);
    volume_->setToolTip(tr("Volume (Up, Down)"));
    speed_->setObjectName(QStringLiteral("speed"));
    speed_->setRange(kMinSpeed, kMaxSpeed);
    speed_->setSingleStep(kSpeedStep);
    speed_->setValue(1.0);
    speed_->setSuffix(QStringLiteral(" ×"));
    speed_->setToolTip(tr("Speed (brackets; Backspace for 1)"));
    speed_->setFocusPolicy(Qt::ClickFocus);

    auto* const layout = new QHBoxLayout(this);
    layout->setContentsMargins(8, 4, 8, 4);
    layout->addWidget(play_);
    layout->addWidget(stop_);
    layout->addWidget(timeLabel_);
    layout->addWidget(time_, 1);
    layout->addWidget(durationLabel_);
    layout->addWidget(mute_);
    layout->addWidget(volume_);
    layout->addWidget(speed_);

    connect(play_, &QToolButton::clicked, this, &ControlBar::playClicked);
    connect(stop_, &QToolButton::clicked, this, &ControlBar::stopClicked);
    connect(time_, &TimeSlider::seekRequested, this, &ControlBar::seekRequested);
    connect(time_, &TimeSlider::seekRequested, this, &ControlBar::showTimeText);
    connect(mute_, &QToolButton::toggled, this, &ControlBar::applyVolume);
    connect(volume_, &QSlider::valueChanged, this, &ControlBar::applyVolume);
    connect(speed_, &QDoubleSpinBox::valueChanged, this, &ControlBar::speedChanged);

    applyVolume();
    setDuration(0);
    showTime(0);
    showState(PlayerController::State::Idle);
}

void ControlBar::showState(PlayerController::State state) {
    using State = PlayerController::State;
    const QColor color = palette().color(QPalette::ButtonText);
    const bool plays = state == State::Playing || state == State::Opening;
    play_->setIcon(signIcon(plays ? Sign::Pause : Sign::Play, color));
    stop_->setIcon(signIcon(Sign::Stop, color));
    play_->setEnabled(state != State::Idle);
    stop_->setEnabled(state != State::Idle && state != State::Stopped && state != State::Failed);
    if (state == State::Stopped || state == State::Failed || state == State::Opening) {
        setDuration(0);
        showTime(0);
    }
}

void ControlBar::showTime(int timeMs) {
    time_->showTime(timeMs);
    if (!time_->isSliderDown()) {
        showTimeText(timeMs);
    }
}

void ControlBar::showTimeText(int timeMs) {
    timeLabel_->setText(timeText(timeMs));
}

void ControlBar::setDuration(int durationMs) {
    time_->setDuration(durationMs < PlayerController::kUnknownDurationMs ? durationMs : 0);
    durationLabel_->setText(durationText(durationMs));
}

void ControlBar::changeVolume(int percent) {
    mute_->setChecked(false);
    volume_->setValue(volume_->value() + percent);
}

void ControlBar::toggleMuted() {
    mute_->toggle();
}

void ControlBar::applyVolume() {
    const bool silent = mute_->isChecked() || volume_->value() == 0;
    mute_->setIcon(signIcon(silent ? Sign::Muted : Sign::Loud, palette().color(QPalette::ButtonText)));
    emit volumeChanged(volume_->value() / 100.0);
    emit mutedChanged(mute_->isChecked());
}

void ControlBar::changeSpeed(int steps) {
    speed_->stepBy(steps);
}

void ControlBar::resetSpeed() {
    speed_->setValue(1.0);
}

void ControlBar::addButton(QAction* action) {
    auto* const button = makeButton("", QString(), 20);
    button->setDefaultAction(action);
    button->setToolButtonStyle(Qt::ToolButtonIconOnly);
    layout()->addWidget(button);
}
