#include "main_window.h"

#include <QApplication>
#include <QCloseEvent>
#include <QDockWidget>
#include <QFileInfo>
#include <QLabel>
#include <QLineEdit>
#include <QMenuBar>
#include <QMessageBox>
#include <QStatusBar>
#include <QToolBar>
#include <QVBoxLayout>

#include "control_bar.h"
#include "log_pane.h"
#include "options_panel.h"
#include "second_window.h"
#include "statistics_panel.h"
#include "time_text.h"
#include "video_area.h"
#include "video_surface.h"

namespace {

constexpr int kMessageMs = 8000;
constexpr int kShowControlsMs = 2000;

QString nameOf(const QString& source) {
    const QString name = QFileInfo(source).fileName();
    return source.contains(QLatin1String("://")) || name.isEmpty() ? source : name;
}

QDockWidget* makeDock(const QString& title, const char* name, QWidget* widget) {
    auto* const dock = new QDockWidget(title);
    dock->setObjectName(QLatin1String(name));
    dock->setWidget(widget);
    dock->hide();
    return dock;
}

}  // namespace

MainWindow::MainWindow() {
    setWindowTitle(QStringLiteral("qt_player"));
    setAcceptDrops(true);
    resize(1000, 680);
    makeWidgets();
    makeActions();
    connectPlayer();
    connectPicture(area_);
    connectPicture(second_->area());
    connect(area_, &VideoArea::pointerMoved, this, &MainWindow::showControlsForAWhile);
    connect(&hideControls_, &QTimer::timeout, this, [this] {
        if (isFullScreen() && controls_->underMouse()) {
            return;  // until it leaves
        }
        controls_->setVisible(!isFullScreen());
        hideControls_.stop();
    });
    showState(PlayerController::State::Idle);
    options_->announce();
}

MainWindow::~MainWindow() = default;

void MainWindow::makeWidgets() {
    area_ = new VideoArea;
    area_->setObjectName(QStringLiteral("picture"));
    second_ = new SecondWindow(this);
    second_->setObjectName(QStringLiteral("secondWindow"));
    controls_ = new ControlBar;
    auto* const center = new QWidget;
    auto* const layout = new QVBoxLayout(center);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addWidget(area_, 1);
    layout->addWidget(controls_);
    setCentralWidget(center);

    url_ = new QLineEdit;
    url_->setObjectName(QStringLiteral("url"));
    url_->setPlaceholderText(tr("Path or URL: a file, rtsp://camera/stream, session.sdp …"));
    url_->setClearButtonEnabled(true);
    url_->setFocusPolicy(Qt::ClickFocus);  // else keys would be typed there from the start
    connect(url_, &QLineEdit::returnPressed, this, &MainWindow::openUrl);

    toolBar_ = new QToolBar(tr("Source"));
    toolBar_->setMovable(false);
    toolBar_->setIconSize({20, 20});
    addToolBar(toolBar_);

    options_ = new OptionsPanel;
    optionsDock_ = makeDock(tr("Options"), "optionsDock", options_);
    addDockWidget(Qt::RightDockWidgetArea, optionsDock_);
    statistics_ = new StatisticsPanel;
    statisticsDock_ = makeDock(tr("Statistics"), "statisticsDock", statistics_);
    addDockWidget(Qt::RightDockWidgetArea, statisticsDock_);
    logPane_ = new LogPane;
    logDock_ = makeDock(tr("Log"), "logDock", logPane_);
    addDockWidget(Qt::BottomDockWidgetArea, logDock_);
    setCorner(Qt::BottomRightCorner, Qt::RightDockWidgetArea);

    sourceLabel_ = new QLabel;
    stateLabel_ = new QLabel;
    stateLabel_->setObjectName(QStringLiteral("state"));
    statusBar()->addPermanentWidget(sourceLabel_);
    statusBar()->addPermanentWidget(stateLabel_);
}

