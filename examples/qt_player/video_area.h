#pragma once

#include <QSize>
#include <QString>
#include <QWidget>

class VideoSurface;

// A black area with the picture in its middle, in the picture's own shape; without a picture it shows a hint.
//
// The player fills a window to its edges, so the shape is given to the window.
class VideoArea : public QWidget {
    Q_OBJECT

public:
    explicit VideoArea(QWidget* parent = nullptr);

    VideoSurface* surface() const { return surface_; }
    void setPictureSize(QSize size);
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
    void placePicture();

    QWidget* frame_;  // native, so that the surface never moves within its parent
    VideoSurface* surface_;
    QSize pictureSize_{16, 9};
    QString title_;
    QString text_;
};
