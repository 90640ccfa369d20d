#include "second_window.h"

#include <QHideEvent>
#include <QShowEvent>
#include <QVBoxLayout>

#include "video_area.h"

SecondWindow::SecondWindow(QWidget* parent) : QWidget(parent, Qt::Window), area_(new VideoArea) {
    setWindowTitle(tr("Second window"));
    resize(640, 360);
    auto* const layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(area_);
    connect(area_, &VideoArea::doubleClicked, this, &SecondWindow::toggleFullScreen);
}

// Minimised and restored by the desktop it stays in use.
void SecondWindow::showEvent(QShowEvent* event) {
    if (!event->spontaneous()) {
        emit shownOrHidden(true);
    }
}

void SecondWindow::hideEvent(QHideEvent* event) {
    if (!event->spontaneous()) {
        emit shownOrHidden(false);
    }
}

void SecondWindow::toggleFullScreen() {
    setWindowState(windowState() ^ Qt::WindowFullScreen);
}
