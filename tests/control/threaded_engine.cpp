#include "control/threaded_engine.h"

#include <chrono>

#include "control/extern_sync_wrapper.h"
#include "playtask/play_task.h"
#include "runtime/worker.h"

namespace kelp::test {

ThreadedEngine& ThreadedEngine::get() {
    static ThreadedEngine engine;
    return engine;
}

std::string ThreadedEngine::faults() {
    std::lock_guard lock(mutex_);
    return faults_;
}

void ThreadedEngine::fault(const std::string& text) {
    std::lock_guard lock(mutex_);
    faults_ += text + "\n";
}

int ThreadedEngine::random(int below) {
    std::lock_guard lock(mutex_);
    return static_cast<int>(generator_() % static_cast<unsigned int>(below));
}

bool ThreadedEngine::happens(const std::atomic<int>& inAThousand) {
    return random(1000) < inAThousand;
}

namespace {

ThreadedEngine& engine() {
    return ThreadedEngine::get();
}

// A call that no other one may overlap.
class Alone {
public:
    explicit Alone(const char* operation) {
        if (engine().inside.exchange(true)) {
            engine().fault(std::string(operation) + " while another call runs");
        }
    }
    ~Alone() { engine().inside = false; }
};

void rest(int microseconds) {
    std::this_thread::sleep_for(std::chrono::microseconds(microseconds));
}

using Worker = kelp::Worker;

void load(const std::shared_ptr<Worker>& worker, int number, bool fails) {
    KelpPlayerObserver* const o = engine().observer;
    rest(engine().random(800));
    if (engine().stopping) {
        return;
    }
    if (fails) {
        worker->task([o] { o->onFailed(nullptr, ERROR_TYPE_STREAM, 0); });
        return;
    }
    engine().opened = true;
    worker->task([o, number] { o->onVideoSizeUpdated(nullptr, number, 1, 0); });
    worker->task([o] { o->onPrepared(nullptr, true, true); });
}

void play(const std::shared_ptr<Worker>& worker, int number) {
    KelpPlayerObserver* const o = engine().observer;
    const int base = number * 1000;
    worker->task([o, base] { o->onFirstPacket(nullptr, base); });
    worker->task([o, base] { o->onFirstVideoFrame(nullptr, base); });
    worker->task([o, base] { o->onFirstAudioFrame(nullptr, base + 1); });
    while (!engine().stopping) {
        rest(100 + engine().random(400));
        if (engine().happens(engine().ends)) {
            worker->task([o, base] { o->onDurationUpdated(nullptr, base + 2); });
            worker->task([o] { o->onCompleted(nullptr); });
        }
        if (engine().happens(engine().streamFailures)) {
            worker->task([o] { o->onFailed(nullptr, ERROR_TYPE_STREAM, 1); });
        }
        if (engine().happens(engine().decoderFailures)) {
            worker->task([o, hw = engine().hardware.load()] { o->onFailed(nullptr, ERROR_TYPE_VIDEO_DECODE, hw); });
        }
    }
}

}  // namespace
}  // namespace kelp::test

