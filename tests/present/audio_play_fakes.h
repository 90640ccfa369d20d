#pragma once

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "decode/audio_frame_info.h"
#include "present/audio_output.h"
#include "present/audio_output_factory.h"
#include "present/audio_play_thread.h"
#include "present/fake_master.h"
#include "present/standard_sound.h"

namespace kelp {

// Drives the steps of an AudioPlayThread that has no thread running.
class AudioPlayThreadPeer {
public:
    explicit AudioPlayThreadPeer(AudioPlayThread& thread) : thread_(thread) {}

    bool output(std::shared_ptr<DecodedFrame> frame) { return thread_.onOutput(std::move(frame)); }
    void idle() { thread_.onOutput(); }
    void seekStart(int ms) { thread_.onSeekStart(ms); }
    void seekFinish(int ms) { thread_.onSeekFinish(ms); }
    void cut(DecodedFrame& frame, int64_t timeMs) { thread_.cutTo(frame, timeMs); }
    void exit() { thread_.onExit(); }
    void compute(int64_t duration) { dynamic_cast<StandardSound&>(*thread_.timing_).computeUnSyncSamples(duration); }
    void useFactory(std::shared_ptr<AudioOutputFactory> factory) { thread_.audioOutputFactory_ = std::move(factory); }
    bool stopRequested() { return thread_.isStopRequested(); }

private:
    AudioPlayThread& thread_;
};

}  // namespace kelp

namespace kelp::test {

// What the fakes below were asked for, as texts in the order of the calls.
class CallRecord {
public:
    void add(const std::string& call);
    // All calls since the last time.
    std::vector<std::string> take();
    int count(const std::string& call);
    // Waits in real time.
    bool waitFor(const std::string& call, int count = 1);

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> calls_;
};

// Stands in for the tempo library, or before it. Steps are recorded as "sampleRate 48000", "channels 2", "pitch 1",
// "tempo", "put 1024" and "receive 2048" (the most that fits), "st flush"; samples count per channel.
class FakeSoundTouch {
public:
    // To the library itself, with nothing recorded.
    static void reset();

    static bool missing;                // createInstance gives none
    static CallRecord* calls;           // records if not null
    static bool scripted;               // the library isn't called; what is put in vanishes, `ready` samples come out
    static unsigned int ready;          // per channel, for each put
    static unsigned int channels;       // as it was told last
    static short value;                 // of the samples that come out
    static std::vector<float> tempos;   // in order, if calls are recorded
    static std::vector<short> putIn;    // the same
    static std::atomic<int> instances;  // made and not destroyed
};

// An audio output that records "init 2 48000 1", "volume 0.5", "fill 4096", "flush", "pause 1" and "close".
class FakeAudioOutput : public IAudioOutput {
public:
    explicit FakeAudioOutput(CallRecord& calls) : calls_(calls) {}

    bool init(AudioOutputSpec spec) override;
    bool fillFrame(std::shared_ptr<AudioFrameInfo> frame) override;
    int getBufferDuration() override { return bufferDurationMs; }
    bool pause(bool paused) override;
    void close() override;
    void flush() override;
    bool setVolume(float volume) override;
    void setMuted(bool muted) override { isMuted = muted; }
    bool setDevice(const std::string& name) override {
        device = name;
        return name != "missing";
    }
    int64_t underruns() const override { return gaps; }
    bool isSilent() const override { return silent; }

    std::atomic<int> bufferDurationMs{0};
    std::atomic<bool> blocking{false};  // a fill waits for a flush or close, as with a full ring that nobody empties
    bool volumeResult = true;
    bool hasDevice = true;
    int64_t gaps = 0;
    bool silent = false;
    std::function<void()> onInit = [] {};
    std::function<void()> onFlush = [] {};            // after a fill was released
    std::function<void()> onSetVolume = [] {};        // before the value is taken
    std::function<void(bool)> onPause = [](bool) {};  // before it is recorded
    std::atomic<float> volume{-1.0f};
    bool isMuted = false;
    std::string device;
    std::vector<unsigned char> written;  // of the last fill

private:
    CallRecord& calls_;
    std::mutex mutex_;
    std::condition_variable released_;
    bool flushRequested_ = false;
    bool closed_ = false;
};

// Gives out one output and records "create 2 48000 1".
class FakeOutputFactory : public AudioOutputFactory {
public:
    FakeOutputFactory(CallRecord& calls, std::shared_ptr<IAudioOutput> output)
        : calls_(calls), output_(std::move(output)) {}

    std::shared_ptr<IAudioOutput> create(AudioOutputSpec spec) override;

private:
    CallRecord& calls_;
    std::shared_ptr<IAudioOutput> output_;
};

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

class RecordingObserver : public AudioPlayThreadObserver {
public:
    void onFirstAudioFrame(int64_t pts) override;

    std::vector<int64_t> firstFrames();
    // Waits in real time.
    bool waitForFirstFrame(int64_t pts);

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<int64_t> firstFrames_;
};

#pragma GCC diagnostic pop

// A block of `bytes` valid bytes, the samples 1, 2, 3 and so on, in a buffer of `capacity` bytes (the same if 0).
std::shared_ptr<AudioFrameInfo> makeAudioFrame(int64_t pts, unsigned int bytes = 4096, int64_t duration = 21,
                                               unsigned int capacity = 0);
std::shared_ptr<FrameBuffer> makeBuffer(unsigned int capacity);

}  // namespace kelp::test
