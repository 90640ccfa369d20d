#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libswresample/swresample.h>
}

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace kelp::test {

// Stands between the audio decoder and FFmpeg. A call goes through to the library unless a test put a function of its
// own in its place; what the decoder asked for is kept. Not locked: one thread decodes, and the test looks afterwards.
struct AudioLibraryFakes {
    struct ResamplerSpec {
        int inChannels, inRate, inFormat, outChannels, outRate, outFormat;
        bool operator==(const ResamplerSpec&) const = default;
    };
    struct Compensation {
        int sampleDelta, distance;
        bool operator==(const Compensation&) const = default;
    };
    struct Conversion {
        int outCount, inCount, result;
        const void* block;
        int outputPointers;  // set ones, of the first 32
    };

    std::function<const AVCodec*(int)> findDecoder;
    std::function<AVCodecContext*()> allocContext;
    std::function<int()> parametersToContext;
    std::function<int()> openCodec;
    std::function<AVFrame*()> allocFrame;
    std::function<int(AVFrame*)> receiveFrame;
    std::function<int(const AVPacket*)> sendPacket;
    std::function<int()> initResampler;
    std::function<int(int, int)> setCompensation;
    std::function<int(uint8_t** out, int outCount)> convert;

    // Names of the functions of libavcodec below, in the order of the calls.
    std::vector<std::string> codecCalls;
    std::vector<ResamplerSpec> resamplers;
    std::vector<Compensation> compensations;
    std::vector<Conversion> conversions;
    int resamplerInits = 0;
    int liveResamplers = 0;
    int liveContexts = 0;

    int codecCallCount(const std::string& name) const;
};

// The one set of fakes of the program.
AudioLibraryFakes& audioFakes();

}  // namespace kelp::test