void MainWindow::connectPlayer() {
    connect(&log_, &LogRelay::linesWritten, logPane_, &LogPane::addLines);
    connect(logPane_, &LogPane::levelChanged, &player_, &PlayerController::setLogLevel);

    connect(controls_, &ControlBar::playClicked, &player_, &PlayerController::togglePlay);
    connect(controls_, &ControlBar::stopClicked, &player_, &PlayerController::stop);
    connect(controls_, &ControlBar::seekRequested, &player_, &PlayerController::seek);
    connect(controls_, &ControlBar::volumeChanged, &player_, &PlayerController::setVolume);
    connect(controls_, &ControlBar::mutedChanged, &player_, &PlayerController::setMuted);
    connect(controls_, &ControlBar::speedChanged, &player_, &PlayerController::setSpeed);
    connect(options_, &OptionsPanel::masterChanged, &player_, &PlayerController::setMaster);
    connect(options_, &OptionsPanel::hardwareDecodingChanged, &player_, &PlayerController::setHardwareDecoding);
    connect(options_, &OptionsPanel::retryIntervalChanged, &player_, &PlayerController::setRetryInterval);

    connectStatistics();
    connect(&player_, &PlayerController::stateChanged, this, &MainWindow::showState);
    connect(&player_, &PlayerController::opened, this, &MainWindow::showSource);
    connect(&player_, &PlayerController::timeChanged, controls_, &ControlBar::showTime);
    connect(&player_, &PlayerController::durationChanged, controls_, &ControlBar::setDuration);
    connect(&player_, &PlayerController::failed, this, &MainWindow::showFailure);
    connect(&player_, &PlayerController::happened, this,
            [this](const QString& text) { statusBar()->showMessage(text, kMessageMs); });
    connect(&player_, &PlayerController::stalled, this,
            [this](int percent) { statusBar()->showMessage(tr("Waiting for data, %1 %").arg(percent)); });
    connect(&player_, &PlayerController::stallEnded, statusBar(), &QStatusBar::clearMessage);
    connect(&player_, &PlayerController::shutDownDone, this, [this] {
        closed_ = true;
        close();
        emit closed();
    });
}

// [embed] Windows: the native handle and its size in device pixels, again when the size has changed
void MainWindow::connectPicture(VideoArea* area) {
    VideoSurface* const surface = area->surface();
    connect(surface, &VideoSurface::resized, this, [this, surface] {
        if (surface->isVisible() && !closing_) {
            player_.showIn(surface->winId(), surface->pixelSize());
        }
    });
}

// A second window shows the same pictures: they are decoded once.
void MainWindow::useSecondWindow(bool shown) {
    secondAction_->setChecked(shown);
    VideoSurface* const surface = second_->area()->surface();
    if (shown) {
        player_.showIn(surface->winId(), surface->pixelSize());
    } else if (!closing_) {
        player_.leave(surface->winId());
    }
}
// [embed end]

void MainWindow::showEvent(QShowEvent* event) {
    QMainWindow::showEvent(event);
    if (!event->spontaneous()) {
        player_.showIn(area_->surface()->winId(), area_->surface()->pixelSize());
        connect(second_, &SecondWindow::shownOrHidden, this, &MainWindow::useSecondWindow, Qt::UniqueConnection);
        connect(area_, &VideoArea::doubleClicked, fullScreenAction_, &QAction::trigger, Qt::UniqueConnection);
    }
}

