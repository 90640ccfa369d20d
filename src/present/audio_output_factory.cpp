#include "present/audio_output_factory.h"

#include "present/sdl_audio_output.h"
#include "present/steady_audio_output.h"

namespace kelp {

namespace {

// That a device takes at once where sound is to be heard as soon as can be: it takes as long again until it is heard.
constexpr int kLowDelayFrames = SDLAudioOutput::kDeviceBufferSamples / 2;

}  // namespace

std::shared_ptr<IAudioOutput> AudioOutputFactory::create(AudioOutputSpec /*spec*/) {
    const auto changes = options_.exactTiming ? SampleGain::Changes::Ramped : SampleGain::Changes::AtOnce;
    const int frames = options_.lowLiveDelay ? kLowDelayFrames : SDLAudioOutput::kDeviceBufferSamples;
    if (!options_.neverWaitsForDevice) {
        return std::make_shared<SDLAudioOutput>(SDLAudioOutput::Device::WaitedFor, changes, frames);
    }
    const auto make = [changes, frames](AudioDeviceSearch::Attempt attempt) {
        const bool isFirst = attempt == AudioDeviceSearch::Attempt::First;
        return std::make_shared<SDLAudioOutput>(
            isFirst ? SDLAudioOutput::Device::Watched : SDLAudioOutput::Device::TriedAgain, changes, frames);
    };
    return std::make_shared<SteadyAudioOutput>(make, frames);
}

}  // namespace kelp
