#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "present/audio_device_search.h"
#include "present/audio_output.h"
#include "present/sdl_audio_output.h"
#include "present/silent_device.h"
#include "runtime/atomic_shared_ptr.h"
#include "runtime/rest.h"
#include "runtime/stage_counts.h"

namespace kelp {

// Sound that never stands: it goes to a device while there is one, and meanwhile into silence, at the pace of the
// clock. A device that is lost is looked for until it, or another one, is there; the log tells each change.
//
// The outputs that it is given say in `fillFrame` when theirs is lost.
class SteadyAudioOutput : public IAudioOutput {
public:
    // `blockFrames`: that their devices take at once.
    explicit SteadyAudioOutput(AudioDeviceSearch::MakeOutput makeOutput,
                               int blockFrames = SDLAudioOutput::kDeviceBufferSamples);
    ~SteadyAudioOutput() override;

    // Always true, after 250 milliseconds at most: a device that takes longer to open is taken up when it is there.
    bool init(AudioOutputSpec spec) override;
    // Always true.
    bool fillFrame(std::shared_ptr<AudioFrameInfo> frame) override;
    int getBufferDuration() override;
    int64_t underruns() const override;
    bool isSilent() const override { return !device_.load(); }
    bool pause(bool paused) override;
    // Waits for a device that is being opened.
    void close() override;
    void flush() override;
    bool setVolume(float volume) override;
    void setMuted(bool muted) override;
    // Without a device: which one is looked for.
    bool setDevice(const std::string& name) override;
    HeardSound heard(int64_t nowUs) override;

private:
    // Gives the sound to a device from here on.
    void take(const std::shared_ptr<IAudioOutput>& device);
    // Gives up the device.
    void lose(std::shared_ptr<IAudioOutput> device);
    // What is heard of this device, with silenceMutex_ held: it is taken to play on while nobody knows yet that it has
    // gone, and its first block to follow the silence at once.
    HeardSound heardOf(IAudioOutput& device, int64_t nowUs);
    // Of that time that the device owes, what isn't its own pause's.
    int64_t overdueUs(const HeardSound& heard, int64_t nowUs) const;
    // Returns when what was handed over but for a ring's content has been played, or a flush or close came.
    void waitInSilence();
    std::string deviceName();
    std::string giveName();  // to the next output
    std::string givenName();
    // Lets it look again, after something has changed.
    void endRest();
    // In microseconds, and back.
    int64_t durationOf(int64_t bytes) const;
    int64_t bytesOf(int64_t us) const;
    // What a device is taken to hold at all times.
    int deviceBufferMs() const;

    const int blockFrames_;
    AudioOutputSpec spec_;    // the play thread's
    std::mutex nameMutex_;    // a leaf
    std::string deviceName_;  // of the wanted device; guarded by nameMutex_, like the next
    std::string givenName_;   // what the output that was made last was given
    AudioDeviceSearch search_;
    AtomicSharedPtr<IAudioOutput> device_;  // empty while there is none
    Count lostUnderruns_;                   // of devices that are gone
    std::atomic<float> volume_{1.0F};
    std::atomic<bool> isMuted_{false};
    std::atomic<bool> paused_{false};
    std::atomic<bool> closed_{false};          // never cleared
    std::atomic<bool> flushRequested_{false};  // of a silent `fillFrame`
    std::mutex silenceMutex_;                  // before a device's own; device_ is written with it held
    SilentDevice silence_;                     // while there is no device; guarded by silenceMutex_, like the next
    int64_t handedBytes_ = 0;                  // to this output
    int64_t deviceBytes_ = 0;                  // of these, before the first that the present device was given
    int64_t takenUs_ = 0;                      // when it was taken
    int64_t takenBytes_ = 0;                   // heard by then, of those that were handed over
    bool isLeadIn_ = false;                    // its first block isn't heard yet
    std::atomic<int64_t> resumedUs_{0};        // since when it is to play
    std::atomic<unsigned int> changes_{0};     // of what waitInSilence looks at, counted when they are made
    Rest rest_;
};

}  // namespace kelp
