// The audio decoder on packets of any kind.

#include "decode/audio_frame_info.h"
#include "decode/decoded_frame.h"
#include "decode/ff_audio_decoder.h"
#include "fuzz/fuzz_target.h"
#include "fuzz/packet_stream.h"
#include "fuzz/quiet.h"
#include "input/codec_tables.h"
#include "runtime/ffmpeg_compat.h"

extern "C" {
#include <libavutil/channel_layout.h>
}

using kelp::AudioFrameInfo;
using kelp::FrameBuffer;
using kelp::test::FuzzInput;
using kelp::test::require;

namespace {

constexpr int kMaxPackets = 32;
constexpr unsigned int kMaxBytes = 16U << 20U;
constexpr unsigned int kTailBytes = 256;
constexpr unsigned char kTailByte = 0xA5;

class Observer final : public kelp::AudioDecoderObserver {
public:
    virtual ~Observer() = default;

    void onAudioDecoded(std::shared_ptr<AudioFrameInfo> frame) override {
        require(frame->dataSize <= frame->buffer->size, "samples inside the buffer");
        checkTail(*frame->buffer);
        unsigned char sum = 0;
        for (unsigned int i = 0; i < frame->dataSize; ++i) {
            sum = static_cast<unsigned char>(sum ^ frame->buffer->data[i]);
        }
        total = static_cast<unsigned char>(total ^ sum);
    }
    int onSpeedUpSamples() override { return speedUp; }
    std::shared_ptr<FrameBuffer> allocPcmBuffer(unsigned int size) override {
        if (size > kMaxBytes) {
            return nullptr;
        }
        auto buffer = std::make_shared<FrameBuffer>();
        buffer->data = new unsigned char[size + kTailBytes]();
        buffer->size = size;
        std::memset(buffer->data + size, kTailByte, kTailBytes);
        return buffer;
    }
    void freePcmBuffer(std::shared_ptr<FrameBuffer> buffer) override { checkTail(*buffer); }

    int speedUp = 0;
    unsigned char total = 0;

private:
    // Vector code isn't seen by the sanitizers.
    static void checkTail(const FrameBuffer& buffer) {
        for (unsigned int i = 0; i < kTailBytes; ++i) {
            require(buffer.data[buffer.size + i] == kTailByte, "nothing written behind the buffer");
        }
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    kelp::test::quiet();
    FuzzInput input(data, size);
    const auto head = kelp::test::takeHead(input);
    const auto type = static_cast<kelp::AudioCodecType>(head.codec % 4);
    const auto parameters = kelp::test::makeParameters(head, AVMEDIA_TYPE_AUDIO, kelp::codecIdFromType(type));
    parameters->sample_rate = static_cast<int>(head.first % 200000);
    av_channel_layout_default(&parameters->ch_layout, head.second % 12);

    const auto observer = std::make_shared<Observer>();
    kelp::FFAudioDecoder decoder;
    decoder.setOptions({.allCodecs = (head.codec & 4U) != 0});
    if (!decoder.open(type, parameters.get(), observer)) {
        return 0;
    }
    kelp::AudioOutputSpec spec;
    spec.channels = 1 + head.format % 2;
    spec.sampleRate = head.format % 8 == 7 ? 44100 : 48000;
    spec.sampleFormat = head.format < 200 ? 1 : head.format % 6;
    if (head.format % 16 != 15) {
        decoder.setOutputSpec(spec);
    }
    decoder.openSync(head.format % 4 == 1);
    int64_t ptsMs = 0;
    for (int i = 0; i < kMaxPackets && !input.empty(); ++i) {
        uint8_t flags = 0;
        const auto packet = kelp::test::takePacket<kelp::AudioPacket>(input, ptsMs, flags);
        observer->speedUp = (flags & 0x18U) == 0 ? 0 : static_cast<int8_t>(flags) * 64;
        decoder.insertPacket(packet.get());
        if (flags >= 0xF0) {
            decoder.flush();
        }
    }
    decoder.close();
    return 0;
}
