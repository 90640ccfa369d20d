#pragma once

#include <atomic>
#include <cstdint>
#include <limits>
#include <memory>
#include <utility>

#include "decode/audio_decoder.h"
#include "decode/audio_output_spec.h"
#include "decode/base_decode_thread.h"
#include "decode/loop_sound.h"
#include "kelp_player/types.h"

namespace kelp {

class AudioDecoderFactory;
class AudioFrameInfo;
class CodecInfo;
class FrameBuffer;
class MediaPacket;

// What the audio decode stage tells and asks of the playback. The calls come on the decode thread, with two exceptions:
// onAudioDecodeSeek without flush comes on the thread that called clearBuffer, and freePcmBuffer on any.
class AudioDecodeThreadObserver {
public:
    virtual void onAudioDecoded(std::shared_ptr<AudioFrameInfo> frame) = 0;

    // How many samples to take out of the frame that is being decoded; negative to add some.
    virtual int onSpeedUpSamples() = 0;

    // Frames that wait for output.
    virtual int onAudioFrameQueueSize() = 0;
    // The time of the picture that is shown, on the line of playback; below 0 for none.
    virtual int64_t seenMs() { return -1; }
    // A packet has left the queue, and is about to be decoded.
    virtual void onAudioPacketTaken() {}

    virtual void onAudioDecodeSeek(int seekTimeMs, bool flush) = 0;
    // The input has ended, and all frames were handed on; until a seek, or another track.
    virtual void onAudioDecodeEnd() {}
    // The frames from here on are of another track.
    virtual void onAudioDecodeTrack() {}
    virtual std::shared_ptr<FrameBuffer> allocPcmBuffer(unsigned int size) = 0;
    virtual void freePcmBuffer(std::shared_ptr<FrameBuffer> buffer) = 0;

protected:
    ~AudioDecodeThreadObserver() = default;
};

// Drives an audio decoder: takes packets while fewer than 20 frames wait for output, and passes on what the decoder
// says.
//
// `open`, `start`, `openSync` and `stop` come from the one thread that starts and ends the playback; packets, seeks and
// buffer queries as the base class says. Must be held by a shared pointer before `open`. From `open` on, the object and
// its decoder hold each other, until the thread has ended; one that was opened is to be started and stopped.
class AudioDecodeThread : private BaseDecodeThread,
                          public AudioDecoderObserver,
                          public std::enable_shared_from_this<AudioDecodeThread> {
public:
    AudioDecodeThread();
    ~AudioDecodeThread() override { stopIfRunning(); }

    // Makes and opens the decoder. `codecParameters`: an AVCodecParameters, or null. A `spec` that the decoder refuses
    // is no failure: frames then keep the decoded form.
    bool open(AudioCodecType codecType, const void* codecParameters, AudioOutputSpec spec,
              std::shared_ptr<AudioDecodeThreadObserver> observer, const PlaybackOptions& options = {});

    using BaseDecodeThread::endsBehind;
    using BaseDecodeThread::fillPacket;
    using BaseDecodeThread::getQueuePacketSize;
    using BaseDecodeThread::isDecoding;
    using BaseDecodeThread::level;
    using BaseDecodeThread::prepareStop;
    using BaseDecodeThread::seek;
    using BaseDecodeThread::skipTo;
    using BaseDecodeThread::start;
    using BaseDecodeThread::stop;

    // As the base class's; but a time before the last frame that left the decoder is not to be had.
    bool checkBuffer(int seekTimeMs) override;
    // The same; the observer hears of the seek all the same.
    bool clearBuffer(int seekTimeMs) override;

    // Frames have left the queue behind, `left` are in it. The thread isn't woken for each: there is sound for long in
    // it, so room may wait for 30 ms, until about the next frame goes, or until half of the queue is empty.
    void framesTaken(int left);

    // The packets that wait are for nobody: the ones to come are of another track, from an earlier time on. They are
    // decoded at once, as if no frame waited, until the observer has been told of the track.
    void readAgain();

    // Turns the correction by onSpeedUpSamples on or off; false if there is no decoder. Before the first packet.
    bool openSync(bool open);

    // What it counts; any thread, without a lock.
    const DecodeCounts& counts() const { return counts_; }

private:
    bool canDecode() override;
    void decode(std::shared_ptr<MediaPacket> packet) override;
    void onSeek(int seekTimeMs, bool flush) override;
    void onExit() override;
    bool openDecoder(AudioCodecType codecType, const void* codecParameters);
    void changeTrack(std::shared_ptr<const CodecInfo> track);
    void changeTurn(std::shared_ptr<const LoopTurn> turn);
    void deliver(std::shared_ptr<AudioFrameInfo> frame);

    void onAudioDecoded(std::shared_ptr<AudioFrameInfo> frame) override;
    int onSpeedUpSamples() override;
    std::shared_ptr<FrameBuffer> allocPcmBuffer(unsigned int size) override;
    void freePcmBuffer(std::shared_ptr<FrameBuffer> buffer) override;

    std::shared_ptr<AudioDecodeThreadObserver> observer_;  // set by open
    std::shared_ptr<AudioDecoderFactory> decoderFactory_;
    std::shared_ptr<IAudioDecoder> decoder_;  // from open to onExit; empty for a track whose decoder doesn't open
    std::shared_ptr<const CodecInfo> track_;  // as the packets name it, like the next
    std::shared_ptr<const LoopTurn> turn_;
    bool isEmpty_ = true;     // the decoder: nothing came since the last flush
    bool isDrained_ = false;  // it has given out all that it held, at an end
    LoopSound loopSound_{[this](std::shared_ptr<AudioFrameInfo> frame) { deliver(std::move(frame)); }};
    std::atomic<bool> isHurried_{false};  // by readAgain
    DecodeCounts counts_;
    // For each decoder.
    AudioOutputSpec spec_;
    PlaybackOptions options_;
    bool syncOpen_ = false;
    // Time of the last frame that left the decoder. A seek doesn't touch it; before the first frame, no time is behind
    // it.
    std::atomic<int64_t> lastOutputPtsMs_{std::numeric_limits<int64_t>::max()};
    std::atomic<int64_t> roomSinceMs_{0};  // when a frame left the full queue
    std::atomic<int64_t> lastTakenMs_{0};  // when the last one went
};

}  // namespace kelp
