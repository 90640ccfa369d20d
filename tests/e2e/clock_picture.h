#pragma once

#include <cstddef>
#include <cstdint>

namespace kelp::test {

// The monotonic clock in milliseconds, its lowest 32 bits, as rtsp_server.py draws it into its live pictures; -1 if no
// such bar code is in the middle of the luminance plane.
int64_t readClockPicture(const uint8_t* luminance, ptrdiff_t stride, int width, int height);

// The same clock's reading now.
int64_t clockPictureNow();

}  // namespace kelp::test
