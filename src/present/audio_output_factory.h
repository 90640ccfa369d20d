#pragma once

#include <memory>

#include "present/audio_output.h"

namespace kelp {

// Makes the output for a form of samples.
class AudioOutputFactory {
public:
    AudioOutputFactory() = default;
    virtual ~AudioOutputFactory() = default;

    // One output serves every form: `spec` is not looked at.
    virtual std::shared_ptr<IAudioOutput> create(AudioOutputSpec spec);
};

}  // namespace kelp
