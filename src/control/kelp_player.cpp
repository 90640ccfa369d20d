#include "kelp_player/kelp_player.h"

#include <SDL.h>

#include <algorithm>
#include <iterator>
#include <mutex>
#include <string_view>
#include <utility>

#include "control/extern_sync_wrapper.h"
#include "control/option_table.h"
#include "control/worker_end.h"
#include "kelp_player/log.h"
#include "kelp_player/stall_observer.h"
#include "playtask/play_task.h"
#include "present/audio_device_list.h"
#include "runtime/worker.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/log.h>
}

namespace kelp {

namespace {

const char* const kTag = "KelpPlayer";

struct LogLevelWord {
    std::string_view word;
    int ffmpegLevel;
    int engineLevel;
};

constexpr LogLevelWord kLogLevelWords[] = {
    {"trace", AV_LOG_TRACE, 4},     {"debug", AV_LOG_DEBUG, 4}, {"info", AV_LOG_INFO, 3},
    {"warning", AV_LOG_WARNING, 2}, {"error", AV_LOG_ERROR, 1}, {"none", AV_LOG_QUIET, -1},
};

// Starts the libraries, once for the process. After a failure the next call tries again from the beginning.
bool startLibraries() {
    static std::mutex mutex;
    static bool started = false;  // guarded by mutex
    std::lock_guard lock(mutex);
    if (started) {
        return true;
    }
    Log::Info(kTag, "ffmpeg config:%s\n", avformat_configuration());
    av_log_set_flags(AV_LOG_SKIP_REPEATED);
    av_log_set_level(AV_LOG_INFO);
    Log::SetLevel(3);
    avformat_network_init();
    // A library leaves the process's signals alone: SDL would make events of SIGINT and SIGTERM.
    if (!SDL_GetHint(SDL_HINT_NO_SIGNAL_HANDLERS)) {
        SDL_SetHint(SDL_HINT_NO_SIGNAL_HANDLERS, "1");
    }
    if (SDL_Init(SDL_INIT_AUDIO | SDL_INIT_VIDEO) != 0) {
        Log::Error(kTag, "Could not initialize SDL - %s\n", SDL_GetError());
        Log::Error(kTag, "(Did you set the DISPLAY variable?)\n");
        return false;
    }
    started = true;
    return true;
}

void tell(KelpPlayerObserver& observer, const std::shared_ptr<KelpPlayer>& player, EventType type, int a, int b,
          int c) {
    switch (type) {
        case EVENT_VIDEO_SIZE_UPDATED:
            return observer.onVideoSizeUpdated(player, a, b, c);
        case EVENT_PREPARED:
            return observer.onPrepared(player, a != 0, b != 0);
        case EVENT_FAILED:
            return observer.onFailed(player, a, b);
        case EVENT_FIRST_PACKET:
            return observer.onFirstPacket(player, a);
        case EVENT_FIRST_VIDEO_FRAME:
            return observer.onFirstVideoFrame(player, a);
        case EVENT_FIRST_AUDIO_FRAME:
            return observer.onFirstAudioFrame(player, a);
        case EVENT_COMPLETED:
            return observer.onCompleted(player);
        case EVENT_DURATION_UPDATED:
            return observer.onDurationUpdated(player, a);
        default:
            return;
    }
}

bool isOfStall(EventType type) {
    return type == EVENT_STALLED || type == EVENT_BUFFERING || type == EVENT_STALL_ENDED;
}

void tell(StallObserver& observer, EventType type, int a, int b) {
    if (type == EVENT_STALLED) {
        observer.onStalled();
    } else if (type == EVENT_BUFFERING) {
        observer.onBuffering(a, b);
    } else {
        observer.onStallEnded();
    }
}

}  // namespace

KelpPlayer::KelpPlayer() {
    worker_ = std::make_shared<Worker>();
    playTask_ = std::make_shared<PlayTask>();
    externSyncWrapper_ = std::make_shared<ExternSyncWrapper>();
    workerEnd_ = std::make_shared<WorkerEnd>(worker_);
}

KelpPlayer::~KelpPlayer() {
    release();
}

bool KelpPlayer::init(KelpPlayerObserver* observer) {
    if (!startLibraries()) {
        return false;
    }
    observer_ = observer;
    worker_->start();
    workerStarted_ = true;

    // Weak references only, or the player could never die.
    const std::weak_ptr<KelpPlayer> weakPlayer = shared_from_this();
    const auto onEvent = [weakPlayer](EventType type, int a, int b, int c) {
        const auto player = weakPlayer.lock();
        if (!player || (isOfStall(type) ? !player->stallObserver_ : !player->observer_)) {
            return;
        }
        player->worker_->task([weakPlayer, type, a, b, c] {
            const auto receiver = weakPlayer.lock();
            if (!receiver) {
                return;
            }
            if (!isOfStall(type)) {
                tell(*receiver->observer_, receiver, type, a, b, c);
            } else if (StallObserver* const host = receiver->stallObserver_) {
                tell(*host, type, a, b);
            }
        });
    };
    playTask_->init(onEvent, worker_);
    return true;
}

void KelpPlayer::release() {
    // Held: what is dropped at the end may hold the last reference to this player. Nobody runs what was queued for a
    // worker that isn't started, so there is no end to wait for.
    const auto end = workerEnd_;
    end->reach(/*drain=*/workerStarted_);
}

bool KelpPlayer::loadFileAsync(const char* fileName, int seekTime) {
    if (!fileName) {
        Log::Error(kTag, "loadFileAsync, no file name\n");
        return false;
    }
    return playTask_->loadFileAsync(fileName, seekTime);
}

bool KelpPlayer::play() {
    return playTask_->play();
}

bool KelpPlayer::stop() {
    return playTask_->stop();
}

bool KelpPlayer::stopForRestart() {
    return playTask_->stopForRestart();
}

bool KelpPlayer::pause() {
    return playTask_->pause();
}

bool KelpPlayer::resume() {
    return playTask_->resume();
}

bool KelpPlayer::seek(int seekTimeMs) {
    return playTask_->seek(seekTimeMs);
}

bool KelpPlayer::stepFrame(int pictures) {
    return playTask_->stepFrame(pictures);
}

bool KelpPlayer::setLoop(int startMs, int endMs) {
    return playTask_->setLoop(startMs, endMs);
}

void KelpPlayer::clearLoop() {
    playTask_->clearLoop();
}

void KelpPlayer::setSpeed(float speed) {
    playTask_->setSpeed(speed);
}

bool KelpPlayer::setVolume(float volume) {
    return playTask_->setVolume(volume);
}

void KelpPlayer::setMute(bool muted) {
    playTask_->setMute(muted);
}

bool KelpPlayer::isMuted() {
    return playTask_->isMuted();
}

std::vector<std::string> KelpPlayer::getAudioDevices() {
    return audioDeviceNames();
}

int KelpPlayer::getCurrentTime() {
    return playTask_->getCurrentTime();
}

int KelpPlayer::getDuration() {
    return playTask_->getDuration();
}

int64_t KelpPlayer::getPlayDetailInfo(KelpPlayerInfoType type) {
    const PlayDetailInfo info = playTask_->getPlayDetailInfo();
    switch (type) {
        case INFO_DURATION:
            return info.duration;
        case INFO_WIDTH:
            return info.width;
        case INFO_HEIGHT:
            return info.height;
        case INFO_ROTATE:
            return info.rotate;
        case INFO_FPS:
            return info.fps;
    }
    return 0;
}

std::vector<Track> KelpPlayer::getTracks() {
    return playTask_->getTracks();
}

Statistics KelpPlayer::getStatistics() {
    return playTask_->getStatistics();
}

bool KelpPlayer::selectTrack(TrackKind kind, int number) {
    return playTask_->selectTrack(kind, number);
}

bool KelpPlayer::addWindow(WindowType type, void* handle, int width, int height) {
    return playTask_->addWindow(type, handle, width, height);
}

bool KelpPlayer::removeWindow(void* handle) {
    return playTask_->removeWindow(handle);
}

bool KelpPlayer::pauseWindow(void* handle, bool pause) {
    return playTask_->pauseWindow(handle, pause);
}

void KelpPlayer::updateWindowSize(void* handle, int width, int height) {
    playTask_->updateWindowSize(handle, width, height);
}

void KelpPlayer::clearScreen() {
    playTask_->clearScreen();
}

bool KelpPlayer::takeSnapshot(const char* path) {
    if (!path) {
        Log::Error(kTag, "takeSnapshot, no path\n");
        return false;
    }
    return playTask_->takeSnapshot(path);
}

void KelpPlayer::enableHwDecoder(bool enable, HwDecodeMode mode) {
    playTask_->enableHwDecoder(enable, mode);
}

void KelpPlayer::setAVSyncMode(SyncMasterMode mode) {
    playTask_->setSyncMasterMode(mode);
}

void KelpPlayer::setExternSyncClock(KelpSyncClock* clock, int offsetMs) {
    waitUntilUnread(replaceExternSyncClock(clock, offsetMs));
}

KelpSyncClock* KelpPlayer::replaceExternSyncClock(KelpSyncClock* clock, int offsetMs) {
    return externSyncWrapper_->set(
        clock, offsetMs, [this](bool follow) { playTask_->setExternSyncClock(follow ? externSyncWrapper_ : nullptr); });
}

void KelpPlayer::waitUntilUnread(KelpSyncClock* clock) {
    externSyncWrapper_->waitUntilUnread(clock);
}

void KelpPlayer::setPacketSink(ExternPacketSink* sink) {
    playTask_->setPacketSink(sink);
}

void KelpPlayer::setStallObserver(StallObserver* observer) {
    stallObserver_ = observer;
}

void KelpPlayer::setSubtitleSink(ExternSubtitleSink* sink) {
    playTask_->setSubtitleSink(sink);
}

void KelpPlayer::setOption(const char* key, const char* value) {
    if (!key || !value) {
        return;
    }
    if (std::string_view(key) == "log_level") {
        setLogLevel(value);
        return;
    }
    const PlaybackOption* const option = findPlaybackOption(key);
    if (!option) {
        playTask_->setOption(key, value);
        return;
    }
    bool known = false;
    playTask_->changeOptions(
        [&](PlaybackOptions& options) { known = option->read(value, options); },
        option->key == "audio_device" ? PlayTask::SoundDevice::Chosen : PlayTask::SoundDevice::Left);
    if (!known) {
        Log::Warn(kTag, "setOption, %s can't be \"%s\", there is: %s\n", key, value, option->values);
    }
}

void KelpPlayer::setLogLevel(const char* level) {
    const auto* row = std::ranges::find(kLogLevelWords, std::string_view(level), &LogLevelWord::word);
    if (row != std::end(kLogLevelWords)) {
        av_log_set_level(row->ffmpegLevel);
        Log::SetLevel(row->engineLevel);
    }
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
