#include <QApplication>
#include <QDockWidget>
#include <QLineEdit>
#include <QMenuBar>
#include <QMessageBox>
#include <QToolBar>

#include "control_bar.h"
#include "icons.h"
#include "main_window.h"
#include "second_window.h"
#include "tracks_menu.h"

// The menus, and the keys that stand in them.

QAction* MainWindow::makeAction(QMenu* menu, const QString& text, const QList<QKeySequence>& keys,
                                std::function<void()> act) {
    QAction* const action = menu->addAction(text);
    action->setShortcuts(keys);
    // Also in the second window, and where the menu bar is hidden.
    action->setShortcutContext(Qt::ApplicationShortcut);
    addAction(action);
    connect(action, &QAction::triggered, this, std::move(act));
    return action;
}

QAction* MainWindow::makeSwitch(QMenu* menu, const QString& text, const char* name, Qt::Key key, bool on) {
    QAction* const action = makeAction(menu, text, {key}, [] {});
    action->setObjectName(QLatin1String(name));
    action->setCheckable(true);
    action->setChecked(on);
    return action;
}

QAction* MainWindow::addKey(const QString& text, Qt::Key key) {
    auto* const action = new QAction(text, this);
    action->setShortcut(key);
    action->setShortcutContext(Qt::ApplicationShortcut);
    addAction(action);
    return action;
}

