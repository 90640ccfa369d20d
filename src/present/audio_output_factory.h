#pragma once

#include <memory>

#include "present/audio_output.h"
#include "runtime/playback_options.h"

namespace kelp {

// Makes the output for a form of samples: one that waits for its device, or one that never does.
class AudioOutputFactory {
public:
    explicit AudioOutputFactory(const PlaybackOptions& options = {}) : options_(options) {}
    virtual ~AudioOutputFactory() = default;

    // One output serves every form: `spec` is not looked at.
    virtual std::shared_ptr<IAudioOutput> create(AudioOutputSpec spec);

private:
    const PlaybackOptions options_;
};

}  // namespace kelp
