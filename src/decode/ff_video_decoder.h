#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>

#include "decode/decoder_delay.h"
#include "decode/decoding_order.h"
#include "decode/hw_decode_tables.h"
#include "decode/picture_converter.h"
#include "decode/pixel_ratio.h"
#include "decode/video_decoder.h"
#include "kelp_player/types.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
}

namespace kelp {

// The video decoder on FFmpeg. Tries hardware decoders, then hardware acceleration of the software decoder, then plain
// software, as far as `enableHardware` allows; every picture leaves it as planar 4:2:0, in a buffer of its observer, or
// where it was decoded if that is wanted and can be.
//
// What `open` makes is released by `close`, not by the destructor. `enableHardware`, `setOptions` and `open` come
// before the thread that calls everything else. Opened once.
class FFVideoDecoder : public IVideoDecoder {
public:
    ~FFVideoDecoder() override;

    // An open that fails keeps neither the observer nor anything of the library.
    bool open(VideoCodecType codecType, const void* codecParameters, PixFormat pixFormat, bool isLive,
              std::shared_ptr<VideoDecoderObserver> observer) override;
    bool pause() override { return false; }
    bool resume() override { return false; }
    void close() override;

    // `packet` is a VideoPacket. Its pictures come out with the next call, or with the end packet's; at once where a
    // low delay is wanted.
    void insertPacket(MediaPacket* packet) override;
    void flush() override;
    bool enableHardware(bool enable, HwDecodeMode mode) override;
    void setOptions(const PlaybackOptions& options) override;
    const char* name() const override;
    bool isHardware() const override { return isHardware_; }
    int64_t getAvgDecodeTime() override { return avgDecodeTimeMs_; }
    void setNeededFrom(int64_t timeMs) override { neededFromMs_ = timeMs; }
    void setInsertedBehindTarget(int pictures) override;

private:
    // The first row for this codec from `from` on; null when there is none or the mode forbids such hardware.
    const HWDecoderInfo* getHWDecoderInfo(const HWDecoderInfo* from, AVCodecID id);
    const HWAccelInfo* getHWAccelInfo(const HWAccelInfo* from, AVCodecID id);
    int createHWDeviceContext(AVCodecContext* context, AVHWDeviceType type);
    // The codec's question which surface format to use.
    static AVPixelFormat getHwFormat(AVCodecContext* context, const AVPixelFormat* formats);

    bool openCodec(VideoCodecType codecType, const AVCodecParameters* parameters, PixFormat pixFormat, bool isLive);
    // A hardware decoder that can be opened, or null.
    const AVCodec* findHardwareDecoder(AVCodecID codecId, AVPixelFormat format);
    // Attaches a device to the context if one can be had.
    void limitPictures(AVCodecContext& context) const;
    void accelerate(const AVCodec* decoder, AVCodecID codecId);
    bool attachDevice(const AVCodec* decoder, const HWAccelInfo& info);
    // Sets rotate_ from a display matrix. The texts, with one "%f" each, tell the log the angle and what of it is
    // within one turn.
    void setRotation(const int32_t* matrix, const char* angleText, const char* turnText);
    void releaseCodec();

    // Delivers the pictures that the codec has ready; false when one couldn't be fetched from the hardware, or none is
    // wanted any more.
    bool drain(int64_t nowMs);
    bool isStopping() const { return observer_ && observer_->isStopping(); }
    // The picture in frame_ in system memory; null if it couldn't be fetched.
    AVFrame* fetchPicture();
    // Finds the picture's packet, and measures how long the decoder had it; the picture's time.
    int64_t matchPacket(const AVFrame& picture, int64_t nowMs);
    // As the library has it, or by its place among those of a stream that tells only the order of decoding.
    int64_t timeOf(const AVFrame& picture);
    void deliverPicture(AVFrame* picture, int64_t pts);
    void send(const MediaPacket& packet, int64_t nowMs);
    void DeliverVideoFrame(AVFrame& picture, int64_t pts);
    // Whether the picture may be handed on as it lies in the decoder's memory.
    bool canShare(const AVFrame& picture) const;
    // Gives the picture's references to its memory to the frame.
    static void share(AVFrame& picture, VideoFrameInfo& frame);
    // Puts the picture into a buffer of the observer.
    bool pack(const AVFrame& picture, VideoFrameInfo& frame);
    int64_t nextInterval(int64_t pts);

    // What a picture looks like from outside.
    struct Shape {
        int width, height, rotate;
        bool operator==(const Shape&) const = default;
    };

    std::shared_ptr<VideoDecoderObserver> observer_;
    AVCodecContext* codecContext_ = nullptr;
    bool hwEnabled_ = true;
    HwDecodeMode hwDecodeMode_ = HW_DECODE_ALL;
    PlaybackOptions options_;
    std::atomic<bool> isHardware_{false};                                  // now; the codec's threads write it too
    const DecoderDelay* delay_ = &DecoderDelay::of(/*isLive=*/false, {});  // the form that `open` has chosen
    bool sharesPictures_ = false;       // wanted, and the decoder has memory without end
    AVFrame* frame_ = nullptr;          // what the codec fills
    AVFrame* transferFrame_ = nullptr;  // copy of a hardware picture in system memory
    PixelRatio pixelRatio_;
    int32_t rotate_ = 0;                // clockwise, in degrees, 0 to 359
    int32_t decodeFailCount_ = 0;       // failed sends in a row
    int64_t lastPtsMs_ = -1;            // of the last frame that was delivered; -1 when there is none
    Shape lastShape_{};                 // likewise
    int64_t neededFromMs_ = INT64_MIN;  // pictures before it are for nobody
    int insertedBehindTarget_ = -1;     // as it was set last
    bool canDiscard_ = false;           // by codec; not with hardware
    bool tellsPictureTimes_ = false;    // a packet's time of showing isn't that of its decoding
    bool hasBPictures_ = false;         // one came out
    DecodingOrder order_;
    int64_t frameIntervalMs_ = 40;  // duration for the next frame
    struct Sent {
        int64_t atMs;    // the wall clock
        int fractionUs;  // of the packet's time
    };
    std::map<int64_t, Sent> decodeStartTimes_;           // by a packet's time in ms
    std::map<int64_t, Sent>::node_type spareStartTime_;  // an entry that was taken out, for the next packet
    int fractionUs_ = 0;                                 // of the picture that is delivered
    int64_t avgDecodeTimeMs_ = 0;                        // smoothed
    AVBufferRef* hwDeviceContext_ = nullptr;
    AVPixelFormat hwPixFmt_ = AV_PIX_FMT_NONE;       // of the hardware's pictures; none without acceleration
    AVPixelFormat transferSwFmt_ = AV_PIX_FMT_NONE;  // what the surfaces held that transferFrame_ was made for
    std::unique_ptr<PictureConverter> converter_ = PictureConverter::create({});  // of the form that options_ ask for
};

}  // namespace kelp
