#pragma once

#include <atomic>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>

#include "decode/base_decode_thread.h"
#include "decode/video_decoder.h"
#include "decode/video_decoder_factory.h"
#include "decode/video_frame_info.h"
#include "kelp_player/types.h"
#include "runtime/playback_options.h"

namespace kelp {

class CodecInfo;
struct LoopTurn;

// What stands around the video decode stage. Called on the decode thread, but for `onVideoDecodeSeek` without flush,
// which comes on the thread that called `clearBuffer`, `freePixBuffer`, which comes from any thread, and
// `onVideoDecodeFailed`, which may come from one of the codec library's.
class VideoDecodeThreadObserver {
public:
    virtual void onVideoDecoded(std::shared_ptr<VideoFrameInfo> frame) = 0;
    virtual void onVideoDecodeFailed() = 0;
    virtual void onVideoDecodeNoMoreFrame() = 0;
    // The input has ended, and all frames were handed on; until a seek, or another track.
    virtual void onVideoDecodeEnd() {}
    // Frames that wait for presentation.
    virtual int onVideoFrameQueueSize() = 0;
    // A packet has left the queue, and is about to be decoded, or was left out.
    virtual void onVideoPacketTaken() {}
    // Which time is to be shown now, in milliseconds; nothing where pictures may come as they do. The packet queue's
    // lock is held.
    virtual std::optional<int64_t> onVideoDue() { return std::nullopt; }
    virtual void onVideoDecodeSeek(int seekTimeMs, bool flush) = 0;
    virtual std::shared_ptr<FrameBuffer> allocPixBuffer(unsigned int size) = 0;
    virtual void freePixBuffer(std::shared_ptr<FrameBuffer> buffer) = 0;

protected:
    ~VideoDecodeThreadObserver() = default;
};

// The video decode stage: feeds a decoder with the queued packets for as long as few frames wait for presentation.
//
// Held by a shared pointer. `open` and `start` come from the owner, then packets and seeks as the base class has it.
// While it runs, the decoder and this object hold each other; `stop` breaks that up. An object that was opened and
// never started stays for good.
class VideoDecodeThread : private BaseDecodeThread,
                          public VideoDecoderObserver,
                          public std::enable_shared_from_this<VideoDecodeThread> {
public:
    VideoDecodeThread();
    ~VideoDecodeThread() override { stopIfRunning(); }

    // Makes and opens the decoder. `codecParameters`: the stream's AVCodecParameters, or null.
    bool open(VideoCodecType codecType, const void* codecParameters, PixFormat pixFormat, bool enableHw,
              HwDecodeMode hwDecodeMode, bool isLive, std::shared_ptr<VideoDecodeThreadObserver> observer,
              const PlaybackOptions& options = {});

    using BaseDecodeThread::endsBehind;
    using BaseDecodeThread::fillPacket;
    using BaseDecodeThread::framesTaken;
    using BaseDecodeThread::getQueuePacketSize;
    using BaseDecodeThread::isDecoding;
    using BaseDecodeThread::isLeftOut;
    using BaseDecodeThread::level;
    using BaseDecodeThread::prepareStop;
    using BaseDecodeThread::seek;
    using BaseDecodeThread::skipTo;
    using BaseDecodeThread::start;
    using BaseDecodeThread::stop;
    // Refuse a time before the last frame that left the decoder: it isn't to be had from the queue any more. So does
    // every time before the first frame. A `clearBuffer` that refuses has told the observer of the seek all the same.
    bool checkBuffer(int seekTimeMs) override;
    bool clearBuffer(int seekTimeMs) override;

    // What it counts; any thread, without a lock.
    const DecodeCounts& counts() const { return counts_; }

    // How long a picture stays inside the decoder, smoothed. To be called within `onVideoDecoded` only.
    int64_t getAvgDecodeTimeMs() { return decoder_->getAvgDecodeTime(); }

    void onVideoDecoded(std::shared_ptr<VideoFrameInfo> frame) override;
    void onVideoDecodeFailed() override;
    void onVideoDecodeNoMoreFrame() override;
    std::shared_ptr<FrameBuffer> allocPixBuffer(unsigned int size) override;
    void freePixBuffer(std::shared_ptr<FrameBuffer> buffer) override;
    bool isStopping() override { return isStopRequested(); }

private:
    bool canDecode() override;
    std::optional<int64_t> dueMs() override;
    int64_t deliveredMs() const override { return deliveredMs_; }
    void onLeftOut(int dropped, int undelivered) override;
    void decode(std::shared_ptr<MediaPacket> packet) override;
    void onSeek(int seekTimeMs, bool flush) override;
    void onExit() override;
    bool openDecoder(VideoCodecType codecType, const void* codecParameters, PixFormat pixFormat);
    void changeTrack(std::shared_ptr<const CodecInfo> track);
    void changeTurn(std::shared_ptr<const LoopTurn> turn);
    // Makes the decoder give out what it still holds.
    void giveOut();
    // Hands on the picture that stands where the turn begins, if it has none of its own for long.
    void deliverLead();
    void deliver(std::shared_ptr<VideoFrameInfo> frame);

    std::shared_ptr<VideoDecodeThreadObserver> observer_;  // set by `open`, before the thread runs
    std::shared_ptr<VideoDecoderFactory> decoderFactory_;
    std::shared_ptr<IVideoDecoder> decoder_;  // from `open` until the thread ends; empty for a track that doesn't open
    std::shared_ptr<const CodecInfo> track_;  // as the packets name it, like the next
    std::shared_ptr<const LoopTurn> turn_;
    std::shared_ptr<VideoFrameInfo> lead_;  // the last picture ahead of it, until it has one of its own
    bool isEmpty_ = true;                   // the decoder: nothing came since the last flush
    DecodeCounts counts_;
    // For each decoder.
    bool enableHw_ = false;
    HwDecodeMode hwDecodeMode_ = HW_DECODE_NONE;
    bool isLive_ = false;
    PlaybackOptions options_;
    static constexpr int64_t kNothing = std::numeric_limits<int64_t>::min();
    int64_t deliveredMs_ = kNothing;  // time of the last frame since the last flush; the decode thread's
    int64_t deliveredUs_ = 0;         // when that was; likewise
    int64_t knownToMs_ = kNothing;    // frames up to here were delivered of the track before; likewise
    // Time of the last frame that left the decoder. A seek doesn't reset it.
    std::atomic<int64_t> lastOutputPtsMs_{std::numeric_limits<int64_t>::max()};
};

}  // namespace kelp
