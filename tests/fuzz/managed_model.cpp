#include "fuzz/managed_model.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace kelp::test {

namespace {

// Times may be anything: far ends wrap round.
int plus(int a, int b) {
    return static_cast<int>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

int minus(int a, int b) {
    return static_cast<int>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}

std::string text(int value) {
    return std::to_string(value);
}

}  // namespace

bool ManagedModel::ask(const std::string& operation, const std::string& arguments) {
    call(operation + "(" + arguments + ")");
    const auto found = answers.find(operation);
    return found == answers.end() || found->second;
}

void ManagedModel::tell(const std::string& what) {
    if (toldObserver_) {
        told.push_back(what);
    }
}

unsigned int ManagedModel::addTimer(unsigned int intervalMs, std::function<void()> function) {
    call("addTimer(" + std::to_string(intervalMs) + ", 1)");
    timers[nextTimer_] = std::move(function);
    return nextTimer_++;
}

void ManagedModel::removeTimer(unsigned int id) {
    call("removeTimer(" + std::to_string(id) + ")");
    timers.erase(id);
}

void ManagedModel::post(std::function<void()> function) {
    call("runInWorker()");
    worker_.push_back(std::move(function));
}

void ManagedModel::postStarted() {
    post([this] {
        if (hasObserver_) {
            told.emplace_back("started");
        }
    });
}

bool ManagedModel::setDataSource(const char* url, int offsetMs, bool observer) {
    if (!isIn(Idle)) {
        return false;
    }
    source_ = url;
    offsetMs_ = toldOffsetMs_ = offsetMs;
    hasObserver_ = toldObserver_ = observer;
    if (hasClock_) {
        call("setExternSyncClock(clock, " + text(offsetMs) + ")");
    }
    state_ = Ready;
    return true;
}

bool ManagedModel::prepareAsync() {
    if (!isIn(Ready | Stopped)) {
        return false;
    }
    ++generation_;
    state_ = Preparing;
    return load(offsetMs_ < 0 ? minus(0, offsetMs_) : 0);
}

bool ManagedModel::load(int seekTimeMs) {
    if (loaded_) {
        unload();
    }
    ++loadsAhead_;
    post([this] { --loadsAhead_; });
    loaded_ = ask("loadFileAsync", source_ + ", " + text(seekTimeMs));
    return loaded_;
}

bool ManagedModel::unload() {
    loaded_ = false;
    return ask("stop");
}

bool ManagedModel::start() {
    if (isIn(Preparing)) {
        startRequest_ = true;
        return true;
    }
    if (!isIn(Prepared)) {
        return false;
    }
    startRequest_ = false;
    state_ = Started;
    if (!ask("play")) {
        state_ = Error;
        return false;
    }
    postStarted();
    if (offsetMs_ < 0) {
        ask("seek", text(minus(0, offsetMs_)));
    }
    return true;
}

bool ManagedModel::pause() {
    if (isIn(Started)) {
        const bool done = ask("pause");
        state_ = done ? Paused : Error;
        return done;
    }
    if (!isIn(Paused)) {
        pauseRequest_ = true;
    }
    return true;
}

bool ManagedModel::resume() {
    if (isIn(Paused)) {
        const bool done = ask("resume");
        state_ = done ? Started : Error;
        return done;
    }
    if (!isIn(Started)) {
        pauseRequest_ = false;
    }
    return true;
}

bool ManagedModel::seek(int timeMs) {
    if (!isIn(Prepared | Started | Paused | Completed)) {
        return false;
    }
    if (isIn(Completed)) {
        state_ = Started;
    }
    const int target = minus(timeMs, offsetMs_);
    if (target < 0) {
        call("clearScreen()");
    }
    return ask("seek", text(target));
}

bool ManagedModel::stepFrame(int pictures) {
    return isIn(Paused) && ask("stepFrame", text(pictures));
}

bool ManagedModel::setLoop(int startMs, int endMs) {
    constexpr int kMost = std::numeric_limits<int>::max();
    const auto inFilm = [this](int timeMs) {
        return text(static_cast<int>(std::clamp<int64_t>(int64_t{timeMs} - offsetMs_, 0, kMost)));
    };
    return ask("setLoop", inFilm(startMs) + ", " + (endMs == kMost ? text(kMost) : inFilm(endMs)));
}

bool ManagedModel::selectTrack(int kind, int number) {
    if (!isIn(Started | Paused | Completed) || !ask("selectTrack", text(kind) + ", " + text(number))) {
        return false;
    }
    const char* const keys[] = {"video_track", "audio_track", "subtitle_track"};
    call("setOption(" + std::string(keys[kind]) + ", " + (number < 0 ? "none" : text(number)) + ")");
    return true;
}

bool ManagedModel::stop() {
    ++generation_;
    if (retryTimer_ != 0) {
        removeTimer(std::exchange(retryTimer_, 0));
    }
    if (isIn(Idle | Ready)) {
        return false;
    }
    if (isIn(Stopped)) {
        return true;
    }
    state_ = Stopped;
    return unload();
}

bool ManagedModel::reset() {
    if (!isIn(Idle)) {
        ++generation_;
        source_.clear();
        offsetMs_ = 0;
        state_ = Idle;
        startRequest_ = false;
        call("enableHwDecoder(" + text(hwEnabled_) + ", " + text(hwMode_) + ")");
    }
    return true;
}

int ManagedModel::getCurrentTime() {
    if (!isIn(Prepared | Started | Paused | Stopped | Completed)) {
        return 0;
    }
    call("getCurrentTime()");
    return plus(offsetMs_, currentTimeMs);
}

int ManagedModel::getDuration() {
    if (!isIn(Prepared | Started | Paused | Stopped | Completed)) {
        return 0;
    }
    call("getDuration()");
    return plus(offsetMs_, durationMs);
}

bool ManagedModel::setVolume(float volume) {
    return isIn(Started | Paused | Completed) && ask("setVolume", std::to_string(volume));
}

void ManagedModel::setMute(bool muted) {
    call("setMute(" + text(muted) + ")");
}

void ManagedModel::enableHwDecoder(bool enable, int mode) {
    hwEnabled_ = enable;
    hwMode_ = mode;
    call("enableHwDecoder(" + text(enable) + ", " + text(mode) + ")");
}

void ManagedModel::setSyncClock(bool clock) {
    hasClock_ = clock;
    call("setExternSyncClock(" + std::string(clock ? "clock" : "null") + ", " + text(offsetMs_) + ")");
}

bool ManagedModel::setOffsetToClockMs(int offsetMs) {
    if (offsetMs == offsetMs_) {
        return true;
    }
    offsetMs_ = offsetMs;
    if (!hasClock_) {
        return false;
    }
    setSyncClock(true);
    toldObserver_ = hasObserver_;
    toldOffsetMs_ = offsetMs;
    int target = minus(static_cast<int>(clockMs), offsetMs);
    if (offsetMs >= 0 && target < 0) {
        call("clearScreen()");
        target = 0;
    }
    ask("seek", text(target));
    return true;
}

void ManagedModel::addHostTimer() {
    addTimer(7, [] {});
}

void ManagedModel::prepared(bool hasVideo, bool hasAudio) {
    if (isOutdated() || !isIn(Preparing)) {
        return;
    }
    state_ = Prepared;
    const bool startRequested = startRequest_;
    tell("prepared " + text(hasVideo) + " " + text(hasAudio));
    if (toldObserver_ && onHostPrepared) {
        onHostPrepared();
    }
    if (isIn(Started) && startRequested) {
        pauseIfRequested();
        return;
    }
    if (!isIn(Prepared) || !startRequest_) {
        return;
    }
    startRequest_ = false;
    state_ = Started;
    if (!ask("play")) {
        state_ = Error;
        tell("failed 0");
        return;
    }
    postStarted();
    if (toldOffsetMs_ < 0) {
        ask("seek", text(minus(0, toldOffsetMs_)));
    }
    pauseIfRequested();
}

void ManagedModel::pauseIfRequested() {
    if (std::exchange(pauseRequest_, false)) {
        state_ = ask("pause") ? Paused : Error;
    }
}

void ManagedModel::failed(int errorType, int extraData) {
    if (isOutdated()) {
        return;
    }
    const State oldState = std::exchange(state_, Error);
    const unsigned int generation = generation_;
    if (errorType == 1 && retryIntervalMs_ > 0) {
        const unsigned int own = nextTimer_;
        retryTimer_ = addTimer(static_cast<unsigned int>(retryIntervalMs_), [this, oldState, generation, own] {
            if (generation != generation_) {
                retryTimer_ = retryTimer_ == own ? 0 : retryTimer_;
                return;
            }
            removeTimer(std::exchange(retryTimer_, 0));
            restartLater(oldState, generation);
        });
        return;
    }
    if (errorType == 2 && extraData != 0) {
        enableHwDecoder(false, 0);
        restartLater(oldState, generation);
        return;
    }
    tell("failed " + text(errorType));
}

void ManagedModel::restartLater(State oldState, unsigned int generation) {
    post([this, oldState, generation] { restart(oldState, generation); });
}

void ManagedModel::restart(State oldState, unsigned int generation) {
    if ((oldState & (Preparing | Started | Paused)) == 0 || generation != generation_) {
        return;
    }
    ++restarts;
    unload();
    state_ = Preparing;
    load(0);
    if (oldState != Preparing) {
        startRequest_ = true;
    }
    if (oldState == Paused) {
        pauseRequest_ = true;
    }
}

void ManagedModel::completed() {
    if (isOutdated()) {
        return;
    }
    state_ = Completed;
    tell("completed");
}

void ManagedModel::firstVideoFrame(int ptsMs) {
    if (!isOutdated()) {
        tell("first picture " + text(plus(toldOffsetMs_, ptsMs)));
    }
}

void ManagedModel::durationUpdated(int durationMsNow) {
    if (!isOutdated()) {
        tell("duration " + text(plus(toldOffsetMs_, durationMsNow)));
    }
}

void ManagedModel::runWorker() {
    while (!worker_.empty()) {
        for (const auto& function : std::exchange(worker_, {})) {
            function();
        }
    }
}

void ManagedModel::fire(unsigned int id) {
    const auto function = timers.at(id);
    timers.erase(id);
    function();
    runWorker();
}

}  // namespace kelp::test
