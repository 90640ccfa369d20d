#include <QApplication>
#include <QDropEvent>
#include <QFileDialog>
#include <QLineEdit>
#include <QMenu>
#include <QMimeData>
#include <algorithm>
#include <cmath>

#include "e2e/qt_player_test.h"
#include "time_slider.h"

// What the windows show, and where: files that are dropped on them, shapes, full screen.

namespace {

// Whether the window takes them.
bool dropOn(QWidget& window, const QStringList& paths) {
    QList<QUrl> urls;
    for (const QString& path : paths) {
        urls << QUrl::fromLocalFile(path);
    }
    QMimeData files;
    files.setUrls(urls);
    const QPoint middle = window.rect().center();
    QDragEnterEvent enter(middle, Qt::CopyAction, &files, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(&window, &enter);
    QDropEvent drop(middle, Qt::CopyAction, &files, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(&window, &drop);
    return enter.isAccepted() && drop.isAccepted();
}

}  // namespace

void QtPlayerTest::keepsTheShapeOfADroppedFilesPicture() {
    QVERIFY(dropOn(*window_, {media("bars_rotated.mp4")}));
    EVENTUALLY(player().isOpen());
    // Turned upright, as high as there is room: the first bar is on top, the last one at the bottom.
    const auto near = [](QRgb pixel, int red, int green, int blue) {
        return std::abs(qRed(pixel) - red) < 12 && std::abs(qGreen(pixel) - green) < 12 &&
               std::abs(qBlue(pixel) - blue) < 12;
    };
    const auto isUpright = [&] {
        const QImage whole = shown(area());
        const int width = whole.height() * 9 / 16;
        const int left = (whole.width() - width) / 2;
        const QImage image = whole.copy(left, 0, width, whole.height());
        const int x = image.width() * 3 / 4;
        return near(image.pixel(x, image.height() / 14), 191, 191, 191) &&
               near(image.pixel(x, image.height() * 3 / 14), 191, 191, 0) &&
               near(image.pixel(x, image.height() - 6), 0, 0, 191) &&
               near(image.pixel(image.width() - 3, 3), 191, 191, 191) &&
               near(whole.pixel(left - 3, image.height() / 2), 0, 0, 0) &&
               near(whole.pixel(left + width + 3, image.height() / 2), 0, 0, 0);
    };
    EVENTUALLY(isUpright());
    // Also in another size of the window.
    const QSize size = window_->size();
    window_->resize(700, 500);
    EVENTUALLY(window_->size() == QSize(700, 500) && area()->surface()->size() == area()->size());
    EVENTUALLY(isUpright());
    window_->resize(size);
    EVENTUALLY(window_->size() == size && isUpright());
    // Without it the window is filled, and turns black beside the picture again.
    open("bars_narrow.mp4");
    const auto isFilled = [&] { return near(shown(area()).pixel(3, 3), 191, 191, 191); };
    EVENTUALLY(near(shown(area()).pixel(3, 3), 0, 0, 0));
    press(Qt::Key_Z);
    QVERIFY(!find<QAction>("keepShape")->isChecked());
    EVENTUALLY(isFilled());
    press(Qt::Key_Z);
    EVENTUALLY(!isFilled());
}

void QtPlayerTest::showsTheSubtitlesOfADroppedFile() {
    const QString subtitles = folder_.filePath(QStringLiteral("film.srt"));
    {
        QFile file(subtitles);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("1\n00:00:00,000 --> 00:00:20,000\nbeside\n\n");
    }
    open("two_tracks.mp4");
    auto* const menu = find<QMenu>("subtitleTracks");
    EVENTUALLY(menu->actions().isEmpty());
    QVERIFY(dropOn(*window_, {subtitles}));
    EVENTUALLY(menu->actions().size() == 2);  // none, and those
    QVERIFY(menu->actions().back()->isChecked());
    QCOMPARE(menu->actions().back()->text(), QStringLiteral("film.srt"));
    EVENTUALLY(player().isOpen());
    QCOMPARE(player().source(), media("two_tracks.mp4"));
    // The next film hasn't any, and one that comes with them has.
    open("clicks.mp4");
    EVENTUALLY(menu->actions().isEmpty());
    QVERIFY(dropOn(*window_, {subtitles, media("two_tracks.mp4")}));
    EVENTUALLY(menu->actions().size() == 2 && menu->actions().back()->isChecked());
    EVENTUALLY(player().isOpen());
}

void QtPlayerTest::showsTheSamePicturesInASecondWindow() {
    auto* const second = find<SecondWindow>("secondWindow");
    second->move(window_->width() + 20, 30);
    open("clicks.mp4");
    player().seek(20000);
    press(Qt::Key_W);
    QVERIFY(QTest::qWaitForWindowExposed(second, kWaitMs));
    EVENTUALLY(isPicture(shown(second->area())));
    activate();
    press(Qt::Key_F9);
    press(Qt::Key_F10);
    pause(true);
    EVENTUALLY(isStill() && isPicture(shown(second->area())));
    takeScreenshot(QStringLiteral("two_windows.png"));
    // The same picture, in another size.
    const auto smaller = [](const QImage& image) {
        // Without what is black beside it.
        QRect picture(QPoint(), QSize(16, 9).scaled(image.size(), Qt::KeepAspectRatio));
        picture.moveCenter(image.rect().center());
        return image.copy(picture)
            .scaled(32, 18, Qt::IgnoreAspectRatio, Qt::SmoothTransformation)
            .convertToFormat(QImage::Format_Grayscale8);
    };
    const auto difference = [&] {
        const QImage one = smaller(shown(area()));
        const QImage other = smaller(shown(second->area()));
        int most = 0;
        for (int y = 0; y < one.height(); ++y) {
            for (int x = 0; x < one.width(); ++x) {
                most = std::max(most, std::abs(qGray(one.pixel(x, y)) - qGray(other.pixel(x, y))));
            }
        }
        return most;
    };
    EVENTUALLY(difference() < 40);
    pause(false);
    press(Qt::Key_F9);
    press(Qt::Key_F10);
    // Closed and shown again, while the first window goes on.
    second->close();
    EVENTUALLY(!isStill());
    press(Qt::Key_W);
    EVENTUALLY(second->isVisible() && isPicture(shown(second->area())));
    second->close();
    EVENTUALLY(isPicture(shown(area())));
}

void QtPlayerTest::fillsTheScreenAndComesBack() {
    activate();
    const WId handle = area()->surface()->winId();
    press(Qt::Key_F);
    EVENTUALLY(window_->isFullScreen());
    EVENTUALLY(area()->size() == window_->size());
    EVENTUALLY(isPicture(shown(area())));
    // The controls come with the pointer, and go.
    QCursor::setPos(window_->mapToGlobal(QPoint(200, 200)));
    EVENTUALLY(find<TimeSlider>("timeSlider")->isVisible());
    EVENTUALLY(!find<TimeSlider>("timeSlider")->isVisible());
    press(Qt::Key_Escape);
    EVENTUALLY(!window_->isFullScreen() && find<QLineEdit>("url")->isVisible());
    QCOMPARE(area()->surface()->winId(), handle);
    EVENTUALLY(isPicture(shown(area())));
}

void QtPlayerTest::savesThePicture() {
    open("bars_narrow.mp4");
    const QString path = folder_.filePath(QStringLiteral("picture"));
    for (QAction* const action : window_->actions()) {
        if (action->shortcut() == QKeySequence(QKeySequence::Save)) {
            action->trigger();
        }
    }
    auto* const dialog = window_->findChild<QFileDialog*>();
    QVERIFY(dialog);
    dialog->selectFile(path);
    QMetaObject::invokeMethod(dialog, "accept");
    EVENTUALLY(QImage(path + QStringLiteral(".png")).size() == QSize(640, 720));
}
