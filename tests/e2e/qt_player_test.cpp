#include "e2e/qt_player_test.h"

#include <QApplication>
#include <QDoubleSpinBox>
#include <QFileInfo>
#include <QLabel>
#include <QLineEdit>
#include <QSignalSpy>
#include <QToolButton>
#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "devices_menu.h"
#include "e2e/sound.h"
#include "minute_plot.h"
#include "support/x_screen.h"
#include "theme.h"
#include "time_slider.h"
#include "time_text.h"

// The program itself, time, sound and what is recorded.

using State = PlayerController::State;

namespace {

constexpr int kScreenWidth = 1700;
constexpr int kScreenHeight = 900;

}  // namespace

void QtPlayerTest::makePictures(const QString& clip, const QString& folder) {
    const QString saved = QDir::currentPath();
    initTestCase();
    window_->resize(900, 620);
    // By its bare name: where it lies doesn't belong into a document.
    QDir::setCurrent(QFileInfo(clip).path());
    window_->open(QFileInfo(clip).fileName());
    EVENTUALLY(player().state() == State::Playing && isPicture(shown(area())));
    player().seek(player().durationMs() * 2 / 5);
    EVENTUALLY(player().timeMs() > player().durationMs() * 2 / 5 + 500);
    press(Qt::Key_Space);
    EVENTUALLY(isStill());
    takeScreenshot(QDir(saved).absoluteFilePath(folder + QStringLiteral("/qt_player.png")));

    auto* const second = find<SecondWindow>("secondWindow");
    second->move(window_->width() + 10, (window_->height() - 270) / 2);
    second->resize(480, 270);
    press(Qt::Key_F9);
    press(Qt::Key_F10);
    press(Qt::Key_W);
    EVENTUALLY(second->isVisible() && isPicture(shown(second->area())) && isStill());
    takeScreenshot(QDir(saved).absoluteFilePath(folder + QStringLiteral("/qt_player_windows.png")));
    endsThePlayerBeforeItsWindow();
}

void QtPlayerTest::initTestCase() {
    QVERIFY(folder_.isValid());
    sound_ = folder_.filePath(QStringLiteral("sound.raw"));
    kelp::test::recordSoundTo(sound_.toStdString());
    window_ = std::make_unique<MainWindow>();
    window_->move(0, 0);
    window_->show();
    QVERIFY(QTest::qWaitForWindowExposed(window_.get(), kWaitMs));
    activate();
    QCOMPARE(player().state(), State::Idle);
    QVERIFY(!find<QLineEdit>("url")->hasFocus());
    takeScreenshot(QStringLiteral("empty.png"));
    connect(&heartbeat_, &QTimer::timeout, this,
            [this] { longestStallMs_ = std::max(longestStallMs_, sinceBeat_.restart()); });
    sinceBeat_.start();
    heartbeat_.start(10);
}

void QtPlayerTest::playsWhatIsTypedIntoTheUrlField() {
    open("clicks.mp4");
    EVENTUALLY(player().timeMs() > 500);
    QCOMPARE(find<TimeSlider>("timeSlider")->maximum(), player().durationMs());
    QVERIFY(std::abs(player().durationMs() - 40000) < 1000);
    EVENTUALLY(find<QLabel>("time")->text() != QLatin1String("0:00"));
    QCOMPARE(find<QLabel>("duration")->text(), QStringLiteral("0:40"));
    QVERIFY(window_->windowTitle().contains(QLatin1String("clicks.mp4")));
    // The log comes from the player's threads.
    EVENTUALLY(logText().contains(QLatin1String("onPrepared, hasVideo:1, hasAudio:1")));
    takeScreenshot(QStringLiteral("playing.png"));
}

void QtPlayerTest::pausesAtTheSpaceBar() {
    pause(true);
    EVENTUALLY(isStill());
    pause(false);
    EVENTUALLY(!isStill());
}

void QtPlayerTest::seeksWhileTheSliderIsDragged() {
    pause(true);
    EVENTUALLY(isStill());
    auto* const slider = find<TimeSlider>("timeSlider");
    QSignalSpy seeks(slider, &TimeSlider::seekRequested);
    const int middle = slider->height() / 2;
    const QImage before = shown(area());
    QTest::mousePress(slider, Qt::LeftButton, {}, {slider->width() / 2, middle});
    // The target shows at once, and the picture follows while the button is still down.
    QVERIFY(std::abs(slider->value() - player().durationMs() / 2) < 200);
    QCOMPARE(find<QLabel>("time")->text(), timeText(slider->value()));
    EVENTUALLY(shown(area()) != before && isStill());
    const QImage halfWay = shown(area());
    for (int x = slider->width() / 2; x < slider->width() * 3 / 4; x += 20) {
        QTest::mouseMove(slider, {x, middle});
    }
    QTest::mouseMove(slider, {slider->width() * 3 / 4, middle});
    EVENTUALLY(seeks.count() >= 2);
    EVENTUALLY(shown(area()) != halfWay && isStill());
    const int target = slider->value();
    QVERIFY(std::abs(target - player().durationMs() * 3 / 4) < 400);
    QTest::mouseRelease(slider, Qt::LeftButton, {}, {slider->width() * 3 / 4, middle});
    // Where the player says that it is, within a picture or two.
    EVENTUALLY(std::abs(player().timeMs() - target) <= 100);
    QCOMPARE(player().state(), State::Paused);
    pause(false);
    EVENTUALLY(player().timeMs() > target + 300);
}

