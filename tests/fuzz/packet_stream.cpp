#include "fuzz/packet_stream.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/mem.h>
}

#include "runtime/ffmpeg_compat.h"

namespace kelp::test {

StreamHead takeHead(FuzzInput& input) {
    StreamHead head;
    head.codec = input.byte();
    head.format = input.byte();
    head.first = input.take<uint32_t>();
    head.second = input.take<uint16_t>();
    head.extraData.resize(input.take<uint16_t>());
    head.extraData.resize(input.take(head.extraData.data(), head.extraData.size()));
    return head;
}

void FreeParameters::operator()(AVCodecParameters* parameters) const {
    compat::freeParameters(&parameters);
}

ParametersPtr makeParameters(const StreamHead& head, AVMediaType type, int codecId) {
    ParametersPtr parameters(avcodec_parameters_alloc());
    parameters->codec_type = type;
    parameters->codec_id = static_cast<AVCodecID>(codecId);
    if (!head.extraData.empty()) {
        const size_t size = head.extraData.size();
        parameters->extradata = static_cast<uint8_t*>(av_mallocz(size + AV_INPUT_BUFFER_PADDING_SIZE));
        parameters->extradata_size = static_cast<int>(size);
        std::memcpy(parameters->extradata, head.extraData.data(), size);
    }
    return parameters;
}

}  // namespace kelp::test
