#include <exception>

#include "clock/exact_clock.h"
#include "kelp_player/log.h"
#include "playtask/play_task.h"

// Building the pipeline and taking it down.

namespace kelp {

namespace {

// Lets go of a decode thread whose decoder did not open, or that got no thread. The two hold each other, and only the
// end of the thread breaks that up and closes the decoder: so it runs, with the stop requested already.
template <class DecodeThread>
void discard(DecodeThread& thread) {
    thread.stop();
    thread.start();
    thread.stop();
}

// The same for one whose start is left by an exception.
template <class DecodeThread>
class DiscardOnThrow {
public:
    explicit DiscardOnThrow(DecodeThread& thread) : thread_(thread) {}
    DiscardOnThrow(const DiscardOnThrow&) = delete;
    DiscardOnThrow& operator=(const DiscardOnThrow&) = delete;
    ~DiscardOnThrow() {
        if (std::uncaught_exceptions() == exceptions_) {
            return;
        }
        try {
            discard(thread_);
        } catch (const std::exception&) {
            // There isn't even the memory, or the thread, to let go of it.
        }
    }

private:
    DecodeThread& thread_;
    const int exceptions_ = std::uncaught_exceptions();
};

}  // namespace

bool PlayTask::play() {
    if (!streamParser_) {
        return false;
    }
    const auto streamInfo = streamInfo_.load();
    const auto codecInfo = codecInfo_.load();
    if (!streamInfo || !codecInfo) {
        Log::Error(kTag, "play, no source is open\n");
        return false;
    }
    Log::Info(kTag, "play, streamInfo:%s\n", streamInfo->toString().c_str());
    anyDecoded_ = false;
    playOptions_ = optionsToPlay();
    makeClock();

    if (streamInfo->has_audio && codecInfo->audioCodecType != AUDIO_CODEC_NONE) {
        startAudio(*codecInfo);
    }
    if (streamInfo->has_video && codecInfo->videoCodecType != VIDEO_CODEC_NONE) {
        startVideo(*streamInfo, *codecInfo);
    }
    if (!pictureThread()) {
        endStanding(WindowList::Leaving::Black);
    }
    if (!pictureThread() && !audioPlayThread_.load()) {
        Log::Error(kTag, "play, has no video and audio thread\n");
        return false;
    }

    // The clocks are connected before the first frame can arrive: the parser comes last.
    {
        std::lock_guard lock(settingMutex_);
        updateSyncObject();
    }
    startStallWatch(*streamInfo);
    std::lock_guard lock(seekRunMutex_);
    startLoop();
    isRead_ = streamParser_->start();
    if (isRead_ && subtitleScreen_->isOn()) {
        subtitleScreen_->begin();
    }
    return isRead_;
}

void PlayTask::makeClock() {
    std::lock_guard lock(settingMutex_);
    const bool isExact = playOptions_.exactTiming;
    isLowDelay_ = playOptions_.lowLiveDelay;
    const auto clock = isExact ? std::make_shared<ExactClock>(speed_) : std::make_shared<MasterClock>();
    masterClock_.store(clock);
    // The standard is that the first playback's clock is followed for good.
    if (!syncObject_.load() || (isExact && !hasHostClock_)) {
        syncObject_.store(clock);
    }
}

bool PlayTask::takesOddStreams() const {
    const auto streamInfo = streamInfo_.load();
    return loadOptions_.allCodecs && streamInfo && !streamInfo->is_live;
}

// Others see a stage only when it runs: what sets it up is not for two threads at once.
void PlayTask::startAudio(const CodecInfo& codecInfo) {
    const auto audioDecode = startAudioDecode(codecInfo);
    audioDecodeThread_.store(audioDecode);
    if (!audioDecode) {
        return;
    }
    const auto audioPlay = std::make_shared<AudioPlayThread>();
    audioPlay->init(shared_from_this());
    audioPlay->setOutputSpec(audioOutputSpec_);
    audioPlay->setOptions(playOptions_);
    if (takesOddStreams()) {
        audioPlay->takeOddStreams(loadTimeMs_);
    }
    // A speed that comes meanwhile waits until it finds the thread.
    std::lock_guard lock(settingMutex_);
    if (audioPlay->isSupportSpeedAdjust()) {
        // The output follows the clock by its tempo; the decoder need not.
        audioPlay->setSpeed(speed_);
        audioDecode->openSync(false);
    }
    audioPlay->setVolume(nextVolume_);
    audioPlay->setMuted(isMuted_);
    if (!audioPlay->start()) {
        Log::Error(kTag, "play, start audio play thread failed\n");
        return;
    }
    audioPlayThread_.store(audioPlay);
    // A device that was chosen meanwhile: there is no output yet, so this opens none.
    changeAudioDevice(playOptions_.audioDevice);
}

std::shared_ptr<AudioDecodeThread> PlayTask::startAudioDecode(const CodecInfo& codecInfo) {
    auto audioDecode = std::make_shared<AudioDecodeThread>();
    const DiscardOnThrow guard(*audioDecode);
    if (!audioDecode->open(codecInfo.audioCodecType, codecInfo.audioParameters, audioOutputSpec_, shared_from_this(),
                           playOptions_)) {
        Log::Error(kTag, "play, failed open audio decoder\n");
        discard(*audioDecode);
        return nullptr;
    }
    audioDecode->openSync(true);
    if (!audioDecode->start()) {
        Log::Error(kTag, "play, failed start audio decode thread\n");
        discard(*audioDecode);
        return nullptr;
    }
    return audioDecode;
}

void PlayTask::startVideo(const StreamInfo& streamInfo, const CodecInfo& codecInfo) {
    const auto videoDecode = startVideoDecode(streamInfo, codecInfo);
    (streamInfo.is_cover ? coverDecodeThread_ : videoDecodeThread_).store(videoDecode);
    if (!videoDecode) {
        return;
    }
    const auto videoPlay = std::make_shared<VideoPlayThread>(streamInfo.is_live, renderTiming_.get(), playOptions_);
    videoPlay->init(shared_from_this());
    if (!streamInfo.is_cover) {
        videoPlay->setSubtitles(subtitleScreen_);
    }
    if (takesOddStreams()) {
        videoPlay->takeOddStreams(loadTimeMs_);
    }
    if (standingThread_.load()) {
        videoPlay->takeOver([this] { endStanding(WindowList::Leaving::Picture); });
    }
    if (!videoPlay->start(codecInfo.frameRate)) {
        Log::Error(kTag, "play, start video play thread failed\n");
        return;
    }
    {
        std::lock_guard lock(settingMutex_);
        videoPlay->setSpeed(speed_);
        (streamInfo.is_cover ? coverPlayThread_ : videoPlayThread_).store(videoPlay);
    }
    // Behind that: what comes later reaches the thread by itself.
    {
        std::lock_guard lock(optionsMutex_);
        videoPlay->setFit(options_.fit);
    }
    windows_.forEach([&](const HostWindows::WindowInfo& window) {
        if (window.handle) {
            videoPlay->addWindow(window.type, window.handle, window.width, window.height);
        }
    });
}

std::shared_ptr<VideoDecodeThread> PlayTask::startVideoDecode(const StreamInfo& streamInfo,
                                                              const CodecInfo& codecInfo) {
    auto videoDecode = std::make_shared<VideoDecodeThread>();
    const DiscardOnThrow guard(*videoDecode);
    if (!videoDecode->open(codecInfo.videoCodecType, codecInfo.videoParameters, codecInfo.pixFormat, enableHwDecoder_,
                           hwDecodeMode_, streamInfo.is_live, shared_from_this(), playOptions_)) {
        Log::Error(kTag, "play, failed open video decode thread\n");
        discard(*videoDecode);
        return nullptr;
    }
    if (!videoDecode->start()) {
        Log::Error(kTag, "play, failed start video decode thread\n");
        discard(*videoDecode);
        return nullptr;
    }
    return videoDecode;
}

bool PlayTask::stop() {
    return end(WindowList::Leaving::Black);
}

bool PlayTask::stopForRestart() {
    return end(WindowList::Leaving::Picture);
}

bool PlayTask::end(WindowList::Leaving leaving) {
    Log::Info(kTag, "%s begin\n", "stop");
    // All come to their ends at the same time, the parser first: it doesn't take queues that a stop has emptied for the
    // end of the film.
    if (streamParser_) {
        streamParser_->prepareStop();
    }
    const auto prepare = [](const auto& slot) {
        if (const auto stage = slot.load()) {
            stage->prepareStop();
        }
    };
    prepare(videoDecodeThread_);
    prepare(coverDecodeThread_);
    prepare(audioDecodeThread_);
    const auto videoPlay = videoPlayThread_.load();
    const bool stands = leaving == WindowList::Leaving::Picture && videoPlay && videoPlay->hasDrawn();
    if (videoPlay && !stands) {
        // It may draw yet, and another one have left the windows to it.
        videoPlay->setLeaving(leaving);
        videoPlay->prepareStop();
    }
    prepare(coverPlayThread_);
    prepare(audioPlayThread_);
    if (stallWatch_) {
        stallWatch_->prepareStop();
    }
    subtitleScreen_->prepareEnd();
    // While the stages come to their ends: it is not to be waited for behind them.
    pixBufferPool_.close();
    pcmBufferPool_.close();
    stallWatch_.reset();

    // From the source down: nothing can push into a stage that is gone.
    if (streamParser_) {
        streamParser_->stop();
    }
    if (loadThread_) {
        loadThread_->join();
        loadThread_.reset();
    }
    // A seek that is on its way reaches the parser before it is closed, and no other one starts.
    {
        std::lock_guard lock(seekRunMutex_);
        seekable_ = false;
        isRead_ = false;
        loop_.stop();
    }
    if (streamParser_) {
        streamParser_->close();
    }
    streamInfo_.store(nullptr);
    codecInfo_.store(nullptr);
    subtitleScreen_->end();
    subtitles_->forget();

    stopDecodeThread(videoDecodeThread_);
    stopDecodeThread(coverDecodeThread_);
    stopDecodeThread(audioDecodeThread_);
    if (stands) {
        standPicture();
    } else {
        stopPlayThread(videoPlayThread_);
    }
    stopPlayThread(coverPlayThread_);
    if (const auto audioPlay = audioPlayThread_.load()) {
        nextVolume_ = audioPlay->volume();
    }
    if (leaving == WindowList::Leaving::Black) {
        nextVolume_ = 1.0F;
    }
    stopPlayThread(audioPlayThread_);
    if (leaving == WindowList::Leaving::Black) {
        endStanding(leaving);
    }

    durationMs_ = 0;
    detail_.forget();
    seekTurns_.forget();
    seekFor_ = SeekFor::Host;
    hasStepped_ = isSoundApart_ = isSoundOfStep_ = isResumeParked_ = false;
    forgetSoundTold();
    hasBegun_ = false;
    isPictureOwed_ = isSoundOwed_ = true;
    {
        std::lock_guard lock(pauseMutex_);
        resume_ = Resume::None;
        isPaused_ = false;
    }

    // All threads have ended, so no frame comes back behind this.
    pixBufferPool_.reopen();
    pcmBufferPool_.reopen();
    if (renderTiming_) {
        renderTiming_->reset();
    }
    Log::Info(kTag, "%s end\n", "stop");
    return true;
}

template <class DecodeThread>
void PlayTask::stopDecodeThread(AtomicSharedPtr<DecodeThread>& slot) {
    if (const auto thread = slot.load()) {
        thread->stop();
        slot.store(nullptr);
    }
}

void PlayTask::standPicture() {
    const auto thread = videoPlayThread_.load();
    thread->stand();
    // Ahead of the other slot's end: a window that comes meanwhile is known to one of the two.
    standingThread_.store(thread);
    std::lock_guard lock(settingMutex_);
    videoPlayThread_.store(nullptr);
    thread->setSyncObject(nullptr);
}

void PlayTask::endStanding(WindowList::Leaving leaving) {
    if (const auto thread = standingThread_.exchange(nullptr)) {
        thread->setLeaving(leaving);
        thread->stop();
    }
}

template <class PlayThread>
void PlayTask::stopPlayThread(AtomicSharedPtr<PlayThread>& slot) {
    const auto thread = slot.load();
    if (!thread) {
        return;
    }
    thread->stop();
    // Two that follow each other would keep each other alive, and nobody gives it a master behind this.
    std::lock_guard lock(settingMutex_);
    slot.store(nullptr);
    thread->setSyncObject(nullptr);
}

}  // namespace kelp
