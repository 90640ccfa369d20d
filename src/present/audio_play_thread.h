#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "clock/sync_object.h"
#include "decode/audio_frame_info.h"
#include "decode/audio_output_spec.h"
#include "present/audio_output.h"
#include "present/audio_output_factory.h"
#include "present/base_play_thread.h"
#include "present/sound_catch_up.h"
#include "present/sound_timing.h"
#include "runtime/atomic_shared_ptr.h"

namespace kelp {

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

// What an AudioPlayThread reports. Called on the play thread, at the end of a seek with its queue's mutex held;
// what was taken is told with no lock held, on the thread that took it.
class AudioPlayThreadObserver {
public:
    // The first frame ever, or the first one after a seek; `pts` in milliseconds.
    virtual void onFirstAudioFrame(int64_t pts) = 0;
    // The first frame ever, which may come while a seek is on its way; the one of the seek is told behind it.
    virtual void onVeryFirstAudioFrame(int64_t pts) { onFirstAudioFrame(pts); }
    // Frames have left the queue, `left` are in it. Comes first when the thread starts.
    virtual void onAudioFramesTaken(int /*left*/) {}
    // Packets that wait for the decoder. No lock is held.
    virtual int onAudioPacketQueueSize() { return 0; }
    // The time that is seen, in milliseconds; -1 if no picture has come. No lock is held.
    virtual int64_t seenMs() { return -1; }
};

#pragma GCC diagnostic pop

// Plays sound: takes decoded blocks, changes their tempo and writes them to the audio output, whose small ring blocks
// the write and so paces the thread. It is a clock that others may follow, and it measures how far it is away from the
// one that it follows itself; the tempo makes up for the difference: SoundTiming decides by how much, this class waits.
//
// Calls in this order: `init`, `setOutputSpec`, `setOptions`, `start`, then all others from the
// control side at will, then `stop`. The clock and getUnSyncSamples may be read from any thread. The tempo library's
// object belongs to the play thread from `start` on.
class AudioPlayThread : private BasePlayThread, public SyncObject {
public:
    AudioPlayThread();
    // Stops the thread if that has not been done.
    ~AudioPlayThread() override;

    void init(std::shared_ptr<AudioPlayThreadObserver> observer);
    void setOutputSpec(AudioOutputSpec spec);
    // What the host wants of the output, and of the clock; behind the above, before the start.
    void setOptions(const PlaybackOptions& options);

    // Whether the tempo can be changed here. If not, the decoder is to make up for differences.
    bool isSupportSpeedAdjust() { return soundTouch_ != nullptr; }

    // 1.0 is the sound's own tempo. In force from the next frame on; the pitch stays.
    void setSpeed(float speed);

    // Linear gain. False if there is no output yet, which then gets the value when it is made.
    bool setVolume(float volume);
    float volume() const { return volume_; }

    // Silence, whatever the volume is, and back.
    void setMuted(bool muted);
    bool isMuted() const { return isMuted_; }

    // The sound device of this name, or the default one for an empty name. False if that can't be opened, and the one
    // before goes on; one for the output that is still to be made is tried then. Returns when it is open.
    bool setDevice(const std::string& name);

    // The position at the loudspeaker, in milliseconds; in the standard form as of the last frame.
    int64_t getCurrentTime() { return timing_->positionMs(); }
    // Whether there is one: not before the first frame.
    bool hasTime() const { return timing_->hasTime(); }

    // What it counts; any thread, without a lock.
    const SoundCounts& counts() const { return counts_; }

    // By how many samples per channel the sound runs ahead of the clock that it follows; negative if it lags.
    int getUnSyncSamples() { return timing_->unSyncSamples(); }

    using BasePlayThread::endFrames;
    using BasePlayThread::fillFrame;
    using BasePlayThread::getFrameQueueSize;
    using BasePlayThread::holdsFrom;
    using BasePlayThread::level;
    using BasePlayThread::setMaxPtsMs;
    using BasePlayThread::setSeekRule;
    using BasePlayThread::splice;
    using BasePlayThread::start;
    using BasePlayThread::takeOddStreams;
    bool pause(bool paused) override;
    void seek(int seekTimeMs, bool needFlush) override;
    bool checkBuffer(int seekTimeMs) override;
    bool clearBuffer(int seekTimeMs) override;
    // Drops the clock that is followed as well.
    void stop() override;
    void prepareStop() override;
    bool seekInQueue(int seekTimeMs, const std::function<void()>& onFound);

    int64_t getNoSyncThreshold() override { return 10000; }
    bool isForceSync() override { return false; }
    int64_t getSyncPts() override { return timing_->readMs(); }
    int64_t getSyncPtsUs() override { return timing_->readUs(); }
    void setSyncObject(std::shared_ptr<SyncObject> syncObject) override { timing_->follow(std::move(syncObject)); }

private:
    friend class AudioPlayThreadPeer;  // lets tests drive the steps below without a thread

    bool onOutput(std::shared_ptr<DecodedFrame> frame) override;
    void onOutput() override {}
    void onSeekStart(int seekTimeMs) override;
    void onSeekFinish(int ptsMs) override;
    void cutTo(DecodedFrame& frame, int64_t timeMs) override;
    int64_t otherTimeMs() override;
    void onLateStart(int64_t positionMs) override;
    void onExit() override;
    void onFramesTaken(int left) override;

    // Lets a write that is blocked return, behind a seek that was posted.
    void releaseWrite();

    std::string deviceName();
    // Makes the output, opens it and only then lets the control side see it.
    std::shared_ptr<IAudioOutput> makeOutput();
    // Whether `frame` is not to be left out on the way back to the present; with catchUp_ only.
    bool isWanted(const AudioFrameInfo& frame);
    // Whether `frame` is to be played now; waits for a while if it isn't.
    bool isTimeFor(AudioFrameInfo& frame, IAudioOutput& output, int64_t nowMs);
    // Samples per channel.
    int64_t framesOf(const AudioFrameInfo& frame) const;
    // Replaces the frame's samples by what comes out of the tempo change. False if nothing did.
    bool stretch(void* soundTouch, AudioFrameInfo& frame);
    void destroySoundTouch();

    AudioOutputSpec outputSpec_;  // of the samples that arrive; fixed from `start` on
    std::shared_ptr<AudioOutputFactory> audioOutputFactory_;
    AtomicSharedPtr<IAudioOutput> audioOutput_;  // from the first frame to onExit; written by the play thread
    std::unique_ptr<SoundTiming> timing_;        // the clock and the tempo; of the standard form at first
    std::unique_ptr<SoundCatchUp> catchUp_;      // with a low delay only
    SoundCounts counts_;
    bool isFirstAwaited_ = false;  // the clock goes on before the very first frame
    bool needFlush_ = false;       // the next frame flushes the output and the tempo change first
    std::shared_ptr<AudioPlayThreadObserver> observer_;
    std::atomic<float> volume_{1.0f};  // linear gain
    std::atomic<bool> isMuted_{false};
    std::mutex deviceMutex_;                  // a leaf
    std::string deviceName_;                  // guarded by deviceMutex_
    std::atomic<void*> soundTouch_{nullptr};  // owned, from `init` to onExit; null if the library gave none
};

}  // namespace kelp
