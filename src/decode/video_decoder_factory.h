#pragma once

#include <memory>

#include "decode/video_decoder.h"
#include "kelp_player/types.h"

namespace kelp {

// Makes video decoders; one kind serves every codec.
class VideoDecoderFactory {
public:
    virtual ~VideoDecoderFactory() = default;

    std::shared_ptr<IVideoDecoder> create(VideoCodecType codecType);
};

}  // namespace kelp
