// A Qt widget that shows a player's pictures: cookbook_qt FILE
#include <QApplication>
#include <QCloseEvent>
#include <QResizeEvent>
#include <QWidget>

#include "kelp_player/tarn_player.h"

namespace {

// [widget]
// The player draws in the widget's native window; Qt must not.
class VideoWidget final : public QWidget {
public:
    explicit VideoWidget(kelp::TarnPlayer& player) : player_(player) {
        setAttribute(Qt::WA_NativeWindow);
        setAttribute(Qt::WA_PaintOnScreen);
        setAttribute(Qt::WA_OpaquePaintEvent);
        tellSize();
    }
    QPaintEngine* paintEngine() const override { return nullptr; }

protected:
    void resizeEvent(QResizeEvent*) override { tellSize(); }

    // With the closing Qt destroys the native window, and the player must not draw on it any more by then.
    void closeEvent(QCloseEvent* event) override {
        player_.stop();
        player_.removeWindow(handle());
        event->accept();
    }

private:
    void* handle() const { return reinterpret_cast<void*>(winId()); }

    // The size is in pixels of the screen, Qt's in points.
    void tellSize() {
        const double scale = devicePixelRatioF();
        player_.addWindow(handle(), kelp::WINDOW_TYPE_QT_WINID, static_cast<int>(width() * scale),
                          static_cast<int>(height() * scale));
    }

    kelp::TarnPlayer& player_;
};
// [/widget]

// [events]
// Takes the events to Qt's thread.
class QtEvents final : public kelp::TarnPlayerObserver {
public:
    explicit QtEvents(QApplication& app) : app_(app) {}

    void onCompleted() override {
        QMetaObject::invokeMethod(
            &app_, [] { QApplication::closeAllWindows(); }, Qt::QueuedConnection);
    }
    void onFailed(int) override {
        QMetaObject::invokeMethod(
            &app_, [] { QApplication::exit(1); }, Qt::QueuedConnection);
    }
    // [/events]
    void onVideoSizeUpdated(int, int, int) override {}
    void onPrepared(bool, bool) override {}
    void onStarted() override {}
    void onFirstVideoFrame(int) override {}
    void onFirstAudioFrame(int) override {}
    void onDurationUpdated(int) override {}

private:
    QApplication& app_;
};

}  // namespace

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", qgetenv("QT_QPA_PLATFORM").isEmpty() ? "xcb" : qgetenv("QT_QPA_PLATFORM"));
    QApplication app(argc, argv);
    if (argc != 2) {
        return 2;
    }
    QtEvents events(app);
    // [player]
    kelp::TarnPlayer* player = kelp::TarnPlayer::create();
    player->setOption("preset", "recommended");
    // [/player]
    player->setAVSyncMode(kelp::SYNC_MASTER_AUDIO);
    int exitCode = 1;
    {
        VideoWidget widget(*player);
        widget.resize(1280, 720);
        widget.show();
        player->setDataSource(argv[1], 0, &events);
        player->prepareAsync();
        player->start();
        exitCode = QApplication::exec();
        player->stop();  // again, if the end came otherwise than by closing the window
    }
    kelp::TarnPlayer::destroy(player);
    return exitCode;
}
