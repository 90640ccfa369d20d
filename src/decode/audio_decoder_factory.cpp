#include "decode/audio_decoder_factory.h"

#include "decode/ff_audio_decoder.h"

namespace kelp {

std::shared_ptr<IAudioDecoder> AudioDecoderFactory::create(AudioCodecType /*codecType*/) {
    return std::make_shared<FFAudioDecoder>();
}

}  // namespace kelp
