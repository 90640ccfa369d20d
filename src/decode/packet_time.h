#pragma once

#include <cstdint>

struct AVPacket;

namespace kelp {

class MediaPacket;

// Milliseconds per tick of the packet's time base; 1.0 for a packet that has none.
double msPerTick(const MediaPacket& packet);

// `ticks` in milliseconds, truncated, and held at the ends of the type's range.
int64_t scaleTicks(int64_t ticks, double msPerTick);

// When the packet is shown and decoded, in milliseconds on the line of playback: in a loop ahead of the film.
int64_t lineTimeMs(const MediaPacket& packet);
int64_t lineDecodingMs(const MediaPacket& packet);

// What that cuts off, in microseconds.
int fractionUs(int64_t ticks, double msPerTick);

// Makes `target` a packet of `source`'s bytes and side data with times in milliseconds. Both are lent, not copied:
// `target` must not outlive `source`, and owns nothing that would have to be freed.
void lendPacket(const MediaPacket& source, AVPacket* target);

}  // namespace kelp
