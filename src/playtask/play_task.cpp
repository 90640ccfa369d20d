#include "playtask/play_task.h"

#include <algorithm>
#include <utility>

#include "kelp_player/kelp_player.h"
#include "kelp_player/log.h"
#include "present/snapshot.h"

// The plain commands and the choice of the clock. Starting and stopping, pauses, events and seeks have sources of their
// own.

namespace kelp {

void PlayTask::init(EventCallback callback, std::shared_ptr<Worker> worker) {
    eventCallback_ = std::move(callback);
    worker_ = std::move(worker);
    timestampExtrapolator_ = std::make_shared<TimestampExtrapolator>();
    renderTiming_ = std::make_shared<RenderTiming>(timestampExtrapolator_.get());
    streamParser_ = std::make_shared<StreamParser>(timestampExtrapolator_.get(), packets_, subtitles_);
    streamParser_->init(shared_from_this());
}

bool PlayTask::loadFileAsync(const std::string& fileName, int seekTime) {
    Log::Info(kTag, "LoadVideoFile, fileName:%s, seekTime:%d\n", fileName.c_str(), seekTime);
    if (fileName.empty()) {
        return false;
    }
    fileName_ = fileName;
    seekTime = loop_.clampLoad(seekTime);
    loadOptions_ = options();
    loadTimeMs_ = seekTime;
    // What the load raises may bring a stop and the next load at once: they are to find this thread object.
    std::lock_guard lock(loadMutex_);
    loadThread_ = std::make_unique<std::thread>([this, fileName, seekTime, options = loadOptions_] {
        { std::lock_guard stored(loadMutex_); }
        load(fileName, seekTime, options);
    });
    return true;
}

void PlayTask::load(const std::string& fileName, int seekTime, const PlaybackOptions& options) {
    if (streamParser_) {
        streamParser_->setPlaybackOptions(options);
    }
    if (!streamParser_ || !streamParser_->open(fileName, seekTime)) {
        // After a stop, which cuts the open short, nobody asks for the outcome any more.
        if (!isStopping()) {
            raise(EVENT_FAILED, ERROR_TYPE_STREAM, 0, 0);
        }
        return;
    }

    const auto streamInfo = streamParser_->getStreamInfo();
    const auto codecInfo = streamParser_->getCodecInfo();
    selectedTracks_.forget();
    chooseSubtitle(options, *streamInfo);
    if (!options.subtitleFile.empty() && isStopping()) {
        return;  // that may have taken long
    }
    streamInfo_.store(streamInfo);
    codecInfo_.store(codecInfo);
    durationMs_ = streamInfo->duration;
    inputLengthMs_ = 0;
    seekable_ = streamInfo->seekable;
    if (streamInfo->has_video) {
        detail_.state(codecInfo->width, codecInfo->height, codecInfo->frameRate);
        raise(EVENT_VIDEO_SIZE_UPDATED, codecInfo->width, codecInfo->height, 0);
    }
    raise(EVENT_PREPARED, streamInfo->has_video, streamInfo->has_audio, 0);
}

void PlayTask::raise(EventType type, int a, int b, int c) {
    if (type == EVENT_FAILED) {
        lastFailure_ = a;
    }
    if (eventCallback_) {
        eventCallback_(type, a, b, c);
    }
}

void PlayTask::setSpeed(float speed) {
    std::lock_guard lock(settingMutex_);
    speed_ = speed;
    if (const auto clock = masterClock_.load()) {
        clock->setSpeed(speed);
    }
    if (const auto videoPlay = videoPlayThread_.load()) {
        videoPlay->setSpeed(speed);
    }
    const auto audioPlay = audioPlayThread_.load();
    if (audioPlay && audioPlay->isSupportSpeedAdjust()) {
        audioPlay->setSpeed(speed);
    }
}

bool PlayTask::setVolume(float volume) {
    const auto audioPlay = audioPlayThread_.load();
    return audioPlay && audioPlay->setVolume(volume);
}

void PlayTask::setMute(bool muted) {
    std::lock_guard lock(settingMutex_);
    isMuted_ = muted;
    if (const auto audioPlay = audioPlayThread_.load()) {
        audioPlay->setMuted(muted);
    }
}

int PlayTask::getCurrentTime() {
    // A step is at the picture that is shown until the next one is.
    if (const auto target = seekTurns_.target(); target && seekFor_ != SeekFor::Step && seekFor_ != SeekFor::Loop) {
        return *target;
    }
    return static_cast<int>(filmMs(lineTimeMs()));
}

void PlayTask::withWindows(const std::function<void(VideoPlayThread&)>& act) {
    for (const auto& pictures : {pictureThread(), standingThread_.load()}) {
        if (pictures) {
            act(*pictures);
        }
    }
}

bool PlayTask::addWindow(WindowType type, void* handle, int width, int height) {
    windows_.add({type, handle, width, height});
    withWindows([&](VideoPlayThread& pictures) { pictures.addWindow(type, handle, width, height); });
    return true;
}

bool PlayTask::removeWindow(void* handle) {
    windows_.remove(handle);
    withWindows([&](VideoPlayThread& pictures) { pictures.removeWindow(handle); });
    return true;
}

void PlayTask::updateWindowSize(void* handle, int width, int height) {
    windows_.resize(handle, width, height);
    withWindows([&](VideoPlayThread& pictures) { pictures.updateWindowSize(handle, width, height); });
}

bool PlayTask::pauseWindow(void* handle, bool pause) {
    withWindows([&](VideoPlayThread& pictures) { pictures.pauseWindow(handle, pause); });
    return true;
}

void PlayTask::clearScreen() {
    withWindows([&](VideoPlayThread& pictures) { pictures.clearScreen(); });
}

bool PlayTask::takeSnapshot(const std::string& path) {
    for (const auto& pictures : {pictureThread(), standingThread_.load()}) {
        if (const auto picture = pictures ? pictures->lendPicture() : nullptr) {
            return writeSnapshot(*picture, path);
        }
    }
    Log::Warn(kTag, "takeSnapshot, there is no picture\n");
    return false;
}

void PlayTask::enableHwDecoder(bool enable, HwDecodeMode mode) {
    enableHwDecoder_ = enable;
    hwDecodeMode_ = mode;
}

void PlayTask::setOption(const char* key, const char* value) {
    if (streamParser_) {
        streamParser_->setOption(key, value);
    }
}

void PlayTask::changeOptions(const std::function<void(PlaybackOptions&)>& change, SoundDevice device) {
    std::string deviceBefore;
    {
        std::lock_guard lock(optionsMutex_);
        const PictureFit fit = options_.fit;
        deviceBefore = options_.audioDevice;
        change(options_);
        if (options_.fit != fit) {
            withWindows([this](VideoPlayThread& pictures) { pictures.setFit(options_.fit); });
        }
        if (options_.audioDevice == deviceBefore && device == SoundDevice::Left) {
            return;
        }
    }
    changeAudioDevice(deviceBefore);
}

// Whoever takes the lock last hands on what was asked for last: it was stored before.
void PlayTask::changeAudioDevice(const std::string& before) {
    std::lock_guard changing(audioDeviceMutex_);
    const std::string wanted = options().audioDevice;
    const auto audioPlay = audioPlayThread_.load();
    if (audioPlay && !audioPlay->setDevice(wanted)) {
        std::lock_guard lock(optionsMutex_);
        if (options_.audioDevice == wanted) {
            options_.audioDevice = before;
        }
    }
}

PlaybackOptions PlayTask::options() {
    std::lock_guard lock(optionsMutex_);
    return options_;
}

PlaybackOptions PlayTask::optionsToPlay() {
    PlaybackOptions wanted = options();
    wanted.allCodecs = loadOptions_.allCodecs;
    wanted.maxPixels = loadOptions_.maxPixels;
    const auto streamInfo = streamInfo_.load();
    wanted.lowLiveDelay = loadOptions_.lowLiveDelay && streamInfo && streamInfo->is_live;
    return wanted;
}

void PlayTask::setSyncMasterMode(SyncMasterMode mode) {
    std::lock_guard lock(settingMutex_);
    syncMasterMode_ = mode;
    updateSyncObject();
}

void PlayTask::setExternSyncClock(std::shared_ptr<SyncObject> clock) {
    std::lock_guard lock(settingMutex_);
    hasHostClock_ = clock != nullptr;
    syncObject_.store(clock ? std::move(clock) : masterClock_.load());
    updateSyncObject();
}

SyncMasterMode PlayTask::getSyncMasterMode() {
    SyncMasterMode mode = syncMasterMode_;
    // What is shown at once follows nobody, unless the host has a time of its own.
    if (isLowDelay_ && (mode != SYNC_MASTER_CLOCK || !hasHostClock_)) {
        mode = SYNC_MASTER_VIDEO;
    }
    // Video falls back to audio without asking whether there is any.
    if (mode == SYNC_MASTER_VIDEO) {
        return videoPlayThread_.load() ? SYNC_MASTER_VIDEO : SYNC_MASTER_AUDIO;
    }
    if (mode == SYNC_MASTER_AUDIO && audioPlayThread_.load()) {
        return SYNC_MASTER_AUDIO;
    }
    return SYNC_MASTER_CLOCK;
}

std::shared_ptr<SyncObject> PlayTask::getSyncMasterObject() {
    switch (getSyncMasterMode()) {
        case SYNC_MASTER_AUDIO:
            return audioPlayThread_.load();
        case SYNC_MASTER_VIDEO:
            return videoPlayThread_.load();
        default:
            return syncObject_.load();
    }
}

void PlayTask::updateSyncObject() {
    const SyncMasterMode mode = getSyncMasterMode();
    const auto master = getSyncMasterObject();
    // A master is left alone: it goes on following whomever it followed before.
    const auto audioPlay = audioPlayThread_.load();
    if (audioPlay && mode != SYNC_MASTER_AUDIO) {
        audioPlay->setSyncObject(master);
    }
    const auto videoPlay = videoPlayThread_.load();
    if (videoPlay && mode != SYNC_MASTER_VIDEO) {
        videoPlay->setSyncObject(master);
    } else if (videoPlay && isLowDelay_) {
        videoPlay->setSyncObject(nullptr);
    }
}

}  // namespace kelp