void MainWindow::makeActions() {
    const QColor color = palette().color(QPalette::ButtonText);
    QMenu* const file = menuBar()->addMenu(tr("&File"));
    QAction* const openFile = makeAction(file, tr("&Open…"), {QKeySequence::Open}, [this] { chooseFile(); });
    openFile->setIcon(signIcon(Sign::Open, color));
    makeAction(file, tr("Open &URL"), {Qt::CTRL | Qt::Key_L}, [this] {
        url_->setFocus(Qt::ShortcutFocusReason);
        url_->selectAll();
    });
    makeAction(file, tr("Open s&ubtitles…"), {Qt::CTRL | Qt::SHIFT | Qt::Key_O}, [this] { chooseSubtitles(); });
    makeAction(file, tr("&Save picture…"), {QKeySequence::Save}, [this] { chooseSnapshot(); });
    file->addSeparator();
    makeAction(file, tr("&Quit"), {Qt::CTRL | Qt::Key_Q}, [this] { close(); });

    QMenu* const playback = menuBar()->addMenu(tr("&Playback"));
    makeAction(playback, tr("&Play or pause"), {Qt::Key_Space}, [this] { player_.togglePlay(); });
    makeAction(playback, tr("&Stop"), {Qt::Key_S}, [this] { player_.stop(); });
    playback->addSeparator();
    const auto go = [this](int stepMs) {
        if (player_.isOpen()) {
            player_.seek(qBound(0, player_.timeMs() + stepMs, player_.durationMs()));
            controls_->showTime(player_.timeMs());
        }
    };
    makeAction(playback, tr("&Back 5 s"), {Qt::Key_Left}, [go] { go(-5000); });
    makeAction(playback, tr("&Forward 5 s"), {Qt::Key_Right}, [go] { go(5000); });
    makeAction(playback, tr("Pre&vious picture"), {Qt::Key_Comma}, [this] { player_.step(-1); });
    makeAction(playback, tr("Ne&xt picture"), {Qt::Key_Period}, [this] { player_.step(1); });
    QAction* const loop = makeSwitch(playback, tr("In a loo&p"), "loop", Qt::Key_L, /*on=*/false);
    connect(loop, &QAction::toggled, &player_, &PlayerController::setLooped);
    QAction* const part =
        makeAction(playback, tr("&Repeat from here"), {Qt::SHIFT | Qt::Key_L}, [this] { player_.markPart(); });
    part->setObjectName(QLatin1String("part"));
    connect(&player_, &PlayerController::partChanged, part, [part](PlayerController::Part now) {
        using Part = PlayerController::Part;
        part->setText(now == Part::None    ? tr("&Repeat from here")
                      : now == Part::Begun ? tr("&Repeat up to here")
                                           : tr("&Repeat no more"));
    });
    playback->addSeparator();
    makeAction(playback, tr("Slo&wer"), {Qt::Key_BracketLeft}, [this] { controls_->changeSpeed(-1); });
    makeAction(playback, tr("Fas&ter"), {Qt::Key_BracketRight}, [this] { controls_->changeSpeed(1); });
    makeAction(playback, tr("&Normal speed"), {Qt::Key_Backspace}, [this] { controls_->resetSpeed(); });
    playback->addSeparator();
    makeAction(playback, tr("&Louder"), {Qt::Key_Up}, [this] { controls_->changeVolume(5); });
    makeAction(playback, tr("&Quieter"), {Qt::Key_Down}, [this] { controls_->changeVolume(-5); });
    makeAction(playback, tr("&Mute"), {Qt::Key_M}, [this] { controls_->toggleMuted(); });
    playback->addSeparator();
    addTracks(playback, tr("&Video track"), kelp::TRACK_KIND_VIDEO, "videoTracks", Qt::Key_V);
    addTracks(playback, tr("Soun&d track"), kelp::TRACK_KIND_AUDIO, "soundTracks", Qt::Key_A);
    addTracks(playback, tr("S&ubtitles"), kelp::TRACK_KIND_SUBTITLE, "subtitleTracks", Qt::Key_J);
    addSoundDevices(playback);
    playback->addSeparator();
    addRecording(playback);

    QMenu* const view = menuBar()->addMenu(tr("&View"));
    fullScreenAction_ = makeAction(view, tr("&Full screen"), {Qt::Key_F, Qt::Key_F11},
                                   [this] { setFullScreen(fullScreenAction_->isChecked()); });
    fullScreenAction_->setCheckable(true);
    fullScreenAction_->setIcon(signIcon(Sign::FullScreen, color));
    QAction* const keepShape = makeSwitch(view, tr("&Keep the picture's shape"), "keepShape", Qt::Key_Z, /*on=*/true);
    connect(keepShape, &QAction::toggled, &player_, &PlayerController::setKeepsShape);
    secondAction_ = makeAction(view, tr("Second &window"), {Qt::Key_W},
                               [this] { second_->setVisible(secondAction_->isChecked()); });
    secondAction_->setCheckable(true);
    secondAction_->setIcon(signIcon(Sign::SecondWindow, color));
    view->addSeparator();
    const auto addDock = [&](QDockWidget* dock, const QString& text, Qt::Key key, Sign sign) {
        QAction* const action = dock->toggleViewAction();
        action->setText(text);
        action->setShortcut(key);
        action->setShortcutContext(Qt::ApplicationShortcut);
        action->setIcon(signIcon(sign, color));
        view->addAction(action);
        addAction(action);
    };
    addDock(optionsDock_, tr("&Options"), Qt::Key_F10, Sign::Options);
    addDock(logDock_, tr("&Log"), Qt::Key_F9, Sign::Log);
    addDock(statisticsDock_, tr("S&tatistics"), Qt::Key_F8, Sign::Log);
    auto* const leave = new QAction(this);
    leave->setShortcut(Qt::Key_Escape);
    addAction(leave);
    connect(leave, &QAction::triggered, this, [this] { setFullScreen(false); });

    QMenu* const help = menuBar()->addMenu(tr("&Help"));
    makeAction(help, tr("&Keys"), {Qt::Key_F1}, [this] { showKeys(); });

    toolBar_->addAction(openFile);
    toolBar_->addWidget(url_);
    toolBar_->addAction(optionsDock_->toggleViewAction());
    toolBar_->addAction(logDock_->toggleViewAction());
    controls_->addButton(secondAction_);
    controls_->addButton(fullScreenAction_);
}

void MainWindow::addTracks(QMenu* menu, const QString& title, kelp::TrackKind kind, const char* name, Qt::Key key) {
    auto* const tracks = new TracksMenu(title, kind, this);
    tracks->setObjectName(QLatin1String(name));
    menu->addMenu(tracks);
    connect(addKey(tr("%1: the next one").arg(title), key), &QAction::triggered, tracks, &TracksMenu::chooseNext);
    connect(tracks, &TracksMenu::chosen, &player_, &PlayerController::selectTrack);
    connect(&player_, &PlayerController::tracksChanged, tracks, &TracksMenu::showTracks);
}

void MainWindow::showKeys() {
    QString text;
    for (const QAction* action : actions()) {
        if (!action->text().isEmpty() && !action->shortcuts().isEmpty()) {
            text += QStringLiteral("<tr><td>%1</td><td>&nbsp;&nbsp;<b>%2</b></td></tr>")
                        .arg(action->text().remove(QLatin1Char('&')),
                             QKeySequence::listToString(action->shortcuts(), QKeySequence::NativeText).toHtmlEscaped());
        }
    }
    auto* const box = new QMessageBox(QMessageBox::NoIcon, tr("Keys"), QStringLiteral("<table>%1</table>").arg(text),
                                      QMessageBox::Close, this);
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->open();
}
