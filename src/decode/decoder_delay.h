#pragma once

#include "runtime/playback_options.h"

struct AVCodecContext;

namespace kelp {

// How long a software decoder may keep a picture, and what it gets for that.
struct DecoderDelay {
    // The form for a source; one of three that live for good.
    static const DecoderDelay& of(bool isLive, const PlaybackOptions& options);

    // For a context that isn't open yet. The order in which pictures are shown stays right in all forms.
    void setUp(AVCodecContext& context) const;

    int threads;       // 1: the caller's own
    bool takesAtOnce;  // pictures are taken out behind the packet that brings them, not with the next one, and threads
                       // share a picture instead of holding one each
};

}  // namespace kelp