namespace kelp {

using test::Alone;
using test::engine;

KelpPlayer::KelpPlayer() : worker_(std::make_shared<Worker>()) {
}
KelpPlayer::~KelpPlayer() = default;

bool KelpPlayer::init(KelpPlayerObserver* observer) {
    engine().observer = observer;
    worker_->start();
    return true;
}
void KelpPlayer::release() {
    worker_->waitEmpty();
    worker_->close();
}
bool KelpPlayer::loadFileAsync(const char* fileName, int) {
    const Alone alone("loadFileAsync");
    if (engine().loaded) {
        engine().fault("loadFileAsync without a stop");
        return false;
    }
    if (*fileName == '\0') {
        return false;
    }
    engine().loaded = true;
    engine().opened = false;
    engine().stopping = false;
    const int number = ++engine().loads;
    engine().pipeline = std::thread([worker = worker_, number, fails = engine().happens(engine().loadFailures)] {
        test::load(worker, number, fails);
    });
    return true;
}
bool KelpPlayer::play() {
    const Alone alone("play");
    if (!engine().opened || engine().playing) {
        engine().fault(engine().playing ? "play without a stop" : "play of what isn't open");
        return false;
    }
    if (engine().happens(engine().refusals)) {
        return false;
    }
    engine().playing = true;
    engine().player = std::thread([worker = worker_, number = engine().loads.load()] { test::play(worker, number); });
    return true;
}
bool KelpPlayer::stop() {
    const Alone alone("stop");
    engine().stopping = true;
    for (auto* thread : {&engine().pipeline, &engine().player}) {
        if (thread->joinable()) {
            thread->join();
        }
    }
    engine().loaded = false;
    engine().opened = false;
    engine().playing = false;
    return true;
}
bool KelpPlayer::stopForRestart() {
    return stop();
}
bool KelpPlayer::pause() {
    const Alone alone("pause");
    return !engine().happens(engine().refusals);
}
bool KelpPlayer::resume() {
    const Alone alone("resume");
    return !engine().happens(engine().refusals);
}
bool KelpPlayer::seek(int) {
    return !engine().happens(engine().refusals);
}
void KelpPlayer::setSpeed(float) {
    const Alone alone("setSpeed");
}
bool KelpPlayer::setVolume(float) {
    const Alone alone("setVolume");
    return true;
}
int KelpPlayer::getCurrentTime() {
    const Alone alone("getCurrentTime");
    return 700;
}
int KelpPlayer::getDuration() {
    const Alone alone("getDuration");
    return 9000;
}
int64_t KelpPlayer::getPlayDetailInfo(KelpPlayerInfoType) {
    const Alone alone("getPlayDetailInfo");
    return 0;
}
std::vector<Track> KelpPlayer::getTracks() {
    return {};
}
void KelpPlayer::setSubtitleSink(ExternSubtitleSink*) {
}
void KelpPlayer::setPacketSink(ExternPacketSink* sink) {
    static_cast<void>(sink);
}
void KelpPlayer::setMute(bool) {
    const Alone alone("setMute");
}
bool KelpPlayer::isMuted() {
    return false;
}
std::vector<std::string> KelpPlayer::getAudioDevices() {
    return {};
}
void KelpPlayer::setStallObserver(StallObserver* observer) {
    static_cast<void>(observer);
}
Statistics KelpPlayer::getStatistics() {
    return {};
}
bool KelpPlayer::takeSnapshot(const char*) {
    return true;
}
bool KelpPlayer::selectTrack(TrackKind, int) {
    const Alone alone("selectTrack");
    return true;
}
bool KelpPlayer::stepFrame(int) {
    const Alone alone("stepFrame");
    return true;
}
bool KelpPlayer::setLoop(int, int) {
    const Alone alone("setLoop");
    return true;
}
void KelpPlayer::clearLoop() {
    const Alone alone("clearLoop");
}
bool KelpPlayer::addWindow(WindowType, void*, int, int) {
    const Alone alone("addWindow");
    return true;
}
bool KelpPlayer::removeWindow(void*) {
    const Alone alone("removeWindow");
    return true;
}
bool KelpPlayer::pauseWindow(void*, bool) {
    const Alone alone("pauseWindow");
    return true;
}
void KelpPlayer::updateWindowSize(void*, int, int) {
}
void KelpPlayer::clearScreen() {
}
void KelpPlayer::enableHwDecoder(bool enable, HwDecodeMode) {
    const Alone alone("enableHwDecoder");
    engine().hardware = enable;
}
void KelpPlayer::setAVSyncMode(SyncMasterMode) {
    const Alone alone("setAVSyncMode");
}
KelpSyncClock* KelpPlayer::replaceExternSyncClock(KelpSyncClock*, int) {
    const Alone alone("setExternSyncClock");
    return nullptr;
}
void KelpPlayer::waitUntilUnread(KelpSyncClock*) {
}
void KelpPlayer::setOption(const char*, const char*) {
    const Alone alone("setOption");
}
void KelpPlayer::runInWorker(std::function<void()> function) {
    worker_->task(std::move(function));
}
unsigned int KelpPlayer::addTimer(unsigned int intervalMs, bool oneShot, std::function<void()> function) {
    return worker_->addTimer(intervalMs, oneShot, std::move(function));
}
void KelpPlayer::removeTimer(unsigned int timerId) {
    worker_->removeTimer(timerId);
}

}  // namespace kelp
