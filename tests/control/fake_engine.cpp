#include "control/fake_engine.h"

#include <new>
#include <utility>

namespace kelp::test {

namespace {
FakeEngine* g_engine = nullptr;
}  // namespace

FakeEngine& FakeEngine::get() {
    if (g_engine == nullptr) {
        g_engine = new FakeEngine();
    }
    return *g_engine;
}

void FakeEngine::reset() {
    delete g_engine;
    g_engine = nullptr;
}

std::vector<std::string> FakeEngine::takeCalls() {
    return std::exchange(calls, {});
}

void FakeEngine::runWorker() {
    while (!worker.empty()) {
        const auto batch = std::exchange(worker, {});
        for (const auto& function : batch) {
            function();
        }
    }
}

void FakeEngine::fire(unsigned int id) {
    const Timer timer = timers.at(id);
    if (timer.oneShot) {
        timers.erase(id);
    }
    timer.function();
    runWorker();
}

bool FakeEngine::answer(const std::string& operation) const {
    const auto found = answers.find(operation);
    return found == answers.end() || found->second;
}

}  // namespace kelp::test

namespace kelp {

namespace {

test::FakeEngine& engine() {
    return test::FakeEngine::get();
}

void note(const std::string& call) {
    engine().calls.push_back(call);
}

bool noteAndAnswer(const std::string& operation, const std::string& arguments = "") {
    note(operation + "(" + arguments + ")");
    return engine().answer(operation);
}

std::string text(int value) {
    return std::to_string(value);
}

}  // namespace

KelpPlayer::KelpPlayer() = default;
KelpPlayer::~KelpPlayer() = default;

bool KelpPlayer::init(KelpPlayerObserver* observer) {
    engine().observer = observer;
    return noteAndAnswer("init");
}
void KelpPlayer::release() {
    note("release()");
    if (engine().inRelease) {
        engine().inRelease();
    }
}
bool KelpPlayer::loadFileAsync(const char* fileName, int seekTime) {
    return noteAndAnswer("loadFileAsync", std::string(fileName) + ", " + text(seekTime));
}
bool KelpPlayer::play() {
    return noteAndAnswer("play");
}
bool KelpPlayer::stop() {
    if (engine().inStop) {
        engine().inStop();
    }
    return noteAndAnswer("stop");
}
bool KelpPlayer::stopForRestart() {
    return noteAndAnswer("stopForRestart");
}
bool KelpPlayer::pause() {
    return noteAndAnswer("pause");
}
bool KelpPlayer::resume() {
    return noteAndAnswer("resume");
}
bool KelpPlayer::seek(int seekTimeMs) {
    return noteAndAnswer("seek", text(seekTimeMs));
}
void KelpPlayer::setSpeed(float speed) {
    note("setSpeed(" + std::to_string(speed) + ")");
}
bool KelpPlayer::setVolume(float volume) {
    return noteAndAnswer("setVolume", std::to_string(volume));
}
void KelpPlayer::setMute(bool muted) {
    note("setMute(" + text(muted) + ")");
    engine().isMuted = muted;
}
bool KelpPlayer::isMuted() {
    return engine().isMuted;
}
std::vector<std::string> KelpPlayer::getAudioDevices() {
    return {"Speaker"};
}
int KelpPlayer::getCurrentTime() {
    note("getCurrentTime()");
    return engine().currentTimeMs;
}
int KelpPlayer::getDuration() {
    note("getDuration()");
    return static_cast<int>(engine().durationMs);
}
int64_t KelpPlayer::getPlayDetailInfo(KelpPlayerInfoType type) {
    note("getPlayDetailInfo(" + text(type) + ")");
    return type == INFO_DURATION ? engine().durationMs : 100 + type;
}
std::vector<Track> KelpPlayer::getTracks() {
    return engine().tracks;
}
void KelpPlayer::setPacketSink(ExternPacketSink* sink) {
    engine().packetSink = sink;
}
void KelpPlayer::setStallObserver(StallObserver* observer) {
    engine().stallObserver = observer;
}
void KelpPlayer::setSubtitleSink(ExternSubtitleSink* sink) {
    engine().subtitleSink = sink;
}
Statistics KelpPlayer::getStatistics() {
    return engine().statistics;
}
bool KelpPlayer::takeSnapshot(const char* path) {
    return noteAndAnswer("takeSnapshot", path ? path : "none");
}
bool KelpPlayer::selectTrack(TrackKind kind, int number) {
    return noteAndAnswer("selectTrack", text(kind) + ", " + text(number));
}
bool KelpPlayer::stepFrame(int pictures) {
    return noteAndAnswer("stepFrame", text(pictures));
}
bool KelpPlayer::setLoop(int startMs, int endMs) {
    return noteAndAnswer("setLoop", text(startMs) + ", " + text(endMs));
}
void KelpPlayer::clearLoop() {
    note("clearLoop()");
}
bool KelpPlayer::addWindow(WindowType type, void* handle, int width, int height) {
    engine().handles.push_back(handle);
    return noteAndAnswer("addWindow", text(type) + ", " + text(width) + ", " + text(height));
}
bool KelpPlayer::removeWindow(void* handle) {
    engine().handles.push_back(handle);
    return noteAndAnswer("removeWindow");
}
bool KelpPlayer::pauseWindow(void* handle, bool pause) {
    engine().handles.push_back(handle);
    return noteAndAnswer("pauseWindow", text(pause));
}
void KelpPlayer::updateWindowSize(void*, int, int) {
    note("updateWindowSize()");
}
void KelpPlayer::clearScreen() {
    note("clearScreen()");
}
void KelpPlayer::enableHwDecoder(bool enable, HwDecodeMode mode) {
    note("enableHwDecoder(" + text(enable) + ", " + text(mode) + ")");
}
void KelpPlayer::setAVSyncMode(SyncMasterMode mode) {
    note("setAVSyncMode(" + text(mode) + ")");
}
KelpSyncClock* KelpPlayer::replaceExternSyncClock(KelpSyncClock* clock, int offsetMs) {
    note("setExternSyncClock(" + std::string(clock ? "clock" : "null") + ", " + text(offsetMs) + ")");
    KelpSyncClock* const before = std::exchange(engine().clock, clock);
    return before != clock ? before : nullptr;
}
void KelpPlayer::waitUntilUnread(KelpSyncClock* clock) {
    if (clock) {
        engine().waitedFor.push_back(clock);
    }
    if (engine().inClockWait) {
        engine().inClockWait();
    }
}
void KelpPlayer::setOption(const char* key, const char* value) {
    note("setOption(" + std::string(key) + ", " + value + ")");
}
void KelpPlayer::runInWorker(std::function<void()> function) {
    note("runInWorker()");
    if (!engine().worksOn) {
        throw std::bad_alloc();
    }
    engine().worker.push_back(std::move(function));
}
unsigned int KelpPlayer::addTimer(unsigned int intervalMs, bool oneShot, std::function<void()> function) {
    note("addTimer(" + std::to_string(intervalMs) + ", " + text(oneShot) + ")");
    const unsigned int id = engine().nextTimerId++;
    engine().timers[id] = {intervalMs, oneShot, std::move(function)};
    return id;
}
void KelpPlayer::removeTimer(unsigned int timerId) {
    note("removeTimer(" + std::to_string(timerId) + ")");
    engine().timers.erase(timerId);
}

}  // namespace kelp
