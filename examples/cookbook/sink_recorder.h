#pragma once

#include <kelp_player/codec_info.h>
#include <kelp_player/frame_sink.h>
#include <kelp_player/stream_muxer.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

struct AVCodecContext;
struct AVFrame;
struct AVPacket;

// Records what a player shows: a sink that encodes each picture as H.264 and writes it to an MP4 file, or to an
// "rtsp://" or "rtp://" destination, at the time at which it was shown. Seeks, pauses and changes of speed are in the
// record as the viewer saw them.
//
// The player's video thread only copies the picture; encoding and writing have a thread of their own. Pictures of
// another size than the first one are left out, and so are those that the encoder can't keep up with.
class SinkRecorder final : public kelp::ExternFrameSink {
public:
    explicit SinkRecorder(std::string destination);
    SinkRecorder(const SinkRecorder&) = delete;
    SinkRecorder& operator=(const SinkRecorder&) = delete;
    ~SinkRecorder();

    // Writes what is left and ends the record; after the player's stop. Whether all of it was written.
    bool finish();

    int written() const { return written_; }  // pictures; after finish()
    int leftOut() const { return leftOut_; }  // the same

    void onVideoSize(int width, int height, int fps) override;
    bool onVideoFrame(int pixFormat, int64_t pts, uint8_t** data, int* linesize, int rotate, int64_t frameTag) override;

private:
    void run();
    bool openOutput(const AVFrame& picture);
    bool encode(const AVFrame* picture);
    void closeOutput();

    static constexpr size_t kWaitingMax = 8;

    const std::string destination_;

    // The player's video thread.
    int width_ = 0;
    int height_ = 0;
    int64_t lastPts_ = INT64_MIN;
    std::chrono::steady_clock::time_point begin_;
    bool begun_ = false;

    // The recorder's thread; the rest of the host from finish() on.
    AVCodecContext* encoder_ = nullptr;
    AVPacket* packet_ = nullptr;
    kelp::StreamMuxer muxer_;
    bool failed_ = false;
    int written_ = 0;

    std::mutex mutex_;  // guards what follows
    std::condition_variable changed_;
    std::deque<AVFrame*> waiting_;
    bool finished_ = false;
    int leftOut_ = 0;
    std::thread thread_;
};