void MainWindow::showState(PlayerController::State state) {
    using State = PlayerController::State;
    controls_->showState(state);
    const QString name = nameOf(player_.source());
    switch (state) {
        case State::Idle:
            showHint(tr("Drop a file here"), tr("or press Ctrl+O for a file, Ctrl+L for a URL"));
            break;
        case State::Opening:
            showHint(name, tr("opening …"));
            break;
        case State::Stopped:
            showHint(name, tr("stopped: Space plays it again"));
            break;
        case State::Failed:
            showHint(name, tr("can't be played"));
            break;
        case State::Playing:
        case State::Paused:
        case State::Completed:
            break;
    }
    static const char* const kNames[] = {"",
                                         QT_TR_NOOP("Opening"),
                                         QT_TR_NOOP("Playing"),
                                         QT_TR_NOOP("Paused"),
                                         QT_TR_NOOP("At the end"),
                                         QT_TR_NOOP("Stopped"),
                                         QT_TR_NOOP("Failed")};
    stateLabel_->setText(tr(kNames[static_cast<int>(state)]));
}

void MainWindow::showSource(const SourceInfo& info) {
    setWindowTitle(QStringLiteral("%1 – qt_player").arg(nameOf(player_.source())));
    QStringList facts;
    if (info.hasVideo) {
        facts << QStringLiteral("%1 × %2").arg(info.width).arg(info.height);
        facts << tr("%1 pictures/s").arg(info.framesPerSecond);
    }
    facts << (info.hasAudio ? tr("sound") : tr("no sound"));
    sourceLabel_->setText(facts.join(QStringLiteral(" · ")));
    if (info.hasVideo) {
        showPicture(true);
    } else {
        showHint(nameOf(player_.source()), tr("sound only"));
    }
}

void MainWindow::showHint(const QString& title, const QString& text) {
    showPicture(false);
    area_->setHint(title, text);
    second_->area()->setHint(title, text);
}

void MainWindow::showPicture(bool shown) {
    area_->setPictureShown(shown);
    second_->area()->setPictureShown(shown);
}

// Not modal to the event loop: the program goes on behind it.
void MainWindow::showFailure(const QString& what, const QString& why) {
    sourceLabel_->clear();
    if (failure_) {
        failure_->close();
    }
    const QString source = player_.source();
    failure_ = new QMessageBox(QMessageBox::Warning, tr("qt_player"), QStringLiteral("<b>%1</b>").arg(what),
                               QMessageBox::Close, this);
    failure_->setObjectName(QStringLiteral("failure"));
    failure_->setAttribute(Qt::WA_DeleteOnClose);
    QString text = why.isEmpty() ? source : QStringLiteral("%1: %2").arg(source, why);
    if (source.contains(QLatin1String("://"))) {
        text += tr("\n\nWith a retry interval in the options (F10) such a source is started again by itself.");
    }
    failure_->setInformativeText(text);
    failure_->open();
}

// The picture's native window stays the same one, so that the player needn't be told but of its size.
void MainWindow::setFullScreen(bool fullScreen) {
    fullScreenAction_->setChecked(fullScreen);
    if (fullScreen == isFullScreen()) {
        return;
    }
    if (fullScreen) {
        hiddenInFullScreen_.clear();
        for (QWidget* widget :
             QList<QWidget*>{menuBar(), toolBar_, controls_, statusBar(), optionsDock_, statisticsDock_, logDock_}) {
            if (widget->isVisible()) {
                hiddenInFullScreen_.append(widget);
                widget->hide();
            }
        }
    } else {
        for (QWidget* widget : hiddenInFullScreen_) {
            widget->show();
        }
    }
    setWindowState(windowState() ^ Qt::WindowFullScreen);
    pointer_ = QCursor::pos();
}

// Showing and hiding them moves the picture below the pointer, which isn't a move of the pointer.
void MainWindow::showControlsForAWhile() {
    if (isFullScreen() && QCursor::pos() != pointer_) {
        pointer_ = QCursor::pos();
        controls_->show();
        hideControls_.start(kShowControlsMs);
    }
}

// [embed] The player ends before the windows that it draws on
void MainWindow::closeEvent(QCloseEvent* event) {
    if (closed_) {
        event->accept();
        return;
    }
    event->ignore();  // comes again when the player has ended
    if (!closing_) {
        closing_ = true;
        second_->hide();
        hide();
        player_.shutDown();
    }
}
// [embed end]
