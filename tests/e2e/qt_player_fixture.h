#pragma once

#include <QElapsedTimer>
#include <QImage>
#include <QObject>
#include <QPlainTextEdit>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>
#include <memory>

#include "main_window.h"
#include "second_window.h"
#include "video_area.h"
#include "video_surface.h"

constexpr int kWaitMs = 30000;

// Waits for a condition, by the clock: Qt's own macros count how often they looked, and some conditions here take a
// while to be looked at.
#define EVENTUALLY(...) QVERIFY(QTest::qWaitFor([&] { return __VA_ARGS__; }, kWaitMs))

// A file of the table of media files.
QString media(const char* name);

// The program's window, and what a test does with it.
class QtPlayerFixture : public QObject {
    Q_OBJECT

protected:
    template <typename Widget>
    Widget* find(const char* name) {
        auto* const widget = window_->findChild<Widget*>(QLatin1String(name));
        if (!widget) {
            qFatal("no widget %s", name);
        }
        return widget;
    }
    PlayerController& player() { return window_->player(); }
    VideoArea* area() { return find<VideoArea>("picture"); }
    void activate();
    void press(Qt::Key key);
    // What the screen shows where a picture is to be.
    QImage shown(VideoArea* area);
    static bool isPicture(const QImage& image);
    bool isStill();
    // Opens by the URL field and waits for pictures.
    void open(const char* name);
    void pause(bool paused);
    QString logText() { return find<QPlainTextEdit>("logText")->toPlainText(); }
    // The loudest sample of the last tenth of a second that was played.
    int loudness() const;
    void takeScreenshot(const QString& path);

    std::unique_ptr<MainWindow> window_;
    QTemporaryDir folder_;
    QString sound_;
    QTimer heartbeat_;
    QElapsedTimer sinceBeat_;
    qint64 longestStallMs_ = 0;
};
