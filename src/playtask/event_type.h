#pragma once

#include <cstdint>

namespace kelp {

// What a playback reports to its player, with three integers a, b and c. Unused ones are 0.
enum EventType : int32_t {
    EVENT_VIDEO_SIZE_UPDATED = 0,  // width, height, rotation in degrees
    EVENT_PREPARED = 1,            // has video, has audio
    EVENT_FAILED = 2,              // a KelpPlayerErrorType, extra data
    EVENT_FIRST_PACKET = 3,        // time in ms
    EVENT_FIRST_VIDEO_FRAME = 4,   // time in ms
    EVENT_FIRST_AUDIO_FRAME = 5,   // time in ms
    EVENT_COMPLETED = 6,
    EVENT_DURATION_UPDATED = 7,  // duration in ms
    EVENT_STALLED = 8,
    EVENT_BUFFERING = 9,  // what waits in ms, the same in percent of what is enough
    EVENT_STALL_ENDED = 10,
};

}  // namespace kelp
