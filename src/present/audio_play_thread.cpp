#include "present/audio_play_thread.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <utility>

#include "clock/wrapping_math.h"
#include "kelp_player/log.h"
#include "kelp_player/statistics.h"
#include "runtime/kelp_time.h"

// The header leaves the linkage to the platform and says nothing of it here.
extern "C" {
#include "SoundTouchDLL.h"
}

namespace kelp {

namespace {

constexpr const char* kTag = "AudioPlayThread";

constexpr int kDiffAvgFrames = 20;  // differences before the average counts
constexpr int kMinThresholdMs = 25;
constexpr int kMaxThresholdMs = 100;

// The tempo library makes 1 / tempo samples out of one and doesn't come back from a tempo of 0. Below zero it drops
// samples and does come back.
constexpr float kMinTempo = 0.0005f;

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
    : BasePlayThread("AudioPlayThread", /*keepFrames=*/0, Idle::Asleep),
      diffAvgCoef_(std::exp(std::log(0.01) / kDiffAvgFrames)) {
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
    if (void* soundTouch = soundTouch_) {
        soundtouch_setSampleRate(soundTouch, static_cast<unsigned int>(spec.sampleRate));
        soundtouch_setChannels(soundTouch, static_cast<unsigned int>(spec.channels));
        soundtouch_setPitch(soundTouch, 1.0f);
        soundtouch_setTempo(soundTouch, 1.0f);
    }
}

void AudioPlayThread::setOptions(const PlaybackOptions& options) {
    audioOutputFactory_ = std::make_shared<AudioOutputFactory>(options);
}

void AudioPlayThread::setSpeed(float speed) {
    speed_.store(speed, std::memory_order_relaxed);
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

bool AudioPlayThread::pause(bool paused) {
    Log::Debug(kTag, "pause:%d\n", paused);
    // In this order: an output that is missed here is seen by others only later, and asks then.
    BasePlayThread::pause(paused);
    if (const auto output = audioOutput_.load()) {
        output->pause(paused);
    }
    return true;
}

void AudioPlayThread::seek(int seekTimeMs, bool needFlush) {
    Log::Debug(kTag, "%s, seekTimeMs:%d, needFlush:%d\n", "seek", seekTimeMs, needFlush);
    BasePlayThread::seek(seekTimeMs, needFlush);
    // Releases a write that is blocked, so that the loop gets to the seek. A write takes the order back only on its
    // way out, so the loop comes round after each flush.
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
    syncObject_.store(nullptr);
}

void AudioPlayThread::onSeekStart(int seekTimeMs) {
    Log::Debug(kTag, "%s, seekTimeMs:%d\n", "onSeekStart", seekTimeMs);
    isFirstAwaited_ = false;
    needFlush_ = true;
    clock_.set(seekTimeMs, KelpTime::getTimeMs());
}

void AudioPlayThread::onSeekFinish(int ptsMs) {
    Log::Debug(kTag, "onSeekFinish, seekTimeMs:%d\n", ptsMs);
    if (observer_) {
        observer_->onFirstAudioFrame(ptsMs);
    }
}

void AudioPlayThread::onLateStart(int64_t positionMs) {
    isFirstAwaited_ = isFirstAwaited_ || !clock_.hasTime();
    clock_.set(positionMs, KelpTime::getTimeMs());
}

void AudioPlayThread::onExit() {
    Log::Debug(kTag, "onExit\n");
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
    if ((std::exchange(isFirstAwaited_, false) || !clock_.hasTime()) && observer_) {
        observer_->onFirstAudioFrame(audioFrame->pts);
    }

    const int64_t now = KelpTime::getTimeMs();
    void* const soundTouch = soundTouch_.load(std::memory_order_relaxed);
    auto output = audioOutput_.load();
    if (std::exchange(needFlush_, false)) {
        if (output) {
            output->flush();
        }
        if (soundTouch) {
            soundtouch_flush(soundTouch);
        }
    }
    if (!output) {
        output = makeOutput();
    }

    // The clock names the sample at the loudspeaker, not the one that enters the ring.
    const int64_t ahead = output->getBufferDuration();
    clock_.set(audioFrame->pts > ahead ? audioFrame->pts - ahead : 0, now);
    computeUnSyncSamples(durationOf(*audioFrame));
    if (const auto master = syncObject_.load(); master && master->isForceSync() && getUnSyncSamples() > 0) {
        return false;
    }

    if (!limitToBuffer(*audioFrame) || (soundTouch && !stretch(soundTouch, *audioFrame))) {
        return true;
    }
    // The last look before the write that may block, see `prepareStop`.
    if (isStopRequested()) {
        return true;
    }
    output->fillFrame(audioFrame);
    counts_.blocks.add();
    counts_.underruns.set(output->underruns());
    return true;
}

std::shared_ptr<IAudioOutput> AudioPlayThread::makeOutput() {
    if (!audioOutputFactory_) {
        audioOutputFactory_ = std::make_shared<AudioOutputFactory>();
    }
    auto output = audioOutputFactory_->create(outputSpec_);
    counts_.output.set(output->init(outputSpec_) ? SOUND_OUTPUT_DEVICE : SOUND_OUTPUT_NONE);
    audioOutput_.store(output);

    // What the control side asked for while it saw no output.
    float volume = 0;
    do {
        volume = volume_;
        output->setVolume(volume);
    } while (std::bit_cast<uint32_t>(volume_.load()) != std::bit_cast<uint32_t>(volume));
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
    soundtouch_setTempo(soundTouch, tempo());
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

float AudioPlayThread::tempo() const {
    const auto behind = static_cast<float>(-unSyncSamples_.load(std::memory_order_relaxed));
    const float correction =
        behind / static_cast<float>(outputSpec_.sampleRate) / static_cast<float>(outputSpec_.channels) * 2.0f;
    const float tempo = correction + speed_.load(std::memory_order_relaxed);
    return tempo >= 0.0f && tempo < kMinTempo ? kMinTempo : tempo;
}

void AudioPlayThread::computeUnSyncSamples(int64_t duration) {
    const auto master = syncObject_.load();
    if (!master) {
        unSyncSamples_.store(0, std::memory_order_relaxed);
        counts_.aheadOfMasterMs.set(0);
        return;
    }
    const double diff = static_cast<double>(getSyncPts()) - static_cast<double>(master->getSyncPts());
    counts_.aheadOfMasterMs.set(truncated<int64_t>(diff));
    const int64_t noSync = std::max(kNoSyncThresholdMs, master->getNoSyncThreshold());
    int result = 0;
    if (std::abs(diff) < static_cast<double>(noSync)) {
        diffCum_ = diffAvgCoef_ * diffCum_ + diff;
        if (diffAvgCount_ < kDiffAvgFrames) {
            ++diffAvgCount_;
        } else {
            const auto twice = static_cast<int>(2 * static_cast<uint32_t>(duration));
            const int threshold = std::clamp(twice, kMinThresholdMs, kMaxThresholdMs);
            // The mean decides whether to correct, the present difference by how much.
            if (std::abs((1.0 - diffAvgCoef_) * diffCum_) >= threshold) {
                result = toSamples(diff);
            }
        }
    } else {
        Log::Debug(kTag, "diff:%lf, no sync threshold:%lld, out of sync...\n", diff, static_cast<long long>(noSync));
        diffAvgCount_ = 0;
        diffCum_ = 0;
    }
    if (master->isForceSync() && diff > 0) {
        result = toSamples(diff);
    }
    unSyncSamples_.store(result, std::memory_order_relaxed);
}

int AudioPlayThread::toSamples(double ms) const {
    constexpr double kLimit = std::numeric_limits<int>::max();
    return static_cast<int>(std::clamp(outputSpec_.sampleRate * ms / 1000.0, -kLimit, kLimit));
}

}  // namespace kelp
