#include "present/audio_output_factory.h"

#include "present/sdl_audio_output.h"
#include "present/steady_audio_output.h"

namespace kelp {

std::shared_ptr<IAudioOutput> AudioOutputFactory::create(AudioOutputSpec /*spec*/) {
    const auto changes = options_.exactTiming ? SampleGain::Changes::Ramped : SampleGain::Changes::AtOnce;
    if (!options_.neverWaitsForDevice) {
        return std::make_shared<SDLAudioOutput>(SDLAudioOutput::Device::WaitedFor, changes);
    }
    return std::make_shared<SteadyAudioOutput>([changes](AudioDeviceSearch::Attempt attempt) {
        const bool isFirst = attempt == AudioDeviceSearch::Attempt::First;
        return std::make_shared<SDLAudioOutput>(
            isFirst ? SDLAudioOutput::Device::Watched : SDLAudioOutput::Device::TriedAgain, changes);
    });
}

}  // namespace kelp
