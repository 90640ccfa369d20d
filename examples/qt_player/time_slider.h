#pragma once

#include <QSlider>

// A slider over the time of a source. It goes to where it is pressed, follows the pointer while held, and tells the
// time under the pointer.
class TimeSlider : public QSlider {
    Q_OBJECT

public:
    explicit TimeSlider(QWidget* parent = nullptr);

    // In milliseconds. Not positive: there is nowhere to go.
    void setDuration(int durationMs);
    // From the player; ignored while the user holds the slider.
    void showTime(int timeMs);

signals:
    // The user goes there: when the slider is pressed, and as often as it is dragged on.
    void seekRequested(int timeMs);

protected:
    bool event(QEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void paintEvent(QPaintEvent* event) override;

private:
    int timeAt(double x) const;
    QRectF groove() const;
    void preview(double x);
    void goTo(double x);

    double previewX_ = -1;  // below 0: the pointer is elsewhere
};
