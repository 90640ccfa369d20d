#include "decode/video_decoder_factory.h"

#include "decode/ff_video_decoder.h"

namespace kelp {

std::shared_ptr<IVideoDecoder> VideoDecoderFactory::create(VideoCodecType) {
    return std::make_shared<FFVideoDecoder>();
}

}  // namespace kelp
