#include "e2e/qt_player_fixture.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLineEdit>
#include <QScreen>
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "e2e/media.h"

using State = PlayerController::State;

QString media(const char* name) {
    return QString::fromStdString(kelp::test::mediaPath(name));
}

// On a screen without a window manager SDL takes the keyboard for every window that it begins to draw on, and it is
// nobody's when that goes.
void QtPlayerFixture::activate() {
    EVENTUALLY((window_->isActiveWindow() || (window_->activateWindow(), false)));
}

void QtPlayerFixture::press(Qt::Key key) {
    activate();
    QTest::keyClick(window_.get(), key);
}

QImage QtPlayerFixture::shown(VideoArea* area) {
    const VideoSurface* const surface = area->surface();
    const QPoint corner = surface->mapToGlobal(QPoint(0, 0));
    return QGuiApplication::primaryScreen()
        ->grabWindow(0, corner.x(), corner.y(), surface->width(), surface->height())
        .toImage();
}

bool QtPlayerFixture::isPicture(const QImage& image) {
    // The test pictures have their colours side by side.
    const int row = image.height() / 3;
    int changes = 0;
    for (int x = 1; x < image.width(); ++x) {
        changes += image.pixel(x, row) != image.pixel(x - 1, row) ? 1 : 0;
    }
    return changes >= 4;
}

bool QtPlayerFixture::isStill() {
    const QImage before = shown(area());
    QTest::qWait(250);
    return isPicture(before) && shown(area()) == before;
}

void QtPlayerFixture::open(const char* name) {
    activate();
    auto* const url = find<QLineEdit>("url");
    url->setFocus();
    url->selectAll();
    QTest::keyClicks(url, media(name));
    QTest::keyClick(url, Qt::Key_Return);
    EVENTUALLY(player().isOpen());  // a short one may be over by now
    EVENTUALLY(isPicture(shown(area())));
}

void QtPlayerFixture::pause(bool paused) {
    if ((player().state() == State::Paused) != paused) {
        press(Qt::Key_Space);
    }
    QCOMPARE(player().state(), paused ? State::Paused : State::Playing);
}

int QtPlayerFixture::loudness() const {
    QFile file(sound_);
    constexpr qint64 kBytes = 48000 / 10 * 2 * 2;
    if (!file.open(QIODevice::ReadOnly) || file.size() < kBytes) {
        return -1;
    }
    file.seek((file.size() - kBytes) & ~3LL);
    const QByteArray bytes = file.read(kBytes);
    int peak = 0;
    for (qsizetype i = 0; i + 1 < bytes.size(); i += 2) {
        int16_t sample = 0;
        std::memcpy(&sample, bytes.constData() + i, sizeof sample);
        peak = std::max(peak, std::abs(static_cast<int>(sample)));
    }
    return peak;
}

void QtPlayerFixture::takeScreenshot(const QString& path) {
    QTest::qWait(50);  // for what is still to be painted
    const QFileInfo file(QDir(QStringLiteral(KELP_SCREENSHOT_DIR)), path);
    QVERIFY(file.dir().mkpath(QStringLiteral(".")));
    QRect part = window_->frameGeometry();
    if (const auto* second = find<SecondWindow>("secondWindow"); second->isVisible()) {
        part = part.united(second->frameGeometry());
    }
    const QPixmap pixels =
        QGuiApplication::primaryScreen()->grabWindow(0, part.x(), part.y(), part.width(), part.height());
    QVERIFY(pixels.save(file.absoluteFilePath()));
}
