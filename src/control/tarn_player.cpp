#include "kelp_player/tarn_player.h"

#include <algorithm>
#include <limits>
#include <new>

#include "clock/wrapping_math.h"
#include "control/current_source.h"
#include "control/inner_player_observer.h"
#include "control/retry_pace.h"
#include "kelp_player/log.h"
#include "kelp_player/sync_clock.h"

namespace kelp {

namespace {

constexpr const char* kTag = "TarnPlayer";

constexpr int kHasSource = PLAYER_STATE_PREPARED | PLAYER_STATE_STARTED | PLAYER_STATE_PAUSED | PLAYER_STATE_COMPLETED;

// A sum or difference of times that may be anything: far ends wrap round.
int wrapped(int64_t timeMs) {
    return static_cast<int>(timeMs);
}

}  // namespace

TarnPlayer* TarnPlayer::create() {
    auto* player = new (std::nothrow) TarnPlayer();
    if (player && !player->engineReady_) {
        Log::Error(kTag, "%s, the engine can't be started\n", "create");
        delete player;
        return nullptr;
    }
    return player;
}

void TarnPlayer::destroy(TarnPlayer* player) {
    delete player;
}

TarnPlayer::TarnPlayer()
    : player_(std::make_shared<KelpPlayer>()),
      innerObserver_(std::make_shared<InnerPlayerObserver>(this)),
      source_(std::make_unique<CurrentSource>()),
      retryPace_(std::make_unique<RetryPace>()) {
    engineReady_ = player_->init(innerObserver_.get());
    player_->setAVSyncMode(syncMasterMode_);
    player_->enableHwDecoder(hwDecoderEnabled_, hwDecodeMode_);
}

TarnPlayer::~TarnPlayer() {
    // The engine's threads don't end by themselves.
    const auto endPlayback = [this] {
        std::lock_guard lock(mutex_);
        source_->hostActed();
        if (source_->isLoaded()) {
            state_ = PLAYER_STATE_STOPPED;  // a source that became ready at this moment isn't started
            unload();
        }
    };
    endPlayback();
    // No event arrives behind this; one that is just being told may have opened the source again.
    player_->release();
    endPlayback();
}

bool TarnPlayer::isIn(int states, const char* operation) const {
    if ((state_ & states) != 0) {
        return true;
    }
    Log::Error(kTag, "%s, error state:%d\n", operation, state_);
    return false;
}

bool TarnPlayer::setDataSource(const char* url, int offsetToClockMs, TarnPlayerObserver* observer) {
    std::lock_guard lock(mutex_);
    if (!isIn(PLAYER_STATE_IDLE, "setDataSource")) {
        return false;
    }
    if (!url) {
        Log::Error(kTag, "%s, no url\n", "setDataSource");
        return false;
    }
    dataSource_ = url;
    offsetToClockMs_ = offsetToClockMs;
    observer_ = observer;
    innerObserver_->set(observer, offsetToClockMs);
    if (syncClock_) {
        player_->replaceExternSyncClock(syncClock_, offsetToClockMs);
    }
    state_ = PLAYER_STATE_INITIALIZED;
    return true;
}

bool TarnPlayer::prepareAsync() {
    std::lock_guard lock(mutex_);
    if (!isIn(PLAYER_STATE_INITIALIZED | PLAYER_STATE_STOPPED, "prepareAsync")) {
        return false;
    }
    source_->hostActed();
    retryPace_->begin();
    state_ = PLAYER_STATE_PREPARING;
    const int64_t offset = offsetToClockMs_;
    return load(offset < 0 ? wrapped(-offset) : 0);
}

bool TarnPlayer::load(int seekTimeMs) {
    if (source_->isLoaded()) {
        unload();  // after a reset without a stop: the engine takes one source at a time
    }
    // Everything that the source before has raised is queued by now, and goes by before this. It counts once it is
    // queued: without a marker no load would ever be reached.
    player_->runInWorker([this] { source_->eventsReached(); });
    source_->loading();
    source_->setLoaded(player_->loadFileAsync(dataSource_.c_str(), seekTimeMs));
    return source_->isLoaded();
}

bool TarnPlayer::unload() {
    source_->setLoaded(false);
    return player_->stop();
}

bool TarnPlayer::start() {
    std::lock_guard lock(mutex_);
    if (!isIn(PLAYER_STATE_PREPARING | PLAYER_STATE_PREPARED, "start")) {
        return false;
    }
    if (state_ == PLAYER_STATE_PREPARING) {
        startRequest_ = true;
        return true;
    }
    return play(offsetToClockMs_);
}

bool TarnPlayer::play(int offsetMs) {
    startRequest_ = false;
    state_ = PLAYER_STATE_STARTED;
    if (!player_->play()) {
        state_ = PLAYER_STATE_ERROR;
        return false;
    }
    player_->runInWorker([this] {
        if (TarnPlayerObserver* host = observer_) {
            host->onStarted();
        }
    });
    if (offsetMs < 0) {
        player_->seek(wrapped(-int64_t{offsetMs}));
    }
    return true;
}

bool TarnPlayer::pauseNow() {
    const bool paused = player_->pause();
    state_ = paused ? PLAYER_STATE_PAUSED : PLAYER_STATE_ERROR;
    return paused;
}

bool TarnPlayer::pause() {
    std::lock_guard lock(mutex_);
    if (state_ == PLAYER_STATE_PAUSED) {
        return true;
    }
    if (state_ == PLAYER_STATE_STARTED) {
        return pauseNow();
    }
    Log::Debug(kTag, "%s, current state:%d, set pause request\n", "pause", state_);
    pauseRequest_ = true;
    return true;
}

bool TarnPlayer::resume() {
    std::lock_guard lock(mutex_);
    if (state_ == PLAYER_STATE_STARTED) {
        return true;
    }
    if (state_ == PLAYER_STATE_PAUSED) {
        const bool resumed = player_->resume();
        state_ = resumed ? PLAYER_STATE_STARTED : PLAYER_STATE_ERROR;
        return resumed;
    }
    Log::Debug(kTag, "%s, current state:%d, reset pause request\n", "resume", state_);
    pauseRequest_ = false;
    return true;
}

bool TarnPlayer::seek(int timeMs) {
    std::lock_guard lock(mutex_);
    const int target = wrapped(int64_t{timeMs} - offsetToClockMs_);
    if (!isIn(kHasSource, "seek")) {
        return false;
    }
    if (state_ == PLAYER_STATE_COMPLETED) {
        state_ = PLAYER_STATE_STARTED;
    }
    if (target < 0) {
        player_->clearScreen();
    }
    return player_->seek(target);
}

bool TarnPlayer::stepFrame(int pictures) {
    std::lock_guard lock(mutex_);
    return isIn(PLAYER_STATE_PAUSED, "stepFrame") && player_->stepFrame(pictures);
}

bool TarnPlayer::setLoop(int startMs, int endMs) {
    std::lock_guard lock(mutex_);
    constexpr int kFilmEnd = std::numeric_limits<int>::max();
    const auto inFilm = [this](int timeMs) {
        return saturatedInt(std::max<int64_t>(int64_t{timeMs} - offsetToClockMs_, 0));
    };
    return player_->setLoop(inFilm(startMs), endMs == kFilmEnd ? kFilmEnd : inFilm(endMs));
}

void TarnPlayer::clearLoop() {
    std::lock_guard lock(mutex_);
    player_->clearLoop();
}

bool TarnPlayer::stop() {
    std::lock_guard lock(mutex_);
    source_->hostActed();
    {
        const auto timers = source_->lockTimers();
        if (const unsigned int timerId = source_->takeTimer()) {
            player_->removeTimer(timerId);
        }
    }
    if (state_ == PLAYER_STATE_STOPPED) {
        return true;
    }
    if (state_ == PLAYER_STATE_IDLE || state_ == PLAYER_STATE_INITIALIZED) {
        Log::Error(kTag, "%s, error state:%d\n", "stop", state_);
        return false;
    }
    state_ = PLAYER_STATE_STOPPED;
    return unload();
}

bool TarnPlayer::reset() {
    std::lock_guard lock(mutex_);
    if (state_ != PLAYER_STATE_IDLE) {
        source_->hostActed();
        dataSource_.clear();
        offsetToClockMs_ = 0;
        state_ = PLAYER_STATE_IDLE;
        startRequest_ = false;
        player_->enableHwDecoder(hwDecoderEnabled_, hwDecodeMode_);
    }
    return true;
}

int TarnPlayer::getCurrentTime() {
    std::lock_guard lock(mutex_);
    const int64_t offset = offsetToClockMs_;
    return isIn(kHasSource | PLAYER_STATE_STOPPED, "getCurrentTime") ? wrapped(offset + player_->getCurrentTime()) : 0;
}

int TarnPlayer::getDuration() {
    std::lock_guard lock(mutex_);
    const int64_t offset = offsetToClockMs_;
    return isIn(kHasSource | PLAYER_STATE_STOPPED, "getDuration") ? wrapped(offset + player_->getDuration()) : 0;
}

int64_t TarnPlayer::getPlayDetailInfo(TarnPlayerInfoType type) {
    std::lock_guard lock(mutex_);
    const int64_t info = player_->getPlayDetailInfo(type);
    return type == INFO_DURATION ? info + offsetToClockMs_ : info;
}

// Not under the mutex: a frame sink may ask.
std::vector<Track> TarnPlayer::getTracks() {
    return player_->getTracks();
}

// Nor these.
Statistics TarnPlayer::getStatistics() {
    Statistics statistics = player_->getStatistics();
    statistics.restarts = source_->restarts();
    return statistics;
}

bool TarnPlayer::takeSnapshot(const char* path) {
    return player_->takeSnapshot(path);
}

bool TarnPlayer::selectTrack(TrackKind kind, int number) {
    std::lock_guard lock(mutex_);
    if (!isIn(PLAYER_STATE_STARTED | PLAYER_STATE_PAUSED | PLAYER_STATE_COMPLETED, "selectTrack") ||
        !player_->selectTrack(kind, number)) {
        return false;
    }
    // For a restart.
    const char* const key = kind == TRACK_KIND_VIDEO   ? "video_track"
                            : kind == TRACK_KIND_AUDIO ? "audio_track"
                                                       : "subtitle_track";
    player_->setOption(key, number < 0 ? "none" : std::to_string(number).c_str());
    return true;
}

bool TarnPlayer::setVolume(float volume) {
    std::lock_guard lock(mutex_);
    return (state_ & (PLAYER_STATE_STARTED | PLAYER_STATE_PAUSED | PLAYER_STATE_COMPLETED)) != 0 &&
           player_->setVolume(volume);
}

void TarnPlayer::setSyncClock(KelpSyncClock* clock) {
    std::unique_lock lock(mutex_);
    syncClock_ = clock;
    KelpSyncClock* const replaced = player_->replaceExternSyncClock(clock, offsetToClockMs_);
    lock.unlock();
    player_->waitUntilUnread(replaced);
}

bool TarnPlayer::setOffsetToClockMs(int offsetMs) {
    const int oldOffsetMs = offsetToClockMs_;
    if (offsetMs == oldOffsetMs) {
        return true;
    }
    Log::Debug(kTag, "%s, offset %d -> %d\n", "setOffsetToClockMs", oldOffsetMs, offsetMs);
    offsetToClockMs_ = offsetMs;
    KelpSyncClock* const clock = syncClock_;
    if (!clock) {
        return false;
    }
    setSyncClock(clock);
    innerObserver_->set(observer_, offsetMs);
    const int nowMs = static_cast<int>(clock->getSyncPts());
    int target = wrapped(int64_t{nowMs} - offsetMs);
    if (offsetMs >= 0 && target < 0) {
        player_->clearScreen();
        target = 0;
    }
    player_->seek(target);
    return true;
}

}  // namespace kelp
