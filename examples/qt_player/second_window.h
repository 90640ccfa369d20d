#pragma once

#include <QWidget>

class VideoArea;

// A window with nothing but the picture, for a second screen. Closing it hides it: the player may still be drawing on
// it for a moment, so that the native window lives as long as this object.
class SecondWindow : public QWidget {
    Q_OBJECT

public:
    explicit SecondWindow(QWidget* parent);

    VideoArea* area() const { return area_; }

signals:
    void shownOrHidden(bool shown);

protected:
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;

private:
    void toggleFullScreen();

    VideoArea* area_;
};
