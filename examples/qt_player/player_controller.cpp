#include "player_controller.h"

#include <QFile>
#include <QMetaObject>
#include <future>
#include <string>
#include <utility>

#include "kelp_player/kelp_player.h"
#include "log_relay.h"
#include "source_problem.h"

namespace {

constexpr int kPollMs = 100;
// While the player has no position: before the first frame, or while it restarts a source that failed.
constexpr int kSlowPollMs = 500;

// Kinds of commands of which the last one counts.
constexpr int kSeekCommand = 1;
constexpr int kVolumeCommand = 2;
constexpr int kSpeedCommand = 3;

// Whether the process-wide libraries start. TarnPlayer doesn't say; an engine does, and they stay up for all others.
bool canStart() {
    const auto probe = std::make_shared<kelp::KelpPlayer>();
    return probe->init(nullptr);
}

// Waits until the player has delivered the events that it has queued.
void drainEvents(kelp::TarnPlayer& player) {
    const auto reached = std::make_shared<std::promise<void>>();
    player.runInWorker([reached] { reached->set_value(); });
    reached->get_future().wait();
}

QString whatFailed(int errorType) {
    switch (errorType) {
        case kelp::ERROR_TYPE_STREAM:
            return PlayerController::tr("The source can't be opened or read.");
        case kelp::ERROR_TYPE_VIDEO_DECODE:
            return PlayerController::tr("The pictures can't be decoded.");
        default:
            return PlayerController::tr("Playback can't be started: there is no stream that can be played.");
    }
}

}  // namespace

PlayerController::PlayerController(QObject* parent) : QObject(parent) {
    connectEvents();
    commands_ = std::make_unique<CommandThread>([this] { return pollTime(); });
    commands_->post([this] { createPlayer(); });
}

PlayerController::~PlayerController() {
    if (commands_) {
        shutDown();
        commands_.reset();
    }
}

// [embed] Player calls on a thread of their own, answers on the GUI thread
void PlayerController::command(PlayerCall call) {
    command(0, std::move(call));
}

void PlayerController::command(int kind, PlayerCall call) {
    commands_->postLatest(kind, [this, call = std::move(call)] {
        if (player_) {
            call(*player_);
        }
    });
}

void PlayerController::report(std::function<void()> function) {
    QMetaObject::invokeMethod(this, std::move(function), Qt::QueuedConnection);
}

void PlayerController::createPlayer() {
    if (!canStart()) {
        reportNoPlayer();
        return;
    }
    player_ = kelp::TarnPlayer::create();
    player_->setOption("preset", "recommended");
    events_.setPlayer(player_);
    player_->setStallObserver(&events_);
}

void PlayerController::reportNoPlayer() {
    report([this, why = LogRelay::lastError()] { fail(tr("The player can't be started."), why); });
}

void PlayerController::shutDown() {
    commands_->post([this] {
        polls_ = false;
        if (player_) {
            if (hasSource_) {
                player_->stop();
            }
            recording_.stop(*player_);
            kelp::TarnPlayer::destroy(std::exchange(player_, nullptr));
        }
        report([this] { emit shutDownDone(); });
    });
}

void PlayerController::showIn(WId window, QSize size) {
    command([window, size](kelp::TarnPlayer& player) {
        player.addWindow(reinterpret_cast<void*>(window), kelp::WINDOW_TYPE_QT_WINID, size.width(), size.height());
    });
}

void PlayerController::leave(WId window) {
    command([window](kelp::TarnPlayer& player) { player.removeWindow(reinterpret_cast<void*>(window)); });
}
// [embed end]

bool PlayerController::isOpen() const {
    return state_ == State::Playing || state_ == State::Paused || state_ == State::Completed;
}

void PlayerController::open(const QString& source, const QString& subtitles) {
    source_ = source;
    setPart(Part::None);
    useSubtitles(subtitles);
    setWantsPause(false);
    start(0);
}

void PlayerController::start(int fromMs) {
    startAtMs_ = fromMs;
    timeMs_ = fromMs;
    const int number = ++requestedSource_;
    setState(State::Opening);
    commands_->post(
        [this, number, source = source_.toStdString(), subtitles = subtitles_.toStdString(), pause = wantsPause_] {
            if (player_) {
                player_->setOption("subtitle_file", subtitles.empty() ? "none" : subtitles.c_str());
                openSource(*player_, source, number, pause);
            } else {
                reportNoPlayer();
            }
        });
}

