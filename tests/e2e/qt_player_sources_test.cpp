#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QMenu>
#include <QMessageBox>
#include <QSignalSpy>
#include <QSpinBox>
#include <QStatusBar>
#include <QToolButton>
#include <algorithm>
#include <cstdio>
#include <utility>

#include "e2e/http_server.h"
#include "e2e/qt_player_test.h"

// Sources and their tracks: how they begin, go on, end, and fail.

using State = PlayerController::State;

void QtPlayerTest::playsAnotherTrackFromTheMenu() {
    open("two_tracks.mp4");
    for (const auto& [name, key] : {std::pair{"soundTracks", Qt::Key_A}, {"videoTracks", Qt::Key_V}}) {
        auto* const menu = find<QMenu>(name);
        EVENTUALLY(menu->actions().size() == 2);
        QVERIFY(menu->actions().front()->isChecked());
        QSignalSpy answers(&player(), &PlayerController::tracksChanged);
        menu->actions().back()->trigger();
        EVENTUALLY(answers.count() == 3);  // a list of each kind
        // Made anew from what the player says.
        QVERIFY(menu->actions().size() == 2 && menu->actions().back()->isChecked());
        QVERIFY(!menu->actions().front()->isChecked());
        press(key);
        EVENTUALLY(answers.count() == 6);
        QVERIFY(menu->actions().size() == 2 && menu->actions().front()->isChecked());
    }
    EVENTUALLY(isPicture(shown(area())));
    open("clicks.mp4");
    EVENTUALLY(find<QMenu>("soundTracks")->actions().size() == 1);
}

void QtPlayerTest::startsAgainAtItsPositionWhenHardwareDecodingIsSwitched() {
    player().seek(15000);
    EVENTUALLY(player().timeMs() > 15100);
    QSignalSpy opened(&player(), &PlayerController::opened);
    find<QCheckBox>("hardware")->setChecked(false);
    EVENTUALLY(opened.count() == 1);
    EVENTUALLY(player().state() == State::Playing);
    EVENTUALLY(player().timeMs() >= 15000 && player().timeMs() < 39000);
    EVENTUALLY(!isStill());
}

void QtPlayerTest::takesAnotherMaster() {
    auto* const level = find<QComboBox>("logLevel");
    level->setCurrentText(QStringLiteral("debug"));
    auto* const master = find<QComboBox>("master");
    for (int choice = master->count() - 1; choice >= 0; --choice) {
        master->setCurrentIndex(choice);
        player().seek(5000);
        EVENTUALLY(player().timeMs() > 5300);
    }
    EVENTUALLY(logText().contains(QLatin1String("(DEBUG)")));
    level->setCurrentText(QStringLiteral("info"));
}

void QtPlayerTest::stopsAndPlaysAgain() {
    QElapsedTimer clock;
    clock.start();
    QTest::mouseClick(find<QToolButton>("stop"), Qt::LeftButton);
    std::printf("the stop button was served in %lld ms\n", static_cast<long long>(clock.elapsed()));
    QCOMPARE(player().state(), State::Stopped);
    QVERIFY(!area()->surface()->isVisible());
    QCOMPARE(find<QLabel>("time")->text(), QStringLiteral("0:00"));
    QTest::mouseClick(find<QToolButton>("play"), Qt::LeftButton);
    EVENTUALLY(player().state() == State::Playing);
    EVENTUALLY(isPicture(shown(area())));
}

void QtPlayerTest::playsTwoTurns() {
    int turns = 0;
    int lastMs = 0;
    const auto watch = connect(&player(), &PlayerController::timeChanged, this, [&](int timeMs) {
        turns += timeMs < lastMs;
        lastMs = timeMs;
    });
    EVENTUALLY(turns >= 2 || player().state() == State::Completed);
    QVERIFY(player().state() == State::Playing);
    disconnect(watch);
}

void QtPlayerTest::playsAFilmAgainAndAgain() {
    find<QAction>("loop")->trigger();
    open("short.mp4");
    playsTwoTurns();
    find<QAction>("loop")->trigger();
    EVENTUALLY(player().state() == State::Completed);
}

void QtPlayerTest::playsAPartAgainAndAgain() {
    auto* const part = find<QAction>("part");
    open("small.mp4");
    EVENTUALLY(player().timeMs() > 0);
    part->trigger();
    const int beginMs = player().timeMs();
    QCOMPARE(part->text(), QStringLiteral("&Repeat up to here"));
    EVENTUALLY(player().timeMs() >= beginMs + 300);
    part->trigger();
    QCOMPARE(part->text(), QStringLiteral("&Repeat no more"));
    playsTwoTurns();
    part->trigger();
    QCOMPARE(part->text(), QStringLiteral("&Repeat from here"));
    EVENTUALLY(player().state() == State::Completed);
    part->trigger();
    player().seek(beginMs);
    open("small.mp4");
    QCOMPARE(part->text(), QStringLiteral("&Repeat from here"));
}

