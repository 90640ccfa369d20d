#include "present/audio_output_factory.h"

#include "present/sdl_audio_output.h"

namespace kelp {

std::shared_ptr<IAudioOutput> AudioOutputFactory::create(AudioOutputSpec /*spec*/) {
    return std::make_shared<SDLAudioOutput>();
}

}  // namespace kelp