// [embed] One player for one source after the other
void PlayerController::openSource(kelp::TarnPlayer& player, const std::string& source, int number, bool pause) {
    polls_ = false;
    if (hasSource_) {
        player.stop();
    }
    player.reset();
    player.resume();  // takes back a pause that was asked for and not carried out
    // Events of the source before may still be on their way.
    drainEvents(player);
    LogRelay::forgetErrors();
    polledSource_ = number;
    report([this, number] { reportedSource_ = number; });
    reportTracks(player);

    const std::string problem = problemOfPath(source);
    hasSource_ = problem.empty() && player.setDataSource(source.c_str(), 0, &events_);
    if (!hasSource_) {
        report(ifUpToDate([this, problem] { fail(tr("The file can't be opened."), QString::fromStdString(problem)); }));
        return;
    }
    player.prepareAsync();
    player.start();  // as soon as it is prepared
    if (pause) {
        player.pause();
    }
}
// [embed end]

void PlayerController::togglePlay() {
    switch (state_) {
        case State::Idle:
            break;
        case State::Opening:
        case State::Playing:
        case State::Paused:
            setWantsPause(!wantsPause_);
            if (state_ != State::Opening) {
                setState(wantsPause_ ? State::Paused : State::Playing);
            }
            break;
        case State::Completed:
            seek(0);
            break;
        case State::Stopped:
        case State::Failed:
            setWantsPause(false);
            start(0);
            break;
    }
}

void PlayerController::step(int pictures) {
    if (state_ != State::Playing && state_ != State::Paused) {
        return;
    }
    setWantsPause(true);
    setState(State::Paused);
    command([pictures](kelp::TarnPlayer& player) { player.stepFrame(pictures); });
}

void PlayerController::setWantsPause(bool wantsPause) {
    if (wantsPause_ == wantsPause) {
        return;
    }
    wantsPause_ = wantsPause;
    command([wantsPause](kelp::TarnPlayer& player) { wantsPause ? player.pause() : player.resume(); });
}

void PlayerController::stop() {
    if (state_ == State::Idle || state_ == State::Stopped) {
        return;
    }
    const int number = ++requestedSource_;
    timeMs_ = 0;
    setState(State::Stopped);
    emit happened(tr("Stopped"));
    command([this, number](kelp::TarnPlayer& player) {
        polls_ = false;
        if (hasSource_) {
            player.stop();
        }
        drainEvents(player);
        report([this, number] { reportedSource_ = number; });
        reportTracks(player);
    });
}

void PlayerController::seek(int timeMs) {
    if (!isOpen()) {
        return;
    }
    const int number = ++requestedSeek_;
    timeMs_ = timeMs;
    if (state_ == State::Completed) {
        wantsPause_ = false;
        setState(State::Playing);
    }
    command(kSeekCommand, [this, timeMs, number](kelp::TarnPlayer& player) {
        polledSeek_ = number;
        polls_ = true;
        if (!player.seek(timeMs)) {
            report(ifUpToDate([this] { emit happened(tr("This source has no positions to go to")); }));
        }
    });
}

void PlayerController::setVolume(double factor) {
    const auto volume = static_cast<float>(factor);
    events_.setVolume(volume);
    // False while nothing plays; the next playback begins with it.
    command(kVolumeCommand, [volume](kelp::TarnPlayer& player) { player.setVolume(volume); });
}

void PlayerController::setSpeed(double speed) {
    command(kSpeedCommand, [speed](kelp::TarnPlayer& player) { player.setSpeed(static_cast<float>(speed)); });
}

void PlayerController::setMaster(kelp::SyncMasterMode mode) {
    command([mode](kelp::TarnPlayer& player) { player.setAVSyncMode(mode); });
}

void PlayerController::setHardwareDecoding(bool enabled) {
    command([enabled](kelp::TarnPlayer& player) {
        player.enableHwDecoder(enabled, enabled ? kelp::HW_DECODE_ALL : kelp::HW_DECODE_NONE);
    });
    if (state_ == State::Playing || state_ == State::Paused) {
        start(durationMs_ < kUnknownDurationMs ? timeMs_ : 0);
    }
}

