#pragma once

#include <SDL.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "present/audio_output.h"
#include "present/sample_gain.h"
#include "runtime/stage_counts.h"

namespace kelp {

class CycleBufferWrapper;

// Sound by SDL: a ring of 8192 bytes between the play thread, which waits for room in it, and the callback of the
// device, which takes what is there and plays silence for the rest. Applies the volume before the ring.
//
// SDL's audio thread only touches the ring, the atomics and the clock, which nobody locks. Without a device nobody
// empties the ring, so `fillFrame` blocks until a flush or close comes; likewise while the device is paused.
class SDLAudioOutput : public IAudioOutput {
public:
    // What is done about a device that isn't there any more, as SDL says or as it asks for no samples for a quarter of
    // a second that isn't one of a pause: it is waited for; or `fillFrame` tells. An attempt that is made again and
    // again says nothing of itself in the log.
    enum class Device { WaitedFor, Watched, TriedAgain };

    static constexpr int kRingBytes = 8192;
    static constexpr int kDeviceBufferSamples = 1024;  // for each channel

    // `blockFrames`: samples for each channel that the device is to take at once.
    explicit SDLAudioOutput(Device device = Device::WaitedFor,
                            SampleGain::Changes volumeChanges = SampleGain::Changes::AtOnce,
                            int blockFrames = kDeviceBufferSamples);
    ~SDLAudioOutput() override;

    bool init(AudioOutputSpec spec) override;

    // False if the device is watched and gone. Samples of 16 bits are scaled in place; other forms have no volume.
    bool fillFrame(std::shared_ptr<AudioFrameInfo> frame) override;

    // What is in the ring and one device buffer.
    int getBufferDuration() override;
    int64_t underruns() const override { return underruns_.read(); }
    bool pause(bool paused) override;
    void close() override;

    // The device is silent from here on; the ring is emptied by the next `fillFrame`, whose frame goes with it.
    void flush() override;
    bool setVolume(float volume) override;
    void setMuted(bool muted) override;
    // The ring stays, and the next device goes on where the one before stopped.
    bool setDevice(const std::string& name) override;
    HeardSound heard(int64_t nowUs) override;

    // The device's callback; `userdata` is the output.
    static void sdlAudioCallback(void* userdata, unsigned char* stream, int len);

    // The ring's question whether a transfer is to stop; `opaque` is the output.
    static int cycleBufferWrapperCallback(void* opaque);

private:
    // The device has asked, and got all of it or not.
    void watchForGap(bool isWhole);
    // Opens the device of this name, which stands still at first. 0 if there is none for the samples, and SDL's error
    // says why.
    SDL_AudioDeviceID openDevice(const std::string& name, SDL_AudioSpec& obtained) const;
    // Gives the ring to this one in place of that before, which is closed.
    void changeTo(SDL_AudioDeviceID device, const SDL_AudioSpec& obtained);
    void openClock(const SDL_AudioSpec& obtained);
    // Writes what the device asked for; how many bytes of it are sound.
    int takeSound(unsigned char* stream, int len);
    void pauseDevice(bool paused);
    void closeDevice();
    bool isDeviceGone();

    const Device device_;
    const int blockFrames_;
    std::shared_ptr<CycleBufferWrapper> cycleBuffer_;
    SDL_AudioDeviceID deviceId_ = 0;   // 0 if none is open; guarded by deviceMutex_
    std::mutex deviceMutex_;           // keeps a pause from a device that is being closed; the callback never takes it
    std::mutex openMutex_;             // held through each opening, before deviceMutex_
    std::string deviceName_;           // empty for the default one; guarded by openMutex_, like the next ones
    std::string openedName_;           // of the one that was opened: where the wanted one is missing, the default one
    bool isInitialized_ = false;       // there is a form of samples to open a device for
    std::atomic<bool> closed_{false};  // never cleared
    SDL_AudioSpec wantedSpec_{};       // as asked of SDL, not as obtained; fixed from `init` on
    std::atomic<int> frameBytes_{0};   // a sample of each channel, as they are handed over; 0 before `init`
    DeviceClock clock_;
    std::atomic<bool> paused_{false};
    std::atomic<bool> flushRequested_{false};  // until the next fillFrame
    SampleGain gain_;
    std::atomic<unsigned int> flushes_{0};
    // SDL's thread's, but that others read the first one.
    Count underruns_;
    bool hadSound_ = false;
    bool inGap_ = false;           // the device gets silence for want of sound
    unsigned int gapFlushes_ = 0;  // flushes_ when it began
};

}  // namespace kelp
