#include "decode/decoder_delay.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace kelp {

namespace {

constexpr DecoderDelay kFile{.threads = 4, .takesAtOnce = false};
constexpr DecoderDelay kLive{.threads = 1, .takesAtOnce = false};
constexpr DecoderDelay kLowDelay{.threads = 4, .takesAtOnce = true};

}  // namespace

const DecoderDelay& DecoderDelay::of(bool isLive, const PlaybackOptions& options) {
    return !isLive ? kFile : options.lowLiveDelay ? kLowDelay : kLive;
}

void DecoderDelay::setUp(AVCodecContext& context) const {
    context.thread_count = threads;
    if (!takesAtOnce) {
        return;
    }
    context.thread_type = FF_THREAD_SLICE;
    // Some decoders would take this for leave to forget about B-pictures. Those of the usual codecs hold back no more
    // than what the stream asks for anyway.
    const AVCodecDescriptor* codec = avcodec_descriptor_get(context.codec_id);
    if (codec && (codec->props & AV_CODEC_PROP_REORDER) == 0) {
        context.flags |= AV_CODEC_FLAG_LOW_DELAY;
    }
}

}  // namespace kelp