void PlayerController::setKeepsShape(bool keeps) {
    command([keeps](kelp::TarnPlayer& player) { player.setOption("fit", keeps ? "keep" : "fill"); });
}

void PlayerController::setRetryInterval(int ms) {
    command(
        [text = std::to_string(ms)](kelp::TarnPlayer& player) { player.setOption("retry_when_failed", text.c_str()); });
}

void PlayerController::setLogLevel(const QString& word) {
    command([text = word.toStdString()](kelp::TarnPlayer& player) { player.setOption("log_level", text.c_str()); });
}

void PlayerController::saveSnapshot(const QString& path) {
    command([this, path](kelp::TarnPlayer& player) {
        const bool isSaved = player.takeSnapshot(QFile::encodeName(path).constData());
        report([this, path, isSaved] {
            emit happened(isSaved ? tr("Saved %1").arg(path) : tr("There is no picture, or it can't be written there"));
        });
    });
}

// [embed] The position, asked for where a call may wait
int PlayerController::pollTime() {
    if (!player_ || !polls_) {
        return -1;
    }
    const int timeMs = player_->getCurrentTime();
    report([this, timeMs, source = polledSource_, seek = polledSeek_] {
        if (source == requestedSource_ && seek == requestedSeek_ && isOpen()) {
            timeMs_ = timeMs;
            emit timeChanged(timeMs);
        }
    });
    if (watchesStatistics_) {
        reportStatistics();
    }
    return timeMs == 0 ? kSlowPollMs : kPollMs;
}
// [embed end]

std::function<void()> PlayerController::ifUpToDate(std::function<void()> function) {
    return [this, function = std::move(function)] {
        if (isUpToDate()) {
            function();
        }
    };
}

void PlayerController::connectEvents() {
    connect(&recording_, &Recording::changed, this, &PlayerController::recordingChanged);
    connect(&recording_, &Recording::happened, this, &PlayerController::happened);
    connect(&events_, &PlayerEvents::prepared, this, [this](const SourceInfo& info) {
        if (!isUpToDate()) {
            return;
        }
        durationMs_ = info.durationMs;
        command([this](kelp::TarnPlayer& player) { reportTracks(player); });
        emit opened(info);
        emit durationChanged(durationMs_);
    });
    connect(&events_, &PlayerEvents::started, this, [this] {
        if (!isUpToDate()) {
            return;
        }
        command([this](kelp::TarnPlayer&) { polls_ = true; });
        setState(wantsPause_ ? State::Paused : State::Playing);
        emit happened(tr("Playing %1").arg(source_));
        if (const int startAtMs = std::exchange(startAtMs_, 0); startAtMs > 0) {
            seek(startAtMs);
        }
    });
    connect(&events_, &PlayerEvents::firstFrame, this, [this](bool isVideo, int ptsMs) {
        if (isUpToDate()) {
            // Wakes the poll: from here on there is a position.
            command([](kelp::TarnPlayer&) {});
            const QString seconds = QString::number(ptsMs / 1000.0, 'f', 2);
            emit happened(isVideo ? tr("First picture at %1 s").arg(seconds) : tr("First sound at %1 s").arg(seconds));
        }
    });
    connect(&events_, &PlayerEvents::durationUpdated, this, [this](int durationMs) {
        if (isUpToDate()) {
            durationMs_ = durationMs;
            emit durationChanged(durationMs);
        }
    });
    connect(&events_, &PlayerEvents::completed, this, [this] {
        if (isUpToDate()) {
            setState(State::Completed);
            emit happened(tr("The end"));
        }
    });
    connect(&events_, &PlayerEvents::stalled, this, &PlayerController::stalled);
    connect(&events_, &PlayerEvents::stallEnded, this, &PlayerController::stallEnded);
    connect(&events_, &PlayerEvents::failed, this, [this](int errorType) {
        if (isUpToDate()) {
            command([this](kelp::TarnPlayer&) { polls_ = false; });
            fail(whatFailed(errorType), LogRelay::lastError());
        }
    });
}

void PlayerController::fail(const QString& what, const QString& why) {
    setState(State::Failed);
    emit happened(what);
    emit failed(what, why);
}

void PlayerController::setState(State state) {
    state_ = state;
    emit stateChanged(state);
}
