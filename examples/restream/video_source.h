#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "kelp_player/codec_info.h"

struct AVBSFContext;
struct AVFormatContext;
struct AVPacket;
struct AVStream;

// The encoded video of a file or camera, frame by frame, in the form that StreamMuxer takes: H.264 and HEVC with start
// codes, and what a decoder must know in front of the key frames. The first frame is a key frame.
class VideoSource {
public:
    // `interrupted` is asked while a source makes the program wait.
    explicit VideoSource(std::function<bool()> interrupted);
    ~VideoSource();
    VideoSource(const VideoSource&) = delete;
    VideoSource& operator=(const VideoSource&) = delete;

    // `track`: the number of a video in it; -1 for FFmpeg's choice. On failure it says why in `error` and gives false.
    bool open(const std::string& url, int track, std::string& error);

    std::shared_ptr<kelp::CodecInfo> codecInfo() const { return codecInfo_; }
    // 0 if it isn't known.
    int64_t durationMs() const;
    // Whether pictures are shown in another order than they are decoded in. Their times are those of decoding then.
    bool reordered() const;

    // Reads the next frame; false at the end, with `error` set if that came early.
    bool next(std::string& error);

    // Of the frame that `next` has read.
    unsigned char* data() const;
    unsigned int size() const;
    int64_t timeUs() const { return timeUs_; }  // from the first frame on
    bool keyFrame() const;

private:
    bool openFilter(std::string& error);
    // Takes a frame out of the filter, and feeds it; a code of the library.
    int read();
    void noteTime();

    std::function<bool()> interrupted_;
    std::shared_ptr<kelp::CodecInfo> codecInfo_ = std::make_shared<kelp::CodecInfo>();
    AVFormatContext* format_ = nullptr;
    AVStream* stream_ = nullptr;      // the context's
    AVBSFContext* filter_ = nullptr;  // brings frames into the form that is wanted
    AVPacket* packet_;
    int64_t firstUs_ = INT64_MIN;  // time of the first frame in the source; INT64_MIN before it
    int64_t timeUs_ = 0;
    bool started_ = false;  // the first key frame has come
};