void QtPlayerTest::stepsFromPictureToPicture() {
    open("clicks.mp4");
    press(Qt::Key_Period);
    QCOMPARE(player().state(), State::Paused);
    player().seek(1000);
    // Pictures of 40 ms.
    const auto stands = [this](int timeMs) { return isStill() && player().timeMs() == timeMs; };
    EVENTUALLY(stands(1000));
    for (int i = 0; i < 5; ++i) {
        press(Qt::Key_Period);
    }
    EVENTUALLY(stands(1200));
    for (int i = 0; i < 7; ++i) {
        press(Qt::Key_Comma);
    }
    EVENTUALLY(stands(920));
    QCOMPARE(player().state(), State::Paused);
    pause(false);
}

void QtPlayerTest::goesOnFromTheEnd() {
    open("short.mp4");
    EVENTUALLY(player().state() == State::Completed);
    QSignalSpy happened(&player(), &PlayerController::happened);
    QTest::mouseClick(find<QToolButton>("play"), Qt::LeftButton);
    const auto told = [&](const char* text) {
        return std::any_of(happened.begin(), happened.end(), [&](const QList<QVariant>& arguments) {
            return arguments.first().toString().startsWith(QLatin1String(text));
        });
    };
    EVENTUALLY(told("First picture at"));
    EVENTUALLY(player().state() == State::Completed);
}

void QtPlayerTest::saysThatItWaitsForData() {
    kelp::test::HttpServer server(media("faststart.mp4").toStdString());
    server.holdAt(server.size() / 2);
    window_->open(QString::fromStdString(server.url()));
    const auto says = [this](const char* text) {
        return window_->statusBar()->currentMessage().contains(QLatin1String(text));
    };
    EVENTUALLY(says("Waiting for data, "));
    server.release();
    EVENTUALLY(!says("Waiting for data"));
    EVENTUALLY(player().state() == State::Completed);
}

void QtPlayerTest::saysWhyAFileCantBePlayed() {
    const auto message = [this] { return window_->findChild<QMessageBox*>(QStringLiteral("failure")); };
    for (const auto& [name, why] : {std::pair{"missing.mp4", "no such file"},
                                    {"empty.mp4", "the file is empty"},
                                    {"text.mp4", "it is damaged"}}) {
        window_->open(media(name));
        EVENTUALLY(message() && message()->isVisible());
        QCOMPARE(player().state(), State::Failed);
        QVERIFY2(message()->informativeText().contains(QLatin1String(name)), qPrintable(message()->informativeText()));
        QVERIFY2(message()->informativeText().contains(QLatin1String(why)), qPrintable(message()->informativeText()));
        if (message()->informativeText().contains(QLatin1String("missing"))) {
            QVERIFY(QTest::qWaitForWindowExposed(message(), kWaitMs));
            takeScreenshot(QStringLiteral("missing.png"));
        }
        message()->button(QMessageBox::Close)->click();
        EVENTUALLY(!message());
    }
    // The player is as good as new.
    open("clicks.mp4");
}

void QtPlayerTest::retriesASourceInsteadOfGivingUp() {
    find<QSpinBox>("retry")->setValue(500);
    find<QPlainTextEdit>("logText")->clear();
    // Nobody listens on a port that is for nobody's use.
    window_->open(QStringLiteral("rtsp://127.0.0.1:1/camera"));
    EVENTUALLY(logText().count(QLatin1String("add retry timer")) >= 2);
    QCOMPARE(player().state(), State::Opening);
    QVERIFY(!window_->findChild<QMessageBox*>(QStringLiteral("failure")));
    QTest::mouseClick(find<QToolButton>("stop"), Qt::LeftButton);
    QCOMPARE(player().state(), State::Stopped);
    // Without a retry the failure is told.
    find<QSpinBox>("retry")->setValue(0);
    QTest::mouseClick(find<QToolButton>("play"), Qt::LeftButton);
    EVENTUALLY(player().state() == State::Failed);
    auto* const message = find<QMessageBox>("failure");
    QVERIFY2(message->informativeText().contains(QLatin1String("refused")), qPrintable(message->informativeText()));
    message->close();
}
