#pragma once

#include <memory>

#include "decode/audio_decoder.h"

namespace kelp {

// Makes the decoder for a codec.
class AudioDecoderFactory {
public:
    AudioDecoderFactory() = default;
    virtual ~AudioDecoderFactory() = default;

    // One decoder serves every codec: `codecType` is not looked at.
    virtual std::shared_ptr<IAudioDecoder> create(AudioCodecType codecType);
};

}  // namespace kelp
