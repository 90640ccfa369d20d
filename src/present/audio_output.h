#pragma once

#include <memory>
#include <string>

#include "decode/audio_frame_info.h"
#include "decode/audio_output_spec.h"
#include "present/device_clock.h"

namespace kelp {

// Takes finished samples to a sound device.
//
// The audio play thread calls `init`, `fillFrame` and `getBufferDuration`; all else may come from any thread, also
// while `fillFrame` blocks.
class IAudioOutput {
public:
    virtual ~IAudioOutput() = default;

    // Opens the device for samples of this form and starts it.
    virtual bool init(AudioOutputSpec spec) = 0;

    // Hands over the frame's samples and returns when there was room for them all, or a flush or close came. False from
    // an output whose device is gone, if it is one that tells.
    virtual bool fillFrame(std::shared_ptr<AudioFrameInfo> frame) = 0;

    // The sound between the last sample handed over and the loudspeaker, in milliseconds.
    virtual int getBufferDuration() = 0;

    // How often the device asked for sound that came only later, but for what a flush had thrown away.
    virtual int64_t underruns() const { return 0; }
    // It plays without a device for now.
    virtual bool isSilent() const { return false; }

    virtual bool pause(bool paused) = 0;

    // Closes the device for good and ends a `fillFrame` that blocks.
    virtual void close() = 0;

    // Orders that what is on its way be thrown away, and ends a `fillFrame` that blocks.
    virtual void flush() = 0;

    // Linear gain, 1.0 leaving the samples as they are.
    virtual bool setVolume(float volume) = 0;

    // Silence, whatever the volume is, and back.
    virtual void setMuted(bool /*muted*/) {}

    // The device to play on, by its name, or the default one for an empty name: what `init` opens, and goes on without
    // if that is only to be had; behind that it is changed for another one, which takes the sound that waits, or is
    // kept where that can't be opened: false then. Takes as long as it takes to open it.
    virtual bool setDevice(const std::string& /*name*/) { return true; }

    // What of all that was handed over since `init` is heard at `nowUs`, microseconds by KelpTime. For an exact clock,
    // which stands with an output that doesn't tell.
    virtual HeardSound heard(int64_t /*nowUs*/) { return {}; }
};

}  // namespace kelp
