#include "present/audio_play_thread.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>
#include <utility>

#include "kelp_player/log.h"
#include "kelp_player/statistics.h"
#include "present/exact_sound.h"
#include "present/standard_sound.h"
#include "present/tempo_library.h"
#include "present/tempo_pieces.h"
#include "runtime/kelp_time.h"

namespace kelp {

namespace {

constexpr const char* kTag = "AudioPlayThread";

// Cuts the frame down to the bytes that its buffer holds. False if it holds none.
bool limitToBuffer(AudioFrameInfo& frame) {
    if (!frame.buffer || !frame.buffer->data) {
        return false;
    }
    frame.dataSize = std::min(frame.dataSize, frame.buffer->size);
    return true;
}

short* samplesOf(const AudioFrameInfo& frame) {
    return reinterpret_cast<short*>(frame.buffer->data);
}

}  // namespace

AudioPlayThread::AudioPlayThread()
    : BasePlayThread("AudioPlayThread", /*keepFrames=*/0, Idle::Asleep), timing_(std::make_unique<StandardSound>()) {
}

AudioPlayThread::~AudioPlayThread() {
    if (isStarted()) {
        AudioPlayThread::stop();
    }
    destroySoundTouch();
}

void AudioPlayThread::init(std::shared_ptr<AudioPlayThreadObserver> observer) {
    observer_ = std::move(observer);
    destroySoundTouch();
    soundTouch_ = soundtouch_createInstance();
}

void AudioPlayThread::setOutputSpec(AudioOutputSpec spec) {
    outputSpec_ = spec;
    timing_->setSpec(spec);
    if (void* soundTouch = soundTouch_) {
        soundtouch_setSampleRate(soundTouch, static_cast<unsigned int>(spec.sampleRate));
        soundtouch_setChannels(soundTouch, static_cast<unsigned int>(spec.channels));
        soundtouch_setPitch(soundTouch, 1.0f);
        soundtouch_setTempo(soundTouch, 1.0f);
    }
}

void AudioPlayThread::setOptions(const PlaybackOptions& options) {
    audioOutputFactory_ = std::make_shared<AudioOutputFactory>(options);
    setDevice(options.audioDevice);
    if (options.exactTiming) {
        timing_ = std::make_unique<ExactSound>();
        timing_->setSpec(outputSpec_);
    }
    catchUp_ = options.lowLiveDelay ? std::make_unique<SoundCatchUp>() : nullptr;
    if (void* const soundTouch = soundTouch_) {
        chooseTempoPieces(soundTouch, options);
    }
}

void AudioPlayThread::setSpeed(float speed) {
    timing_->setSpeed(speed);
    // The play thread sets the tempo before each frame anyway, and the library takes one thread at a time.
    if (isStarted()) {
        return;
    }
    if (void* soundTouch = soundTouch_) {
        soundtouch_setTempo(soundTouch, speed);
    }
}

bool AudioPlayThread::setVolume(float volume) {
    volume_ = volume;
    const auto output = audioOutput_.load();
    return output && output->setVolume(volume);
}

void AudioPlayThread::setMuted(bool muted) {
    isMuted_ = muted;
    if (const auto output = audioOutput_.load()) {
        output->setMuted(muted);
    }
}

bool AudioPlayThread::setDevice(const std::string& name) {
    {
        std::lock_guard lock(deviceMutex_);
        deviceName_ = name;
    }
    const auto output = audioOutput_.load();
    return !output || output->setDevice(name);
}

std::string AudioPlayThread::deviceName() {
    std::lock_guard lock(deviceMutex_);
    return deviceName_;
}

bool AudioPlayThread::pause(bool paused) {
    Log::Debug(kTag, "pause:%d\n", paused);
    // In this order: an output that is missed here is seen by others only later, and asks then.
    BasePlayThread::pause(paused);
    if (const auto output = audioOutput_.load()) {
        output->pause(paused);
    }
    timing_->setPaused(paused);
    return true;
}

void AudioPlayThread::seek(int seekTimeMs, bool needFlush) {
    Log::Debug(kTag, "%s, seekTimeMs:%d, needFlush:%d\n", "seek", seekTimeMs, needFlush);
    BasePlayThread::seek(seekTimeMs, needFlush);
    releaseWrite();
}

bool AudioPlayThread::seekInQueue(int seekTimeMs, const std::function<void()>& onFound) {
    const bool isFound = BasePlayThread::seekInQueue(seekTimeMs, onFound);
    if (isFound) {
        releaseWrite();
    }
    return isFound;
}

void AudioPlayThread::releaseWrite() {
    // So that the loop gets to the seek. A write takes the order back only on its way out, so the loop comes round
    // after each flush.
    if (const auto output = audioOutput_.load()) {
        output->flush();
    }
}

bool AudioPlayThread::checkBuffer(int seekTimeMs) {
    Log::Debug(kTag, "%s, seekTimeMs:%d\n", "checkBuffer", seekTimeMs);
    // In a pause the thread sleeps, and its clock would stay where it is.
    if (takesOddStreams() && isPaused()) {
        return false;
    }
    return BasePlayThread::checkBuffer(seekTimeMs);
}

bool AudioPlayThread::clearBuffer(int seekTimeMs) {
    Log::Debug(kTag, "%s, seekTimeMs:%d\n", "clearBuffer", seekTimeMs);
    return BasePlayThread::clearBuffer(seekTimeMs);
}

void AudioPlayThread::prepareStop() {
    if (isStopRequested()) {
        return;
    }
    // First the request, then the flush: a write that starts with no stop in sight starts before the flush, which
    // ends it; any later one isn't made. An output that is missed here was published after the request.
    auto output = audioOutput_.load();
    BasePlayThread::prepareStop();
    if (!output) {
        output = audioOutput_.load();
    }
    if (output) {
        output->flush();
    }
}

void AudioPlayThread::stop() {
    BasePlayThread::stop();
    // Two threads that have followed each other would keep each other alive.
    timing_->follow(nullptr);
}

void AudioPlayThread::onSeekStart(int seekTimeMs) {
    Log::Debug(kTag, "%s, seekTimeMs:%d\n", "onSeekStart", seekTimeMs);
    isFirstAwaited_ = false;
    needFlush_ = true;
    timing_->seek(seekTimeMs);
}

void AudioPlayThread::onSeekFinish(int ptsMs) {
    Log::Debug(kTag, "onSeekFinish, seekTimeMs:%d\n", ptsMs);
    if (observer_) {
        observer_->onFirstAudioFrame(ptsMs);
    }
}

void AudioPlayThread::cutTo(DecodedFrame& decodedFrame, int64_t timeMs) {
    auto* const frame = dynamic_cast<AudioFrameInfo*>(&decodedFrame);
    const auto sampleBytes = static_cast<int64_t>(sizeof(short)) * outputSpec_.channels;
    if (!frame || !limitToBuffer(*frame) || sampleBytes < 1 || outputSpec_.sampleRate < 1) {
        return;
    }
    const int64_t samples = frame->dataSize / sampleBytes;
    const int64_t cutMs = std::min(timeMs - frame->pts, samples * 1000 / outputSpec_.sampleRate);
    // One is left, so that there is something to play.
    const int64_t cutBytes = std::min(cutMs * outputSpec_.sampleRate / 1000, samples - 1) * sampleBytes;
    if (cutBytes <= 0) {
        return;
    }
    frame->dataSize -= static_cast<unsigned int>(cutBytes);
    std::memmove(frame->buffer->data, frame->buffer->data + cutBytes, frame->dataSize);
    frame->pts += cutMs;
    std::atomic_ref(frame->duration).fetch_sub(cutMs, std::memory_order_relaxed);
}

int64_t AudioPlayThread::otherTimeMs() {
    return observer_ ? observer_->seenMs() : -1;
}

void AudioPlayThread::onLateStart(int64_t positionMs) {
    isFirstAwaited_ = isFirstAwaited_ || !hasTime();
    timing_->runFrom(positionMs);
}

void AudioPlayThread::onExit() {
    Log::Debug(kTag, "onExit\n");
    timing_->setOutput(nullptr);
    if (const auto output = audioOutput_.exchange(nullptr)) {
        output->close();
    }
    destroySoundTouch();
}

void AudioPlayThread::onFramesTaken(int left) {
    if (observer_) {
        observer_->onAudioFramesTaken(left);
    }
}

void AudioPlayThread::destroySoundTouch() {
    if (void* soundTouch = soundTouch_.exchange(nullptr)) {
        soundtouch_destroyInstance(soundTouch);
    }
}

bool AudioPlayThread::onOutput(std::shared_ptr<DecodedFrame> frame) {
    const auto audioFrame = std::dynamic_pointer_cast<AudioFrameInfo>(std::move(frame));
    if (!audioFrame) {
        return true;
    }
    if (isPaused()) {
        return false;
    }
    if ((std::exchange(isFirstAwaited_, false) || !hasTime()) && observer_) {
        observer_->onVeryFirstAudioFrame(audioFrame->pts);
    }

    if (catchUp_ && !isWanted(*audioFrame)) {
        needFlush_ = true;
        return true;
    }
    const int64_t nowMs = KelpTime::getTimeMs();
    void* const soundTouch = soundTouch_.load(std::memory_order_relaxed);
    auto output = audioOutput_.load();
    if (std::exchange(needFlush_, false)) {
        timing_->empty(output.get(), soundTouch);
    }
    if (!output) {
        output = makeOutput();
    }
    if (counts_.output.read() != SOUND_OUTPUT_NONE) {
        counts_.output.set(output->isSilent() ? SOUND_OUTPUT_SILENCE : SOUND_OUTPUT_DEVICE);
    }
    if (!isTimeFor(*audioFrame, *output, nowMs)) {
        return false;
    }

    if (!limitToBuffer(*audioFrame)) {
        return true;
    }
    const int64_t put = framesOf(*audioFrame);
    const bool hasSound = !soundTouch || stretch(soundTouch, *audioFrame);
    timing_->handOver(soundTouch, put, hasSound ? framesOf(*audioFrame) : 0);
    // The last look before the write that may block, see `prepareStop`.
    if (!hasSound || isStopRequested()) {
        return true;
    }
    output->fillFrame(audioFrame);
    counts_.blocks.add();
    counts_.underruns.set(output->underruns());
    return true;
}

bool AudioPlayThread::isWanted(const AudioFrameInfo& frame) {
    const bool isFollowing = timing_->isFollowing();
    const int64_t behindMs = isFollowing ? -timing_->aheadOfMasterMs() : std::numeric_limits<int64_t>::max();
    const bool hasMore = getFrameQueueSize() > 1 || (observer_ && observer_->onAudioPacketQueueSize() > 0);
    const int64_t nowUs = KelpTime::getSteadyUs();
    const auto output = audioOutput_.load();
    const int64_t spareUs = output ? output->heard(nowUs).spareUs : 0;
    if (!catchUp_->isWanted(frame, nowUs, queuedMs(), hasMore, spareUs, behindMs)) {
        return false;
    }
    // Alone it is as fast as it may be; what follows another one decides by itself.
    const double fastest = catchUp_->fastest();
    timing_->limitTempo(isFollowing ? SoundCatchUp::kSlowest : fastest, fastest);
    return true;
}

bool AudioPlayThread::isTimeFor(AudioFrameInfo& frame, IAudioOutput& output, int64_t nowMs) {
    for (;;) {
        const int64_t waitUs = timing_->begin(frame, durationOf(frame), output, nowMs);
        counts_.aheadOfMasterMs.set(timing_->aheadOfMasterMs());
        if (waitUs <= 0 || waitUs >= SoundTiming::kRetryUs || isPaused() || isSeekPending() || isStopRequested()) {
            return waitUs <= 0;
        }
        restUntilSeek(waitUs);
    }
}

int64_t AudioPlayThread::framesOf(const AudioFrameInfo& frame) const {
    return outputSpec_.channels < 1 ? 0 : frame.dataSize / (2 * static_cast<unsigned int>(outputSpec_.channels));
}

std::shared_ptr<IAudioOutput> AudioPlayThread::makeOutput() {
    if (!audioOutputFactory_) {
        audioOutputFactory_ = std::make_shared<AudioOutputFactory>();
    }
    auto output = audioOutputFactory_->create(outputSpec_);
    std::string device = deviceName();
    output->setDevice(device);
    counts_.output.set(output->init(outputSpec_) ? SOUND_OUTPUT_DEVICE : SOUND_OUTPUT_NONE);
    audioOutput_.store(output);
    timing_->setOutput(output);

    // What the control side asked for while it saw no output.
    float volume = 0;
    do {
        volume = volume_;
        output->setVolume(volume);
    } while (std::bit_cast<uint32_t>(volume_.load()) != std::bit_cast<uint32_t>(volume));
    for (bool muted = false; isMuted_ != muted;) {
        muted = !muted;
        output->setMuted(muted);
    }
    for (std::string wanted; (wanted = deviceName()) != device; device = wanted) {
        output->setDevice(wanted);
    }
    for (bool paused = false; isPaused() != paused;) {
        paused = !paused;
        output->pause(paused);
    }
    if (isSeekPending()) {
        output->flush();
    }
    return output;
}

bool AudioPlayThread::stretch(void* soundTouch, AudioFrameInfo& frame) {
    if (outputSpec_.channels < 1) {
        return true;
    }
    const auto frameBytes = 2 * static_cast<unsigned int>(outputSpec_.channels);
    soundtouch_setTempo(soundTouch, timing_->tempo());
    soundtouch_putSamples_i16(soundTouch, samplesOf(frame), frame.dataSize / frameBytes);
    const unsigned int ready = soundtouch_numSamples(soundTouch);
    if (ready == 0) {
        return false;
    }
    const uint64_t readyBytes = uint64_t{ready} * frameBytes;
    if (frame.buffer->size < readyBytes) {
        auto lock = queueLock();
        lock.lock();
        frame.reAllocBuffer(static_cast<int>(std::min<uint64_t>(readyBytes, std::numeric_limits<int>::max())));
    }
    const unsigned int got =
        soundtouch_receiveSamples_i16(soundTouch, samplesOf(frame), frame.buffer->size / frameBytes);
    if (got == 0) {
        return false;
    }
    frame.dataSize = got * frameBytes;
    return true;
}

}  // namespace kelp
