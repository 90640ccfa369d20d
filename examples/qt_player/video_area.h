#pragma once

#include <QString>
#include <QWidget>

class VideoSurface;

// A black area that the player draws on, which gives the picture its own shape; without a picture it shows a hint.
class VideoArea : public QWidget {
    Q_OBJECT

public:
    explicit VideoArea(QWidget* parent = nullptr);

    VideoSurface* surface() const { return surface_; }
    void setPictureShown(bool shown);
    // A large line and a smaller one below it.
    void setHint(const QString& title, const QString& text);

signals:
    void doubleClicked();
    void pointerMoved();

protected:
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void mouseDoubleClickEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;

private:
    QWidget* frame_;  // native, so that the surface never moves within its parent
    VideoSurface* surface_;
    QString title_;
    QString text_;
};
