#pragma once

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/error.h>
}

#include <deque>
#include <memory>
#include <utility>

#include "decode/audio_library_fakes.h"
#include "decode/audio_test_support.h"
#include "decode/ff_audio_decoder.h"
#include "support/log_capture.h"

namespace kelp::test {

// A decoder for A-law packets whose codec may be made to yield any frame.
class FFAudioDecoderFixture : public testing::Test {
protected:
    FFAudioDecoderFixture() { audioFakes() = {}; }

    ~FFAudioDecoderFixture() override {
        decoder.close();
        observer->frames.clear();
        audioFakes() = {};
    }

    bool open() { return decoder.open(AUDIO_CODEC_PCM_ALAW, makeALawParameters().get(), observer); }

    // Opens a decoder for an output of `channels`, `sampleRate` and signed 16 bits, with a codec that yields what
    // `feed` is given.
    void openFor(int channels, int sampleRate) {
        ASSERT_TRUE(open());
        ASSERT_TRUE(decoder.setOutputSpec({channels, sampleRate, 1}));
        fakeCodec();
    }

    void fakeCodec() {
        audioFakes().receiveFrame = [this](AVFrame* target) {
            if (decoded.empty()) {
                return AVERROR(EAGAIN);
            }
            av_frame_unref(target);
            av_frame_move_ref(target, decoded.front().get());
            decoded.pop_front();
            return 0;
        };
        audioFakes().sendPacket = [](const AVPacket*) { return 0; };
    }

    // Lets the codec yield `frame`.
    void feed(AVFramePtr frame) {
        decoded.push_back(std::move(frame));
        auto packet = makeAudioPacket(0);
        decoder.insertPacket(packet.get());
    }

    void feedS16(int nbSamples, int sampleRate, int channels = 2, int64_t pts = 0) {
        feed(makeAudioFrame(AV_SAMPLE_FMT_S16, channels, sampleRate, nbSamples, pts));
    }

    std::shared_ptr<RecordingAudioObserver> observer = std::make_shared<RecordingAudioObserver>();
    FFAudioDecoder decoder;
    std::deque<AVFramePtr> decoded;
};

}  // namespace kelp::test
