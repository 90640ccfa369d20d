#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "input/demuxer_hooks.h"
#include "input/stream_parser.h"

namespace kelp::test {

// In the ticks of the synthetic streams.
constexpr int64_t kSecond = 90'000;  // of pictures
constexpr int64_t kSoundSecond = 44'100;

struct SyntheticStream {
    AVMediaType type = AVMEDIA_TYPE_VIDEO;
    AVCodecID codec = AV_CODEC_ID_H264;
    AVRational timeBase = {1, 90000};
    std::vector<uint8_t> extraData = {};
    int format = AV_PIX_FMT_YUV420P;  // AVPixelFormat or AVSampleFormat
    int width = 320;
    int height = 240;
    AVRational rFrameRate = {25, 1};
    AVRational avgFrameRate = {0, 0};
    int channels = 0;
    int sampleRate = 0;
    int disposition = 0;
    std::vector<std::pair<std::string, std::string>> tags = {};
};

// Video at stream 0 with time base 1:90000, and audio with 1:44100.
SyntheticStream videoStream(AVCodecID codec = AV_CODEC_ID_H264);
SyntheticStream audioStream(AVCodecID codec = AV_CODEC_ID_AAC);

// An input that never was a file: `install` lets avformat_open_input make a context of what stands here. Packets come
// from a ReadScript.
struct SyntheticInput {
    std::string formatName = "mov,mp4,m4a,3gp,3g2,mj2";
    int64_t startTimeUs = 0;
    int64_t durationUs = 60'000'000;
    bool hasPb = true;
    std::vector<SyntheticStream> streams = {videoStream(), audioStream()};

    // Lets all opens from now on make this input.
    void install() const;
};

// A script of what av_read_frame gives, and of what happens right before a read, on the parser's thread. When it has
// run out, the parser is asked to stop.
class ReadScript {
public:
    explicit ReadScript(StreamParser& parser) : parser_(parser) {}

    // Streams 0 and 1 of the default SyntheticInput. `pts` is also the dts.
    ReadScript& video(int64_t pts) { return packet(0, pts, 0); }
    ReadScript& key(int64_t pts) { return packet(0, pts, AV_PKT_FLAG_KEY); }
    ReadScript& audio(int64_t pts, int stream = 1) { return packet(stream, pts, AV_PKT_FLAG_KEY); }
    ReadScript& packet(int stream, int64_t pts, int flags);
    // A key frame, or sound; its times may be AV_NOPTS_VALUE.
    ReadScript& timed(int stream, int64_t pts, int64_t dts, int64_t duration = 0);
    // A packet that `fill` makes up; it comes blank and owns nothing.
    ReadScript& packet(std::function<void(AVPacket*)> fill);
    ReadScript& error(int code, int times = 1);
    ReadScript& endOfFile() { return error(AVERROR_EOF); }
    ReadScript& then(std::function<void()> action);

    void install();
    // Waits in real time, up to ten seconds, until the script has run out. Whether it has.
    bool waitUntilDone();
    // How often av_read_frame was called.
    int reads() const { return reads_; }

private:
    struct Step {
        std::function<int(AVPacket*)> read;
        std::function<void()> action;
    };

    int readFrame(AVPacket* packet);

    StreamParser& parser_;
    std::deque<Step> steps_;
    std::atomic<int> reads_{0};
    std::mutex mutex_;
    std::condition_variable doneCond_;
    bool done_ = false;
};

}  // namespace kelp::test
