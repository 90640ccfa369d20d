// The video decoder on packets of any kind.

#include <cstdint>
#include <cstring>
#include <numeric>

#include "decode/decoded_frame.h"
#include "decode/ff_video_decoder.h"
#include "decode/video_frame_info.h"
#include "fuzz/fuzz_target.h"
#include "fuzz/packet_stream.h"
#include "fuzz/quiet.h"
#include "input/codec_tables.h"

using kelp::FrameBuffer;
using kelp::VideoFrameInfo;
using kelp::test::FuzzInput;
using kelp::test::require;

namespace {

constexpr int kMaxPackets = 16;
constexpr unsigned int kMaxBytes = 32U << 20U;  // of a picture; there is no memory for larger ones
constexpr unsigned int kTailBytes = 256;
constexpr unsigned char kTailByte = 0xA5;

bool isTailWhole(const FrameBuffer& buffer) {
    for (unsigned int i = 0; i < kTailBytes; ++i) {
        if (buffer.data[buffer.size + i] != kTailByte) {
            return false;
        }
    }
    return true;
}

class Observer final : public kelp::VideoDecoderObserver {
public:
    virtual ~Observer() = default;

    void onVideoDecoded(std::shared_ptr<VideoFrameInfo> frame) override {
        require(frame->width > 0 && frame->height > 0, "a picture has a size");
        require(frame->rotate >= 0 && frame->rotate < 360, "within one turn");
        require(frame->duration >= 0 && frame->duration <= 100, "a duration that is believed");
        require((frame->buffer != nullptr) != (frame->decoderMemory[0] != nullptr), "memory, and of one kind");
        if (frame->buffer) {
            checkPacked(*frame);
        } else {
            readAll(*frame);
        }
        ++frames;
        last = std::move(frame);
    }
    void onVideoDecodeFailed() override {}
    void onVideoDecodeNoMoreFrame() override {}
    std::shared_ptr<FrameBuffer> allocPixBuffer(unsigned int size) override {
        if (size > kMaxBytes || size == 0) {
            return nullptr;
        }
        auto buffer = std::make_shared<FrameBuffer>();
        buffer->data = new unsigned char[size + kTailBytes];
        buffer->size = size;
        std::memset(buffer->data + size, kTailByte, kTailBytes);
        return buffer;
    }
    void freePixBuffer(std::shared_ptr<FrameBuffer> buffer) override {
        require(isTailWhole(*buffer), "nothing written behind the buffer");
    }

    // An address sanitizer sees a read outside of the memory.
    static void readAll(const VideoFrameInfo& frame) {
        static volatile uint8_t sum;
        for (int plane = 0; plane < 3; ++plane) {
            // As SDL reads it: the chroma size rounded up.
            const int width = plane == 0 ? frame.width : (frame.width + 1) / 2;
            const int height = plane == 0 ? frame.height : (frame.height + 1) / 2;
            require(frame.linesize[plane] >= width, "whole rows");
            for (int row = 0; row < height; ++row) {
                const uint8_t* from = frame.data[plane] + static_cast<ptrdiff_t>(row) * frame.linesize[plane];
                sum = std::accumulate(from, from + width, sum);
            }
        }
    }

    int frames = 0;
    std::shared_ptr<VideoFrameInfo> last;

private:
    static void checkPacked(const VideoFrameInfo& frame) {
        require(frame.linesize[0] == frame.width && frame.linesize[1] == frame.width / 2, "packed rows");
        const auto rows = static_cast<size_t>(frame.height / 2);
        const uint8_t* end = frame.data[2] + rows * static_cast<size_t>(frame.linesize[2]);
        require(end <= frame.buffer->data + frame.buffer->size, "planes inside the buffer");
        // Vector code isn't seen by the sanitizers.
        require(isTailWhole(*frame.buffer), "nothing written behind the buffer");
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    kelp::test::quiet();
    FuzzInput input(data, size);
    const auto head = kelp::test::takeHead(input);
    const auto type = static_cast<kelp::VideoCodecType>(head.codec % 8);
    const auto parameters = kelp::test::makeParameters(head, AVMEDIA_TYPE_VIDEO, kelp::codecIdFromType(type));
    parameters->format = kelp::avPixelFormatFromPixFormat(static_cast<kelp::PixFormat>(head.format % 4));
    parameters->width = static_cast<int>(head.first % 2048);
    parameters->height = head.second % 2048;

    const auto observer = std::make_shared<Observer>();
    kelp::FFVideoDecoder decoder;
    decoder.enableHardware(false, kelp::HW_DECODE_NONE);
    const bool shares = (head.format & 4U) != 0;
    // Of the codec's number three bits name the codec.
    decoder.setOptions({.allCodecs = (head.codec & 8U) != 0,
                        .lowLiveDelay = (head.codec & 16U) != 0,
                        .sharedPictures = shares,
                        .seekRule = (head.codec & 32U) != 0 ? kelp::SeekRule::Exact : kelp::SeekRule::Standard});
    // Live ones have one thread, which is what most runs take: starting threads takes longer than decoding.
    const bool isLive = head.format < 240;
    if (!decoder.open(type, parameters.get(), static_cast<kelp::PixFormat>(head.format % 4), isLive, observer)) {
        return 0;
    }
    int64_t ptsMs = 0;
    for (int i = 0; i < kMaxPackets && !input.empty(); ++i) {
        uint8_t flags = 0;
        const auto packet = kelp::test::takePacket<kelp::VideoPacket>(input, ptsMs, flags);
        packet->keyFrame = (flags & kelp::test::kKeyPacket) != 0;
        packet->foundKeyFrame = (flags & 8U) != 0;
        decoder.setNeededFrom((flags & 16U) != 0 ? ptsMs + 200 : INT64_MIN);
        decoder.insertPacket(packet.get());
        decoder.setInsertedBehindTarget((flags & 32U) != 0 ? i : -1);
        if (flags >= 0xF0) {
            decoder.flush();
        }
    }
    kelp::VideoPacket end;
    end.foundKeyFrame = true;
    decoder.insertPacket(&end);
    decoder.close();
    if (observer->last && !observer->last->buffer) {
        Observer::readAll(*observer->last);  // it outlives the decoder
    }
    return 0;
}
