#pragma once

#include <cstdint>
#include <memory>

#include "decode/audio_output_spec.h"
#include "kelp_player/types.h"
#include "runtime/playback_options.h"

namespace kelp {

class AudioFrameInfo;
class FrameBuffer;
class MediaPacket;

// What an audio decoder asks of whoever drives it. All calls come on the thread that calls the decoder, except
// freePcmBuffer, which also comes from any thread on which a frame dies.
class AudioDecoderObserver {
public:
    virtual void onAudioDecoded(std::shared_ptr<AudioFrameInfo> frame) = 0;

    // How many samples to take out of the frame at hand; negative to add some, 0 to leave it as it is.
    virtual int onSpeedUpSamples() = 0;

    // A buffer of at least `size` bytes, or an empty pointer, which drops the frame.
    virtual std::shared_ptr<FrameBuffer> allocPcmBuffer(unsigned int size) = 0;
    virtual void freePcmBuffer(std::shared_ptr<FrameBuffer> buffer) = 0;

protected:
    ~AudioDecoderObserver() = default;
};

// Turns packets into frames in the form that the sound device wants.
//
// `open` and `setOutputSpec` come first, from the thread that starts the playback; packets, `flush` and `close` from
// the decode thread. `openSync` and `isSyncOpened` come from any thread at any time.
class IAudioDecoder {
public:
    virtual ~IAudioDecoder() = default;

    // What the host wants in another way; takes effect at `open`.
    virtual void setOptions(const PlaybackOptions&) {}

    // `codecParameters`: an AVCodecParameters, or null.
    virtual bool open(AudioCodecType codecType, const void* codecParameters,
                      std::shared_ptr<AudioDecoderObserver> observer) = 0;

    // The library's name for the decoder that was opened, which lives for good.
    virtual const char* name() const { return ""; }

    // The form of the frames from now on. Without one they keep the decoded form.
    virtual bool setOutputSpec(AudioOutputSpec spec) = 0;

    // Frees what `open` and decoding made.
    virtual void close() = 0;

    // Decodes one packet, which stays the caller's. A frame may come out with the next one; one without data is the
    // end, and brings all out.
    virtual void insertPacket(MediaPacket* packet) = 0;

    // Drops what is being decoded; after a seek.
    virtual void flush() = 0;

    // Nobody hears what starts before this time, in milliseconds: it needn't be decoded. In force from the next packet
    // on.
    virtual void setNeededFrom(int64_t) {}

    // Turns the correction of the number of samples by onSpeedUpSamples on or off.
    virtual bool openSync(bool open) = 0;
    virtual bool isSyncOpened() = 0;
};

}  // namespace kelp