void QtPlayerTest::playsSlowerAndFaster() {
    player().seek(1000);
    auto* const speed = find<QDoubleSpinBox>("speed");
    for (int i = 0; i < 5; ++i) {
        press(Qt::Key_BracketLeft);
    }
    QCOMPARE(speed->value(), 0.25);  // the least
    const auto pace = [this] {
        const int from = player().timeMs();
        QElapsedTimer clock;
        clock.start();
        QTest::qWait(1000);
        return static_cast<double>(player().timeMs() - from) / static_cast<double>(clock.elapsed());
    };
    // Pictures are held for twice their time at most, so that they don't get far below half their pace.
    double slow = 0;
    EVENTUALLY((slow = pace()) > 0.05 && slow < 0.75);
    for (int i = 0; i < 20; ++i) {
        press(Qt::Key_BracketRight);
    }
    QCOMPARE(speed->value(), 4.0);  // the most
    // A slow machine may not get there: faster than before is what counts.
    double fast = 0;
    EVENTUALLY([&] {
        if (player().state() == State::Completed) {
            player().seek(1000);
        }
        return (fast = pace()) > 1.1 * slow;
    }());
    std::printf("pace at speed 0.25: %.2f, at 4: %.2f\n", slow, fast);
    press(Qt::Key_Backspace);
    QCOMPARE(speed->value(), 1.0);
}

void QtPlayerTest::changesTheVolumeAndMutes() {
    player().seek(2000);
    int full = 0;
    EVENTUALLY((full = loudness()) > 3000);
    auto* const volume = find<QSlider>("volume");
    volume->setValue(25);
    EVENTUALLY(loudness() > full / 8 && loudness() < full / 2);
    press(Qt::Key_M);
    QVERIFY(find<QToolButton>("mute")->isChecked());
    EVENTUALLY(loudness() == 0);
    // A new playback keeps what was chosen.
    QSignalSpy opened(&player(), &PlayerController::opened);
    open("clicks.mp4");
    QCOMPARE(opened.count(), 1);
    EVENTUALLY(player().timeMs() > 700);
    EVENTUALLY(loudness() == 0);
    for (int i = 0; i < 20; ++i) {
        press(Qt::Key_Up);
    }
    QVERIFY(!find<QToolButton>("mute")->isChecked());
    QCOMPARE(volume->value(), 100);
    EVENTUALLY(loudness() > 3000);
}

void QtPlayerTest::drawsTheLastMinute() {
    press(Qt::Key_F8);
    auto* const queues = find<MinutePlot>("queues");
    EVENTUALLY(queues->isVisible() && queues->pointCount() > 5);
    takeScreenshot(QStringLiteral("statistics.png"));
    press(Qt::Key_F8);
    EVENTUALLY(!queues->isVisible());
}

void QtPlayerTest::recordsWhatIsPlayed() {
    const QString path = folder_.filePath(QStringLiteral("recorded.mkv"));
    auto* const record = find<QAction>("record");
    QVERIFY(!record->isChecked());
    player().startRecording(path);
    EVENTUALLY(record->isChecked());
    // From the next key frame on.
    EVENTUALLY(QFileInfo(path).size() > 0);
    record->trigger();
    EVENTUALLY(!record->isChecked());
    QSignalSpy changes(&player(), &PlayerController::recordingChanged);
    player().startRecording(folder_.filePath(QStringLiteral("recorded.txt")));
    EVENTUALLY(!changes.isEmpty());
    QVERIFY(!record->isChecked());
}

// The driver takes a file for a device, and its name for the device's.
void QtPlayerTest::playsOnAnotherDeviceFromTheMenu() {
    const QString other = folder_.filePath(QStringLiteral("other.raw"));
    auto* const devices = find<DevicesMenu>("soundDevices");
    devices->showDevices({other});
    QCOMPARE(devices->actions().size(), 2);
    QVERIFY(devices->actions().at(0)->isChecked());
    press(Qt::Key_D);
    EVENTUALLY(QFileInfo(other).size() > 0);
    devices->showDevices({});
    QVERIFY(devices->actions().at(1)->isChecked());
    devices->actions().at(0)->trigger();
    const qint64 size = QFileInfo(sound_).size();
    EVENTUALLY(QFileInfo(sound_).size() != size);
}

void QtPlayerTest::endsThePlayerBeforeItsWindow() {
    heartbeat_.stop();
    std::printf("the longest time without serving the event loop: %lld ms\n", static_cast<long long>(longestStallMs_));
    QSignalSpy closed(window_.get(), &MainWindow::closed);
    window_->close();
    QVERIFY(!window_->isVisible());
    EVENTUALLY(closed.count() == 1);
    window_.reset();
}

int main(int argc, char** argv) {
    // Before Qt and SDL look for a screen.
    kelp::test::XScreen screen(kScreenWidth, kScreenHeight);
    setenv("QT_QPA_PLATFORM", "xcb", 1);
    // Windows change their size in here while they are drawn on; the graphics driver without hardware has been seen to
    // write past its memory then.
    setenv("SDL_RENDER_DRIVER", "software", 1);
    setenv("SDL_FRAMEBUFFER_ACCELERATION", "0", 1);  // SDL's windows for that renderer are drawn by the driver, too
    QApplication application(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    applyTheme(application);
    QtPlayerTest test;
    if (argc == 4 && QLatin1String(argv[1]) == QLatin1String("--pictures")) {
        test.makePictures(QString::fromLocal8Bit(argv[2]), QString::fromLocal8Bit(argv[3]));
        return 0;
    }
    return QTest::qExec(&test, argc, argv);
}
