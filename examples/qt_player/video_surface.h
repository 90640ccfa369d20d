#pragma once

#include <QTimer>
#include <QWidget>

// [embed] A widget that the player draws on
//
// A native window of its own that Qt never paints on. The player's renderer moves the native window to where it was
// when it got to know it, and resizes it to what it is told, each time that it is told a new size; so this widget
// stands at the origin of its parent, which is native too, and fills it.
class VideoSurface : public QWidget {
    Q_OBJECT

public:
    explicit VideoSurface(QWidget* parent);

    // In device pixels, as the player takes it.
    QSize pixelSize() const;

    QPaintEngine* paintEngine() const override { return nullptr; }

signals:
    // The size has changed and has not changed again for a moment. Resizing what the player draws on isn't cheap.
    void resized();
    void doubleClicked();
    void pointerMoved();

protected:
    bool event(QEvent* event) override;
    void paintEvent(QPaintEvent*) override {}
    void mouseDoubleClickEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;

private:
    void fillParent();

    QTimer settled_;
};
// [embed end]
