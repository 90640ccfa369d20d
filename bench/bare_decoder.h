#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct AVCodecContext;
struct AVFormatContext;
struct AVFrame;
struct AVPacket;

namespace kelp::bench {

// Reads and decodes a file with the libraries alone and with the player's number of threads: what no player can do
// without. For one thread.
class BareDecoder {
public:
    enum class Sound { Decode, Skip };

    BareDecoder();
    ~BareDecoder();
    BareDecoder(const BareDecoder&) = delete;
    BareDecoder& operator=(const BareDecoder&) = delete;

    // Opens the file and looks at its streams.
    bool openSource(const std::string& path);
    // Opens the decoders. After openSource.
    bool openDecoders(Sound sound);

    // Decodes up to the next picture, and the sound that comes before it unless it is skipped. False at the end.
    bool next();
    // Goes to the key frame at or before `ms`. The next picture is that one.
    bool seek(int64_t ms);
    // Decodes pictures until one reaches `ms`. False if the end comes first.
    bool decodeTo(int64_t ms);

    // The picture of the last `next`: valid until the next call.
    const AVFrame& picture() const { return *frame_; }
    // Its time from the start of the stream.
    double pictureMs() const;

    // In pictures per second.
    double rate() const;
    double durationMs() const;
    int width() const;
    int height() const;

private:
    struct FreeFormat {
        void operator()(AVFormatContext* format) const;
    };
    struct FreeContext {
        void operator()(AVCodecContext* context) const;
    };
    struct FreePacket {
        void operator()(AVPacket* packet) const;
    };
    struct FreeFrame {
        void operator()(AVFrame* frame) const;
    };

    bool readPacket();
    void decodeSound(AVCodecContext* context);

    std::unique_ptr<AVFormatContext, FreeFormat> format_;
    std::vector<std::unique_ptr<AVCodecContext, FreeContext>> contexts_;  // by stream; null for what isn't decoded
    std::unique_ptr<AVPacket, FreePacket> packet_;
    std::unique_ptr<AVFrame, FreeFrame> frame_;
    std::unique_ptr<AVFrame, FreeFrame> soundFrame_;
    int video_ = -1;      // the stream
    bool ended_ = false;  // everything was read
};

}  // namespace kelp::bench
